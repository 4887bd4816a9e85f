/// @file
/// @brief What a thread and those who wait for it share, whatever becomes of the object.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace QuorCore
{
/**
 * @brief Tells when a thread's loop has started and when its threads have ended.
 *
 * Held by the object and by each of its threads, so that waiting never touches an object that an
 * auto-delete thread has deleted meanwhile.
 */
class CThreadLife
{
public:
    /// Held while a thread is created and its id stored; whoever uses the id takes it first.
    std::mutex& CreateLock() { return m_createLock; }

    /// A thread is about to be created.
    void Begin()
    {
        const std::lock_guard<std::mutex> held(m_lock);
        ++m_iAlive;
        ++m_iExpected;
        m_bRaised = false;
        if (++m_iNumber == 0) {
            m_iNumber = 1; // 0 is none
        }
        m_changed.notify_all();
    }

    /// @return The number of the thread that was announced last, from 1 on.
    unsigned iNumber()
    {
        const std::lock_guard<std::mutex> held(m_lock);
        return m_iNumber;
    }

    /// The thread runs. @return Whether Begin() announced it; if not, it counts from now on.
    bool bEnter()
    {
        const std::lock_guard<std::mutex> held(m_lock);
        if (m_iExpected > 0) {
            --m_iExpected;
            return true;
        }
        ++m_iAlive;
        return false;
    }

    /// The announced thread could not be created.
    void Fail()
    {
        bEnter();
        End();
    }

    /// The thread's loop has raised its run flag.
    void Raise()
    {
        const std::lock_guard<std::mutex> held(m_lock);
        m_bRaised = true;
        m_changed.notify_all();
    }

    /// The thread uses the object no more.
    void End()
    {
        const std::lock_guard<std::mutex> held(m_lock);
        --m_iAlive;
        m_changed.notify_all();
    }

    /// The thread is about to delete the object; waits for WhileObjectLives().
    void AnnounceDeletion()
    {
        const std::lock_guard<std::mutex> held(m_objectLock);
        m_bObjectGone = true;
    }

    /// Runs @p function unless the object was deleted; it is not deleted meanwhile.
    template <class Function>
    void WhileObjectLives(Function function)
    {
        const std::lock_guard<std::mutex> held(m_objectLock);
        if (!m_bObjectGone) {
            function();
        }
    }

    /// @return Whether the loop started within @p iMs ms; false at once when the thread has ended.
    bool bAwaitRaise(int iMs)
    {
        std::unique_lock<std::mutex> held(m_lock);
        m_changed.wait_for(held, std::chrono::milliseconds(iMs),
                           [this] { return m_bRaised || m_iAlive == 0; });
        return m_bRaised;
    }

    /// @return Whether no thread is left within @p iMs ms.
    bool bAwaitEnd(int iMs)
    {
        std::unique_lock<std::mutex> held(m_lock);
        return m_changed.wait_for(held, std::chrono::milliseconds(iMs),
                                  [this] { return m_iAlive == 0; });
    }

    /// The same for the thread of a number, and true as well when another one was announced since:
    /// that one is nobody's business who waits for this.
    bool bAwaitEnd(int iMs, unsigned iNumber)
    {
        std::unique_lock<std::mutex> held(m_lock);
        return m_changed.wait_for(held, std::chrono::milliseconds(iMs), [this, iNumber] {
            return m_iAlive == 0 || m_iNumber != iNumber;
        });
    }

private:
    std::mutex m_createLock;
    std::mutex m_objectLock;
    bool m_bObjectGone = false; // guarded by m_objectLock

    std::mutex m_lock; // guards what follows
    std::condition_variable m_changed;
    unsigned m_iNumber = 0; // of the latest thread
    int m_iAlive = 0;       // threads announced or running
    int m_iExpected = 0;    // announced and not running yet
    bool m_bRaised = false; // the latest one has started its loop
};
} // namespace QuorCore
