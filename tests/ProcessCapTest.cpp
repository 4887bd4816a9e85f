#include "libQuorCore/process_cap.h"

#include "support/CChild.h"
#include "support/Files.h"

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <sys/types.h>
#include <unistd.h>

using namespace QuorCore;
using namespace TestSupport;

namespace
{
constexpr uint32_t kVersion = 0x20080522;
constexpr int kAll = PROCESS_CAP_EFFECTIVE | PROCESS_CAP_PERMITTED | PROCESS_CAP_INHERITABLE;
constexpr uid_t kNobody = 65534;

static_assert(sizeof(process_cap_s) == 32);
static_assert(offsetof(process_cap_s, cap_data) == 8);
static_assert(PROCESS_CAP_EFFECTIVE == 1 && PROCESS_CAP_PERMITTED == 2 &&
              PROCESS_CAP_INHERITABLE == 4);

class ACapabilityRecord : public ::testing::Test
{
protected:
    void SetUp() override { process_cap_raz(&m_Cap); }

    /// Fills every field but the header with ones.
    void Fill() { std::memset(m_Cap.cap_data, 0xff, sizeof(m_Cap.cap_data)); }

    void ExpectWord(int iWord, uint32_t uEffective, uint32_t uPermitted, uint32_t uInheritable)
    {
        EXPECT_EQ(uEffective, m_Cap.cap_data[iWord].effective);
        EXPECT_EQ(uPermitted, m_Cap.cap_data[iWord].permitted);
        EXPECT_EQ(uInheritable, m_Cap.cap_data[iWord].inheritable);
    }
    void ExpectEmpty()
    {
        ExpectWord(0, 0, 0, 0);
        ExpectWord(1, 0, 0, 0);
    }

