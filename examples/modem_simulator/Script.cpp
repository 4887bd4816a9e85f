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
set CMEE 0
set CMGF 0
set CSCS "IRA"
set CREG 0
set CGREG 0
set FORMAT 0
set SMS 1
set APN 1,"IP","","0.0.0.0",0,0
on AT
    OK
on ATE0
    @echo off
    OK
on ATE1
    @echo on
    OK
on ATV1
    OK
on ATQ0
    OK
on ATZ*
    OK
on AT&F*
    OK
on ATS3?
    013
    OK
on ATS0=*
    OK
on ATS7=*
    OK
on ATL*
    OK
on ATX*
    OK
on AT&C*
    OK
on AT&D*
    OK
on ATI
    Simulated Modem
    Revision 1.0
    OK
on AT+GMI
    Simulated
    OK
on AT+CGMI
    Simulated
    OK
on AT+GMM
    Modem
    OK
on AT+CGMM
    Modem
    OK
on AT+GMR
    1.0
    OK
on AT+CGMR
    1.0
    OK
on AT+GCAP
    +GCAP: +CGSM
    OK
on AT+CMEE?
    +CMEE: $CMEE$
    OK
on AT+CMEE=*
    @set CMEE $*$
    OK
on AT+CFUN?
    +CFUN: 1
    OK
on AT+CFUN=*
    OK
on AT+CGSN
    356938035643809
    OK
on AT+GSN
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
    @if CREG=0 +CREG: 0,1
    @if CREG=1 +CREG: 1,1
    @if CREG=2 +CREG: 2,1,"00C3","0000ABCD",7
    OK
on AT+CREG=*
    @set CREG $*$
    OK
on AT+CGREG?
    @if CGREG=0 +CGREG: 0,1
    @if CGREG=1 +CGREG: 1,1
    @if CGREG=2 +CGREG: 2,1,"00C3","0000ABCD",7
    OK
on AT+CGREG=*
    @set CGREG $*$
    OK
on AT+COPS?
    @if FORMAT=0 +COPS: 0,0,"Simulated Network",7
    @if FORMAT=1 +COPS: 0,1,"SimNet",7
    @if FORMAT=2 +COPS: 0,2,"20801",7
    OK
on AT+COPS=?
    +COPS: (2,"Simulated Network","SimNet","20801",7),(1,"Second Network","2ndNet","20810",2),,(0,1,2,3,4),(0,1,2)
    OK
on AT+COPS=3,*
    @set FORMAT $*$
    OK
on AT+COPS=*
    OK
on AT+KCELL=*
    +KCELL: 1,"20801","00C3","0000ABCD",17
    OK
on AT+CLCK="SC",2
    +CLCK: 0
    OK
on AT+CLCK="SC",*
    OK
on AT+CGDCONT=*
    @set APN $*$
    OK
on AT+CGDCONT?
    +CGDCONT: $APN$
    OK
on AT+CGATT?
    +CGATT: 1
    OK
on AT+CEER
    +CEER: no cause
    OK
on AT+CLIP=*
    OK
on AT+CMGF?
    +CMGF: $CMGF$
    OK
on AT+CMGF=?
    +CMGF: (0,1)
    OK
on AT+CMGF=*
    @set CMGF $*$
    OK
on AT+CSCS?
    +CSCS: $CSCS$
    OK
on AT+CSCS=?
    +CSCS: ("IRA","GSM")
    OK
on AT+CSCS=*
    @set CSCS $*$
    OK
on AT+CSCA?
    +CSCA: "+33123456789",145
    OK
on AT+CSMS?
    +CSMS: 0,1,1,1
    OK
on AT+CNMI=?
    +CNMI: (0-2),(0-3),(0,2),(0-2),(0,1)
    OK
on AT+CNMI=*
    OK
on AT+CPMS?
    +CPMS: "SM",$SMS$,20,"SM",$SMS$,20,"SM",$SMS$,20
    OK
on AT+CPMS=?
    +CPMS: ("SM"),("SM"),("SM")
    OK
on AT+CPMS="SM"*
    +CPMS: $SMS$,20,$SMS$,20,$SMS$,20
    OK
on AT+CMGR=*
    @if SMS=0 +CMS ERROR: 321
    @if SMS=1 @if CMGF=0 +CMGR: 0,,24
    @if SMS=1 @if CMGF=0 @raw 07913321436587F9040B913321436587F900006211220000004005C8329BFD06\x0D\x0A
    @if SMS=1 @if CMGF=1 +CMGR: "REC UNREAD","+33123456789",,"26/11/22,00:00:00+04"
    @if SMS=1 @if CMGF=1 @raw Hello\x0D\x0A
    @if SMS=1 OK
on AT+CMGL*
    @if SMS=1 @if CMGF=0 +CMGL: 1,0,,24
    @if SMS=1 @if CMGF=0 @raw 07913321436587F9040B913321436587F900006211220000004005C8329BFD06\x0D\x0A
    @if SMS=1 @if CMGF=1 +CMGL: 1,"REC UNREAD","+33123456789",,"26/11/22,00:00:00+04"
    @if SMS=1 @if CMGF=1 @raw Hello\x0D\x0A
    OK
on AT+CMGD=1
    @set SMS 0
    OK
on AT+CMGD=1,0
    @set SMS 0
    OK
on AT+CMGD=1,4
    @set SMS 0
    OK
on AT+CMGD=*
    OK
on AT+CMGS=*
    @prompt
    +CMGS: 1
    OK
on ATD*99*
    CONNECT 115200
on ATDT*99*
    CONNECT 115200
on ATD*
    @delay 500
    NO CARRIER
on ATH*
    OK
on AT*
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

// Splits off what is before the "=".
std::string szTakeName(std::string& szText)
{
    const size_t nEnd = szText.find('=');
    if (nEnd == std::string::npos) {
        throw std::runtime_error("'" + szText + "' names no value");
    }
    const std::string szName = szText.substr(0, nEnd);
    szText.erase(0, nEnd + 1);
    return szName;
}

step_t ParseStep(std::string szText)
{
    if (szText.empty()) {
        throw std::runtime_error("there is nothing to do");
    }
    if (szText.front() != '@') {
        return {step_t::LINE, szUnescape(szText)};
    }
    const std::string szWord = szTakeWord(szText);
    if (szWord == "@if") {
        std::string szValue = szTakeWord(szText);
        const std::string szName = szTakeName(szValue);
        step_t step = ParseStep(szText);
        step.only[szName] = szValue;
        return step;
    }
    if (szWord == "@set") {
        const std::string szName = szTakeWord(szText);
        return {step_t::SET, szText, 0, szName};
    }
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
    if (szWord == "set") {
        const std::string szName = szTakeWord(szText);
        script.settings[szName] = szText;
        return nullptr;
    }
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

std::string szExpand(const std::string& szText, const std::map<std::string, std::string>& settings)
{
    std::string szExpanded = szText;
    for (const auto& [szName, szValue] : settings) {
        const std::string szPlace = '$' + szName + '$';
        for (size_t n = 0; (n = szExpanded.find(szPlace, n)) != std::string::npos;) {
            szExpanded.replace(n, szPlace.size(), szValue);
            n += szValue.size();
        }
    }
    return szExpanded;
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
