#include "CHelloServer.h"

#include "../common/HelloProtocol.h"
#include "Greeting.h"

#include <netinet/in.h>
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

void CHelloServer::OnCmdGreet(socketFrame_t* pFrame)
{
    if (pFrame != nullptr) {
        std::vector<uint8_t> answer = MakeGreeting(*pFrame);
        iWrite(reinterpret_cast<socketFrame_t*>(answer.data()));
    }
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
