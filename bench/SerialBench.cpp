// What a command to a modem and a stream of bytes cost on their way through a serial thread,
// against the same done by hand on a pseudo-terminal.

#include "libQuorCore/CThreadAT.h"
#include "libQuorCore/CThreadSerial.h"

#include "support/Bench.h"
#include "support/SocketPairs.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <semaphore.h>
#include <string>
#include <termios.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace Bench;
using namespace QuorCore;

namespace
{
constexpr long kChunk = 4096;
constexpr long kStream = 1024 * 1024; // of one measurement; whole chunks, none ends by silence
constexpr char kAnswer[] = "\r\n+CSQ: 17,99\r\n\r\nOK\r\n";
constexpr char kEnd[] = "OK\r\n";

/// The far end of a line, and the path of the near one.
class CLine
{
public:
    CLine() : m_iFar(iChecked(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC), "posix_openpt"))
    {
        iChecked(grantpt(m_iFar), "grantpt");
        iChecked(unlockpt(m_iFar), "unlockpt");
        std::array<char, 64> aName{};
        iChecked(ptsname_r(m_iFar, aName.data(), aName.size()), "ptsname_r");
        m_szPath = aName.data();
    }
    CLine(const CLine&) = delete;
    CLine& operator=(const CLine&) = delete;
    ~CLine() { close(m_iFar); }

    int iFar() const { return m_iFar; }
    const std::string& szPath() const { return m_szPath; }

    /// @return The near end, raw; the caller closes it.
    int iOpenRaw() const
    {
        const int iNear = iChecked(open(m_szPath.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC), "open");
        termios settings{};
        tcgetattr(iNear, &settings);
        cfmakeraw(&settings);
        tcsetattr(iNear, TCSANOW, &settings);
        return iNear;
    }

private:
    const int m_iFar;
    std::string m_szPath;
};

/// Answers each carriage return until it goes.
class CModem
{
public:
    explicit CModem(int iFar) : m_iFar(iFar), m_iEnd(iPipe()), m_thread([this] { Run(); }) {}
    CModem(const CModem&) = delete;
    CModem& operator=(const CModem&) = delete;
    ~CModem()
    {
        close(m_aPipe[1]);
        m_thread.join();
        close(m_aPipe[0]);
    }

private:
    int iPipe()
    {
        iChecked(pipe2(m_aPipe.data(), O_CLOEXEC), "pipe2");
        return m_aPipe[0];
    }
    void Run()
    {
        std::array<char, 64> aBytes{};
        std::array<pollfd, 2> aWaits{{{m_iFar, POLLIN, 0}, {m_iEnd, POLLIN, 0}}};
        while (poll(aWaits.data(), aWaits.size(), -1) > 0 && aWaits[1].revents == 0) {
            const ssize_t lRead = read(m_iFar, aBytes.data(), aBytes.size());
            if (lRead > 0 && aBytes[static_cast<size_t>(lRead) - 1] == '\r') {
                iChecked(static_cast<int>(write(m_iFar, kAnswer, sizeof(kAnswer) - 1)), "write");
            }
        }
    }

    std::array<int, 2> m_aPipe{};
    const int m_iFar;
    const int m_iEnd;
    std::thread m_thread; ///< Last: it uses the others.
};

/// Reports when a stream has come through.
class CStreamPort : public CThreadSerial
{
public:
    CStreamPort() : CThreadSerial(nullptr, "stream") { sem_init(&m_done, 0, 0); }
    ~CStreamPort() override
    {
        EndThread();
        sem_destroy(&m_done);
    }
    long lDispatchTrame(uint8_t*, long lSizeTotal, long* plUsed) override
    {
        *plUsed = lSizeTotal;
        m_lCome += lSizeTotal;
        if (m_lCome >= kStream) {
            m_lCome -= kStream;
            sem_post(&m_done);
        }
        return 0;
    }
    void Await() { sem_wait(&m_done); }

private:
    sem_t m_done{};
    long m_lCome = 0;
};

void Open(CThreadSerial& port, const CLine& line)
{
    port.SetSettleDelay(0);
    port.Configure(0, kChunk, line.szPath().c_str());
    port.iCreateThread(true, 10000);
    while (!port.bGetConnected()) {
        std::this_thread::yield();
    }
}

void SendStream(int iFar)
{
    const std::vector<char> bytes(kStream, 'x');
    long lSent = 0;
    while (lSent < kStream) {
        lSent += iChecked(
            static_cast<int>(write(iFar, bytes.data(), bytes.size() - static_cast<size_t>(lSent))),
            "write");
    }
}

void Command(benchmark::State& state)
{
    const COnOneProcessor pinned;
    const CLine line;
    const int iKeptOpen = line.iOpenRaw(); // before the modem looks at it
    CThreadAT port(nullptr, "modem");
    Open(port, line);
    {
        const CModem modem(line.iFar());
        atResult_t result;
        for (auto _ : state) {
            if (port.lCommand("AT+CSQ", "+CSQ:", result, 5000) != 0) {
                state.SkipWithError("no answer");
                break;
            }
        }
    }
    port.iStop(true, false);
    close(iKeptOpen);
}

/// A reading thread wakes the caller through a semaphore.
void RawCommand(benchmark::State& state)
{
    const COnOneProcessor pinned;
    const CLine line;
    const int iNear = line.iOpenRaw();
    sem_t answered;
    sem_init(&answered, 0, 0);
    std::atomic<bool> bEnd{false};
    {
        const CModem modem(line.iFar());
        std::thread reader([&] {
            std::string szAnswer;
            std::array<char, kChunk> aBytes{};
            while (!bEnd) {
                const ssize_t lRead = read(iNear, aBytes.data(), aBytes.size());
                szAnswer.append(aBytes.data(), static_cast<size_t>(std::max<ssize_t>(lRead, 0)));
                if (szAnswer.find(kEnd) != std::string::npos) {
                    szAnswer.clear();
                    sem_post(&answered);
                }
            }
        });
        const std::string szCommand = "AT+CSQ\r";
        const auto ask = [&] {
            iChecked(static_cast<int>(write(iNear, szCommand.data(), szCommand.size())), "write");
        };
        for (auto _ : state) {
            ask();
            sem_wait(&answered);
        }
        bEnd = true;
        ask(); // whose answer ends the reader
        reader.join();
    }
    sem_destroy(&answered);
    close(iNear);
}

void Stream(benchmark::State& state)
{
    const COnOneProcessor pinned;
    const CLine line;
    CStreamPort port;
    Open(port, line);
    for (auto _ : state) {
        SendStream(line.iFar());
        port.Await();
    }
    port.iStop(true, false);
}

void RawStream(benchmark::State& state)
{
    const COnOneProcessor pinned;
    const CLine line;
    const int iNear = line.iOpenRaw();
    for (auto _ : state) {
        std::thread sender([&line] { SendStream(line.iFar()); });
        std::array<char, kChunk> aBytes{};
        for (long lCome = 0; lCome < kStream;) {
            lCome += iChecked(static_cast<int>(read(iNear, aBytes.data(), aBytes.size())), "read");
        }
        sender.join();
    }
    close(iNear);
}

const bool kRegistered = bCompare({"command to a modem", Command, RawCommand, AtMostTimes(1.5)}) &&
                         bCompare({"1 MiB from the line", Stream, RawStream, AtMostTimes(1 / 0.8)});
} // namespace
