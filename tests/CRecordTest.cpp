#include "libQuorCore/CRecord.h"

#include "libQuorCore/CDMString.h"
#include "libQuorCore/CList.h"
#include "libQuorCore/CNumber.h"
#include "libQuorCore/CString.h"
#include "libQuorCore/CThread.h"

#include "support/CLogLevel.h"
#include "support/CSyslogReceiver.h"
#include "support/CTempDirectory.h"
#include "support/DataTrees.h"
#include "support/Files.h"
#include "support/LogLines.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

using namespace QuorCore;
using namespace TestSupport;

namespace
{
constexpr const char* kWriteRefused =
    "Tentative de modification d’un attribut non WRITE (ni W ni WR)";
constexpr const char* kWrongType =
    "La valeur d’un attribut fourni dans la méthode ne correspond pas au type attendu";

/// A record that tests look into.
class COpenRecord : public CRecord
{
public:
    using CRecord::CRecord;
    using CRecord::m_Record;
    bool bIsContainer() override { return m_bContainer; }
    bool m_bContainer = false;
};

class ARecord : public ::testing::Test
{
protected:
    COpenRecord m_Root{nullptr, "root"};
    CNumber<unsigned short> m_Number{&m_Root, "n", 0, 0, 0x2000, 0x1234};
    CRecord m_Sub{&m_Root, "sub"};
    CString m_Text{&m_Sub, "s", "abc"};
    CContextJson m_Put = Context(CContextJson::ePut);
};

/// A container below a root in a directory of its own, where it is the working directory.
class AContainer : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_Container.m_bContainer = true;
        m_szInner = m_Directory.szPath("inner");
        WriteFile(m_Directory.szPath("outside"), "untouched");
    }
    void TearDown() override { ASSERT_EQ(0, ::chdir("/")); }

    bool bPublish()
    {
        CContextJson get = Context(CContextJson::eGet);
        return m_Container.bSerializeDirectoryJson(get, m_szInner.c_str(), 5);
    }
    bool bRead()
    {
        CContextJson put = Context(CContextJson::ePut);
        return m_Container.bDeserializeDirectoryJson(put, m_szInner.c_str(), 5);
    }
    std::vector<std::string> Files() const
    {
        std::vector<std::string> names;
        iGetDirectoryList(m_szInner.c_str(), names);
        std::sort(names.begin(), names.end());
        return names;
    }

    CTempDirectory m_Directory;
    std::string m_szInner;
    CRecord m_Db{nullptr, "db"};
    COpenRecord m_Container{&m_Db, "cells"};
    CRecord m_First{&m_Container, "first"};
    CNumber<int> m_A{&m_First, "a", 0, 0, 9, 1};
    CRecord m_Second{&m_Container, "second"};
    CNumber<int> m_B{&m_Second, "b", 0, 0, 9, 2};
};
} // namespace

TEST_F(ARecord, HoldsTheNodesThatNameItAsParentInTheirOrder)
{
    ASSERT_EQ(2U, m_Root.m_Record.size());
    EXPECT_EQ(&m_Number, m_Root.pGetAt(0));
    EXPECT_EQ(&m_Sub, m_Root.pGetAt(1));
    EXPECT_EQ(nullptr, m_Root.pGetAt(2));
    EXPECT_EQ(nullptr, m_Root.pGetAt(-1));
    EXPECT_EQ(1, m_Root.iGetIndex(&m_Sub));
    EXPECT_EQ(-1, m_Root.iGetIndex(&m_Text));
    EXPECT_EQ(&m_Sub, m_Root.pFind(&m_Sub));
    EXPECT_EQ(nullptr, m_Root.pFind(&m_Text));
    EXPECT_EQ(nullptr, m_Root.pFind(nullptr));
    EXPECT_FALSE(m_Root.bIsNull());
}

TEST_F(ARecord, LetsGoOfAChildThatIsDestroyed)
{
    auto pChild = std::make_unique<CNumber<int>>(&m_Root, "c");
    EXPECT_EQ(3U, m_Root.m_Record.size());
    pChild.reset();
    EXPECT_EQ(2U, m_Root.m_Record.size());
}

