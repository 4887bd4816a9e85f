#include "libQuorCore/CList.h"

#include "libQuorCore/CDMList.h"
#include "libQuorCore/CDMObject.h"
#include "libQuorCore/CDMString.h"
#include "libQuorCore/CDMUInt.h"
#include "libQuorCore/CThread.h"

#include "support/CLogLevel.h"
#include "support/CSyslogReceiver.h"
#include "support/CTempDirectory.h"
#include "support/CUntakeableLock.h"
#include "support/DataTrees.h"
#include "support/Files.h"
#include "support/LogLines.h"
#include "support/VirtualSlot.h"

#include <atomic>
#include <cerrno>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace QuorCore;
using namespace TestSupport;

namespace
{
/// An item that tells when it goes.
class CWatchedText : public CDMString
{
public:
    CWatchedText(CObject* pParent, const char* szText, int& iAlive)
        : CDMString(pParent, "", szText), m_iAlive(iAlive)
    {
        ++m_iAlive;
    }
    ~CWatchedText() override { --m_iAlive; }

private:
    int& m_iAlive;
};

/// A list of which tests see the counter.
class COpenList : public CDMList<CDMString>
{
public:
    using CDMList<CDMString>::CDMList;
    using CListBase::m_Nb;
    using CListBase::m_Record;
};

/// An item with a name.
class CCell : public CRecord
{
public:
    CCell(CObject* pParent, const char* szLabel)
        : CRecord(pParent, szLabel), m_Name(this, "name", ""), m_Level(this, "level", 0, 0, 99, 1)
    {
    }
    CString m_Name;
    CNumber<int> m_Level;
};

class AList : public ::testing::Test
{
protected:
    void Add(const char* szText)
    {
        auto pItem = std::make_unique<CWatchedText>(&m_List, szText, m_iAlive);
        ASSERT_EQ(0, m_List.iAdd(pItem.get(), true));
        pItem.release();
    }
    void Fill()
    {
        for (const char* szText : {"a", "b", "c"}) {
            Add(szText);
        }
    }
    std::string szItems()
    {
        std::string szText;
        for (int i = 0; i < m_List.iGetNbr(); ++i) {
            szText += static_cast<CDMString*>(m_List.pGetAt(i))->szGetVal() + ",";
        }
        return szText;
    }

    int m_iAlive = 0; // before the list, which deletes its items
    CRecord m_Root{nullptr, "root"};
    COpenList m_List{&m_Root, "l", 3};
    CContextJson m_Put = Context(CContextJson::ePut);
};

/// A list of records with a directory of its own.
class AListOfRecords : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_List.SetAttributeCanDelete(true);
        m_List.SetIsContainer(true);
    }
    void TearDown() override { ASSERT_EQ(0, ::chdir("/")); }
    CCell* pAdd(const char* szName, int iLevel)
    {
        CCell* const pCell = m_List.pNewObject();
        pCell->m_Name.SetVal(szName);
        pCell->m_Level.SetVal(iLevel);
        EXPECT_EQ(0, m_List.iAdd(pCell, true));
        return pCell;
    }
    bool bPublish()
    {
        CContextJson get = Context(CContextJson::eGet);
        return m_List.bSerializeDirectoryJson(get, m_szInner.c_str(), 5);
    }
    bool bRead(CListBase& list)
    {
        CContextJson put = Context(CContextJson::ePut);
        return list.bDeserializeDirectoryJson(put, m_szInner.c_str(), 5);
    }

    CTempDirectory m_Directory;
    std::string m_szInner = m_Directory.szPath("cells");
    CList<CCell> m_List{nullptr, "l", 20};
};
} // namespace

TEST_F(AList, HasItsOwnFunctionBehindThoseOfARecord)
{
    EXPECT_EQ(24, lVirtualSlot(&CListBase::iDeserializeDirectoryJson));
    EXPECT_FALSE((std::is_copy_constructible_v<CDMList<CDMString>>));
    EXPECT_FALSE((std::is_copy_assignable_v<CDMList<CDMString>>));
}

TEST_F(AList, StartsEmptyAndNotNull)
{
    EXPECT_EQ(0, m_List.iGetNbr());
    EXPECT_FALSE(m_List.bIsNull());
    EXPECT_FALSE(m_List.bIsContainer());
    m_List.SetIsContainer(true);
    EXPECT_TRUE(m_List.bIsContainer());
}

TEST_F(AList, IsNotEnteredByItsItemsThemselves)
{
    CDMString item(&m_List, "x", "x");
    EXPECT_EQ(0, m_List.iGetNbr());
    const std::unique_ptr<CDMString> pItem(m_List.pNewObject());
    EXPECT_EQ(&m_List, pItem->pGetParent());
    EXPECT_EQ("", pItem->szGetLabel());
    EXPECT_TRUE(pItem->bIsNull());
    EXPECT_EQ(0, m_List.iGetNbr());
}

