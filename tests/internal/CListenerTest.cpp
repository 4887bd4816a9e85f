// Sockets that listen, at an address or at a path.
#include "internal/CListener.h"

#include "support/CTcpPeer.h"
#include "support/CTempDirectory.h"
#include "support/CTestThread.h"
#include "support/Files.h"
#include "support/ProcessFacts.h"
#include "support/Sanitized.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

using namespace QuorCore;
using namespace TestSupport;

namespace
{
constexpr mode_t kPermissions = 07777;

class AListener : public ::testing::Test
{
protected:
    /// @return Whether a connection is made and comes out at the listener.
    bool bTakesConnection(const CListener& listener, bool bConnected)
    {
        bool bTaken = false;
        if (bConnected) {
            bTaken = bAwait([&] {
                const CUniqueFd accepted(accept(listener.iGet(), nullptr, nullptr));
                return static_cast<bool>(accepted);
            });
        }
        return bTaken;
    }

    bool bReachedByIpv6(const CListener& listener)
    {
        return bTakesConnection(listener, m_Peer.bConnectTo("::1", listener.iPort()));
    }

    bool bReachedByIpv4(const CListener& listener)
    {
        return bTakesConnection(listener, m_Peer.bConnect(listener.iPort()));
    }

    bool bReachedByPath(const CListener& listener, const std::string& szPath)
    {
        return bTakesConnection(listener, m_Peer.bConnectUnix(szPath));
    }

    /// What a process that was killed leaves behind.
    static void Abandon(const std::string& szPath, int iType = SOCK_STREAM)
    {
        const CUniqueFd fd(socket(AF_UNIX, iType | SOCK_CLOEXEC, 0));
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        szPath.copy(address.sun_path, sizeof(address.sun_path) - 1);
        ASSERT_EQ(0, bind(fd.iGet(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)));
    }

    static ino_t iFile(const std::string& szPath)
    {
        struct stat file = {};
        return lstat(szPath.c_str(), &file) == 0 ? file.st_ino : 0;
    }

    const CTempDirectory m_Directory;
    const std::string m_szPath = m_Directory.szPath("socket");
    CListener m_Listener;
    CTcpPeer m_Peer;
};
} // namespace

TEST_F(AListener, ListensAtAnAddressOfEachFamily)
{
    EXPECT_EQ(-1, m_Listener.iPort());
    ASSERT_EQ(0, m_Listener.iOpenTcp("127.0.0.1", 0));
    EXPECT_GT(m_Listener.iPort(), 0);
    EXPECT_TRUE(bReachedByIpv4(m_Listener));
    // A port that no other process has at the address of the other family.
    ASSERT_EQ(0, m_Listener.iOpenTcp("::1", iFreePort()));
    EXPECT_TRUE(bReachedByIpv6(m_Listener));
    EXPECT_FALSE(m_Peer.bConnect(m_Listener.iPort()));
    ASSERT_EQ(0, m_Listener.iOpenTcp("::", 0));
    EXPECT_TRUE(bReachedByIpv4(m_Listener));
    EXPECT_TRUE(bReachedByIpv6(m_Listener));
}

TEST_F(AListener, RefusesWhatIsNoAddress)
{
    for (const char* const pszAddress :
         {"", "localhost", "127.0.0.1 ", "127.1", "256.0.0.1", ":::", "[::1]", "::1%lo", "/tmp"}) {
        EXPECT_EQ(EINVAL, m_Listener.iOpenTcp(pszAddress, 0)) << pszAddress;
    }
    EXPECT_EQ(EINVAL, m_Listener.iOpenTcp("127.0.0.1", 65536));
    EXPECT_EQ(EINVAL, m_Listener.iOpenTcp("127.0.0.1", -1));
    EXPECT_EQ(EADDRNOTAVAIL, m_Listener.iOpenTcp("192.0.2.1", 0)) << "nobody's: an example's";
    EXPECT_FALSE(m_Listener);
    EXPECT_EQ(-1, m_Listener.iPort());
}

