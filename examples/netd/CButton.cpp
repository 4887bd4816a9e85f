#include "CButton.h"

#include "NetdProtocol.h"

using namespace QuorCore;

namespace
{
constexpr int kWaitSliceMs = 200; // so that a stop is noticed
constexpr int kHeldPauseMs = 20;  // between two looks at a button that is held; hides its bouncing
} // namespace

void CButton::Configure(int iLine, bool bActiveLow)
{
    m_iLine = iLine;
    m_bActiveLow = bActiveLow;
}

long CButton::iRunThread()
{
    m_bRun = true;
    CGpio line(m_iLine);
    line.init(CGpio::IN, m_bActiveLow, CGpio::BOTH);
    if (line.openFile(CGpio::VALUE) != 0) {
        QUORCORE_LOG(LOG_WARNING, "this machine has no GPIO line %d: there is no reset button",
                     m_iLine);
        return 0;
    }
    iPostMessage(EVT_NETD_BUTTON, 0, 0, nullptr, 0, 0); // there is one, and it is up
    bool bWasDown = false;
    while (m_bRun) {
        const bool bDown = line.bWait4Edge(kWaitSliceMs, nullptr); // at once while it is held
        if (bDown != bWasDown) {
            bWasDown = bDown;
            iPostMessage(EVT_NETD_BUTTON, bDown ? 1 : 0, 0, nullptr, 0, 0);
        }
        if (bDown) {
            Sleep(kHeldPauseMs);
        }
    }
    return 0;
}
