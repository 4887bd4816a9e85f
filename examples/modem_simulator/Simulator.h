// A modem on a pseudo-terminal.
#pragma once

#include "Script.h"

#include <chrono>
#include <deque>
#include <string>
#include <utility>
#include <vector>

// Opens a pseudo-terminal and answers what is written to it, by a script. One thread.
class Simulator
{
public:
    // szLink: a name for the device that stays when it comes and goes; empty: none. Throws
    // std::runtime_error.
    Simulator(script_t script, std::string szLink, bool bEcho);
    Simulator(const Simulator&) = delete;
    Simulator& operator=(const Simulator&) = delete;
    ~Simulator();

    const std::string& szDevice() const { return m_szDevice; }

    // Prints what comes: "> " and a command line, "^ " and a text, with \xHH for control
    // characters.
    void SetTrace(bool bOn) { m_bTrace = bOn; }

    // Plays until SIGTERM or SIGINT. iSignals: a signalfd(2) of all signals that count.
    void Run(int iSignals);

private:
    using time_point = std::chrono::steady_clock::time_point;

    void PlugIn();
    void UnPlug();
    void TakeBytes(const char* pBytes, size_t nBytes);
    void TakeForPrompt(char c);
    void ReactToLine(const std::string& szLine);
    reaction_t* pFind(const std::string& szCommand, bool bWhole);
    bool bReact(const std::string& szCommand, bool bWhole);
    void ReactToRest();
    void Enqueue(const steps_t& steps);
    bool bIsToBeDone(const step_t& step) const;
    void SayLine(const std::string& szLine);
    void Trace(char cMark, const std::string& szText) const;
    bool bStepIsDue() const;
    void DoDueSteps();
    void Do(const step_t& step);
    void Say(const std::string& szBytes);
    void DoTimed();
    int iWaitMs() const;

    script_t m_script;
    const std::string m_szLink;
    std::string m_szDevice;
    int m_iFar = -1;  // the modem's end; -1 while it is away
    int m_iHeld = -1; // the device, open, so that the line lives without the daemon
    bool m_bEcho;
    bool m_bAtPrompt = false;
    int m_iPieceBytes = 0;   // 0: no tearing
    std::string m_szCommand; // what was received of it
    std::string m_szPayload; // what was received at the prompt
    bool m_bTrace = false;
    std::deque<std::string> m_rest; // commands of the line that are not begun
    std::deque<step_t> m_steps;
    time_point m_resume{};                            // nothing is done before
    std::vector<std::pair<time_point, size_t>> m_due; // of m_script.timed
};
