#include "libQuorCore/CLed.h"

#include "internal/AttributeFile.h"
#include "internal/CCancelGuard.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

namespace QuorCore
{
namespace
{
// Pairs of brightness and ms; 0 ms is a step, where the kernel would otherwise fade.
constexpr char kFlash[] = "255 50 255 0 ";
constexpr char kGap[] = "0 300 0 0 ";
constexpr char kPause[] = "0 2000 0 0";
constexpr int kFlashesMax = 40000; // a megabyte; the kernel takes a page

/// Reads the first character of a file. @return Whether it could be opened.
bool bReadFirst(const std::string& szPath, std::string& szFirst)
{
    const CUniqueFd file(open(szPath.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    szFirst.clear();
    if (!file) {
        return false;
    }
    char cFirst = '\0';
    ssize_t lRead = 0;
    do {
        lRead = read(file.iGet(), &cFirst, 1);
    } while (lRead < 0 && errno == EINTR);
    if (lRead == 1) {
        szFirst = cFirst;
    }
    return true;
}

int iDigit(const std::string& szFirst)
{
    return !szFirst.empty() && szFirst[0] >= '0' && szFirst[0] <= '9' ? szFirst[0] - '0' : 0;
}
} // namespace

CLed::CLed(std::string name) : m_szName(std::move(name)) {}

CLed::~CLed() = default;

void CLed::SetValue(const char* attribute, const char* text)
{
    const CDeferredCancel deferred;
    if (attribute == nullptr || text == nullptr) {
        return;
    }
    const CUniqueFd file = OpenAttribute(m_szName + attribute, eWriteMode::TRUNCATE);
    if (file) {
        WriteAttribute(file, text);
    }
}

void CLed::SetValue(const char* attribute, int value)
{
    const CDeferredCancel deferred;
    SetValue(attribute, std::to_string(value).c_str());
}

std::string CLed::szGetValue(const char* attribute) const
{
    const CDeferredCancel deferred;
    std::string szFirst;
    if (attribute != nullptr) {
        bReadFirst(m_szName + attribute, szFirst);
    }
    return szFirst;
}

int CLed::iGetValue(const char* attribute) const
{
    const CDeferredCancel deferred;
    const std::string szFirst = szGetValue(attribute);
    return szFirst.empty() ? -1 : iDigit(szFirst);
}

void CLed::SetBlinking(int onMs, int offMs)
{
    SetValue("trigger", "timer"); // first: the other files come with it
    SetValue("delay_on", onMs);
    SetValue("delay_off", offMs);
}

void CLed::SetFlashing(int count)
{
    const CDeferredCancel deferred;
    if (count < 1) {
        SetBrightness(0, true);
        return;
    }
    std::string szPattern;
    for (int i = 1; i < std::min(count, kFlashesMax); ++i) {
        szPattern.append(kFlash).append(kGap);
    }
    szPattern.append(kFlash).append(kPause);
    SetValue("trigger", "pattern"); // first: the other file comes with it
    SetValue("pattern", szPattern.c_str());
}

void CLed::SetBrightness(int value, bool resetTrigger)
{
    const CDeferredCancel deferred;
    const CUniqueFd file = OpenAttribute(m_szName + "brightness", eWriteMode::TRUNCATE);
    if (!file) {
        return; // there is no such LED: its trigger is left alone, too
    }
    if (resetTrigger) {
        SetValue("trigger", "none"); // it switches the LED off: before the value
    }
    WriteAttribute(file, value != 0 ? "1" : "0");
}

int CLed::iGetBrightness() const
{
    const CDeferredCancel deferred;
    std::string szFirst;
    return bReadFirst(m_szName + "brightness", szFirst) ? iDigit(szFirst) : -1;
}

void CLed::ToggleBrightness()
{
    const int iBrightness = iGetBrightness();
    if (iBrightness >= 0) {
        SetBrightness(iBrightness == 0 ? 1 : 0, true);
    }
}
} // namespace QuorCore
