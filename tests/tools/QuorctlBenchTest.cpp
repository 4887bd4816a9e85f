// quorctl bench against a peer with many connections.
#include "tools/QuorctlProgram.h"

#include <gmock/gmock.h>
#include <list>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

using namespace TestSupport;
using ::testing::HasSubstr;

namespace
{
/// One connection of the peer below.
struct Connection {
    QuorCore::CUniqueFd fd;
    std::string szIn;
    std::string szOut;

    /// Answers each whole ping that has come; asks something of its own before the first.
    void Serve(uint32_t iSizeMax)
    {
        char bytes[65536];
        const ssize_t lRead = recv(fd.iGet(), bytes, sizeof(bytes), MSG_DONTWAIT);
        if (lRead == 0) {
            fd.Reset();
            return;
        }
        szIn.append(bytes, lRead > 0 ? static_cast<size_t>(lRead) : 0);
        for (size_t size = FrameSize(iSizeMax); size != 0; size = FrameSize(iSizeMax)) {
            Frame frame = ParseFrame(szIn.substr(0, size));
            szIn.erase(0, size);
            if (frame.iCommand == 10) {
                frame.iCommand = 18;
                szOut += (szOut.empty() ? FrameBytes(10, "you, too?") : "") + FrameBytes(frame);
            }
        }
    }

    void Send()
    {
        const ssize_t lSent =
            send(fd.iGet(), szOut.data(), szOut.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        szOut.erase(0, lSent > 0 ? static_cast<size_t>(lSent) : 0);
    }

private:
    size_t FrameSize(uint32_t iSizeMax) const
    {
        const uint32_t iSize = szIn.size() < 20 ? iSizeMax + 1 : ParseFrame(szIn).iSize;
        return iSize <= iSizeMax && szIn.size() >= 20 + iSize ? 20 + iSize : 0;
    }
};

/// Answers pings on every connection until it is killed.
int iServePings(int iListener)
{
    std::list<Connection> connections;
    for (;;) {
        std::vector<pollfd> entries = {{iListener, POLLIN, 0}};
        for (const Connection& c : connections) {
            const int iEvents = POLLIN | (c.szOut.empty() ? 0 : POLLOUT);
            entries.push_back({c.fd.iGet(), static_cast<short>(iEvents), 0});
        }
        poll(entries.data(), entries.size(), -1);
        size_t index = 1;
        for (Connection& c : connections) {
            const short revents = entries[index++].revents;
            if ((revents & POLLOUT) != 0) {
                c.Send();
            }
            if ((revents & ~POLLOUT) != 0 && c.fd) {
                c.Serve(65535);
            }
        }
        if (entries[0].revents != 0) {
            connections.emplace_back();
            connections.back().fd.Reset(accept4(iListener, nullptr, nullptr, SOCK_CLOEXEC));
        }
    }
}

class ABenchOfQuorctl : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_Listener.Reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        ASSERT_EQ(0, bind(m_Listener.iGet(), reinterpret_cast<sockaddr*>(&address), length));
        ASSERT_EQ(0, listen(m_Listener.iGet(), 128));
        ASSERT_EQ(0,
                  getsockname(m_Listener.iGet(), reinterpret_cast<sockaddr*>(&address), &length));
        m_szPort = std::to_string(ntohs(address.sin_port));
        m_pServer = std::make_unique<CChild>([this] { return iServePings(m_Listener.iGet()); });
    }

    Json::Value Measured(std::vector<std::string> args) const
    {
        args.insert(args.begin(), {"--port", m_szPort, "--timeout", "20000", "--json", "bench"});
        const ChildResult result = RunQuorctl(args);
        EXPECT_EQ(0, result.iExitCode) << result.szErrors;
        const std::vector<Json::Value> objects = JsonLines(result.szOutput);
        EXPECT_EQ(1U, objects.size());
        return objects.empty() ? Json::Value() : objects[0];
    }

    QuorCore::CUniqueFd m_Listener;
    std::string m_szPort;
    std::unique_ptr<CChild> m_pServer;
};

TEST_F(ABenchOfQuorctl, SendsAsManyPingsAsItIsTold)
{
    const Json::Value json =
        Measured({"--connections", "20", "--requests", "1000", "--pipeline", "7", "--size", "100"});
    EXPECT_EQ(1000, json["requests"].asInt());
    EXPECT_EQ(20, json["connections"].asInt());
    EXPECT_EQ(7, json["pipeline"].asInt());
    EXPECT_EQ(100, json["size"].asInt());
    EXPECT_LT(0, json["p50_ms"].asDouble());
    EXPECT_LE(json["p50_ms"].asDouble(), json["p99_ms"].asDouble());
    EXPECT_LE(json["p99_ms"].asDouble(), json["max_ms"].asDouble());
    EXPECT_NEAR(1000, json["frames_per_s"].asDouble() * json["seconds"].asDouble(), 5);
    EXPECT_NEAR(json["frames_per_s"].asDouble() * 120 / 1e6, json["mb_per_s"].asDouble(), 1e-3);
}

TEST_F(ABenchOfQuorctl, MovesTheLargestFrames)
{
    EXPECT_EQ(200, Measured({"--requests", "200", "--pipeline", "50", "--size", "65535",
                             "--connections", "3"})["requests"]
                       .asInt());
}

TEST_F(ABenchOfQuorctl, RunsForATime)
{
    const Json::Value json = Measured({"--seconds", "0.2", "--pipeline", "10"});
    EXPECT_LT(0, json["requests"].asInt());
    EXPECT_LE(0.2, json["seconds"].asDouble());
}

TEST_F(AQuorctl, TellsHowManyConnectionsOfABenchAreDead)
{
    ExpectTimeOut({"bench", "--connections", "2"}, "", "no answer",
                  " on 2 of 2 connections (is another peer connected?)");
}

TEST_F(AQuorctl, RefusesAnotherPongInABench)
{
    const ChildResult result = Answered({"bench", "--size", "3"}, FrameBytes(18, "abc"));
    EXPECT_EQ(1, result.iExitCode);
    EXPECT_EQ("quorctl: " + szName() + " answered a ping with other data than it had\n",
              result.szErrors);
}

TEST_F(AQuorctl, EndsABenchWhoseDaemonCloses)
{
    ASSERT_TRUE(Requested({"bench"}).bComplete);
    m_Peer.Close();
    EXPECT_EQ("quorctl: " + szName() + " closed the connection\n", End().szErrors);
}

TEST_F(AQuorctl, EndsABenchInTimeWhileTheDaemonPingsWithoutEnd)
{
    ASSERT_TRUE(Requested({"bench", "--timeout", "500"}).bComplete);
    const std::string szFlood = FrameBytes(10, std::string(60000, 'x'));
    const CDeadline deadline(kAwaitLimitMs);
    while (m_Peer.bSend(szFlood, 100) && !deadline.bPassed()) {
    }
    const ChildResult result = End();
    EXPECT_EQ(3, result.iExitCode);
    EXPECT_THAT(result.szErrors, HasSubstr("no answer in 500 ms from "));
}
} // namespace
