/// @file
/// @brief The serial thread of modemd.
#pragma once

#include <libQuorCore/libQuorCore.h>

#include <atomic>
#include <string>

/// Posted by the port: a report of the modem, as CThreadAT::SetUnsolicited() has it.
constexpr uint32_t EVT_MODEM_REPORT = 2000;

/**
 * @brief A modem that tells the application when it comes and goes.
 *
 * A serial port announces only that it was opened. Here its loss is told, too, by
 * EVT_COM_DISCONNECTED, once for each EVT_COM_CONNECTED.
 */
class CModemPort : public QuorCore::CThreadAT
{
public:
    CModemPort(CObject* pParent, const char* szLabel); ///< Reports become EVT_MODEM_REPORT.
    ~CModemPort() override; ///< Stops the thread, while this object is still whole.

    /// @param iBitsPerSecond  Before the thread is created. @return False: no line has that speed.
    bool bSetSpeed(int iBitsPerSecond);

    void OnConnect() override;

    bool bIsThere() const { return m_bAnnounced; } ///< Come, and not gone since.

    /// @return How often the modem has come: another number is another modem, or the same one that
    ///         has forgotten all it was told.
    unsigned nConnections() const { return m_nConnections; }

    /// @return What the lines of its answer begin with, if they look like reports; else empty.
    static std::string szPrefixOf(const std::string& szCommand);

protected:
    void OnLinkLost() override;

private:
    std::atomic<unsigned> m_nConnections{0};
    std::atomic<bool> m_bAnnounced{false};
};