TEST_F(AListener, LeavesAPortAloneThatIsListenedAt)
{
    ASSERT_EQ(0, m_Listener.iOpenTcp("127.0.0.1", 0));
    CListener second;
    EXPECT_EQ(EADDRINUSE, second.iOpenTcp("127.0.0.1", m_Listener.iPort()));
    EXPECT_FALSE(second);
    EXPECT_TRUE(bReachedByIpv4(m_Listener));
}

TEST_F(AListener, TakesItsPortAgainThoughConnectionsAreLeft)
{
    const int iPort = iFreePort(); // nobody is given it in the moment between close and open
    ASSERT_EQ(0, m_Listener.iOpenTcp("127.0.0.1", iPort));
    ASSERT_TRUE(m_Peer.bConnect(iPort));
    CUniqueFd accepted;
    ASSERT_TRUE(bAwait([&] {
        accepted.Reset(accept4(m_Listener.iGet(), nullptr, nullptr, SOCK_CLOEXEC));
        return static_cast<bool>(accepted);
    }));
    EXPECT_EQ(0, m_Listener.iOpenTcp("127.0.0.1", iPort)) << "beside a connection";
    accepted.Reset();
    m_Peer.Close();
    EXPECT_EQ(0, m_Listener.iOpenTcp("127.0.0.1", iPort)) << "with one in TIME_WAIT";
}

TEST_F(AListener, HasADescriptorThatNoProgramInheritsAndThatDoesNotBlock)
{
    const size_t nBefore = nOpenDescriptors();
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(0, i == 0 ? m_Listener.iOpenTcp("127.0.0.1", 0)
                            : m_Listener.iOpenUnix(m_szPath, 0600));
        EXPECT_NE(0, fcntl(m_Listener.iGet(), F_GETFD) & FD_CLOEXEC);
        EXPECT_NE(0, fcntl(m_Listener.iGet(), F_GETFL) & O_NONBLOCK);
    }
    m_Listener.Close();
    EXPECT_EQ(nBefore, nOpenDescriptors());
}

TEST_F(AListener, ListensAtAPathUntilItCloses)
{
    ASSERT_EQ(0, m_Listener.iOpenUnix(m_szPath, 0600));
    EXPECT_TRUE(m_Listener);
    EXPECT_EQ(-1, m_Listener.iPort());
    EXPECT_TRUE(bReachedByPath(m_Listener, m_szPath));
    m_Listener.Close();
    EXPECT_FALSE(m_Listener);
    EXPECT_FALSE(std::filesystem::exists(m_szPath));
    EXPECT_FALSE(m_Peer.bConnectUnix(m_szPath));
}

TEST_F(AListener, GivesTheFileThePermissionsWantedWhateverTheUmask)
{
    const mode_t former = umask(0077);
    for (const mode_t mode : {mode_t{0600}, mode_t{0660}, mode_t{0666}, mode_t{0000}}) {
        struct stat file = {};
        EXPECT_EQ(0, m_Listener.iOpenUnix(m_szPath, mode));
        EXPECT_EQ(0, lstat(m_szPath.c_str(), &file));
        EXPECT_EQ(mode, file.st_mode & kPermissions);
    }
    umask(former);
}

TEST_F(AListener, TakesPathsOf107BytesAtMost)
{
    const std::string szName(107 - m_Directory.szPath("").size(), 'n');
    const std::string szLongest = m_Directory.szPath(szName);
    ASSERT_EQ(0, m_Listener.iOpenUnix(szLongest, 0600));
    EXPECT_TRUE(bReachedByPath(m_Listener, szLongest));
    EXPECT_EQ(ENAMETOOLONG, m_Listener.iOpenUnix(szLongest + "n", 0600));
    EXPECT_FALSE(std::filesystem::exists(szLongest)) << "the former one was closed";
    EXPECT_EQ(ENAMETOOLONG, m_Listener.iOpenUnix("", 0600));
    EXPECT_FALSE(m_Listener);
}