TEST_F(ARecord, LeavesChildrenThatOutliveItWithoutAParent)
{
    auto pRecord = std::make_unique<CRecord>(nullptr, "r");
    CNumber<int> child(pRecord.get(), "c");
    CNumber<int> adopted(nullptr, "d");
    pRecord->iAdd(&adopted, true);
    pRecord.reset();
    EXPECT_EQ(nullptr, child.pGetParent());
    EXPECT_EQ(nullptr, adopted.pGetParent());
}

TEST_F(ARecord, AddsInsertsAndRemoves)
{
    CNumber<int> last(nullptr, "last");
    CNumber<int> middle(nullptr, "middle");
    EXPECT_EQ(0, m_Root.iAdd(&last, false));
    EXPECT_EQ(0, m_Root.iAdd(&last, false)) << "it is there already";
    EXPECT_EQ(0, m_Root.iAdd(nullptr, false));
    EXPECT_EQ(nullptr, last.pGetParent());
    m_Root.Insert(&middle, 1);
    m_Root.Insert(nullptr, 0);
    EXPECT_EQ(1, m_Root.iGetIndex(&middle));
    EXPECT_EQ(3, m_Root.iGetIndex(&last));
    EXPECT_EQ(4U, m_Root.m_Record.size());
    EXPECT_EQ(0, m_Root.iRemove(&middle));
    EXPECT_EQ(-1, m_Root.iRemove(&middle));
    EXPECT_EQ(-1, m_Root.iRemove(nullptr));
    m_Root.Insert(&middle, 99);
    EXPECT_EQ(3, m_Root.iGetIndex(&middle));
    EXPECT_EQ(0, m_Sub.iAdd(&middle, true));
    EXPECT_EQ(nullptr, m_Root.pFind(&middle)) << "a node is held by one record";
    EXPECT_EQ(&m_Sub, middle.pGetParent());
}

TEST_F(ARecord, IsNoChildOfItself)
{
    COpenRecord record(nullptr, "r");
    EXPECT_EQ(0, record.iAdd(&record, true));
    record.Insert(&record, 0);
    EXPECT_EQ(nullptr, record.pGetAt(0));
    EXPECT_EQ(nullptr, record.pGetParent());
    CList<CDMString> list(nullptr, "l", 3);
    EXPECT_EQ(-1, list.iAdd(&list, true));
    EXPECT_EQ(0, list.iGetNbr());
}

TEST_F(ARecord, FindsItselfAndItsDirectChildren)
{
    EXPECT_EQ(&m_Root, m_Root.pFindChildByName("root"));
    EXPECT_EQ(&m_Sub, m_Root.pFindChildByName("sub"));
    EXPECT_EQ(nullptr, m_Root.pFindChildByName("s")) << "one level only";
    EXPECT_EQ(nullptr, m_Root.pFindChildByName("SUB"));
    EXPECT_EQ(nullptr, m_Root.pFindChildByName(nullptr));
}

TEST_F(ARecord, IsWrittenWithoutCountOrNames)
{
    m_Root.m_Record.push_front(nullptr);
    const ustring bytes = {0x00, 0x00, 0x34, 0x12, 0x00, 0x00, 0x03, 0x00, 'a', 'b', 'c'};
    EXPECT_EQ(bytes, Encoded(m_Root));
    m_Number.SetVal(0);
    m_Text.SetVal("");
    EXPECT_EQ(0, lDecode(m_Root, bytes));
    EXPECT_EQ(0x1234, m_Number.iGetVal());
    EXPECT_EQ("abc", m_Text.szGetVal());
}

TEST_F(ARecord, StopsAtTheFirstChildThatFailsAndKeepsWhatWasRead)
{
    EXPECT_EQ(-1, lDecode(m_Root, {0x01, 0x00, 0x05, 0x00, 0x00, 0x00, 0x09, 0x00, 'x'}));
    EXPECT_EQ(5, m_Number.iGetVal());
    EXPECT_EQ("x", m_Text.szGetVal());
    EXPECT_TRUE(m_Root.bIsReadOnly());
}

TEST_F(ARecord, SurvivesAStreamThatIsCutOffAnywhere)
{
    const ustring bytes = Encoded(m_Root);
    for (size_t size = 0; size < bytes.size(); ++size) {
        EXPECT_EQ(-1, lDecode(m_Root, bytes.substr(0, size))) << size;
        EXPECT_EQ(-1, lCheck(m_Root, bytes.substr(0, size))) << size;
    }
    EXPECT_EQ(0, lDecode(m_Root, bytes));
}

