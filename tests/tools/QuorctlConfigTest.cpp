// quorctl config, against a daemon that the test plays.
#include "CConfigCommand.h"

#include "support/CTempDirectory.h"
#include "support/Files.h"
#include "tools/QuorctlProgram.h"

#include <gmock/gmock.h>

using namespace TestSupport;
using ::testing::HasSubstr;

namespace
{
constexpr uint16_t kSet = 14;
constexpr uint16_t kGet = 15;

class AQuorctlConfig : public AQuorctl
{
protected:
    static std::string Refusal(uint16_t iCommand, uint16_t iError, const std::string& szData)
    {
        Frame frame;
        frame.iCommand = iCommand;
        frame.iError = iError;
        frame.szData = szData;
        return FrameBytes(frame);
    }

    ChildResult Got(const std::string& szDocument, const std::vector<std::string>& options = {})
    {
        std::vector<std::string> args = {"config", "get"};
        args.insert(args.end(), options.begin(), options.end());
        return Answered(args, FrameBytes(kGet, szDocument));
    }

    // Answers the look before the write. What is written then.
    std::string szWritten(const std::vector<std::string>& args)
    {
        const Frame look = Requested(args);
        EXPECT_EQ(kGet, look.iCommand);
        m_szPath = look.szData;
        EXPECT_TRUE(m_Peer.bSend(FrameBytes(kGet, "null\n")));
        const Frame request = ReceiveFrame(m_Peer);
        EXPECT_TRUE(request.bComplete);
        EXPECT_EQ(kSet, request.iCommand);
        return request.szData;
    }

    // Accepts what was written, and says what is there now.
    ChildResult Accepted(const std::string& szNow)
    {
        EXPECT_TRUE(m_Peer.bSend(FrameBytes(kSet)));
        EXPECT_EQ(m_szPath, ReceiveFrame(m_Peer).szData);
        EXPECT_TRUE(m_Peer.bSend(FrameBytes(kGet, szNow)));
        return End();
    }

