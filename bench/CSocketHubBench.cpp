// What a frame costs over the hub, and over one-peer endpoints with a thread each, with one peer
// and with many, against threads that send back by hand what they receive.

#include "libQuorCore/CSocketHub.h"

#include "support/Bench.h"
#include "support/SocketPairs.h"

#include <chrono>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace Bench;
using namespace QuorCore;

namespace
{
constexpr size_t kDataBytes = 64;
constexpr int kPipelined = 16; // frames on their way to each peer at once
constexpr int kIdlePeers = 1000;

/// Sends every frame back to whom it came from.
class CEchoHub : public CSocketHub
{
public:
    CEchoHub() : CSocketHub(nullptr, "hub")
    {
        SetPeersMax(2000);
        Configure(0, kDataMax, "hub");
        if (iCreateThread(true, 5000) != 0) {
            throw std::runtime_error("the hub did not start");
        }
        while (!bGetConnected()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    ~CEchoHub() override { EndThread(); }
    long iInitInstance() override
    {
        const long lResult = CSocketHub::iInitInstance();
        pAddCallback(kCommand, new CSocketCallback<CEchoHub>(this, &CEchoHub::OnFrame));
        return lResult;
    }
    void OnFrame(socketFrame_t* pFrame) { iAnswer(pAskingPeer()->id, pFrame); }
};

/// The near ends of some connections, whose far ends echo.
class CPeers
{
public:
    explicit CPeers(int nPeers) { m_fds.reserve(static_cast<size_t>(nPeers)); }
    CPeers(const CPeers&) = delete;
    CPeers& operator=(const CPeers&) = delete;
    ~CPeers()
    {
        for (const int iFd : m_fds) {
            close(iFd);
        }
    }
    void Add(int iFd) { m_fds.push_back(iFd); }

    /// Each peer sends so many frames; then all take the answers.
    void Exchange(int nFrames)
    {
        std::vector<uint8_t> burst;
        for (int i = 0; i < nFrames; ++i) {
            burst.insert(burst.end(), m_frame.begin(), m_frame.end());
        }
        for (const int iFd : m_fds) {
            SendAll(iFd, burst);
        }
        for (const int iFd : m_fds) {
            if (!bReceiveAll(iFd, burst.data(), burst.size())) {
                throw std::runtime_error("no answer");
            }
        }
    }

    /// Supplies the time of one frame there and back.
    void Measure(benchmark::State& state, int nFrames)
    {
        using clock = std::chrono::steady_clock;
        Exchange(nFrames); // all are served by now
        for (auto _ : state) {
            const clock::time_point start = clock::now();
            const int nRounds = m_fds.size() < 100 ? 100 : 3;
            for (int i = 0; i < nRounds; ++i) {
                Exchange(nFrames);
            }
            state.SetIterationTime(std::chrono::duration<double>(clock::now() - start).count() /
                                   (nRounds * nFrames * static_cast<double>(m_fds.size())));
        }
    }

private:
    std::vector<int> m_fds;
    const std::vector<uint8_t> m_frame = MakeFrame(kDataBytes);
};

template <int nPeers, int nFrames>
void OverTheHub(benchmark::State& state)
{
    const COnOneProcessor pinned;
    CEchoHub hub;
    CPeers peers(nPeers);
    for (int i = 0; i < nPeers; ++i) {
        peers.Add(iConnectTo(hub.iListeningPort()));
    }
    peers.Measure(state, nFrames);
}

template <int nPeers, int nFrames>
void OverOnePeerEndpoints(benchmark::State& state)
{
    const COnOneProcessor pinned;
    CPeers peers(nPeers);
    std::vector<std::unique_ptr<CEchoEndpoint>> endpoints; // go before they notice an end
    for (int i = 0; i < nPeers; ++i) {
        const connection_t ends = Connect();
        peers.Add(ends.iNear);
        endpoints.push_back(std::make_unique<CEchoEndpoint>("echo", ends.iFar));
        endpoints.back()->Start();
    }
    peers.Measure(state, nFrames);
}

template <int nPeers, int nFrames>
void ByHand(benchmark::State& state)
{
    const COnOneProcessor pinned;
    std::vector<std::unique_ptr<CRawEcho>> echoes;
    CPeers peers(nPeers);
    for (int i = 0; i < nPeers; ++i) {
        const connection_t ends = Connect();
        peers.Add(ends.iNear);
        echoes.push_back(std::make_unique<CRawEcho>(ends.iFar, kFrameHeaderSize + kDataBytes));
    }
    peers.Measure(state, nFrames);
}

double fResidentMib()
{
    long lPages = 0;
    long lResident = 0;
    std::FILE* const pFile = std::fopen("/proc/self/statm", "re");
    const int nRead = pFile != nullptr ? std::fscanf(pFile, "%ld %ld", &lPages, &lResident) : 0;
    if (pFile != nullptr) {
        std::fclose(pFile);
    }
    return nRead == 2 ? static_cast<double>(lResident * sysconf(_SC_PAGESIZE)) / 1048576 : 0;
}

void IdlePeers(benchmark::State& state)
{
    for (auto _ : state) {
        CEchoHub hub;
        CPeers peers(kIdlePeers);
        const double fBefore = fResidentMib();
        for (int i = 0; i < kIdlePeers; ++i) {
            peers.Add(iConnectTo(hub.iListeningPort()));
        }
        peers.Exchange(1);                                         // each has been served once
        state.SetIterationTime((fResidentMib() - fBefore) * 1e-9); // MiB in the place of ns
    }
}

constexpr target_t kRoundTrip = AtMostTimes(1.3);
constexpr target_t kPipeline = AtMostTimes(1.0);

template <int nPeers>
bool bCompareWith(const char* szHub, const char* szEndpoints, const char* szHubPipelined,
                  const char* szEndpointsPipelined)
{
    return bCompare({szHub, OverTheHub<nPeers, 1>, ByHand<nPeers, 1>, kRoundTrip, SUPPLIED}) &&
           bCompare({szEndpoints, OverOnePeerEndpoints<nPeers, 1>, ByHand<nPeers, 1>, kRoundTrip,
                     SUPPLIED}) &&
           bCompare({szHubPipelined, OverTheHub<nPeers, kPipelined>, ByHand<nPeers, kPipelined>,
                     kPipeline, SUPPLIED}) &&
           bCompare({szEndpointsPipelined, OverOnePeerEndpoints<nPeers, kPipelined>,
                     ByHand<nPeers, kPipelined>, kPipeline, SUPPLIED});
}

const bool kRegistered =
    bCompareWith<1>("round trip, hub, 1 peer", "round trip, endpoint, 1 peer",
                    "pipelined, hub, 1 peer", "pipelined, endpoint, 1 peer") &&
    bCompareWith<10>("round trip, hub, 10 peers", "round trip, endpoints, 10 peers",
                     "pipelined, hub, 10 peers", "pipelined, endpoints, 10 peers") &&
    bCompareWith<100>("round trip, hub, 100 peers", "round trip, endpoints, 100 peers",
                      "pipelined, hub, 100 peers", "pipelined, endpoints, 100 peers") &&
    bCompareWith<1000>("round trip, hub, 1,000 peers", "round trip, endpoints, 1,000 peers",
                       "pipelined, hub, 1,000 peers", "pipelined, endpoints, 1,000 peers") &&
    bCompare({"1,000 idle peers of a hub", IdlePeers, nullptr, AtMostMib(1.0), SUPPLIED});
} // namespace
