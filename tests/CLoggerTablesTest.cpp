// The threads that the logger knows: their labels and levels, the page and the configuration.
#include "libQuorCore/CFileConfig.h"
#include "libQuorCore/CLogger.h"
#include "libQuorCore/CThread.h"

#include "support/CSyslogReceiver.h"
#include "support/CTempDirectory.h"
#include "support/CWorker.h"
#include "support/Files.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <stdexcept>
#include <thread>

using namespace QuorCore;
using namespace TestSupport;

namespace
{
constexpr const char* kPageEnd =
    "</table>\n<input type=\"submit\" value=\"Apply\">\n</body></html>\n";

/// The logger of the process and three threads, the first of the lowest id: the order of the
/// tables. At first none is registered.
class ALoggersTables : public ::testing::Test
{
protected:
    ALoggersTables()
    {
        std::sort(m_Workers.begin(), m_Workers.end(), [](const auto& one, const auto& other) {
            return static_cast<unsigned long>(one->iId()) <
                   static_cast<unsigned long>(other->iId());
        });
    }
    void SetUp() override
    {
        m_Logger.Init("tables-test");
        m_Syslog.Clear();
        std::memset(&g_versionFW, 0, sizeof(g_versionFW));
        std::strcpy(g_versionFW.szAppName, "modemd");
    }
    void TearDown() override
    {
        for (size_t i = 0; i < m_Workers.size(); ++i) {
            m_Workers[i]->Run([this] { m_Logger.CancelLogIdForThread(); });
        }
        m_Logger.CancelLogIdForThread();
    }

    void Register(size_t iWorker, const char* szLabel, int* piLevel)
    {
        m_Workers[iWorker]->Run([&] { m_Logger.SetLogConfigForThread(szLabel, piLevel); });
    }
    void RegisterAll()
    {
        Register(0, "first", &m_aLevels[0]);
        Register(1, "second", &m_aLevels[1]);
        Register(2, "third", &m_aLevels[2]);
    }
    std::string szPage(const char* szAction = "")
    {
        std::string szText = "former content";
        const int iLength = m_Logger.iGetLogConfigHtml(szText, szAction);
        EXPECT_EQ(szText.size(), static_cast<size_t>(iLength));
        return szText;
    }
    int iSources()
    {
        const std::string szText = szPage();
        const std::string szBefore = "Number of sources: ";
        return std::stoi(szText.substr(szText.find(szBefore) + szBefore.size()));
    }

