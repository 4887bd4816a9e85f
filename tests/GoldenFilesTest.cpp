// The formats that peers and files in the field rely on, held by files that were written once:
// every machine writes the same bytes and reads them back, whatever the width of its long and
// time_t and the sign of its char.
#include "libQuorCore/CDMSrvCallback.h"
#include "libQuorCore/CDMStatCellServing.h"
#include "libQuorCore/CTime.h"
#include "libQuorCore/socketFrame.h"

#include "support/CTempDirectory.h"
#include "support/DataTrees.h"
#include "support/Files.h"

#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <map>
#include <string>
#include <unistd.h>

using namespace QuorCore;
using namespace TestSupport;
namespace fs = std::filesystem;

namespace
{
constexpr time_t kTime = 2147483000; // ten minutes before a signed 32-bit time_t ends

/// An item of a list, with a file of its own.
class CContact : public CDMObject
{
public:
    CContact(CObject* pParent, const char* szLabel) : CDMObject(pParent, szLabel) {}

    CDMString m_Name{this, "name", ""};
    CDMInt m_Calls{this, "calls"};
};

/// An attribute of every kind.
class CEveryKind : public CRecord
{
public:
    CEveryKind() : CRecord(nullptr, "device")
    {
        m_Contacts.SetAttributeCanDelete(true);
        m_Contacts.SetIsContainer(true);
        m_Callback.m_WhiteList.SetAttributeCanDelete(true);
    }

    void Fill()
    {
        m_Yes.SetVal(true);
        m_Short.SetVal(-32768);
        m_UShort.SetVal(65535);
        m_Int.SetVal(-2147483647 - 1);
        m_UInt.SetVal(4294967295U);
        m_Text.SetVal("\xC3\xA9t\xC3\xA9 \"\\\n/\t\x7F");
        m_Time.SetVal(kTime);
        m_Date.SetVal(1);
        m_Callback.AddPhoneNumberToWhitelist("+33123456789");
        m_Callback.AddPhoneNumberToWhitelist("");
        m_Callback.m_SmsCallback.SetVal(2147483647);
        m_Callback.m_AuthSms.SetVal(false);
        m_Cell.m_Techno.SetVal("LTE"); // the rest stays null, but for the level
        m_Cell.m_DateMes.SetVal(kTime);
        for (const char* const pszName : {"ada", "bob"}) {
            CContact* const pContact = m_Contacts.pNewObject();
            pContact->m_Name.SetVal(pszName);
            pContact->m_Calls.SetVal(-7);
            m_Contacts.iAdd(pContact, true);
        }
    }

    /// As if it had not been written from outside: that tells the time of the write.
    void ForgetWrites()
    {
        m_Callback.m_Modified.SetNull(true);
        m_Cell.m_Modified.SetNull(true);
        for (int i = 0; i < m_Contacts.iGetNbr(); ++i) {
            static_cast<CContact*>(m_Contacts.pGetAt(i))->m_Modified.SetNull(true);
        }
    }

    CNumber<bool> m_Yes{this, "yes"};
    CNumber<short> m_Short{this, "short"};
    CNumber<unsigned short> m_UShort{this, "ushort"};
    CNumber<int> m_Int{this, "int"};
    CNumber<unsigned int> m_UInt{this, "uint"};
    CString m_Text{this, "text", ""};
    CTime m_Time{this, "time"};
    CDMDateTime m_Date{this, "date"};
    CDMSrvCallback m_Callback{this, "callback"};
    CDMStatCellServing m_Cell{this, "cell"};
    CList<CContact> m_Contacts{this, "contacts", 8};
};

std::string szText(const ustring& bytes)
{
    return {bytes.begin(), bytes.end()};
}

ustring Bytes(const std::string& szText)
{
    return {szText.begin(), szText.end()};
}

/// The names and contents of the files in a directory.
std::map<std::string, std::string> FilesIn(const fs::path& directory)
{
    std::map<std::string, std::string> files;
    for (const auto& entry : fs::directory_iterator(directory)) {
        files[entry.path().filename()] = szReadFile(entry.path());
    }
    return files;
}

class AGoldenFile : public ::testing::Test
{
protected:
    void SetUp() override { m_Tree.Fill(); }
    void TearDown() override { ASSERT_EQ(0, ::chdir("/")); } // a directory of JSON leaves us in it

    static std::string szGolden(const std::string& szName)
    {
        return std::string(PROJECT_DIR "/tests/golden/") + szName;
    }
    static bool bWriteAnew() { return std::getenv("QUORCORE_GOLDEN_WRITE") != nullptr; }