TEST_F(AList, LabelsItsItemsByPosition)
{
    Fill();
    EXPECT_EQ("1", m_List.pGetAt(0)->szGetLabel());
    EXPECT_EQ("3", m_List.pGetAt(2)->szGetLabel());
    EXPECT_EQ(3, m_List.m_Nb.iGetVal());
}

TEST_F(AList, DropsItsOldestItemWhenItIsFull)
{
    Fill();
    Add("d");
    EXPECT_EQ("b,c,d,", szItems());
    EXPECT_EQ(3, m_iAlive) << "the first one was deleted, without the can-delete bit";
    EXPECT_EQ("3", m_List.pGetAt(2)->szGetLabel());
}

TEST_F(AList, TakesNothingWhenItHasNoRoom)
{
    COpenList none(nullptr, "none", 0);
    CDMString item(nullptr, "i", "x");
    EXPECT_EQ(-1, none.iAdd(&item, true));
    EXPECT_EQ(-1, none.iAdd(nullptr, true));
    EXPECT_EQ("i", item.szGetLabel());
    Fill();
    m_List.SetSizeMax(1);
    EXPECT_EQ(-1, m_List.iAdd(&item, false)) << "one goes, and there is still no room";
    EXPECT_EQ("b,c,", szItems());
}

TEST_F(AList, DeletesOnlyWhatItOwns)
{
    CDMString stranger(nullptr, "s", "s");
    EXPECT_EQ(0, m_List.iAdd(&stranger, false));
    Fill();
    EXPECT_EQ("a,b,c,", szItems()) << "the stranger made room, and lives";
    EXPECT_EQ("s", stranger.szGetVal());
    EXPECT_EQ(-1, m_List.iRemove(&stranger));
    EXPECT_EQ(0, m_List.iRemove(m_List.pGetAt(1)));
    EXPECT_EQ(2, m_iAlive);
    EXPECT_EQ(-1, m_List.iRemove(nullptr));
}

TEST_F(AList, DeletesItsItemsWithItself)
{
    {
        COpenList list(nullptr, "l", 3);
        ASSERT_EQ(0, list.iAdd(new CWatchedText(&list, "x", m_iAlive), true));
        EXPECT_EQ(1, m_iAlive);
    }
    EXPECT_EQ(0, m_iAlive);
}

TEST_F(AList, LeavesItemsThatAreNotItsOwnWithoutAParent)
{
    auto pList = std::make_unique<COpenList>(nullptr, "gone", 2);
    CDMString removed(pList.get(), "", "r");
    CDMString dropped(pList.get(), "", "d");
    CDMString kept(pList.get(), "", "k");
    CDMString last(pList.get(), "", "l");
    ASSERT_EQ(0, pList->iAdd(&removed, false));
    ASSERT_EQ(0, pList->iRemove(&removed));
    for (CDMString* pItem : {&dropped, &kept, &last}) {
        ASSERT_EQ(0, pList->iAdd(pItem, false));
    }
    pList.reset();
    for (CDMString* pItem : {&removed, &dropped, &kept, &last}) {
        EXPECT_EQ(nullptr, pItem->pGetParent());
    }
    EXPECT_EQ("/2", last.szGetFullName());
}

TEST_F(AList, DoesNotBecomeItsOwnItem)
{
    EXPECT_EQ(-1, m_List.iAdd(&m_List, true));
    EXPECT_EQ(0, m_List.iGetNbr());
}

TEST_F(AList, DeletesItsItemsInAResetOnlyWhenTheyMayBeDeleted)
{
    Fill();
    const std::unique_ptr<CObjectData> first(m_List.pGetAt(0));
    const std::unique_ptr<CObjectData> second(m_List.pGetAt(1));
    const std::unique_ptr<CObjectData> third(m_List.pGetAt(2));
    m_List.Reset();
    EXPECT_EQ(3, m_iAlive) << "forgotten, not deleted: they are ours again";
    EXPECT_EQ(0, m_List.iGetNbr());
    EXPECT_TRUE(m_List.bIsNull());
    Add("x");
    m_List.SetAttributeCanDelete(true);
    m_List.Reset();
    EXPECT_EQ(3, m_iAlive);
    EXPECT_EQ(0, m_List.m_Nb.iGetVal());
}

