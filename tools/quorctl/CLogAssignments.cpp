#include "CLogAssignments.h"

#include "DataText.h"
#include "Failure.h"
#include "LogLevels.h"
#include "Number.h"

#include <climits>
#include <fnmatch.h>

namespace QuorCtl
{
namespace
{
constexpr int kIndexMax = UINT8_MAX; // CMD_COMMUN_SET_LOG_CONFIG has a byte for it

template <class Predicate>
std::vector<int> IndicesIf(const std::vector<LogThread>& threads, Predicate predicate)
{
    std::vector<int> indices;
    for (const LogThread& thread : threads) {
        if (predicate(thread)) {
            indices.push_back(thread.iIndex);
        }
    }
    return indices;
}

std::vector<int> Meant(const std::string& szThread, const std::vector<LogThread>& threads)
{
    std::vector<int> indices =
        IndicesIf(threads, [&](const LogThread& thread) { return thread.szLabel == szThread; });
    const std::optional<int64_t> index = ParseNumber(szThread, 0, INT_MAX);
    if (indices.empty() && index) {
        indices =
            IndicesIf(threads, [&](const LogThread& thread) { return thread.iIndex == *index; });
    }
    if (indices.empty()) {
        indices = IndicesIf(threads, [&](const LogThread& thread) {
            return fnmatch(szThread.c_str(), thread.szLabel.c_str(), 0) == 0;
        });
    }
    return indices;
}
} // namespace

CLogAssignments::CLogAssignments(const std::vector<std::string>& texts)
{
    for (const std::string& szText : texts) {
        const size_t separator = szText.rfind('=');
        if (separator == std::string::npos || separator == 0) {
            throw CUsageError("log set: '" + szVisible(szText) + "' is not THREAD=LEVEL");
        }
        const std::string szLevelText = szText.substr(separator + 1);
        const std::optional<int> level = ParseLevel(szLevelText);
        if (!level) {
            throw CUsageError("log set: '" + szVisible(szLevelText) +
                              "' is no level: 0 to 7 or emerg alert crit err warning notice info "
                              "debug");
        }
        m_assignments.push_back({szText.substr(0, separator), *level});
    }
}

std::map<int, int> CLogAssignments::Resolve(const std::vector<LogThread>& threads) const
{
    std::map<int, int> levels;
    for (const Assignment& assignment : m_assignments) {
        const std::vector<int> indices = Meant(assignment.szThread, threads);
        if (indices.empty()) {
            throw CUsageError("log set: the daemon has no thread '" +
                              szVisible(assignment.szThread) + "'");
        }
        if (indices.back() > kIndexMax) {
            throw CUsageError("log set: thread " + std::to_string(indices.back()) +
                              " is out of reach: the command has a byte for the index");
        }
        for (const int iIndex : indices) {
            levels[iIndex] = assignment.iLevel;
        }
    }
    return levels;
}
} // namespace QuorCtl
