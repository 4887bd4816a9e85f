#include "libQuorCore/CDMStatCellServing.h"

#include "support/DataTrees.h"
#include "support/Sanitized.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <new>
#include <string>

using namespace QuorCore;
using namespace TestSupport;

namespace
{
size_t g_allocations = 0; // by any code of the process; the tests have one thread
}

// Replaced for the whole program, the library included: [replacement.functions] of the standard. A
// sanitizer has its own.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
void* operator new(size_t size)
{
    ++g_allocations;
    if (void* const pMemory = std::malloc(size)) {
        return pMemory;
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