TEST_F(ARecord, LogsItsWalk)
{
    const CLogLevel level;
    CSyslogReceiver::Get().Clear();
    ustring bytes;
    CSerialize writer(&bytes, true, true, false);
    EXPECT_EQ(0, m_Sub.iSerialize(writer));
    EXPECT_TRUE(bAwaitLogged(LOG_DEBUG, "sub = [\r\n"));
    EXPECT_TRUE(bAwaitLogged(LOG_DEBUG, " : ]\r\n"));
    CSerialize broken(nullptr, true, false, false);
    EXPECT_EQ(-1, m_Sub.iSerialize(broken));
    EXPECT_TRUE(bAwaitLogged(LOG_ERR, "sub ; iRet=-1"));
}

TEST_F(ARecord, ChecksItsChildrenUntilOneFails)
{
    EXPECT_EQ(0, lCheck(m_Root, {0x00, 0x00, 0x00, 0x20, 0x00, 0x00, 0x00, 0x00}));
    EXPECT_EQ(-2200, lCheck(m_Root, {0x00, 0x00, 0x01, 0x20}));
    EXPECT_EQ(0, lCheckHeld(m_Root));
    m_Number.SetVal(0x2001);
    EXPECT_EQ(-2200, lCheckHeld(m_Root));
}

TEST_F(ARecord, LogsItsCheck)
{
    const CLogLevel level;
    CSyslogReceiver::Get().Clear();
    m_Number.SetVal(0x2001);
    CSerialize stream(nullptr, false, true, false);
    EXPECT_EQ(-2200, m_Root.iCheckStatus(stream, false));
    EXPECT_TRUE(bAwaitLogged(LOG_DEBUG, "root = [\r\n"));
    EXPECT_TRUE(bAwaitLogged(LOG_DEBUG, "iRet = -2200]\r\n"));
    EXPECT_TRUE(bAwaitLogged(LOG_ERR, "root, ret = -2200"));
}

TEST_F(ARecord, IsNotPublishedWhenItIsNone)
{
    m_Sub.SetAttributeNone(true);
    EXPECT_EQ("{\"n\":4660}\n", szPublished(m_Root, Context(CContextJson::eGet)));
    m_Root.SetAttributeNone(true);
    EXPECT_EQ("null\n", szPublished(m_Root, Context(CContextJson::eGet)));
}

TEST_F(ARecord, IsPublishedUnderNotifyOnlyWhenModified)
{
    m_Root.SetIsModified(true);
    m_Number.SetVal(1);
    EXPECT_EQ("{\"n\":1}\n", szPublished(m_Root, Context(CContextJson::eNotify)));
    m_Root.SetIsModified(false);
    EXPECT_EQ("null\n", szPublished(m_Root, Context(CContextJson::eNotify)));
}

TEST_F(ARecord, IsPublishedAsNullOnlyWhenAllIs)
{
    m_Sub.SetNull(true);
    EXPECT_EQ("{\"n\":4660}\n", szPublished(m_Root, Context(CContextJson::eGet)));
    EXPECT_EQ("{\"n\":4660,\"sub\":null}\n", szPublishedWhole(m_Root));
}

TEST_F(ARecord, IsLeftOutWhenNoneOfItsChildrenIsPublished)
{
    m_Text.SetNull(true);
    EXPECT_EQ("{\"n\":4660}\n", szPublished(m_Root, Context(CContextJson::eGet)));
}

TEST_F(ARecord, AddsToAMemberThatIsThereAlready)
{
    Json::Value value;
    value["sub"]["other"] = 1;
    CContextJson get = Context(CContextJson::eGet);
    EXPECT_TRUE(m_Root.bSerializeValueJson(get, value, 5));
    EXPECT_EQ("{\"n\":4660,\"sub\":{\"other\":1,\"s\":\"abc\"}}\n",
              Json::FastWriter().write(value));
}

