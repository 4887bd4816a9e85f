#include "Script.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <istream>
#include <sstream>
#include <stdexcept>

namespace
{
constexpr int kNumberMax = 24 * 3600 * 1000; // a day in ms

constexpr const char* kBuiltIn = R"(
on AT
    OK
on ATE0*
    @echo off
    OK
on ATE1*
    @echo on
    OK
on ATI
    Simulated Modem
    Revision 1.0
    OK
on AT+CMEE=*
    OK
on AT+CFUN=*
    OK
on AT+CGSN
    356938035643809
    OK
on AT+CIMI
    208011234567890
    OK
on AT+CCID
    +CCID: 89330123456789012345
    OK
on AT+CPIN?
    +CPIN: READY
    OK
on AT+CSQ
    +CSQ: 17,99
    OK
on AT+CREG?
    +CREG: 2,1,"00C3","0000ABCD",7
    OK
on AT+CREG=*
    OK
on AT+CGREG?
    +CGREG: 2,1,"00C3","0000ABCD",7
    OK
on AT+CGREG=*
    OK
on AT+COPS?
    +COPS: 0,2,"20801",7
    OK
on AT+COPS=*
    OK
on AT+CGATT?
    +CGATT: 1
    OK
on AT+CEER
    +CEER: no cause
    OK
on AT+CLIP=*
    OK
on AT+CMGF=*
    OK
on AT+CSCS=*
    OK
on AT+CNMI=*
    OK
on AT+CMGR=*
    +CMGR: "REC UNREAD","+33123456789",,"26/11/22,00:00:00+04"
    Hello
    OK
on AT+CMGD=*
    OK
on AT+CMGS=*
    @prompt
    +CMGS: 1
    OK
on ATD*
    @delay 500
    NO CARRIER
on ATH*
    OK
on *
    ERROR
)";

std::string szTrim(const std::string& szText)
{
    const size_t nBegin = szText.find_first_not_of(" \t\r");
    const size_t nEnd = szText.find_last_not_of(" \t\r");
    return nBegin == std::string::npos ? "" : szText.substr(nBegin, nEnd - nBegin + 1);
}

// Each \xHH as its byte.
std::string szUnescape(const std::string& szText)
{
    std::string szBytes;
    for (size_t i = 0; i < szText.size(); ++i) {
        if (szText.compare(i, 2, "\\x") == 0 && i + 4 <= szText.size()) {
            szBytes += static_cast<char>(std::strtol(szText.substr(i + 2, 2).c_str(), nullptr, 16));
            i += 3;
        } else {
            szBytes += szText[i];
        }
    }
    return szBytes;
}

int iNumber(const std::string& szText)
{
    char* pEnd = nullptr;
    const long lNumber = std::strtol(szText.c_str(), &pEnd, 10);
    if (szText.empty() || *pEnd != 0 || lNumber < 0 || lNumber > kNumberMax) {
        throw std::runtime_error("'" + szText + "' is no number");
    }
    return static_cast<int>(lNumber);
}

int iSignal(const std::string& szName)
{
    if (szName == "USR1") {
        return SIGUSR1;
    }
    if (szName == "USR2") {
        return SIGUSR2;
    }
    throw std::runtime_error("'" + szName + "' is neither USR1 nor USR2");
}

// Splits off the first word.
std::string szTakeWord(std::string& szText)
{
    const size_t nEnd = std::min(szText.find(' '), szText.size());
    const std::string szWord = szText.substr(0, nEnd);
    szText = szTrim(szText.substr(nEnd));
    return szWord;
}

step_t ParseStep(std::string szText)
{
    if (szText.front() != '@') {
        return {step_t::LINE, szUnescape(szText)};
    }
    const std::string szWord = szTakeWord(szText);
    if (szWord == "@delay") {
        return {step_t::DELAY, "", iNumber(szText)};
    }
    if (szWord == "@torn") {
        return {step_t::TORN, "", std::max(iNumber(szText), 1)};
    }
    if (szWord == "@hangup") {
        return {step_t::HANG_UP, "", szText.empty() ? 0 : iNumber(szText)};
    }
    if (szWord == "@raw") {
        return {step_t::RAW, szUnescape(szText)};
    }
    if (szWord == "@prompt") {
        return {step_t::PROMPT, ""};
    }
    if (szWord == "@echo" && (szText == "on" || szText == "off")) {
        return {szText == "on" ? step_t::ECHO_ON : step_t::ECHO_OFF, ""};
    }
    throw std::runtime_error("'" + szWord + "' is unknown");
}

// Begins a block. Returns where its steps go.
steps_t* pBeginBlock(script_t& script, std::string szText)
{
    const std::string szWord = szTakeWord(szText);
    if (szWord == "on" || szWord == "once") {
        script.reactions.push_back({szText, szWord == "once", {}});
        return &script.reactions.back().steps;
    }
    if (szWord == "after" || szWord == "every") {
        script.timed.push_back({std::max(iNumber(szText), 1), szWord == "every", {}});
        return &script.timed.back().steps;
    }
    if (szWord == "signal") {
        return &script.signals[iSignal(szText)];
    }
    throw std::runtime_error("'" + szWord + "' begins nothing");
}

