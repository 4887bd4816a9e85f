#include "FrameText.h"

#include "CPrinter.h"
#include "DataText.h"

#include <ctime>

namespace QuorCtl
{
namespace
{
constexpr size_t kPreviewBytes = 40;

// Texts travel with their 0 byte, which is no part of what they say.
std::string szWithoutFinalZero(const std::string& szData)
{
    const bool bZero = !szData.empty() && szData.back() == '\0';
    return szData.substr(0, szData.size() - (bZero ? 1 : 0));
}

std::string szPreview(const std::string& szData)
{
    const std::string szText = szWithoutFinalZero(szData);
    if (bIsPrintable(szText)) {
        size_t length = std::min(szText.size(), kPreviewBytes);
        while (length < szText.size() && (szText[length] & 0xC0) == 0x80) {
            --length; // not in the middle of a character
        }
        return '"' + szVisible(szText.substr(0, length)) + '"' +
               (length < szText.size() ? "..." : "");
    }
    return szHex(szData.substr(0, kPreviewBytes / 2)) +
           (szData.size() > kPreviewBytes / 2 ? "..." : "");
}
} // namespace

std::string szFrameText(const CFrame& frame)
{
    const QuorCore::socketFrameHdr_t& header = frame.header;
    std::string szText =
        szFormat("command %d, error %d, type %d, protocol %d, counter %d, user1 %d, user2 %d, "
                 "%zu bytes\n",
                 header.command, header.error, header.typeITF, header.protocol, header.msgCounter,
                 header.user1, header.user2, frame.szData.size());
    const std::string szContent = szWithoutFinalZero(frame.szData);
    if (!bIsPrintable(szContent)) {
        return szText + szHexDump(frame.szData);
    }
    szText += szContent;
    return szText.back() == '\n' ? szText : szText + '\n';
}

std::string szFrameLine(const CFrame& frame)
{
    const QuorCore::socketFrameHdr_t& header = frame.header;
    return szTimeOfDay() +
           szFormat(" command=%d size=%zu user1=%d user2=%d ", header.command, frame.szData.size(),
                    header.user1, header.user2) +
           szPreview(frame.szData) + '\n';
}

Json::Value JsonFrame(const CFrame& frame)
{
    const QuorCore::socketFrameHdr_t header = frame.header;
    Json::Value json;
    json["command"] = int{header.command};
    json["error"] = int{header.error};
    json["type"] = int{header.typeITF};
    json["protocol"] = int{header.protocol};
    json["counter"] = int{header.msgCounter};
    json["user1"] = int{header.user1};
    json["user2"] = int{header.user2};
    json["size"] = Json::UInt64(frame.szData.size());
    SetBytes(json, "data", frame.szData);
    return json;
}

std::string szTimeOfDay()
{
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local = {};
    localtime_r(&now.tv_sec, &local);
    return szFormat("%02d:%02d:%02d.%03d", local.tm_hour, local.tm_min, local.tm_sec,
                    static_cast<int>(now.tv_nsec / 1000000));
}
} // namespace QuorCtl
