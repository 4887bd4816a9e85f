// The reader of the log page, on pages that the logger builds and on what else may come.
#include "CLogPage.h"

#include "Failure.h"
#include "libQuorCore/CLogger.h"
#include "libQuorCore/CObject.h"
#include "support/Sanitized.h"

#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <random>
#include <thread>
#include <vector>

using namespace QuorCtl;
using QuorCore::CLogger;

namespace
{
struct Source {
    const char* pszLabel;
    int* piLevel;
};

/// @return The page of a logger with these threads, of which all are alive while it is built.
std::string szPageOf(const std::vector<Source>& sources, const char* pszAction = "")
{
    CLogger logger;
    std::string szPage;
    // Each thread registers and starts the next one; the last builds the page.
    std::function<void(size_t)> step = [&](size_t index) {
        if (index == sources.size()) {
            logger.iGetLogConfigHtml(szPage, pszAction);
            return;
        }
        std::thread([&, index] {
            logger.SetLogConfigForThread(sources[index].pszLabel, sources[index].piLevel);
            step(index + 1);
        }).join();
    };
    step(0);
    return szPage;
}

class ALogPage : public ::testing::Test
{
protected:
    void SetUp() override
    {
        QuorCore::g_versionFW = {100, "page_daemon"};
        m_szPage =
            szPageOf({{"dispatcher", &m_iNotice}, {"modem", &m_iDebug}, {"gpio", &m_iEmergency}});
    }

    /// @return The complaint about a page, empty if there is none.
    static std::string szComplaint(const std::string& szPage)
    {
        try {
            CLogPage{szPage};
        } catch (const CRefusal& refusal) {
            return refusal.what();
        }
        return "";
    }

    static const LogThread* pFind(const CLogPage& page, const std::string& szLabel)
    {
        for (const LogThread& thread : page.Threads()) {
            if (thread.szLabel == szLabel) {
                return &thread;
            }
        }
        return nullptr;
    }

    int m_iNotice = LOG_NOTICE;
    int m_iDebug = LOG_DEBUG;
    int m_iEmergency = LOG_EMERG;
    int m_iBeyond = 9;
    std::string m_szPage; ///< With dispatcher, modem and gpio.
};

TEST_F(ALogPage, NamesTheThreadsWithTheirLevels)
{
    const CLogPage page(m_szPage + '\0');
    EXPECT_EQ("page_daemon", page.szDaemon());
    EXPECT_TRUE(page.bIndicesCertain());
    ASSERT_EQ(3U, page.Threads().size());
    ASSERT_NE(nullptr, pFind(page, "dispatcher"));
    EXPECT_EQ(LOG_NOTICE, pFind(page, "dispatcher")->iLevel);
    EXPECT_EQ(LOG_DEBUG, pFind(page, "modem")->iLevel);
    EXPECT_EQ(LOG_EMERG, pFind(page, "gpio")->iLevel);
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(static_cast<int>(i), page.Threads()[i].iIndex);
    }
}

TEST_F(ALogPage, MayHaveNoThread)
{
    const CLogPage page(szPageOf({}));
    EXPECT_TRUE(page.Threads().empty());
    EXPECT_TRUE(page.bIndicesCertain());
}

TEST_F(ALogPage, TellsThatAThreadWithoutALevelMakesIndicesUncertain)
{
    const CLogPage page(szPageOf({{"shown", &m_iNotice}, {"hidden", nullptr}}));
    ASSERT_EQ(1U, page.Threads().size());
    EXPECT_FALSE(page.bIndicesCertain());
}

TEST_F(ALogPage, MarksNoLevelThatIsNone)
{
    const CLogPage page(szPageOf({{"odd", &m_iBeyond}}));
    ASSERT_EQ(1U, page.Threads().size());
    EXPECT_EQ(-1, page.Threads()[0].iLevel);
}

TEST_F(ALogPage, TakesMarkupInLabelsAndActionForWhatItIs)
{
    const char* const pszLabel = "a</td><td><select name=min_99><b>\n";
    const CLogPage page(szPageOf({{pszLabel, &m_iNotice}, {"", &m_iDebug}}, "\">\n<table>"));
    ASSERT_EQ(2U, page.Threads().size());
    ASSERT_NE(nullptr, pFind(page, pszLabel));
    EXPECT_EQ(LOG_NOTICE, pFind(page, pszLabel)->iLevel);
    EXPECT_NE(nullptr, pFind(page, ""));
}

TEST_F(ALogPage, IsRefusedWhereverItIsCut)
{
    for (size_t length = 0; length < m_szPage.size(); ++length) {
        EXPECT_EQ("the daemon's log page is cut", szComplaint(m_szPage.substr(0, length)))
            << length;
    }
    EXPECT_EQ("", szComplaint(m_szPage));
}

TEST_F(ALogPage, IsRefusedWhenItIsAnother)
{
    const char* const pszUnknown = "the daemon's log page is none that this program knows";
    EXPECT_EQ(pszUnknown, szComplaint("<html>hello</html>"));
    EXPECT_EQ(pszUnknown, szComplaint(m_szPage + "more"));
    for (const auto& [pszOld, pszNew] : std::vector<std::pair<const char*, const char*>>{
             {"sources: 3", "sources: -3"},
             {"sources: 3", "sources: 99999999999999999999"},
             {"<td>0</td>", "<td>x</td>"},
             {"\"2\">2-critical", "\"2\">2-terrible"},
             {"7-debug</option>", "7-debug</option><option>"},
         }) {
        std::string szPage = m_szPage;
        szPage.replace(szPage.find(pszOld), std::strlen(pszOld), pszNew);
        EXPECT_EQ(pszUnknown, szComplaint(szPage)) << pszNew;
    }
}

TEST_F(ALogPage, IsRefusedWithAnIndexOutOfTurn)
{
    std::string szPage = szPageOf({{"only", &m_iNotice}});
    for (const char* pszIndex : {"<td>0<", "min_0>"}) {
        szPage.replace(szPage.find(pszIndex) + 4, 1, "1");
    }
    EXPECT_NE("", szComplaint(szPage));
}

// Whatever comes is a page or is refused; the sanitizers look on.
TEST_F(ALogPage, SurvivesRandomBytes)
{
    std::mt19937 random(20261121);
    for (int i = 0; i < TestSupport::nRounds(20000); ++i) {
        std::string szBytes(random() % 600, '\0');
        for (char& c : szBytes) {
            c = static_cast<char>(random());
        }
        EXPECT_NE("", szComplaint(szBytes));
    }
}

TEST_F(ALogPage, SurvivesRandomChanges)
{
    std::mt19937 random(47);
    int iRefused = 0;
    const int iRounds = TestSupport::nRounds(20000);
    for (int i = 0; i < iRounds; ++i) {
        std::string szPage = m_szPage;
        for (int k = 0; k < 1 + i % 4; ++k) {
            const size_t position = random() % szPage.size();
            switch (random() % 3) {
            case 0:
                szPage[position] = static_cast<char>(random());
                break;
            case 1:
                szPage.erase(position, random() % 20);
                break;
            default:
                szPage.insert(position, szPage.substr(random() % szPage.size(), 20));
                break;
            }
        }
        iRefused += szComplaint(szPage).empty() ? 0 : 1;
    }
    EXPECT_GT(iRefused, iRounds / 2);
}
} // namespace
