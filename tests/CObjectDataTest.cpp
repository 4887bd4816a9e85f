#include "libQuorCore/CObjectData.h"

#include "libQuorCore/CNumber.h"
#include "libQuorCore/CRecord.h"
#include "libQuorCore/CString.h"
#include "libQuorCore/CThread.h"

#include "support/CLogLevel.h"
#include "support/CSyslogReceiver.h"
#include "support/CTempDirectory.h"
#include "support/DataTrees.h"
#include "support/Files.h"
#include "support/LogLines.h"
#include "support/VirtualSlot.h"

#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

using namespace QuorCore;
using namespace TestSupport;

namespace
{
constexpr const char* kWriteRefused =
    "Tentative de modification d’un attribut non WRITE (ni W ni WR)";

class AnObjectData : public ::testing::Test
{
protected:
    CRecord m_Root{nullptr, "root"};
    CNumber<int> m_Number{&m_Root, "n", 3, 0, 10, 7};
    CString m_Text{&m_Root, "s", "abc"};
    CRecord m_Sub{&m_Root, "sub"};
    CNumber<bool> m_Flag{&m_Sub, "b", false, false, true, true};
    CContextJson m_Put = Context(CContextJson::ePut);
    std::string m_szOut;
};

Json::Value Parsed(const std::string& szText)
{
    Json::Value value;
    EXPECT_TRUE(Json::Reader().parse(szText, value)) << szText;
    return value;
}
} // namespace

TEST_F(AnObjectData, HasEachFunctionInThePlaceItWasCompiledWith)
{
    EXPECT_EQ(9, lVirtualSlot(&CObjectData::SerializeJson));
    EXPECT_EQ(10, lVirtualSlot(&CObjectData::iDeserializeJson));
    EXPECT_EQ(11, lVirtualSlot(&CObjectData::DeserializeArrayJson));
    EXPECT_EQ(12, lVirtualSlot(&CObjectData::iCheckJson));
    EXPECT_EQ(13, lVirtualSlot(&CObjectData::iCheckArrayJson));
    EXPECT_EQ(14, lVirtualSlot(&CObjectData::pFindChildByName));
    EXPECT_EQ(15, lVirtualSlot(&CObjectData::pFindParentByName));
    EXPECT_EQ(16, lVirtualSlot(&CObjectData::pFindParentService));
    EXPECT_EQ(17, lVirtualSlot(&CObjectData::bIsContainer));
    EXPECT_EQ(18, lVirtualSlot(&CObjectData::iSiNotify));
    EXPECT_EQ(19, lVirtualSlot(&CObjectData::iMoRead));
    EXPECT_EQ(20, lVirtualSlot(&CObjectData::iMoWrite));
    EXPECT_EQ(21, lVirtualSlot(&CObjectData::bCheckRestriction));
    EXPECT_EQ(22, lVirtualSlot(static_cast<long (CRecord::*)(CObjectData*, bool)>(&CRecord::iAdd)));
    EXPECT_EQ(23, lVirtualSlot(&CRecord::iRemove));
    EXPECT_EQ(-1, lVirtualSlot(&CRecord::Insert));
    EXPECT_EQ(-1, lVirtualSlot(&CObjectData::BuildJsonError));
}

TEST_F(AnObjectData, IsItsAttributeByteAndNothingElse)
{
    CObjectData plain(nullptr, "p");
    EXPECT_EQ((ustring{0x02}), Encoded(plain));
    EXPECT_EQ("null\n", szPublishedWhole(plain));
    EXPECT_TRUE(bApply(plain, "{\"p\":1}"));
    plain.SetAttributeNone(true);
    EXPECT_EQ(ustring(), Encoded(plain));
}

TEST_F(AnObjectData, HasAContextThatStartsWellAndIsCopied)
{
    CContextJson context(CContextJson::ePost, "me", SERIALIZE_JSON_FILE, true, true);
    EXPECT_TRUE(context.m_bRoot && context.m_bLog && context.m_bPubAll && context.m_bOnlyPublic);
    EXPECT_TRUE(context.bIsFile());
    EXPECT_EQ(200, context.m_iCodeHTTP);
    EXPECT_EQ(0U, context.m_iHash);
    EXPECT_EQ("", context.m_szCause);
    context.m_bRoot = false;
    context.m_iHash = 9;
    context.Refuse("because");
    const CContextJson copy(context);
    EXPECT_FALSE(copy.m_bRoot);
    EXPECT_EQ(9U, copy.m_iHash);
    EXPECT_EQ("because", copy.m_szCause);
    EXPECT_EQ(403, copy.m_iCodeHTTP);
    EXPECT_EQ("me", copy.m_szUserName);
    EXPECT_EQ(CContextJson::ePost, copy.m_Cmd);
    EXPECT_FALSE(m_Put.bIsFile());
}

