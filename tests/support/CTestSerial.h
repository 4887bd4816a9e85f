/// @file
/// @brief Serial ports whose protected part is open to a test.
#pragma once

#include "libQuorCore/CThreadSerial.h"

#include "support/CDeadline.h"

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace TestSupport
{
/// @brief A port with its members open. A class derived from it calls EndThread().
template <class Port>
class COpenPort : public Port
{
public:
    COpenPort() : Port(nullptr, "port")
    {
        this->SetLogLevel(LOG_DEBUG);
        this->SetSettleDelay(0);
        this->SetReopenDelay(1);
    }
    ~COpenPort() override { this->EndThread(); }

    using Port::m_bConnected;
    using Port::m_bRestartBuffer;
    using Port::m_bRun;
    using Port::m_ExchangeResult;
    using Port::m_hTTY;
    using Port::m_iInterCharTimeout_ms;
    using Port::m_iSpeed;
    using Port::m_lSizeDataMax;
    using Port::m_RecursiveLock;

    bool bAwaitOpen()
    {
        return bAwait([this] { return m_hTTY != -1 && m_bConnected; });
    }
    bool bAwaitPending()
    {
        return bAwait([this] { return m_ExchangeResult == -6; });
    }
};

/// @brief A port that keeps the chunks it is given, and takes of them what the test says.
class CChunkPort : public COpenPort<QuorCore::CThreadSerial>
{
public:
    ~CChunkPort() override { EndThread(); }

    long lDispatchTrame(uint8_t* pFrame, long lSizeTotal, long* plUsed) override
    {
        const std::string szChunk(reinterpret_cast<char*>(pFrame), static_cast<size_t>(lSizeTotal));
        *plUsed = m_Take ? m_Take(szChunk) : lSizeTotal;
        const std::lock_guard<std::mutex> held(m_lock);
        m_Chunks.push_back(szChunk);
        return 0;
    }

    long iRead(uint8_t* pFrame, long lSizeToRead, long* plNbrRcv) override
    {
        ++m_nReads;
        return CThreadSerial::iRead(pFrame, lSizeToRead, plNbrRcv);
    }

    std::vector<std::string> Chunks()
    {
        const std::lock_guard<std::mutex> held(m_lock);
        return m_Chunks;
    }
    bool bAwaitChunks(size_t nChunks)
    {
        return bAwait([=] { return Chunks().size() >= nChunks; });
    }

    std::function<long(const std::string&)> m_Take; ///< Set before the thread starts.
    std::atomic<int> m_nReads{0};

private:
    std::mutex m_lock;
    std::vector<std::string> m_Chunks; ///< Guarded by m_lock.
};

/// @brief A port that offers its chunks to the pending exchange.
class CTextPort : public COpenPort<QuorCore::CThreadSerial>
{
public:
    ~CTextPort() override { EndThread(); }

    long lDispatchTrame(uint8_t* pFrame, long lSizeTotal, long* plUsed) override
    {
        pFrame[lSizeTotal] = 0; // the buffer has room for it
        const long lResult = CThreadCom::lDispatchTrame(pFrame, lSizeTotal, plUsed);
        m_lKept = lSizeTotal - *plUsed;
        return lResult;
    }

    std::atomic<long> m_lKept{0}; ///< Bytes that nobody has taken.
};
} // namespace TestSupport
