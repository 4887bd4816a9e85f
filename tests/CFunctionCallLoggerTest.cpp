#include "libQuorCore/CLogger.h"
#include "libQuorCore/CThread.h"

#include "support/CChild.h"
#include "support/CSyslogReceiver.h"

#include <cstdio>
#include <gtest/gtest.h>
#include <memory>
#include <pthread.h>
#include <stdexcept>
#include <thread>

using namespace QuorCore;
using namespace TestSupport;

namespace
{
class AFunctionCallLogger : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_Logger.Init("call-test");
        m_Logger.SetLogConfigForThread("main", &m_iLevel);
        m_Logger.SetShowFile(true);
        m_Syslog.Clear();

        char aText[64];
        std::snprintf(aText, sizeof(aText), "main(%lx) --  / ",
                      static_cast<unsigned long>(pthread_self()));
        m_szHead = aText;
    }
    void TearDown() override
    {
        m_Logger.SetShowFile(false);
        m_Logger.CancelLogIdForThread();
    }
    std::vector<std::string> Lines()
    {
        std::vector<std::string> lines;
        for (const CSyslogReceiver::Record& record : m_Syslog.Records()) {
            lines.push_back(record.szText);
        }
        return lines;
    }

    CLogger& m_Logger = CThread::m_Logger;
    CSyslogReceiver& m_Syslog = CSyslogReceiver::Get();
    int m_iLevel = LOG_DEBUG;
    std::string m_szHead; ///< Of every line: the function's place is empty.
};

using Texts = std::vector<std::string>;

TEST_F(AFunctionCallLogger, LogsEntryWithItsLineAndExitWithLine0)
{
    {
        const CFunctionCallLogger call(LOG_INFO, "../src/F.cpp", 12, "void f()", "f");
        EXPECT_EQ((Texts{m_szHead + "../src/F.cpp - 12 : Entering f()..."}), Lines());
        m_Syslog.Clear();
    }
    EXPECT_EQ((Texts{m_szHead + "../src/F.cpp - 0 : Leaving f()..."}), Lines());
}

TEST_F(AFunctionCallLogger, LogsAtItsLevel)
{
    {
        const CFunctionCallLogger call(LOG_NOTICE, "F.cpp", 12, "", "f");
    }
    ASSERT_EQ(2U, m_Syslog.Records().size());
    EXPECT_EQ(LOG_NOTICE, m_Syslog.Records()[0].iLevel);
    EXPECT_EQ(LOG_NOTICE, m_Syslog.Records()[1].iLevel);
}

TEST_F(AFunctionCallLogger, IsFilteredByTheLevelOfTheThreadAtEachEnd)
{
    m_iLevel = LOG_INFO;
    {
        const CFunctionCallLogger call(LOG_DEBUG, "F.cpp", 12, "", "f");
        EXPECT_EQ(Texts{}, Lines());
        m_iLevel = LOG_DEBUG;
    }
    EXPECT_EQ((Texts{m_szHead + "F.cpp - 0 : Leaving f()..."}), Lines());
}

TEST_F(AFunctionCallLogger, KeepsCopiesOfItsTexts)
{
    std::string szFile = "F.cpp";
    std::string szFunction = "f";
    {
        const CFunctionCallLogger call(LOG_INFO, szFile.c_str(), 12, "", szFunction.c_str());
        szFile = "XXXXX";
        szFunction = "X";
        m_Syslog.Clear();
    }
    EXPECT_EQ((Texts{m_szHead + "F.cpp - 0 : Leaving f()..."}), Lines());
}

TEST_F(AFunctionCallLogger, TakesAFunctionNameAsItIs)
{
    {
        const CFunctionCallLogger call(LOG_INFO, "F.cpp", 12, "%n", "operator%s%n");
    }
    EXPECT_EQ((Texts{m_szHead + "F.cpp - 12 : Entering operator%s%n()...",
                     m_szHead + "F.cpp - 0 : Leaving operator%s%n()..."}),
              Lines());
}

TEST_F(AFunctionCallLogger, TakesNoTextForAnEmptyOne)
{
    {
        const CFunctionCallLogger call(LOG_INFO, nullptr, 12, nullptr, nullptr);
    }
    EXPECT_EQ((Texts{m_szHead + " - 12 : Entering ()...", m_szHead + " - 0 : Leaving ()..."}),
              Lines());
}

TEST_F(AFunctionCallLogger, LogsTheEnclosingFunctionByTheMacro)
{
    const int iLine = __LINE__ + 2;
    {
        QUORCORE_LOG_CALL(LOG_INFO);
    }
    const std::string szPlace = m_szHead + "../tests/CFunctionCallLoggerTest.cpp - ";
    EXPECT_EQ((Texts{szPlace + std::to_string(iLine) + " : Entering TestBody()...",
                     szPlace + "0 : Leaving TestBody()..."}),
              Lines());
}

TEST_F(AFunctionCallLogger, LogsTheExitByAnException)
{
    try {
        const CFunctionCallLogger call(LOG_INFO, "F.cpp", 12, "", "f");
        throw std::runtime_error("text");
    } catch (const std::runtime_error&) {
    }
    EXPECT_EQ(2U, Lines().size());
}

TEST_F(AFunctionCallLogger, LogsTheExitByACancellation)
{
    const ChildResult result = RunInChild([] {
        std::thread([] {
            const CFunctionCallLogger call(LOG_ERR, "F.cpp", 12, "", "f");
            pthread_cancel(pthread_self());
            pthread_testcancel();
        }).join();
        return 0;
    });
    EXPECT_EQ(0, result.iSignal) << result.szErrors;
    EXPECT_EQ(1U, m_Syslog.Count("Leaving f()..."));
}

TEST_F(AFunctionCallLogger, IsNotCutOffByACancellationOnTheWayOut)
{
    const ChildResult result = RunInChild([] {
        std::thread([] {
            pthread_cancel(pthread_self()); // pending
            {
                const CFunctionCallLogger call(LOG_ERR, "F.cpp", 12, "", "f");
            }
            pthread_testcancel();
        }).join();
        return 0;
    });
    EXPECT_EQ(0, result.iSignal) << result.szErrors;
    EXPECT_EQ(1U, m_Syslog.Count("Entering f()..."));
    EXPECT_EQ(1U, m_Syslog.Count("Leaving f()..."));
}

TEST_F(AFunctionCallLogger, MayBeLeftInAThreadThatIsCancelledAtAnyInstruction)
{
    const ChildResult result = RunInChild([] {
        std::thread([] {
            int iFormerType = 0;
            {
                const CFunctionCallLogger call(LOG_ERR, "F.cpp", 12, "", "f");
                int iFormerState = 0;
                pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &iFormerState);
                pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, &iFormerType);
                pthread_cancel(pthread_self());
            }
        }).join();
        return 0;
    });
    EXPECT_EQ(0, result.iSignal) << result.szErrors;
    EXPECT_EQ(1U, m_Syslog.Count("Leaving f()..."));
}
} // namespace