TEST_F(AnObjectData, TracesAndSavesADocument)
{
    const CLogLevel level;
    const CTempDirectory directory;
    Json::Value value = Parsed("{\"a\":1}");
    m_Put.Log(value);
    EXPECT_TRUE(bAwaitLogged(LOG_DEBUG, "{\"a\":1}\n"));
    m_Put.Save(value, directory.szPath("f").c_str());
    EXPECT_EQ("{\n\t\"a\" : 1\n}\n", szReadFile(directory.szPath("f")));
    m_Put.Save(value, directory.szPath("no/f").c_str());
    EXPECT_TRUE(CSyslogReceiver::Get().bAwait("fichier : " + directory.szPath("no/f")));
}

TEST_F(AnObjectData, RefusesToBeWrittenWhenItIsReadOnlyOrNone)
{
    CObjectData plain(nullptr, "p");
    EXPECT_TRUE(plain.bCheckRestriction(m_Put, false));
    plain.SetReadOnly(true);
    EXPECT_EQ(-1, lCheckText(plain, "{}", m_Put));
    EXPECT_EQ(403, m_Put.m_iCodeHTTP);
    EXPECT_EQ(kWriteRefused, m_Put.m_szCause);
    EXPECT_TRUE(plain.bCheckRestriction(m_Put, true));
    plain.SetReadOnly(false);
    plain.SetAttributeNone(true);
    EXPECT_FALSE(plain.bCheckRestriction(m_Put, false));
    EXPECT_FALSE(plain.bCheckRestriction(m_Put, true));
    EXPECT_EQ("Tentative de lecture d’un attribut masqué", m_Put.m_szCause);
}

TEST_F(AnObjectData, TellsObjectAndCauseOfARefusedPut)
{
    std::string szError;
    m_Put.Refuse("why");
    m_Flag.BuildJsonError(m_Put, &szError);
    EXPECT_EQ("{\"cause\":\"why\",\"object\":\"/root/sub/b\"}\n", szError);
    m_Put.Refuse("other");
    m_Flag.BuildJsonError(m_Put, &szError);
    EXPECT_NE(std::string::npos, szError.find("why")) << "the first one stays";
    int iExtra = 0;
    m_Flag.SetExtraData(&iExtra);
    szError.clear();
    m_Flag.BuildJsonError(m_Put, &szError);
    EXPECT_EQ("{\"cause\":\"other\",\"object\":\"\"}\n", szError);
    m_Flag.BuildJsonError(m_Put, nullptr);
}

TEST_F(AnObjectData, TellsTheObjectOfARefusedDelete)
{
    CContextJson context = Context(CContextJson::eDelete);
    for (const int iCode : {405, 409}) {
        context.m_iCodeHTTP = iCode;
        m_szOut.clear();
        m_Flag.SetExtraData(nullptr);
        m_Flag.BuildJsonError(context, &m_szOut);
        EXPECT_EQ("{\"object\":\"/root/sub/b\"}\n", m_szOut);
        m_szOut.clear();
        m_Flag.SetExtraData(&context);
        m_Flag.BuildJsonError(context, &m_szOut);
        EXPECT_EQ("{\"object\":\"/root/sub\"}\n", m_szOut);
    }
    m_szOut.clear();
    m_Root.SetExtraData(&context);
    m_Root.BuildJsonError(context, &m_szOut);
    EXPECT_EQ("{\"object\":\"/root\"}\n", m_szOut) << "without a parent the node itself";
}

TEST_F(AnObjectData, TellsNullForAllOtherCommandsAndCodes)
{
    for (const auto cmd : {CContextJson::eGet, CContextJson::ePost, CContextJson::eDelete}) {
        CContextJson context = Context(cmd);
        context.Refuse("why");
        m_szOut.clear();
        m_Flag.BuildJsonError(context, &m_szOut);
        EXPECT_EQ("null\n", m_szOut);
    }
    m_szOut.clear();
    m_Flag.BuildJsonError(m_Put, &m_szOut);
    EXPECT_EQ("null\n", m_szOut) << "nothing was refused";
}

