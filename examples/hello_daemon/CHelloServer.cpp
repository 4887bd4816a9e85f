#include "CHelloServer.h"

#include "../common/HelloProtocol.h"
#include "Greeting.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <vector>

using namespace QuorCore;

CHelloServer::CHelloServer(CObject* pParent, const char* szLabel, CHelloTree& tree)
    : CSocketServer(pParent, szLabel), m_tree(tree)
{
}

CHelloServer::~CHelloServer()
{
    CSocketServer::iStop(true, false);
}

long CHelloServer::iInitInstance()
{
    const long lResult = CSocketServer::iInitInstance();
    using Callback = CSocketCallback<CHelloServer>;
    pAddCallback(CMD_HELLO_GREET, new Callback(this, &CHelloServer::OnCmdGreet));
    pAddCallback(CMD_HELLO_CELL, new Callback(this, &CHelloServer::OnCmdCell));
    return lResult;
}

void CHelloServer::OnCmdGreet(socketFrame_t* pFrame)
{
    if (pFrame != nullptr) {
        std::vector<uint8_t> answer = MakeGreeting(m_tree, *pFrame);
        iWrite(reinterpret_cast<socketFrame_t*>(answer.data()));
    }
}

void CHelloServer::OnCmdCell(socketFrame_t* pFrame)
{
    if (pFrame != nullptr) {
        pFrame->error = m_tree.bTakeCell(*pFrame) ? 0 : kErrorBadCell;
        pFrame->SetData(nullptr, 0);
        iWrite(pFrame);
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