// A text is written while the labels are there, and needs no copies of them; a document of the
// caller's may be kept, also one that was made with the same context after a text.
TEST_F(ARecord, LeavesItsLabelsInADocumentThatOutlivesIt)
{
    Json::Value value;
    {
        CRecord root(nullptr, "a root that has gone by then");
        CRecord sub(&root, "a record with a label on the heap");
        const CNumber<int> number(&sub, "a number with a label on the heap", 0, 0, 9, 7);
        CContextJson get = Context(CContextJson::eGet);
        std::string szText;
        EXPECT_TRUE(root.bSerializeStreamJson(get, szText, 5));
        get.m_bRoot = true;
        EXPECT_TRUE(root.bSerializeValueJson(get, value, 5));
    }
    EXPECT_EQ("{\"a record with a label on the heap\":{\"a number with a label on the heap\":7}}\n",
              Json::FastWriter().write(value));
}

TEST_F(ARecord, LeavesTheDocumentOfACallerWhole)
{
    Json::Value value;
    CContextJson get = Context(CContextJson::eGet);
    std::string szText;
    EXPECT_TRUE(m_Root.bSerializeJson(get, &szText, &value, 5));
    EXPECT_EQ("{\"n\":4660,\"sub\":{\"s\":\"abc\"}}\n", szText);
    EXPECT_EQ(szText, Json::FastWriter().write(value));
}

TEST_F(ARecord, PublishesTextsOfAnyLength)
{
    for (size_t size = 0; size < 1100; ++size) {
        m_Text.SetVal(std::string(size, 'x'));
        EXPECT_EQ("{\"n\":4660,\"sub\":{\"s\":\"" + m_Text.szGetVal() + "\"}}\n",
                  szPublished(m_Root, Context(CContextJson::eGet)));
    }
}

class CItem : public CRecord
{
public:
    CItem(CObject* pParent, const char* szLabel) : CRecord(pParent, szLabel) {}
    CNumber<int> m_Number{this, "a number with a label on the heap", 0, 0, 9, 7};
};

/// Empties a list when it is published, as another thread may do at that moment.
class CRemover : public CObjectData
{
public:
    CRemover(CObject* pParent, CListBase& list) : CObjectData(pParent, "remover"), m_list(list) {}
    void SerializeJson(CContextJson& /*context*/, Json::Value& /*value*/, bool /*bArray*/,
                       int /*iDepth*/) override
    {
        m_list.iRemove(m_list.pGetAt(0));
    }

private:
    CListBase& m_list;
};

TEST_F(ARecord, PublishesItemsThatAreRemovedBeforeTheTextIsWritten)
{
    CRecord root(nullptr, "");
    CList<CItem> list(&root, "list", 1);
    list.iAdd(list.pNewObject(), true);
    CRemover remover(&root, list);
    CContextJson get = Context(CContextJson::eGet);
    std::string szText;
    EXPECT_TRUE(root.bSerializeStreamJson(get, szText, 5));
    EXPECT_EQ("{\"list\":[{\"a number with a label on the heap\":7}]}\n", szText);
    EXPECT_EQ(0, list.iGetNbr());
}

TEST_F(ARecord, PublishesItsMembersIntoAnElement)
{
    Json::Value element;
    CContextJson get = Context(CContextJson::eGet);
    get.m_bRoot = false;
    m_Root.SerializeJson(get, element, true, 5);
    EXPECT_EQ("{\"n\":4660,\"sub\":{\"s\":\"abc\"}}\n", Json::FastWriter().write(element));
}

TEST_F(ARecord, IsSetNullByJsonNullAndLeftAloneWhenItIsAbsent)
{
    EXPECT_TRUE(bApply(m_Root, "{\"sub\":null}"));
    EXPECT_TRUE(m_Sub.bIsNull());
    EXPECT_TRUE(bApply(m_Root, "{\"n\":1}"));
    EXPECT_TRUE(m_Sub.bIsNull());
    EXPECT_TRUE(bApply(m_Root, "{\"sub\":{\"s\":\"x\"}}"));
    EXPECT_FALSE(m_Sub.bIsNull());
    EXPECT_EQ("x", m_Text.szGetVal());
}

TEST_F(ARecord, IsLeftAloneByADocumentThatIsNull)
{
    CList<CDMString> list(&m_Root, "l", 3);
    list.SetReadOnly(true);
    std::string szIn = "null";
    std::string szOut;
    CContextJson post = Context(CContextJson::ePost);
    EXPECT_EQ(200, m_Root.iMoWrite(post, &szIn, &szOut, ""));
    EXPECT_EQ(0, list.iGetNbr()) << "nobody was asked whether the list may be written";
    EXPECT_FALSE(m_Root.bIsNull());
}

