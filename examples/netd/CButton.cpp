#include "CButton.h"

#include "NetdProtocol.h"

using namespace QuorCore;

namespace
{
constexpr int kWaitSliceMs = 200; // so that a stop is noticed
constexpr int kPauseMs = 20; // between two looks; hides bouncing, and spares the processor when a
                             // line has gone and its wait ends at once
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
        // Only a press is worth a wait: one for a release would end late, and hide the next press.
        const bool bDown = bWasDown ? line.getValue() == 1 : line.bWait4Edge(kWaitSliceMs, nullptr);
        if (bDown != bWasDown) {
            bWasDown = bDown;
            iPostMessage(EVT_NETD_BUTTON, bDown ? 1 : 0, 0, nullptr, 0, 0);
        }
        Sleep(kPauseMs);
    }
    return 0;
}
