/// @file
/// @brief The endpoint of modemd.
#pragma once

#include "../common/CTreeCommands.h"
#include "CModemCommands.h"
#include "CModemPort.h"
#include "CModemTree.h"

#include <libQuorCore/libQuorCore.h>

#include <functional>
#include <string>

/// A command that waits for its answer.
struct request_t {
    QuorCore::CSocketHub::peerId_t peer = 0;
    QuorCore::socketFrameHdr_t header{}; ///< As it came.
    std::string szData;
};

/**
 * @brief Serves any number of peers: the common commands, those of the tree, and those for the
 * modem.
 *
 * What is known is answered at once. What the modem has to be asked goes to a queue and is answered
 * from there: however slow it is, the endpoint's thread serves all others meanwhile.
 */
class CModemEndpoint : public QuorCore::CSocketHub
{
public:
    using ask_t = std::function<void(request_t)>;

    /// @param port, tree  Not owned.
    CModemEndpoint(CObject* pParent, const char* szLabel, CModemPort& port, CModemTree& tree);
    ~CModemEndpoint() override; ///< Stops the thread, while this object is still whole.

    /// @name Before the thread is created
    /// @{
    void SetQueue(ask_t ask) { m_ask = std::move(ask); } ///< Called on the endpoint's thread.
    void AllowRawCommands(bool bOn) { m_bRawAllowed = bOn; }
    /// @}

    void Answer(const request_t& request, const answer_t& answer); ///< Any thread.
    void TellAll(const std::string& szNews);                       ///< Any thread.

    long iInitInstance() override; ///< Adds the commands for the modem to the library's own.

    /// @name Handlers
    /// @{
    void OnCmdQueued(QuorCore::socketFrame_t* pFrame);
    void OnCmdRefused(QuorCore::socketFrame_t* pFrame);
    void OnCmdRaw(QuorCore::socketFrame_t* pFrame);
    void OnCmdCellServing(QuorCore::socketFrame_t* pFrame);
    void OnCmdWhitelist(QuorCore::socketFrame_t* pFrame);
    void OnCmdRecord(QuorCore::socketFrame_t* pFrame);
    /// @}

protected:
    /// @name Peers of the endpoint are nobody's news; a modem's coming and going is.
    /// @{
    void OnPeerConnected(const peer_t& peer) override;
    void OnPeerGone(const peer_t& peer, eGone reason) override;
    /// @}

private:
    request_t RequestOf(QuorCore::socketFrame_t& frame) const;
    answer_t ChangeWhitelist(QuorCore::socketFrame_t& frame);

    CModemPort& m_port;
    CModemTree& m_tree;
    CTreeCommands m_TreeCommands;
    ask_t m_ask;
    bool m_bRawAllowed = false;
};
