/// @file
/// @brief One of the connections over which quorctl bench sends its pings.
#pragma once

#include "CDeadline.h"
#include "CFrameStream.h"
#include "CLatencyHistogram.h"

#include <cstdint>
#include <deque>
#include <string>

namespace QuorCtl
{
/// What the connections of one run share. Pings are all alike, so that one copy does for all.
struct BenchRun {
    std::string szData;           ///< Of each ping.
    std::string szBlock;          ///< As many pings as are worth one send(2), back to back.
    size_t frameBytes = 0;        ///< Of one ping.
    size_t pipeline = 1;          ///< Pings on the way on one connection, at most.
    uint64_t iToSend = 0;         ///< Pings that nobody has begun to send.
    CLatencyHistogram roundTrips; ///< Of those answered.
};

/**
 * @brief Keeps a number of pings on the way and measures each; never blocks.
 *
 * Errors: throws CLinkFailure for a connection that ended and for what is no frame, CRefusal for a
 * pong with other data.
 */
class CBenchConnection
{
public:
    /// @param run  Not owned; outlives the connection.
    CBenchConnection(BenchRun& run, const std::string& szPeer, CDescriptor socket);

    int iFd() const { return m_stream.iFd(); }
    bool bHeard() const { return m_stream.bHeard(); } ///< Anything has come.
    size_t OnTheWay() const { return m_sent.size(); } ///< Pings without an answer.
    void ReadSome();                                  ///< When it is readable.
    void WriteSome();                                 ///< Whenever there may be room.
    uint32_t Events() const;                          ///< What epoll(7) is to wait for.
    uint32_t m_events = 0;                            ///< What it waits for at present.

private:
    void Take(const CFrame& frame);
    void StartPings();
    bool bWantsToWrite() const { return m_pingBytes != 0 || !m_szPongs.empty(); }

    BenchRun& m_run;
    CFrameStream m_stream;
    std::deque<Clock::time_point> m_sent; ///< Start of each ping that is on the way, oldest first.
    size_t m_pingBytes = 0;               ///< Of started pings, still to be written.
    std::string m_szPongs;                ///< To be written when no ping is half written.
};
} // namespace QuorCtl