    CLogger& m_Logger = CThread::m_Logger;
    CSyslogReceiver& m_Syslog = CSyslogReceiver::Get();
    std::array<int, 3> m_aLevels = {1, 2, 3};
    std::array<std::unique_ptr<CWorker>, 3> m_Workers = {
        std::make_unique<CWorker>(), std::make_unique<CWorker>(), std::make_unique<CWorker>()};
};

using Levels = std::array<int, 3>;

TEST_F(ALoggersTables, LeaveTheArgumentsOfAThreadThatIsNotRegistered)
{
    const char* szLabel = "mine";
    int iLevel = 42;
    EXPECT_TRUE(m_Logger.bGetLogConfigForThread(szLabel, iLevel));
    EXPECT_STREQ("mine", szLabel);
    EXPECT_EQ(42, iLevel);

    szLabel = nullptr;
    EXPECT_FALSE(m_Logger.bGetLogConfigForThread(szLabel, iLevel));
    EXPECT_EQ(nullptr, szLabel);
}

TEST_F(ALoggersTables, TellAThreadItsOwnEntries)
{
    RegisterAll();
    m_Workers[1]->Run([this] {
        const char* szLabel = nullptr;
        int iLevel = 42;
        EXPECT_TRUE(m_Logger.bGetLogConfigForThread(szLabel, iLevel));
        EXPECT_STREQ("second", szLabel);
        EXPECT_EQ(2, iLevel);
    });
}

TEST_F(ALoggersTables, CopyALabel)
{
    std::string szLabel = "copied";
    m_Logger.SetLogConfigForThread(szLabel.c_str(), &m_aLevels[0]);
    szLabel = "XXXXXX";
    m_Logger.Log(LOG_ALERT, "F.cpp", 12, "void f()", "text");
    EXPECT_EQ(1U, m_Syslog.Count("copied("));
}

TEST_F(ALoggersTables, ReplaceTheEntriesOfAThreadThatRegistersAgain)
{
    m_Logger.SetLogConfigForThread("one", &m_aLevels[0]);
    m_Logger.SetLogConfigForThread("a longer label than the one before", &m_aLevels[1]);
    EXPECT_EQ(1, iSources());
    m_Logger.Log(LOG_CRIT, "F.cpp", 12, "void f()", "text");
    EXPECT_EQ(1U, m_Syslog.Count("a longer label than the one before("));
    m_Logger.SetAllLogLevel(LOG_DEBUG);
    EXPECT_EQ((Levels{1, LOG_DEBUG, 3}), m_aLevels);
}

TEST_F(ALoggersTables, TakeAThreadWithoutALevelForOneOfLevel3)
{
    m_Logger.SetLogConfigForThread(nullptr, nullptr);
    m_Logger.Log(LOG_WARNING, "F.cpp", 12, "void f()", "text");
    EXPECT_EQ(0U, m_Syslog.Records().size());
    m_Logger.Log(LOG_ERR, "F.cpp", 12, "void f()", "text");
    ASSERT_EQ(1U, m_Syslog.Records().size());
    EXPECT_EQ('(', m_Syslog.Records()[0].szText[0]) << "the label is empty, not GEN";
}

TEST_F(ALoggersTables, ForgetAThreadThatCancels)
{
    RegisterAll();
    m_aLevels[1] = LOG_DEBUG;
    m_Workers[1]->Run([this] {
        m_Logger.CancelLogIdForThread();
        m_Logger.CancelLogIdForThread(); // nothing left to forget
        m_Logger.Log(LOG_WARNING, "F.cpp", 12, "void f()", "text");
        m_Logger.Log(LOG_ERR, "F.cpp", 12, "void f()", "text");
    });
    EXPECT_EQ(1U, m_Syslog.Records().size());
    EXPECT_EQ(1U, m_Syslog.Count("GEN("));
    EXPECT_EQ(2, iSources());
    EXPECT_EQ(std::string::npos, szPage().find("second"));
}

TEST_F(ALoggersTables, ForgetAThreadThatEnds)
{
    int iLevel = LOG_DEBUG; // outlives the thread, not what could be written through it later
    std::thread([&] { m_Logger.SetLogConfigForThread("ended", &iLevel); }).join();
    EXPECT_EQ(0, iSources());
    m_Logger.SetAllLogLevel(LOG_EMERG);
    EXPECT_EQ(LOG_DEBUG, iLevel);
}

TEST_F(ALoggersTables, ForgetAThreadThatIsCancelled)
{
    int iLevel = LOG_DEBUG;
    std::atomic<bool> bRegistered{false};
    std::thread thread([&] {
        m_Logger.SetLogConfigForThread("cancelled", &iLevel);
        bRegistered = true;
        for (;;) { // not in a system call, where a thread sanitizer would lose track of the thread
            pthread_testcancel();
            sched_yield();
        }
    });
    ASSERT_TRUE(bAwait([&] { return bRegistered.load(); }));
    EXPECT_EQ(1, iSources());
    pthread_cancel(thread.native_handle());
    thread.join();
    EXPECT_EQ(0, iSources());
}

TEST_F(ALoggersTables, LetAThreadLogWhileItEnds)
{
    struct LogsAtTheEnd {
        ~LogsAtTheEnd() { CThread::m_Logger.Log(LOG_ERR, "F.cpp", 12, "void f()", "at the end"); }
    };
    int iLevel = LOG_DEBUG;
    std::thread([&] {
        static thread_local LogsAtTheEnd logs; // goes after what is made later: the registration
        static_cast<void>(logs);
        m_Logger.SetLogConfigForThread("ending", &iLevel);
    }).join();
    EXPECT_EQ(1U, m_Syslog.Count("GEN("));
    EXPECT_EQ(1U, m_Syslog.Count("at the end"));
}

TEST_F(ALoggersTables, ForgetALevelWhoseOwnerGoes)
{
    RegisterAll();
    m_Logger.ForgetLevel(&m_aLevels[2]);
    EXPECT_EQ(2, iSources());
    m_Logger.SetAllLogLevel(LOG_DEBUG);
    EXPECT_EQ((Levels{LOG_DEBUG, LOG_DEBUG, 3}), m_aLevels);
    m_Logger.ForgetLevel(&m_aLevels[2]); // nothing left to forget
    EXPECT_EQ(2, iSources());
}

TEST_F(ALoggersTables, ForgetTheCallersOwnLevel)
{
    int iLevel = LOG_DEBUG;
    m_Logger.SetLogConfigForThread("own", &iLevel);
    m_Logger.ForgetLevel(&iLevel);
    m_Logger.Log(LOG_WARNING, "F.cpp", 12, "void f()", "text");
    m_Logger.Log(LOG_ERR, "F.cpp", 12, "void f()", "text");
    EXPECT_EQ(1U, m_Syslog.Count("GEN("));
    EXPECT_EQ(1U, m_Syslog.Records().size());
}

TEST_F(ALoggersTables, SetAllLevels)
{
    RegisterAll();
    Register(1, "none", nullptr);
    m_Logger.SetAllLogLevel(LOG_DEBUG);
    EXPECT_EQ((Levels{LOG_DEBUG, 2, LOG_DEBUG}), m_aLevels);
}

TEST_F(ALoggersTables, SetTheLevelAtAnIndexInTheOrderOfThreadIds)
{
    RegisterAll();
    m_Logger.SetLogLevel(1, LOG_DEBUG);
    EXPECT_EQ((Levels{1, LOG_DEBUG, 3}), m_aLevels);
    m_Logger.SetLogLevel(0, LOG_INFO);
    EXPECT_EQ((Levels{LOG_INFO, LOG_DEBUG, 3}), m_aLevels);
}

TEST_F(ALoggersTables, SetNothingAtAnIndexThatThereIsNot)
{
    RegisterAll();
    m_Logger.SetLogLevel(3, LOG_DEBUG);
    m_Logger.SetLogLevel(-1, LOG_DEBUG);
    EXPECT_EQ((Levels{1, 2, 3}), m_aLevels);
}

TEST_F(ALoggersTables, CountAThreadWithoutALevelInAnIndexButNotInThePage)
{
    RegisterAll();
    Register(0, "none", nullptr);
    m_Logger.SetLogLevel(0, LOG_DEBUG);
    EXPECT_EQ((Levels{1, 2, 3}), m_aLevels);
    m_Logger.SetLogLevel(1, LOG_DEBUG);
    EXPECT_EQ((Levels{1, LOG_DEBUG, 3}), m_aLevels);

    const std::string szText = szPage();
    EXPECT_NE(std::string::npos, szText.find("Number of sources: 3<br>"));
    EXPECT_EQ(std::string::npos, szText.find("none"));
    EXPECT_NE(std::string::npos, szText.find("<td>0</td><td>second</td>"));
    EXPECT_NE(std::string::npos, szText.find("<td>1</td><td>third</td>"));
    EXPECT_EQ(std::string::npos, szText.find("<td>2</td>"));
}

TEST_F(ALoggersTables, ApplyPairsOfIndexAndLevel)
{
    RegisterAll();
    const uint8_t aPairs[] = {2, 7, 0, 6, 1};
    m_Logger.SetLogLevel(aPairs, 5); // the odd last byte names no level
    EXPECT_EQ((Levels{6, 2, 7}), m_aLevels);
}

TEST_F(ALoggersTables, ReadTheBytesOfPairsUnsigned)
{
    RegisterAll();
    const uint8_t aPairs[] = {0x80, 7, 1, 0xff};
    m_Logger.SetLogLevel(aPairs, 4);
    EXPECT_EQ((Levels{1, 255, 3}), m_aLevels);
}

TEST_F(ALoggersTables, ApplyNoPairsWhereThereAreNone)
{
    RegisterAll();
    const uint8_t aPairs[] = {0, 7};
    m_Logger.SetLogLevel(aPairs, 1);
    m_Logger.SetLogLevel(aPairs, 0);
    m_Logger.SetLogLevel(aPairs, -2);
    m_Logger.SetLogLevel(nullptr, 2);
    EXPECT_EQ((Levels{1, 2, 3}), m_aLevels);
}

TEST_F(ALoggersTables, MakeAPageWithoutRowsForNobody)
{
    EXPECT_EQ("<!DOCTYPE html><html><head><title>Log ctrl</title></head><body>\n"
              "<h2>Log control : modemd</h2>\n"
              "Number of sources: 0<br>\n"
              "<form name=\"logform\" method=\"get\" action=\"/log\">\n"
              "<table border=\"1\">\n"
              "<tr><th>Id</th><th>Name</th><th>Min Level</th></tr>\n"
              "</table>\n"
              "<input type=\"submit\" value=\"Apply\">\n"
              "</body></html>\n",
              szPage("/log"));
}

TEST_F(ALoggersTables, MakeAPageWithARowForEachThread)
{
    Register(0, "first", &m_aLevels[0]);
    Register(2, "third", &m_aLevels[2]);
    m_aLevels = {0, 0, 8}; // of which the second is no choice of the page
    EXPECT_EQ("<!DOCTYPE html><html><head><title>Log ctrl</title></head><body>\n"
              "<h2>Log control : modemd</h2>\n"
              "Number of sources: 2<br>\n"
              "<form name=\"logform\" method=\"get\" action=\"\">\n"
              "<table border=\"1\">\n"
              "<tr><th>Id</th><th>Name</th><th>Min Level</th></tr>\n"
              "<tr><td>0</td><td>first</td>"
              "<td><select name=min_0>"
              "<option value=\"0\" selected>0-emergency</option>"
              "<option value=\"1\">1-alert</option>"
              "<option value=\"2\">2-critical</option>"
              "<option value=\"3\">3-error</option>"
              "<option value=\"4\">4-warning</option>"
              "<option value=\"5\">5-notice</option>"
              "<option value=\"6\">6-info</option>"
              "<option value=\"7\">7-debug</option>"
              "</select></td>\t\n"
              "<tr><td>1</td><td>third</td>"
              "<td><select name=min_1>"
              "<option value=\"0\">0-emergency</option>"
              "<option value=\"1\">1-alert</option>"
              "<option value=\"2\">2-critical</option>"
              "<option value=\"3\">3-error</option>"
              "<option value=\"4\">4-warning</option>"
              "<option value=\"5\">5-notice</option>"
              "<option value=\"6\">6-info</option>"
              "<option value=\"7\">7-debug</option>"
              "</select></td>\t\n"
              "</table>\n"
              "<input type=\"submit\" value=\"Apply\">\n"
              "</body></html>\n",
              szPage());
}

TEST_F(ALoggersTables, SelectTheCurrentLevelInThePage)
{
    Register(0, "first", &m_aLevels[0]);
    for (m_aLevels[0] = 0; m_aLevels[0] <= 7; ++m_aLevels[0]) {
        const std::string szText = szPage();
        const std::string szLevel = std::to_string(m_aLevels[0]);
        EXPECT_NE(std::string::npos,
                  szText.find("<option value=\"" + szLevel + "\" selected>" + szLevel + "-"));
        EXPECT_EQ(szText.find(" selected"), szText.rfind(" selected"));
    }
}

TEST_F(ALoggersTables, MakeAPageOfAnyLength)
{
    const std::string szLabel(100000, 'l');
    const std::string szAction(100000, 'a');
    Register(0, szLabel.c_str(), &m_aLevels[0]);
    const std::string szText = szPage(szAction.c_str());
    EXPECT_NE(std::string::npos, szText.find("<td>" + szLabel + "</td>"));
    EXPECT_NE(std::string::npos, szText.find("action=\"" + szAction + "\">\n"));
}

TEST_F(ALoggersTables, MakeAPageOfTextsAsTheyAre)
{
    Register(0, "<b>%s</b>", &m_aLevels[0]);
    const std::string szText = szPage("\"><i>%d");
    EXPECT_NE(std::string::npos, szText.find("<td><b>%s</b></td>"));
    EXPECT_NE(std::string::npos, szText.find("action=\"\"><i>%d\">\n"));
    EXPECT_NE(std::string::npos, szPage(nullptr).find("action=\"\">\n"));
}

TEST_F(ALoggersTables, BoundTheNameOfTheDaemonInThePage)
{
    std::memset(g_versionFW.szAppName, 'x', sizeof(g_versionFW.szAppName)); // no end
    EXPECT_NE(std::string::npos,
              szPage().find("<h2>Log control : " + std::string(128, 'x') + "</h2>\n"));
}

/// The same with a configuration in a file of the test's own.
class ALoggersConfiguration : public ALoggersTables
{
protected:
    void SetUp() override
    {
        ALoggersTables::SetUp();
        m_Config.SetFilename(m_szFile.c_str());
    }