TEST_F(AList, FindsItemsByLabelThenByPosition)
{
    Fill();
    m_List.pGetAt(0)->SetLabel("first");
    EXPECT_EQ(m_List.pGetAt(0), m_List.pFindChildByName("first"));
    EXPECT_EQ(m_List.pGetAt(0), m_List.pFindChildByName("1"));
    EXPECT_EQ(m_List.pGetAt(2), m_List.pFindChildByName("3"));
    EXPECT_EQ(&m_List, m_List.pFindChildByName("l"));
    EXPECT_EQ(nullptr, m_List.pFindChildByName("4"));
    EXPECT_EQ(nullptr, m_List.pFindChildByName(nullptr));
    for (const char* szName : {"1", "3", "003"}) {
        EXPECT_TRUE(m_List.bIsIndex(szName)) << szName;
    }
    for (const char* szName : {"0", "4", "", "-1", "1x", " 1", "99999999999999999999", "first"}) {
        EXPECT_FALSE(m_List.bIsIndex(szName)) << szName;
    }
    EXPECT_FALSE(m_List.bIsIndex(nullptr));
}

TEST_F(AList, InsertsAndPermutes)
{
    CDMString item(nullptr, "i", "i");
    Add("a");
    Add("b");
    m_List.Insert(&item, 0);
    EXPECT_EQ("i,a,b,", szItems());
    CDMString tooMany(nullptr, "t", "t");
    m_List.Insert(&tooMany, 0);
    EXPECT_EQ(3, m_List.iGetNbr());
    EXPECT_EQ(0, m_List.iPermute(0, 2));
    EXPECT_EQ("b,a,i,", szItems());
    EXPECT_EQ(-1, m_List.iPermute(0, 3));
    EXPECT_EQ(-1, m_List.iPermute(-1, 0));
}

TEST_F(AList, CopiesItemsOfAnotherList)
{
    Fill();
    m_List.pGetAt(1)->SetAttributeMasked(true);
    COpenList copy(nullptr, "copy", 9);
    copy.Copy(m_List, 2);
    ASSERT_EQ(2, copy.iGetNbr());
    EXPECT_EQ("b", static_cast<CDMString*>(copy.pGetAt(1))->szGetVal());
    EXPECT_TRUE(copy.pGetAt(1)->bIsAttributeMasked());
    copy.Copy(m_List, 99);
    EXPECT_EQ(3, copy.iGetNbr());
    copy.Copy(copy, 1);
    copy.Copy(m_List, -1);
    EXPECT_EQ(0, copy.iGetNbr());
    EXPECT_EQ("a,b,c,", szItems());
}

TEST_F(AList, CopiesTextsOfAnyLengthAndItemsThatAreNone)
{
    Add("a");
    static_cast<CDMString*>(m_List.pGetAt(0))->SetVal(std::string(65537, 'x'));
    Add("b");
    m_List.pGetAt(1)->SetAttributeNone(true);
    Add("c");
    COpenList copy(nullptr, "copy", 9);
    copy.Copy(m_List, 3);
    ASSERT_EQ(3, copy.iGetNbr());
    EXPECT_EQ(std::string(65537, 'x'), static_cast<CDMString*>(copy.pGetAt(0))->szGetVal());
    EXPECT_TRUE(copy.pGetAt(1)->bIsAttributeNone());
    EXPECT_EQ("b", static_cast<CDMString*>(copy.pGetAt(1))->szGetVal());
    EXPECT_EQ("c", static_cast<CDMString*>(copy.pGetAt(2))->szGetVal());
}

TEST_F(AList, IsWrittenWithItsCountInFront)
{
    Add("a");
    Add("bc");
    const ustring bytes = {0x02, 0x00, 0x00, 0x00, 0x01, 0x00, 'a', 0x00, 0x02, 0x00, 'b', 'c'};
    EXPECT_EQ(bytes, Encoded(m_List));
    static_cast<CDMString*>(m_List.pGetAt(0))->SetVal("x");
    EXPECT_EQ(0, lDecode(m_List, bytes));
    EXPECT_EQ("a,bc,", szItems());
}

TEST_F(AList, RefusesAnotherCountWhenItsShapeIsFixed)
{
    Add("a");
    Add("b");
    EXPECT_EQ(-1, lDecode(m_List, {0x03, 0x00, 0x00, 0x00, 0x01, 0x00, 'x'}));
    EXPECT_EQ("a,b,", szItems());
    EXPECT_EQ(-1, lDecode(m_List, {0x02}));
    EXPECT_EQ(-1, lDecode(m_List, {0x02, 0x00}));
    EXPECT_EQ(2, m_List.m_Nb.iGetVal());
}