    process_cap_s m_Cap;
};

TEST_F(ACapabilityRecord, IsEmptyWithItsVersion)
{
    std::memset(&m_Cap, 0xff, sizeof(m_Cap));
    process_cap_raz(&m_Cap);
    EXPECT_EQ(kVersion, m_Cap.cap_hdr.version);
    EXPECT_EQ(0, m_Cap.cap_hdr.pid);
    ExpectEmpty();
}

TEST_F(ACapabilityRecord, IsCopiedWhole)
{
    process_cap_s copy;
    Fill();
    m_Cap.cap_hdr.version = 1;
    m_Cap.cap_hdr.pid = 2;
    process_cap_cp(&copy, &m_Cap);
    EXPECT_EQ(0, std::memcmp(&copy, &m_Cap, sizeof(copy)));
}

TEST_F(ACapabilityRecord, TakesACapabilityIntoTheSetsThatTheFlagsChoose)
{
    for (int iFlags = 0; iFlags <= kAll; ++iFlags) {
        process_cap_raz(&m_Cap);
        EXPECT_EQ(0, process_cap_enable(&m_Cap, iFlags, 12));
        ExpectWord(0, (iFlags & 1) != 0 ? 1U << 12 : 0, (iFlags & 2) != 0 ? 1U << 12 : 0,
                   (iFlags & 4) != 0 ? 1U << 12 : 0);
        ExpectWord(1, 0, 0, 0);
    }
}

TEST_F(ACapabilityRecord, LosesACapabilityFromTheSetsThatTheFlagsChoose)
{
    for (int iFlags = 0; iFlags <= kAll; ++iFlags) {
        Fill();
        EXPECT_EQ(0, process_cap_disable(&m_Cap, iFlags, 32 + 5));
        ExpectWord(0, ~0U, ~0U, ~0U);
        ExpectWord(1, (iFlags & 1) != 0 ? ~(1U << 5) : ~0U, (iFlags & 2) != 0 ? ~(1U << 5) : ~0U,
                   (iFlags & 4) != 0 ? ~(1U << 5) : ~0U);
    }
}

TEST_F(ACapabilityRecord, HasRoomForSixtyFour)
{
    for (const int iCapability : {0, 31, 32, 63}) {
        EXPECT_EQ(0, process_cap_enable(&m_Cap, kAll, iCapability));
    }
    ExpectWord(0, 0x80000001U, 0x80000001U, 0x80000001U);
    ExpectWord(1, 0x80000001U, 0x80000001U, 0x80000001U);
    for (const int iCapability : {0, 31, 32, 63}) {
        EXPECT_EQ(0, process_cap_disable(&m_Cap, kAll, iCapability));
    }
    ExpectEmpty();
}

TEST_F(ACapabilityRecord, RefusesNumbersThatAreNone)
{
    for (const int iNone : {-1, -5, -31, -32, -33, 64, 65, 96, INT_MIN, INT_MAX}) {
        EXPECT_EQ(22, process_cap_enable(&m_Cap, kAll, iNone)) << iNone;
        EXPECT_EQ(22, process_cap_disable(&m_Cap, kAll, iNone)) << iNone;
    }
    ExpectEmpty();
    Fill();
    EXPECT_EQ(22, process_cap_disable(&m_Cap, kAll, -5));
    ExpectWord(0, ~0U, ~0U, ~0U);
}

TEST_F(ACapabilityRecord, TakesAList)
{
    const capability_t aList[] = {5, 12, 40, -1, 1};
    EXPECT_EQ(0, process_cap_tab_enable(&m_Cap, PROCESS_CAP_PERMITTED, aList));
    ExpectWord(0, 0, 1U << 5 | 1U << 12, 0);
    ExpectWord(1, 0, 1U << 8, 0);
    EXPECT_EQ(0, process_cap_tab_disable(&m_Cap, PROCESS_CAP_PERMITTED, aList));
    ExpectEmpty();
}

TEST_F(ACapabilityRecord, RefusesNoListAndAnEmptyOne)
{
    const capability_t aEmpty[] = {-1};
    EXPECT_EQ(22, process_cap_tab_enable(&m_Cap, kAll, nullptr));
    EXPECT_EQ(22, process_cap_tab_disable(&m_Cap, kAll, nullptr));
    EXPECT_EQ(22, process_cap_tab_enable(&m_Cap, kAll, aEmpty));
    EXPECT_EQ(22, process_cap_tab_disable(&m_Cap, kAll, aEmpty));
    ExpectEmpty();
}

TEST_F(ACapabilityRecord, StopsAtTheFirstEntryThatFails)
{
    const capability_t aList[] = {5, 64, 12, -1};
    const capability_t aNegative[] = {-2, 5, -1};
    EXPECT_EQ(22, process_cap_tab_enable(&m_Cap, kAll, aList));
    ExpectWord(0, 1U << 5, 1U << 5, 1U << 5);
    EXPECT_EQ(22, process_cap_tab_enable(&m_Cap, kAll, aNegative));
    Fill();
    EXPECT_EQ(22, process_cap_tab_disable(&m_Cap, kAll, aList));
    ExpectWord(0, ~(1U << 5), ~(1U << 5), ~(1U << 5));
}

/// A set of the calling process, as the kernel shows it.
uint64_t uShown(const std::string& szSet)
{
    const std::string szStatus = szReadFile("/proc/thread-self/status");
    return std::stoull(szStatus.substr(szStatus.find(szSet) + szSet.size()), nullptr, 16);
}

TEST_F(ACapabilityRecord, HoldsWhatTheProcessHas)
{
    std::memset(&m_Cap, 0xff, sizeof(m_Cap));
    m_Cap.cap_hdr.pid = 0;
    ASSERT_EQ(0, process_cap_get(&m_Cap));
    EXPECT_EQ(kVersion, m_Cap.cap_hdr.version);
    const auto join = [](uint32_t uLow, uint32_t uHigh) { return uint64_t{uHigh} << 32 | uLow; };
    EXPECT_EQ(uShown("CapEff:"), join(m_Cap.cap_data[0].effective, m_Cap.cap_data[1].effective));
    EXPECT_EQ(uShown("CapPrm:"), join(m_Cap.cap_data[0].permitted, m_Cap.cap_data[1].permitted));
    EXPECT_EQ(uShown("CapInh:"),
              join(m_Cap.cap_data[0].inheritable, m_Cap.cap_data[1].inheritable));
}

TEST_F(ACapabilityRecord, BecomesThatOfTheProcess)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to have capabilities";
    }
    const ChildResult result = RunInChild([this] {
        process_cap_enable(&m_Cap, kAll, 5);
        process_cap_enable(&m_Cap, PROCESS_CAP_PERMITTED, 12);
        m_Cap.cap_hdr.version = 0; // set by the call
        return process_cap_set(&m_Cap) == 0 && uShown("CapEff:") == 1U << 5 &&
                       uShown("CapPrm:") == (1U << 5 | 1U << 12) && uShown("CapInh:") == 1U << 5
                   ? 0
                   : 1;
    });
    EXPECT_EQ(0, result.iExitCode);
}

TEST_F(ACapabilityRecord, IsRefusedByTheKernelWithMinusOne)
{
    const ChildResult result = RunInChild([this] {
        if (geteuid() == 0 && setresuid(kNobody, kNobody, kNobody) != 0) {
            return 2;
        }
        process_cap_enable(&m_Cap, kAll, 5);
        errno = 0;
        const bool bRefused = process_cap_set(&m_Cap) == -1 && errno == EPERM;
        m_Cap.cap_hdr.pid = -1;
        return bRefused && process_cap_get(&m_Cap) == -1 ? 0 : 1;
    });
    EXPECT_EQ(0, result.iExitCode);
}
} // namespace
