#include "CBenchCommand.h"

#include "CBenchConnection.h"
#include "CFrameLink.h"
#include "CPrinter.h"
#include "DataText.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cerrno>
#include <list>
#include <sys/epoll.h>
#include <system_error>

namespace QuorCtl
{
namespace
{
constexpr size_t kBlockBytes = 65536; // about what one send(2) moves
constexpr int kEventsMax = 64;        // of one epoll_wait(2)
constexpr int64_t kConnectionsMax = 1000;
constexpr int64_t kPipelineMax = 1000;
constexpr int64_t kRunMaxMs = 86400000;

double dSeconds(Clock::duration duration)
{
    return std::chrono::duration<double>(duration).count();
}

/// All connections of a run, and the descriptor that waits for them.
class CBenchLoop
{
public:
    CBenchLoop(BenchRun& run, const Settings& settings, int64_t iConnections)
        : m_run(run), m_szPeer(settings.target.szName()), m_iTimeOutMs(settings.iTimeOutMs),
          m_epoll(epoll_create1(EPOLL_CLOEXEC))
    {
        const CDeadline deadline(settings.iTimeOutMs);
        for (int64_t i = 0; i < iConnections; ++i) {
            m_connections.emplace_back(run, m_szPeer, Connect(settings.target, deadline));
            Watch(m_connections.back(), EPOLL_CTL_ADD);
        }
    }

    /// @return The time that it took.
    Clock::duration Run(const CDeadline& end)
    {
        const Clock::time_point begin = Clock::now();
        CDeadline silence(m_iTimeOutMs);
        for (CBenchConnection& connection : m_connections) {
            Write(connection);
        }
        while (bAnswersDue()) {
            const uint64_t iBefore = m_run.roundTrips.iCount();
            ServeEvents(silence);
            if (m_run.roundTrips.iCount() != iBefore) {
                silence = CDeadline(m_iTimeOutMs);
            } else if (silence.bPassed()) {
                throw NoAnswer();
            }
            if (end.bPassed()) {
                m_run.iToSend = 0;
            }
        }
        return Clock::now() - begin;
    }

private:
    bool bAnswersDue() const
    {
        return std::any_of(m_connections.begin(), m_connections.end(),
                           [](const CBenchConnection& c) { return c.OnTheWay() != 0; });
    }

    void ServeEvents(const CDeadline& silence)
    {
        std::array<epoll_event, kEventsMax> events;
        const int nEvents =
            epoll_wait(m_epoll.iGet(), events.data(), kEventsMax, silence.iRemainingMs());
        if (nEvents == -1 && errno != EINTR) {
            throw std::system_error(errno, std::generic_category(), "epoll_wait");
        }
        for (int i = 0; i < nEvents; ++i) {
            const epoll_event& event = events[static_cast<size_t>(i)];
            auto& connection = *static_cast<CBenchConnection*>(event.data.ptr);
            if ((event.events & ~uint32_t{EPOLLOUT}) != 0) { // an end is read, too
                connection.ReadSome();
            }
            Write(connection);
        }
    }

    void Write(CBenchConnection& connection)
    {
        connection.WriteSome();
        if (connection.Events() != connection.m_events) {
            Watch(connection, EPOLL_CTL_MOD);
        }
    }

    void Watch(CBenchConnection& connection, int iOperation)
    {
        connection.m_events = connection.Events();
        epoll_event event = {};
        event.events = connection.m_events;
        event.data.ptr = &connection;
        if (epoll_ctl(m_epoll.iGet(), iOperation, connection.iFd(), &event) != 0) {
            throw std::system_error(errno, std::generic_category(), "epoll_ctl");
        }
    }

    CTimeOut NoAnswer() const
    {
        const auto bSilent = [](const CBenchConnection& c) { return c.OnTheWay() != 0; };
        const auto bDeaf = [](const CBenchConnection& c) { return !c.bHeard(); };
        const long lSilent = std::count_if(m_connections.begin(), m_connections.end(), bSilent);
        const bool bHint = std::any_of(m_connections.begin(), m_connections.end(), bDeaf);
        return CTimeOut(szFormat("no answer in %d ms from %s on %ld of %zu connections%s",
                                 m_iTimeOutMs, m_szPeer.c_str(), lSilent, m_connections.size(),
                                 bHint ? " (is another peer connected?)" : ""));
    }

