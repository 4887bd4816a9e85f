/// @file
/// @brief The data of hello_daemon: what people may set, and what it knows.
#pragma once

#include "../common/CTreeRoot.h"
#include "../common/HelloProtocol.h"

#include <libQuorCore/libQuorCore.h>

#include <cstdint>
#include <limits>
#include <string>

/// "/db/greeting": how peers are greeted, and how many were.
class CGreetingRecord : public QuorCore::CDMObject
{
public:
    CGreetingRecord(QuorCore::CObject* pParent, const char* pszLabel) : CDMObject(pParent, pszLabel)
    {
        m_Answered.SetReadOnly(true); // for requests: the daemon counts by itself
    }

    QuorCore::CDMString m_Word{this, "word", "hello", 1, 32, "hello"};
    QuorCore::CDMUInt m_NameBytesMax{this,          "nameBytesMax", kNameBytesMax, 1,
                                     kNameBytesMax, kNameBytesMax}; ///< Longer names are refused.
    QuorCore::CDMUInt m_Answered{this, "answered", 0, 0, std::numeric_limits<uint32_t>::max(), 0};
};

/**
 * @brief The tree "/db": the greeting, the callback service, and the cell that the peer is served
 * by.
 *
 * The callback service is kept for whoever provides it: this daemon has no modem. The cell is what
 * the peer has reported, so that no request may set it.
 *
 * Threads: as CTreeRoot; what is declared here takes the lock by itself.
 */
class CHelloTree : public CTreeRoot
{
public:
    CHelloTree();

    /// @return The greeting for a name, which is counted; empty for a name that is not greeted.
    std::string szGreet(const std::string& szName);

    /**
     * @brief Takes over a record of a cell that came over the wire.
     *
     * It is read into a record of its own first, within the bounds of the frame, and then checked:
     * this way neither bytes that are no such record nor values out of range reach the tree, nor do
     * the sender's access bits.
     *
     * @param frame  Its data is a CDMStatCellServing, serialised.
     * @return False: it was refused; the log says why, and the tree is as it was.
     */
    bool bTakeCell(QuorCore::socketFrame_t& frame);

    CGreetingRecord m_Greeting{this, "greeting"};
    QuorCore::CDMSrvCallback m_Callback{this, "callback"};
    QuorCore::CDMStatCellServing m_Cell{this, "cell"};
};
