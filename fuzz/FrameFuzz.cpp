// What a peer sends to an endpoint: any bytes, in any pieces. Every answer must be a frame with
// exactly the data that belongs to its request. The first byte of the input chooses the endpoint's
// maximum, the second how many bytes come at a time, and the rest is what the peer sends.
#include "libQuorCore/CSocketBase.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>

using namespace QuorCore;

namespace
{
constexpr long kMaxima[] = {-1, 0, 1, 4, 100, 1000, 65515, 65535};

void Require(bool bHolds)
{
    if (!bHolds) {
        std::abort();
    }
}

/// Runs its loop on the caller's thread, over bytes in memory.
class CFedEndpoint : public CSocketBase
{
public:
    CFedEndpoint(const uint8_t* pData, size_t iSize, size_t iPiece)
        : CSocketBase(nullptr, "fed"), m_pNext(pData), m_pEnd(pData + iSize), m_iPiece(iPiece)
    {
        m_iSocket = ::open("/dev/null", O_RDWR | O_CLOEXEC); // only to be connected
        m_bConnected = true;
    }

    long iRead(uint8_t* pFrame, long lSizeToRead, long* plNbrRcv) override
    {
        size_t iRead = 0;
        while (iRead < static_cast<size_t>(lSizeToRead) && m_pNext != m_pEnd) {
            const size_t iChunk = std::min({static_cast<size_t>(lSizeToRead) - iRead, m_iPiece,
                                            static_cast<size_t>(m_pEnd - m_pNext)});
            std::memcpy(pFrame + iRead, m_pNext, iChunk);
            m_pNext += iChunk;
            iRead += iChunk;
        }
        *plNbrRcv = static_cast<long>(iRead);
        return *plNbrRcv;
    }

    long lRead(socketFrame_t* pFrame, long lSizeToRead, long* plNbrRcv) override
    {
        const long lResult = CSocketBase::lRead(pFrame, lSizeToRead, plNbrRcv);
        if (lResult > 0) {
            Require(*plNbrRcv <= std::max(lSizeToRead, 0L) && pFrame->GetDataSize() == *plNbrRcv);
            const auto* const pBytes = reinterpret_cast<const char*>(pFrame);
            m_szRequest.assign(pBytes, kFrameHeaderSize + static_cast<size_t>(*plNbrRcv));
        } else {
            m_bRun = false; // the end of the input, or of the connection
        }
        return lResult;
    }

    long iWrite(uint8_t* pFrame, long lSizeTotal) override
    {
        Require(lSizeTotal >= static_cast<long>(kFrameHeaderSize));
        CheckAnswer(
            std::string(reinterpret_cast<const char*>(pFrame), static_cast<size_t>(lSizeTotal)));
        return lSizeTotal;
    }

    using CSocketBase::iWrite;

private:
    void CheckAnswer(const std::string& szAnswer) const
    {
        socketFrameHdr_t request;
        socketFrameHdr_t answer;
        std::memcpy(&request, m_szRequest.data(), sizeof(request));
        std::memcpy(&answer, szAnswer.data(), sizeof(answer));
        const size_t iData = szAnswer.size() - kFrameHeaderSize;
        Require(answer.magicNumber == kFrameMagic && answer.size == iData && answer.error == 0);
        Require(answer.typeITF == request.typeITF && answer.protocol == request.protocol);
        Require(answer.user1 == request.user1 && answer.user2 == request.user2);
        if (request.command == CMD_COMMUN_PING) {
            Require(answer.command == CMD_COMMUN_PONG);
            Require(szAnswer.substr(kFrameHeaderSize) == m_szRequest.substr(kFrameHeaderSize));
            return;
        }
        Require(answer.command == request.command);
        switch (request.command) {
        case CMD_COMMUN_VERSION:
            Require(iData == sizeof(versionFW_t));
            break;
        case CMD_COMMUN_PID:
            Require(iData == 4);
            break;
        case CMD_COMMUN_NAME:
        case CMD_COMMUN_GET_LOG_CONFIG:
            Require(iData > 0 && iData <= 65515 && szAnswer.back() == '\0');
            break;
        case CMD_COMMUN_SET_LOG_CONFIG:
            Require(iData == 0);
            break;
        default:
            Require(false); // nothing else is answered
        }
    }

    const uint8_t* m_pNext;
    const uint8_t* const m_pEnd;
    const size_t m_iPiece;
    std::string m_szRequest; // the frame last read
};
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t iSize)
{
    if (iSize < 2) {
        return 0;
    }
    CFedEndpoint endpoint(pData + 2, iSize - 2, 1 + size_t{pData[1]});
    endpoint.Configure(0, kMaxima[pData[0] % std::size(kMaxima)], "fuzz");
    endpoint.iInitInstance();
    endpoint.iRunThread();
    endpoint.iExitInstance();
    return 0;
}
