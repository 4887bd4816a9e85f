#include "CBenchConnection.h"

#include "Failure.h"

#include <algorithm>
#include <sys/epoll.h>
#include <utility>

namespace QuorCtl
{
namespace
{
constexpr size_t kPongBytesMax = 65536; // that wait; above, nothing is read until some are gone
} // namespace

CBenchConnection::CBenchConnection(BenchRun& run, const std::string& szPeer, CDescriptor socket)
    : m_run(run), m_stream(szPeer, std::move(socket))
{
}

uint32_t CBenchConnection::Events() const
{
    const bool bReads = m_szPongs.size() <= kPongBytesMax;
    return (bReads ? uint32_t{EPOLLIN} : 0U) | (bWantsToWrite() ? uint32_t{EPOLLOUT} : 0U);
}

void CBenchConnection::ReadSome()
{
    m_stream.ReadSome();
    for (std::optional<CFrame> frame = m_stream.Next(); frame; frame = m_stream.Next()) {
        Take(*frame);
    }
}

void CBenchConnection::Take(const CFrame& frame)
{
    if (frame.header.command == QuorCore::CMD_COMMUN_PING) {
        m_szPongs += PongFor(frame).szBytes();
    }
    if (frame.header.command != QuorCore::CMD_COMMUN_PONG || m_sent.empty()) {
        return;
    }
    if (frame.szData != m_run.szData) {
        throw CRefusal(m_stream.szPeer() + " answered a ping with other data than it had");
    }
    const auto roundTrip =
        std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - m_sent.front());
    m_run.roundTrips.Add(static_cast<uint64_t>(roundTrip.count()));
    m_sent.pop_front();
}

void CBenchConnection::WriteSome()
{
    for (;;) {
        StartPings();
        // What is left of a ping that was sent in part; the block's end completes it.
        const size_t partial = m_pingBytes % m_run.frameBytes;
        if (partial == 0 && !m_szPongs.empty()) {
            const size_t sent = m_stream.Write(m_szPongs.data(), m_szPongs.size());
            m_szPongs.erase(0, sent);
            if (!m_szPongs.empty()) {
                return;
            }
        }
        if (m_pingBytes == 0) {
            return;
        }
        const size_t room = m_run.szBlock.size() - (partial != 0 ? m_run.frameBytes : 0);
        const size_t size = partial + std::min(m_pingBytes - partial, room);
        const size_t sent =
            m_stream.Write(m_run.szBlock.data() + m_run.szBlock.size() - size, size);
        m_pingBytes -= sent;
        if (sent < size) {
            return;
        }
    }
}

void CBenchConnection::StartPings()
{
    const Clock::time_point now = Clock::now();
    while (m_sent.size() < m_run.pipeline && m_run.iToSend > 0) {
        --m_run.iToSend;
        m_sent.push_back(now);
        m_pingBytes += m_run.frameBytes;
    }
}
} // namespace QuorCtl
