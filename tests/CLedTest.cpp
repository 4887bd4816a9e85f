#include "libQuorCore/CLed.h"

#include "support/CChild.h"
#include "support/CSysClass.h"
#include "support/Files.h"
#include "support/ProcessFacts.h"

#include <climits>
#include <cstdarg>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <type_traits>
#include <unistd.h>
#include <vector>

using namespace QuorCore;
using namespace TestSupport;

namespace
{
using journal_t = std::vector<std::string>;

thread_local std::vector<int>* t_pOpenFlags = nullptr; // of the calls of open(2), while it is set

static_assert(std::has_virtual_destructor_v<CLed>, "an application's LED may be deleted by this");

TEST(ALed, OfAMachineWithoutOneDoesNothing)
{
    CLed led("/sys/class/leds/there is none/");
    led.SetValue("trigger", "none");
    led.SetValue("brightness", 1);
    led.SetBlinking(100, 200);
    led.SetFlashing(2);
    led.SetFlashing(0);
    led.SetBrightness(1, true);
    led.ToggleBrightness();
    EXPECT_EQ("", led.szGetValue("brightness"));
    EXPECT_EQ(-1, led.iGetValue("brightness"));
    EXPECT_EQ(-1, led.iGetBrightness());
}

/// A LED whose files are plain ones.
class ALedOverFiles : public ::testing::Test
{
protected:
    std::string szRead(const char* szFile) { return szReadFile(m_szDirectory + szFile); }
    void Write(const char* szFile, const std::string& szContent)
    {
        WriteFile(m_szDirectory + szFile, szContent);
    }
    bool bExists(const char* szFile) { return std::filesystem::exists(m_szDirectory + szFile); }