script_t Parse(std::istream& text)
{
    script_t script;
    steps_t* pSteps = nullptr;
    int iLine = 0;
    for (std::string szLine; std::getline(text, szLine);) {
        ++iLine;
        const std::string szText = szTrim(szLine);
        if (szText.empty() || szText.front() == '#') {
            continue;
        }
        try {
            if (szLine.front() != ' ' && szLine.front() != '\t') {
                pSteps = pBeginBlock(script, szText);
            } else if (pSteps != nullptr) {
                pSteps->push_back(ParseStep(szText));
            } else {
                throw std::runtime_error("it belongs to nothing");
            }
        } catch (const std::runtime_error& error) {
            throw std::runtime_error("line " + std::to_string(iLine) + ": " + error.what());
        }
    }
    return script;
}

std::ifstream Open(const std::string& szFile)
{
    std::ifstream file(szFile);
    if (!file) {
        throw std::runtime_error("cannot read " + szFile);
    }
    return file;
}

// A line of a flight record, taken apart.
struct event_t {
    int iMs; // of the day
    char cMark;
    std::string szText;
};

bool bParseEvent(const std::string& szLine, event_t& event)
{
    // The log has something before it: what counts begins with the time.
    constexpr size_t kTimeSize = sizeof("2026-11-21T22:40:03.120Z") - 1;
    const size_t nEnd = szLine.find("Z ");
    if (nEnd == std::string::npos || nEnd + 3 > szLine.size() || nEnd + 1 < kTimeSize) {
        return false;
    }
    const std::string szTime = szLine.substr(nEnd + 1 - kTimeSize, kTimeSize);
    const auto iAt = [&szTime](size_t nPosition, size_t nDigits) {
        return iNumber(szTime.substr(nPosition, nDigits));
    };
    try {
        event.iMs = ((iAt(11, 2) * 60 + iAt(14, 2)) * 60 + iAt(17, 2)) * 1000 + iAt(20, 3);
    } catch (const std::runtime_error&) {
        return false;
    }
    event.cMark = szLine[nEnd + 2];
    event.szText = szLine.size() > nEnd + 4 ? szUnescape(szLine.substr(nEnd + 4)) : "";
    return true;
}

// "****" is a secret, whatever it was.
std::string szPatternOf(const std::string& szCommand)
{
    constexpr size_t kMaskSize = 4;
    const bool bMasked = szCommand.size() >= kMaskSize &&
                         szCommand.compare(szCommand.size() - kMaskSize, kMaskSize, "****") == 0;
    return bMasked ? szCommand.substr(0, szCommand.size() - kMaskSize) + "*" : szCommand;
}

void AddEvent(steps_t& steps, const event_t& event)
{
    switch (event.cMark) {
    case '<':
    case '!':
    case '-':
        steps.push_back({step_t::LINE, event.szText});
        break;
    case '~':
        steps.push_back({step_t::RAW, event.szText + "\r"});
        break;
    case '?':
        steps.push_back({step_t::PROMPT, ""});
        break;
    case '*':
        steps.push_back({step_t::HANG_UP, ""});
        break;
    default: // what the daemon has sent, and how it ended
        break;
    }
}
} // namespace

bool bFits(const std::string& szPattern, const std::string& szCommand)
{
    if (szPattern.empty() || szPattern.back() != '*') {
        return szPattern == szCommand;
    }
    return szCommand.compare(0, szPattern.size() - 1, szPattern, 0, szPattern.size() - 1) == 0;
}

script_t ReadScript(const std::string& szFile)
{
    std::ifstream file = Open(szFile);
    return Parse(file);
}

script_t BuiltInScript()
{
    std::istringstream text(kBuiltIn);
    return Parse(text);
}

script_t ReadFlightRecord(const std::string& szFile)
{
    constexpr int kDayMs = 24 * 3600 * 1000;
    std::ifstream file = Open(szFile);
    script_t script;
    int iLastMs = -1;
    for (std::string szLine; std::getline(file, szLine);) {
        event_t event{};
        if (!bParseEvent(szLine, event)) {
            continue; // other lines of the log
        }
        if (event.cMark == '>') {
            script.reactions.push_back({szPatternOf(event.szText), true, {}});
        } else if (script.reactions.empty()) {
            continue; // the record begins in the middle of an answer
        } else {
            const int iPauseMs = (event.iMs - iLastMs + kDayMs) % kDayMs; // midnight included
            if (iPauseMs > 0 && iPauseMs < kDayMs / 2) { // the clock may have been set back
                script.reactions.back().steps.push_back({step_t::DELAY, "", iPauseMs});
            }
            AddEvent(script.reactions.back().steps, event);
        }
        iLastMs = event.iMs;
    }
    if (script.reactions.empty()) {
        throw std::runtime_error(szFile + " holds no flight record");
    }
    return script;
}
