#include "libQuorCore/CDMStatCellServing.h"

#include "support/DataTrees.h"
#include "support/Sanitized.h"

#include <cstdint>
#include <cstdlib>
#include <gtest/gtest.h>
#include <new>
#include <string>
#include <thread>

using namespace QuorCore;
using namespace TestSupport;

namespace
{
size_t g_allocations = 0;  // by any code of the process; the tests have one thread at a time
size_t g_limit = SIZE_MAX; // of them: there is no memory for more

/// Allows so many allocations more, for a scope.
class CShortOfMemory
{
public:
    explicit CShortOfMemory(size_t allocations) { g_limit = g_allocations + allocations; }
    CShortOfMemory(const CShortOfMemory&) = delete;
    CShortOfMemory& operator=(const CShortOfMemory&) = delete;
    ~CShortOfMemory() { g_limit = SIZE_MAX; }
};
} // namespace

// Replaced for the whole program, the library included: [replacement.functions] of the standard. A
// sanitizer has its own.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
void* operator new(size_t size)
{
    if (g_allocations < g_limit) {
        ++g_allocations;
        if (void* const pMemory = std::malloc(size)) {
            return pMemory;
        }
    }
    throw std::bad_alloc();
}
void operator delete(void* pMemory) noexcept
{
    std::free(pMemory);
}
void operator delete(void* pMemory, size_t) noexcept
{
    std::free(pMemory);
}
#endif

namespace
{
class ADataTree : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (kSanitized) {
            GTEST_SKIP() << "a sanitizer counts by itself";
        }
        for (const char* szText : {"a phone number", "another one, which is longer", ""}) {
            CDMString* const pItem = m_List.pNewObject();
            pItem->SetVal(szText);
            m_List.iAdd(pItem, true);
        }
        m_bytes.reserve(4096);
    }

    /// Does something with ever more memory until it works. @return How often it failed.
    template <class Act>
    static size_t FailuresOf(Act act)
    {
        size_t failures = 0;
        while (failures < 10000 && !act(failures)) {
            ++failures;
        }
        EXPECT_LT(failures, 10000U);
        return failures;
    }

    CDMStatCellServing m_Cell{nullptr, "cell"};
    CDMList<CDMString> m_List{&m_Cell, "numbers", 10};
    ustring m_bytes;
};
} // namespace

TEST_F(ADataTree, IsWrittenWithoutAnAllocationWhenThereIsRoom)
{
    CSerialize stream(&m_bytes, true, true, true);
    const size_t before = g_allocations;
    EXPECT_EQ(0, m_Cell.iSerialize(stream));
    EXPECT_EQ(before, g_allocations) << "with its trace asked for and filtered";
}

TEST_F(ADataTree, IsReadWithoutAnAllocationWhenNoSizeChanges)
{
    m_bytes = Encoded(m_Cell);
    CSerializeBuffer stream(m_bytes.data(), static_cast<long>(m_bytes.size()), false, true, 1);
    const size_t before = g_allocations;
    EXPECT_EQ(0, m_Cell.iSerialize(stream));
    EXPECT_EQ(before, g_allocations);
}

TEST_F(ADataTree, IsCheckedWithoutAnAllocation)
{
    CSerialize stream(nullptr, false, true, true);
    const size_t before = g_allocations;
    m_Cell.iCheckStatus(stream, false);
    EXPECT_EQ(before, g_allocations);
}

TEST_F(ADataTree, IsReadAsFarAsThereIsMemory)
{
    m_List.SetAttributeCanDelete(true);
    m_bytes = Encoded(m_Cell);
    const auto failures = FailuresOf([this](size_t allocations) {
        CDMStatCellServing cell(nullptr, "cell");
        CDMList<CDMString> list(&cell, "numbers", 10);
        CSerializeBuffer stream(m_bytes.data(), static_cast<long>(m_bytes.size()), false, true, 1);
        long lRet = 1;
        {
            const CShortOfMemory shortage(allocations);
            lRet = cell.iSerialize(stream);
        }
        EXPECT_EQ(lRet == 0, Encoded(cell) == m_bytes) << allocations;
        EXPECT_TRUE(lRet == 0 || lRet == -1);
        std::thread other([&list] {
            EXPECT_EQ(0, list.m_Lock.iTryLock(0));
            list.m_Lock.UnLock();
        });
        other.join();
        EXPECT_EQ(0, lDecode(cell, m_bytes));
        EXPECT_EQ(m_bytes, Encoded(cell));
        return lRet == 0;
    });
    EXPECT_GT(failures, 3U);
}

TEST_F(ADataTree, IsCheckedAsFarAsThereIsMemory)
{
    CDMList<CDMString> list(nullptr, "numbers", 10);
    const auto failures = FailuresOf([&](size_t allocations) {
        ustring bytes = Encoded(m_List);
        CSerializeBuffer stream(bytes.data(), static_cast<long>(bytes.size()), false, true, 1);
        const CShortOfMemory shortage(allocations);
        const long lRet = list.iCheckStatus(stream, false);
        EXPECT_TRUE(lRet == 0 || lRet == -1) << lRet;
        return lRet == 0;
    });
    EXPECT_GT(failures, 0U);
}

TEST_F(ADataTree, IsPublishedWholeOrNotAtAll)
{
    const std::string szExpected = szPublishedWhole(m_Cell);
    const auto failures = FailuresOf([&](size_t allocations) {
        CContextJson get = Context(CContextJson::eGet);
        get.m_bPubAll = true;
        std::string szOut = "former";
        bool bDone = false;
        {
            const CShortOfMemory shortage(allocations);
            bDone = m_Cell.bSerializeStreamJson(get, szOut, 1000);
        }
        EXPECT_EQ(bDone ? szExpected : "former", szOut) << allocations;
        EXPECT_EQ(bDone ? 200 : 403, get.m_iCodeHTTP);
        return bDone;
    });
    EXPECT_GT(failures, 20U);
}

TEST_F(ADataTree, AnswersARequestWithoutMemoryByARefusal)
{
    m_List.SetAttributeCanDelete(true);
    std::string szIn = "{\"techno\":\"a text that is longer than within a string\",\"arfcn\":5,"
                       "\"numbers\":[\"1\",\"2\"]}";
    const auto failures = FailuresOf([&](size_t allocations) {
        CContextJson put = Context(CContextJson::ePut);
        long lCode = 0;
        {
            const CShortOfMemory shortage(allocations);
            lCode = m_Cell.iMoWrite(put, &szIn, nullptr, "");
        }
        EXPECT_TRUE(lCode == 200 || lCode == 403) << lCode;
        EXPECT_NE("", szPublishedWhole(m_Cell));
        return lCode == 200;
    });
    EXPECT_GT(failures, 10U);
    EXPECT_EQ(5U, m_Cell.m_Arfcn.iGetVal());
    EXPECT_EQ(2, m_List.iGetNbr());
}

TEST_F(ADataTree, HoldsNoFormerTextWhenThereIsNoMemoryForTheNextOne)
{
    CString text(nullptr, "s", "former");
    ustring bytes = {0x00, 0x2C, 0x01};
    bytes.append(0x012C, 'x');
    CSerializeBuffer stream(bytes.data(), static_cast<long>(bytes.size()), false, false, 0);
    {
        const CShortOfMemory shortage(0);
        EXPECT_EQ(-1, text.iSerialize(stream));
    }
    EXPECT_EQ("", text.szGetVal());
}
