#include "../../examples/common/CTreeStore.h"

#include "examples/SampleTree.h"
#include "support/CChild.h"
#include "support/CLogLevel.h"
#include "support/CSyslogReceiver.h"
#include "support/CTempDirectory.h"
#include "support/Files.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <memory>
#include <new>
#include <random>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using namespace QuorCore;
using namespace TestSupport;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;
namespace fs = std::filesystem;

namespace
{
constexpr uid_t kNobody = 65534;

/// A tree with its store: what a daemon has between its start and its end.
struct CLife {
    CSampleTree tree;
    CTreeStore store{tree};
};

class ATreeStore : public ::testing::Test
{
protected:
    ATreeStore() { CSyslogReceiver::Get().Clear(); }

    static std::vector<std::string> Names(const std::string& szDirectory)
    {
        std::vector<std::string> names;
        for (const fs::directory_entry& entry : fs::directory_iterator(szDirectory)) {
            names.push_back(entry.path().filename());
        }
        return names;
    }

    std::string szFile(const std::string& szRecord) const
    {
        return m_szStore + "/current/" + szRecord;
    }

    static size_t nLogged(const std::string& szPart)
    {
        return CSyslogReceiver::Get().Count(szPart);
    }

    // A first life that leaves something behind.
    void SaveOnce() const
    {
        CLife life;
        ASSERT_TRUE(life.store.bOpen(m_szStore));
        life.tree.m_Settings.m_Level = 7;
        life.tree.m_Callback.AddPhoneNumberToWhitelist("+33123");
        ASSERT_TRUE(life.store.bSave());
    }