TEST_F(AnObjectData, IsItsOwnNearestParentOfItsName)
{
    EXPECT_EQ(&m_Flag, m_Flag.pFindParentByName("b"));
    EXPECT_EQ(&m_Root, m_Flag.pFindParentByName("root"));
    EXPECT_EQ(nullptr, m_Flag.pFindParentByName(nullptr));
}

TEST_F(AnObjectData, LogsTheNameLookedForFirst)
{
    const CLogLevel level;
    EXPECT_EQ(nullptr, m_Flag.pFindParentByName("absent"));
    EXPECT_TRUE(bAwaitLogged(LOG_INFO, "m_szLabel=absent ; name=b; not found."));
    EXPECT_EQ(nullptr, m_Flag.pFindParentService());
    EXPECT_TRUE(bAwaitLogged(LOG_INFO, "m_szLabel=services ; name=b; not found."));
}

TEST_F(AnObjectData, FindsItsServiceFromBelow)
{
    CRecord services(nullptr, "services");
    CRecord gps(&services, "gps");
    CRecord inner(&gps, "inner");
    CNumber<int> port(&inner, "port");
    EXPECT_EQ(&gps, port.pFindParentService());
    EXPECT_EQ(&gps, inner.pFindParentService());
    EXPECT_EQ(&services, services.pFindParentService());
}

TEST_F(AnObjectData, IsNoServiceOfItsOwn)
{
    CRecord services(nullptr, "services");
    CRecord gps(&services, "gps");
    EXPECT_EQ(nullptr, gps.pFindParentService());
}

TEST_F(AnObjectData, HasNoChildrenWhenItIsALeaf)
{
    const CLogLevel level;
    EXPECT_EQ(nullptr, m_Number.pFindChildByName("x"));
    EXPECT_EQ(nullptr, m_Number.pFindChildByName(nullptr));
    EXPECT_TRUE(bAwaitLogged(LOG_DEBUG, "name=x; not found."));
    EXPECT_FALSE(m_Number.bIsContainer());
}

TEST_F(AnObjectData, IsReadWithItsMembersAtTheTopOfTheDocument)
{
    EXPECT_EQ(200, m_Root.iMoRead(&m_szOut, "me", 5));
    EXPECT_EQ("{\"n\":7,\"s\":\"abc\",\"sub\":{\"b\":true}}\n", m_szOut);
    EXPECT_EQ(200, m_Sub.iMoRead(&m_szOut, "me", 5));
    EXPECT_EQ("{\"b\":true}\n", m_szOut);
}

TEST_F(AnObjectData, IsReadWithoutWhatIsMaskedOrNull)
{
    m_Text.SetAttributeMasked(true);
    m_Number.SetNull(true);
    EXPECT_EQ(200, m_Root.iMoRead(&m_szOut, "", 5));
    EXPECT_EQ("{\"sub\":{\"b\":true}}\n", m_szOut);
}

TEST_F(AnObjectData, IsWrittenByARequestThatPasses)
{
    std::string szIn = "{\"n\":8,/* why */\"sub\":{\"b\":false}}";
    EXPECT_EQ(200, m_Root.iMoWrite(m_Put, &szIn, &m_szOut, "me"));
    EXPECT_EQ(8, m_Number.iGetVal());
    EXPECT_FALSE(m_Flag.iGetVal());
    EXPECT_EQ("abc", m_Text.szGetVal());
    EXPECT_EQ("me", m_Put.m_szUserName);
    EXPECT_EQ("", m_szOut);
}

TEST_F(AnObjectData, IsNotWrittenAtAllByARequestOfWhichAPartIsRefused)
{
    std::string szIn = "{\"n\":8,\"s\":\"x\",\"sub\":{\"b\":\"no\"}}";
    EXPECT_EQ(403, m_Root.iMoWrite(m_Put, &szIn, &m_szOut, ""));
    EXPECT_EQ("b : Valeur d’attribut non prévue ou incohérente", m_szOut);
    EXPECT_EQ(7, m_Number.iGetVal());
    EXPECT_EQ("abc", m_Text.szGetVal());
    EXPECT_EQ(403, m_Root.iMoWrite(m_Put, &szIn, nullptr, ""));
}

