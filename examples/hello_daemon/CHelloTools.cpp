#include "CHelloTools.h"

#include "../common/HelloProtocol.h"
#include "Greeting.h"

#include <vector>

using namespace QuorCore;

CHelloTools::CHelloTools(CObject* pParent, const char* szLabel, CHelloTree& tree)
    : CSocketHub(pParent, szLabel), m_tree(tree), m_treeCommands(tree)
{
}

CHelloTools::~CHelloTools()
{
    EndThread();
}

long CHelloTools::iInitInstance()
{
    const long lResult = CSocketHub::iInitInstance();
    pAddCallback(CMD_HELLO_GREET, new CSocketCallback<CHelloTools>(this, &CHelloTools::OnCmdGreet));
    m_treeCommands.Register(*this);
    return lResult;
}

void CHelloTools::OnCmdGreet(socketFrame_t* pFrame)
{
    const peer_t* const pPeer = pAskingPeer();
    if (pFrame != nullptr && pPeer != nullptr) {
        std::vector<uint8_t> answer = MakeGreeting(m_tree, *pFrame);
        iAnswer(pPeer->id, reinterpret_cast<socketFrame_t*>(answer.data()));
    }
}