    CTempDirectory m_Directory;
    std::string m_szFile = m_Directory.szPath("levels.conf");
    CFileConfig m_Config;
};

TEST_F(ALoggersConfiguration, SetsEachLevelByItsLabel)
{
    RegisterAll();
    m_Config.SetParameter("log_level_first", 7);
    m_Config.SetParameter("log_level_third", 0);
    m_aLevels[1] = 6;
    EXPECT_EQ(0, m_Logger.iSetLogLevel(&m_Config));
    EXPECT_EQ((Levels{7, LOG_ERR, 0}), m_aLevels) << "3 where the file names none";
}

TEST_F(ALoggersConfiguration, KnowsAThreadWithoutLabelByTheBareKey)
{
    Register(0, "", &m_aLevels[0]);
    m_Config.SetParameter("log_level_", 5);
    EXPECT_EQ(0, m_Logger.iSetLogLevel(&m_Config));
    EXPECT_EQ(5, m_aLevels[0]);
}

TEST_F(ALoggersConfiguration, LeavesOutAThreadWithoutALevel)
{
    Register(0, "none", nullptr);
    EXPECT_EQ(0, m_Logger.iSetLogLevel(&m_Config));
    EXPECT_EQ(0, m_Logger.iGetLogLevel(&m_Config));
    EXPECT_EQ("absent", m_Config.szGetParameter("log_level_none", "absent"));
}

TEST_F(ALoggersConfiguration, PassesOnThatAValueIsNoNumberAndGoesOnLogging)
{
    RegisterAll();
    m_Config.SetParameter("log_level_first", 7);
    m_Config.SetParameter("log_level_second", "chatty");
    EXPECT_THROW(m_Logger.iSetLogLevel(&m_Config), std::invalid_argument);
    EXPECT_EQ((Levels{7, 2, 3}), m_aLevels);
    m_Workers[0]->Run([this] { m_Logger.SetAllLogLevel(4); }); // needs the lock, in another thread
    EXPECT_EQ((Levels{4, 4, 4}), m_aLevels);
}

TEST_F(ALoggersConfiguration, KeepsEachLevelUnderItsLabel)
{
    RegisterAll();
    m_aLevels = {7, 0, -1};
    EXPECT_EQ(0, m_Logger.iGetLogLevel(&m_Config));
    EXPECT_EQ(7, m_Config.iGetParameter("log_level_first", 42));
    EXPECT_EQ(0, m_Config.iGetParameter("log_level_second", 42));
    EXPECT_EQ(-1, m_Config.iGetParameter("log_level_third", 42));
    EXPECT_NE(std::string::npos, szReadFile(m_szFile).find("log_level_first"));
}

TEST_F(ALoggersConfiguration, NeedsNoFileToBeThere)
{
    RegisterAll();
    EXPECT_EQ(0, m_Logger.iSetLogLevel(nullptr));
    EXPECT_EQ(0, m_Logger.iGetLogLevel(nullptr));
    EXPECT_EQ((Levels{1, 2, 3}), m_aLevels);
}

/// A logger beside that of the process.
class AnotherLogger : public ::testing::Test
{
protected:
    void SetUp() override
    {
        CThread::m_Logger.Init("two-loggers");
        m_Another.Init("two-loggers");
        m_Syslog.Clear();
    }
    void TearDown() override { CThread::m_Logger.CancelLogIdForThread(); }

