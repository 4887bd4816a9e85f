#include "libQuorCore/date_time.h"

#include "internal/DateTime.h"

#include "libQuorCore/CThread.h"

#include <cerrno>
#include <cstring>

namespace QuorCore
{
namespace
{
constexpr const char* kUtcForm = "%Y-%m-%dT%H:%M:%SZ";
constexpr const char* kLocalForm = "%Y-%m-%dT%H:%M:%S%z";
constexpr size_t kTextBytes = 80; // of every text, its end included

std::string szFormat(time_t time, const char* szForm, bool bLocal)
{
    tm fields = {};
    char aText[kTextBytes];
    const tm* const pFields = bLocal ? ::localtime_r(&time, &fields) : ::gmtime_r(&time, &fields);
    // Of a text that does not fit strftime() leaves nothing that could be used.
    const size_t size = szForm != nullptr && pFields != nullptr
                            ? std::strftime(aText, sizeof(aText), szForm, pFields)
                            : 0;
    return std::string(aText, size);
}

/// @return The number in @p iCount digits; -1 when there is something else.
int iDigits(const char* pText, int iCount)
{
    int iNumber = 0;
    for (int i = 0; i < iCount; ++i) {
        if (pText[i] < '0' || pText[i] > '9') {
            return -1;
        }
        iNumber = iNumber * 10 + (pText[i] - '0');
    }
    return iNumber;
}

/// Reads the form of UTC when it is exactly as this library writes it, which is quick; all else is
/// left to strptime(). @return Whether it was.
bool bReadExactUtc(const char* szText, time_t& time)
{
    constexpr const char* kMask = "....-..-..T..:..:..Z";
    constexpr size_t kSize = 20;
    if (szText == nullptr || ::strnlen(szText, kSize + 1) != kSize) {
        return false;
    }
    for (size_t i = 0; i < kSize; ++i) {
        if (kMask[i] != '.' && kMask[i] != szText[i]) {
            return false;
        }
    }
    const int iYear = iDigits(szText, 4);
    const int iMonth = iDigits(szText + 5, 2);
    const int iDay = iDigits(szText + 8, 2);
    const int iHour = iDigits(szText + 11, 2);
    const int iMinute = iDigits(szText + 14, 2);
    const int iSecond = iDigits(szText + 17, 2);
    const bool bDate = iYear >= 1970 && iMonth >= 1 && iMonth <= 12 && iDay >= 1 && iDay <= 31;
    const bool bTime =
        iHour >= 0 && iHour <= 23 && iMinute >= 0 && iMinute <= 59 && iSecond >= 0 && iSecond <= 59;
    if (!bDate || !bTime || (sizeof(time_t) < 8 && iYear > 2037)) {
        return false;
    }
    // Years that begin in March: the leap day is the last of its year.
    const int iShifted = iMonth > 2 ? iYear : iYear - 1;
    const int iMonthDays = (153 * (iMonth > 2 ? iMonth - 3 : iMonth + 9) + 2) / 5;
    constexpr int kDaysTo1970 = 719468; // from 0000-03-01
    const int iDays = 365 * iShifted + iShifted / 4 - iShifted / 100 + iShifted / 400 + iMonthDays +
                      iDay - 1 - kDaysTo1970;
    time = static_cast<time_t>(iDays) * 86400 + iHour * 3600 + iMinute * 60 + iSecond;
    return true;
}

/// Reads a text over the date of today, in UTC.
bool bParse(const char* szText, const char* szForm, tm& fields)
{
    const time_t now = std::time(nullptr);
    fields = {};
    ::gmtime_r(&now, &fields);
    if (szText == nullptr || ::strptime(szText, szForm, &fields) == nullptr) {
        QUORCORE_LOG(LOG_ERR, "strptime() failed");
        return false;
    }
    return true;
}
} // namespace

bool bReadDateTime(const char* szText, bool bLocal, time_t& time)
{
    if (!bLocal && bReadExactUtc(szText, time)) {
        return true;
    }
    tm fields;
    if (!bParse(szText, bLocal ? kLocalForm : kUtcForm, fields)) {
        return false;
    }
    if (bLocal) {
        fields.tm_sec -= static_cast<int>(fields.tm_gmtoff); // timegm() takes any number of seconds
    }
    errno = 0;
    const time_t iTime = ::timegm(&fields);
    if (iTime == -1 && errno == EOVERFLOW) { // a time_t of 32 bits ends in January 2038
        QUORCORE_LOG(LOG_ERR, "strptime() failed");
        return false;
    }
    time = iTime;
    return true;
}

tm LocalFields(time_t time)
{
    tm fields = {};
    return ::localtime_r(&time, &fields) != nullptr ? fields : tm{};
}

std::string GetCurrentDateTime(bool bLocal)
{
    return GetDateTimeString(std::time(nullptr), bLocal);
}

std::string GetCurrentDateTime(const std::string& szForm)
{
    return GetDateTimeString(std::time(nullptr), szForm.c_str());
}

std::string GetCurrentDateTime(const char* szForm)
{
    return GetDateTimeString(std::time(nullptr), szForm);
}

std::string GetDateTimeString(time_t time, bool bLocal)
{
    return szFormat(time, bLocal ? kLocalForm : kUtcForm, bLocal);
}

std::string GetDateTimeString(time_t time, const std::string& szForm)
{
    return szFormat(time, szForm.c_str(), true);
}

std::string GetDateTimeString(time_t time, const char* szForm)
{
    return szFormat(time, szForm, true);
}

std::string szGetCurrentContainerDateTime(bool bLocal)
{
    return szFormat(std::time(nullptr), "%Y%m%d", bLocal);
}

std::string FileGetCurrentDateTime()
{
    return GetCurrentDateTime("%Y%m%d-%H%M%S");
}

time_t iConvertCurrentDateTime(const char* szText, bool bLocal)
{
    time_t time = -1;
    bReadDateTime(szText, bLocal, time);
    return time;
}

time_t iConvertCurrentTime(const char* szText)
{
    tm fields;
    if (!bParse(szText, "%FT%H:%M:%S.%Z", fields)) {
        return -1;
    }
    QUORCORE_LOG(LOG_DEBUG, "%04d - %02d - %02d %02d:%02d:%02d %s", fields.tm_year + 1900,
                 fields.tm_mon + 1, fields.tm_mday, fields.tm_hour, fields.tm_min, fields.tm_sec,
                 fields.tm_zone != nullptr ? fields.tm_zone : "");
    return ::timegm(&fields);
}

std::string getLocalTimeFromUTC(std::string& szText)
{
    time_t time = 0;
    if (bReadDateTime(szText.c_str(), false, time)) {
        szText = GetDateTimeString(time, true);
    }
    return szText;
}
} // namespace QuorCore
