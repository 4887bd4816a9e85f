/// @file
/// @brief Waiting for a line that the library logs.
#pragma once

#include "support/CSyslogReceiver.h"

#include <string>

namespace TestSupport
{
/// @brief Waits for a record of a level whose text ends as given: the text of the message, and as
///        much of what stands before it as matters.
inline bool bAwaitLogged(int iLevel, const std::string& szEnd)
{
    return CSyslogReceiver::Get().bAwait([&](const CSyslogReceiver::Record& record) {
        const std::string& szText = record.szText;
        return record.iLevel == iLevel && szText.size() >= szEnd.size() &&
               szText.compare(szText.size() - szEnd.size(), szEnd.size(), szEnd) == 0;
    });
}
} // namespace TestSupport
