// What the logger writes, and what it filters out.
#include "libQuorCore/CLogger.h"

#include "libQuorCore/CThread.h"

#include "support/CSyslogReceiver.h"
#include "support/CWorker.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <new>
#include <sys/mman.h>
#include <unistd.h>

using namespace QuorCore;
using namespace TestSupport;

namespace
{
std::atomic<long> g_iAllocations{0}; // by operator new, in the library too
} // namespace

// Not inlined, or the compiler takes malloc and delete, or new and free, for mismatched.
__attribute__((noinline)) void* operator new(size_t iSize)
{
    ++g_iAllocations;
    void* const pMemory = std::malloc(iSize != 0 ? iSize : 1);
    if (pMemory == nullptr) {
        throw std::bad_alloc();
    }
    return pMemory;
}

__attribute__((noinline)) void operator delete(void* pMemory) noexcept
{
    std::free(pMemory);
}

__attribute__((noinline)) void operator delete(void* pMemory, size_t) noexcept
{
    std::free(pMemory);
}

// As the logger's source file exports them: with the names that syslog.h gives them.
struct nameRow_t {
    const char* c_name;
    int c_val;
};
extern nameRow_t prioritynames[];
extern nameRow_t facilitynames[];

namespace
{
std::string szOwnId()
{
    char aText[32];
    std::snprintf(aText, sizeof(aText), "%lx", static_cast<unsigned long>(pthread_self()));
    return aText;
}

void LogEvent(CLogger& logger, const char* szLabel, int iLevel, int iErrno, const char* szFormat,
              ...) __attribute__((format(printf, 5, 6)));

void LogEvent(CLogger& logger, const char* szLabel, int iLevel, int iErrno, const char* szFormat,
              ...)
{
    va_list args;
    va_start(args, szFormat);
    logger.LogEvent(szLabel, iLevel, "F.cpp", 12, "void f()", iErrno, szFormat, args);
    va_end(args);
}

using Rows = std::vector<std::pair<std::string, int>>;

Rows AllRows(const nameRow_t* pRow)
{
    Rows rows;
    for (; pRow->c_name != nullptr; ++pRow) {
        rows.emplace_back(pRow->c_name, pRow->c_val);
    }
    EXPECT_EQ(-1, pRow->c_val) << "the closing row";
    return rows;
}

class ASyslogNameTable : public ::testing::Test
{
};

TEST_F(ASyslogNameTable, ListsThePriorities)
{
    const Rows expected = {{"alert", 1},  {"crit", 2},  {"debug", 7}, {"emerg", 0},
                           {"err", 3},    {"error", 3}, {"info", 6},  {"none", 16},
                           {"notice", 5}, {"panic", 0}, {"warn", 4},  {"warning", 4}};
    EXPECT_EQ(expected, AllRows(prioritynames));
}

TEST_F(ASyslogNameTable, ListsTheFacilities)
{
    const Rows expected = {{"auth", 32},    {"authpriv", 80}, {"cron", 72},     {"daemon", 24},
                           {"ftp", 88},     {"kern", 0},      {"lpr", 48},      {"mail", 16},
                           {"mark", 192},   {"news", 56},     {"security", 32}, {"syslog", 40},
                           {"user", 8},     {"uucp", 64},     {"local0", 128},  {"local1", 136},
                           {"local2", 144}, {"local3", 152},  {"local4", 160},  {"local5", 168},
                           {"local6", 176}, {"local7", 184}};
    EXPECT_EQ(expected, AllRows(facilitynames));
}

/// The logger of the process, with the thread that runs the test registered as "main", level 7.
class ALogger : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_Logger.Init("logger-test");
        m_Logger.SetLogConfigForThread("main", &m_iLevel);
        m_Syslog.Clear();
    }
    void TearDown() override
    {
        m_Logger.CancelLogIdForThread();
        m_Logger.SetShowFile(false);
        m_Logger.SetShowLine(true);
    }

    /// @return The only line since the last call; its place in the log does not matter.
    std::string szOnlyLine()
    {
        const std::vector<CSyslogReceiver::Record> records = m_Syslog.Records();
        m_Syslog.Clear();
        return records.size() == 1 ? records[0].szText
                                   : std::to_string(records.size()) + " lines, not one";
    }
    int iLines()
    {
        const size_t nLines = m_Syslog.Records().size();
        m_Syslog.Clear();
        return static_cast<int>(nLines);
    }

    CLogger& m_Logger = CThread::m_Logger;
    CSyslogReceiver& m_Syslog = CSyslogReceiver::Get();
    int m_iLevel = LOG_DEBUG;
};

