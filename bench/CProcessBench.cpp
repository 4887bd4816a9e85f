// What the size of the descriptor table costs the start of a program.

#include "libQuorCore/CProcess.h"

#include "support/Bench.h"

#include <sys/resource.h>

using namespace QuorCore;

namespace
{
constexpr rlim_t kLargeTable = 1048576; // what some systems give every process
constexpr rlim_t kSmallTable = 1024;
constexpr int kLimitSec = 10; // of one program

/// Limits the descriptors of this process and its children; to the most that is allowed where that
/// is less, and only a process with CAP_SYS_RESOURCE is allowed more than it was given.
void LimitDescriptors(rlim_t limit)
{
    const rlimit wanted{limit, kLargeTable};
    if (setrlimit(RLIMIT_NOFILE, &wanted) != 0) {
        rlimit given{};
        getrlimit(RLIMIT_NOFILE, &given);
        given.rlim_cur = limit < given.rlim_max ? limit : given.rlim_max;
        setrlimit(RLIMIT_NOFILE, &given);
    }
}

void StartAndAwait(benchmark::State& state, rlim_t table)
{
    LimitDescriptors(table);
    CProcess process(nullptr, "bench");
    for (auto _ : state) {
        process.iCreateProcess(false, nullptr, "/bin/true", nullptr, nullptr, nullptr, nullptr,
                               nullptr);
        if (process.iWaitForExit(kLimitSec) != 0 || process.iGetLastExitCode() != 0) {
            state.SkipWithError("the program did not run");
            break;
        }
    }
}

void StartWithLargeTable(benchmark::State& state)
{
    StartAndAwait(state, kLargeTable);
}

void StartWithSmallTable(benchmark::State& state)
{
    StartAndAwait(state, kSmallTable);
}

const bool kRegistered =
    Bench::bCompare({"start a program, 1048576 descriptors", StartWithLargeTable,
                     StartWithSmallTable, Bench::AtMostTimes(1.1)});
} // namespace