    CSyslogReceiver& m_Syslog = CSyslogReceiver::Get();
    CLogger m_Another;
};

TEST_F(AnotherLogger, FiltersByItsOwnTables)
{
    int iLevel = LOG_WARNING;
    m_Another.Log(LOG_ERR, "F.cpp", 12, "void f()", "one");
    m_Another.Log(LOG_WARNING, "F.cpp", 12, "void f()", "two");
    m_Another.SetLogConfigForThread("another", &iLevel);
    m_Another.Log(LOG_WARNING, "F.cpp", 12, "void f()", "three");
    m_Another.Log(LOG_NOTICE, "F.cpp", 12, "void f()", "four");
    ASSERT_EQ(2U, m_Syslog.Records().size());
    EXPECT_EQ("GEN(", m_Syslog.Records()[0].szText.substr(0, 4));
    EXPECT_EQ("another(", m_Syslog.Records()[1].szText.substr(0, 8));
}

TEST_F(AnotherLogger, SharesNothingWithThatOfTheProcess)
{
    int iOwn = LOG_DEBUG;
    int iAnothers = LOG_ERR;
    CThread::m_Logger.SetLogConfigForThread("own", &iOwn);
    m_Another.SetLogConfigForThread("another", &iAnothers);
    m_Another.SetShowLine(false);

    m_Another.SetAllLogLevel(LOG_CRIT);
    EXPECT_EQ(LOG_DEBUG, iOwn);
    m_Another.Log(LOG_CRIT, "F.cpp", 12, "void f()", "from another");
    CThread::m_Logger.Log(LOG_DEBUG, "F.cpp", 12, "void f()", "from the own");
    EXPECT_EQ(1U, m_Syslog.Count("another("));
    EXPECT_EQ(1U, m_Syslog.Count(") -- void f() / from another"));
    EXPECT_EQ(1U, m_Syslog.Count("own("));
    EXPECT_EQ(1U, m_Syslog.Count(") -- void f() / 12 : from the own"));

    m_Another.CancelLogIdForThread();
    CThread::m_Logger.Log(LOG_DEBUG, "F.cpp", 12, "void f()", "still own");
    EXPECT_EQ(1U, m_Syslog.Count("still own"));
}

TEST_F(AnotherLogger, TakesALevelFromTheProcessLoggerOnlyWhenToldSo)
{
    int iShared = LOG_DEBUG;
    CThread::m_Logger.SetLogConfigForThread("own", &iShared);
    m_Another.SetLogConfigForThread("another", &iShared);
    m_Another.ForgetLevel(&iShared);
    CThread::m_Logger.Log(LOG_DEBUG, "F.cpp", 12, "void f()", "text");
    EXPECT_EQ(1U, m_Syslog.Count("own("));
    m_Another.Log(LOG_WARNING, "F.cpp", 12, "void f()", "text");
    EXPECT_EQ(1U, m_Syslog.Records().size());
}

TEST_F(AnotherLogger, LeavesThatOfTheProcessWritingWhenItGoes)
{
    CLogger().Init("gone");
    CThread::m_Logger.Log(LOG_ERR, "F.cpp", 12, "void f()", "still here");
    EXPECT_EQ(1U, m_Syslog.Count("still here"));
}

TEST_F(AnotherLogger, HasNoLevelsOfItsOwnForTheConfiguration)
{
    int iLevel = LOG_DEBUG;
    CThread::m_Logger.SetLogConfigForThread("own", &iLevel);
    CFileConfig config;
    EXPECT_EQ(0, m_Another.iSetLogLevel(&config));
    EXPECT_EQ(LOG_DEBUG, iLevel);
    std::string szPage;
    m_Another.iGetLogConfigHtml(szPage, "");
    EXPECT_NE(std::string::npos, szPage.find("Number of sources: 0<br>"));
    EXPECT_EQ(szPage.size() - std::strlen(kPageEnd), szPage.rfind(kPageEnd));
}
} // namespace