TEST_F(AList, IsRebuiltWhenItsItemsMayBeDeleted)
{
    Fill();
    EXPECT_EQ(0, lDecode(m_List, {0x02, 0x00, 0x08, 0x00, 0x01, 0x00, 'x', 0x02, 0x00, 0x00}));
    EXPECT_EQ("x,,", szItems());
    EXPECT_EQ(0, m_iAlive);
    EXPECT_FALSE(m_List.bIsNull()) << "as the sender has it";
    EXPECT_EQ(0, lDecode(m_List, {0x00, 0x00, 0x08}));
    EXPECT_EQ(0, m_List.iGetNbr());
    EXPECT_FALSE(m_List.bIsNull());
    EXPECT_EQ(0, lDecode(m_List, {0x01, 0x00, 0x0A, 0x00, 0x01, 0x00, 'y'}));
    EXPECT_TRUE(m_List.bIsNull()) << "as the sender has it";
    EXPECT_EQ(1, m_List.m_Nb.iGetVal());
}

TEST_F(AList, SurvivesCountsAndLengthsThatLie)
{
    m_List.SetAttributeCanDelete(true);
    EXPECT_EQ(-1, lDecode(m_List, {0xFF, 0xFF, 0x08}));
    EXPECT_EQ(-1, lDecode(m_List, {0xFF, 0xFF, 0x08, 0x00, 0xFF, 0xFF, 'a'}));
    EXPECT_EQ(0, m_List.iGetNbr()) << "the item that failed is not added";
    ustring bytes = {0xFF, 0xFF, 0x08};
    for (int i = 0; i < 65535; ++i) {
        bytes += ustring{0x00, 0x00, 0x00};
    }
    EXPECT_EQ(0, lDecode(m_List, bytes));
    EXPECT_EQ(3, m_List.iGetNbr()) << "each surplus item drops the oldest";
}

TEST_F(AList, ReportsSuccessOnceItsCountIsWritten)
{
    Add("a");
    uint8_t aBuffer[3] = {};
    CSerializeBuffer stream(aBuffer, 3, true, false, 0);
    EXPECT_EQ(0, m_List.iSerialize(stream)) << "whatever became of the items";
    CSerializeBuffer tooSmall(aBuffer, 1, true, false, 0);
    EXPECT_EQ(-1, m_List.iSerialize(tooSmall));
}

TEST_F(AList, HoldsMoreItemsThanItsCounterCanShow)
{
    COpenList list(nullptr, "l", 40000);
    for (int i = 0; i < 40000; ++i) {
        ASSERT_EQ(0, list.iAdd(list.pNewObject(), true));
    }
    EXPECT_EQ(40000, list.iGetNbr());
    EXPECT_LT(list.m_Nb.iGetVal(), 0);
    EXPECT_EQ((ustring{0x40, 0x9C}), Encoded(list).substr(0, 2));
}

