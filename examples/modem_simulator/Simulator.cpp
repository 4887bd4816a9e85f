#include "Simulator.h"

#include "CommandLine.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <sys/signalfd.h>
#include <termios.h>
#include <unistd.h>

using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace
{
constexpr int kTornPauseMs = 20;
constexpr char kCtrlZ = '\x1a';
constexpr char kEscape = '\x1b';

[[noreturn]] void Fail(const std::string& szWhat)
{
    throw std::runtime_error(szWhat + ": " + std::strerror(errno));
}
} // namespace

Simulator::Simulator(script_t script, std::string szLink, bool bEcho)
    : m_script(std::move(script)), m_szLink(std::move(szLink)), m_bEcho(bEcho)
{
    for (size_t i = 0; i < m_script.timed.size(); ++i) {
        m_due.emplace_back(steady_clock::now() + milliseconds(m_script.timed[i].iMs), i);
    }
    PlugIn();
}

Simulator::~Simulator()
{
    UnPlug();
}

void Simulator::PlugIn()
{
    m_iFar = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
    std::array<char, 64> aName{};
    if (m_iFar == -1 || grantpt(m_iFar) != 0 || unlockpt(m_iFar) != 0 ||
        ptsname_r(m_iFar, aName.data(), aName.size()) != 0) {
        Fail("no pseudo-terminal");
    }
    m_szDevice = aName.data();
    m_iHeld = open(m_szDevice.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    termios settings{};
    if (m_iHeld == -1 || tcgetattr(m_iHeld, &settings) != 0) {
        Fail(m_szDevice);
    }
    cfmakeraw(&settings); // else the device itself would repeat what the modem says
    tcsetattr(m_iHeld, TCSANOW, &settings);
    if (!m_szLink.empty()) {
        unlink(m_szLink.c_str());
        if (symlink(m_szDevice.c_str(), m_szLink.c_str()) != 0) {
            Fail(m_szLink);
        }
    }
}

void Simulator::UnPlug()
{
    if (m_iFar == -1) {
        return;
    }
    if (!m_szLink.empty()) {
        unlink(m_szLink.c_str());
    }
    close(m_iHeld);
    close(m_iFar);
    m_iFar = m_iHeld = -1;
    m_szCommand.clear();
    m_szPayload.clear();
    m_rest.clear();
    m_bAtPrompt = false;
}

void Simulator::Run(int iSignals)
{
    for (;;) {
        std::array<pollfd, 2> sources{pollfd{iSignals, POLLIN, 0}, pollfd{m_iFar, POLLIN, 0}};
        poll(sources.data(), sources.size(), iWaitMs());
        signalfd_siginfo signal{};
        if (read(iSignals, &signal, sizeof(signal)) == sizeof(signal)) {
            const auto found = m_script.signals.find(static_cast<int>(signal.ssi_signo));
            if (signal.ssi_signo == SIGTERM || signal.ssi_signo == SIGINT) {
                return;
            }
            if (found != m_script.signals.end()) { // before all that was to come
                m_steps.insert(m_steps.begin(), found->second.begin(), found->second.end());
                m_resume = steady_clock::now();
            }
        }
        std::array<char, 1024> aBytes;
        const ssize_t lRead = m_iFar != -1 ? read(m_iFar, aBytes.data(), aBytes.size()) : 0;
        if (lRead > 0) {
            TakeBytes(aBytes.data(), static_cast<size_t>(lRead));
        }
        DoTimed();
        DoDueSteps();
    }
}

// Until there is something to do; -1 for ever.
int Simulator::iWaitMs() const
{
    time_point next = time_point::max();
    for (const auto& due : m_due) {
        next = std::min(next, due.first);
    }
    if (bStepIsDue()) {
        next = std::min(next, m_resume);
    }
    if (next == time_point::max()) {
        return -1;
    }
    const auto left = std::chrono::ceil<milliseconds>(next - steady_clock::now()).count();
    return static_cast<int>(std::clamp<long long>(left, 0, 60000));
}

void Simulator::TakeBytes(const char* pBytes, size_t nBytes)
{
    for (const char* const pEnd = pBytes + nBytes; pBytes != pEnd; ++pBytes) {
        if (m_bEcho) {
            Say(std::string(1, *pBytes));
        }
        if (m_bAtPrompt) {
            TakeForPrompt(*pBytes);
        } else if (*pBytes == '\r') {
            ReactToLine(std::exchange(m_szCommand, ""));
            DoDueSteps(); // what follows may belong to a prompt already
        } else if (*pBytes == kEscape) {
            m_szCommand.clear();
        } else if (*pBytes != '\n' && *pBytes != 0) {
            m_szCommand += *pBytes;
        }
    }
}

void Simulator::TakeForPrompt(char c)
{
    if (c == kEscape) {
        m_steps.assign({{step_t::LINE, "OK"}});
    }
    if (c == kCtrlZ || c == kEscape) {
        Trace('^', std::exchange(m_szPayload, "") + (c == kEscape ? "\x1b" : ""));
        m_bAtPrompt = false;
        m_resume = steady_clock::now();
        return;
    }
    m_szPayload += c;
    if (c == '\r') {
        Say("\r\n> ");
    }
}

// A new line puts an end to what is left of the one before.
void Simulator::ReactToLine(const std::string& szLine)
{
    if (szLine.empty()) {
        return;
    }
    Trace('>', szLine);
    const std::vector<std::string> commands = CommandsOf(szLine);
    m_rest.clear();
    if (commands.empty() || (commands.size() > 1 && pFind(szLine, true) != nullptr)) {
        bReact(szLine, !commands.empty());
    } else {
        m_rest.assign(commands.begin(), commands.end());
        ReactToRest();
    }
}

void Simulator::ReactToRest()
{
    const std::string szCommand = m_rest.front();
    m_rest.pop_front();
    if (!bReact(szCommand, false)) {
        m_rest.clear(); // silent
    }
}

// bWhole: a "*" stands for nothing else. A line of several commands that a script, such as a
// replayed one, has as it is, is not taken apart.
reaction_t* Simulator::pFind(const std::string& szCommand, bool bWhole)
{
    const auto found = std::find_if(
        m_script.reactions.begin(), m_script.reactions.end(), [&](const reaction_t& entry) {
            return bWhole ? entry.szPattern == szCommand : bFits(entry.szPattern, szCommand);
        });
    return found != m_script.reactions.end() ? &*found : nullptr;
}

// Returns false when there is no such reaction.
bool Simulator::bReact(const std::string& szCommand, bool bWhole)
{
    reaction_t* const pFound = pFind(szCommand, bWhole);
    if (pFound == nullptr) {
        return false;
    }
    steps_t steps = pFound->steps;
    const size_t nFixed = std::min(pFound->szPattern.size() - 1, szCommand.size());
    for (step_t& step : steps) {
        step.szText = szExpand(step.szText, {{"*", szCommand.substr(nFixed)}});
    }
    if (pFound->bOnce) {
        m_script.reactions.erase(m_script.reactions.begin() + (pFound - m_script.reactions.data()));
    }
    Enqueue(steps);
    return true;
}

void Simulator::Enqueue(const steps_t& steps)
{
    if (m_steps.empty()) {
        m_iPieceBytes = 0;
        m_resume = steady_clock::now();
    }
    m_steps.insert(m_steps.end(), steps.begin(), steps.end());
}

void Simulator::DoTimed()
{
    const time_point now = steady_clock::now();
    for (auto& [time, nIndex] : m_due) {
        if (time <= now) {
            const timed_t& timed = m_script.timed[nIndex];
            time = timed.bRepeated ? now + milliseconds(timed.iMs) : time_point::max();
            if (m_iFar != -1) {
                Enqueue(timed.steps);
            }
        }
    }
}

// At a prompt nothing is said, but the modem may be unplugged.
bool Simulator::bStepIsDue() const
{
    return !m_steps.empty() && (!m_bAtPrompt || m_steps.front().eKind == step_t::HANG_UP);
}

void Simulator::DoDueSteps()
{
    while (bStepIsDue() && m_resume <= steady_clock::now()) {
        const step_t step = m_steps.front();
        m_steps.pop_front();
        if (bIsToBeDone(step)) {
            Do(step);
        }
    }
}

bool Simulator::bIsToBeDone(const step_t& step) const
{
    return std::all_of(step.only.begin(), step.only.end(), [this](const auto& condition) {
        const auto found = m_script.settings.find(condition.first);
        return found != m_script.settings.end() && found->second == condition.second;
    });
}

void Simulator::Do(const step_t& step)
{
    if (m_iFar == -1 && step.eKind != step_t::HANG_UP) {
        PlugIn(); // the time that it was to be away is over
    }
    switch (step.eKind) {
    case step_t::LINE:
        SayLine(szExpand(step.szText, m_script.settings));
        break;
    case step_t::RAW:
        Say(szExpand(step.szText, m_script.settings));
        break;
    case step_t::SET:
        m_script.settings[step.szSetting] = szExpand(step.szText, m_script.settings);
        break;
    case step_t::DELAY:
        m_resume = steady_clock::now() + milliseconds(step.iNumber);
        break;
    case step_t::PROMPT:
        Say("\r\n> ");
        m_bAtPrompt = true;
        break;
    case step_t::TORN:
        m_iPieceBytes = step.iNumber;
        break;
    case step_t::ECHO_ON:
        m_bEcho = true;
        break;
    case step_t::ECHO_OFF:
        m_bEcho = false;
        break;
    case step_t::HANG_UP:
        UnPlug();
        m_steps.clear();
        m_iPieceBytes = 0;
        if (step.iNumber > 0) {
            m_resume = steady_clock::now() + milliseconds(step.iNumber);
            m_steps.push_back({step_t::RAW, ""}); // which plugs it in
        }
        break;
    }
}

// The commands of a line have one result: that of the last, or of the first that fails.
void Simulator::SayLine(const std::string& szLine)
{
    if (szLine == "OK" && !m_rest.empty()) {
        ReactToRest();
        return;
    }
    if (bIsFinal(szLine)) {
        m_rest.clear();
    }
    Say("\r\n" + szLine + "\r\n");
}

void Simulator::Trace(char cMark, const std::string& szText) const
{
    if (!m_bTrace) {
        return;
    }
    std::string szReadable;
    for (const char c : szText) {
        std::array<char, sizeof("\\xHH")> aCode{};
        std::snprintf(aCode.data(), aCode.size(), "\\x%02X", static_cast<unsigned char>(c));
        szReadable += c >= ' ' && c <= '~' ? std::string(1, c) : aCode.data();
    }
    std::printf("%c %s\n", cMark, szReadable.c_str());
}

// Writes, torn to pieces when told so; the rest of a torn text is the next step. What the line does
// not take is lost, as with a modem without flow control.
void Simulator::Say(const std::string& szBytes)
{
    const size_t nNow = m_iPieceBytes > 0
                            ? std::min(szBytes.size(), static_cast<size_t>(m_iPieceBytes))
                            : szBytes.size();
    if (write(m_iFar, szBytes.data(), nNow) < static_cast<ssize_t>(nNow)) {
        std::fprintf(stderr, "modem_simulator: the line takes no more\n");
    }
    if (nNow < szBytes.size()) {
        m_steps.push_front({step_t::RAW, szBytes.substr(nNow)});
        m_resume = steady_clock::now() + milliseconds(kTornPauseMs);
    }
}
