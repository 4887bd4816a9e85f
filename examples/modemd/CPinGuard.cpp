#include "CPinGuard.h"

using namespace QuorCore;

namespace
{
constexpr const char* kPin = "pin";
constexpr const char* kTried = "pin_tried";
} // namespace

std::string CPinGuard::szPin() const
{
    return m_config.szGetParameter(kPin, "");
}

bool CPinGuard::bMaySend() const
{
    return m_config.szGetParameter(kTried, "") != szPin();
}

// Saving reports its failures to the log alone, so the file is asked.
bool CPinGuard::bNote()
{
    m_config.SetParameter(kTried, szPin().c_str());
    CFileConfig saved;
    saved.iLoad(m_config.pszGetFilename());
    return saved.szGetParameter(kTried, "") == szPin();
}

void CPinGuard::RemoveNote()
{
    m_config.SetParameter(kTried, ""); // a line without a value counts as none
}

void CPinGuard::Accept(const std::string& szAccepted)
{
    if (szPin() != szAccepted) {
        m_config.SetParameter(kPin, szAccepted.c_str());
    }
    RemoveNote();
}
