#include "libQuorCore/CRunFlag.h"

#include "internal/CThreadLife.h"

namespace QuorCore
{
bool CRunFlag::operator=(bool bOn)
{
    if (!bOn) {
        m_bOn = false;
        return false;
    }
    if (m_bStopAsked) {
        return false;
    }
    m_bOn = true;
    if (m_bStopAsked) { // asked between the two: whoever comes last lowers the flag
        m_bOn = false;
        return false;
    }
    if (CThreadLife* pLife = m_pLife) {
        pLife->Raise();
    }
    return true;
}

void CRunFlag::AskStop()
{
    m_bStopAsked = true;
    m_bOn = false;
}

void CRunFlag::ForgetStop()
{
    m_bStopAsked = false;
}

void CRunFlag::Rearm(CThreadLife* pLife)
{
    m_pLife = pLife;
    m_bStopAsked = false;
    if (m_bOn) { // raised beforehand by who drives the loop himself
        pLife->Raise();
    }
}
} // namespace QuorCore
