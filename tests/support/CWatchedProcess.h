/// @file
/// @brief A child program that counts what its object is told.
#pragma once

#include "libQuorCore/CProcess.h"
#include "libQuorCore/CProcessManager.h"

#include <atomic>
#include <string>
#include <vector>

namespace TestSupport
{
/// @brief A CProcess that counts its ends and stops. Takes itself out of its manager, its parent.
class CWatchedProcess : public QuorCore::CProcess
{
public:
    explicit CWatchedProcess(const char* pszLabel = "watched") : CProcess(nullptr, pszLabel) {}
    ~CWatchedProcess() override { Leave(); }

    void OnStop() override
    {
        ++m_nStops;
        CProcess::OnStop();
    }

    void OnLost(int iStatus) override
    {
        m_iStatus = iStatus;
        ++m_nLosts;
        CProcess::OnLost(iStatus);
    }

    /// @brief Starts "/bin/sh -c" with a script.
    void Start(const std::string& szScript, QuorCore::CPipe* pIn = nullptr,
               QuorCore::CPipe* pOut = nullptr, QuorCore::CPipe* pErr = nullptr,
               const char* pszDirectory = nullptr, const char** env = nullptr)
    {
        std::string szShell = "/bin/sh";
        std::string szOption = "-c";
        std::string szText = szScript;
        std::vector<char*> argv = {szShell.data(), szOption.data(), szText.data()};
        iCreateProcess(pszDirectory, argv, env, pIn, pOut, pErr);
    }

    void SetPid(pid_t pid) { m_pid = pid; }

    int nLosts() const { return m_nLosts; }
    int nStops() const { return m_nStops; }
    int iStatus() const { return m_iStatus; } ///< Of the last end.

protected:
    /// For the destructors of derived classes: a call into the object may be under way.
    void Leave()
    {
        if (auto* pManager = dynamic_cast<QuorCore::CProcessManager*>(pGetParent())) {
            pManager->RemoveProcess(this);
        }
        SetParent(nullptr);
    }

private:
    std::atomic<int> m_nLosts{0};
    std::atomic<int> m_nStops{0};
    std::atomic<int> m_iStatus{-1};
};

/// @return All that comes out of a pipe until its last writer has left.
inline std::string szReadAll(QuorCore::CPipe& pipe)
{
    std::string szAll;
    char aChunk[4096];
    int iRead = 0;
    while ((iRead = pipe.iReadBytes(aChunk, sizeof(aChunk))) > 0) {
        szAll.append(aChunk, static_cast<size_t>(iRead));
    }
    return szAll;
}

/// @return A block of texts, as iCreateProcess() takes them; the string's own closing zero byte
///         closes the block.
inline const char** pBlock(const std::string& szTexts)
{
    return reinterpret_cast<const char**>(const_cast<char*>(szTexts.c_str()));
}
} // namespace TestSupport
