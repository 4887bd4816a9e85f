#include "libQuorCore/date_time.h"

#include "internal/DateTime.h"

#include "libQuorCore/CThread.h"

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
    tm fields;
    if (!bParse(szText, bLocal ? kLocalForm : kUtcForm, fields)) {
        return false;
    }
    const long lDistance = bLocal ? fields.tm_gmtoff : 0; // timegm() resets it
    time = ::timegm(&fields) - lDistance;
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
