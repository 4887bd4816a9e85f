#include "libQuorCore/CGpio.h"

#include "internal/AttributeFile.h"
#include "internal/CCancelGuard.h"
#include "internal/Clock.h"

#include "libQuorCore/CThread.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <limits>
#include <locale>
#include <ostream>
#include <poll.h>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace QuorCore
{
namespace
{
constexpr char kGpioClass[] = "/sys/class/gpio/";
constexpr size_t kNamePrefix = 4;    // "gpio"
constexpr size_t kTextBytesMax = 19; // of a file; the longest text has 7
constexpr int kNotExportedPauseMs = 1000;

/// The texts of an enumeration, in the order of its values from 0.
struct text_t {
    const char* szLower;
    const char* szUpper;
};
constexpr text_t kDirections[] = {{"in", "IN"}, {"out", "OUT"}, {"low", "LOW"}, {"high", "HIGH"}};
constexpr text_t kEdges[] = {
    {"none", "NONE"}, {"rising", "RISING"}, {"falling", "FALLING"}, {"both", "BOTH"}};
constexpr text_t kFiles[] = {
    {"value", "VALUE"}, {"direction", "DIRECTION"}, {"edge", "EDGE"}, {"active_low", "ACTIVE_LOW"}};
constexpr int kTexts = 4;

std::ostream& WriteText(std::ostream& stream, const text_t (&texts)[kTexts], int iValue)
{
    if (iValue >= 0 && iValue < kTexts) {
        stream << texts[iValue].szLower;
    }
    return stream;
}

template <class Enum>
std::istream& ReadText(std::istream& stream, const text_t (&texts)[kTexts], Enum& value)
{
    std::string szText;
    stream >> szText;
    const auto found = std::find_if(std::begin(texts), std::end(texts), [&](const text_t& text) {
        return szText == text.szLower || szText == text.szUpper;
    });
    if (found != std::end(texts)) {
        value = static_cast<Enum>(found - std::begin(texts));
    } else {
        stream.setstate(std::ios::failbit);
    }
    return stream;
}

/// A stream for the kernel's texts: digits without the separators that the user's language has.
template <class Stream>
Stream TextStream(const std::string& szText = "")
{
    Stream stream(szText);
    stream.imbue(std::locale::classic());
    return stream;
}

template <class T>
std::string szTextOf(T value)
{
    auto stream = TextStream<std::ostringstream>();
    stream << value;
    return stream.str();
}

bool bIsFile(CGpio::EFile file)
{
    return file >= 0 && file < CGpio::MAX_FD;
}

/// Writes a line's number to a file of the class. @return Whether the file could be opened.
bool bWriteNumber(const char* szFile, int iNumber)
{
    const CUniqueFd file = OpenAttribute(std::string(kGpioClass) + szFile, eWriteMode::APPEND);
    if (!file) {
        return false;
    }
    WriteAttribute(file, std::to_string(iNumber));
    return true;
}

std::string szErrorText(int iError)
{
    return CThread::m_Logger.strerrorT(iError);
}
} // namespace

const std::string CGpio::m_szLabel = "CGpio";

CGpio::CGpio(int lineNumber)
    : number(lineNumber), exported(false), shall_unexport(true),
      path(kGpioClass + num2name(lineNumber) + "/"), fdTable{-1, -1, -1, -1}
{
}

CGpio::~CGpio()
{
    for (const int iFd : fdTable) {
        if (iFd > 0) {
            CUniqueFd::CloseFd(iFd);
        }
    }
}

bool CGpio::bExport()
{
    const CDeferredCancel deferred;
    return bWriteNumber("export", number);
}

void CGpio::UnExport()
{
    const CDeferredCancel deferred;
    bWriteNumber("unexport", number);
}

std::string CGpio::szValuePath() const
{
    return path + "/value"; // with two slashes, as it has always been logged
}

void CGpio::init(EDirection dir, bool activeLow, EEdge edge)
{
    const CDeferredCancel deferred;
    path = kGpioClass + num2name(number) + "/";
    struct stat status = {};
    const bool bThere = stat(szValuePath().c_str(), &status) == 0;
    const int iError = errno;
    exported = bThere || bExport();
    if (exported) {
        for (const EFile file : {VALUE, DIRECTION, EDGE, ACTIVE_LOW}) {
            openFile(file); // at once: the kernel has made the files when the export returns
        }
        if (dir == IN) {
            SetUpInput(edge);
        } else {
            SetUpOutput(dir);
        }
        if (activeLow) {
            writeGpioFile<int>(ACTIVE_LOW, 1);
        }
    } else {
        QUORCORE_LOG(LOG_ERR, "Cannot stat %s file - %s", szValuePath().c_str(),
                     szErrorText(iError).c_str());
    }
    QUORCORE_LOG(LOG_NOTICE, "Gpio %d (%s) initialized", number, path.c_str());
}

/// Leaves the direction file alone: see init(). Held by AGpioOverFiles.SetsUpAnInputByItsEdgeAlone.
void CGpio::SetUpInput(EEdge edge)
{
    if (edge != NONE) {
        writeGpioFile<EEdge>(EDGE, edge);
        readGpioFile<int>(VALUE); // clears an event that is pending
    }
}

void CGpio::SetUpOutput(EDirection dir)
{
    if (dir == OUT || dir == LOW || dir == HIGH) {
        writeGpioFile<EDirection>(DIRECTION, dir);
        writeGpioFile<EEdge>(EDGE, NONE);
    }
}

int CGpio::openFile(EFile file)
{
    const CDeferredCancel deferred;
    if (!bIsFile(file)) {
        return -1;
    }
    if (fdTable[file] != -1) {
        return 0;
    }
    const std::string szFile = path + szTextOf(file);
    CUniqueFd opened(open(szFile.c_str(), O_RDWR | O_CLOEXEC));
    if (opened.iGet() < 1) {
        const int iError = opened ? EBADF : errno; // descriptor 0 is the standard input's place
        QUORCORE_LOG(LOG_ERR, "could not open GPIO file %s : %s", szFile.c_str(),
                     szErrorText(iError).c_str());
        return -1;
    }
    fdTable[file] = opened.iRelease();
    return 0;
}

template <class T>
void CGpio::writeGpioFile(EFile file, T value)
{
    const CDeferredCancel deferred;
    const std::string szText = szTextOf(value);
    const int iFd = bIsFile(file) ? fdTable[file] : -1;
    if (lseek(iFd, 0, SEEK_SET) == -1) {
        QUORCORE_LOG(LOG_ERR, "lseek error (%s): %s", path.c_str(), szErrorText(errno).c_str());
        return;
    }
    // With the zero byte that ends it: sysfs does not mind, and tools that watch the writes expect
    // it. Held by AGpioOverFiles.SetsUpAnOutput.
    if (write(iFd, szText.c_str(), szText.size() + 1) < 1) {
        QUORCORE_LOG(LOG_ERR, "could not write GPIO (%s) file %s%d", path.c_str(), path.c_str(),
                     static_cast<int>(file));
    }
    QUORCORE_LOG(LOG_DEBUG, "GPIO %s set to: %s", path.c_str(), szText.c_str());
}

template <class T>
T CGpio::readGpioFile(EFile file) const
{
    const CDeferredCancel deferred;
    T value{};
    const int iFd = bIsFile(file) ? fdTable[file] : -1;
    if (lseek(iFd, 0, SEEK_SET) == -1) {
        QUORCORE_LOG(LOG_ERR, "lseek error(readGpioFile %s): %s", path.c_str(),
                     szErrorText(errno).c_str());
        return value;
    }
    char szText[kTextBytesMax + 1] = "";
    if (read(iFd, szText, kTextBytesMax) < 1) {
        QUORCORE_LOG(LOG_ERR, "could not read GPIO (%s) file %s%d", path.c_str(), path.c_str(),
                     static_cast<int>(file));
        return value;
    }
    TextStream<std::istringstream>(szText) >> value; // up to a zero byte, if there is one
    return value;
}

template int CGpio::readGpioFile<int>(EFile) const;
template bool CGpio::readGpioFile<bool>(EFile) const;
template CGpio::EDirection CGpio::readGpioFile<CGpio::EDirection>(EFile) const;
template CGpio::EEdge CGpio::readGpioFile<CGpio::EEdge>(EFile) const;
template void CGpio::writeGpioFile<int>(EFile, int);
template void CGpio::writeGpioFile<bool>(EFile, bool);
template void CGpio::writeGpioFile<CGpio::EDirection>(EFile, EDirection);
template void CGpio::writeGpioFile<CGpio::EEdge>(EFile, EEdge);

/// Asks before an operation whether the line has its files; logs it if not.
bool CGpio::bExported(const char* szOperation) const
{
    if (!exported) {
        QUORCORE_LOG(LOG_ERR, "%s : Gpio %d (%s) not exported", szOperation, number, path.c_str());
    }
    return exported;
}

void CGpio::setDirection(EDirection dir, int value)
{
    const CDeferredCancel deferred;
    if (!exported) {
        QUORCORE_LOG(LOG_ERR, "Gpio %d (%s) not exported", number, path.c_str());
        return;
    }
    writeGpioFile<EDirection>(DIRECTION, dir);
    if (dir == OUT) {
        setValue(value);
    }
}

CGpio::EDirection CGpio::getDirection() const
{
    const CDeferredCancel deferred;
    bExported("getDirection"); // only said: the reading goes on, and fails by itself
    return readGpioFile<EDirection>(DIRECTION);
}

void CGpio::setValue(int value)
{
    const CDeferredCancel deferred;
    if (!bExported("setValue")) {
        return;
    }
    if (getDirection() == IN) {
        QUORCORE_LOG(LOG_ERR, "Gpio %s is open for reading only", path.c_str());
        return;
    }
    writeGpioFile<int>(VALUE, value);
}

int CGpio::getValue() const
{
    const CDeferredCancel deferred;
    return bExported("getValue") ? readGpioFile<int>(VALUE) : 0;
}

void CGpio::toggleValue()
{
    const CDeferredCancel deferred;
    if (bExported("toggleValue")) {
        setValue(getValue() == 0 ? 1 : 0);
    }
}

void CGpio::setEdge(EEdge edge)
{
    const CDeferredCancel deferred;
    if (bExported("setEdge") && getDirection() == IN) {
        writeGpioFile<EEdge>(EDGE, edge);
    }
}

CGpio::EEdge CGpio::getEdge() const
{
    return readGpioFile<EEdge>(EDGE);
}

void CGpio::setActiveLow(bool activeLow)
{
    const CDeferredCancel deferred;
    if (bExported("setActiveLow")) {
        writeGpioFile<bool>(ACTIVE_LOW, activeLow);
    }
}

bool CGpio::getActiveLow() const
{
    const CDeferredCancel deferred;
    return bExported("getActiveLow") && readGpioFile<bool>(ACTIVE_LOW);
}

CGpio& CGpio::operator=(int value)
{
    const CDeferredCancel deferred;
    if (bExported("operator=")) {
        setValue(value);
    }
    return *this;
}

CGpio& CGpio::operator=(bool value)
{
    return *this = value ? 1 : 0;
}

bool CGpio::bWait4Edge(int timeoutMs, int* value)
{
    const CDeferredCancel deferred;
    if (!bExported("bWait4Edge")) {
        SleepMs(kNotExportedPauseMs); // who asks in a loop must not burn the processor
        return false;
    }
    if (openFile(VALUE) != 0) {
        return false;
    }
    int iCurrent = readGpioFile<int>(VALUE); // also tells the kernel what is news from now on
    if (iCurrent != 0) {
        return iCurrent == 1;
    }
    pollfd edge{fdTable[VALUE], POLLPRI, 0};
    const int iEvents = poll(&edge, 1, timeoutMs);
    if (iEvents < 0) {
        QUORCORE_LOG(LOG_ERR, "cannot poll on file %s/value", path.c_str());
    } else if (iEvents == 0) {
        QUORCORE_LOG(LOG_DEBUG, "timeout happened");
    } else if ((edge.revents & (POLLPRI | POLLIN)) != 0) {
        iCurrent = readGpioFile<int>(VALUE);
        if (value != nullptr) {
            *value = iCurrent;
            QUORCORE_LOG(LOG_INFO, "POLLPRI | POLLIN interruption / the current value is %d",
                         iCurrent);
        }
    }
    return iCurrent == 1;
}

int CGpio::getFd(EFile file) const
{
    const CDeferredCancel deferred;
    const int iDuplicate = fcntl(bIsFile(file) ? fdTable[file] : -1, F_DUPFD_CLOEXEC, 1);
    if (iDuplicate == -1) {
        QUORCORE_LOG(LOG_ERR, "failed to to duplicate gpio fd : %s", szErrorText(errno).c_str());
    }
    return iDuplicate;
}

std::string CGpio::toString() const
{
    const CDeferredCancel deferred;
    if (!exported) {
        return "";
    }
    auto text = TextStream<std::ostringstream>();
    text << "CGpio " << number << "(" << path << ") < " << getDirection() << ", " << getValue()
         << ", " << getEdge() << ", "
         << "a_l" << (getActiveLow() ? "enabled" : "disabled") << " >";
    return text.str();
}

std::ostream& operator<<(std::ostream& stream, CGpio::EDirection direction)
{
    return WriteText(stream, kDirections, direction);
}

std::ostream& operator<<(std::ostream& stream, CGpio::EEdge edge)
{
    return WriteText(stream, kEdges, edge);
}

std::ostream& operator<<(std::ostream& stream, CGpio::EFile file)
{
    return WriteText(stream, kFiles, file);
}

std::istream& operator>>(std::istream& stream, CGpio::EDirection& direction)
{
    direction = CGpio::IN;
    return ReadText(stream, kDirections, direction);
}

std::istream& operator>>(std::istream& stream, CGpio::EEdge& edge)
{
    return ReadText(stream, kEdges, edge);
}

std::istream& operator>>(std::istream& stream, CGpio::EFile& file)
{
    return ReadText(stream, kFiles, file);
}

std::ostream& operator<<(std::ostream& stream, const CGpio& gpio)
{
    return stream << gpio.toString();
}

std::string num2name(int n)
{
    return "gpio" + std::to_string(n);
}

int name2num(const char* name)
{
    if (name == nullptr || strnlen(name, kNamePrefix + 1) <= kNamePrefix) {
        return -1;
    }
    constexpr long kMin = std::numeric_limits<int>::min();
    constexpr long kMax = std::numeric_limits<int>::max();
    return static_cast<int>(std::clamp(std::strtol(name + kNamePrefix, nullptr, 10), kMin, kMax));
}
} // namespace QuorCore
