/// @file
/// @brief The answers to CMD_COMMUN_GET_CONFIG and CMD_COMMUN_SET_CONFIG from a data tree.
#pragma once

#include "CTreeRoot.h"

#include <libQuorCore/libQuorCore.h>

#include <cstdint>
#include <string>
#include <vector>

/**
 * @brief Lets the peers of an endpoint read and write a daemon's tree.
 *
 * CMD_COMMUN_GET_CONFIG: the data names an attribute in full, as "/db/callback", or is empty for
 * the whole tree. Answered with its public JSON.
 *
 * CMD_COMMUN_SET_CONFIG: the data is a JSON document whose members are those of the tree. All of it
 * is applied, and answered without data, or nothing. EVT_DATABASE_SAVE is then posted.
 *
 * Either may be refused: the header's error word then has a code in the manner of HTTP, for a
 * document that of CObjectData::iMoWrite(), and the data is an error document, {"object": full
 * name, "cause": text}, of which "object" may be missing. The other words of the header are the
 * peer's, as they came. A frame with an error word is an answer that came too late, and is not
 * answered: two such endpoints would never end.
 *
 * Threads: any; each request holds the tree's lock while it is served.
 * Ownership: the tree is not owned; it and this object outlive the endpoints' threads.
 */
class CTreeCommands
{
public:
    explicit CTreeCommands(CTreeRoot& tree) : m_tree(tree) {}

    /// @name Registering both handlers; in iInitInstance() of the endpoint, after the base's.
    /// @{
    void Register(QuorCore::CSocketHub& hub);
    void Register(QuorCore::CSocketBase& endpoint);
    /// @}

    /**
     * @brief Serves a request.
     * @param request  One of both commands; others are refused with 400.
     * @param szUser   Who asks, for the log.
     * @return The frame to send back, header and data. Does not throw, but for want of memory.
     */
    std::vector<uint8_t> Answer(QuorCore::socketFrame_t& request, const std::string& szUser);

    static constexpr uint16_t kBadRequest = 400; ///< The name is no text.
    static constexpr uint16_t kNotFound = 404;   ///< There is no attribute of that name.
    static constexpr uint16_t kTooLarge = 413;   ///< The JSON does not fit into a frame.
    static constexpr uint16_t kFailed = 500;     ///< It could not be made.

private:
    struct outcome_t {
        uint16_t iError = 0;
        std::string szData;
    };

    outcome_t Serve(QuorCore::socketFrame_t& request, const std::string& szUser);
    outcome_t Read(const std::string& szFullName, const std::string& szUser);
    outcome_t Write(std::string szDocument, const std::string& szUser);

    CTreeRoot& m_tree;
};
