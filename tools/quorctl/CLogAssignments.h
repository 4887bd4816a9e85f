/// @file
/// @brief What a person asks of log levels, "dispatcher=debug", and which threads that means.
#pragma once

#include "CLogPage.h"

#include <map>
#include <string>
#include <vector>

namespace QuorCtl
{
/// @brief The assignments of one command line, of which a later one overrides an earlier one.
class CLogAssignments
{
public:
    /// @param texts  Each "THREAD=LEVEL"; the last "=" separates, so labels may have some.
    /// @throw CUsageError  One is no assignment, or its level is none.
    explicit CLogAssignments(const std::vector<std::string>& texts);

    /**
     * @brief Works out whom they mean: a label, else an index, else a pattern of glob(7) for
     * labels.
     * @return Level by index; every thread that has the label or matches.
     * @throw CUsageError  One means nobody, or a thread beyond the 256 that the command can name.
     */
    std::map<int, int> Resolve(const std::vector<LogThread>& threads) const;

private:
    struct Assignment {
        std::string szThread;
        int iLevel;
    };
    std::vector<Assignment> m_assignments;
};
} // namespace QuorCtl