    BenchRun& m_run;
    std::string m_szPeer;
    int m_iTimeOutMs;
    CDescriptor m_epoll;
    std::list<CBenchConnection> m_connections; ///< A list: epoll(7) has their addresses.
};
} // namespace

CBenchCommand::CBenchCommand(CLI::App& parent)
    : CCommand(parent, "bench", "Measure round trips and throughput with pings")
{
    AddNumber(m_app, "--connections", m_iConnections, 1, kConnectionsMax,
              "Connections at once, 1 by default; many daemons serve one peer only");
    AddNumber(m_app, "--requests", m_iRequests, 1, INT32_MAX, "Pings in all, 1000 by default");
    AddSeconds(m_app, "--seconds", m_iRunMs, 1, kRunMaxMs, "Time to run instead of a number");
    AddNumber(m_app, "--size", m_iDataBytes, 0, QuorCore::kFrameDataBytesMax,
              "Bytes of data in each ping, 0 by default");
    AddNumber(m_app, "--pipeline", m_iPipeline, 1, kPipelineMax,
              "Pings on the way on each connection, 1 by default");
    m_app.get_option("--requests")->excludes(m_app.get_option("--seconds"));
}

eExitStatus CBenchCommand::Run(const Settings& settings) const
{
    BenchRun run;
    run.szData.assign(static_cast<size_t>(m_iDataBytes), 'q');
    const std::string szPing = CFrame(QuorCore::CMD_COMMUN_PING, run.szData).szBytes();
    run.frameBytes = szPing.size();
    run.pipeline = static_cast<size_t>(m_iPipeline);
    const size_t frames = std::clamp<size_t>(kBlockBytes / run.frameBytes, 1, run.pipeline);
    for (size_t i = 0; i < frames; ++i) {
        run.szBlock += szPing;
    }
    run.iToSend = m_iRunMs != 0 ? UINT64_MAX : static_cast<uint64_t>(m_iRequests);

    CBenchLoop loop(run, settings, m_iConnections);
    const double dElapsed = dSeconds(
        loop.Run(m_iRunMs != 0 ? CDeadline(static_cast<int>(m_iRunMs)) : CDeadline::Never()));

    const CLatencyHistogram& times = run.roundTrips;
    const double dFrames = static_cast<double>(times.iCount()) / dElapsed;
    const double dMegaBytes = dFrames * static_cast<double>(run.frameBytes) / 1e6;
    const auto dMs = [](uint64_t iNs) { return static_cast<double>(iNs) / 1e6; };
    Json::Value json;
    json["connections"] = Json::Int64(m_iConnections);
    json["pipeline"] = Json::Int64(m_iPipeline);
    json["size"] = Json::Int64(m_iDataBytes);
    json["requests"] = Json::UInt64(times.iCount());
    json["seconds"] = dElapsed;
    json["p50_ms"] = dMs(times.iPercentileNs(50));
    json["p99_ms"] = dMs(times.iPercentileNs(99));
    json["max_ms"] = dMs(times.iMaxNs());
    json["frames_per_s"] = dFrames;
    json["mb_per_s"] = dMegaBytes;
    const std::string szText =
        szFormat("%zu pings of %lld bytes in %.3f s, connections: %lld, pipeline: %lld\n",
                 static_cast<size_t>(times.iCount()), static_cast<long long>(m_iDataBytes),
                 dElapsed, static_cast<long long>(m_iConnections),
                 static_cast<long long>(m_iPipeline)) +
        szFormat("round trip p50/p99/max = %.3f/%.3f/%.3f ms\n", dMs(times.iPercentileNs(50)),
                 dMs(times.iPercentileNs(99)), dMs(times.iMaxNs())) +
        szFormat("throughput = %.0f frames/s, %.3f MB/s each way\n", dFrames, dMegaBytes);
    CPrinter(settings.bJson).Print(szText, json);
    return EXIT_STATUS_OK;
}
} // namespace QuorCtl