    std::string m_szPath;
};

TEST_F(AQuorctlConfig, AsksForTheWholeTreeWithoutAPath)
{
    const Frame request = Requested({"config", "get"});
    EXPECT_EQ(kGet, request.iCommand);
    EXPECT_EQ("", request.szData);
}

TEST_F(AQuorctlConfig, AsksForWhatAPathNames)
{
    EXPECT_EQ("/db/callback/authSms", Requested({"config", "get", "/db/callback/authSms"}).szData);
}

TEST_F(AQuorctlConfig, PrintsADocumentIndented)
{
    const ChildResult result = Got("{\"b\":{\"list\":[\"x\"],\"n\":1},\"a\":true}\n");
    EXPECT_EQ(0, result.iExitCode);
    EXPECT_EQ("{\n"
              "    \"a\" : true,\n"
              "    \"b\" : \n"
              "    {\n"
              "        \"list\" : \n"
              "        [\n"
              "            \"x\"\n"
              "        ],\n"
              "        \"n\" : 1\n"
              "    }\n"
              "}\n",
              result.szOutput);
}

TEST_F(AQuorctlConfig, PrintsADocumentInOneLineOfJson)
{
    EXPECT_EQ("{\"a\":true,\"n\":-5}\n", Got("{\"n\": -5, \"a\": true}", {"--json"}).szOutput);
}

TEST_F(AQuorctlConfig, PrintsTextsAsTheyAreAndNoControlCharacters)
{
    EXPECT_EQ("\"\u00e9t\u00e9 \\u001b[2J\\u007f\\u009b2J\"\n",
              Got("\"\u00e9t\u00e9 \\u001b[2J\x7f\u009b2J\"").szOutput);
}

TEST_F(AQuorctlConfig, TellsWhyThereIsNoAnswer)
{
    ExpectFailure(Answered({"config", "get", "/db/x"},
                           Refusal(kGet, 404, "{\"object\":\"/db/x\",\"cause\":\"no such\"}")),
                  1, "/db/x: no such (error 404)");
}

TEST_F(AQuorctlConfig, TellsOfAnErrorWithoutACause)
{
    for (const std::string szData : {"", "{}", "[1]", "{\"cause\":", "{\"cause\":7}"}) {
        SetUp();
        ExpectFailure(Answered({"config", "get"}, Refusal(kGet, 500, szData)), 1,
                      szName() + " answered command 15 with error 500");
    }
}

TEST_F(AQuorctlConfig, ShowsNoControlCharacterOfACause)
{
    ExpectFailure(Answered({"config", "get"}, Refusal(kGet, 500, "{\"cause\":\"\\u001b[2J\\n\"}")),
                  1, "\\x1b[2J\\x0a (error 500)");
}

TEST_F(AQuorctlConfig, RefusesAnAnswerThatIsNoJson)
{
    for (const std::string& szData :
         {std::string("{"), std::string("{} {}"), std::string(5000, '[')}) {
        SetUp();
        ExpectFailure(Got(szData), 1, "the daemon's answer is no JSON");
    }
}

TEST_F(AQuorctlConfig, TellsThatADaemonWithoutATreeDoesNotAnswer)
{
    ExpectTimeOut({"config", "get"}, "", "no answer", " (is another peer connected?)");
}

TEST_F(AQuorctlConfig, WritesAValueAtItsPlaceAndShowsWhatIsThereNow)
{
    EXPECT_EQ("{\"greeting\":{\"word\":\"salut\"}}",
              szWritten({"config", "set", "/db/greeting/word", "\"salut\""}));
    EXPECT_EQ("/db/greeting/word", m_szPath);
    const ChildResult result = Accepted("{\"word\":\"salut\"}\n");
    EXPECT_EQ(0, result.iExitCode);
    EXPECT_EQ("{\n    \"word\" : \"salut\"\n}\n", result.szOutput);
}

TEST_F(AQuorctlConfig, WritesNegativeNumbersAndNull)
{
    EXPECT_EQ("{\"x\":-5}", szWritten({"config", "set", "/db/x", "-5"}));
    SetUp();
    EXPECT_EQ("{\"x\":null}", szWritten({"config", "set", "/db/x", "null"}));
}

TEST_F(AQuorctlConfig, WritesAWholeDocumentWithoutAPath)
{
    EXPECT_EQ("{\"a\":{\"b\":1}}", szWritten({"config", "set", "{\"a\": {\"b\": 1}}"}));
    EXPECT_EQ("", m_szPath);
    EXPECT_EQ("null\n", Accepted("null\n").szOutput);
}

TEST_F(AQuorctlConfig, WritesWhatAFileHolds)
{
    const CTempDirectory directory;
    WriteFile(directory.szPath("list"), "[\"+33123\",\n\"+33456\"]\n");
    EXPECT_EQ(
        "{\"callback\":{\"whiteList\":[\"+33123\",\"+33456\"]}}",
        szWritten({"config", "set", "/db/callback/whiteList", "@" + directory.szPath("list")}));
}

TEST_F(AQuorctlConfig, WritesWhatStandardInputHolds)
{
    const CTempDirectory directory;
    WriteFile(directory.szPath("in"), "7\n");
    m_pChild =
        std::make_unique<CChild>([&, quorctl = Quorctl({"--port", std::to_string(m_Peer.iPort()),
                                                        "config", "set", "/db/x", "-"})] {
            return freopen(directory.szPath("in").c_str(), "r", stdin) != nullptr ? quorctl() : 126;
        });
    ASSERT_TRUE(m_Peer.bAccept());
    EXPECT_EQ("/db/x", ReceiveFrame(m_Peer).szData);
    ASSERT_TRUE(m_Peer.bSend(FrameBytes(kGet, "{\"x\":1}\n")));
    EXPECT_EQ("{\"x\":7}", ReceiveFrame(m_Peer).szData);
}

TEST_F(AQuorctlConfig, WritesNothingWhereNothingIs)
{
    ExpectFailure(Answered({"config", "set", "/db/x", "1"},
                           Refusal(kGet, 404, "{\"object\":\"/db/x\",\"cause\":\"no such\"}")),
                  1, "/db/x: no such (error 404)");
}

TEST_F(AQuorctlConfig, TellsWhyAValueWasRefused)
{
    szWritten({"config", "set", "/db/x", "1"});
    ASSERT_TRUE(m_Peer.bSend(
        Refusal(kSet, 403, "{\"object\":\"/db/x\",\"cause\":\"x : Valeur d\u2019attribut\"}")));
    ExpectFailure(End(), 1, "/db/x: x : Valeur d\u2019attribut (error 403)");
}

TEST(TheDocumentOfQuorctlConfig, HasTheValueAtItsPlace)
{
    using QuorCtl::szDocumentFor;
    EXPECT_EQ("1", szDocumentFor("", "1"));
    EXPECT_EQ("{}", szDocumentFor("/db", "{}"));
    EXPECT_EQ("{\"a\":1}", szDocumentFor("/db/a", "1"));
    EXPECT_EQ("{\"a\":{\"b c\":{\"d\":[1]}}}", szDocumentFor("/db/a/b c/d", "[1]"));
}
} // namespace
