#include "libQuorCore/CGpio.h"

#include "support/CChild.h"
#include "support/CDeadline.h"
#include "support/CLogLevel.h"
#include "support/CSysClass.h"
#include "support/CSyslogReceiver.h"
#include "support/Files.h"
#include "support/ProcessFacts.h"

#include "internal/CUniqueFd.h"

#include <atomic>
#include <chrono>
#include <climits>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <locale>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <type_traits>
#include <unistd.h>
#include <utility>
#include <vector>

using namespace QuorCore;
using namespace TestSupport;
using namespace std::string_literals;

namespace
{
using journal_t = std::vector<std::string>;
constexpr int kLine = 42;

static_assert(!std::is_polymorphic_v<CGpio>, "users copy its layout");
static_assert(!std::is_copy_constructible_v<CGpio> && !std::is_copy_assignable_v<CGpio>,
              "two would close the same descriptors");
static_assert(!std::is_assignable_v<CGpio&, const char*>, "a pointer is no level");

/// What a derived class sees.
class COpenGpio : public CGpio
{
public:
    using CGpio::CGpio;
    using CGpio::operator=;
    using CGpio::exported;
    using CGpio::fdTable;
    using CGpio::m_szLabel;
    using CGpio::number;
    using CGpio::path;
    using CGpio::shall_unexport;
};

template <class Enum>
std::string szWritten(int iValue)
{
    std::ostringstream stream;
    stream << static_cast<Enum>(iValue);
    return stream.str();
}

/// @return What is read from a text, or nothing for one that is refused.
template <class Enum>
std::string szRead(const std::string& szText)
{
    std::istringstream stream(szText);
    auto value = static_cast<Enum>(3);
    stream >> value;
    return stream.fail() ? "refused, " + std::to_string(value) : std::to_string(value);
}

TEST(TheTextsOfAGpio, AreWrittenInLowerCase)
{
    const std::vector<std::string> directions = {"in", "out", "low", "high", "", ""};
    const std::vector<std::string> edges = {"none", "rising", "falling", "both", "", ""};
    const std::vector<std::string> files = {"value", "direction", "edge", "active_low", "", ""};
    for (int i = 0; i < 6; ++i) {
        const auto n = static_cast<size_t>(i);
        EXPECT_EQ(directions[n], szWritten<CGpio::EDirection>(i));
        EXPECT_EQ(edges[n], szWritten<CGpio::EEdge>(i));
        EXPECT_EQ(files[n], szWritten<CGpio::EFile>(i));
    }
    EXPECT_EQ("", szWritten<CGpio::EDirection>(-1));
}

TEST(TheTextsOfAGpio, AreReadInEitherCase)
{
    EXPECT_EQ("0", szRead<CGpio::EDirection>("in\n"));
    EXPECT_EQ("0", szRead<CGpio::EDirection>("IN"));
    EXPECT_EQ("1", szRead<CGpio::EDirection>("  out"));
    EXPECT_EQ("1", szRead<CGpio::EDirection>("OUT"));
    EXPECT_EQ("2", szRead<CGpio::EDirection>("low"));
    EXPECT_EQ("2", szRead<CGpio::EDirection>("LOW"));
    EXPECT_EQ("3", szRead<CGpio::EDirection>("high"));
    EXPECT_EQ("3", szRead<CGpio::EDirection>("HIGH"));
    EXPECT_EQ("0", szRead<CGpio::EEdge>("none"));
    EXPECT_EQ("0", szRead<CGpio::EEdge>("NONE"));
    EXPECT_EQ("1", szRead<CGpio::EEdge>("rising"));
    EXPECT_EQ("1", szRead<CGpio::EEdge>("RISING"));
    EXPECT_EQ("2", szRead<CGpio::EEdge>("falling"));
    EXPECT_EQ("2", szRead<CGpio::EEdge>("FALLING"));
    EXPECT_EQ("3", szRead<CGpio::EEdge>("both"));
    EXPECT_EQ("3", szRead<CGpio::EEdge>("BOTH"));
    EXPECT_EQ("0", szRead<CGpio::EFile>("value"));
    EXPECT_EQ("0", szRead<CGpio::EFile>("VALUE"));
    EXPECT_EQ("1", szRead<CGpio::EFile>("direction"));
    EXPECT_EQ("1", szRead<CGpio::EFile>("DIRECTION"));
    EXPECT_EQ("2", szRead<CGpio::EFile>("edge"));
    EXPECT_EQ("2", szRead<CGpio::EFile>("EDGE"));
    EXPECT_EQ("3", szRead<CGpio::EFile>("active_low"));
    EXPECT_EQ("3", szRead<CGpio::EFile>("ACTIVE_LOW"));
}

TEST(TheTextsOfAGpio, RefuseAnyOther)
{
    for (const char* szText : {"", "In", "inn", "1", "\n"}) {
        EXPECT_EQ("refused, 0", szRead<CGpio::EDirection>(szText)) << szText; // it is IN then
        EXPECT_EQ("refused, 3", szRead<CGpio::EEdge>(szText)) << szText;
        EXPECT_EQ("refused, 3", szRead<CGpio::EFile>(szText)) << szText;
    }
}

TEST(TheNameOfALine, IsMadeOfItsNumber)
{
    EXPECT_EQ("gpio0", num2name(0));
    EXPECT_EQ("gpio42", num2name(42));
    EXPECT_EQ("gpio2147483647", num2name(INT_MAX));
    EXPECT_EQ("gpio-1", num2name(-1));
}

TEST(TheNameOfALine, TellsItsNumber)
{
    EXPECT_EQ(42, name2num("gpio42"));
    EXPECT_EQ(0, name2num("gpio0"));
    EXPECT_EQ(7, name2num("line7")); // the first four are not looked at
    EXPECT_EQ(-1, name2num("gpio"));
    EXPECT_EQ(-1, name2num("gpi"));
    EXPECT_EQ(-1, name2num(""));
    EXPECT_EQ(-1, name2num(nullptr));
    EXPECT_EQ(0, name2num("gpiochip0"));
    EXPECT_EQ(INT_MAX, name2num("gpio99999999999999999999"));
}

TEST(AGpio, BeginsWithNothingOpen)
{
    const size_t nBefore = nOpenDescriptors();
    COpenGpio gpio(kLine);
    EXPECT_EQ(42, gpio.number);
    EXPECT_FALSE(gpio.exported);
    EXPECT_TRUE(gpio.shall_unexport);
    EXPECT_EQ("/sys/class/gpio/gpio42/", gpio.path);
    for (const int iFd : gpio.fdTable) {
        EXPECT_EQ(-1, iFd);
    }
    EXPECT_EQ("CGpio", COpenGpio::m_szLabel);
    EXPECT_EQ(nBefore, nOpenDescriptors());
}

/// Lines over plain files; none exists at first, and nobody makes one when it is exported.
class AGpioOverFiles : public ::testing::Test
{
protected:
    void SetUp() override { CSyslogReceiver::Get().Clear(); }