TEST_F(AList, ChecksItsCountAndTheItemsOfAReadyStream)
{
    EXPECT_EQ(0, lCheck(m_List, {0x02, 0x00, 0x00, 0x00, 0x01, 0x00, 'a', 0x00, 0x00, 0x00}));
    EXPECT_EQ(0, lCheck(m_List, {0x03, 0x00, 0x00, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(-2200, lCheck(m_List, {0x04, 0x00, 0x00}));
    EXPECT_EQ(-1, lCheck(m_List, {0x02, 0x00, 0x00, 0x00, 0x01, 0x00, 'a'}));
    EXPECT_EQ(-1, lCheck(m_List, {0x02}));
    COpenList largest(nullptr, "l", 65535);
    EXPECT_EQ(-1, lCheck(largest, {}));
    EXPECT_EQ(0, m_List.iGetNbr());
    Fill();
    EXPECT_EQ(0, lCheckHeld(m_List));
    m_List.SetSizeMax(2);
    EXPECT_EQ(-2200, lCheckHeld(m_List));
}

TEST_F(AList, LogsItsWalk)
{
    const CLogLevel level;
    CSyslogReceiver::Get().Clear();
    ustring bytes;
    CSerialize writer(&bytes, true, true, false);
    EXPECT_EQ(0, m_List.iSerialize(writer));
    EXPECT_TRUE(bAwaitLogged(LOG_DEBUG, "l = {\r\n"));
    EXPECT_TRUE(bAwaitLogged(LOG_DEBUG, "l; iRet = 0"));
    EXPECT_EQ(-1, lDecode(m_List, {}));
    EXPECT_TRUE(bAwaitLogged(LOG_ERR, "l; iRet = -1"));
}

TEST_F(AList, AnnouncesItsCheckAsAnError)
{
    const CLogLevel level;
    CSyslogReceiver::Get().Clear();
    CSerialize stream(nullptr, false, true, false);
    EXPECT_EQ(0, m_List.iCheckStatus(stream, false));
    EXPECT_TRUE(bAwaitLogged(LOG_ERR, "l = {\r\n"));
    EXPECT_TRUE(bAwaitLogged(LOG_DEBUG, "l; iRet = 0"));
}

TEST_F(AList, DoesNothingWithoutItsLock)
{
    Fill();
    CDMString item(nullptr, "i", "x");
    Json::Value value(Json::objectValue);
    {
        const CUntakeableLock untakeable(m_List.m_Lock);
        EXPECT_EQ(-1, m_List.iAdd(&item, false));
        EXPECT_EQ(-1, m_List.iRemove(&item));
        EXPECT_EQ(EAGAIN, lDecode(m_List, {0x00, 0x00, 0x08}));
        EXPECT_EQ(EAGAIN, lCheck(m_List, {0x00, 0x00, 0x08}));
        ustring bytes;
        CSerialize writer(&bytes, true, false, false);
        EXPECT_EQ(EAGAIN, m_List.iSerialize(writer));
        EXPECT_TRUE(bytes.empty());
        EXPECT_EQ(0, m_List.iDeserializeJson(m_Put, value));
        EXPECT_EQ(0, m_List.iCheckJson(m_Put, value, nullptr, false));
        m_List.SerializeJson(m_Put, value, false, 1);
        m_List.DeserializeArrayJson(m_Put, value);
        m_List.Reset();
    }
    EXPECT_TRUE(value.empty());
    EXPECT_EQ("a,b,c,", szItems());
}

TEST_F(AList, IsPublishedAsAnArrayInWhichEveryItemHasItsPlace)
{
    EXPECT_EQ("{\"l\":[]}\n", szPublished(m_Root, Context(CContextJson::eGet)));
    Fill();
    EXPECT_EQ("{\"l\":[\"a\",\"b\",\"c\"]}\n", szPublished(m_Root, Context(CContextJson::eGet)));
    m_List.pGetAt(1)->SetNull(true);
    EXPECT_EQ("{\"l\":[\"a\",null,\"c\"]}\n", szPublished(m_Root, Context(CContextJson::eGet)));
    m_List.SetNull(true);
    EXPECT_EQ("null\n", szPublished(m_Root, Context(CContextJson::eGet)));
    EXPECT_EQ("{\"l\":null}\n", szPublishedWhole(m_Root));
}

TEST_F(AList, FillsTheItemsOfAFixedShapeOnlyFromAnArrayOfThatLength)
{
    Fill();
    for (const char* szText : {"{\"l\":[\"x\",\"y\"]}", "{\"l\":null}", "{\"l\":{}}",
                               "{\"l\":\"x\"}", "{}", "{\"l\":[]}"}) {
        EXPECT_TRUE(bApply(m_Root, szText));
        EXPECT_EQ("a,b,c,", szItems()) << szText;
    }
    EXPECT_TRUE(bApply(m_Root, "{\"l\":[\"x\",null,\"z\"]}"));
    EXPECT_EQ("x,b,z,", szItems());
    EXPECT_EQ(3, m_iAlive);
}

TEST_F(AList, IsRebuiltFromAnArrayWhenItsItemsMayBeDeleted)
{
    Fill();
    m_List.SetAttributeCanDelete(true);
    EXPECT_TRUE(bApply(m_Root, "{\"l\":[\"x\",\"y\"]}"));
    EXPECT_EQ("x,y,", szItems());
    EXPECT_EQ(0, m_iAlive);
    EXPECT_FALSE(m_List.bIsNull());
    EXPECT_EQ("{\"l\":[\"x\",\"y\"]}\n", szPublished(m_Root, Context(CContextJson::eGet)));
    EXPECT_TRUE(bApply(m_Root, "{\"l\":[]}"));
    EXPECT_EQ(0, m_List.iGetNbr());
    EXPECT_FALSE(m_List.bIsNull());
    EXPECT_TRUE(bApply(m_Root, "{\"l\":[\"1\",\"2\",\"3\",\"4\"]}"));
    EXPECT_EQ("2,3,4,", szItems()) << "without a check: the oldest goes";
}

TEST_F(AList, TakesTheGapsOfAnArrayForTheNullsThatTheyAre)
{
    Fill();
    for (const bool bRebuilt : {false, true}) {
        m_List.SetAttributeCanDelete(bRebuilt);
        Json::Value value;
        value["l"][2] = "x"; // the places before it are there, and null
        Json::Value checked(value);
        EXPECT_EQ(0, m_List.iCheckJson(m_Put, checked, nullptr, false));
        m_Put.m_bRoot = true;
        EXPECT_TRUE(m_Root.bDeserializeValueJson(m_Put, value));
        EXPECT_EQ(bRebuilt ? ",,x," : "a,b,x,", szItems());
    }
    Json::Value element;
    element["l"][1][""] = "y"; // the member that a new item, without a label, reads
    m_List.DeserializeArrayJson(m_Put, element);
    EXPECT_EQ(",y,", szItems());
}

TEST_F(AList, GetsOneItemFromAPost)
{
    m_List.SetIsModified(true);
    EXPECT_TRUE(bApply(m_List, "\"+331\"", CContextJson::ePost));
    EXPECT_EQ("+331,", szItems());
    EXPECT_FALSE(m_List.bGetIsModified());
    EXPECT_TRUE(bApply(m_Root, "{\"other\":1}", CContextJson::ePost));
    EXPECT_EQ("+331,,", szItems()) << "a POST to a record reaches every list in it";
}

TEST_F(AList, GetsNothingFromAPostThatSetsItsRecordNull)
{
    CRecord record(&m_Root, "record");
    CDMList<CDMString> list(&record, "inner", 3);
    EXPECT_TRUE(bApply(m_Root, "{\"record\":null}", CContextJson::ePost));
    EXPECT_TRUE(record.bIsNull());
    EXPECT_EQ(0, list.iGetNbr());
}

TEST_F(AList, IsNotReadUnderNotifyAndNotModifiedThen)
{
    Fill();
    m_List.SetIsModified(true);
    EXPECT_TRUE(bApply(m_Root, "{\"l\":[\"x\",\"y\",\"z\"]}", CContextJson::eNotify));
    EXPECT_EQ("a,b,c,", szItems());
    EXPECT_FALSE(m_List.bGetIsModified());
}

TEST_F(AList, IsFilledAsAnElementFromTheElementsOfItsMember)
{
    Fill();
    Json::Value element;
    ASSERT_TRUE(Json::Reader().parse("{\"l\":[{\"\":\"x\"},{\"\":\"y\"},5]}", element));
    m_List.DeserializeArrayJson(m_Put, element);
    EXPECT_EQ("x,y,,", szItems());
    EXPECT_EQ(0, m_iAlive);
    EXPECT_FALSE(m_List.bIsNull());
    Json::Value other(Json::objectValue); // without the member
    m_List.DeserializeArrayJson(m_Put, other);
    EXPECT_EQ(0, m_List.iGetNbr());
    EXPECT_TRUE(m_List.bIsNull());
}

TEST_F(AList, RefusesWhatReadingWouldDrop)
{
    Fill();
    for (const char* szText : {"{\"l\":[\"x\",\"y\"]}", "{\"l\":null}", "{\"l\":{}}", "{\"l\":1}",
                               "{\"l\":[\"x\",5,\"z\"]}", "{\"l\":[\"x\",[],\"z\"]}"}) {
        CContextJson context = Context(CContextJson::ePut);
        EXPECT_EQ(-1, lCheckText(m_Root, szText, context)) << szText;
        EXPECT_EQ(403, context.m_iCodeHTTP);
        EXPECT_NE("", context.m_szCause);
    }
    EXPECT_EQ(0, lCheckText(m_Root, "{\"l\":[\"x\",null,\"z\"]}"));
    EXPECT_EQ(0, lCheckText(m_Root, "{}"));
    m_List.SetAttributeCanDelete(true);
    EXPECT_EQ(0, lCheckText(m_Root, "{\"l\":[\"x\"]}"));
    EXPECT_EQ(-1, lCheckText(m_Root, "{\"l\":[\"1\",\"2\",\"3\",\"4\"]}", m_Put));
    EXPECT_EQ("l : Valeur d’attribut non prévue ou incohérente", m_Put.m_szCause);
    m_List.Reset();
    EXPECT_EQ(0, lCheckText(m_Root, "{\"l\":null}")) << "it is null already";
}

TEST_F(AList, RefusesARequestWhenItIsReadOnly)
{
    Fill();
    m_List.SetReadOnly(true);
    EXPECT_EQ(-1, lCheckText(m_Root, "{\"l\":[\"a\",\"b\",\"c\"]}", m_Put));
    EXPECT_EQ("Tentative de modification d’un attribut non WRITE (ni W ni WR)", m_Put.m_szCause);
    EXPECT_EQ(0, lCheckText(m_Root, "{}"));
    CContextJson post = Context(CContextJson::ePost);
    EXPECT_EQ(-1, lCheckText(m_List, "\"x\"", post));
    m_List.SetReadOnly(false);
    EXPECT_EQ(0, lCheckText(m_List, "\"x\"", post));
    EXPECT_EQ(0, lCheckText(m_Root, "{\"n\":1}", post));
}

TEST_F(AList, IsWrittenAndReadByThreadsAtATime)
{
    Fill();
    std::atomic<bool> bRun{true};
    std::thread writer([&] {
        for (int i = 0; i < 500; ++i) {
            CDMString* const pItem = m_List.pNewObject();
            pItem->SetVal(std::to_string(i));
            m_List.iAdd(pItem, true);
        }
        bRun = false;
    });
    while (bRun) {
        EXPECT_EQ(3, Encoded(m_List)[0]);
        EXPECT_NE("", szPublished(m_List, Context(CContextJson::eGet)));
    }
    writer.join();
    EXPECT_EQ("497,498,499,", szItems());
}

TEST_F(AList, TakesALimitWhileThreadsAddToIt)
{
    std::thread writer([&] {
        for (int i = 0; i < 500; ++i) {
            Add("x");
        }
    });
    for (uint16_t i = 1; i <= 100; ++i) {
        m_List.SetSizeMax(i);
    }
    writer.join();
    EXPECT_LE(m_List.iGetNbr(), 100);
}

TEST_F(AList, TakesBackTheNullsThatItPublishes)
{
    CDMList<CDMUInt> list(&m_Root, "numbers", 2);
    list.SetAttributeCanDelete(true);
    ASSERT_EQ(0, list.iAdd(list.pNewObject(), true));
    const std::string szText = szPublished(list, Context(CContextJson::eGet));
    EXPECT_EQ("{\"numbers\":[null]}\n", szText);
    EXPECT_EQ(0, lCheckText(list, szText));
    list.SetAttributeCanDelete(false);
    EXPECT_EQ(0, lCheckText(list, szText));
    *static_cast<CDMUInt*>(list.pGetAt(0)) = 5U;
    EXPECT_EQ(-1, lCheckText(list, szText)) << "a value is not taken away";
}

TEST_F(AListOfRecords, LabelsItsItemsByTheirName)
{
    pAdd("paris", 1);
    CDMList<CDMString> names(nullptr, "l", 3);
    EXPECT_EQ("paris", m_List.pGetAt(0)->szGetLabel());
    CContextJson get = Context(CContextJson::eGet);
    EXPECT_EQ("{\"l\":[{\"level\":1,\"name\":\"paris\"}]}\n", szPublished(m_List, get));
}

TEST_F(AListOfRecords, LabelsAnItemThatIsCalledNameByItsName)
{
    auto pCell = std::make_unique<CCell>(nullptr, "name");
    pCell->m_Name.SetVal("paris");
    ASSERT_EQ(0, m_List.iAdd(pCell.get(), true));
    EXPECT_EQ("paris", pCell.release()->szGetLabel());
}

TEST_F(AListOfRecords, IsReadBackFromItsArray)
{
    pAdd("paris", 1);
    pAdd("lyon", 2);
    const std::string szText = szPublished(m_List, Context(CContextJson::eGet));
    CList<CCell> copy(nullptr, "l", 20);
    copy.SetAttributeCanDelete(true);
    EXPECT_EQ(0, lCheckText(copy, szText));
    EXPECT_TRUE(bApply(copy, szText));
    EXPECT_EQ(szText, szPublished(copy, Context(CContextJson::eGet)));
    EXPECT_EQ(403, lCheckText(copy, "{\"l\":[{\"level\":100}]}"));
    EXPECT_EQ(-1, lCheckText(copy, "{\"l\":[5]}"));
}

TEST_F(AListOfRecords, IsReadBackFromItsDirectory)
{
    pAdd("paris", 1);
    pAdd("lyon", 2);
    ASSERT_TRUE(bPublish());
    EXPECT_NE("", szReadFile(m_szInner + "/paris"));
    CList<CCell> copy(nullptr, "l", 20);
    copy.SetAttributeCanDelete(true);
    copy.SetIsContainer(true);
    EXPECT_TRUE(bRead(copy));
    ASSERT_EQ(2, copy.iGetNbr());
    EXPECT_EQ("lyon", copy.pGetAt(0)->szGetLabel()) << "names in their order";
    EXPECT_EQ(2, static_cast<CCell*>(copy.pGetAt(0))->m_Level.iGetVal());
}

TEST_F(AListOfRecords, IsReadBackInTheOrderOfItsNumbersAndWithThem)
{
    for (int i = 1; i <= 11; ++i) {
        pAdd("", i)->SetLabel(std::to_string(i).c_str());
    }
    m_List.iRemove(m_List.pGetAt(1));
    ASSERT_TRUE(bPublish());
    EXPECT_TRUE(bRead(m_List));
    ASSERT_EQ(10, m_List.iGetNbr());
    EXPECT_EQ("1", m_List.pGetAt(0)->szGetLabel());
    EXPECT_EQ("3", m_List.pGetAt(1)->szGetLabel());
    EXPECT_EQ("11", m_List.pGetAt(9)->szGetLabel());
    EXPECT_EQ(11, static_cast<CCell*>(m_List.pGetAt(9))->m_Level.iGetVal());
}

TEST_F(AListOfRecords, WritesNothingOutsideForANameOfAClient)
{
    WriteFile(m_Directory.szPath("outside"), "untouched");
    m_List.SetIsContainer(true);
    EXPECT_TRUE(bApply(m_List, "{\"l\":[{\"name\":\"../outside\"},{\"name\":\"in\"}]}"));
    EXPECT_EQ("../outside", m_List.pGetAt(0)->szGetLabel());
    ASSERT_TRUE(bPublish());
    EXPECT_EQ("untouched", szReadFile(m_Directory.szPath("outside")));
    std::vector<std::string> names;
    iGetDirectoryList(m_szInner.c_str(), names);
    EXPECT_EQ((std::vector<std::string>{"in"}), names);
}

TEST_F(AListOfRecords, LeavesTheFileOfARecordAboveAlone)
{
    CRecord device(nullptr, "device");
    CNumber<int> setting(&device, "level", 1, 0, 9, 7);
    CList<CCell> list(&device, "l", 20);
    list.SetAttributeCanDelete(true);
    list.SetIsContainer(true);
    ASSERT_TRUE(bApply(device, "{\"l\":[{\"name\":\"device\"},{\"name\":\"paris\"}]}"));
    CContextJson get = Context(CContextJson::eGet);
    ASSERT_TRUE(device.bSerializeDirectoryJson(get, m_szInner.c_str(), 5));
    const std::string szDevice = szReadFile(m_szInner + "/device");
    ASSERT_TRUE(list.bSerializeDirectoryJson(get, m_szInner.c_str(), 5));
    EXPECT_EQ(szDevice, szReadFile(m_szInner + "/device"));
    setting.SetVal(1);
    CContextJson put = Context(CContextJson::ePut);
    EXPECT_TRUE(device.bDeserializeDirectoryJson(put, m_szInner.c_str(), 5));
    EXPECT_EQ(7, setting.iGetVal());
    ASSERT_EQ(1, list.iGetNbr()) << "the device's file is no item";
    EXPECT_EQ("paris", list.pGetAt(0)->szGetLabel());
}

TEST_F(AListOfRecords, ReadsTheOtherFilesWhenOneIsBroken)
{
    pAdd("paris", 1);
    pAdd("lyon", 2);
    ASSERT_TRUE(bPublish());
    WriteFile(m_szInner + "/lyon", "{");
    EXPECT_TRUE(bRead(m_List));
    ASSERT_EQ(1, m_List.iGetNbr());
    EXPECT_EQ("paris", m_List.pGetAt(0)->szGetLabel());
    CContextJson put = Context(CContextJson::ePut);
    EXPECT_EQ(-2, m_List.iDeserializeDirectoryJson(put));
}

TEST_F(AListOfRecords, ReadsTheFilesOfItsItemsWhenItsShapeIsFixed)
{
    CCell* const pCell = pAdd("paris", 1);
    ASSERT_TRUE(bPublish());
    WriteFile(m_szInner + "/other", "{}");
    pCell->m_Level.SetVal(7);
    m_List.SetAttributeCanDelete(false);
    EXPECT_TRUE(bRead(m_List));
    EXPECT_EQ(1, m_List.iGetNbr());
    EXPECT_EQ(1, pCell->m_Level.iGetVal());
}

TEST_F(AListOfRecords, HasAFileForATextToo)
{
    CDMList<CDMString> list(nullptr, "l", 3);
    list.SetAttributeCanDelete(true);
    list.SetIsContainer(true);
    for (const char* szText : {"a", "b"}) {
        CDMString* const pItem = list.pNewObject();
        pItem->SetVal(szText);
        ASSERT_EQ(0, list.iAdd(pItem, true));
    }
    CContextJson get = Context(CContextJson::eGet);
    ASSERT_TRUE(list.bSerializeDirectoryJson(get, m_szInner.c_str(), 5));
    EXPECT_EQ("\"b\"\n", szReadFile(m_szInner + "/2"));
    CContextJson notify(CContextJson::eNotify, "", SERIALIZE_JSON_FILE, false, true);
    list.SetIsModified(true);
    list.pGetAt(0)->SetIsModified(true);
    list.pGetAt(1)->SetIsModified(false);
    ASSERT_TRUE(list.bSerializeDirectoryJson(notify, m_szInner.c_str(), 5));
    EXPECT_EQ("\"b\"\n", szReadFile(m_szInner + "/2")) << "what is not published keeps its file";
    EXPECT_TRUE(bRead(list));
    EXPECT_EQ("{\"l\":[\"a\",\"b\"]}\n", szPublished(list, Context(CContextJson::eGet)));
}
