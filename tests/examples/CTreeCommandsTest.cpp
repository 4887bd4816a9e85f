#include "../../examples/common/CTreeCommands.h"

#include "../../examples/common/CTreeStore.h"
#include "examples/SampleTree.h"
#include "support/CLogLevel.h"
#include "support/CMessageStore.h"
#include "support/CSyslogReceiver.h"
#include "support/CTcpPeer.h"
#include "support/CTempDirectory.h"
#include "support/CTestEndpoint.h"
#include "support/Frames.h"
#include "support/Sanitized.h"

#include <atomic>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <thread>
#include <vector>

using namespace QuorCore;
using namespace TestSupport;
using ::testing::HasSubstr;
using ::testing::Not;

namespace
{
constexpr uint16_t kSet = 14;
constexpr uint16_t kGet = 15;
constexpr long kDataBytesMax = 65535;

Json::Value Parsed(const std::string& szJson)
{
    Json::Value document;
    const std::unique_ptr<Json::CharReader> pReader(Json::CharReaderBuilder().newCharReader());
    std::string szErrors;
    EXPECT_TRUE(pReader->parse(szJson.data(), szJson.data() + szJson.size(), &document, &szErrors))
        << szJson;
    return document;
}

/// Registers the commands as an endpoint of a daemon does.
template <class Endpoint>
class CTreeEndpoint : public Endpoint
{
public:
    explicit CTreeEndpoint(CTreeRoot& tree) : Endpoint(nullptr, "tree_endpoint"), m_commands(tree)
    {
    }
    ~CTreeEndpoint() override { this->EndThread(); }

    long iInitInstance() override
    {
        const long lResult = Endpoint::iInitInstance();
        m_commands.Register(*this);
        return lResult;
    }

private:
    CTreeCommands m_commands;
};

class ATreesCommands : public ::testing::Test
{
protected:
    ATreesCommands() { CSyslogReceiver::Get().Clear(); }

    void SetUp() override
    {
        m_Hub.SetLogLevel(LOG_NOTICE);
        m_Hub.Configure(0, kDataBytesMax, "tools");
        ASSERT_EQ(0, m_Hub.iCreateThread(true, kStartLimitMs));
        ASSERT_TRUE(bAwait([this] { return m_Hub.bGetConnected(); }));
        ASSERT_TRUE(m_Peer.bConnect(m_Hub.iListeningPort()));
    }

    Frame Ask(uint16_t iCommand, const std::string& szData)
    {
        EXPECT_TRUE(m_Peer.bSend(FrameBytes(iCommand, szData)));
        Frame answer = ReceiveFrame(m_Peer);
        EXPECT_TRUE(answer.bComplete);
        EXPECT_EQ(iCommand, answer.iCommand);
        return answer;
    }

    // What is read without an error.
    std::string szGot(const std::string& szName)
    {
        const Frame answer = Ask(kGet, szName);
        EXPECT_EQ(0, answer.iError) << answer.szData;
        return answer.szData;
    }

    // Writes, and expects to be refused.
    Json::Value Refusal(const std::string& szDocument)
    {
        const std::string szBefore = szGot("");
        const Frame answer = Ask(kSet, szDocument);
        EXPECT_EQ(403, answer.iError);
        EXPECT_EQ(szBefore, szGot("")) << "something was changed";
        return Parsed(answer.szData);
    }

