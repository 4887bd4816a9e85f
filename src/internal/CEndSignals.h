/// @file
/// @brief Makes sure that a signal that ends the daemon is neither deadly nor lost.
#pragma once

#include <csignal>
#include <ctime>

namespace QuorCore
{
class CCoreApp;
class CRunFlag;

/**
 * @brief Handlers of SIGTERM, SIGQUIT and SIGRTMIN+6 that record the signal, and the wait for them.
 *
 * The signals stay unblocked, so that without handlers they would kill the process, and one that
 * comes between two waits would be gone. A thread that takes such a signal in the main thread's
 * stead passes it on. One application uses them at a time.
 */
class CEndSignals
{
public:
    /// The real-time signal that asks for a round of supervision.
    static int iMonitoringSignal() { return SIGRTMIN + 6; }

    /// Installs the handlers where the disposition is the default. @param pRun  Lowered by a signal
    /// that ends the daemon; not owned.
    static void Install(CRunFlag* pRun);

    /// Restores the default where Install() changed it, if @p pRun is the one installed for.
    static void Restore(const CRunFlag* pRun);

    /**
     * @brief Waits for a signal of a set on the calling thread; one that a handler has recorded
     *        before counts, and so does the end of a child that RecordChild() was told meanwhile.
     * @return Its number.
     */
    static int iAwait(const sigset_t& signals);

    /// For the handler of SIGCHLD: it may run on the waiting thread when that does not wait for a
    /// moment. Does nothing elsewhere. Async-signal-safe.
    static void RecordChild();

    /// Pauses once for @p iSeconds s; any signal cuts it short. None when the end is asked for.
    static void Pause(int iSeconds);
};
} // namespace QuorCore