TEST_F(ARecord, IsReadUnderItsLabelWhenItIsNotTheRoot)
{
    m_Put.m_bRoot = false;
    std::string szText = "{\"root\":{\"n\":9}}";
    EXPECT_TRUE(m_Root.bDeserializeStreamJson(m_Put, szText));
    EXPECT_EQ(9, m_Number.iGetVal());
}

TEST_F(ARecord, RefusesARequestWhenItIsReadOnly)
{
    m_Sub.SetReadOnly(true);
    EXPECT_EQ(0, lCheckText(m_Root, "{\"n\":1}"));
    for (const char* szText : {"{\"sub\":null}", "{\"sub\":{}}", "{\"sub\":{\"s\":\"abc\"}}"}) {
        CContextJson context = Context(CContextJson::ePut);
        EXPECT_EQ(-1, lCheckText(m_Root, szText, context)) << szText;
        EXPECT_EQ(403, context.m_iCodeHTTP);
        EXPECT_EQ(kWriteRefused, context.m_szCause);
    }
    m_Root.SetReadOnly(true);
    std::string szIn = "{\"n\":1}";
    std::string szOut;
    EXPECT_EQ(403, m_Root.iMoWrite(m_Put, &szIn, &szOut, ""));
    EXPECT_EQ(kWriteRefused, szOut);
    EXPECT_EQ(0x1234, m_Number.iGetVal());
}

TEST_F(ARecord, RefusesWhatIsNeitherNullNorAnObject)
{
    for (const char* szText : {"{\"sub\":1}", "{\"sub\":[]}", "{\"sub\":\"x\"}", "[1]", "5"}) {
        CContextJson context = Context(CContextJson::ePut);
        EXPECT_EQ(-1, lCheckText(m_Root, szText, context)) << szText;
        EXPECT_EQ(kWrongType, context.m_szCause);
    }
    EXPECT_EQ(0, lCheckText(m_Root, "{\"sub\":null}"));
    EXPECT_EQ(0, lCheckText(m_Root, "null"));
    EXPECT_EQ(0, lCheckText(m_Root, "{}"));
}

TEST_F(ARecord, KeepsTheCauseOfTheFirstRefusal)
{
    EXPECT_EQ(403, lCheckText(m_Root, "{\"n\":99999,\"sub\":{\"s\":5}}", m_Put));
    EXPECT_EQ("n : Valeur d’attribut non prévue ou incohérente", m_Put.m_szCause);
}

/// A text that prepares its member before it is read or checked.
class CPrepared : public CString
{
public:
    using Preparation = void (*)(Json::Value& value);

    CPrepared(CObject* pParent, const char* szLabel, Preparation preparation)
        : CString(pParent, szLabel, "before"), m_preparation(preparation)
    {
    }
    long iDeserializeJson(CContextJson& context, Json::Value& value) override
    {
        m_preparation(value);
        return CString::iDeserializeJson(context, value);
    }

private:
    Preparation m_preparation;
};

TEST_F(ARecord, HasChildrenThatPrepareTheirMembers)
{
    CPrepared added(&m_Root, "added", [](Json::Value& value) { value["added"] = "x"; });
    CPrepared changed(&m_Root, "changed", [](Json::Value& value) { value["changed"] = "x"; });
    CPrepared removed(&m_Root, "removed",
                      [](Json::Value& value) { value.removeMember("removed"); });
    CPrepared renamed(&m_Root, "renamed", [](Json::Value& value) {
        value["renamed"] = value["formerName"];
        value.removeMember("formerName");
    });
    CString last(&m_Root, "last", "before");
    EXPECT_TRUE(bApply(m_Root, "{\"changed\":\"y\",\"formerName\":\"x\",\"last\":\"x\",\"n\":1,"
                               "\"removed\":\"x\"}"));
    EXPECT_EQ("{\"added\":\"x\",\"changed\":\"x\",\"last\":\"x\",\"n\":1,\"removed\":\"before\","
              "\"renamed\":\"x\",\"sub\":{\"s\":\"abc\"}}\n",
              szPublished(m_Root, Context(CContextJson::eGet)));
}

