/// @file
/// @brief A transport's thread that is stopped by force.
#pragma once

#include <atomic>
#include <cstdint>
#include <poll.h>

namespace TestSupport
{
/// @brief A transport that tells how its thread ended, and may be kept in a handler.
template <class Transport>
class CForced : public Transport
{
public:
    using Transport::Transport;
    ~CForced() override { this->EndThread(); }

    long iExitInstance() override
    {
        ++m_nEnds;
        return Transport::iExitInstance();
    }

    long lDispatchTrame(uint8_t* pFrame, long lSizeTotal, long* plUsed) override
    {
        ++m_nHandled;
        if (m_bDwells) {
            poll(nullptr, 0, -1); // until it is cancelled
        }
        return Transport::lDispatchTrame(pFrame, lSizeTotal, plUsed);
    }

    std::atomic<bool> m_bDwells{false}; ///< A handler never returns.
    std::atomic<int> m_nHandled{0};
    std::atomic<int> m_nEnds{0}; ///< Of threads that ended by themselves; a cancelled one does not.
};
} // namespace TestSupport