TEST_F(AListener, TellsThatThereIsNoSuchDirectory)
{
    EXPECT_EQ(ENOENT, m_Listener.iOpenUnix(m_Directory.szPath("no/socket"), 0600));
    EXPECT_EQ(ENOTDIR, m_Listener.iOpenUnix("/dev/null/socket", 0600));
}

TEST_F(AListener, ReplacesASocketThatWasAbandoned)
{
    Abandon(m_szPath);
    ASSERT_EQ(0, m_Listener.iOpenUnix(m_szPath, 0600));
    EXPECT_TRUE(bReachedByPath(m_Listener, m_szPath));
}

TEST_F(AListener, LeavesOtherFilesAlone)
{
    const std::string szTarget = m_Directory.szPath("target");
    std::filesystem::create_directory(m_szPath);
    EXPECT_EQ(EADDRINUSE, m_Listener.iOpenUnix(m_szPath, 0600));
    std::filesystem::remove(m_szPath);
    WriteFile(m_szPath, "precious");
    EXPECT_EQ(EADDRINUSE, m_Listener.iOpenUnix(m_szPath, 0600));
    EXPECT_EQ("precious", szReadFile(m_szPath));
    std::filesystem::remove(m_szPath);
    Abandon(szTarget);
    std::filesystem::create_symlink(szTarget, m_szPath);
    EXPECT_EQ(EADDRINUSE, m_Listener.iOpenUnix(m_szPath, 0600)) << "a link to a socket is a link";
    EXPECT_TRUE(std::filesystem::is_symlink(m_szPath));
    EXPECT_TRUE(std::filesystem::is_socket(szTarget));
}

TEST_F(AListener, LeavesSomebodyWhoListensAlone)
{
    CListener other;
    ASSERT_EQ(0, other.iOpenUnix(m_szPath, 0600));
    const ino_t iBefore = iFile(m_szPath);
    EXPECT_EQ(EADDRINUSE, m_Listener.iOpenUnix(m_szPath, 0600));
    m_Listener.Close();
    EXPECT_EQ(iBefore, iFile(m_szPath));
    const CUniqueFd probe(accept(other.iGet(), nullptr, nullptr)); // by which it was found out
    EXPECT_TRUE(bReachedByPath(other, m_szPath));
}

TEST_F(AListener, LeavesASocketOfAnotherKindAlone)
{
    const CUniqueFd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    m_szPath.copy(address.sun_path, sizeof(address.sun_path) - 1);
    ASSERT_EQ(0, bind(fd.iGet(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)));
    EXPECT_EQ(EADDRINUSE, m_Listener.iOpenUnix(m_szPath, 0600)) << "its owner reads from it";
    EXPECT_NE(0U, iFile(m_szPath));
}

TEST_F(AListener, LeavesTheFileToWhoeverHasReplacedIt)
{
    ASSERT_EQ(0, m_Listener.iOpenUnix(m_szPath, 0600));
    std::filesystem::remove(m_szPath);
    CListener other;
    ASSERT_EQ(0, other.iOpenUnix(m_szPath, 0600));
    m_Listener.Close();
    EXPECT_TRUE(bReachedByPath(other, m_szPath));
    std::filesystem::remove(m_szPath);
    other.Close(); // without its file
    EXPECT_FALSE(other);
}

TEST_F(AListener, HandsItsPathOverToTheNext)
{
    for (int i = 0; i < nRounds(500); ++i) {
        CListener former;
        ASSERT_EQ(0, former.iOpenUnix(m_szPath, 0600));
        std::thread successor([&] {
            EXPECT_TRUE(bAwait([&] { return m_Listener.iOpenUnix(m_szPath, 0600) == 0; }));
        });
        former.Close();
        successor.join();
        ASSERT_NE(0U, iFile(m_szPath)) << "in round " << i;
        ASSERT_TRUE(m_Peer.bConnectUnix(m_szPath));
        m_Listener.Close();
    }
}