    /// The content of a golden file, which is made of @p szNow if that is asked for.
    static std::string szExpected(const std::string& szName, const std::string& szNow)
    {
        if (bWriteAnew()) {
            WriteFile(szGolden(szName), szNow);
        }
        return szReadFile(szGolden(szName));
    }

    bool bPublish(const std::string& szDirectory)
    {
        CContextJson get = Context(CContextJson::eGet);
        get.m_bPubAll = true;
        return m_Tree.bSerializeDirectoryJson(get, szDirectory.c_str(), 10);
    }

    /// All of a tree in one text, to tell two trees apart.
    static std::string szWhole(CEveryKind& tree) { return szPublishedWhole(tree); }

    CEveryKind m_Tree;
    CEveryKind m_Copy;
};

/// A frame with every word of its header told apart, and a tree as its data.
std::string szFrameOf(const ustring& data)
{
    std::string szFrame(kFrameHeaderSize + data.size(), '\0');
    auto* const pFrame = reinterpret_cast<socketFrame_t*>(szFrame.data());
    pFrame->magicNumber = kFrameMagic;
    pFrame->typeITF = 0x0102;
    pFrame->command = CMD_COMMUN_SET_CONFIG;
    pFrame->error = 0x0304;
    pFrame->protocol = 0x0506;
    pFrame->msgCounter = 0xFFFE;
    pFrame->user1 = -2;
    pFrame->user2 = 0x0708;
    ustring copy = data;
    pFrame->SetData(copy.data(), static_cast<int>(copy.size()));
    return szFrame;
}
} // namespace

TEST_F(AGoldenFile, HoldsTheBinaryTreeThatEveryMachineWrites)
{
    const std::string szNow = szText(Encoded(m_Tree));
    ASSERT_NE("", szNow);
    EXPECT_EQ(szExpected("tree.bin", szNow), szNow);
}

TEST_F(AGoldenFile, HoldsABinaryTreeThatEveryMachineReads)
{
    ASSERT_EQ(0, lDecode(m_Copy, Bytes(szReadFile(szGolden("tree.bin")))));
    EXPECT_EQ(szWhole(m_Tree), szWhole(m_Copy));
    EXPECT_EQ(kTime, m_Copy.m_Time.tmGetVal());
    EXPECT_EQ(2, m_Copy.m_Contacts.iGetNbr());
}

TEST_F(AGoldenFile, HoldsTheFrameThatEveryMachineWrites)
{
    const std::string szNow = szFrameOf(Encoded(m_Tree));
    EXPECT_EQ(szExpected("frame.bin", szNow), szNow);
}

TEST_F(AGoldenFile, HoldsAFrameThatEveryMachineReads)
{
    std::string szFrame = szReadFile(szGolden("frame.bin"));
    ASSERT_LT(kFrameHeaderSize, szFrame.size());
    auto* const pFrame = reinterpret_cast<socketFrame_t*>(szFrame.data());
    EXPECT_EQ(kFrameMagic, pFrame->magicNumber);
    EXPECT_EQ(szFrame.size() - kFrameHeaderSize, pFrame->size);
    EXPECT_EQ(CMD_COMMUN_SET_CONFIG, pFrame->command);
    EXPECT_EQ(-2, pFrame->user1);
    EXPECT_EQ(0xFFFE, pFrame->msgCounter);
    ASSERT_EQ(0, pFrame->iReadObject(m_Copy));
    EXPECT_EQ(szWhole(m_Tree), szWhole(m_Copy));
}

TEST_F(AGoldenFile, HoldsTheDirectoryThatEveryMachineWrites)
{
    const CTempDirectory directory;
    const std::string szNow = directory.szPath("device");
    ASSERT_TRUE(bPublish(szNow));
    if (bWriteAnew()) {
        fs::remove_all(szGolden("directory"));
        fs::copy(szNow, szGolden("directory"));
    }
    EXPECT_EQ(FilesIn(szGolden("directory")), FilesIn(szNow));
}

TEST_F(AGoldenFile, HoldsADirectoryThatEveryMachineReads)
{
    const CTempDirectory directory; // reading may make files
    const std::string szHere = directory.szPath("device");
    fs::copy(szGolden("directory"), szHere);
    CContextJson put = Context(CContextJson::ePut);
    ASSERT_TRUE(m_Copy.bDeserializeDirectoryJson(put, szHere.c_str(), 10));
    m_Copy.ForgetWrites();
    EXPECT_EQ(szWhole(m_Tree), szWhole(m_Copy));
    EXPECT_EQ(kTime, m_Copy.m_Time.tmGetVal());
}