TEST_F(ARecord, IsDestroyedWithManyChildrenInAnyOrderInGoodTime)
{
    constexpr size_t kChildren = 50000;
    for (const bool bForward : {true, false}) {
        CRecord record(nullptr, "r");
        std::vector<std::unique_ptr<CObjectData>> children;
        for (size_t i = 0; i < kChildren; ++i) {
            children.push_back(std::make_unique<CObjectData>(&record, "c"));
        }
        for (size_t i = 0; i < kChildren; ++i) {
            children[bForward ? i : kChildren - 1 - i].reset();
        }
        EXPECT_EQ(nullptr, record.pGetAt(0));
    }
}

TEST_F(AContainer, HasAFileForEachRecord)
{
    ASSERT_TRUE(bPublish());
    EXPECT_EQ((std::vector<std::string>{"first", "second"}), Files());
    EXPECT_EQ("{\n\t\"a\" : 1\n}\n", szReadFile(m_szInner + "/first"));
    m_A.SetVal(5);
    m_B.SetVal(6);
    EXPECT_TRUE(bRead());
    EXPECT_EQ(1, m_A.iGetVal());
    EXPECT_EQ(2, m_B.iGetVal());
}

TEST_F(AContainer, ReadsTheOtherRecordsWhenAFileIsMissingOrBroken)
{
    const CLogLevel level;
    ASSERT_TRUE(bPublish());
    WriteFile(m_szInner + "/first", "{\"a\":");
    m_A.SetVal(5);
    m_B.SetVal(6);
    bRead();
    EXPECT_EQ(5, m_A.iGetVal());
    EXPECT_EQ(2, m_B.iGetVal());
    EXPECT_TRUE(bAwaitLogged(LOG_ERR, "first ; iRet=-2"));
    ASSERT_EQ(0, ::unlink((m_szInner + "/first").c_str()));
    bRead();
    EXPECT_TRUE(bAwaitLogged(LOG_ERR, "fichier : first"));
}

TEST_F(AContainer, WritesNothingForALabelThatIsNoFileName)
{
    const CLogLevel level;
    const std::string szAbsolute = m_Directory.szPath("absolute");
    for (const std::string& szLabel :
         {std::string("../outside"), szAbsolute, std::string(".."), std::string("."),
          std::string(""), std::string("a/b"), std::string(".hidden"), std::string(300, 'x')}) {
        CSyslogReceiver::Get().Clear();
        m_First.SetLabel(szLabel.c_str());
        ASSERT_TRUE(bPublish());
        EXPECT_TRUE(bAwaitLogged(LOG_ERR, "fichier : " + szLabel)) << szLabel;
        EXPECT_EQ((std::vector<std::string>{"second"}), Files()) << szLabel;
        m_A.SetVal(5);
        bRead();
        EXPECT_EQ(5, m_A.iGetVal()) << szLabel;
    }
    EXPECT_EQ("untouched", szReadFile(m_Directory.szPath("outside")));
    EXPECT_NE(0, ::access(szAbsolute.c_str(), F_OK));
}

TEST_F(AContainer, FollowsNoLinkOfALabel)
{
    const CLogLevel level;
    ASSERT_TRUE(bPublish());
    const std::string szLink = m_szInner + "/first";
    ASSERT_EQ(0, ::unlink(szLink.c_str()));
    ASSERT_EQ(0, ::symlink(m_Directory.szPath("outside").c_str(), szLink.c_str()));
    WriteFile(m_Directory.szPath("outside"), "{\"a\":9}");
    m_A.SetVal(5);
    CSyslogReceiver::Get().Clear();
    ASSERT_TRUE(bPublish());
    EXPECT_TRUE(CSyslogReceiver::Get().bAwait("fichier : first: "));
    EXPECT_EQ("{\"a\":9}", szReadFile(m_Directory.szPath("outside")));
    bRead();
    EXPECT_EQ(5, m_A.iGetVal());
}

TEST_F(AContainer, LeavesNoFileUnderWay)
{
    ASSERT_TRUE(bPublish());
    DIR* const pDirectory = ::opendir(m_szInner.c_str());
    ASSERT_NE(nullptr, pDirectory);
    int iEntries = 0;
    while (::readdir(pDirectory) != nullptr) {
        ++iEntries;
    }
    ::closedir(pDirectory);
    EXPECT_EQ(4, iEntries) << "two files, the directory and the one above";
}