TEST_F(ALogger, WritesNothingBeforeItIsInitialised)
{
    CLogger fresh;
    for (int iLevel = LOG_EMERG; iLevel <= LOG_DEBUG; ++iLevel) {
        fresh.Log(iLevel, "F.cpp", 12, "void f()", "too early");
    }
    EXPECT_EQ(0, iLines());
}

TEST_F(ALogger, SendsIdentProcessIdAndFacilityLocal0AtEachLevel)
{
    for (int iLevel = LOG_EMERG; iLevel <= LOG_DEBUG; ++iLevel) {
        m_Logger.Log(iLevel, "F.cpp", 12, "void f()", "text");
    }
    const std::vector<CSyslogReceiver::Record> records = m_Syslog.Records();
    ASSERT_EQ(8U, records.size());
    for (int iLevel = LOG_EMERG; iLevel <= LOG_DEBUG; ++iLevel) {
        const CSyslogReceiver::Record& record = records[static_cast<size_t>(iLevel)];
        EXPECT_EQ(128 + iLevel, record.iPriority);
        EXPECT_EQ("logger-test", record.szTag);
        EXPECT_EQ(getpid(), record.iPid);
    }
}

TEST_F(ALogger, WritesLabelThreadFunctionLineAndText)
{
    m_Logger.Log(LOG_INFO, "F.cpp", 12, "void f()", "%s is %d", "answer", 42);
    EXPECT_EQ("main(" + szOwnId() + ") -- void f() / 12 : answer is 42", szOnlyLine());
}

TEST_F(ALogger, ShowsFileAndLineAsAskedFor)
{
    const std::string szHead = "main(" + szOwnId() + ") -- void f() / ";

    m_Logger.SetShowFile(true);
    m_Logger.Log(LOG_INFO, "../src/F.cpp", 12, "void f()", "text");
    EXPECT_EQ(szHead + "../src/F.cpp - 12 : text", szOnlyLine());

    m_Logger.SetShowLine(false);
    m_Logger.Log(LOG_INFO, "../src/F.cpp", 12, "void f()", "text");
    EXPECT_EQ(szHead + "../src/F.cpp - text", szOnlyLine());

    m_Logger.SetShowFile(false);
    m_Logger.Log(LOG_INFO, "../src/F.cpp", 12, "void f()", "text");
    EXPECT_EQ(szHead + "text", szOnlyLine());
}

TEST_F(ALogger, WritesEmptyTextsWhereItIsGivenNone)
{
    m_Logger.SetShowFile(true);
    LogEvent(m_Logger, nullptr, LOG_INFO, 0, "text");
    EXPECT_EQ("(" + szOwnId() + ") -- void f() / F.cpp - 12 : text", szOnlyLine());
    m_Logger.Log(LOG_INFO, nullptr, -1, nullptr, "text");
    EXPECT_EQ("main(" + szOwnId() + ") --  /  - -1 : text", szOnlyLine());
}

TEST_F(ALogger, WritesLongLinesWhole)
{
    const std::string szLong(6000, 'x');
    m_Logger.Log(LOG_INFO, "F.cpp", 12, "void f()", "%s", szLong.c_str());
    EXPECT_EQ("main(" + szOwnId() + ") -- void f() / 12 : " + szLong, szOnlyLine());
}

TEST_F(ALogger, AdmitsErrorsOfAThreadThatIsNotRegisteredAsGEN)
{
    CWorker worker;
    std::string szId;
    worker.Run([&] {
        szId = szOwnId();
        for (int iLevel = LOG_EMERG; iLevel <= LOG_DEBUG; ++iLevel) {
            m_Logger.Log(iLevel, "F.cpp", 12, "void f()", "level %d", iLevel);
        }
    });
    const std::vector<CSyslogReceiver::Record> records = m_Syslog.Records();
    ASSERT_EQ(4U, records.size());
    EXPECT_EQ("GEN(" + szId + ") -- void f() / 12 : level 0", records[0].szText);
    EXPECT_EQ("GEN(" + szId + ") -- void f() / 12 : level 3", records[3].szText);
}

TEST_F(ALogger, AdmitsWhatDoesNotExceedTheLevelOfTheThread)
{
    for (m_iLevel = -1; m_iLevel <= LOG_DEBUG + 1; ++m_iLevel) {
        for (int iLevel = LOG_EMERG; iLevel <= LOG_DEBUG; ++iLevel) {
            m_Logger.Log(iLevel, "F.cpp", 12, "void f()", "text");
            EXPECT_EQ(iLevel <= m_iLevel ? 1 : 0, iLines()) << iLevel << " at " << m_iLevel;
            EXPECT_EQ(iLevel <= m_iLevel, CLogger::bIsEnabled(iLevel));
        }
    }
}

