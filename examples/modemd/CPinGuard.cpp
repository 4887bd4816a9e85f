#include "CPinGuard.h"

using namespace QuorCore;

namespace
{
constexpr const char* kPin = "pin";
constexpr const char* kTried = "pin_tried";
constexpr const char* kRefused = "pin_refused";
} // namespace

std::string CPinGuard::szPin() const
{
    return m_config.szGetParameter(kPin, "");
}

bool CPinGuard::bMaySend() const
{
    return m_config.szGetParameter(kTried, "") != szPin() &&
           m_config.szGetParameter(kRefused, "") != szPin();
}

// Saving reports its failures to the log alone, so the file is asked.
bool CPinGuard::bNote()
{
    Set(kTried, szPin());
    CFileConfig saved;
    saved.iLoad(m_config.pszGetFilename());
    return saved.szGetParameter(kTried, "") == szPin();
}

void CPinGuard::RemoveNote()
{
    Set(kTried, ""); // a line without a value counts as none
}

void CPinGuard::Refuse()
{
    Set(kRefused, szPin()); // first: there is a note at any moment
    RemoveNote();
}

void CPinGuard::Accept(const std::string& szAccepted)
{
    Set(kPin, szAccepted);
    Set(kRefused, "");
    RemoveNote();
}

// Every change flushes the whole system.
void CPinGuard::Set(const char* szKey, const std::string& szValue)
{
    if (m_config.szGetParameter(szKey, "") != szValue) {
        m_config.SetParameter(szKey, szValue.c_str());
    }
}
