// What a log call costs that is filtered out, and one that is written.

#include "libQuorCore/CThread.h"

#include "support/Bench.h"
#include "support/PrivateDev.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <system_error>
#include <unistd.h>

using namespace QuorCore;

namespace
{
constexpr const char* kLabel = "bench";

/// Throws away what comes until the parent is gone.
[[noreturn]] void Drain(int iSocket)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    char aDatagram[8192];
    for (;;) {
        if (recv(iSocket, aDatagram, sizeof(aDatagram), 0) == -1 && errno != EINTR) {
            _exit(1);
        }
    }
}

/// Gives the process a /dev/log of its own, emptied by another process.
void StartSyslog()
{
    TestSupport::EnterPrivateDev();
    const int iSocket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, "/dev/log");
    if (iSocket == -1 ||
        bind(iSocket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == -1) {
        throw std::system_error(errno, std::generic_category(), "/dev/log");
    }
    const pid_t iPid = fork();
    if (iPid == -1) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (iPid == 0) {
        Drain(iSocket);
    }
    close(iSocket);
    CThread::m_Logger.Init("bench");
}

/// The thread has a level, as those of a daemon have, for as long as the object lives.
class CRegisteredThread
{
public:
    explicit CRegisteredThread(int iLevel) : m_iLevel(iLevel)
    {
        CThread::m_Logger.SetLogConfigForThread(kLabel, &m_iLevel);
    }
    CRegisteredThread(const CRegisteredThread&) = delete;
    CRegisteredThread& operator=(const CRegisteredThread&) = delete;
    ~CRegisteredThread() { CThread::m_Logger.CancelLogIdForThread(); }

private:
    int m_iLevel;
};

void FilterByMacro(benchmark::State& state)
{
    const CRegisteredThread thread(LOG_INFO);
    int iValue = 0;
    for (auto _ : state) {
        QUORCORE_LOG(LOG_DEBUG, "value %d", iValue);
        benchmark::DoNotOptimize(++iValue);
    }
}

void FilterByLog(benchmark::State& state)
{
    const CRegisteredThread thread(LOG_INFO);
    int iValue = 0;
    for (auto _ : state) {
        CThread::m_Logger.Log(LOG_DEBUG, __FILE__, __LINE__, __PRETTY_FUNCTION__, "value %d",
                              iValue);
        benchmark::DoNotOptimize(++iValue);
    }
}

/// The least that asking for a level can cost: a relaxed load and a compare.
void LoadAndCompare(benchmark::State& state)
{
    static std::atomic<int> iLimit{LOG_INFO};
    int iValue = 0;
    for (auto _ : state) {
        if (LOG_DEBUG <= iLimit.load(std::memory_order_relaxed)) {
            state.SkipWithError("the level admits it");
            break;
        }
        benchmark::DoNotOptimize(++iValue);
    }
}

void WriteByLogger(benchmark::State& state)
{
    const CRegisteredThread thread(LOG_INFO);
    int iValue = 100000; // the number of digits stays
    for (auto _ : state) {
        CThread::m_Logger.Log(LOG_INFO, "F.cpp", 100, "void QuorCore::CThing::OnEvent(CMsg*)",
                              "the value has changed to %d", iValue);
        ++iValue;
    }
}

/// The same line by the C library alone.
void WriteBySyslog(benchmark::State& state)
{
    char aId[32];
    std::snprintf(aId, sizeof(aId), "%lx", static_cast<unsigned long>(pthread_self()));
    const std::string szFormat = std::string(kLabel) + "(" + aId +
                                 ") -- void QuorCore::CThing::OnEvent(CMsg*) / 100 : "
                                 "the value has changed to %d";
    const char* const pszFormat = szFormat.c_str();
    int iValue = 100000;
    for (auto _ : state) {
        syslog(LOG_INFO, pszFormat, iValue);
        ++iValue;
    }
}

const bool kRegistered =
    Bench::bBeforeAll(StartSyslog) &&
    Bench::bCompare({"filtered out by QUORCORE_LOG", FilterByMacro, LoadAndCompare,
                     Bench::AtMostMoreNs(1), Bench::PROCESSOR_TIME}) &&
    Bench::bCompare({"filtered out by QUORCORE_LOG, 2 threads", FilterByMacro, LoadAndCompare,
                     Bench::AtMostMoreNs(1), Bench::PROCESSOR_TIME, 2}) &&
    Bench::bCompare({"filtered out by Log", FilterByLog, LoadAndCompare, Bench::AtMostMoreNs(3),
                     Bench::PROCESSOR_TIME}) &&
    Bench::bCompare({"filtered out by Log, 2 threads", FilterByLog, LoadAndCompare,
                     Bench::AtMostMoreNs(3), Bench::PROCESSOR_TIME, 2}) &&
    Bench::bCompare({"written by Log", WriteByLogger, WriteBySyslog, Bench::AtMostTimes(1.1)});
} // namespace