TEST_F(ALogger, FiltersEachThreadByItsOwnLevel)
{
    m_iLevel = LOG_ERR;
    CWorker worker;
    worker.Run([this] {
        int iLevel = LOG_DEBUG;
        m_Logger.SetLogConfigForThread("worker", &iLevel);
        m_Logger.Log(LOG_DEBUG, "F.cpp", 12, "void f()", "seen");
        m_Logger.CancelLogIdForThread();
    });
    m_Logger.Log(LOG_DEBUG, "F.cpp", 12, "void f()", "not seen");
    EXPECT_EQ(1U, m_Syslog.Count("worker("));
    EXPECT_EQ(1, iLines());
}

TEST_F(ALogger, DoesNotFormatWhatItFiltersOut)
{
    const auto iPageSize = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    void* const pNoText = mmap(nullptr, iPageSize, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(MAP_FAILED, pNoText);
    const char* const szNoText = static_cast<const char*>(pNoText);
    m_iLevel = LOG_INFO;

    m_Logger.Log(LOG_DEBUG, szNoText, 12, szNoText, szNoText, szNoText);
    m_Logger.LogHexDump(szNoText, 12, szNoText, szNoText,
                        reinterpret_cast<const unsigned char*>(szNoText), 2000);
    EXPECT_EQ(0, iLines());
    munmap(pNoText, iPageSize);
}

TEST_F(ALogger, AllocatesNothingForWhatItFiltersOut)
{
    const unsigned char aData[100] = {};
    m_iLevel = LOG_INFO;
    const long iBefore = g_iAllocations;
    for (int i = 0; i < 100; ++i) {
        m_Logger.Log(LOG_DEBUG, "F.cpp", 12, "void f()", "%s %d", "text", i);
        m_Logger.LogHexDump("F.cpp", 12, "void f()", "a label that is not short", aData, 100);
        QUORCORE_LOG(LOG_DEBUG, "%s %d", "text", i);
    }
    EXPECT_EQ(iBefore, g_iAllocations);
}

TEST_F(ALogger, KeepsErrno)
{
    for (m_iLevel = LOG_EMERG; m_iLevel <= LOG_DEBUG; m_iLevel += LOG_DEBUG) {
        errno = ENOENT;
        m_Logger.Log(LOG_DEBUG, "F.cpp", 12, "void f()", "text");
        EXPECT_EQ(ENOENT, errno);
        m_Logger.LogHexDump("F.cpp", 12, "void f()", "dump", nullptr, 0);
        EXPECT_EQ(ENOENT, errno);
        LogEvent(m_Logger, "label", LOG_DEBUG, EACCES, "text");
        EXPECT_EQ(ENOENT, errno);
    }
}

TEST_F(ALogger, KnowsTheCallersErrnoByPercentM)
{
    errno = ENOENT;
    const char* szFormat = "open: %m"; // no literal: a pedantic compiler does not know "%m"
    m_Logger.Log(LOG_INFO, "F.cpp", 12, "void f()", szFormat);
    EXPECT_EQ("main(" + szOwnId() + ") -- void f() / 12 : open: No such file or directory",
              szOnlyLine());
}

TEST_F(ALogger, WritesAnEventOfAnyLevelAtAnyTime)
{
    CLogger fresh; // not even initialised
    m_iLevel = LOG_EMERG;
    LogEvent(fresh, "label", LOG_DEBUG, 0, "%d", 5);
    EXPECT_EQ("label(" + szOwnId() + ") -- void f() / 12 : 5", szOnlyLine());
}

TEST_F(ALogger, NamesTheErrnoGivenAndTheTextOfTheCurrentOne)
{
    errno = ENOENT;
    LogEvent(m_Logger, "label", LOG_ERR, EACCES, "%s", "text");
    EXPECT_EQ("label(" + szOwnId() +
                  ") -- void f() / 12 : errno:13 (No such file or directory)\ttext",
              szOnlyLine());

    m_Logger.SetShowFile(true);
    m_Logger.SetShowLine(false);
    errno = 0;
    LogEvent(m_Logger, "label", LOG_ERR, -1, "text");
    EXPECT_EQ("label(" + szOwnId() + ") -- void f() / F.cpp - errno:-1 (Success)\ttext",
              szOnlyLine());
}

TEST_F(ALogger, NamesNoErrnoByItself)
{
    errno = ENOENT;
    m_Logger.Log(LOG_ERR, "F.cpp", 12, "void f()", "text");
    EXPECT_EQ(std::string::npos, szOnlyLine().find("errno"));
}

TEST_F(ALogger, TakesAPercentInALabelAsAConversion)
{
    m_Logger.SetLogConfigForThread("m%dn", &m_iLevel);
    const char* szFormat = "%d %d"; // no literal: the compiler would count the arguments
    m_Logger.Log(LOG_INFO, "F.cpp", 12, "void f()", szFormat, 1, 2, 3);
    EXPECT_EQ("m1n(" + szOwnId() + ") -- void f() / 12 : 2 3", szOnlyLine());
}

TEST_F(ALogger, TakesAPercentInAFunctionOrFileAsAConversion)
{
    m_Logger.SetShowFile(true);
    const char* szFormat = "%d"; // no literal: the compiler would count the arguments
    m_Logger.Log(LOG_INFO, "100%%.cpp", 12, "f<%d>", szFormat, 1, 2);
    EXPECT_EQ("main(" + szOwnId() + ") -- f<1> / 100%.cpp - 12 : 2", szOnlyLine());
}

TEST_F(ALogger, AddsThePlaceOfTheMacro)
{
    m_Logger.SetShowFile(true);
    const int iLine = __LINE__ + 1;
    QUORCORE_LOG(LOG_INFO, "%s", "text");
    EXPECT_EQ("main(" + szOwnId() + ") -- " + __PRETTY_FUNCTION__ +
                  " / ../tests/CLoggerTest.cpp - " + std::to_string(iLine) + " : text",
              szOnlyLine());
}

TEST_F(ALogger, DoesNotEvaluateTheArgumentsOfAMacroThatItFiltersOut)
{
    int iEvaluated = 0;
    const unsigned char iByte = 1;
    m_iLevel = LOG_INFO;
    QUORCORE_LOG(LOG_DEBUG, "%d", ++iEvaluated);
    QUORCORE_LOG_HEX("dump", (++iEvaluated, &iByte), 1);
    EXPECT_EQ(0, iEvaluated);
    QUORCORE_LOG(LOG_INFO, "%d", ++iEvaluated);
    EXPECT_EQ(1, iEvaluated);
}

/// @p iSize bytes 00, 01, ... fe, ff, 00, ... and how they are written.
struct Bytes {
    explicit Bytes(size_t iSize)
    {
        for (size_t i = 0; i < iSize; ++i) {
            const auto iByte = static_cast<unsigned char>(i);
            char aDigits[3];
            std::snprintf(aDigits, sizeof(aDigits), "%02x", unsigned{iByte});
            data.push_back(iByte);
            szDigits.append(aDigits);
        }
    }
    std::vector<unsigned char> data;
    std::string szDigits;
};

TEST_F(ALogger, DumpsBytesAsLowerCaseHexDigits)
{
    const unsigned char aData[] = {0x00, 0x09, 0x0a, 0x7f, 0x80, 0xff};
    m_Logger.LogHexDump("F.cpp", 12, "void f()", "rx", aData, sizeof(aData));
    EXPECT_EQ("main(" + szOwnId() + ") -- void f() / 12 : rx 6:00090a7f80ff", szOnlyLine());
    m_Logger.LogHexDump("F.cpp", 12, "void f()", "rx", aData, 0);
    EXPECT_EQ("main(" + szOwnId() + ") -- void f() / 12 : rx 0:", szOnlyLine());
    m_Logger.LogHexDump("F.cpp", 12, "void f()", nullptr, nullptr, 3);
    EXPECT_EQ("main(" + szOwnId() + ") -- void f() / 12 :  3:", szOnlyLine());
}

TEST_F(ALogger, DumpsAtMost2048Bytes)
{
    const Bytes bytes(3000);
    const std::string szHead = "main(" + szOwnId() + ") -- void f() / 12 : rx ";
    m_Logger.LogHexDump("F.cpp", 12, "void f()", "rx", bytes.data.data(), 2048);
    EXPECT_EQ(szHead + "2048:" + bytes.szDigits.substr(0, 4096), szOnlyLine());
    m_Logger.LogHexDump("F.cpp", 12, "void f()", "rx", bytes.data.data(), 2049);
    EXPECT_EQ(szHead + "2049:" + bytes.szDigits.substr(0, 4094), szOnlyLine());
    m_Logger.LogHexDump("F.cpp", 12, "void f()", "rx", bytes.data.data(), 3000);
    EXPECT_EQ(szHead + "3000:" + bytes.szDigits.substr(0, 4094), szOnlyLine());
}

TEST_F(ALogger, DoesNotOverrunABufferWhoseSizeIsSaidToBeHuge)
{
    const Bytes bytes(2047); // all that may be read
    m_Logger.LogHexDump("F.cpp", 12, "void f()", "rx", bytes.data.data(), 0x80000000U);
    EXPECT_EQ("main(" + szOwnId() + ") -- void f() / 12 : rx 2147483648:" + bytes.szDigits,
              szOnlyLine());
    m_Logger.LogHexDump("F.cpp", 12, "void f()", "rx", bytes.data.data(), 0xffffffffU);
    EXPECT_EQ("main(" + szOwnId() + ") -- void f() / 12 : rx 4294967295:" + bytes.szDigits,
              szOnlyLine());
}

TEST_F(ALogger, DumpsAtDebugLevelOnly)
{
    const unsigned char aData[] = {1};
    m_Logger.LogHexDump("F.cpp", 12, "void f()", "rx", aData, 1);
    EXPECT_EQ(LOG_DEBUG, m_Syslog.Records().at(0).iLevel);
    m_Syslog.Clear();
    m_iLevel = LOG_INFO;
    m_Logger.LogHexDump("F.cpp", 12, "void f()", "rx", aData, 1);
    EXPECT_EQ(0, iLines());
}

TEST_F(ALogger, DumpsALabelAsItIs)
{
    const unsigned char aData[] = {1};
    m_Logger.LogHexDump("F.cpp", 12, "void f()", "100%s%n", aData, 1);
    EXPECT_EQ("main(" + szOwnId() + ") -- void f() / 12 : 100%s%n 1:01", szOnlyLine());
}

TEST_F(ALogger, DumpsFromTheMacro)
{
    const unsigned char aData[] = {0xab, 0xcd};
    const int iLine = __LINE__ + 1;
    QUORCORE_LOG_HEX("rx", aData, 2);
    EXPECT_EQ("main(" + szOwnId() + ") -- " + __PRETTY_FUNCTION__ + " / " + std::to_string(iLine) +
                  " : rx 2:abcd",
              szOnlyLine());
}

// Not inlined and no tail call: a frame for each call, found by name through -rdynamic.
__attribute__((noinline)) void WriteBacktraceAtDepth(CLogger& logger, int iDepth)
{
    volatile int iKeepsTheFrame = iDepth;
    if (iDepth > 0) {
        WriteBacktraceAtDepth(logger, iKeepsTheFrame - 1);
    } else {
        logger.WriteBacktrace();
    }
    iKeepsTheFrame = 0;
}

TEST_F(ALogger, WritesTheStackAsOneRecordOfLevel0)
{
    CWorker worker; // an unregistered thread at level 3: no filter, no label
    worker.Run([this] { m_Logger.WriteBacktrace(); });
    const std::vector<CSyslogReceiver::Record> records = m_Syslog.Records();
    ASSERT_EQ(1U, records.size());
    EXPECT_EQ(LOG_LOCAL0 | LOG_EMERG, records[0].iPriority);
    const std::string& szText = records[0].szText;
    EXPECT_EQ('\t', szText.front());
    EXPECT_EQ('\n', szText.back());
    EXPECT_NE(std::string::npos, szText.find("WriteBacktrace"));
    EXPECT_NE(std::string::npos, szText.find("]\n\t")) << "one frame per line, each after a tab";
    EXPECT_EQ(std::string::npos, szText.find("\n\n"));
}

TEST_F(ALogger, WritesAtMost32FramesOfTheStack)
{
    WriteBacktraceAtDepth(m_Logger, 100);
    const std::string szText = szOnlyLine();
    EXPECT_EQ(32, std::count(szText.begin(), szText.end(), '\n'));
    EXPECT_EQ(32, std::count(szText.begin(), szText.end(), '\t'));
}

TEST_F(ALogger, KnowsTheTextsOfErrorNumbers)
{
    EXPECT_EQ("Permission denied", m_Logger.strerrorT(EACCES));
    EXPECT_EQ("Success", m_Logger.strerrorT(0));
    EXPECT_EQ("Unknown error 9999", m_Logger.strerrorT(9999));
    EXPECT_EQ("Unknown error -3", m_Logger.strerrorT(-3));
}

TEST_F(ALogger, KnowsTheTextsOfErrorNumbersInSeveralThreads)
{
    // A text that the C library composes anew for each call, in a buffer of the thread or not.
    CWorker worker;
    std::atomic<bool> bEnd{false};
    worker.Start([this, &bEnd] {
        while (!bEnd) {
            EXPECT_EQ("Unknown error 8888", m_Logger.strerrorT(8888));
        }
    });
    for (int i = 0; i < 2000; ++i) {
        EXPECT_EQ("Unknown error 9999", m_Logger.strerrorT(9999));
    }
    bEnd = true;
}
} // namespace