TEST_F(AnObjectData, AnswersWithTheReadersMessagesToWhatIsNoJson)
{
    std::string szIn = "{\"n\":";
    EXPECT_EQ(403, m_Root.iMoWrite(m_Put, &szIn, &m_szOut, ""));
    EXPECT_EQ("* Line 1, Column 6\n  Syntax error: value, object or array expected.\n", m_szOut);
    EXPECT_EQ(m_szOut, m_Put.m_szCause);
    EXPECT_EQ(403, m_Root.iMoWrite(m_Put, nullptr, &m_szOut, ""));
    EXPECT_FALSE(bApply(m_Root, "{"));
}

TEST_F(AnObjectData, LogsCauseAndTextOfWhatIsNoJson)
{
    const CLogLevel level;
    CSyslogReceiver::Get().Clear();
    EXPECT_EQ(-1, lCheckText(m_Root, "{\"n\"", m_Put));
    EXPECT_TRUE(bAwaitLogged(LOG_ERR, "error = " + m_Put.m_szCause));
    EXPECT_TRUE(bAwaitLogged(LOG_ERR, "error = {\"n\""));
}

TEST_F(AnObjectData, KeepsTheFirstCauseOfABadText)
{
    m_Put.m_szCause = "first";
    EXPECT_EQ(-1, lCheckText(m_Root, "{", m_Put));
    EXPECT_EQ("first", m_Put.m_szCause);
}

TEST_F(AnObjectData, AnswersBadPayloadToADocumentThatNestsTooDeep)
{
    std::string szIn = std::string(100000, '[');
    EXPECT_EQ(403, m_Root.iMoWrite(m_Put, &szIn, &m_szOut, ""));
    EXPECT_EQ("bad payload", m_szOut);
    CContextJson context = Context(CContextJson::ePut);
    EXPECT_FALSE(m_Root.bDeserializeJson(context, &szIn, nullptr));
    EXPECT_EQ("bad payload", context.m_szCause);
    EXPECT_EQ(403, context.m_iCodeHTTP);
    EXPECT_EQ(-1, lCheckText(m_Root, szIn));
}

TEST_F(AnObjectData, CatchesWhatIsThrownWhileADocumentIsApplied)
{
    struct CThrowing : CObjectData {
        using CObjectData::CObjectData;
        long iDeserializeJson(CContextJson&, Json::Value&) override
        {
            throw std::runtime_error("broken");
        }
        void SerializeJson(CContextJson&, Json::Value&, bool, int) override
        {
            throw std::runtime_error("broken");
        }
    } node(&m_Root, "t");
    std::string szIn = "{}";
    EXPECT_EQ(403, node.iMoWrite(m_Put, &szIn, &m_szOut, ""));
    EXPECT_EQ("bad payload", m_szOut);
    EXPECT_EQ(500, node.iMoRead(&m_szOut, "", 1));
    EXPECT_EQ(500, node.iSiNotify(&m_szOut));
}

TEST_F(AnObjectData, AppliesAValueThatIsParsedAlready)
{
    Json::Value value = Parsed("{\"n\":1,\"sub\":{\"b\":false}}");
    EXPECT_TRUE(m_Root.bDeserializeValueJson(m_Put, value));
    EXPECT_EQ(1, m_Number.iGetVal());
    EXPECT_EQ(2U, value.size()) << "the caller's document stays as it is";
    Json::Value out;
    CContextJson get = Context(CContextJson::eGet);
    EXPECT_TRUE(m_Root.bSerializeValueJson(get, out, 5));
    EXPECT_EQ(1, out["n"].asInt());
    EXPECT_TRUE(m_Root.bSerializeJson(get, &m_szOut, nullptr, 5));
    EXPECT_EQ("{\"root\":{\"n\":1,\"s\":\"abc\",\"sub\":{\"b\":false}}}\n", m_szOut)
        << "the context's root has been met";
}

TEST_F(AnObjectData, IsWrittenToAFileAndReadFromIt)
{
    const CTempDirectory directory;
    const std::string szFile = directory.szPath("tree.json");
    WriteFile(szFile, std::string(5000, 'x'));
    ::chmod(szFile.c_str(), 0600);
    CContextJson get = Context(CContextJson::eGet);
    ASSERT_TRUE(m_Root.bSerializeFileJson(get, szFile.c_str(), 5));
    EXPECT_EQ("{\n\t\"n\" : 7,\n\t\"s\" : \"abc\",\n\t\"sub\" : \n\t{\n\t\t\"b\" : true\n\t}\n}\n",
              szReadFile(szFile));
    struct stat status = {};
    ASSERT_EQ(0, ::stat(szFile.c_str(), &status));
    EXPECT_EQ(0600U, status.st_mode & 0777U);
    m_Number.SetVal(1);
    m_Flag.SetVal(false);
    EXPECT_TRUE(m_Root.bDeserializeFileJson(m_Put, szFile.c_str(), 5));
    EXPECT_EQ(7, m_Number.iGetVal());
    EXPECT_TRUE(m_Flag.iGetVal());
}

