/// @file
/// @brief The thread that watches the reset button.
#pragma once

#include <libQuorCore/libQuorCore.h>

/// Posts EVT_NETD_BUTTON whenever the button goes down or up. Ends where there is no such line.
class CButton : public QuorCore::CThread
{
public:
    CButton(CObject* pParent, const char* szLabel) : CThread(pParent, szLabel) {}
    ~CButton() override { StopAndAwaitEnd(); }

    /// Before the start. @param iLine  The kernel's number. @param bActiveLow  Pressed is low.
    void Configure(int iLine, bool bActiveLow);

    long iRunThread() override;

private:
    int m_iLine = -1;
    bool m_bActiveLow = false;
};
