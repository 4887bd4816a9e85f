/// @file
/// @brief What the tests of the example programs share.
#pragma once

#include "support/CChild.h"
#include "support/CSyslogReceiver.h"

#include <cstdlib>
#include <functional>
#include <regex.h>
#include <stdexcept>
#include <string>
#include <unistd.h>
#include <vector>

namespace TestSupport
{
/// @brief What a child does to become a program: for CChild.
/// @param args  The program's path, then its arguments.
inline std::function<int()> Program(const std::vector<std::string>& args)
{
    return [args] {
        std::vector<char*> argv; // execv(3) takes pointers to non-const, and changes nothing
        for (const std::string& szArg : args) {
            argv.push_back(const_cast<char*>(szArg.c_str()));
        }
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        return EXIT_FAILURE;
    };
}

/// @brief A log line that is waited for; regex(7), extended.
class CLogPattern
{
public:
    explicit CLogPattern(const std::string& szPattern)
    {
        if (regcomp(&m_regex, szPattern.c_str(), REG_EXTENDED) != 0) {
            throw std::invalid_argument(szPattern);
        }
    }
    CLogPattern(const CLogPattern&) = delete;
    CLogPattern& operator=(const CLogPattern&) = delete;
    ~CLogPattern() { regfree(&m_regex); }

    /// @return What the groups matched, the whole match first; empty if the text does not match.
    std::vector<std::string> Match(const std::string& szText) const
    {
        std::vector<regmatch_t> matches(m_regex.re_nsub + 1);
        std::vector<std::string> groups;
        if (regexec(&m_regex, szText.c_str(), matches.size(), matches.data(), 0) == 0) {
            for (const regmatch_t& match : matches) {
                groups.push_back(szText.substr(static_cast<size_t>(match.rm_so),
                                               static_cast<size_t>(match.rm_eo - match.rm_so)));
            }
        }
        return groups;
    }

private:
    regex_t m_regex{};
};

/// @brief Waits for a log line that matches.
/// @return Its groups, as CLogPattern::Match() has them; empty if none came in time.
inline std::vector<std::string> AwaitLog(const std::string& szPattern)
{
    const CLogPattern pattern(szPattern);
    std::vector<std::string> groups;
    CSyslogReceiver::Get().bAwait([&](const CSyslogReceiver::Record& record) {
        groups = pattern.Match(record.szText);
        return !groups.empty();
    });
    return groups;
}
} // namespace TestSupport