    const CLogLevel m_LogLevel;
    const CTempDirectory m_Directory;
    const std::string m_szStore = m_Directory.szPath("tree");
};

TEST_F(ATreeStore, ReadsBackWhatItSaved)
{
    {
        CLife life;
        ASSERT_TRUE(life.store.bOpen(m_szStore));
        life.tree.m_Settings.m_Name = "second";
        life.tree.m_Settings.m_Count = 12; // no request may, the daemon itself does
        life.tree.m_Settings.m_Secret = "0000";
        life.tree.m_Callback.AddPhoneNumberToWhitelist("+33123");
        life.tree.m_Callback.m_AuthSms = false;
        life.tree.m_Cell.m_RxLevel = -95;
        ASSERT_TRUE(life.store.bSave());
    }
    CLife life;
    ASSERT_TRUE(life.store.bOpen(m_szStore));
    EXPECT_TRUE(life.tree.m_Settings.m_Name == "second");
    EXPECT_TRUE(life.tree.m_Settings.m_Count == 12U);
    EXPECT_TRUE(life.tree.m_Settings.m_Count.bIsReadOnly());
    EXPECT_TRUE(life.tree.m_Settings.m_Secret == "0000");
    EXPECT_TRUE(life.tree.m_Callback.bPhoneNumberAuthorized("+33123"));
    EXPECT_TRUE(life.tree.m_Callback.m_AuthSms == false);
    EXPECT_TRUE(life.tree.m_Cell.m_RxLevel == -95);
    EXPECT_TRUE(life.tree.m_Cell.bIsReadOnly());
    EXPECT_TRUE(life.tree.m_Cell.m_Rssi.bIsNull());
    EXPECT_EQ(0U, nLogged("not read"));
}

TEST_F(ATreeStore, HasAFileOfJsonForEachRecord)
{
    ASSERT_NO_FATAL_FAILURE(SaveOnce());
    EXPECT_THAT(Names(m_szStore), UnorderedElementsAre("current", "state-1"));
    EXPECT_THAT(Names(m_szStore + "/current"),
                UnorderedElementsAre("settings", "callback", "cell"));
    Json::Value document;
    std::ifstream(szFile("callback")) >> document;
    EXPECT_EQ("+33123", document["whiteList"][0].asString());
}

TEST_F(ATreeStore, KeepsItsFilesFromOthers)
{
    ASSERT_NO_FATAL_FAILURE(SaveOnce());
    for (const std::string& szPath : {m_szStore, m_szStore + "/state-1", szFile("settings")}) {
        struct stat status = {};
        ASSERT_EQ(0, stat(szPath.c_str(), &status));
        EXPECT_EQ(0U, status.st_mode & 077U) << szPath;
    }
}

TEST_F(ATreeStore, WritesOnlyWhatWasChanged)
{
    ASSERT_NO_FATAL_FAILURE(SaveOnce());
    CLife life;
    ASSERT_TRUE(life.store.bOpen(m_szStore));
    EXPECT_TRUE(life.store.bSave());
    EXPECT_EQ("state-1", fs::read_symlink(m_szStore + "/current"));
    life.tree.m_Settings.m_Level = 8;
    EXPECT_TRUE(life.store.bSave());
    EXPECT_TRUE(life.store.bSave());
    EXPECT_EQ("state-2", fs::read_symlink(m_szStore + "/current"));
    EXPECT_THAT(Names(m_szStore), UnorderedElementsAre("current", "state-2"));
}

TEST_F(ATreeStore, KeepsNothingWithoutADirectory)
{
    CLife life;
    EXPECT_TRUE(life.store.bOpen(""));
    EXPECT_TRUE(life.store.bSave());
    EXPECT_THAT(Names(m_Directory.szPath()), IsEmpty());
}

TEST_F(ATreeStore, LeavesTheWorkingDirectoryAlone)
{
    const fs::path before = fs::current_path();
    ASSERT_NO_FATAL_FAILURE(SaveOnce());
    CLife life;
    ASSERT_TRUE(life.store.bOpen(m_szStore));
    EXPECT_EQ(before, fs::current_path());
}

TEST_F(ATreeStore, RemovesWhatASaveThatWasCutShortHasLeft)
{
    ASSERT_NO_FATAL_FAILURE(SaveOnce());
    fs::create_directory(m_szStore + "/state-2");
    WriteFile(m_szStore + "/state-2/settings", "{\"lev");
    fs::create_symlink("state-2", m_szStore + "/.current");
    CLife life;
    ASSERT_TRUE(life.store.bOpen(m_szStore));
    EXPECT_TRUE(life.tree.m_Settings.m_Level == 7U);
    EXPECT_THAT(Names(m_szStore), UnorderedElementsAre("current", "state-1"));
    life.tree.m_Settings.m_Level = 8;
    EXPECT_TRUE(life.store.bSave());
}

TEST_F(ATreeStore, LeavesFilesOfOthersAlone)
{
    ASSERT_NO_FATAL_FAILURE(SaveOnce());
    for (const char* pszName : {"notes", "state-", "state-1x", "state-12345678901234567890"}) {
        fs::create_directory(m_szStore + '/' + pszName);
    }
    CLife life;
    ASSERT_TRUE(life.store.bOpen(m_szStore));
    life.tree.m_Settings.m_Level = 8;
    EXPECT_TRUE(life.store.bSave());
    EXPECT_THAT(Names(m_szStore), UnorderedElementsAre("current", "state-2", "notes", "state-",
                                                       "state-1x", "state-12345678901234567890"));
}

/// What may stand in a file of "settings" and is no good.
class ADamagedRecord : public ATreeStore, public ::testing::WithParamInterface<const char*>
{
};

TEST_P(ADamagedRecord, IsReportedAndKeptAndReplacedByInitialValues)
{
    ASSERT_NO_FATAL_FAILURE(SaveOnce());
    WriteFile(szFile("settings"), GetParam());
    {
        CLife life;
        ASSERT_TRUE(life.store.bOpen(m_szStore));
        EXPECT_TRUE(life.tree.m_Settings.m_Level == 5U);
        EXPECT_TRUE(life.tree.m_Settings.m_Name == "first");
        EXPECT_TRUE(life.tree.m_Callback.bPhoneNumberAuthorized("+33123")); // all others are read
        EXPECT_EQ(1U, nLogged("/db/settings: not read"));
        EXPECT_EQ(1U, nLogged("2 records were read from state-1, 1 were not"));
        EXPECT_TRUE(life.store.bSave()); // what was not read is not taken for saved
    }
    EXPECT_EQ(GetParam(), szReadFile(m_szStore + "/unreadable-settings"));
    EXPECT_THAT(szReadFile(szFile("settings")), HasSubstr("\"level\" : 5"));
}

INSTANTIATE_TEST_SUITE_P(Text, ADamagedRecord,
                         ::testing::Values("", "{\"level\": 7", "\x01\x02\xff", "[1, 2]",
                                           "{\"level\": \"high\"}", "{\"level\": 11}",
                                           "{\"name\": \"more than eight\", \"level\": 7}",
                                           "{\"level\": 7, \"name\": 3}"));

TEST_F(ATreeStore, ReportsARecordWhoseFileIsGone)
{
    ASSERT_NO_FATAL_FAILURE(SaveOnce());
    fs::remove(szFile("settings"));
    CLife life;
    EXPECT_TRUE(life.store.bOpen(m_szStore));
    EXPECT_TRUE(life.tree.m_Settings.m_Level == 5U);
    EXPECT_EQ(1U, nLogged("/db/settings: not read"));
}

TEST_F(ATreeStore, FollowsNoLinkFromARecord)
{
    ASSERT_NO_FATAL_FAILURE(SaveOnce());
    WriteFile(m_Directory.szPath("elsewhere"), "{\"level\": 9}");
    fs::remove(szFile("settings"));
    fs::create_symlink(m_Directory.szPath("elsewhere"), szFile("settings"));
    CLife life;
    EXPECT_TRUE(life.store.bOpen(m_szStore));
    EXPECT_TRUE(life.tree.m_Settings.m_Level == 5U);
    EXPECT_EQ(1U, nLogged("/db/settings: not read"));
}

TEST_F(ATreeStore, ReportsAStateThatIsGone)
{
    ASSERT_NO_FATAL_FAILURE(SaveOnce());
    fs::remove_all(m_szStore + "/state-1");
    CLife life;
    EXPECT_TRUE(life.store.bOpen(m_szStore));
    EXPECT_TRUE(life.tree.m_Settings.m_Level == 5U);
    EXPECT_EQ(1U, nLogged("/state-1: cannot be opened"));
    EXPECT_TRUE(life.store.bSave());
    EXPECT_THAT(szReadFile(szFile("settings")), HasSubstr("\"level\" : 5"));
}

TEST_F(ATreeStore, TouchesNothingWhereItsNameIsAnothers)
{
    fs::create_directories(m_szStore + "/state-1");
    for (const bool bLink : {false, true}) {
        fs::remove(m_szStore + "/current");
        if (bLink) {
            fs::create_symlink("../elsewhere", m_szStore + "/current");
        } else {
            WriteFile(m_szStore + "/current", "mine");
        }
        CLife life;
        EXPECT_FALSE(life.store.bOpen(m_szStore));
        EXPECT_FALSE(life.store.bSave());
        EXPECT_THAT(Names(m_szStore), UnorderedElementsAre("current", "state-1"));
    }
    EXPECT_EQ(2U, nLogged("/current: not a link to a state"));
    EXPECT_EQ(2U, nLogged("not saved, it was not to be had at the start"));
}

TEST_F(ATreeStore, SaysThatItsDirectoryCannotBeMade)
{
    CLife life;
    EXPECT_FALSE(life.store.bOpen(m_Directory.szPath("missing/tree")));
    EXPECT_FALSE(life.store.bSave());
    EXPECT_EQ(1U, nLogged("missing/tree: it cannot be made"));
}

TEST_F(ATreeStore, IsOneProcesssAlone)
{
    CLife first;
    CLife second;
    EXPECT_TRUE(first.store.bOpen(m_szStore));
    EXPECT_FALSE(second.store.bOpen(m_szStore));
    EXPECT_EQ(1U, nLogged("another process has it"));
    EXPECT_FALSE(second.store.bSave());
}

TEST_F(ATreeStore, WaitsForTheProcessWhosePlaceItTakes)
{
    auto pFirst = std::make_unique<CLife>();
    ASSERT_TRUE(pFirst->store.bOpen(m_szStore));
    pFirst->tree.m_Settings.m_Level = 7;
    std::thread last([&] {
        EXPECT_TRUE(pFirst->store.bSave());
        pFirst.reset();
    });
    CLife second;
    EXPECT_TRUE(second.store.bOpen(m_szStore));
    last.join();
    EXPECT_TRUE(second.tree.m_Settings.m_Level == 7U);
}

TEST_F(ATreeStore, ReadsADirectoryThatCannotBeWrittenAndSaysSo)
{
    if (getuid() != 0) {
        GTEST_SKIP() << "becoming another user takes root";
    }
    ASSERT_NO_FATAL_FAILURE(SaveOnce());
    ASSERT_EQ(0, chmod(m_Directory.szPath().c_str(), 0755));
    for (const std::string& szPath : {m_szStore, m_szStore + "/state-1"}) {
        ASSERT_EQ(0, chmod(szPath.c_str(), 0755));
    }
    for (const char* pszRecord : {"settings", "callback", "cell"}) {
        ASSERT_EQ(0, chmod(szFile(pszRecord).c_str(), 0644));
    }
    const ChildResult result = RunInChild([this] {
        if (setgroups(0, nullptr) != 0 || setgid(kNobody) != 0 || setuid(kNobody) != 0) {
            return 1;
        }
        CLife life;
        const bool bOpened = life.store.bOpen(m_szStore);
        const bool bRead = life.tree.m_Settings.m_Level == 7U;
        life.tree.m_Settings.m_Level = 9;
        return !bOpened && bRead && !life.store.bSave() ? 0 : 2;
    });
    EXPECT_EQ(0, result.iExitCode);
    EXPECT_EQ(1U, nLogged("it cannot be written"));
    EXPECT_EQ(1U, nLogged("state-2: not saved, cannot be made"));
    EXPECT_THAT(szReadFile(szFile("settings")), HasSubstr("\"level\" : 7"));
}

TEST_F(ATreeStore, KeepsTheOldStateWhenTheNewOneCannotBeWritten)
{
    ASSERT_NO_FATAL_FAILURE(SaveOnce());
    const ChildResult result = RunInChild([this] {
        CLife life;
        const bool bOpened = life.store.bOpen(m_szStore);
        life.tree.m_Callback.AddPhoneNumberToWhitelist(std::string(60000, '1'));
        const rlimit limit = {4096, 4096}; // a disk that is full after the first pages
        signal(SIGXFSZ, SIG_IGN);
        return bOpened && setrlimit(RLIMIT_FSIZE, &limit) == 0 && !life.store.bSave() ? 0 : 1;
    });
    EXPECT_EQ(0, result.iExitCode);
    EXPECT_EQ(1U, nLogged("state-2/callback: not saved, cannot be written"));
    EXPECT_THAT(Names(m_szStore), UnorderedElementsAre("current", "state-1"));
    EXPECT_THAT(szReadFile(szFile("callback")), HasSubstr("+33123"));
}

/// A record that cannot always be published.
class CUnwilling : public CRecord
{
public:
    explicit CUnwilling(CObject* pParent) : CRecord(pParent, "unwilling") {}
    void SerializeJson(CContextJson& context, Json::Value& value, bool bArray, int iDepth) override
    {
        CRecord::SerializeJson(context, value, bArray, iDepth);
        if (m_bUnwilling) {
            throw std::bad_alloc();
        }
    }

