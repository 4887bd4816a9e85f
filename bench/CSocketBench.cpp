// What a frame costs on its way between two endpoints over loopback, against the same bytes sent
// and received by hand on sockets with the same options.

#include "libQuorCore/CSocketBase.h"
#include "libQuorCore/CSocketCallback.h"

#include "support/Bench.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <semaphore.h>
#include <stdexcept>
#include <sys/socket.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace QuorCore;
using steady = std::chrono::steady_clock;

namespace
{
constexpr uint16_t kCommand = 1000;
constexpr long kDataMax = 4096;
constexpr int kRounds = 5000; // round trips whose percentiles are one measurement: the timer ticks
                              // and the hand-over of the first ones are then well beyond p99
constexpr int kFrames = 100;  // frames one way of one measurement

int iChecked(int iResult, const char* szCall)
{
    if (iResult == -1) {
        throw std::system_error(errno, std::generic_category(), szCall);
    }
    return iResult;
}

/// The options that lSetOption() gives an endpoint, and its TCP_NODELAY.
void SetOptions(int iFd)
{
    const int iBuffer = 8192;
    const int iOn = 1;
    iChecked(setsockopt(iFd, SOL_SOCKET, SO_RCVBUF, &iBuffer, sizeof(iBuffer)), "SO_RCVBUF");
    iChecked(setsockopt(iFd, SOL_SOCKET, SO_SNDBUF, &iBuffer, sizeof(iBuffer)), "SO_SNDBUF");
    iChecked(setsockopt(iFd, IPPROTO_TCP, TCP_NODELAY, &iOn, sizeof(iOn)), "TCP_NODELAY");
}

/// Keeps a measurement, threads that it makes included, on one processor: where the kernel happens
/// to wake the other end would else decide alone.
class COnOneProcessor
{
public:
    COnOneProcessor()
    {
        sched_getaffinity(0, sizeof(m_former), &m_former);
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(sched_getcpu(), &one);
        sched_setaffinity(0, sizeof(one), &one);
    }
    COnOneProcessor(const COnOneProcessor&) = delete;
    COnOneProcessor& operator=(const COnOneProcessor&) = delete;
    ~COnOneProcessor() { sched_setaffinity(0, sizeof(m_former), &m_former); }

private:
    cpu_set_t m_former;
};

/// Two ends of a connection over loopback; whoever takes them closes them.
struct connection_t {
    int iNear;
    int iFar;
};

connection_t Connect()
{
    const int iListener = iChecked(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    auto* const pAddress = reinterpret_cast<sockaddr*>(&address);
    iChecked(bind(iListener, pAddress, length), "bind");
    iChecked(listen(iListener, 1), "listen");
    iChecked(getsockname(iListener, pAddress, &length), "getsockname");
    connection_t ends{};
    ends.iNear = iChecked(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
    iChecked(connect(ends.iNear, pAddress, length), "connect");
    ends.iFar = iChecked(accept4(iListener, nullptr, nullptr, SOCK_CLOEXEC), "accept");
    close(iListener);
    SetOptions(ends.iNear);
    SetOptions(ends.iFar);
    return ends;
}

std::vector<uint8_t> MakeFrame(size_t nData)
{
    std::vector<uint8_t> bytes(kFrameHeaderSize + nData, 0x5a);
    auto* const pFrame = reinterpret_cast<socketFrame_t*>(bytes.data());
    std::memset(bytes.data(), 0, kFrameHeaderSize);
    pFrame->magicNumber = kFrameMagic;
    pFrame->command = kCommand;
    pFrame->SetDataSize(static_cast<uint16_t>(nData));
    return bytes;
}

/// Durations of round trips, measured by whoever receives the answers.
class CRounds
{
public:
    explicit CRounds(int nRounds) : m_nRounds(nRounds) { m_Durations.reserve(size_t(nRounds)); }
    void Begin()
    {
        m_Durations.clear();
        m_start = steady::now();
    }
    /// @return Whether another round is to follow.
    bool bNext()
    {
        const steady::time_point now = steady::now();
        m_Durations.push_back(now - m_start);
        m_start = now;
        return static_cast<int>(m_Durations.size()) < m_nRounds;
    }
    /// @return The duration in s that @p iPercent of the rounds stay below.
    double fPercentile(size_t iPercent)
    {
        std::sort(m_Durations.begin(), m_Durations.end());
        const size_t iPlace = m_Durations.size() * iPercent / 100;
        return std::chrono::duration<double>(m_Durations[iPlace]).count();
    }

private:
    const int m_nRounds;
    steady::time_point m_start;
    std::vector<steady::duration> m_Durations;
};

/// An endpoint on a socket that is connected already; its handler gets the frames of kCommand.
class CEndpoint : public CSocketBase
{
public:
    CEndpoint(const char* szLabel, int iFd) : CSocketBase(nullptr, szLabel)
    {
        sem_init(&m_done, 0, 0);
        Configure(1, kDataMax, szLabel);
        m_iSocket = iFd;
        SetConnected(true);
    }
    ~CEndpoint() override { iStop(true, false); }
    void Start()
    {
        if (iCreateThread(true, 5000) != 0) {
            throw std::runtime_error("an endpoint did not start");
        }
    }
    long iInitInstance() override
    {
        const long lResult = CSocketBase::iInitInstance();
        pAddCallback(kCommand, new CSocketCallback<CSocketBase>(
                                   this, static_cast<CSocketCallback<CSocketBase>::Callback>(
                                             &CEndpoint::OnFrame)));
        return lResult;
    }
    virtual void OnFrame(socketFrame_t* pFrame) = 0;
    void Await() { sem_wait(&m_done); }

protected:
    sem_t m_done;
};

/// Sends every frame back.
class CEchoEndpoint : public CEndpoint
{
public:
    using CEndpoint::CEndpoint;
    ~CEchoEndpoint() override { iStop(true, false); }
    void OnFrame(socketFrame_t* pFrame) override { iWrite(pFrame); }
};

/// Sends every answer out again as the next request.
class CAskingEndpoint : public CEndpoint
{
public:
    CAskingEndpoint(int iFd) : CEndpoint("asking", iFd), m_Rounds(kRounds) {}
    ~CAskingEndpoint() override { iStop(true, false); }
    void OnFrame(socketFrame_t* pFrame) override
    {
        if (m_Rounds.bNext()) {
            iWrite(pFrame);
        } else {
            sem_post(&m_done);
        }
    }
    CRounds m_Rounds;
};

/// Counts frames.
class CCountingEndpoint : public CEndpoint
{
public:
    using CEndpoint::CEndpoint;
    ~CCountingEndpoint() override { iStop(true, false); }
    void OnFrame(socketFrame_t*) override
    {
        if (++m_nFrames == kFrames) {
            m_nFrames = 0;
            sem_post(&m_done);
        }
    }

private:
    int m_nFrames = 0;
};

void SendAll(int iFd, const std::vector<uint8_t>& bytes)
{
    size_t nSent = 0;
    while (nSent < bytes.size()) {
        const ssize_t nPart = send(iFd, bytes.data() + nSent, bytes.size() - nSent, MSG_NOSIGNAL);
        if (nPart <= 0) {
            return;
        }
        nSent += static_cast<size_t>(nPart);
    }
}

bool bReceiveAll(int iFd, uint8_t* pBytes, size_t nBytes)
{
    return recv(iFd, pBytes, nBytes, MSG_WAITALL) == static_cast<ssize_t>(nBytes);
}

/// The other end by hand: sends every frame back.
class CRawEcho
{
public:
    CRawEcho(int iFd, size_t nBytes)
        : m_iFd(iFd), m_thread([iFd, nBytes] {
              std::vector<uint8_t> frame(nBytes);
              while (bReceiveAll(iFd, frame.data(), nBytes)) {
                  SendAll(iFd, frame);
              }
          })
    {
    }
    ~CRawEcho()
    {
        shutdown(m_iFd, SHUT_RDWR);
        m_thread.join();
        close(m_iFd);
    }

private:
    const int m_iFd;
    std::thread m_thread;
};

template <int nData, int iPercent>
void RoundTrip(benchmark::State& state)
{
    const COnOneProcessor pinned;
    const connection_t ends = Connect();
    CEchoEndpoint echo("echo", ends.iFar);
    CAskingEndpoint asking(ends.iNear);
    echo.Start();
    asking.Start();
    std::vector<uint8_t> frame = MakeFrame(nData);
    for (auto _ : state) {
        asking.m_Rounds.Begin();
        asking.iWrite(reinterpret_cast<socketFrame_t*>(frame.data()));
        asking.Await();
        state.SetIterationTime(asking.m_Rounds.fPercentile(iPercent));
    }
}

template <int nData, int iPercent>
void RawRoundTrip(benchmark::State& state)
{
    const COnOneProcessor pinned;
    const connection_t ends = Connect();
    std::vector<uint8_t> frame = MakeFrame(nData);
    {
        const CRawEcho echo(ends.iFar, frame.size());
        CRounds rounds(kRounds);
        for (auto _ : state) {
            rounds.Begin();
            do {
                SendAll(ends.iNear, frame);
                bReceiveAll(ends.iNear, frame.data(), frame.size());
            } while (rounds.bNext());
            state.SetIterationTime(rounds.fPercentile(iPercent));
        }
    }
    close(ends.iNear);
}

template <int nData>
void Exchange(benchmark::State& state)
{
    const COnOneProcessor pinned;
    const connection_t ends = Connect();
    CEchoEndpoint echo("echo", ends.iFar);
    CCountingEndpoint asking("asking", ends.iNear);
    echo.Start();
    asking.Start();
    std::vector<uint8_t> data(nData, 0x5a);
    std::vector<uint8_t> answer(kDataMax);
    long lUsed = 0;
    for (auto _ : state) {
        if (asking.iExchangeCmd(kCommand, data.data(), nData, kCommand, answer.data(), kDataMax,
                                &lUsed, 5000, false) != 0 ||
            lUsed != nData) {
            state.SkipWithError("no answer");
            break;
        }
    }
}

/// A reading thread wakes the caller through a semaphore.
template <int nData>
void RawExchange(benchmark::State& state)
{
    const COnOneProcessor pinned;
    const connection_t ends = Connect();
    std::vector<uint8_t> frame = MakeFrame(nData);
    sem_t answered;
    sem_init(&answered, 0, 0);
    {
        const CRawEcho echo(ends.iFar, frame.size());
        std::thread reader([&] {
            std::vector<uint8_t> answer(frame.size());
            while (
                bReceiveAll(ends.iNear, answer.data(), kFrameHeaderSize) &&
                (nData == 0 || bReceiveAll(ends.iNear, answer.data() + kFrameHeaderSize, nData))) {
                sem_post(&answered);
            }
        });
        for (auto _ : state) {
            SendAll(ends.iNear, frame);
            sem_wait(&answered);
        }
        shutdown(ends.iNear, SHUT_RDWR);
        reader.join();
    }
    close(ends.iNear);
}

template <int nData>
void OneWay(benchmark::State& state)
{
    const connection_t ends = Connect();
    CCountingEndpoint counting("counting", ends.iFar);
    CCountingEndpoint sending("sending", ends.iNear);
    counting.Start();
    sending.Start();
    std::vector<uint8_t> frame = MakeFrame(nData);
    for (auto _ : state) {
        for (int i = 0; i < kFrames; ++i) {
            sending.iWrite(reinterpret_cast<socketFrame_t*>(frame.data()));
        }
        counting.Await();
    }
}

template <int nData>
void RawOneWay(benchmark::State& state)
{
    const connection_t ends = Connect();
    std::vector<uint8_t> frame = MakeFrame(nData);
    sem_t done;
    sem_init(&done, 0, 0);
    std::thread reader([&] {
        std::vector<uint8_t> received(frame.size());
        int nFrames = 0;
        while (bReceiveAll(ends.iFar, received.data(), kFrameHeaderSize) &&
               (nData == 0 || bReceiveAll(ends.iFar, received.data() + kFrameHeaderSize, nData))) {
            if (++nFrames == kFrames) {
                nFrames = 0;
                sem_post(&done);
            }
        }
    });
    for (auto _ : state) {
        for (int i = 0; i < kFrames; ++i) {
            SendAll(ends.iNear, frame);
        }
        sem_wait(&done);
    }
    shutdown(ends.iNear, SHUT_RDWR);
    reader.join();
    close(ends.iNear);
    close(ends.iFar);
}

constexpr Bench::target_t kRoundTrip = Bench::AtMostTimes(1.1);
constexpr Bench::target_t kOneWay = Bench::AtMostTimes(1 / 0.9); // 0.9 of the frames in a second

const bool kRegistered =
    Bench::bCompare({"round trip of 0 bytes, p50", RoundTrip<0, 50>, RawRoundTrip<0, 50>,
                     kRoundTrip, Bench::SUPPLIED}) &&
    Bench::bCompare({"round trip of 0 bytes, p99", RoundTrip<0, 99>, RawRoundTrip<0, 99>,
                     kRoundTrip, Bench::SUPPLIED}) &&
    Bench::bCompare({"round trip of 64 bytes, p50", RoundTrip<64, 50>, RawRoundTrip<64, 50>,
                     kRoundTrip, Bench::SUPPLIED}) &&
    Bench::bCompare({"round trip of 64 bytes, p99", RoundTrip<64, 99>, RawRoundTrip<64, 99>,
                     kRoundTrip, Bench::SUPPLIED}) &&
    Bench::bCompare({"round trip of 2,048 bytes, p50", RoundTrip<2048, 50>, RawRoundTrip<2048, 50>,
                     kRoundTrip, Bench::SUPPLIED}) &&
    Bench::bCompare({"round trip of 2,048 bytes, p99", RoundTrip<2048, 99>, RawRoundTrip<2048, 99>,
                     kRoundTrip, Bench::SUPPLIED}) &&
    Bench::bCompare({"exchange of 0 bytes", Exchange<0>, RawExchange<0>, kRoundTrip}) &&
    Bench::bCompare({"exchange of 64 bytes", Exchange<64>, RawExchange<64>, kRoundTrip}) &&
    Bench::bCompare({"exchange of 2,048 bytes", Exchange<2048>, RawExchange<2048>, kRoundTrip}) &&
    Bench::bCompare({"100 frames of 0 bytes one way", OneWay<0>, RawOneWay<0>, kOneWay}) &&
    Bench::bCompare({"100 frames of 64 bytes one way", OneWay<64>, RawOneWay<64>, kOneWay}) &&
    Bench::bCompare({"100 frames of 2,048 bytes one way", OneWay<2048>, RawOneWay<2048>, kOneWay});
} // namespace
