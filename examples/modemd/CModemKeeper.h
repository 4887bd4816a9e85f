/// @file
/// @brief The thread of modemd that talks to the modem.
#pragma once

#include "CModemCommands.h"
#include "CModemEndpoint.h"
#include "CModemPort.h"
#include "CModemTree.h"
#include "CPinGuard.h"

#include <libQuorCore/libQuorCore.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

/// Posted by the keeper: something about the modem has changed. Parameter 1 is the level that it is
/// logged at; the payload is a text with a 0 byte behind it.
constexpr uint32_t EVT_MODEM_NEWS = 2001;

/// How the modem is.
enum class eModem {
    AWAY,   ///< There is no device, or it was just opened.
    SILENT, ///< It does not answer.
    LOCKED, ///< It works, but its SIM does not.
    READY,
    OFF, ///< Somebody had its radio switched off.
};

/**
 * @brief Initialises the modem, watches it, and asks it what the peers want to know.
 *
 * One thing at a time, as the modem does: requests wait in a queue, and what is due in between is
 * done in between. A modem that has fallen silent costs its time-out once; then requests are told
 * so at once, and it is asked now and then whether it is back.
 *
 * Threads: Ask(), TakeReport() and Wake() any. Ownership: nothing that it is given.
 */
class CModemKeeper : public QuorCore::CThread
{
public:
    CModemKeeper(CObject* pParent, const char* szLabel, CModemPort& port, CModemTree& tree,
                 CModemEndpoint& endpoint, CPinGuard& pinGuard);
    ~CModemKeeper() override;

    /// Before the thread is created. @param iRegistrationSec, iSignalSec  1 or more.
    void SetPeriods(int iRegistrationSec, int iSignalSec);
    void SetTimeLimits(const timeLimits_t& limits) { m_commands.SetTimeLimits(limits); }

    void Ask(request_t request);           ///< Answers at once when too many wait already.
    void TakeReport(std::string szReport); ///< Something that the modem said unasked.
    void Wake() { m_Wake.iSetEvent(); }    ///< There is something new.

    long iRunThread() override;
    long iStop(bool bJoin, bool bCancel) override; ///< The port is to be stopped before.

private:
    using clock = std::chrono::steady_clock;

    void LookAtLink();
    bool bDoOneRequest();
    answer_t Serve(const request_t& request);
    answer_t SetPin(const std::string& szPin);
    answer_t NextSms(const std::string& szDone);
    void DoOneReport();
    void Interpret(const std::string& szReport);
    void ReadSms(const std::string& szIndex);
    void JudgeCall(const std::string& szNumber);
    void DoWhatIsDue();
    long lWaitMs() const;

    void Initialise(bool bRadio);
    bool bUnlock();
    bool bEnterPin();
    bool bFailSim(const std::string& szText);
    void SetUp();
    void Probe();
    void FallSilent();
    void PollRegistration();
    bool bHasForgotten(unsigned iSetting);
    void PollSignal();
    void NoteRegistration(const registration_t& registration);
    bool bAsk(const std::string& szText, const std::string& szPrefix, QuorCore::atResult_t& result);
    void SetState(eModem eState, int iLevel, const std::string& szText);
    void Tell(int iLevel, const std::string& szText);

    CModemPort& m_port;
    CModemTree& m_tree;
    CModemEndpoint& m_endpoint;
    CPinGuard& m_pinGuard;
    CModemCommands m_commands;
    std::chrono::seconds m_registrationPeriod{30};
    std::chrono::seconds m_signalPeriod{10};

    QuorCore::CEvent m_Wake;
    std::mutex m_lock; ///< Guards the two below.
    std::deque<request_t> m_requests;
    std::deque<std::string> m_reports;

    // The thread's own.
    eModem m_eState = eModem::AWAY;
    std::string m_szState;   ///< As it was told last.
    bool m_bInDoubt = false; ///< It owes an answer: is it there at all?
    unsigned m_nConnections = 0;
    std::vector<std::string> m_toSetUp; ///< Commands that it has not accepted yet.
    bool m_bReportsOn = false;          ///< It has said that it knows what it was told.
    std::string m_szRegistration;
    std::string m_szCaller;
    clock::time_point m_start;
    clock::time_point m_registrationDue;
    clock::time_point m_signalDue;
};