TEST_F(AnObjectData, LeavesAFileItsOwnerWhenItReplacesIt)
{
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root can give files away";
    }
    const CTempDirectory directory;
    const std::string szFile = directory.szPath("f");
    WriteFile(szFile, "old");
    ASSERT_EQ(0, ::chown(szFile.c_str(), 1234, 5678));
    ASSERT_EQ(0, ::chmod(szFile.c_str(), 0660));
    ASSERT_TRUE(m_Root.bSerializeFileJson(m_Put, szFile.c_str(), 5));
    struct stat status = {};
    ASSERT_EQ(0, ::stat(szFile.c_str(), &status));
    EXPECT_EQ(1234U, status.st_uid);
    EXPECT_EQ(5678U, status.st_gid);
    EXPECT_EQ(0660U, status.st_mode & 0777U);
}

TEST_F(AnObjectData, IsWrittenInPlaceWhereTheDirectoryTakesNoFile)
{
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root can become another user";
    }
    constexpr uid_t kOther = 1234;
    const CTempDirectory directory;
    const std::string szFile = directory.szPath("f");
    WriteFile(szFile, std::string(5000, 'x'));
    ASSERT_EQ(0, ::chmod(directory.szPath().c_str(), 0755));
    ASSERT_EQ(0, ::chown(szFile.c_str(), kOther, kOther));
    ASSERT_EQ(0, ::seteuid(kOther));
    const bool bWritten = m_Root.bSerializeFileJson(m_Put, szFile.c_str(), 5);
    const bool bMade = m_Root.bSerializeFileJson(m_Put, directory.szPath("new").c_str(), 5);
    ASSERT_EQ(0, ::seteuid(0));
    EXPECT_TRUE(bWritten);
    EXPECT_EQ(7, Parsed(szReadFile(szFile))["n"].asInt());
    EXPECT_FALSE(bMade);
}

TEST_F(AnObjectData, IsWrittenToWhatALinkLeadsTo)
{
    const CTempDirectory directory;
    const std::string szLink = directory.szPath("link");
    ASSERT_EQ(0, ::symlink("target", szLink.c_str()));
    Json::Value value = 1;
    EXPECT_TRUE(m_Root.bSerializeFileJson(m_Put, szLink.c_str(), &value, 5));
    EXPECT_EQ("1\n", szReadFile(directory.szPath("target"))) << "made by way of the link";
    value = 2;
    EXPECT_TRUE(m_Root.bSerializeFileJson(m_Put, szLink.c_str(), &value, 5));
    EXPECT_EQ("2\n", szReadFile(directory.szPath("target")));
}

TEST_F(AnObjectData, WritesThroughNoFileThatWaitsForIt)
{
    const CTempDirectory directory;
    WriteFile(directory.szPath("victim"), "untouched");
    constexpr int kLaid = 20;
    for (int i = 0; i < kLaid; ++i) {
        const std::string szName =
            directory.szPath(".quorcore-" + std::to_string(::getpid()) + "-" + std::to_string(i));
        ASSERT_EQ(0, ::link(directory.szPath("victim").c_str(), szName.c_str()));
    }
    EXPECT_TRUE(m_Root.bSerializeFileJson(m_Put, directory.szPath("f").c_str(), 5));
    EXPECT_EQ("untouched", szReadFile(directory.szPath("victim")));
    EXPECT_EQ(7, Parsed(szReadFile(directory.szPath("f")))["n"].asInt());
}

TEST_F(AnObjectData, WritesTheValueItIsGiven)
{
    const CTempDirectory directory;
    Json::Value value = Parsed("[1]");
    EXPECT_TRUE(m_Root.bSerializeFileJson(m_Put, directory.szPath("f").c_str(), &value, 5));
    EXPECT_EQ("[ 1 ]\n", szReadFile(directory.szPath("f")));
}