    CSysClass m_SysClass;
    const std::string m_szDirectory = m_SysClass.szMakeDirectory("leds/status");
    CFileJournal m_Journal{m_szDirectory};
    CLed m_Led{m_szDirectory};
};

TEST_F(ALedOverFiles, OpensNoFileThatAProgramWouldInherit)
{
    Write("brightness", "1");
    std::vector<int> flags;
    t_pOpenFlags = &flags;
    m_Led.iGetBrightness();
    m_Led.SetValue("brightness", 0);
    t_pOpenFlags = nullptr;
    ASSERT_EQ(2U, flags.size());
    EXPECT_EQ(O_CLOEXEC, flags[0] & O_CLOEXEC);
    EXPECT_EQ(O_CLOEXEC, flags[1] & O_CLOEXEC);
}

TEST_F(ALedOverFiles, WritesATextWithoutAnEnd)
{
    Write("trigger", "something longer");
    m_Led.SetValue("trigger", "heartbeat");
    EXPECT_EQ("heartbeat", szRead("trigger"));
}

TEST_F(ALedOverFiles, MakesAFileThatIsMissingForAllThatTheUmaskAllows)
{
    const mode_t former = umask(022);
    m_Led.SetValue("trigger", "none");
    umask(former);
    EXPECT_EQ(0644U, static_cast<unsigned>(
                         std::filesystem::status(m_szDirectory + "trigger").permissions()));
}

TEST_F(ALedOverFiles, WritesANumberInDecimal)
{
    m_Led.SetValue("delay_on", 250);
    EXPECT_EQ("250", szRead("delay_on"));
    m_Led.SetValue("delay_on", INT_MIN);
    EXPECT_EQ("-2147483648", szRead("delay_on"));
}

TEST_F(ALedOverFiles, TakesNoTextForNothingToDo)
{
    m_Led.SetValue("trigger", nullptr);
    m_Led.SetValue(nullptr, "none");
    EXPECT_EQ("", m_Led.szGetValue(nullptr));
    EXPECT_EQ(-1, m_Led.iGetValue(nullptr));
    EXPECT_EQ(journal_t(), m_Journal.Take());
}

TEST_F(ALedOverFiles, JoinsDirectoryAndFileAsTheyAre)
{
    CLed(m_szDirectory + "left_").SetValue("trigger", "none");
    EXPECT_EQ("none", szRead("left_trigger"));
}

TEST_F(ALedOverFiles, ReadsTheFirstCharacterOnly)
{
    Write("max_brightness", "123\n");
    EXPECT_EQ("1", m_Led.szGetValue("max_brightness"));
    EXPECT_EQ(1, m_Led.iGetValue("max_brightness"));
}

TEST_F(ALedOverFiles, ReadsAnythingButADigitAsZero)
{
    for (const char* szText : {"none", "-1", " 1", "\xB2"}) {
        Write("brightness", szText);
        EXPECT_EQ(0, m_Led.iGetValue("brightness")) << szText;
        EXPECT_EQ(0, m_Led.iGetBrightness()) << szText;
    }
}

TEST_F(ALedOverFiles, TellsAnEmptyFileFromAMissingOne)
{
    Write("brightness", "");
    EXPECT_EQ("", m_Led.szGetValue("brightness"));
    EXPECT_EQ(-1, m_Led.iGetValue("brightness"));
    EXPECT_EQ(0, m_Led.iGetBrightness());
}

TEST_F(ALedOverFiles, BlinksByTheTimerInThisOrder)
{
    m_Led.SetBlinking(100, 900);
    EXPECT_EQ((journal_t{"open trigger", "write trigger", "close trigger", "open delay_on",
                         "write delay_on", "close delay_on", "open delay_off", "write delay_off",
                         "close delay_off"}),
              m_Journal.Take());
    EXPECT_EQ("timer", szRead("trigger"));
    EXPECT_EQ("100", szRead("delay_on"));
    EXPECT_EQ("900", szRead("delay_off"));
}

TEST_F(ALedOverFiles, FlashesOnce)
{
    m_Led.SetFlashing(1);
    EXPECT_EQ((journal_t{"open trigger", "write trigger", "close trigger", "open pattern",
                         "write pattern", "close pattern"}),
              m_Journal.Take());
    EXPECT_EQ("pattern", szRead("trigger"));
    EXPECT_EQ("255 50 255 0 0 2000 0 0", szRead("pattern"));
}

TEST_F(ALedOverFiles, FlashesTwice)
{
    m_Led.SetFlashing(2);
    EXPECT_EQ("255 50 255 0 0 300 0 0 255 50 255 0 0 2000 0 0", szRead("pattern"));
}

TEST_F(ALedOverFiles, FlashesMoreThanAPageIsLong)
{
    m_Led.SetFlashing(1000);
    EXPECT_EQ(999U * 23 + 13 + 10, szRead("pattern").size());
}

TEST_F(ALedOverFiles, BuildsNoPatternThatNoKernelTakes)
{
    m_Led.SetFlashing(INT_MAX); // in full it would be 49 GB
    EXPECT_LT(szRead("pattern").size(), 1024U * 1024);
}

TEST_F(ALedOverFiles, FlashesLessThanOnceByBeingOff)
{
    for (const int iCount : {0, -1, INT_MIN}) {
        Write("brightness", "1");
        Write("trigger", "pattern");
        m_Led.SetFlashing(iCount);
        EXPECT_EQ("0", szRead("brightness"));
        EXPECT_EQ("none", szRead("trigger"));
        EXPECT_FALSE(bExists("pattern"));
    }
}

TEST_F(ALedOverFiles, KnowsOnAndOffOnly)
{
    m_Led.SetBrightness(200, false);
    EXPECT_EQ("1", szRead("brightness"));
    m_Led.SetBrightness(-1, false);
    EXPECT_EQ("1", szRead("brightness"));
    m_Led.SetBrightness(0, false);
    EXPECT_EQ("0", szRead("brightness"));
    EXPECT_FALSE(bExists("trigger"));
}

TEST_F(ALedOverFiles, EndsTheTriggerBeforeItIsSwitched)
{
    m_Led.SetBrightness(1, true);
    EXPECT_EQ((journal_t{"open brightness", "open trigger", "write trigger", "close trigger",
                         "write brightness", "close brightness"}),
              m_Journal.Take());
    EXPECT_EQ("none", szRead("trigger"));
}

TEST_F(ALedOverFiles, LeavesTheTriggerWhenItCannotBeSwitched)
{
    Write("trigger", "timer");
    std::filesystem::create_directory(m_szDirectory + "brightness"); // cannot be opened for writing
    m_Led.SetBrightness(1, true);
    EXPECT_EQ("timer", szRead("trigger"));
}

TEST_F(ALedOverFiles, Toggles)
{
    Write("brightness", "0\n");
    m_Led.ToggleBrightness();
    EXPECT_EQ("1", szRead("brightness"));
    EXPECT_EQ("none", szRead("trigger"));
    m_Led.ToggleBrightness();
    EXPECT_EQ("0", szRead("brightness"));
}

TEST_F(ALedOverFiles, TakesFullBrightnessForOn)
{
    Write("brightness", "255\n");
    EXPECT_EQ(2, m_Led.iGetBrightness());
    m_Led.ToggleBrightness();
    EXPECT_EQ("0", szRead("brightness"));
}

TEST_F(ALedOverFiles, TogglesNothingThatItCannotRead)
{
    m_Led.ToggleBrightness();
    EXPECT_EQ(journal_t(), m_Journal.Take());
}

TEST_F(ALedOverFiles, DoesNotWaitForAPipeInAFilesPlace)
{
    for (const char* szFile : {"trigger", "brightness", "delay_on", "delay_off", "pattern"}) {
        ASSERT_EQ(0, mkfifo((m_szDirectory + szFile).c_str(), 0600));
    }
    const ChildResult result = RunInChild([this] { // where it can be ended if it does
        m_Led.SetBlinking(1, 1);
        m_Led.SetFlashing(1);
        m_Led.SetBrightness(1, true);
        m_Led.ToggleBrightness();
        return m_Led.szGetValue("trigger").empty() && m_Led.iGetBrightness() == 0 ? 0 : 1;
    });
    EXPECT_EQ(0, result.iExitCode);
}

TEST_F(ALedOverFiles, ReadsNothingOfADirectoryInAFilesPlace)
{
    std::filesystem::create_directory(m_szDirectory + "brightness");
    EXPECT_EQ("", m_Led.szGetValue("brightness"));
    EXPECT_EQ(-1, m_Led.iGetValue("brightness"));
    EXPECT_EQ(0, m_Led.iGetBrightness()); // can be opened, as an empty file can
}

TEST_F(ALedOverFiles, LeavesNoDescriptorOpen)
{
    const size_t nBefore = nOpenDescriptors();
    m_Led.SetBlinking(1, 1);
    m_Led.SetFlashing(3);
    m_Led.SetBrightness(1, true);
    m_Led.ToggleBrightness();
    EXPECT_EQ(0, m_Led.iGetValue("brightness"));
    EXPECT_EQ(nBefore, nOpenDescriptors());
}
} // namespace

/// In the C library's place: it tells with what flags it was called.
extern "C" int open(const char* pszPath, int iFlags, ...)
{
    va_list arguments;
    va_start(arguments, iFlags);
    const unsigned uMode = (iFlags & O_CREAT) != 0 ? va_arg(arguments, unsigned) : 0;
    va_end(arguments);
    if (t_pOpenFlags != nullptr) {
        t_pOpenFlags->push_back(iFlags);
    }
    return static_cast<int>(syscall(SYS_openat, AT_FDCWD, pszPath, iFlags, uMode));
}