    void MakeLine(const std::string& szDirection, const std::string& szValue)
    {
        const std::string szLine = m_SysClass.szMakeDirectory("gpio/gpio42");
        WriteFile(szLine + "value", szValue);
        WriteFile(szLine + "direction", szDirection);
        WriteFile(szLine + "edge", "none\n");
        WriteFile(szLine + "active_low", "0\n");
    }
    std::string szContent(const char* szFile) { return szReadFile(m_szLine + szFile); }
    void SetContent(const char* szFile, const std::string& szText)
    {
        WriteFile(m_szLine + szFile, szText);
    }

    /// @return The lines logged since the last call, as "LEVEL TEXT".
    std::vector<std::string> Logged()
    {
        std::vector<std::string> lines;
        for (const auto& record : CSyslogReceiver::Get().Records()) {
            const size_t text = record.szText.find(" : ");
            lines.push_back(std::to_string(record.iLevel) + ' ' + record.szText.substr(text + 3));
        }
        CSyslogReceiver::Get().Clear();
        return lines;
    }

    CLogLevel m_LogLevel;
    CSysClass m_SysClass;
    const std::string m_szLine = "/sys/class/gpio/gpio42/";
    COpenGpio m_Gpio{kLine};
};

TEST_F(AGpioOverFiles, SaysThatItIsNotExported)
{
    const std::string szNot = " : Gpio 42 (/sys/class/gpio/gpio42/) not exported";
    const std::vector<std::pair<std::string, std::function<void()>>> operations = {
        {"setValue", [&] { m_Gpio.setValue(1); }},
        {"toggleValue", [&] { m_Gpio.toggleValue(); }},
        {"getValue", [&] { EXPECT_EQ(0, m_Gpio.getValue()); }},
        {"setEdge", [&] { m_Gpio.setEdge(CGpio::RISING); }},
        {"setActiveLow", [&] { m_Gpio.setActiveLow(true); }},
        {"getActiveLow", [&] { EXPECT_FALSE(m_Gpio.getActiveLow()); }},
        {"operator=", [&] { m_Gpio = 1; }},
        {"operator=", [&] { m_Gpio = true; }},
    };
    for (const auto& [szName, operation] : operations) {
        operation();
        EXPECT_EQ(journal_t{"3 " + szName + szNot}, Logged());
    }
}

TEST_F(AGpioOverFiles, SaysInOtherWordsThatADirectionCannotBeSet)
{
    m_Gpio.setDirection(CGpio::OUT, 1);
    EXPECT_EQ(journal_t{"3 Gpio 42 (/sys/class/gpio/gpio42/) not exported"}, Logged());
}

TEST_F(AGpioOverFiles, TriesToReadTheDirectionAllTheSame)
{
    EXPECT_EQ(CGpio::IN, m_Gpio.getDirection());
    EXPECT_EQ(
        (journal_t{"3 getDirection : Gpio 42 (/sys/class/gpio/gpio42/) not exported",
                   "3 lseek error(readGpioFile /sys/class/gpio/gpio42/): Bad file descriptor"}),
        Logged());
}

TEST_F(AGpioOverFiles, ReadsNoEdgeOfAFileThatIsNotOpen)
{
    EXPECT_EQ(CGpio::NONE, m_Gpio.getEdge());
    EXPECT_EQ(journal_t{"3 lseek error(readGpioFile /sys/class/gpio/gpio42/): Bad file descriptor"},
              Logged());
}

TEST_F(AGpioOverFiles, WaitsASecondForAnEdgeOfNoLine)
{
    int iValue = 7;
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_FALSE(m_Gpio.bWait4Edge(0, &iValue));
    EXPECT_LE(std::chrono::seconds(1), std::chrono::steady_clock::now() - begin);
    EXPECT_EQ(7, iValue);
    EXPECT_EQ(journal_t{"3 bWait4Edge : Gpio 42 (/sys/class/gpio/gpio42/) not exported"}, Logged());
}

TEST_F(AGpioOverFiles, HasNoTextBeforeItIsExported)
{
    std::ostringstream stream;
    stream << m_Gpio;
    EXPECT_EQ("", m_Gpio.toString());
    EXPECT_EQ("", stream.str());
    EXPECT_EQ(journal_t(), Logged());
}

TEST_F(AGpioOverFiles, CannotBeExportedWhereThereIsNoGpio)
{
    EXPECT_FALSE(m_Gpio.bExport());
    m_Gpio.UnExport();
    EXPECT_EQ(journal_t(), Logged());
    m_Gpio.init(CGpio::IN, false, CGpio::NONE);
    EXPECT_EQ(
        (journal_t{"3 Cannot stat /sys/class/gpio/gpio42//value file - No such file or directory",
                   "5 Gpio 42 (/sys/class/gpio/gpio42/) initialized"}),
        Logged());
    EXPECT_FALSE(m_Gpio.exported);
}

TEST_F(AGpioOverFiles, IsExportedByItsNumberAlone)
{
    const std::string szClass = m_SysClass.szMakeDirectory("gpio");
    WriteFile(szClass + "export", "7");
    WriteFile(szClass + "unexport", "8");
    EXPECT_TRUE(m_Gpio.bExport());
    m_Gpio.UnExport();
    EXPECT_EQ("742", szReadFile(szClass + "export")); // appended, without a line feed
    EXPECT_EQ("842", szReadFile(szClass + "unexport"));
}

TEST_F(AGpioOverFiles, ShowsARefusedNumberByItsFiles)
{
    WriteFile(m_SysClass.szMakeDirectory("gpio") + "export", "");
    m_Gpio.init(CGpio::IN, false, CGpio::NONE);
    EXPECT_TRUE(m_Gpio.exported); // the kernel could be asked; here nobody makes the files
    const std::string szOpen = "3 could not open GPIO file /sys/class/gpio/gpio42/";
    const std::string szWhy = " : No such file or directory";
    EXPECT_EQ((journal_t{szOpen + "value" + szWhy, szOpen + "direction" + szWhy,
                         szOpen + "edge" + szWhy, szOpen + "active_low" + szWhy,
                         "5 Gpio 42 (/sys/class/gpio/gpio42/) initialized"}),
              Logged());
}

TEST_F(AGpioOverFiles, OpensItsFilesInOrder)
{
    MakeLine("in\n", "0\n");
    CFileJournal journal(m_szLine);
    m_Gpio.init(CGpio::IN, false, CGpio::NONE);
    EXPECT_EQ((journal_t{"open value", "open direction", "open edge", "open active_low"}),
              journal.Take());
    EXPECT_EQ(journal_t{"5 Gpio 42 (/sys/class/gpio/gpio42/) initialized"}, Logged());
    EXPECT_TRUE(m_Gpio.exported);
    for (const int iFd : m_Gpio.fdTable) {
        EXPECT_LT(0, iFd);
        EXPECT_EQ(FD_CLOEXEC, fcntl(iFd, F_GETFD));
        EXPECT_EQ(O_RDWR, fcntl(iFd, F_GETFL) & O_ACCMODE);
    }
}

TEST_F(AGpioOverFiles, SetsUpAnInputByItsEdgeAlone)
{
    MakeLine("out\n", "1\n"); // whatever the direction is
    CFileJournal journal(m_szLine);
    m_Gpio.init(CGpio::IN, false, CGpio::RISING);
    EXPECT_EQ(
        (journal_t{"open value", "open direction", "open edge", "open active_low", "write edge"}),
        journal.Take());
    EXPECT_EQ("rising\0"s, szContent("edge"));
    EXPECT_EQ("out\n", szContent("direction"));
    EXPECT_EQ(2, lseek(m_Gpio.fdTable[CGpio::VALUE], 0, SEEK_CUR)); // was read: clears an event
    EXPECT_EQ((journal_t{"7 GPIO /sys/class/gpio/gpio42/ set to: rising",
                         "5 Gpio 42 (/sys/class/gpio/gpio42/) initialized"}),
              Logged());
}

TEST_F(AGpioOverFiles, IsNotExportedTwice)
{
    MakeLine("in\n", "0\n");
    const std::string szClass = m_SysClass.szMakeDirectory("gpio");
    WriteFile(szClass + "export", "");
    m_Gpio.init(CGpio::IN, false, CGpio::NONE);
    EXPECT_EQ("", szReadFile(szClass + "export"));
}

TEST_F(AGpioOverFiles, SetsUpAnInputThatIsInverted)
{
    MakeLine("in\n", "0\n");
    m_Gpio.init(CGpio::IN, true, CGpio::NONE);
    EXPECT_EQ("1\0"s, szContent("active_low"));
    EXPECT_EQ("none\n", szContent("edge")); // NONE leaves it as it is
}

TEST_F(AGpioOverFiles, SetsUpNothingForADirectionThatIsNone)
{
    MakeLine("in\n", "0\n");
    m_Gpio.init(static_cast<CGpio::EDirection>(9), false, CGpio::RISING);
    EXPECT_EQ("in\n", szContent("direction"));
    EXPECT_EQ("none\n", szContent("edge"));
}

TEST_F(AGpioOverFiles, SetsUpAnOutput)
{
    MakeLine("in\n", "0\n");
    CFileJournal journal(m_szLine);
    m_Gpio.init(CGpio::OUT, true, CGpio::BOTH);
    EXPECT_EQ((journal_t{"open value", "open direction", "open edge", "open active_low",
                         "write direction", "write edge", "write active_low"}),
              journal.Take());
    EXPECT_EQ("out\0"s, szContent("direction"));
    EXPECT_EQ("none\0"s, szContent("edge")); // whatever edge was asked for
    EXPECT_EQ("1\0"s, szContent("active_low"));
    EXPECT_EQ((journal_t{"7 GPIO /sys/class/gpio/gpio42/ set to: out",
                         "7 GPIO /sys/class/gpio/gpio42/ set to: none",
                         "7 GPIO /sys/class/gpio/gpio42/ set to: 1",
                         "5 Gpio 42 (/sys/class/gpio/gpio42/) initialized"}),
              Logged());
}

TEST_F(AGpioOverFiles, SetsUpAnOutputWithItsFirstLevel)
{
    MakeLine("in\n", "0\n");
    m_Gpio.init(CGpio::LOW, false, CGpio::NONE);
    EXPECT_EQ("low\0"s, szContent("direction"));
    m_Gpio.init(CGpio::HIGH, false, CGpio::NONE);
    EXPECT_EQ("high\0"s, szContent("direction"));
    EXPECT_EQ("0\n", szContent("active_low")); // false leaves it as it is
}

TEST_F(AGpioOverFiles, KeepsItsFilesWhenItIsSetUpAgain)
{
    MakeLine("in\n", "0\n");
    m_Gpio.init(CGpio::IN, false, CGpio::NONE);
    const size_t nBefore = nOpenDescriptors();
    CFileJournal journal(m_szLine);
    m_Gpio.init(CGpio::IN, false, CGpio::NONE);
    EXPECT_EQ(journal_t(), journal.Take());
    EXPECT_EQ(nBefore + 1, nOpenDescriptors()); // the journal's own
}

TEST_F(AGpioOverFiles, ClosesItsFilesAndStaysExported)
{
    MakeLine("in\n", "0\n");
    const std::string szClass = m_SysClass.szMakeDirectory("gpio");
    WriteFile(szClass + "unexport", "");
    const size_t nBefore = nOpenDescriptors();
    {
        CGpio gpio(kLine);
        gpio.init(CGpio::IN, false, CGpio::NONE);
        EXPECT_EQ(nBefore + 4, nOpenDescriptors());
    }
    EXPECT_EQ(nBefore, nOpenDescriptors());
    EXPECT_EQ("", szReadFile(szClass + "unexport"));
}

TEST_F(AGpioOverFiles, DoesNotTakeThePlaceOfTheStandardInput)
{
    MakeLine("in\n", "0\n");
    const ChildResult result = RunInChild([&] {
        close(STDIN_FILENO);
        COpenGpio gpio(kLine);
        const bool bRefused = gpio.openFile(CGpio::VALUE) == -1 && gpio.fdTable[CGpio::VALUE] == -1;
        return bRefused && fcntl(STDIN_FILENO, F_GETFD) == -1 ? 0 : 1;
    });
    EXPECT_EQ(0, result.iExitCode);
    EXPECT_EQ(
        journal_t{"3 could not open GPIO file /sys/class/gpio/gpio42/value : Bad file descriptor"},
        Logged());
}

TEST_F(AGpioOverFiles, DoesNotWaitForAPipeInAFilesPlace)
{
    for (const std::string& szFile : {m_SysClass.szMakeDirectory("gpio") + "export",
                                      m_SysClass.szMakeDirectory("gpio") + "unexport",
                                      m_SysClass.szMakeDirectory("gpio/gpio42") + "value"}) {
        ASSERT_EQ(0, mkfifo(szFile.c_str(), 0600));
    }
    const ChildResult result = RunInChild([this] { // where it can be ended if it does
        const bool bExported = m_Gpio.bExport();
        m_Gpio.UnExport();
        m_Gpio.init(CGpio::IN, false, CGpio::NONE);
        return !bExported && m_Gpio.getValue() == 0 && !m_Gpio.bWait4Edge(10, nullptr) ? 0 : 1;
    });
    EXPECT_EQ(0, result.iExitCode);
    EXPECT_EQ(2U, CSyslogReceiver::Get().Count(
                      "lseek error(readGpioFile /sys/class/gpio/gpio42/): Illegal seek"));
}

TEST_F(AGpioOverFiles, OpensNoDirectoryInAFilesPlace)
{
    m_SysClass.szMakeDirectory("gpio/gpio42/value");
    EXPECT_EQ(-1, m_Gpio.openFile(CGpio::VALUE));
    EXPECT_EQ(journal_t{"3 could not open GPIO file /sys/class/gpio/gpio42/value : Is a directory"},
              Logged());
}

TEST_F(AGpioOverFiles, OpensOnlyFilesThatItHas)
{
    EXPECT_EQ(-1, m_Gpio.openFile(CGpio::MAX_FD));
    EXPECT_EQ(-1, m_Gpio.openFile(static_cast<CGpio::EFile>(-1)));
    EXPECT_EQ(0, m_Gpio.readGpioFile<int>(CGpio::MAX_FD));
    EXPECT_EQ(-1, m_Gpio.getFd(CGpio::MAX_FD));
}

/// A line that is there and set up.
class AnInputOverFiles : public AGpioOverFiles
{
protected:
    void SetUp() override
    {
        MakeLine("in\n", "0\n");
        m_Gpio.init(CGpio::IN, false, CGpio::NONE);
        CSyslogReceiver::Get().Clear();
    }
};

TEST_F(AnInputOverFiles, IsReadAsText)
{
    EXPECT_EQ(CGpio::IN, m_Gpio.getDirection());
    EXPECT_EQ(0, m_Gpio.getValue());
    EXPECT_EQ(CGpio::NONE, m_Gpio.getEdge());
    EXPECT_FALSE(m_Gpio.getActiveLow());
    SetContent("value", "1\n");
    SetContent("edge", "falling\n");
    SetContent("active_low", "1\n");
    EXPECT_EQ(1, m_Gpio.getValue());
    EXPECT_EQ(CGpio::FALLING, m_Gpio.getEdge());
    EXPECT_TRUE(m_Gpio.getActiveLow());
    EXPECT_EQ(journal_t(), Logged());
}

TEST_F(AnInputOverFiles, IsReadUpToAZeroByteAndNoFurtherThan19Bytes)
{
    SetContent("value", "12\0003\n"s);
    EXPECT_EQ(12, m_Gpio.getValue());
    SetContent("value", "0000000000000000001234\n");
    EXPECT_EQ(1, m_Gpio.getValue());
    SetContent("value", "   5");
    EXPECT_EQ(5, m_Gpio.getValue());
}

TEST_F(AnInputOverFiles, ReadsATextThatItDoesNotKnowAsZero)
{
    SetContent("edge", "sideways\n");
    EXPECT_EQ(CGpio::NONE, m_Gpio.getEdge());
    SetContent("direction", "sideways\n");
    EXPECT_EQ(CGpio::IN, m_Gpio.getDirection());
    SetContent("value", "high\n");
    EXPECT_EQ(0, m_Gpio.getValue());
}

TEST_F(AnInputOverFiles, SaysThatAFileCannotBeRead)
{
    SetContent("value", "");
    EXPECT_EQ(0, m_Gpio.getValue());
    SetContent("active_low", "");
    EXPECT_FALSE(m_Gpio.getActiveLow());
    const std::string szNot =
        "3 could not read GPIO (/sys/class/gpio/gpio42/) file /sys/class/gpio/gpio42/";
    EXPECT_EQ((journal_t{szNot + "0", szNot + "3"}), Logged());
}

TEST_F(AnInputOverFiles, CannotBeSet)
{
    m_Gpio.setValue(1);
    EXPECT_EQ(journal_t{"3 Gpio /sys/class/gpio/gpio42/ is open for reading only"}, Logged());
    m_Gpio = true;
    m_Gpio.toggleValue();
    EXPECT_EQ("0\n", szContent("value"));
}

TEST_F(AnInputOverFiles, TakesAnEdge)
{
    m_Gpio.setEdge(CGpio::BOTH);
    EXPECT_EQ("both\0"s, szContent("edge"));
    EXPECT_EQ(journal_t{"7 GPIO /sys/class/gpio/gpio42/ set to: both"}, Logged());
}

TEST_F(AnInputOverFiles, IsMadeAnOutputWithALevel)
{
    m_Gpio.setDirection(CGpio::OUT, 1);
    EXPECT_EQ("out\0"s, szContent("direction"));
    EXPECT_EQ("1\0"s, szContent("value"));
    m_Gpio.setDirection(CGpio::LOW, 1); // has its own level
    EXPECT_EQ("low\0"s, szContent("direction"));
    EXPECT_EQ((journal_t{"7 GPIO /sys/class/gpio/gpio42/ set to: out",
                         "7 GPIO /sys/class/gpio/gpio42/ set to: 1",
                         "7 GPIO /sys/class/gpio/gpio42/ set to: low"}),
              Logged());
}

TEST_F(AnInputOverFiles, IsInvertedByAFlag)
{
    m_Gpio.setActiveLow(true);
    EXPECT_EQ("1\0"s, szContent("active_low"));
    EXPECT_TRUE(m_Gpio.getActiveLow());
    m_Gpio.setActiveLow(false);
    EXPECT_EQ("0\0"s, szContent("active_low"));
    EXPECT_EQ((journal_t{"7 GPIO /sys/class/gpio/gpio42/ set to: 1",
                         "7 GPIO /sys/class/gpio/gpio42/ set to: 0"}),
              Logged());
}

TEST_F(AnInputOverFiles, WritesWhatHasNoTextAsAZeroByte)
{
    m_Gpio.setDirection(static_cast<CGpio::EDirection>(9), 1);
    EXPECT_EQ("\0n\n"s, szContent("direction")); // over the beginning of "in"
}

TEST_F(AnInputOverFiles, SaysThatItCannotWriteAndWhatItWouldHaveBeen)
{
    close(m_Gpio.fdTable[CGpio::EDGE]);
    m_Gpio.fdTable[CGpio::EDGE] = open((m_szLine + "edge").c_str(), O_RDONLY | O_CLOEXEC);
    m_Gpio.setEdge(CGpio::RISING);
    EXPECT_EQ((journal_t{"3 could not write GPIO (/sys/class/gpio/gpio42/) file "
                         "/sys/class/gpio/gpio42/2",
                         "7 GPIO /sys/class/gpio/gpio42/ set to: rising"}),
              Logged());
}

TEST_F(AnInputOverFiles, SaysThatItCannotSeek)
{
    close(std::exchange(m_Gpio.fdTable[CGpio::EDGE], -1));
    m_Gpio.setEdge(CGpio::RISING);
    EXPECT_EQ(journal_t{"3 lseek error (/sys/class/gpio/gpio42/): Bad file descriptor"}, Logged());
}

TEST_F(AnInputOverFiles, IsToldInOneLine)
{
    EXPECT_EQ("CGpio 42(/sys/class/gpio/gpio42/) < in, 0, none, a_ldisabled >", m_Gpio.toString());
    SetContent("direction", "out\n");
    SetContent("value", "1\n");
    SetContent("edge", "both\n");
    SetContent("active_low", "1\n");
    std::ostringstream stream;
    stream << m_Gpio;
    EXPECT_EQ("CGpio 42(/sys/class/gpio/gpio42/) < out, 1, both, a_lenabled >", stream.str());
}

TEST_F(AnInputOverFiles, LendsADescriptor)
{
    const CUniqueFd duplicate(m_Gpio.getFd(CGpio::DIRECTION));
    ASSERT_LE(1, duplicate.iGet());
    EXPECT_NE(m_Gpio.fdTable[CGpio::DIRECTION], duplicate.iGet());
    EXPECT_EQ(FD_CLOEXEC, fcntl(duplicate.iGet(), F_GETFD));
    char aText[8] = "";
    EXPECT_EQ(3, pread(duplicate.iGet(), aText, sizeof(aText), 0));
    EXPECT_STREQ("in\n", aText);
}

TEST_F(AnInputOverFiles, LendsNothingInThePlaceOfTheStandardInput)
{
    const ChildResult result = RunInChild([this] {
        close(STDIN_FILENO);
        return m_Gpio.getFd(CGpio::VALUE) > 0 && fcntl(STDIN_FILENO, F_GETFD) == -1 ? 0 : 1;
    });
    EXPECT_EQ(0, result.iExitCode);
}

TEST_F(AnInputOverFiles, LendsNothingThatItHasNot)
{
    close(std::exchange(m_Gpio.fdTable[CGpio::EDGE], -1));
    EXPECT_EQ(-1, m_Gpio.getFd(CGpio::EDGE));
    EXPECT_EQ(journal_t{"3 failed to to duplicate gpio fd : Bad file descriptor"}, Logged());
}

TEST_F(AnInputOverFiles, ThatIsHighIsNotWaitedFor)
{
    SetContent("value", "1\n");
    int iValue = 7;
    EXPECT_TRUE(m_Gpio.bWait4Edge(-1, &iValue)); // for ever, if it waited
    EXPECT_EQ(7, iValue);
    EXPECT_EQ(journal_t(), Logged());
    SetContent("value", "2\n"); // not 0 and not 1: no line says so
    EXPECT_FALSE(m_Gpio.bWait4Edge(-1, &iValue));
}

TEST_F(AnInputOverFiles, IsWaitedForUpToALimit)
{
    int iValue = 7;
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_FALSE(m_Gpio.bWait4Edge(30, &iValue));
    EXPECT_LE(std::chrono::milliseconds(30), std::chrono::steady_clock::now() - begin);
    EXPECT_EQ(7, iValue);
    EXPECT_EQ(journal_t{"7 timeout happened"}, Logged());
}

// The list of mounts has events as the file of a line has; it does not begin with a number.
TEST_F(AnInputOverFiles, TellsWhatAnEventHasBrought)
{
    close(m_Gpio.fdTable[CGpio::VALUE]);
    m_Gpio.fdTable[CGpio::VALUE] = open("/proc/self/mounts", O_RDONLY | O_CLOEXEC);
    const auto makeEvent = [] { const CSysClass mounted; };
    int iValue = 7;
    makeEvent();
    EXPECT_FALSE(m_Gpio.bWait4Edge(kAwaitLimitMs, &iValue));
    EXPECT_EQ(0, iValue);
    EXPECT_EQ(journal_t{"6 POLLPRI | POLLIN interruption / the current value is 0"}, Logged());
    makeEvent();
    EXPECT_FALSE(m_Gpio.bWait4Edge(kAwaitLimitMs, nullptr));
    EXPECT_EQ(journal_t(), Logged()) << "nobody wants to know the value";
}

TEST_F(AnInputOverFiles, OpensItsValueForAWaitAgain)
{
    close(std::exchange(m_Gpio.fdTable[CGpio::VALUE], -1));
    EXPECT_FALSE(m_Gpio.bWait4Edge(0, nullptr));
    EXPECT_LT(0, m_Gpio.fdTable[CGpio::VALUE]);
    close(std::exchange(m_Gpio.fdTable[CGpio::VALUE], -1));
    std::filesystem::remove(m_szLine + "value");
    EXPECT_FALSE(m_Gpio.bWait4Edge(-1, nullptr));
}

void OnSignal(int) {}

TEST_F(AnInputOverFiles, IsNotWaitedForAnyLongerAfterASignal)
{
    const pthread_t waiting = pthread_self();
    struct sigaction action = {};
    action.sa_handler = OnSignal; // without SA_RESTART, which poll(2) does not heed anyway
    ASSERT_EQ(0, sigaction(SIGUSR1, &action, nullptr));
    std::atomic<bool> bEnd{false};
    std::thread other([&] { // as often as needed: the first may come before the wait
        while (!bEnd) {
            pthread_kill(waiting, SIGUSR1);
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    });
    EXPECT_FALSE(m_Gpio.bWait4Edge(-1, nullptr));
    bEnd = true;
    other.join();
    EXPECT_EQ(journal_t{"3 cannot poll on file /sys/class/gpio/gpio42//value"}, Logged());
}

/// An output that is there and set up.
class AnOutputOverFiles : public AGpioOverFiles
{
protected:
    void SetUp() override
    {
        MakeLine("out\n", "0\n");
        m_Gpio.init(CGpio::OUT, false, CGpio::NONE);
        CSyslogReceiver::Get().Clear();
    }
};

TEST_F(AnOutputOverFiles, IsSetInDecimal)
{
    m_Gpio.setValue(1);
    EXPECT_EQ("1\0"s, szContent("value"));
    m_Gpio.setValue(-12);
    EXPECT_EQ("-12\0"s, szContent("value"));
    EXPECT_EQ((journal_t{"7 GPIO /sys/class/gpio/gpio42/ set to: 1",
                         "7 GPIO /sys/class/gpio/gpio42/ set to: -12"}),
              Logged());
}

/// Writes numbers as people of some countries do.
struct grouping_t : std::numpunct<char> {
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
};

TEST_F(AnOutputOverFiles, IsSetInDecimalWhateverTheLanguage)
{
    const std::locale former =
        std::locale::global(std::locale(std::locale::classic(), new grouping_t));
    m_Gpio.setValue(1234);
    EXPECT_EQ("1234\0"s, szContent("value"));
    EXPECT_EQ(1234, m_Gpio.getValue());
    EXPECT_EQ("CGpio 42(/sys/class/gpio/gpio42/) < out, 1234, none, a_ldisabled >",
              m_Gpio.toString());
    std::locale::global(former);
}

TEST_F(AnOutputOverFiles, IsAssigned)
{
    (m_Gpio = 1) = false;
    EXPECT_EQ("0\0"s, szContent("value"));
    m_Gpio = 5;
    EXPECT_EQ("5\0"s, szContent("value"));
    m_Gpio = true;
    EXPECT_EQ("1\0"s, szContent("value"));
}

TEST_F(AnOutputOverFiles, IsToggled)
{
    m_Gpio.toggleValue();
    EXPECT_EQ("1\0"s, szContent("value"));
    m_Gpio.toggleValue();
    EXPECT_EQ("0\0"s, szContent("value"));
}

TEST_F(AnOutputOverFiles, HasNoEdge)
{
    m_Gpio.setEdge(CGpio::RISING);
    EXPECT_EQ("none\0"s, szContent("edge"));
    EXPECT_EQ(journal_t(), Logged());
}
} // namespace
