// What the smallest complete daemon costs: the time from its start to its "ready" in the log, and
// its resident memory then, against a program by hand with one thread and one listener.

#include "support/Bench.h"
#include "support/PrivateDev.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace
{
using steady = std::chrono::steady_clock;

constexpr int kReadyLimitMs = 10000;
int g_iLog = -1; // the datagram socket behind /dev/log
std::string g_szConfiguration;

int iChecked(int iResult, const char* szCall)
{
    if (iResult == -1) {
        throw std::system_error(errno, std::generic_category(), szCall);
    }
    return iResult;
}

void Prepare()
{
    TestSupport::EnterPrivateDev();
    g_iLog = iChecked(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0), "socket");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, "/dev/log");
    iChecked(bind(g_iLog, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), "bind");
    g_szConfiguration = "/dev/shm/hello_daemon.conf"; // the private one
    std::ofstream(g_szConfiguration) << "port=0\n";
}

void AwaitReady()
{
    for (;;) {
        pollfd log{g_iLog, POLLIN, 0};
        if (poll(&log, 1, kReadyLimitMs) != 1) {
            throw std::runtime_error("the program did not become ready");
        }
        char aLine[4096];
        const ssize_t nBytes = recv(g_iLog, aLine, sizeof(aLine), 0);
        if (nBytes > 0 &&
            std::string(aLine, static_cast<size_t>(nBytes)).find("ready") != std::string::npos) {
            return;
        }
    }
}

double fResidentMib(pid_t pid)
{
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string szLine; std::getline(status, szLine);) {
        if (szLine.rfind("VmRSS:", 0) == 0) {
            return std::atof(szLine.c_str() + std::strlen("VmRSS:")) / 1024;
        }
    }
    return 0;
}

/// A started program; ended and collected with the object.
class CProgram
{
public:
    explicit CProgram(const char* szPath) : m_pid(iChecked(fork(), "fork"))
    {
        if (m_pid == 0) {
            execl(szPath, szPath, "--config", g_szConfiguration.c_str(), nullptr);
            _exit(127);
        }
    }
    CProgram(const CProgram&) = delete;
    CProgram& operator=(const CProgram&) = delete;
    ~CProgram()
    {
        kill(m_pid, SIGTERM);
        waitpid(m_pid, nullptr, 0);
    }
    pid_t Pid() const { return m_pid; }

private:
    const pid_t m_pid;
};

void TimeToReady(benchmark::State& state, const char* szPath)
{
    for (auto _ : state) {
        const steady::time_point start = steady::now();
        const CProgram program(szPath);
        AwaitReady();
        state.SetIterationTime(std::chrono::duration<double>(steady::now() - start).count());
    }
}

void Memory(benchmark::State& state, const char* szPath)
{
    for (auto _ : state) {
        const CProgram program(szPath);
        AwaitReady();
        state.SetIterationTime(fResidentMib(program.Pid()) * 1e-9); // MiB in the place of ns
    }
}

void HelloTimeToReady(benchmark::State& state)
{
    TimeToReady(state, HELLO_DAEMON);
}

void RawTimeToReady(benchmark::State& state)
{
    TimeToReady(state, RAW_DAEMON);
}

void HelloMemory(benchmark::State& state)
{
    Memory(state, HELLO_DAEMON);
}

void RawMemory(benchmark::State& state)
{
    Memory(state, RAW_DAEMON);
}

const bool kRegistered =
    Bench::bBeforeAll(Prepare) &&
    Bench::bCompare({"hello_daemon: time to ready", HelloTimeToReady, RawTimeToReady,
                     Bench::AtMostTimes(1.3), Bench::SUPPLIED}) &&
    Bench::bCompare({"hello_daemon: resident memory", HelloMemory, RawMemory, Bench::AtMostMib(3.5),
                     Bench::SUPPLIED});
} // namespace