TEST_F(AnObjectData, ReportsFilesThatCannotBeOpened)
{
    const CLogLevel level;
    const CTempDirectory directory;
    const std::string szFile = directory.szPath("absent");
    EXPECT_FALSE(m_Root.bDeserializeFileJson(m_Put, szFile.c_str(), 5));
    EXPECT_TRUE(bAwaitLogged(LOG_ERR, "fichier : " + szFile));
    EXPECT_FALSE(m_Root.bSerializeFileJson(m_Put, directory.szPath("no/f").c_str(), 5));
    EXPECT_FALSE(m_Root.bSerializeFileJson(m_Put, directory.szPath().c_str(), 5));
    EXPECT_FALSE(m_Root.bDeserializeFileJson(m_Put, nullptr, 5));
    EXPECT_FALSE(m_Root.bSerializeFileJson(m_Put, nullptr, 5));
}

TEST_F(AnObjectData, ReadsAFileUpToItsFirstNul)
{
    const CTempDirectory directory;
    WriteFile(directory.szPath("f"), std::string("{\"n\":5}\0garbage", 15));
    EXPECT_TRUE(m_Root.bDeserializeFileJson(m_Put, directory.szPath("f").c_str(), 5));
    EXPECT_EQ(5, m_Number.iGetVal());
}

TEST_F(AnObjectData, DoesNotWaitForAWriterOfAPipe)
{
    const CTempDirectory directory;
    ASSERT_EQ(0, ::mkfifo(directory.szPath("pipe").c_str(), 0600));
    EXPECT_FALSE(m_Root.bDeserializeFileJson(m_Put, directory.szPath("pipe").c_str(), 5));
}

TEST_F(AnObjectData, DoesNotWaitForAReaderOfAPipe)
{
    const CTempDirectory directory;
    ASSERT_EQ(0, ::mkfifo(directory.szPath("pipe").c_str(), 0600));
    EXPECT_FALSE(m_Root.bSerializeFileJson(m_Put, directory.szPath("pipe").c_str(), 5));
}

TEST_F(AnObjectData, IsPublishedIntoADirectoryAndReadFromIt)
{
    const CTempDirectory directory;
    const std::string szNew = directory.szPath("new");
    CContextJson get = Context(CContextJson::eGet);
    ASSERT_TRUE(m_Root.bSerializeDirectoryJson(get, szNew.c_str(), 5));
    EXPECT_TRUE(get.bIsFile());
    EXPECT_NE(std::string::npos, szReadFile(szNew + "/root").find("\"n\" : 7"));
    char aPath[4096];
    ASSERT_NE(nullptr, ::getcwd(aPath, sizeof(aPath)));
    EXPECT_EQ(szNew, aPath) << "it is the working directory";
    m_Number.SetVal(1);
    EXPECT_TRUE(m_Root.bDeserializeDirectoryJson(m_Put, szNew.c_str(), 5));
    EXPECT_EQ(7, m_Number.iGetVal());
    ASSERT_EQ(0, ::chdir("/"));
}

TEST_F(AnObjectData, PublishesNothingWhenTheDirectoryCannotBeEntered)
{
    const CTempDirectory directory;
    ASSERT_EQ(0, ::chdir(directory.szPath().c_str()));
    WriteFile("file", "");
    CContextJson get = Context(CContextJson::eGet);
    EXPECT_FALSE(m_Root.bSerializeDirectoryJson(get, "file", 5));
    EXPECT_FALSE(m_Root.bSerializeDirectoryJson(get, nullptr, 5));
    EXPECT_FALSE(m_Root.bDeserializeDirectoryJson(m_Put, "file", 5));
    EXPECT_NE(0, ::access("root", F_OK));
    ASSERT_EQ(0, ::chdir("/"));
}

TEST_F(AnObjectData, NotifiesTheWholePublicTreeWithItsNulls)
{
    const CTempDirectory directory;
    ASSERT_EQ(0, ::chdir(directory.szPath().c_str()));
    m_Number.SetNull(true);
    m_Text.SetAttributeMasked(true);
    EXPECT_EQ(200, m_Root.iSiNotify(&m_szOut));
    EXPECT_EQ("{\"n\":null,\"sub\":{\"b\":true}}\n", m_szOut);
    EXPECT_EQ(0, ::access("root", F_OK)) << "in file form";
    ASSERT_EQ(0, ::chdir("/"));
}
