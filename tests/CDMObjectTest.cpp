#include "libQuorCore/CDMObject.h"

#include "libQuorCore/CDMType.h"

#include "support/CTempDirectory.h"
#include "support/DataTrees.h"
#include "support/Files.h"

#include <ctime>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

using namespace QuorCore;
using namespace TestSupport;

namespace
{
class ADmObject : public ::testing::Test
{
protected:
    std::string szAtDepth(int iDepth)
    {
        std::string szOut;
        EXPECT_EQ(200, m_Root.iMoRead(&szOut, "", iDepth));
        return szOut;
    }

    CDMObject m_Root{nullptr, "root"};
    CDMInt m_Number{&m_Root, "n", 1, 0, 9, 1};
    CDMObject m_Sub{&m_Root, "sub"};
    CDMInt m_Inner{&m_Sub, "i", 2, 0, 9, 2};
};
} // namespace

TEST_F(ADmObject, HasItsTimeOfWritingAsFirstChild)
{
    EXPECT_EQ(&m_Root.m_Modified, m_Root.pGetAt(0));
    EXPECT_EQ("modified", m_Root.m_Modified.szGetLabel());
    EXPECT_TRUE(m_Root.m_Modified.bIsNull());
    CDMObject empty(nullptr, "e");
    EXPECT_EQ((ustring{0x00, 0x02, 0, 0, 0, 0, 0, 0, 0, 0}), Encoded(empty));
}

TEST_F(ADmObject, IsPublishedDownToADepth)
{
    EXPECT_EQ("null\n", szAtDepth(-2));
    EXPECT_EQ("null\n", szAtDepth(-1));
    EXPECT_EQ("{\"n\":1}\n", szAtDepth(0));
    EXPECT_EQ("{\"n\":1,\"sub\":{\"i\":2}}\n", szAtDepth(1));
    EXPECT_EQ("{\"n\":1,\"sub\":{\"i\":2}}\n", szAtDepth(1000));
}

TEST_F(ADmObject, IsPublishedAsNullOnlyWhenAllIs)
{
    m_Sub.SetNull(true);
    EXPECT_EQ("{\"n\":1}\n", szAtDepth(5));
    EXPECT_EQ("{\"modified\":null,\"n\":1,\"sub\":null}\n", szPublishedWhole(m_Root));
    for (const int iDepth : {0, -1, -2}) { // one level below the last it is still seen to be null
        CContextJson get(CContextJson::eGet, "", SERIALIZE_JSON_STREAM, true, true);
        get.m_bRoot = false;
        std::string szOut;
        EXPECT_TRUE(m_Sub.bSerializeStreamJson(get, szOut, iDepth));
        EXPECT_EQ(iDepth >= -1 ? "{\"sub\":null}\n" : "null\n", szOut);
    }
    m_Sub.SetNull(false);
    m_Sub.SetAttributeNone(true);
    EXPECT_EQ("{\"n\":1}\n", szAtDepth(5));
}

TEST_F(ADmObject, NotesOnlyAPut)
{
    for (const auto cmd :
         {CContextJson::eGet, CContextJson::ePost, CContextJson::eDelete, CContextJson::eNotify}) {
        EXPECT_TRUE(bApply(m_Root, "{\"n\":3}", cmd));
        EXPECT_TRUE(m_Root.m_Modified.bIsNull());
    }
    EXPECT_TRUE(bApply(m_Root, "{\"n\":4}", CContextJson::ePut));
    EXPECT_FALSE(m_Root.m_Modified.bIsNull());
    EXPECT_LE(m_Root.m_Modified.dGetDiffTimeS(), 5.0);
    EXPECT_NE(std::string::npos, szAtDepth(0).find("\"modified\":\"20"));
}

TEST_F(ADmObject, NotesAPutThatDoesNotNameIt)
{
    EXPECT_TRUE(bApply(m_Root, "{\"n\":4}", CContextJson::ePut));
    EXPECT_FALSE(m_Sub.m_Modified.bIsNull()) << "the records below, too, were written by it";
    EXPECT_EQ(2, m_Inner.iGetVal());
}

TEST_F(ADmObject, NotesAPutOfAnElement)
{
    CContextJson put = Context(CContextJson::ePut);
    Json::Value element(Json::objectValue);
    element["i"] = 7;
    m_Sub.DeserializeArrayJson(put, element);
    EXPECT_EQ(7, m_Inner.iGetVal());
    EXPECT_FALSE(m_Sub.m_Modified.bIsNull());
    EXPECT_TRUE(m_Root.m_Modified.bIsNull());
}

TEST_F(ADmObject, IsAnElementOfAListAsDeepAsTheList)
{
    CList<CDMObject> list(&m_Root, "l", 3);
    CDMObject* const pItem = list.pNewObject();
    CDMObject deeper(pItem, "deeper");
    CDMInt leaf(&deeper, "leaf", 5, 0, 9, 5);
    ASSERT_EQ(0, list.iAdd(pItem, true));
    EXPECT_NE(std::string::npos, szAtDepth(1).find("\"l\":[{\"deeper\":{\"leaf\":5}}]"));
}

TEST_F(ADmObject, HasAFileOfItsOwnWithoutAParent)
{
    const CTempDirectory directory;
    CContextJson get = Context(CContextJson::eGet);
    ASSERT_TRUE(m_Root.bSerializeDirectoryJson(get, directory.szPath().c_str(), 5));
    EXPECT_NE(std::string::npos, szReadFile(directory.szPath("root")).find("\"n\" : 1"));
    m_Number = 8;
    CContextJson put = Context(CContextJson::ePut);
    EXPECT_TRUE(m_Root.bDeserializeDirectoryJson(put, directory.szPath().c_str(), 5));
    EXPECT_EQ(1, m_Number.iGetVal());
    ASSERT_EQ(0, ::chdir("/"));
}