    bool m_bUnwilling = false;

private:
    CDMUInt m_First{this, "first", 1, 0, 9, 1};
};

TEST_F(ATreeStore, KeepsTheOldStateWhenARecordCannotBePublished)
{
    CLife life;
    CUnwilling record(&life.tree);
    ASSERT_TRUE(life.store.bOpen(m_szStore));
    ASSERT_TRUE(life.store.bSave());
    const std::string szBefore = szReadFile(szFile("unwilling"));
    life.tree.m_Settings.m_Level = 9;
    record.m_bUnwilling = true;
    EXPECT_FALSE(life.store.bSave());
    EXPECT_EQ(1U, nLogged("/db/unwilling: not saved, it cannot be published"));
    EXPECT_EQ(szBefore, szReadFile(szFile("unwilling")));
    record.m_bUnwilling = false;
    EXPECT_TRUE(life.store.bSave());
}

TEST_F(ATreeStore, IsReadWholeAfterAKillAtAnyMomentOfASave)
{
    std::minstd_rand random(20261122);
    uint32_t iLast = 0;
    size_t nCutShort = 0;
    const int nRounds = 150;
    for (int i = 0; i < nRounds; ++i) {
        CChild saver([this, iLast] {
            CLife life;
            if (!life.store.bOpen(m_szStore)) {
                return 1;
            }
            for (uint32_t iSave = iLast + 1;; ++iSave) { // each record carries the same number
                life.tree.m_Settings.m_Count = iSave;
                life.tree.m_Callback.m_SmsCallback = iSave;
                life.tree.m_Cell.m_Ci = iSave;
                if (!life.store.bSave()) {
                    return 2;
                }
                if (iSave == iLast + 1 && write(STDOUT_FILENO, "saving", 6) != 6) {
                    return 3;
                }
            }
        });
        ASSERT_TRUE(saver.bAwaitOutput("saving"));
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 3000)); // the moment
        saver.Signal(SIGKILL);
        ASSERT_EQ(SIGKILL, saver.Await().iSignal);
        const std::vector<std::string> left = Names(m_szStore);
        nCutShort += left.size() > 2 || std::count(left.begin(), left.end(), ".current") > 0;

        CLife life;
        ASSERT_TRUE(life.store.bOpen(m_szStore));
        const uint32_t iRead = life.tree.m_Settings.m_Count.iGetVal();
        ASSERT_EQ(iRead, life.tree.m_Callback.m_SmsCallback.iGetVal());
        ASSERT_EQ(iRead, life.tree.m_Cell.m_Ci.iGetVal());
        ASSERT_GT(iRead, iLast); // what was told as saved is there
        ASSERT_EQ(2U, Names(m_szStore).size());
        iLast = iRead;
    }
    EXPECT_EQ(0U, nLogged("not read"));
    EXPECT_GT(nCutShort, 0U); // the kills did come in the middle of saves
}
} // namespace
