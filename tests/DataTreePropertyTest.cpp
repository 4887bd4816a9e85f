#include "libQuorCore/CDMSrvCallback.h"
#include "libQuorCore/CDMStatCellServing.h"

#include "support/CTempDirectory.h"
#include "support/DataTrees.h"
#include "support/RandomTree.h"
#include "support/Sanitized.h"

#include <ctime>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <string>
#include <unistd.h>
#include <vector>

using namespace QuorCore;
using namespace TestSupport;

TEST(ARandomTree, ComesBackEqualInBinary)
{
    for (unsigned i = 0; i < 200 / kSlowness; ++i) {
        CRandomTree source(i, i);
        CRandomTree target(i, i + 1000);
        const ustring bytes = Encoded(source.m_Root);
        ASSERT_EQ(0, lDecode(target.m_Root, bytes)) << i;
        EXPECT_EQ(bytes, Encoded(target.m_Root)) << i;
        EXPECT_EQ(szPublishedWhole(source.m_Root), szPublishedWhole(target.m_Root)) << i;
    }
}

TEST(ARandomTree, ComesBackEqualThroughACheckedRequest)
{
    for (unsigned i = 0; i < 200 / kSlowness; ++i) {
        CRandomTree source(i, i);
        CRandomTree target(i, i + 1000);
        std::string szText = szPublishedWhole(source.m_Root);
        CContextJson put = Context(CContextJson::ePut);
        std::string szError;
        ASSERT_EQ(200, target.m_Root.iMoWrite(put, &szText, &szError, "")) << i << szError;
        EXPECT_EQ(szText, szPublishedWhole(target.m_Root)) << i;
        EXPECT_EQ(Encoded(source.m_Root), Encoded(target.m_Root)) << i;
    }
}

TEST(ARandomTree, ComesBackEqualFromFileAndDirectory)
{
    const CTempDirectory directory;
    for (unsigned i = 0; i < 5; ++i) {
        CRandomTree source(i, i);
        const ustring bytes = Encoded(source.m_Root);
        const std::string szFile = directory.szPath("file");
        CContextJson get = Context(CContextJson::eGet);
        ASSERT_TRUE(source.m_Root.bSerializeFileJson(get, szFile.c_str(), 1000));
        CRandomTree fromFile(i, i + 1000);
        CContextJson put = Context(CContextJson::ePut);
        ASSERT_TRUE(fromFile.m_Root.bDeserializeFileJson(put, szFile.c_str(), 1000));
        EXPECT_EQ(bytes, Encoded(fromFile.m_Root)) << i;
        const std::string szDirectory = directory.szPath("directory");
        ASSERT_TRUE(source.m_Root.bSerializeDirectoryJson(get, szDirectory.c_str(), 1000));
        CRandomTree fromDirectory(i, i + 2000);
        ASSERT_TRUE(fromDirectory.m_Root.bDeserializeDirectoryJson(put, szDirectory.c_str(), 1000));
        EXPECT_EQ(bytes, Encoded(fromDirectory.m_Root)) << i;
    }
    ASSERT_EQ(0, ::chdir("/"));
}

TEST(ARandomTree, IsNotChangedByARequestThatIsRefused)
{
    Random random(1);
    int iRefused = 0;
    int iAccepted = 0;
    for (unsigned i = 0; i < 3000 / kSlowness; ++i) {
        CRandomTree tree(i % 50, i);
        std::string szText = Json::FastWriter().write(AnyJson(random, 3));
        const ustring before = Encoded(tree.m_Root);
        CContextJson put = Context(CContextJson::ePut);
        std::string szError;
        const long lChecked = tree.m_Root.iCheckStreamJson(put, &szText, &szError, false);
        EXPECT_EQ(before, Encoded(tree.m_Root)) << szText;
        CContextJson again = Context(CContextJson::ePut);
        const long lCode = tree.m_Root.iMoWrite(again, &szText, &szError, "");
        EXPECT_EQ(lChecked == 0 ? 200 : 403, lCode) << szText;
        if (lCode != 200) {
            EXPECT_EQ(before, Encoded(tree.m_Root)) << szText;
            EXPECT_NE("", again.m_szCause) << szText;
        }
        ++(lCode == 200 ? iAccepted : iRefused);
    }
    EXPECT_GT(iRefused, 100 / kSlowness);
    EXPECT_GT(iAccepted, 100 / kSlowness);
}

