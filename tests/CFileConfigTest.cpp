#include "libQuorCore/CFileConfig.h"

#include "libQuorCore/CThread.h"
#include "support/CChild.h"
#include "support/CDeadline.h"
#include "support/CSyslogReceiver.h"
#include "support/CTempDirectory.h"
#include "support/Files.h"
#include "support/ProcessFacts.h"

#include <algorithm>
#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <stdexcept>
#include <string>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace QuorCore;
using TestSupport::CSyslogReceiver;
using TestSupport::CTempDirectory;
using TestSupport::szReadFile;
using TestSupport::WriteFile;

namespace fs = std::filesystem;

namespace
{
constexpr const char* kIdent = "CFileConfigTest";

using settings_t = std::map<std::string, std::string>;

/// What a derived class sees of the store.
class COpenConfig : public CFileConfig
{
public:
    using CFileConfig::m_Lock;
    using CFileConfig::m_map;
    using CFileConfig::m_szFilename;
};

/// Sets the mask of new files for a scope.
class CUmask
{
public:
    explicit CUmask(mode_t iMask) : m_iFormer(::umask(iMask)) {}
    CUmask(const CUmask&) = delete;
    CUmask& operator=(const CUmask&) = delete;
    ~CUmask() { ::umask(m_iFormer); }

private:
    mode_t m_iFormer;
};

/// A file system of its own for a scope, mounted in the mount namespace of the test.
class CMount
{
public:
    CMount(std::string szPath, const char* szType, const char* szOptions)
        : m_szPath(std::move(szPath))
    {
        fs::create_directory(m_szPath);
        m_bMounted = ::mount(szType, m_szPath.c_str(), szType, 0, szOptions) == 0;
    }
    CMount(const CMount&) = delete;
    CMount& operator=(const CMount&) = delete;
    ~CMount()
    {
        if (m_bMounted) {
            ::umount2(m_szPath.c_str(), MNT_DETACH);
        }
    }
    bool bMounted() const { return m_bMounted; }
    std::string szPath(const std::string& szName) const { return m_szPath + '/' + szName; }

private:
    std::string m_szPath;
    bool m_bMounted = false;
};

mode_t iModeOf(const std::string& szPath)
{
    struct stat info {
    };
    return ::stat(szPath.c_str(), &info) == 0 ? info.st_mode & 07777 : 0;
}

ino_t iNodeOf(const std::string& szPath)
{
    struct stat info {
    };
    return ::stat(szPath.c_str(), &info) == 0 ? info.st_ino : 0;
}

/// Takes all room that a file system has left.
void FillUp(const std::string& szPath)
{
    const int iFd = ::open(szPath.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const std::vector<char> block(4096, 'x');
    while (::write(iFd, block.data(), block.size()) > 0) {
    }
    EXPECT_EQ(ENOSPC, errno);
    ::close(iFd);
}

/// Waits until this process has a file open in that way (O_RDONLY or O_WRONLY).
/// @return Its descriptor, or -1 when it was not opened in time.
int iAwaitOpen(const std::string& szPath, int iMode)
{
    int iFd = -1;
    TestSupport::bAwait([&szPath, &iFd, iMode] {
        for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
            std::error_code gone; // the walk's own descriptor, for one
            const bool bThatFile = fs::read_symlink(entry.path(), gone) == szPath;
            const int iCandidate = std::stoi(entry.path().filename());
            if (bThatFile && (::fcntl(iCandidate, F_GETFL) & O_ACCMODE) == iMode) {
                iFd = iCandidate;
            }
        }
        return iFd != -1;
    });
    return iFd;
}

/// The records of level 3 with this text behind "label(thread) -- function / line : ".
size_t nErrorLines(const std::string& szText)
{
    const auto records = CSyslogReceiver::Get().Records();
    return static_cast<size_t>(
        std::count_if(records.begin(), records.end(), [&szText](const auto& record) {
            const std::string szEnd = " : " + szText;
            return record.iLevel == LOG_ERR && record.szText.size() >= szEnd.size() &&
                   record.szText.compare(record.szText.size() - szEnd.size(), szEnd.size(),
                                         szEnd) == 0;
        }));
}

/// Replaces this process by a copy of a program that is in no directory. Returns only on failure.
int iRunFromMemory(const std::string& szProgram, const char* szArgument)
{
    const std::string szContent = szReadFile(szProgram);
    const int iFd = ::memfd_create("daemon", 0);
    if (::write(iFd, szContent.data(), szContent.size()) !=
        static_cast<ssize_t>(szContent.size())) {
        return 2;
    }
    const char* const aArguments[] = {"daemon", szArgument, nullptr};
    ::fexecve(iFd, const_cast<char* const*>(aArguments), environ);
    return 3;
}

/// Makes a locale whose decimal sign is a comma, and gives it to the process for a scope.
class CCommaLocale
{
public:
    explicit CCommaLocale(const CTempDirectory& directory)
    {
        WriteFile(directory.szPath("comma.src"), "LC_NUMERIC\n"
                                                 "decimal_point \"<U002C>\"\n"
                                                 "thousands_sep \"\"\n"
                                                 "grouping -1\n"
                                                 "END LC_NUMERIC\n");
        TestSupport::RunProgram({"localedef", "-c", "-i", directory.szPath("comma.src"), "-f",
                                 "ANSI_X3.4-1968", directory.szPath("comma")});
        ::setenv("LOCPATH", directory.szPath().c_str(), 1);
        m_bSet = std::setlocale(LC_NUMERIC, "comma") != nullptr;
    }
    CCommaLocale(const CCommaLocale&) = delete;
    CCommaLocale& operator=(const CCommaLocale&) = delete;
    ~CCommaLocale()
    {
        std::setlocale(LC_NUMERIC, "C");
        ::unsetenv("LOCPATH");
    }
    bool bSet() const { return m_bSet; }

private:
    bool m_bSet = false;
};

/// What sync(2) runs before it flushes; see below.
std::function<void()> g_onFlush;

/// Has a function run at each flush of the system, for a scope.
class CFlushWatch
{
public:
    explicit CFlushWatch(std::function<void()> onFlush) { g_onFlush = std::move(onFlush); }
    CFlushWatch(const CFlushWatch&) = delete;
    CFlushWatch& operator=(const CFlushWatch&) = delete;
    ~CFlushWatch() { g_onFlush = nullptr; }
};

class AFileConfig : public ::testing::Test
{
protected:
    void SetUp() override
    {
        CThread::m_Logger.Init(kIdent);
        CSyslogReceiver::Get().Clear();
        m_Config.SetFilename(m_szFile.c_str());
    }

    /// The settings that a file of this content holds.
    const settings_t& Load(const std::string& szContent)
    {
        WriteFile(m_szFile, szContent);
        m_Config.iLoad();
        return m_Config.m_map;
    }

    /// Whether another thread could have the lock: what iTryLock() tells it.
    int iTryLockElsewhere()
    {
        int iTaken = -1;
        std::thread([this, &iTaken] {
            iTaken = m_Config.m_Lock.iTryLock(0);
            if (iTaken == 0) {
                m_Config.m_Lock.UnLock();
            }
        }).join();
        return iTaken;
    }

    CTempDirectory m_Directory;
    const std::string m_szFile = m_Directory.szPath("daemon.conf");
    COpenConfig m_Config;
};

class AFileHelper : public ::testing::Test
{
protected:
    void SetUp() override
    {
        CThread::m_Logger.Init(kIdent);
        CSyslogReceiver::Get().Clear();
    }
    void TearDown() override { ASSERT_EQ(0, ::chdir("/")); }

