// The ways of quorctl to a daemon, and what it says when there is none.
#include "support/CTempDirectory.h"
#include "support/Files.h"
#include "tools/QuorctlProgram.h"

#include <csignal>
#include <cstdio>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>

using namespace TestSupport;
using ::testing::MatchesRegex;
using ::testing::StartsWith;

namespace
{
constexpr uint16_t kName = 13;
constexpr uint16_t kPong = 18;

TEST_F(AQuorctl, TellsThatNobodyListens)
{
    const std::string szPort = std::to_string(iFreePort());
    ExpectFailure(RunQuorctl({"--port", szPort, "name"}), 3,
                  "cannot connect to 127.0.0.1:" + szPort + ": Connection refused");
}

TEST_F(AQuorctl, FindsItsDaemonByName)
{
    ASSERT_TRUE(Requested({"--host", "localhost", "name"}).bComplete);
    ASSERT_TRUE(m_Peer.bSend(FrameBytes(kName, "found")));
    EXPECT_EQ("found\n", End().szOutput);
}

TEST_F(AQuorctl, TellsThatAHostIsUnknown)
{
    const ChildResult result = RunQuorctl({"--host", "not a host", "name"});
    EXPECT_EQ(3, result.iExitCode);
    EXPECT_THAT(result.szErrors, MatchesRegex("quorctl: host not a host: [^\n]+\n"));
}

TEST_F(AQuorctl, KeepsToOneLineWhateverTheHostIsCalled)
{
    const ChildResult result = RunQuorctl({"--host", "a\nb\x1b[31m", "name"});
    EXPECT_EQ(3, result.iExitCode);
    EXPECT_THAT(result.szErrors, StartsWith("quorctl: host a\\x0ab\\x1b[31m: "));
    ExpectFailure(RunQuorctl({"--unix", "/nowhere/a\nb", "name"}), 3,
                  "cannot connect to unix:/nowhere/a\\x0ab: No such file or directory");
}

/// A socket of the test's own that listens; its accepted connection is a plain descriptor.
class AListener
{
public:
    AListener(const sockaddr* pAddress, socklen_t length)
        : m_fd(socket(pAddress->sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        m_bListens = bind(m_fd.iGet(), pAddress, length) == 0 && listen(m_fd.iGet(), 0) == 0;
    }
    bool bListens() const { return m_bListens; }
    int iGet() const { return m_fd.iGet(); }

    /// Takes one connection, its request of 20 bytes, and answers.
    void Serve(const std::string& szAnswer) const
    {
        const QuorCore::CUniqueFd connection(accept4(m_fd.iGet(), nullptr, nullptr, SOCK_CLOEXEC));
        char request[20];
        EXPECT_EQ(20, recv(connection.iGet(), request, sizeof(request), MSG_WAITALL));
        EXPECT_EQ(static_cast<ssize_t>(szAnswer.size()),
                  send(connection.iGet(), szAnswer.data(), szAnswer.size(), MSG_NOSIGNAL));
    }

private:
    QuorCore::CUniqueFd m_fd;
    bool m_bListens = false;
};

TEST_F(AQuorctl, ReachesAnIPv6Address)
{
    sockaddr_in6 address = {};
    address.sin6_family = AF_INET6;
    address.sin6_addr = in6addr_loopback;
    const AListener listener(reinterpret_cast<sockaddr*>(&address), sizeof(address));
    if (!listener.bListens()) {
        GTEST_SKIP() << "no IPv6 on this machine";
    }
    socklen_t length = sizeof(address);
    ASSERT_EQ(0, getsockname(listener.iGet(), reinterpret_cast<sockaddr*>(&address), &length));
    const std::string szPort = std::to_string(ntohs(address.sin6_port));
    CChild child(Quorctl({"--host", "::1", "--port", szPort, "wait"}));
    listener.Serve(FrameBytes(kPong));
    EXPECT_THAT(child.Await().szOutput,
                MatchesRegex("\\[::1\\]:" + szPort + " answers, after [0-9]+ ms\n"));
}

TEST_F(AQuorctl, ReachesAUnixDomainSocket)
{
    const CTempDirectory directory;
    const std::string szPath = directory.szPath("socket");
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    szPath.copy(address.sun_path, sizeof(address.sun_path) - 1);
    const AListener listener(reinterpret_cast<sockaddr*>(&address), sizeof(address));
    ASSERT_TRUE(listener.bListens());
    CChild child(Quorctl({"--unix", szPath, "name"}));
    listener.Serve(FrameBytes(kName, "local"));
    EXPECT_EQ("local\n", child.Await().szOutput);
}

TEST_F(AQuorctl, IsOverInTimeWhenTheQueueOfAUnixDomainSocketIsFull)
{
    const CTempDirectory directory;
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const std::string szPath = directory.szPath("socket");
    szPath.copy(address.sun_path, sizeof(address.sun_path) - 1);
    const auto* const pAddress = reinterpret_cast<sockaddr*>(&address);
    const AListener listener(pAddress, sizeof(address));
    const QuorCore::CUniqueFd first(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(0, connect(first.iGet(), pAddress, sizeof(address))); // all that the queue takes
    ExpectFailure(RunQuorctl({"--unix", szPath, "--timeout", "200", "name"}), 3,
                  "no connection to unix:" + szPath + " in 200 ms");
}

TEST_F(AQuorctl, TellsThatAUnixDomainSocketIsNotThere)
{
    ExpectFailure(RunQuorctl({"--unix", "/nowhere/socket", "name"}), 3,
                  "cannot connect to unix:/nowhere/socket: No such file or directory");
}

// A listener whose queue is full drops what asks for a connection: like a machine that is off.
TEST_F(AQuorctl, IsOverInTimeWhenNobodyTakesTheConnection)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const AListener listener(reinterpret_cast<sockaddr*>(&address), sizeof(address));
    socklen_t length = sizeof(address);
    ASSERT_EQ(0, getsockname(listener.iGet(), reinterpret_cast<sockaddr*>(&address), &length));
    CTcpPeer first;
    ASSERT_TRUE(first.bConnect(ntohs(address.sin_port))); // all that the queue takes
    const std::string szPort = std::to_string(ntohs(address.sin_port));
    ExpectFailure(RunQuorctl({"--port", szPort, "--timeout", "300", "name"}), 3,
                  "no connection to 127.0.0.1:" + szPort + " in 300 ms");
}

// Before a connection there is nothing to monitor, and no usual end of it.
TEST_F(AQuorctl, TellsThatItWasInterruptedBeforeItWasConnected)
{
    const CTempDirectory directory;
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const std::string szPath = directory.szPath("socket");
    szPath.copy(address.sun_path, sizeof(address.sun_path) - 1);
    const auto* const pAddress = reinterpret_cast<sockaddr*>(&address);
    const AListener listener(pAddress, sizeof(address));
    const QuorCore::CUniqueFd first(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(0, connect(first.iGet(), pAddress, sizeof(address))); // all that the queue takes
    CChild child(Quorctl({"--unix", szPath, "--timeout", "20000", "monitor"}));
    const std::string szStatus = "/proc/" + std::to_string(child.iPid()) + "/status";
    const CDeadline deadline(kAwaitLimitMs);
    while (szReadFile(szStatus).find("SigBlk:\t0000000000004002") == std::string::npos &&
           !deadline.bPassed()) { // SIGINT and SIGTERM: it watches for them
        std::this_thread::yield();
    }
    child.Signal(SIGINT);
    ExpectFailure(child.Await(), 3, "interrupted");
}

/// A name server in a network of the calling process's own.
class ANameServer
{
public:
    /// Asked by this process and its children from now on. @return False: it cannot be had.
    bool bStart(const std::string& szResolver)
    {
        // Asked again, resolv.conf(5), only when no test waits any more.
        WriteFile(szResolver, "nameserver 127.0.0.1\noptions timeout:30 attempts:5\n");
        if (unshare(CLONE_NEWNET | CLONE_NEWNS) != 0 ||
            mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount(szResolver.c_str(), "/etc/resolv.conf", nullptr, MS_BIND, nullptr) != 0 ||
            RunProgram({"ip", "link", "set", "lo", "up"}).iExitCode != 0) {
            return false;
        }
        m_fd.Reset(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(53);
        return bind(m_fd.iGet(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    }

    /// Takes a question and, @p iAfterMs later, says 127.0.0.1 to one for an IPv4 address and
    /// that there is none to another: RFC 1035, section 4.
    void AnswerOne(int iAfterMs) const
    {
        sockaddr_storage asker = {};
        socklen_t length = sizeof(asker);
        auto* const pAsker = reinterpret_cast<sockaddr*>(&asker);
        std::string szQuery(512, '\0');
        pollfd entry = {m_fd.iGet(), POLLIN, 0};
        if (poll(&entry, 1, kAwaitLimitMs) != 1 ||
            recvfrom(m_fd.iGet(), szQuery.data(), szQuery.size(), 0, pAsker, &length) < 17) {
            return;
        }
        const size_t end = szQuery.find('\0', 12) + 5; // of name, type and class
        const bool bForIPv4 = szQuery[end - 3] == 1;
        const std::string szCounts("\0\1\0\1\0\0\0\0", 8); // one question, one record
        const std::string szNoRecord("\0\1\0\0\0\0\0\0", 8);
        const std::string szRecord("\xC0\x0C\0\1\0\1\0\0\0\1\0\4\x7F\0\0\1", 16);
        const std::string szAnswer = szQuery.substr(0, 2) + "\x81\x80" +
                                     (bForIPv4 ? szCounts : szNoRecord) +
                                     szQuery.substr(12, end - 12) + (bForIPv4 ? szRecord : "");
        poll(nullptr, 0, iAfterMs); // the delay is what is tested
        sendto(m_fd.iGet(), szAnswer.data(), szAnswer.size(), 0, pAsker, length);
    }

private:
    QuorCore::CUniqueFd m_fd;
};

// A name server that hears every question and answers none.
TEST_F(AQuorctl, IsOverInTimeWhileTheNameServerIsSilent)
{
    const CTempDirectory directory;
    const auto run = [&directory] {
        ANameServer server;
        if (!server.bStart(directory.szPath("resolv.conf"))) {
            return 99;
        }
        const ChildResult result =
            RunQuorctl({"--host", "device.example", "--timeout", "400", "name"});
        std::fputs(result.szErrors.c_str(), stderr);
        return result.iExitCode;
    };
    const ChildResult result = RunInChild(run, 2 * kAwaitLimitMs);
    if (result.iExitCode == 99) {
        GTEST_SKIP() << "no network of its own to be had: " << result.szErrors;
    }
    // A look-up takes longer than quorctl is waited for.
    ExpectFailure(result, 3, "the address of device.example was not found in 400 ms");
}

// The second that an attempt to connect has is not the look-up's.
TEST_F(AQuorctl, WaitsForADaemonWhoseNameIsFoundSlowly)
{
    const CTempDirectory directory;
    const auto run = [&directory] {
        ANameServer server;
        CTcpPeer peer;
        if (!server.bStart(directory.szPath("resolv.conf"))) {
            return 99;
        }
        peer.Listen();
        CChild child(Quorctl({"--host", "device.example", "--port", std::to_string(peer.iPort()),
                              "--timeout", "20000", "wait"}));
        server.AnswerOne(1300);
        server.AnswerOne(0); // for the other family, asked at the same time
        if (peer.bAccept()) {
            peer.bSend(FrameBytes(kPong));
        }
        const ChildResult result = child.Await();
        std::fputs(result.szErrors.c_str(), stderr);
        return result.iExitCode;
    };
    const ChildResult result = RunInChild(run, 4 * kAwaitLimitMs);
    if (result.iExitCode == 99) {
        GTEST_SKIP() << "no network of its own to be had: " << result.szErrors;
    }
    EXPECT_EQ(0, result.iExitCode);
    EXPECT_EQ("", result.szErrors);
}
} // namespace