TEST(ARandomTree, SurvivesBytesThatAreAnything)
{
    Random random(2);
    for (unsigned i = 0; i < 3000 / kSlowness; ++i) {
        CRandomTree tree(i % 50, i);
        ustring bytes = Encoded(tree.m_Root);
        for (int iChanges = iBelow(random, 4); iChanges >= 0 && !bytes.empty(); --iChanges) {
            bytes[random() % bytes.size()] = static_cast<unsigned char>(random());
        }
        bytes.resize(random() % (bytes.size() + 4), 0xFF);
        const long lChecked = lCheck(tree.m_Root, bytes);
        EXPECT_TRUE(lChecked == 0 || lChecked == -1 || lChecked == -2200) << lChecked;
        const long lRead = lDecode(tree.m_Root, bytes);
        EXPECT_TRUE(lRead == 0 || lRead == -1) << lRead;
        EXPECT_NE("", szPublishedWhole(tree.m_Root));
    }
}

TEST(ARandomTree, SurvivesTextsThatAreCutOffAnywhereOrDamaged)
{
    Random random(3);
    CRandomTree tree(7, 7);
    const std::string szWhole = szPublishedWhole(tree.m_Root);
    for (size_t size = 0; size < szWhole.size(); ++size) {
        std::string szText = szWhole.substr(0, size);
        CContextJson put = Context(CContextJson::ePut);
        const long lCode = tree.m_Root.iMoWrite(put, &szText, nullptr, "");
        EXPECT_TRUE(lCode == 200 || lCode == 403) << size;
        szText = szWhole;
        szText[size] = static_cast<char>(random());
        CContextJson again = Context(CContextJson::ePut);
        tree.m_Root.iMoWrite(again, &szText, nullptr, "");
        EXPECT_TRUE(again.m_iCodeHTTP == 200 || again.m_iCodeHTTP == 403) << szText;
    }
}

TEST(ARandomTree, SurvivesAMillionMembersAndStrangeNumbers)
{
    CRandomTree tree(7, 7);
    std::string szText = "{";
    for (int i = 0; i < 1000000 / kSlowness; ++i) {
        szText += "\"m" + std::to_string(i) + "\":1,";
    }
    szText += "\"last\":1}";
    CContextJson put = Context(CContextJson::ePut);
    EXPECT_EQ(200, tree.m_Root.iMoWrite(put, &szText, nullptr, ""));
    for (const char* szNumber :
         {"NaN", "Infinity", "-Infinity", "1e999", "0x10", "--1", "1e", "+1"}) {
        std::string szIn = std::string("{\"c0\":") + szNumber + "}";
        CContextJson context = Context(CContextJson::ePut);
        EXPECT_EQ(403, tree.m_Root.iMoWrite(context, &szIn, nullptr, "")) << szNumber;
    }
    std::string szBytes = std::string("{\"c0\":\"\xFF\xFE\0\x80\"}", 13);
    CContextJson context = Context(CContextJson::ePut);
    const long lCode = tree.m_Root.iMoWrite(context, &szBytes, nullptr, "");
    EXPECT_TRUE(lCode == 200 || lCode == 403);
}

TEST(ARandomTree, IsPublishedAsTheJsonLibraryWritesIt)
{
    Random random(4);
    for (int i = 0; i < 2000 / kSlowness; ++i) {
        Json::Value value = AnyJson(random, 4);
        std::string szText = szAnyText(random);
        szText += static_cast<char>(random());
        value = iBelow(random, 2) == 0 ? Json::Value(szText) : value;
        Json::Value whole(Json::objectValue);
        whole[szText] = value;
        CObjectData node(nullptr, "n");
        CContextJson get = Context(CContextJson::eGet);
        std::string szOut;
        ASSERT_TRUE(node.bSerializeJson(get, &szOut, &whole, 5));
        EXPECT_EQ(Json::FastWriter().write(whole), szOut);
    }
}

TEST(ALargeTree, IsWrittenPublishedAndReadInLinearTime)
{
    // Only a guard against quadratic time; the figures are the benchmark's.
    CRecord root(nullptr, "root");
    std::vector<std::unique_ptr<CNumber<int>>> numbers;
    constexpr int kNumbers = 100000 / kSlowness;
    for (int i = 0; i < kNumbers; ++i) {
        numbers.push_back(std::make_unique<CNumber<int>>(&root, ("n" + std::to_string(i)).c_str(),
                                                         0, 0, 1000000, i));
    }
    const ustring bytes = Encoded(root);
    EXPECT_EQ(1U + 5U * kNumbers, bytes.size());
    EXPECT_EQ(0, lDecode(root, bytes));
    const std::string szText = szPublished(root, Context(CContextJson::eGet));
    EXPECT_EQ(0, lCheckText(root, szText));
    EXPECT_TRUE(bApply(root, szText));
    EXPECT_EQ(kNumbers - 1, numbers.back()->iGetVal());
}