    const CLogLevel m_LogLevel;
    CSampleTree m_Tree;
    CTreeEndpoint<CSocketHub> m_Hub{m_Tree};
    CTcpPeer m_Peer;
};

TEST_F(ATreesCommands, ReadTheWholeTreeForAnEmptyName)
{
    const Json::Value tree = Parsed(szGot(""));
    EXPECT_EQ(5, tree["settings"]["level"].asInt());
    EXPECT_EQ("GPRS", tree["cell"]["techno"].asString());
    EXPECT_TRUE(tree["callback"]["authSms"].asBool());
    EXPECT_EQ(tree, Parsed(szGot("/db")));
}

TEST_F(ATreesCommands, ReadWhatAFullNameNames)
{
    m_Tree.m_Callback.AddPhoneNumberToWhitelist("+33123");
    EXPECT_EQ("{\"count\":0,\"level\":5,\"name\":\"first\"}\n", szGot("/db/settings"));
    EXPECT_EQ("{\"level\":5}\n", szGot("/db/settings/level"));
    EXPECT_EQ("{\"whiteList\":[\"+33123\"]}\n", szGot("/db/callback/whiteList"));
    EXPECT_EQ("{\"1\":\"+33123\"}\n", szGot("/db/callback/whiteList/1"));
    EXPECT_EQ("null\n", szGot("/db/cell/rssi")); // not measured
    EXPECT_EQ("{\"level\":5}\n", szGot(std::string("/db/settings/level") + '\0'));
}

TEST_F(ATreesCommands, LeaveWhatIsMaskedOut)
{
    EXPECT_THAT(szGot(""), Not(HasSubstr("pin")));
    EXPECT_EQ("null\n", szGot("/db/settings/secret"));
}

TEST_F(ATreesCommands, TellThatThereIsNoSuchAttribute)
{
    for (const std::string szName :
         {"/db/none", "/dbx", "db", "/", "/db/", "/db//settings", "/db/settings/settings",
          "/db/settings/level/more", "/db/callback/whiteList/1", "/db/callback/whiteList/whiteList",
          "/db/settings/", "/db/../db", "settings", "\xff\xfe"}) {
        const Frame answer = Ask(kGet, szName);
        EXPECT_EQ(404, answer.iError) << szName;
        EXPECT_EQ("there is no such attribute", Parsed(answer.szData)["cause"].asString());
    }
    EXPECT_EQ("/db/none", Parsed(Ask(kGet, "/db/none").szData)["object"].asString());
}

TEST_F(ATreesCommands, RefuseANameThatIsNoText)
{
    for (const std::string& szName : {std::string("/db\x01"), std::string("/db\n"),
                                      std::string("/db\0/settings", 13), std::string(3, '\0')}) {
        const Frame answer = Ask(kGet, szName);
        EXPECT_EQ(400, answer.iError);
        EXPECT_THAT(Parsed(answer.szData)["cause"].asString(), HasSubstr("expected as text"));
    }
}

TEST_F(ATreesCommands, WriteADocument)
{
    const Frame answer = Ask(
        kSet, "{\"settings\":{\"level\":9,\"name\":\"new\"},\"callback\":{\"whiteList\":[\"1\"]}}");
    EXPECT_EQ(0, answer.iError);
    EXPECT_EQ("", answer.szData);
    EXPECT_EQ("{\"level\":9}\n", szGot("/db/settings/level"));
    EXPECT_EQ("{\"name\":\"new\"}\n", szGot("/db/settings/name"));
    EXPECT_EQ("{\"whiteList\":[\"1\"]}\n", szGot("/db/callback/whiteList"));
    EXPECT_EQ(1U, CSyslogReceiver::Get().Count("/db was written by 127.0.0.1 port "));
}

TEST_F(ATreesCommands, TakeBackADocumentAsItWasRead)
{
    Json::Value settings;
    settings["settings"] = Parsed(szGot("/db/settings")); // with what is read-only in it
    EXPECT_EQ(0, Ask(kSet, settings.toStyledString()).iError);
}

TEST_F(ATreesCommands, StampOnlyTheRecordThatADocumentNames)
{
    ASSERT_EQ(0, Ask(kSet, "{\"settings\":{\"level\":9}}").iError);
    EXPECT_THAT(szGot("/db/settings/modified"), HasSubstr("{\"modified\":\"20"));
    EXPECT_EQ("null\n", szGot("/db/callback/modified"));
    EXPECT_EQ("null\n", szGot("/db/cell/modified"));
}

TEST_F(ATreesCommands, RefuseWhatIsReadOnly)
{
    const Json::Value number = Refusal("{\"settings\":{\"level\":9,\"count\":3}}");
    EXPECT_EQ("/db/settings/count", number["object"].asString());
    EXPECT_EQ("count : Valeur d’attribut non prévue ou incohérente", number["cause"].asString());
    const Json::Value record = Refusal("{\"cell\":{\"rxLevel\":-50}}");
    EXPECT_EQ("/db/cell", record["object"].asString());
    EXPECT_EQ("Tentative de modification d’un attribut non WRITE (ni W ni WR)",
              record["cause"].asString());
}

TEST_F(ATreesCommands, RefuseWhatIsOutOfRangeOrOfAnotherType)
{
    EXPECT_EQ("/db/settings/level", Refusal("{\"settings\":{\"level\":11}}")["object"].asString());
    EXPECT_EQ("/db/settings/level",
              Refusal("{\"settings\":{\"level\":\"9\"}}")["object"].asString());
    EXPECT_EQ("/db/settings/name",
              Refusal("{\"settings\":{\"level\":9,\"name\":\"\"}}")["object"].asString());
    EXPECT_EQ("/db/callback/whiteList",
              Refusal("{\"callback\":{\"whiteList\":7}}")["object"].asString());
    EXPECT_EQ("/db", Refusal("[]")["object"].asString());
    EXPECT_EQ("/db/settings", Refusal("{\"settings\":[]}")["object"].asString());
}

TEST_F(ATreesCommands, RefuseNamesThatTheTreeDoesNotHave)
{
    for (const char* pszDocument : {"{\"settings\":{\"level\":9,\"lebel\":3}}",
                                    "{\"setings\":{\"level\":9}}", "{\"db\":{}}"}) {
        EXPECT_THAT(Refusal(pszDocument)["cause"].asString(),
                    HasSubstr("there is no attribute /db/"));
    }
    EXPECT_EQ("there is no attribute /db/settings/lebel",
              Refusal("{\"settings\":{\"lebel\":3}}")["cause"].asString());
}

TEST_F(ATreesCommands, RefuseWhatIsNoJson)
{
    for (const std::string& szText : {std::string(), std::string("{\"settings\""),
                                      std::string("\0\xff", 2), std::string(2000, '[')}) {
        EXPECT_NE("", Refusal(szText)["cause"].asString());
    }
}

TEST_F(ATreesCommands, KeepTheWordsOfTheRequest)
{
    Frame request;
    request.iCommand = kGet;
    request.iTypeItf = 5;
    request.iProtocol = 6;
    request.iUser1 = -3;
    request.iUser2 = 7;
    request.szData = "/db/settings/level";
    ASSERT_TRUE(m_Peer.bSend(FrameBytes(request)));
    const Frame answer = ReceiveFrame(m_Peer);
    EXPECT_EQ(5, answer.iTypeItf);
    EXPECT_EQ(6, answer.iProtocol);
    EXPECT_EQ(-3, answer.iUser1);
    EXPECT_EQ(7, answer.iUser2);
    EXPECT_EQ("{\"level\":5}\n", answer.szData);
}

TEST_F(ATreesCommands, AnswerNoAnswers)
{
    for (const uint16_t iCommand : {kGet, kSet}) {
        Frame late;
        late.iCommand = iCommand;
        late.iError = 404;
        ASSERT_TRUE(m_Peer.bSend(FrameBytes(late)));
    }
    EXPECT_EQ("{\"level\":5}\n", szGot("/db/settings/level")); // the first frame that comes
    EXPECT_NE(0, Ask(kGet, szGot("/db")).iError); // what was read is no request, nor what was
    EXPECT_NE(0, Ask(kSet, "").iError);           // answered to a write: each ends with an error
}

TEST_F(ATreesCommands, TellThatATreeIsTooLargeForAFrame)
{
    m_Tree.m_Callback.AddPhoneNumberToWhitelist(std::string(65515, '1'));
    const Frame answer = Ask(kGet, "/db/callback");
    EXPECT_EQ(413, answer.iError);
    EXPECT_THAT(answer.szData, HasSubstr("a frame takes 65515"));
    EXPECT_EQ("{\"level\":5}\n", szGot("/db/settings/level")); // and that was all
}

TEST_F(ATreesCommands, AreServedByAnEndpointOfOnePeerToo)
{
    CTreeEndpoint<CSocketServer> server(m_Tree);
    server.SetLogLevel(LOG_NOTICE);
    const int iPort = iFreePort();
    server.Configure(iPort, kDataBytesMax, "peer");
    server.SetBindAddress("127.0.0.1");
    server.SetFirstConnectDelay(0);
    ASSERT_EQ(0, server.iCreateThread(true, kStartLimitMs));
    ASSERT_TRUE(bAwait([&] { return m_Peer.bConnect(iPort); }));
    EXPECT_EQ(0, Ask(kSet, "{\"settings\":{\"level\":9}}").iError);
    EXPECT_EQ("{\"level\":9}\n", szGot("/db/settings/level"));
    EXPECT_EQ("/db/settings/level", Refusal("{\"settings\":{\"level\":11}}")["object"].asString());
    EXPECT_EQ(404, Ask(kGet, "/db/none").iError);
    EXPECT_EQ(1U, CSyslogReceiver::Get().Count("/db was written by the peer of tree_endpoint"));
}

TEST_F(ATreesCommands, AskForTheTreeToBeSaved)
{
    CMessageStore dispatcher;
    ASSERT_EQ(0, Ask(kSet, "{\"settings\":{\"level\":9}}").iError);
    ASSERT_EQ(403, Ask(kSet, "{\"settings\":{\"level\":11}}").iError);
    EXPECT_EQ(1U, dispatcher.Count(&m_Tree, EVT_DATABASE_SAVE));
}

TEST_F(ATreesCommands, ShareTheTreeWithItsStore)
{
    const CTempDirectory directory;
    CTreeStore store(m_Tree);
    ASSERT_TRUE(store.bOpen(directory.szPath("tree")));
    std::atomic<bool> bSaving{true};
    std::thread saver([&] {
        while (bSaving) {
            EXPECT_TRUE(store.bSave());
        }
    });
    std::thread counter([&] { // the daemon's own use of it
        while (bSaving) {
            const std::lock_guard<std::mutex> held(m_Tree.Lock());
            m_Tree.m_Settings.m_Count.iInc();
        }
    });
    for (int i = 0; i < nRounds(200); ++i) {
        const std::string szList = i % 2 == 0 ? "[\"1\",\"2\"]" : "[]";
        EXPECT_EQ(0, Ask(kSet, "{\"callback\":{\"whiteList\":" + szList + "}}").iError);
        EXPECT_EQ("{\"whiteList\":" + szList + "}\n", szGot("/db/callback/whiteList"));
    }
    bSaving = false;
    saver.join();
    counter.join();
}
} // namespace
