// What a frame costs on its way between two endpoints over loopback, against the same bytes sent
// and received by hand on sockets with the same options.

#include "support/Bench.h"
#include "support/SocketPairs.h"

#include <algorithm>
#include <chrono>
#include <semaphore.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace Bench;
using namespace QuorCore;
using steady = std::chrono::steady_clock;

namespace
{
constexpr int kRounds = 5000; // round trips whose percentiles are one measurement: the timer ticks
                              // and the hand-over of the first ones are then well beyond p99
constexpr int kFrames = 100;  // frames one way of one measurement

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