    /// Two regular files, a directory, a link, a pipe.
    void Populate()
    {
        WriteFile(m_Directory.szPath("one"), "1");
        WriteFile(m_Directory.szPath("two"), "2");
        fs::create_directory(m_Directory.szPath("directory"));
        fs::create_symlink(m_Directory.szPath("one"), m_Directory.szPath("link"));
        ASSERT_EQ(0, ::mkfifo(m_Directory.szPath("pipe").c_str(), 0600));
    }

    std::vector<std::string> Entries() const
    {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(m_Directory.szPath())) {
            names.push_back(entry.path().filename());
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    CTempDirectory m_Directory;
};

using names_t = std::vector<std::string>;
} // namespace

/// Takes the place of the C library's, as the kernel tells nobody of a flush; and does what it
/// does.
extern "C" void sync() noexcept
{
    if (g_onFlush) {
        g_onFlush();
    }
    ::syscall(SYS_sync);
}

TEST_F(AFileConfig, StartsWithoutSettingsAndWithoutAName)
{
    COpenConfig config;
    EXPECT_TRUE(config.m_map.empty());
    EXPECT_STREQ("", config.pszGetFilename());
}

TEST_F(AFileConfig, KeepsACopyOfItsFileName)
{
    std::string szName = "/some/where";
    m_Config.SetFilename(szName.c_str());
    szName = "changed";
    EXPECT_STREQ("/some/where", m_Config.pszGetFilename());
    m_Config.SetFilename(nullptr);
    EXPECT_STREQ("", m_Config.pszGetFilename());
}

TEST_F(AFileConfig, LoadsOneSettingFromEachLine)
{
    EXPECT_EQ((settings_t{{"a", "1"}, {"b", "two words"}}), Load("a=1\nb=two words\n"));
}

TEST_F(AFileConfig, TakesACarriageReturnAsTheEndOfALineToo)
{
    EXPECT_EQ((settings_t{{"a", "1"}, {"b", "2"}, {"c", "3"}}), Load("a=1\rb=2\r\nc=3\n"));
}

TEST_F(AFileConfig, SkipsEmptyLines)
{
    EXPECT_EQ((settings_t{{"a", "1"}, {"b", "2"}}), Load("\n\n\ra=1\n\r\n\nb=2\n\n"));
}

TEST_F(AFileConfig, TakesTheSpacesOutOfAKeyAndLeavesThemInTheValue)
{
    EXPECT_EQ((settings_t{{"mykey", " my value "}}), Load("  my key = my value \n"));
}

TEST_F(AFileConfig, KeepsTabs)
{
    EXPECT_EQ((settings_t{{"\tmy\tkey", "\tmy\tvalue\t"}}), Load("\tmy\tkey=\tmy\tvalue\t\n"));
}

TEST_F(AFileConfig, SplitsALineAtItsFirstEqualsSign)
{
    EXPECT_EQ((settings_t{{"a", "=1"}, {"b", "c=d="}}), Load("a==1\nb=c=d=\n"));
}

TEST_F(AFileConfig, IgnoresALineWithoutEqualsSignKeyOrValue)
{
    EXPECT_EQ((settings_t{{"a", "1"}}), Load("alone\nempty=\n=value\n   =spaces\n=\na=1\n"));
}

TEST_F(AFileConfig, KnowsNoComments)
{
    EXPECT_EQ((settings_t{{"#a", "1"}}), Load("# a=1\n"));
}

TEST_F(AFileConfig, KeepsTheLastLineWithoutALineFeed)
{
    EXPECT_EQ((settings_t{{"a", "1"}, {"last", "2"}}), Load("a=1\nlast=2"));
}

TEST_F(AFileConfig, LetsTheLastOfTwoEqualKeysWin)
{
    EXPECT_EQ((settings_t{{"a", "2"}}), Load("a=1\na=2\n"));
}

TEST_F(AFileConfig, ReturnsMinusOneAfterAGoodLoad)
{
    WriteFile(m_szFile, "a=1\n");
    EXPECT_EQ(-1, m_Config.iLoad());
    EXPECT_EQ(-1, m_Config.iLoad(m_szFile.c_str()));
    EXPECT_EQ((settings_t{{"a", "1"}}), m_Config.m_map);
}

TEST_F(AFileConfig, AddsAndOverwritesAndRemovesNothingWhenItLoads)
{
    m_Config.m_map = {{"kept", "old"}, {"changed", "old"}};
    EXPECT_EQ((settings_t{{"added", "new"}, {"changed", "new"}, {"kept", "old"}}),
              Load("changed=new\nadded=new\n"));
}

TEST_F(AFileConfig, StaysAsItIsWhenThereIsNothingToLoad)
{
    m_Config.m_map = {{"a", "1"}};
    EXPECT_EQ(-1, m_Config.iLoad(m_Directory.szPath("missing").c_str()));
    EXPECT_EQ(-1, m_Config.iLoad(m_Directory.szPath().c_str())) << "a directory";
    EXPECT_EQ(-1, m_Config.iLoad(""));
    EXPECT_EQ(-1, m_Config.iLoad(nullptr));
    EXPECT_EQ((settings_t{{"a", "1"}}), m_Config.m_map);
}

TEST_F(AFileConfig, StaysAsItIsWhenTheFileMayNotBeRead)
{
    WriteFile(m_szFile, "a=1\n");
    ASSERT_EQ(0, ::chmod(m_szFile.c_str(), 0));
    ASSERT_EQ(0, ::chmod(m_Directory.szPath().c_str(), 0755));
    const auto result = TestSupport::RunInChild([this] {
        constexpr uid_t kNobody = 65534;
        if (::geteuid() == 0 && ::setresuid(kNobody, kNobody, kNobody) != 0) {
            return 2;
        }
        return m_Config.iLoad() == -1 && m_Config.m_map.empty() ? 0 : 1;
    });
    EXPECT_EQ(0, result.iExitCode);
}

TEST_F(AFileConfig, KeepsEveryByteOfAValue)
{
    std::string szValue;
    for (int i = 0; i < 256; ++i) {
        if (i != '\r' && i != '\n') {
            szValue += static_cast<char>(i);
        }
    }
    const std::string szFF(3, '\xFF');
    EXPECT_EQ((settings_t{{"a", szValue}, {szFF, szFF}}),
              Load("a=" + szValue + "\n" + szFF + "=" + szFF + "\n"));
    EXPECT_EQ(0, m_Config.iSave());
    EXPECT_EQ("a=" + szValue + "\n" + szFF + "=" + szFF + "\n", szReadFile(m_szFile));
}

TEST_F(AFileConfig, SurvivesAFileThatIsNoText)
{
    std::string szGarbage;
    uint32_t iState = 12345;
    for (int i = 0; i < 100000; ++i) {
        iState = iState * 1664525U + 1013904223U;
        szGarbage += static_cast<char>(iState >> 24);
    }
    EXPECT_EQ("good", Load(szGarbage + "\nsound=good\n").at("sound"));
}

TEST_F(AFileConfig, LoadsALineOfTenMegabytes)
{
    const std::string szLong(10 * 1024 * 1024, 'v');
    const settings_t& settings = Load("long=" + szLong + "\n" + szLong + "\nnext=1\n");
    EXPECT_EQ(2U, settings.size());
    EXPECT_EQ(szLong, settings.at("long"));
    EXPECT_EQ("1", settings.at("next"));
}

TEST_F(AFileConfig, NamesItsFileAfterTheExecutableWhenNoneIsSet)
{
    COpenConfig config;
    const fs::path executable = fs::read_symlink("/proc/self/exe");
    EXPECT_EQ(-1, config.iLoad());
    EXPECT_EQ(executable.parent_path().string() + "/conf/" + executable.filename().string() +
                  "_config.conf",
              config.pszGetFilename());
}

TEST_F(AFileConfig, KeepsAFileNameThatIsSet)
{
    m_Config.iLoad();
    EXPECT_EQ(m_szFile, m_Config.pszGetFilename());
}

TEST_F(AFileConfig, ReadsOneLineAtATime)
{
    WriteFile(m_szFile, "a=1\nb=2\nc=3");
    FILE* const pFile = std::fopen(m_szFile.c_str(), "re");
    ASSERT_NE(nullptr, pFile);
    EXPECT_EQ(0, m_Config.iParseLine(pFile));
    EXPECT_EQ((settings_t{{"a", "1"}}), m_Config.m_map);
    EXPECT_EQ(0, m_Config.iParseLine(pFile));
    EXPECT_EQ(-1, m_Config.iParseLine(pFile));
    EXPECT_EQ((settings_t{{"a", "1"}, {"b", "2"}, {"c", "3"}}), m_Config.m_map);
    EXPECT_EQ(-1, m_Config.iParseLine(pFile));
    std::fclose(pFile);
}

TEST_F(AFileConfig, HoldsNoLockWhileItAwaitsALine)
{
    int aPipe[2] = {-1, -1};
    ASSERT_EQ(0, ::pipe2(aPipe, O_CLOEXEC));
    FILE* const pReadEnd = ::fdopen(aPipe[0], "r");
    std::thread reader([this, pReadEnd] { EXPECT_EQ(0, m_Config.iParseLine(pReadEnd)); });
    EXPECT_EQ(1, ::write(aPipe[1], "a", 1));
    int iUnread = 1;
    EXPECT_TRUE(TestSupport::bAwait(
        [&aPipe, &iUnread] { return ::ioctl(aPipe[0], FIONREAD, &iUnread) == 0 && iUnread == 0; }));
    EXPECT_EQ(0, iTryLockElsewhere());
    EXPECT_EQ(3, ::write(aPipe[1], "=1\n", 3));
    reader.join();
    EXPECT_EQ((settings_t{{"a", "1"}}), m_Config.m_map);
    std::fclose(pReadEnd);
    ::close(aPipe[1]);
}

TEST_F(AFileConfig, ReadsNothingFromNoFile)
{
    EXPECT_EQ(-1, m_Config.iParseLine(nullptr));
}

TEST_F(AFileConfig, SavesItsSettingsInByteOrderOfTheKeys)
{
    m_Config.m_map = {{"b", "2"}, {"a", " 1 "}, {"B", "3"}, {"\xC3\xA9", "4"}, {"10", "5"}};
    EXPECT_EQ(0, m_Config.iSave());
    EXPECT_EQ("10=5\nB=3\na= 1 \nb=2\n\xC3\xA9=4\n", szReadFile(m_szFile));
}

TEST_F(AFileConfig, SavesToAnotherFileWithoutKeepingItsName)
{
    const std::string szOther = m_Directory.szPath("other");
    m_Config.m_map = {{"a", "1"}};
    EXPECT_EQ(0, m_Config.iSave(szOther.c_str()));
    EXPECT_EQ("a=1\n", szReadFile(szOther));
    EXPECT_FALSE(fs::exists(m_szFile));
    EXPECT_EQ(m_szFile, m_Config.pszGetFilename());
}

TEST_F(AFileConfig, EmptiesTheFileWhenThereIsNothingToSave)
{
    WriteFile(m_szFile, "old=content\n");
    EXPECT_EQ(0, m_Config.iSave());
    EXPECT_EQ("", szReadFile(m_szFile));
}

TEST_F(AFileConfig, ReplacesLongerAndShorterContentWhole)
{
    WriteFile(m_szFile, std::string(9000, 'o'));
    m_Config.m_map = {{"a", "1"}};
    EXPECT_EQ(0, m_Config.iSave());
    EXPECT_EQ("a=1\n", szReadFile(m_szFile));
    const std::string szLong(9000, 'n');
    m_Config.m_map = {{"a", szLong}};
    EXPECT_EQ(0, m_Config.iSave());
    EXPECT_EQ("a=" + szLong + "\n", szReadFile(m_szFile));
}

TEST_F(AFileConfig, MakesANewFileThatOnlyItsOwnerWrites)
{
    const CUmask mask(0);
    EXPECT_EQ(0, m_Config.iSave());
    EXPECT_EQ(0644U, iModeOf(m_szFile));
}

TEST_F(AFileConfig, LeavesTheModeOfANewFileToAStricterMask)
{
    const CUmask mask(077);
    EXPECT_EQ(0, m_Config.iSave());
    EXPECT_EQ(0600U, iModeOf(m_szFile));
}

TEST_F(AFileConfig, WritesAnExistingFileInPlace)
{
    WriteFile(m_szFile, "old");
    ASSERT_EQ(0, ::chmod(m_szFile.c_str(), 0640));
    const ino_t iNode = iNodeOf(m_szFile);
    m_Config.m_map = {{"a", "1"}};
    EXPECT_EQ(0, m_Config.iSave());
    EXPECT_EQ(iNode, iNodeOf(m_szFile));
    EXPECT_EQ(0640U, iModeOf(m_szFile));
    EXPECT_EQ(1, std::distance(fs::directory_iterator(m_Directory.szPath()), {}))
        << "no other file is left behind";
}

TEST_F(AFileConfig, WritesThroughALink)
{
    const std::string szTarget = m_Directory.szPath("target");
    fs::create_symlink(szTarget, m_szFile);
    m_Config.m_map = {{"a", "1"}};
    EXPECT_EQ(0, m_Config.iSave()) << "to a target that is to be made";
    EXPECT_EQ("a=1\n", szReadFile(szTarget));
    m_Config.m_map = {{"b", "2"}};
    EXPECT_EQ(0, m_Config.iSave());
    EXPECT_TRUE(fs::is_symlink(m_szFile));
    EXPECT_EQ("b=2\n", szReadFile(szTarget));
}

TEST_F(AFileConfig, LeavesAFileOnAReadOnlyFileSystem)
{
    const CMount disk(m_Directory.szPath("disk"), "tmpfs", "size=64k");
    ASSERT_TRUE(disk.bMounted());
    const std::string szPath = disk.szPath("daemon.conf");
    WriteFile(szPath, "a=1\n");
    ASSERT_EQ(0, ::mount(nullptr, m_Directory.szPath("disk").c_str(), nullptr,
                         MS_REMOUNT | MS_RDONLY, nullptr));
    m_Config.m_map = {{"a", "2"}};
    EXPECT_EQ(-1, m_Config.iSave(szPath.c_str()));
    EXPECT_EQ("a=1\n", szReadFile(szPath));
    EXPECT_EQ(1U, nErrorLines(szPath + ": Read-only file system"));
}

TEST_F(AFileConfig, SavesNothingWithoutAPath)
{
    COpenConfig config;
    EXPECT_EQ(-1, config.iSave());
    EXPECT_EQ(-1, config.iSave(""));
    EXPECT_EQ(-1, config.iSave(nullptr));
    EXPECT_TRUE(CSyslogReceiver::Get().Records().empty());
}

TEST_F(AFileConfig, FlushesTheSystemOnceAfterEverySave)
{
    std::vector<std::string> contents;
    const CFlushWatch watch([this, &contents] {
        contents.push_back(fs::exists(m_szFile) ? szReadFile(m_szFile) : "no file");
    });
    m_Config.m_map = {{"a", "1"}};
    m_Config.iSave();
    m_Config.SetParameter("b", 2);
    EXPECT_EQ((std::vector<std::string>{"a=1\n", "a=1\nb=2\n"}), contents);
}

TEST_F(AFileConfig, FlushesTheSystemAfterAFailedSaveToo)
{
    int nFlushes = 0;
    const CFlushWatch watch([&nFlushes] { ++nFlushes; });
    m_Config.iSave("");
    m_Config.iSave(m_Directory.szPath("missing/daemon.conf").c_str());
    m_Config.iSave("/dev/full");
    EXPECT_EQ(3, nFlushes);
}

TEST_F(AFileConfig, HoldsNoLockWhileItFlushes)
{
    int iTaken = -1;
    const CFlushWatch watch([this, &iTaken] { iTaken = iTryLockElsewhere(); });
    m_Config.SetParameter("a", 1);
    EXPECT_EQ(0, iTaken);
}

TEST_F(AFileConfig, LogsASaveThatFindsNoDirectory)
{
    const std::string szPath = m_Directory.szPath("missing/daemon.conf");
    EXPECT_EQ(-1, m_Config.iSave(szPath.c_str()));
    EXPECT_EQ(1U, nErrorLines(szPath + ": No such file or directory"));
}

TEST_F(AFileConfig, LogsASaveToADirectory)
{
    EXPECT_EQ(-1, m_Config.iSave(m_Directory.szPath().c_str()));
    EXPECT_EQ(1U, nErrorLines(m_Directory.szPath() + ": Is a directory"));
}

TEST_F(AFileConfig, LogsASaveToADeviceThatIsFull)
{
    m_Config.m_map = {{"a", "1"}};
    EXPECT_EQ(-1, m_Config.iSave("/dev/full"));
    EXPECT_EQ(1U, nErrorLines("/dev/full: No space left on device"));
}

TEST_F(AFileConfig, SavesToADeviceThatHasNoLength)
{
    m_Config.m_map = {{"a", "1"}};
    EXPECT_EQ(0, m_Config.iSave("/dev/null"));
}

TEST_F(AFileConfig, LosesNothingToAFullDisk)
{
    const CMount disk(m_Directory.szPath("disk"), "tmpfs", "size=64k");
    ASSERT_TRUE(disk.bMounted());
    const std::string szPath = disk.szPath("daemon.conf");
    WriteFile(szPath, "a=1\nb=2\n");
    FillUp(disk.szPath("filler"));
    m_Config.SetFilename(szPath.c_str());
    m_Config.iLoad();

    m_Config.SetParameter("b", std::string(20000, 'n').c_str());

    EXPECT_EQ("a=1\nb=2\n", szReadFile(szPath));
    EXPECT_EQ(1U, nErrorLines(szPath + ": No space left on device"));
    EXPECT_EQ(20000U, m_Config.m_map.at("b").size()) << "the change itself is not forgotten";
}

TEST_F(AFileConfig, SavesAgainOnceTheDiskHasRoom)
{
    const CMount disk(m_Directory.szPath("disk"), "tmpfs", "size=64k");
    ASSERT_TRUE(disk.bMounted());
    const std::string szPath = disk.szPath("daemon.conf");
    FillUp(disk.szPath("filler"));
    m_Config.m_map = {{"a", "1"}};
    EXPECT_EQ(-1, m_Config.iSave(szPath.c_str()));
    EXPECT_EQ("", szReadFile(szPath));
    fs::remove(disk.szPath("filler"));
    EXPECT_EQ(0, m_Config.iSave(szPath.c_str()));
    EXPECT_EQ("a=1\n", szReadFile(szPath));
}

TEST_F(AFileConfig, SavesWhatNeedsNoMoreRoomOnAFullDisk)
{
    const CMount disk(m_Directory.szPath("disk"), "tmpfs", "size=64k");
    ASSERT_TRUE(disk.bMounted());
    const std::string szPath = disk.szPath("daemon.conf");
    WriteFile(szPath, "a=1\nb=2\n");
    FillUp(disk.szPath("filler"));
    m_Config.m_map = {{"a", "3"}};
    EXPECT_EQ(0, m_Config.iSave(szPath.c_str()));
    EXPECT_EQ("a=3\n", szReadFile(szPath));
}

TEST_F(AFileConfig, LeavesNoOldTextBehindANewOneThatWasCutShort)
{
    const CMount disk(m_Directory.szPath("disk"), "tmpfs", "size=64k");
    ASSERT_TRUE(disk.bMounted());
    const std::string szPath = disk.szPath("daemon.conf");
    const std::string szPage(4096, 'o');
    WriteFile(szPath, szPage);
    fs::resize_file(szPath, 3 * szPage.size()); // long enough, but most of it is not on the disk
    FillUp(disk.szPath("filler"));
    const std::string szLong(8000, 'n');
    m_Config.m_map = {{"a", szLong}};
    EXPECT_EQ(-1, m_Config.iSave(szPath.c_str()));
    EXPECT_EQ(("a=" + szLong).substr(0, szPage.size()), szReadFile(szPath));
    EXPECT_EQ(1U, nErrorLines(szPath + ": No space left on device"));
}

TEST_F(AFileConfig, LeavesNoReserveBehindAnOldTextThatCouldNotBeReplaced)
{
    const CMount disk(m_Directory.szPath("disk"), "tmpfs", "size=64k");
    ASSERT_TRUE(disk.bMounted());
    const std::string szPath = disk.szPath("daemon.conf");
    WriteFile(szPath, "");
    fs::resize_file(szPath, 4096); // nothing of it is on the disk
    WriteFile(disk.szPath("spare"), "one page");
    FillUp(disk.szPath("filler"));
    fs::remove(disk.szPath("spare"));
    m_Config.m_map = {{"a", std::string(5000, 'n')}};
    EXPECT_EQ(-1, m_Config.iSave(szPath.c_str())) << "the page goes to the reserve";
    EXPECT_EQ(std::string(4096, '\0'), szReadFile(szPath));
}

TEST_F(AFileConfig, LosesNothingWhereRoomCannotBeReservedAtOnce)
{
    const CMount disk(m_Directory.szPath("disk"), "ramfs", nullptr); // it lacks fallocate(2)
    ASSERT_TRUE(disk.bMounted());
    const std::string szPath = disk.szPath("daemon.conf");
    WriteFile(szPath, "a=1\n");
    const auto result = TestSupport::RunInChild([this, &szPath] {
        const rlimit limit{8192, 8192}; // bytes of a file: the only bound that ramfs knows
        ::setrlimit(RLIMIT_FSIZE, &limit);
        ::signal(SIGXFSZ, SIG_IGN);
        m_Config.m_map = {{"a", std::string(20000, 'n')}};
        return m_Config.iSave(szPath.c_str()) == -1 ? 0 : 1;
    });
    EXPECT_EQ(0, result.iExitCode);
    EXPECT_EQ("a=1\n", szReadFile(szPath));
    EXPECT_EQ(1U, nErrorLines(szPath + ": File too large"));
    m_Config.m_map = {{"a", std::string(20000, 'n')}};
    EXPECT_EQ(0, m_Config.iSave(szPath.c_str()));
    EXPECT_EQ("a=" + std::string(20000, 'n') + "\n", szReadFile(szPath));
}

TEST_F(AFileConfig, LeavesNoDescriptorOpen)
{
    m_Config.m_map = {{"a", "1"}};
    m_Config.iSave("/dev/full"); // the first line of the log opens its socket
    const size_t nBefore = TestSupport::nOpenDescriptors();
    m_Config.iSave();
    m_Config.iSave("/dev/full");
    m_Config.iLoad();
    m_Config.iLoad(m_Directory.szPath().c_str());
    EXPECT_EQ(nBefore, TestSupport::nOpenDescriptors());
}

TEST_F(AFileConfig, KeepsTheFileItLoadsFromPrograms)
{
    ASSERT_EQ(0, ::mkfifo(m_szFile.c_str(), 0600));
    std::thread loader([this] { m_Config.iLoad(); });
    const int iWriteEnd = ::open(m_szFile.c_str(), O_RDWR | O_CLOEXEC); // the loader awaits it
    const int iReadEnd = iAwaitOpen(m_szFile, O_RDONLY);
    EXPECT_EQ(FD_CLOEXEC, ::fcntl(iReadEnd, F_GETFD));
    ::close(iWriteEnd);
    loader.join();
}

TEST_F(AFileConfig, KeepsTheFileItSavesFromPrograms)
{
    ASSERT_EQ(0, ::mkfifo(m_szFile.c_str(), 0600));
    m_Config.m_map = {{"a", std::string(1000000, 'v')}}; // more than the pipe takes at once
    std::thread saver([this] { EXPECT_EQ(0, m_Config.iSave()); });
    const int iReadEnd = ::open(m_szFile.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    const int iWriteEnd = iAwaitOpen(m_szFile, O_WRONLY);
    EXPECT_EQ(FD_CLOEXEC, ::fcntl(iWriteEnd, F_GETFD));
    ASSERT_EQ(0, ::fcntl(iReadEnd, F_SETFL, 0)); // it was to open without a wait
    std::vector<char> block(65536);
    size_t nRead = 0;
    for (ssize_t iRead = 1; iRead > 0; nRead += static_cast<size_t>(iRead)) {
        iRead = ::read(iReadEnd, block.data(), block.size());
    }
    EXPECT_EQ(strlen("a=\n") + 1000000, nRead);
    ::close(iReadEnd);
    saver.join();
}

TEST_F(AFileConfig, ReadsNumbersInDecimal)
{
    Load("plain=42\nnegative=-7\nblanks= \t 8\ntail=15abc\nhex=0x10\nplus=+9\n");
    EXPECT_EQ(42, m_Config.iGetParameter("plain", 0));
    EXPECT_EQ(-7, m_Config.iGetParameter("negative", 0));
    EXPECT_EQ(8, m_Config.iGetParameter("blanks", 0));
    EXPECT_EQ(15, m_Config.iGetParameter("tail", 0));
    EXPECT_EQ(0, m_Config.iGetParameter("hex", 1));
    EXPECT_EQ(9, m_Config.iGetParameter("plus", 0));
}

TEST_F(AFileConfig, ReadsFloats)
{
    Load("half=0.5\ntail=1.25V\nexponent=1e3\n");
    EXPECT_EQ(0.5F, m_Config.fGetParameter("half", 0));
    EXPECT_EQ(1.25F, m_Config.fGetParameter("tail", 0));
    EXPECT_EQ(1000.0F, m_Config.fGetParameter("exponent", 0));
}

TEST_F(AFileConfig, KeepsTheDecimalPointInALocaleWithAComma)
{
    const CCommaLocale locale(m_Directory);
    if (!locale.bSet()) {
        GTEST_SKIP() << "no localedef(1) to make the locale with";
    }
    ASSERT_EQ("0,500000", std::to_string(0.5F)) << "the locale as such is in force";
    Load("comma=1,25\npoint=1.25\nword=chatty\n");
    EXPECT_EQ(1.25F, m_Config.fGetParameter("point", 0));
    EXPECT_EQ(1.0F, m_Config.fGetParameter("comma", 0));
    EXPECT_EQ(0.5F, m_Config.fGetParameter("default", 0.5F));
    m_Config.SetParameter("set", 0.25F);
    EXPECT_EQ("comma=1,25\ndefault=0.500000\npoint=1.25\nset=0.250000\nword=chatty\n",
              szReadFile(m_szFile));
    EXPECT_THROW(m_Config.fGetParameter("word", 0), std::invalid_argument);
    EXPECT_EQ("0,500000", std::to_string(0.5F)) << "and it still is, after an exception too";
}

TEST_F(AFileConfig, ReadsTexts)
{
    Load("text= as it is \n");
    EXPECT_EQ(" as it is ", m_Config.szGetParameter("text", "default"));
}

TEST_F(AFileConfig, AddsTheDefaultOfAMissingKey)
{
    EXPECT_EQ(3, m_Config.iGetParameter("int", 3));
    EXPECT_EQ(0.5F, m_Config.fGetParameter("float", 0.5F));
    EXPECT_EQ("text", m_Config.szGetParameter("string", "text"));
    EXPECT_EQ("", m_Config.szGetParameter("null", nullptr));
    EXPECT_EQ((settings_t{{"float", "0.500000"}, {"int", "3"}, {"null", ""}, {"string", "text"}}),
              m_Config.m_map);
}

TEST_F(AFileConfig, WritesAnAddedDefaultWithTheNextSaveOnly)
{
    EXPECT_EQ(3, m_Config.iGetParameter("level", 3));
    EXPECT_FALSE(fs::exists(m_szFile));
    EXPECT_EQ(0, m_Config.iSave());
    EXPECT_EQ("level=3\n", szReadFile(m_szFile));
}

TEST_F(AFileConfig, ReturnsADefaultFloatAsItWasGiven)
{
    EXPECT_EQ(1e-9F, m_Config.fGetParameter("small", 1e-9F));
    EXPECT_EQ("0.000000", m_Config.m_map.at("small"));
}

TEST_F(AFileConfig, ThrowsAtAValueThatIsNoNumber)
{
    Load("word=chatty\nblank= \n");
    EXPECT_THROW(m_Config.iGetParameter("word", 1), std::invalid_argument);
    EXPECT_THROW(m_Config.fGetParameter("word", 1), std::invalid_argument);
    EXPECT_THROW(m_Config.iGetParameter("blank", 1), std::invalid_argument);
    EXPECT_EQ("chatty", m_Config.szGetParameter("word", ""));
}

TEST_F(AFileConfig, ThrowsAtANumberBeyondTheRange)
{
    Load("int=99999999999\nlow=-99999999999\nbig=1e999\nsmall=1e-46\n");
    EXPECT_THROW(m_Config.iGetParameter("int", 1), std::out_of_range);
    EXPECT_THROW(m_Config.iGetParameter("low", 1), std::out_of_range);
    EXPECT_THROW(m_Config.fGetParameter("big", 1), std::out_of_range);
    EXPECT_THROW(m_Config.fGetParameter("small", 1), std::out_of_range);
}

TEST_F(AFileConfig, HoldsNoLockAfterItHasThrown)
{
    Load("word=chatty\n");
    EXPECT_THROW(m_Config.iGetParameter("word", 1), std::invalid_argument);
    EXPECT_THROW(m_Config.fGetParameter("word", 1), std::invalid_argument);
    EXPECT_EQ(0, iTryLockElsewhere());
}

TEST_F(AFileConfig, TakesANullKeyAsAnEmptyOne)
{
    EXPECT_EQ(3, m_Config.iGetParameter(nullptr, 3));
    EXPECT_EQ((settings_t{{"", "3"}}), m_Config.m_map);
}

TEST_F(AFileConfig, SavesEveryChangeAtOnce)
{
    m_Config.SetParameter("int", -5);
    EXPECT_EQ("int=-5\n", szReadFile(m_szFile));
    m_Config.SetParameter("unsigned", 4294967295U);
    EXPECT_EQ("int=-5\nunsigned=4294967295\n", szReadFile(m_szFile));
    m_Config.SetParameter("float", 0.5F);
    m_Config.SetParameter("string", " as given ");
    EXPECT_EQ("float=0.500000\nint=-5\nstring= as given \nunsigned=4294967295\n",
              szReadFile(m_szFile));
    m_Config.SetParameter("int", 6);
    EXPECT_EQ("6", m_Config.m_map.at("int"));
}

TEST_F(AFileConfig, TakesANullTextAsAnEmptyOne)
{
    m_Config.SetParameter("a", static_cast<const char*>(nullptr));
    EXPECT_EQ("a=\n", szReadFile(m_szFile));
}

TEST_F(AFileConfig, DoesNotCheckTheTextsItIsGiven)
{
    m_Config.SetParameter("a", "1\nb=2");
    COpenConfig reader;
    reader.iLoad(m_szFile.c_str());
    EXPECT_EQ((settings_t{{"a", "1"}, {"b", "2"}}), reader.m_map);
}

TEST_F(AFileConfig, KeepsAChangeThatCannotBeSaved)
{
    m_Config.SetFilename("/dev/full");
    m_Config.SetParameter("a", 1);
    EXPECT_EQ((settings_t{{"a", "1"}}), m_Config.m_map);
    EXPECT_EQ(1U, nErrorLines("/dev/full: No space left on device"));
}

TEST_F(AFileConfig, ForgetsItsSettingsAndLeavesTheFile)
{
    Load("a=1\n");
    m_Config.RemoveAll();
    EXPECT_TRUE(m_Config.m_map.empty());
    EXPECT_EQ("a=1\n", szReadFile(m_szFile));
}

TEST_F(AFileConfig, TakesChangesAndQuestionsOfSeveralThreads)
{
    constexpr int kThreads = 4;
    constexpr int kChanges = 5;
    std::vector<std::thread> threads;
    for (int iThread = 0; iThread < kThreads; ++iThread) {
        threads.emplace_back([this, iThread] {
            for (int i = 0; i < kChanges; ++i) {
                const std::string szKey = std::to_string(iThread) + "." + std::to_string(i);
                m_Config.SetParameter(szKey.c_str(), i);
                EXPECT_EQ(i, m_Config.iGetParameter(szKey.c_str(), -1));
                EXPECT_EQ(-1, m_Config.iLoad());
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(size_t{kThreads * kChanges}, m_Config.m_map.size());
    COpenConfig reader;
    reader.iLoad(m_szFile.c_str());
    EXPECT_EQ(m_Config.m_map, reader.m_map);
}

TEST_F(AFileConfig, LogsFailuresWhileTheLoggerReadsItsLevels)
{
    int iLevel = LOG_ERR;
    m_Config.SetFilename("/dev/full");
    CThread::m_Logger.SetLogConfigForThread("main", &iLevel);
    std::thread saver([this] {
        for (int i = 0; i < 10; ++i) {
            m_Config.SetParameter("a", i);
        }
    });
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(0, CThread::m_Logger.iSetLogLevel(&m_Config));
    }
    saver.join();
    CThread::m_Logger.CancelLogIdForThread();
    EXPECT_EQ(10U, nErrorLines("/dev/full: No space left on device"));
    EXPECT_EQ("3", m_Config.m_map.at("log_level_main"));
}

TEST_F(AFileHelper, TouchesANewFile)
{
    const CUmask mask(0);
    const std::string szPath = m_Directory.szPath("new");
    EXPECT_TRUE(bTouchFile(szPath.c_str()));
    EXPECT_EQ("", szReadFile(szPath));
    EXPECT_EQ(0644U, iModeOf(szPath));
}

TEST_F(AFileHelper, EmptiesAFileItTouches)
{
    const std::string szPath = m_Directory.szPath("old");
    WriteFile(szPath, "content");
    const size_t nBefore = TestSupport::nOpenDescriptors();
    EXPECT_TRUE(bTouchFile(szPath.c_str()));
    EXPECT_EQ("", szReadFile(szPath));
    EXPECT_EQ(nBefore, TestSupport::nOpenDescriptors());
}

TEST_F(AFileHelper, CannotTouchWhatCannotBeAFile)
{
    EXPECT_FALSE(bTouchFile(m_Directory.szPath("missing/new").c_str()));
    EXPECT_FALSE(bTouchFile(m_Directory.szPath().c_str()));
    EXPECT_FALSE(bTouchFile(""));
    EXPECT_FALSE(bTouchFile(nullptr));
}

TEST_F(AFileHelper, MakesEveryDirectoryOfAPath)
{
    const CUmask mask(0);
    ASSERT_EQ(0, ::chdir(m_Directory.szPath().c_str()));
    EXPECT_EQ(0, iMakeDirectory("a/b/c", 0750));
    EXPECT_TRUE(fs::is_directory(m_Directory.szPath("a/b/c")));
    EXPECT_EQ(0750U, iModeOf(m_Directory.szPath("a")));
    EXPECT_EQ(0750U, iModeOf(m_Directory.szPath("a/b/c")));
    EXPECT_TRUE(CSyslogReceiver::Get().Records().empty());
}

TEST_F(AFileHelper, LogsEveryDirectoryThatExistsUnderTheWholePath)
{
    ASSERT_EQ(0, ::chdir(m_Directory.szPath().c_str()));
    iMakeDirectory("a/b", 0755);
    EXPECT_EQ(0, iMakeDirectory("a/b/c", 0755));
    EXPECT_EQ(2U, nErrorLines("a/b/c: File exists")) << "for a and for a/b";
    EXPECT_EQ(0, iMakeDirectory("a/b/c/", 0755));
    EXPECT_EQ(4U, nErrorLines("a/b/c/: File exists")) << "a, a/b, a/b/c and the whole";
}

TEST_F(AFileHelper, MakesNoDirectoryBeforeTheFirstSlash)
{
    const std::string szPath = m_Directory.szPath("new");
    const auto nSlashes = static_cast<size_t>(std::count(szPath.begin(), szPath.end(), '/'));
    EXPECT_EQ(0, iMakeDirectory(szPath.c_str(), 0755));
    EXPECT_TRUE(fs::is_directory(szPath));
    EXPECT_EQ(nSlashes - 1, nErrorLines(szPath + ": File exists")) << "for all above it";
    EXPECT_EQ(nSlashes - 1, CSyslogReceiver::Get().Records().size());
}

TEST_F(AFileHelper, GoesOnAfterADirectoryItCannotMake)
{
    WriteFile(m_Directory.szPath("file"), "");
    const std::string szPath = m_Directory.szPath("file/below");
    EXPECT_EQ(0, iMakeDirectory(szPath.c_str(), 0755));
    EXPECT_EQ(1U, nErrorLines(szPath + ": Not a directory"));
    EXPECT_EQ(0, iMakeDirectory("", 0755));
    EXPECT_EQ(0, iMakeDirectory(nullptr, 0755));
    EXPECT_EQ(2U, nErrorLines(": No such file or directory"));
}

TEST_F(AFileHelper, LooksForDirectoriesInTheFirst128Characters)
{
    ASSERT_EQ(0, ::chdir(m_Directory.szPath().c_str()));
    const std::string sz127(127, 'a');
    const std::string sz128(128, 'b');
    EXPECT_EQ(0, iMakeDirectory((sz127 + "/c").c_str(), 0755));
    EXPECT_TRUE(fs::is_directory(m_Directory.szPath(sz127 + "/c")));
    EXPECT_EQ(0, iMakeDirectory((sz128 + "/c").c_str(), 0755));
    EXPECT_FALSE(fs::exists(m_Directory.szPath(sz128)));
    EXPECT_EQ(1U, nErrorLines(sz128 + "/c: No such file or directory"));
}

TEST_F(AFileHelper, ChangesTheWorkingDirectory)
{
    EXPECT_EQ(0, iSetCurrentDirectory(m_Directory.szPath().c_str()));
    EXPECT_EQ(fs::canonical(m_Directory.szPath()), fs::current_path());
}

TEST_F(AFileHelper, LogsAWorkingDirectoryItCannotHaveAndReturnsZero)
{
    const fs::path before = fs::current_path();
    const std::string szPath = m_Directory.szPath("missing");
    EXPECT_EQ(0, iSetCurrentDirectory(szPath.c_str()));
    EXPECT_EQ(0, iSetCurrentDirectory(nullptr));
    EXPECT_EQ(before, fs::current_path());
    EXPECT_EQ(1U, nErrorLines(szPath + ": No such file or directory"));
}

TEST_F(AFileHelper, ListsTheRegularFilesOfADirectory)
{
    Populate();
    names_t names;
    EXPECT_EQ(0, iGetDirectoryList(m_Directory.szPath().c_str(), names));
    std::sort(names.begin(), names.end());
    EXPECT_EQ((names_t{"one", "two"}), names);
}

TEST_F(AFileHelper, AppendsToAListThatHoldsNames)
{
    WriteFile(m_Directory.szPath("one"), "1");
    names_t names = {"before"};
    EXPECT_EQ(0, iGetDirectoryList(m_Directory.szPath().c_str(), names));
    EXPECT_EQ((names_t{"before", "one"}), names);
}

TEST_F(AFileHelper, ReturnsMinusOneForAListThatStaysEmpty)
{
    names_t names;
    EXPECT_EQ(-1, iGetDirectoryList(m_Directory.szPath().c_str(), names));
    EXPECT_TRUE(CSyslogReceiver::Get().Records().empty());
}

TEST_F(AFileHelper, LogsADirectoryItCannotList)
{
    const std::string szPath = m_Directory.szPath("missing");
    names_t names;
    EXPECT_EQ(-1, iGetDirectoryList(szPath.c_str(), names));
    names = {"before"};
    EXPECT_EQ(0, iGetDirectoryList(szPath.c_str(), names)) << "what was there before counts";
    EXPECT_EQ(2U, nErrorLines(szPath + ": No such file or directory"));
}

TEST_F(AFileHelper, EmptiesADirectoryOfItsRegularFiles)
{
    Populate();
    const size_t nBefore = TestSupport::nOpenDescriptors();
    EXPECT_EQ(0, iEmptyDirectory(m_Directory.szPath().c_str()));
    EXPECT_EQ((names_t{"directory", "link", "pipe"}), Entries());
    EXPECT_EQ(nBefore, TestSupport::nOpenDescriptors());
}

TEST_F(AFileHelper, WorksInTheDirectoryItHasEmptied)
{
    EXPECT_EQ(0, iEmptyDirectory(m_Directory.szPath().c_str()));
    EXPECT_EQ(fs::canonical(m_Directory.szPath()), fs::current_path());
}

TEST_F(AFileHelper, EmptiesADirectoryNamedByARelativePath)
{
    WriteFile(m_Directory.szPath("kept"), "");
    fs::create_directory(m_Directory.szPath("sub"));
    WriteFile(m_Directory.szPath("sub/gone"), "");
    ASSERT_EQ(0, ::chdir(m_Directory.szPath().c_str()));
    EXPECT_EQ(0, iEmptyDirectory("sub"));
    EXPECT_FALSE(fs::exists(m_Directory.szPath("sub/gone")));
    EXPECT_TRUE(fs::exists(m_Directory.szPath("kept")));
    EXPECT_EQ(fs::canonical(m_Directory.szPath("sub")), fs::current_path());
}

TEST_F(AFileHelper, EmptiesADirectoryOfManyFiles)
{
    for (int i = 0; i < 1000; ++i) {
        WriteFile(m_Directory.szPath("file" + std::to_string(i)), "");
    }
    EXPECT_EQ(0, iEmptyDirectory(m_Directory.szPath().c_str()));
    EXPECT_TRUE(Entries().empty());
}

TEST_F(AFileHelper, LogsAMissingDirectoryUnderTheNameOfTheListing)
{
    const std::string szPath = m_Directory.szPath("missing");
    EXPECT_EQ(-1, iEmptyDirectory(szPath.c_str()));
    EXPECT_EQ(-1, iDeleteFile(szPath.c_str(), "file"));
    EXPECT_EQ(2U, nErrorLines(szPath + ": No such file or directory"));
    EXPECT_EQ(2U, CSyslogReceiver::Get().Count(" -- iGetDirectoryList / "));
}

TEST_F(AFileHelper, DeletesOneRegularFile)
{
    Populate();
    const size_t nBefore = TestSupport::nOpenDescriptors();
    EXPECT_EQ(0, iDeleteFile(m_Directory.szPath().c_str(), "one"));
    EXPECT_EQ((names_t{"directory", "link", "pipe", "two"}), Entries());
    EXPECT_EQ(fs::canonical(m_Directory.szPath()), fs::current_path());
    EXPECT_EQ(nBefore, TestSupport::nOpenDescriptors());
}

TEST_F(AFileHelper, TellsOfOneFileItCannotRemoveAndNotOfMany)
{
    const CMount disk(m_Directory.szPath("disk"), "tmpfs", "size=64k");
    ASSERT_TRUE(disk.bMounted());
    WriteFile(disk.szPath("one"), "1");
    const std::string szDisk = m_Directory.szPath("disk");
    ASSERT_EQ(0, ::mount(nullptr, szDisk.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr));
    EXPECT_EQ(-1, iDeleteFile(szDisk.c_str(), "one"));
    EXPECT_EQ(0, iEmptyDirectory(szDisk.c_str()));
    EXPECT_TRUE(fs::exists(disk.szPath("one")));
}

TEST_F(AFileHelper, DeletesNothingThatIsNoRegularFileOfTheDirectory)
{
    Populate();
    WriteFile(m_Directory.szPath("directory/inner"), "");
    for (const char* szName :
         {"missing", "directory", "link", "pipe", "directory/inner", "../one", ".", ""}) {
        EXPECT_EQ(-1, iDeleteFile(m_Directory.szPath().c_str(), szName)) << szName;
    }
    EXPECT_EQ(-1, iDeleteFile(m_Directory.szPath().c_str(), nullptr));
    EXPECT_EQ((names_t{"directory", "link", "one", "pipe", "two"}), Entries());
    EXPECT_TRUE(fs::exists(m_Directory.szPath("directory/inner")));
}

TEST_F(AFileHelper, PrintsAFixedTextForAnErrorNumber)
{
    const std::map<int, std::string> expected = {
        {EPERM, "FileAccessDeniedException\n"},
        {EACCES, "FileAccessDeniedException\n"},
        {ENOENT, "FileNotFoundException\n"},
        {EIO, "EIO\n"},
        {EEXIST, "EEXIST\n"},
        {ENOTDIR, "not a directory\n"},
        {EISDIR, "not a file\n"},
        {ENFILE, "too many open files\n"},
        {EMFILE, "too many open files\n"},
        {ENOSPC, "no space left on device"},
        {EROFS, "FileReadOnlyException\n"},
        {ENAMETOOLONG, "ENAMETOOLONG\n"},
        {ENOTEMPTY, "directory not empty\n"},
        {EDQUOT, "disk quota exceeded\n"},
        {EINTR, "Interrupted system call"},
        {0, "Success"},
    };
    for (const auto& [iNumber, szText] : expected) {
        const int iError = iNumber;
        const auto result = TestSupport::RunInChild([iError] {
            errno = iError;
            handleLastError();
            return std::fflush(stdout);
        });
        EXPECT_EQ(szText, result.szOutput) << iError;
    }
}

TEST_F(AFileHelper, MakesATemporaryFileOfANewName)
{
    char aFirst[256] = {};
    char aSecond[256] = {};
    const size_t nBefore = TestSupport::nOpenDescriptors();
    EXPECT_EQ(0, iMakeTempFile("quorcore", aFirst, 64));
    EXPECT_EQ(0, iMakeTempFile("quorcore", aSecond, 64));
    EXPECT_EQ(nBefore, TestSupport::nOpenDescriptors());
    EXPECT_EQ(0U, std::string(aFirst).rfind("/tmp/quorcore_", 0));
    EXPECT_EQ(strlen("/tmp/quorcore_XXXXXX"), strlen(aFirst));
    EXPECT_STRNE(aFirst, aSecond);
    EXPECT_EQ("", szReadFile(aFirst));
    EXPECT_EQ(0600U, iModeOf(aFirst));
    EXPECT_TRUE(fs::remove(aFirst) && fs::remove(aSecond));
}

TEST_F(AFileHelper, BoundsEachPieceOfATemporaryNameByItself)
{
    constexpr int kSize = 8;
    std::vector<char> buffer(3 * kSize + 1, '#');
    EXPECT_EQ(0, iMakeTempFile("quorcore-long-name", buffer.data(), kSize));
    EXPECT_EQ(0U, std::string(buffer.data()).rfind("/tmp/quorcore_", 0));
    EXPECT_EQ(strlen("/tmp/quorcore_XXXXXX"), strlen(buffer.data()));
    EXPECT_TRUE(fs::remove(buffer.data()));
}

TEST_F(AFileHelper, PrintsWhyThereIsNoTemporaryFile)
{
    const auto missing = TestSupport::RunInChild([] {
        char aBuffer[256] = {};
        const long iRet = iMakeTempFile("quorcore-missing/name", aBuffer, 64);
        std::fflush(stdout);
        return static_cast<int>(iRet);
    });
    EXPECT_EQ(ENOENT, missing.iExitCode);
    EXPECT_EQ("No such file or directory", missing.szOutput);
    const auto tooShort = TestSupport::RunInChild([] {
        char aBuffer[256] = {};
        const long iRet = iMakeTempFile("quorcore", aBuffer, 6); // takes "_XXXXX"
        std::fflush(stdout);
        return static_cast<int>(iRet);
    });
    EXPECT_EQ(EINVAL, tooShort.iExitCode);
    EXPECT_EQ("Invalid argument", tooShort.szOutput);
}

TEST_F(AFileHelper, RefusesABufferForATemporaryNameThatHoldsNothing)
{
    const auto result = TestSupport::RunInChild([] {
        char cByte = '#';
        const bool bRefused = iMakeTempFile("quorcore", &cByte, 0) == EINVAL &&
                              iMakeTempFile("quorcore", &cByte, -1) == EINVAL &&
                              iMakeTempFile("quorcore", nullptr, 64) == EINVAL;
        std::fflush(stdout);
        return bRefused && cByte == '#' ? 0 : 1;
    });
    EXPECT_EQ(0, result.iExitCode);
    EXPECT_EQ("Invalid argumentInvalid argumentInvalid argument", result.szOutput);
}

TEST_F(AFileHelper, FindsTheExecutable)
{
    const fs::path executable = fs::read_symlink("/proc/self/exe");
    char aBuffer[1024] = {};
    EXPECT_TRUE(bGetFullPathName(aBuffer, sizeof(aBuffer)));
    EXPECT_EQ(executable.string(), aBuffer);
    EXPECT_TRUE(bGetFileName(aBuffer, sizeof(aBuffer)));
    EXPECT_EQ(executable.filename().string(), aBuffer);
    ASSERT_EQ(0, ::chdir("/"));
    EXPECT_TRUE(bGetCurrentDirectory(aBuffer, sizeof(aBuffer)));
    EXPECT_EQ(executable.parent_path().string(), aBuffer);
}

TEST_F(AFileHelper, CutsAPathToTheBuffer)
{
    const std::string szExecutable = fs::read_symlink("/proc/self/exe");
    char aBuffer[6] = {'#', '#', '#', '#', '#', '#'};
    EXPECT_TRUE(bGetFullPathName(aBuffer, 5));
    EXPECT_EQ(szExecutable.substr(0, 4), aBuffer);
    EXPECT_TRUE(bGetFileName(aBuffer, 5));
    EXPECT_STREQ("CFil", aBuffer);
    EXPECT_TRUE(bGetCurrentDirectory(aBuffer, 5));
    EXPECT_EQ(szExecutable.substr(0, 4), aBuffer);
    EXPECT_EQ('#', aBuffer[5]);
}

TEST_F(AFileHelper, FindsNothingWithoutABuffer)
{
    char cByte = '#';
    for (const auto function : {bGetFullPathName, bGetFileName, bGetCurrentDirectory}) {
        EXPECT_FALSE(function(&cByte, 0));
        EXPECT_FALSE(function(&cByte, -1));
        EXPECT_FALSE(function(nullptr, 100));
        EXPECT_EQ('#', cByte);
        EXPECT_FALSE(function(&cByte, 1));
        EXPECT_EQ('\0', cByte);
        cByte = '#';
    }
}

TEST_F(AFileHelper, MakesNamesFromTheExecutablesDirectory)
{
    const std::string szDirectory = fs::read_symlink("/proc/self/exe").parent_path();
    std::string szName = "replaced";
    EXPECT_TRUE(bMakeFullConfigName(szName, "/a/", "b", ".c"));
    EXPECT_EQ(szDirectory + "/a/b.c", szName);
    EXPECT_TRUE(bMakeFullConfigName(szName, nullptr, "/b", ""));
    EXPECT_EQ(szDirectory + "/b", szName);
    EXPECT_TRUE(bMakeFullConfigName(szName, nullptr, nullptr, nullptr));
    EXPECT_EQ(szDirectory, szName);
}

TEST_F(AFileHelper, MakesTheDefaultNameFromTheExecutablesName)
{
    const fs::path executable = fs::read_symlink("/proc/self/exe");
    std::string szName;
    EXPECT_TRUE(bMakeDefaultConfigName(szName, "/etc/", ".txt"));
    EXPECT_EQ(executable.parent_path().string() + "/etc/" + executable.filename().string() + ".txt",
              szName);
    EXPECT_TRUE(bMakeDefaultConfigName(szName, "/", nullptr));
    EXPECT_EQ(executable.string(), szName);
}

TEST_F(AFileHelper, FindsNoDirectoryOfAnExecutableUnderTheRoot)
{
    // A program that runs from memory has a path directly under the root.
    const std::string szExecutable = fs::read_symlink("/proc/self/exe");
    if (szExecutable.rfind("/memfd:daemon", 0) != 0) {
        const auto result = TestSupport::RunInChild([&szExecutable] {
            return iRunFromMemory(
                szExecutable,
                "--gtest_filter=AFileHelper.FindsNoDirectoryOfAnExecutableUnderTheRoot");
        });
        EXPECT_EQ(0, result.iExitCode) << result.szOutput << result.szErrors;
        EXPECT_NE(std::string::npos, result.szOutput.find("[  PASSED  ] 1 test."));
        return;
    }
    char aBuffer[64] = {};
    std::string szName = "untouched";
    EXPECT_FALSE(bGetCurrentDirectory(aBuffer, sizeof(aBuffer)));
    EXPECT_FALSE(bMakeFullConfigName(szName, "a", "b", "c"));
    EXPECT_FALSE(bMakeDefaultConfigName(szName, "/conf/", ".conf"));
    EXPECT_EQ("untouched", szName);
    EXPECT_TRUE(bGetFileName(aBuffer, sizeof(aBuffer)));
    EXPECT_EQ(szExecutable.substr(1), aBuffer);
}
