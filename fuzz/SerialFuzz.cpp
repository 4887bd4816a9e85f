// What a modem says on its line: any bytes, in any pieces, while commands are asked of it. The
// lines must be the same however the bytes are torn, every answer must be whole or none, and a
// command that nobody has answered must keep the next one from being sent. The first byte of the
// input chooses the longest line, the second how many bytes come at a time; the rest is what the
// modem says, with 0xFF where the daemon asks its next command.
#include "internal/AtResultCode.h"
#include "internal/CAtDialogue.h"
#include "internal/CLineFramer.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <string>
#include <vector>

using namespace QuorCore;

namespace
{
constexpr size_t kLimits[] = {0, 1, 2, 3, 16, 80, 1000, 65536};
constexpr uint8_t kAsk = 0xFF;

void Require(bool bHolds)
{
    if (!bHolds) {
        std::abort();
    }
}

/// What the framer has to make of bytes, by a look at all of them; without prompts.
std::vector<std::string> ExpectedLines(const std::string& szBytes, size_t nMax)
{
    std::vector<std::string> lines;
    std::string szLine;
    char cFormer = 0;
    for (const char c : szBytes) {
        if (c == 0) {
            continue;
        }
        if (c == '\r' || (c == '\n' && cFormer != '\r')) {
            lines.push_back(szLine.substr(0, nMax));
            szLine.clear();
        } else if (c != '\n') {
            szLine.push_back(c);
        }
        cFormer = c;
    }
    return lines;
}

void CheckFramer(const uint8_t* pData, size_t nData, size_t nMax, size_t nPiece)
{
    CLineFramer framer;
    framer.SetLimit(nMax);
    std::vector<std::string> lines;
    for (size_t i = 0; i < nData; i += nPiece) {
        framer.Feed(pData + i, std::min(nPiece, nData - i), [&](const CLineFramer::line_t& line) {
            Require(!line.bPrompt && !line.bAfterPrompt);
            Require(!line.bCut || line.szText.size() == nMax);
            lines.push_back(line.szText);
        });
    }
    Require(lines == ExpectedLines({reinterpret_cast<const char*>(pData), nData}, nMax));
}

/// Asks one command after the other, of a modem that speaks while it is written to.
class CConversation
{
public:
    CConversation(const uint8_t* pData, size_t nData, size_t nMax, size_t nPiece)
        : m_pNext(pData), m_pEnd(pData + nData), m_nPiece(nPiece), m_Dialogue(m_Framer)
    {
        m_Framer.SetLimit(nMax);
        m_Dialogue.SetHandler("+U:", 1, {});
        m_Dialogue.SetHandler("RING", 0, {});
        m_Dialogue.SetHandler("NO CARRIER", 0, {});
    }

    void Run()
    {
        for (unsigned iCommand = 0; m_pNext != m_pEnd; ++iCommand) {
            Ask(iCommand);
            Speak();
        }
        Require(m_Dialogue.nQueued() == 0);
        const std::string szRecord = m_Dialogue.szRecord();
        Require(std::count(szRecord.begin(), szRecord.end(), '\n') <= 400);
        Require(m_Dialogue.TakeNewRecord().size() <= 400);
    }

private:
    void Ask(unsigned iCommand)
    {
        atCommand_t command;
        command.szText = iCommand % 5 == 4 ? "ATD1;" : "AT+X=1";
        command.szPrefix = iCommand % 2 == 1 ? "+X:" : "";
        command.iFollowing = static_cast<int>(iCommand % 4) - 1;
        command.bPrompt = iCommand % 3 == 2;
        command.szPayload = "text";
        command.bSecret = iCommand % 7 == 6;
        command.iTimeOut = 0; // what was to come has come when it is written
        atResult_t result;
        CAtCall call(command, result);
        bool bSent = false;
        m_Dialogue.Converse(call, [&](const std::string&, const std::function<bool()>& bGoOn) {
            Require(!m_bOwed || m_bFinalSince);
            bSent = true;
            m_bOwed = m_bFinalSince = false;
            bGoOn();
            Speak();
            return true;
        });
        Check(result, bSent);
        m_bOwed = m_bOwed || (bSent && result.lResult == -7);
        m_bFinalSince = m_bFinalSince && !bSent;
    }

    static void Check(const atResult_t& result, bool bSent)
    {
        const atFinal_t final = ParseFinal(result.szFinal);
        switch (result.lResult) {
        case 0:
            Require(bSent && final.eKind == eAtFinal::SUCCESS && result.iError == -1);
            break;
        case AT_MODEM_ERROR:
            Require(bSent && final.eKind != eAtFinal::SUCCESS && final.eKind != eAtFinal::NONE);
            Require(final.iError == result.iError && final.szError == result.szError);
            break;
        default:
            Require(result.lResult == -7 && result.szFinal.empty());
            Require(bSent || result.lines.empty());
        }
    }

    /// Until the next command.
    void Speak()
    {
        const uint8_t* const pStop = std::find(m_pNext, m_pEnd, kAsk);
        while (m_pNext != pStop) {
            const size_t nBytes = std::min(m_nPiece, static_cast<size_t>(pStop - m_pNext));
            m_Framer.Feed(m_pNext, nBytes, [this](const CLineFramer::line_t& line) {
                m_bFinalSince |= ParseFinal(line.szText).eKind != eAtFinal::NONE;
                const CAtDialogue::report_t report = m_Dialogue.Take(line);
                Require(report.lines.size() <= 2);
                Require(report.lines.empty() || !report.lines.front().empty());
            });
            m_pNext += nBytes;
        }
        m_pNext += m_pNext != m_pEnd ? 1 : 0;
    }

    const uint8_t* m_pNext;
    const uint8_t* const m_pEnd;
    const size_t m_nPiece;
    CLineFramer m_Framer;
    CAtDialogue m_Dialogue;
    bool m_bOwed = false;       ///< A command that was sent had no answer.
    bool m_bFinalSince = false; ///< A line that could end it has come since.
};
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t iSize)
{
    if (iSize < 2) {
        return 0;
    }
    const size_t nMax = kLimits[pData[0] % std::size(kLimits)];
    const size_t nPiece = 1 + size_t{pData[1]};
    CheckFramer(pData + 2, iSize - 2, nMax, nPiece);
    CConversation(pData + 2, iSize - 2, nMax, nPiece).Run();
    return 0;
}
