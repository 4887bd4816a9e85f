#include "CHelloServer.h"

#include "../common/HelloProtocol.h"

#include <cstring>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <vector>

using namespace QuorCore;

CHelloServer::CHelloServer(CObject* pParent, const char* szLabel) : CSocketServer(pParent, szLabel)
{
}

CHelloServer::~CHelloServer()
{
    CSocketServer::iStop(true, false);
}

long CHelloServer::iInitInstance()
{
    const long lResult = CSocketServer::iInitInstance();
    using Callback = CSocketCallback<CSocketBase>::Callback;
    const auto handler = static_cast<Callback>(&CHelloServer::OnCmdGreet);
    pAddCallback(CMD_HELLO_GREET, new CSocketCallback<CSocketBase>(this, handler));
    return lResult;
}

// The frame comes from whoever reached the port: its size is looked at before its bytes are.
void CHelloServer::OnCmdGreet(socketFrame_t* pFrame)
{
    if (pFrame == nullptr) {
        return;
    }
    const size_t nameBytes = pFrame->GetDataSize();
    const bool bGood = nameBytes >= 1 && nameBytes <= kNameBytesMax;
    std::string szAnswer;
    if (bGood) {
        szAnswer = "hello, " + std::string(reinterpret_cast<char*>(pFrame->pGetData()), nameBytes);
    }
    // The answer is longer than the request, so it gets memory of its own. The words of the header
    // that are the peer's go back as they came.
    std::vector<uint8_t> memory(kFrameHeaderSize + szAnswer.size());
    std::memcpy(memory.data(), pFrame, kFrameHeaderSize);
    auto* const pAnswer = reinterpret_cast<socketFrame_t*>(memory.data());
    pAnswer->SetData(reinterpret_cast<uint8_t*>(szAnswer.data()),
                     static_cast<int>(szAnswer.size()));
    pAnswer->error = bGood ? 0 : kErrorBadName;
    iWrite(pAnswer);
    QUORCORE_LOG(LOG_DEBUG, "asked to greet, answered \"%s\"", szAnswer.c_str());
}

int CHelloServer::iListeningPort() const
{
    const int iListener = m_iListenSocket;
    int iListens = 0;
    socklen_t length = sizeof(iListens);
    if (iListener == -1 ||
        getsockopt(iListener, SOL_SOCKET, SO_ACCEPTCONN, &iListens, &length) != 0 ||
        iListens == 0) {
        return -1;
    }
    sockaddr_in address = {};
    length = sizeof(address);
    const bool bKnown = getsockname(iListener, reinterpret_cast<sockaddr*>(&address), &length) == 0;
    return bKnown ? ntohs(address.sin_port) : -1;
}
