/// @file
/// The main of every benchmark: runs what was registered and prints the table.

#include "support/Bench.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <map>
#include <string>
#include <vector>

namespace Bench
{
namespace
{
constexpr const char* kLimitSuffix = ", limit";

// Defaults, which options of the command line override. In turns, so that whatever else the machine
// does meets workload and limit alike.
constexpr const char* kDefaultOptions[] = {"--benchmark_repetitions=31",
                                           "--benchmark_min_time=0.03",
                                           "--benchmark_enable_random_interleaving=true"};

constexpr int kSuppliedIterations = 3;

std::vector<comparison_t>& Comparisons()
{
    static std::vector<comparison_t> comparisons;
    return comparisons;
}

std::vector<void (*)()>& Preparations()
{
    static std::vector<void (*)()> preparations;
    return preparations;
}

void Register(const std::string& szName, benchmark::internal::Function* pFunction,
              const comparison_t& comparison)
{
    auto* const pBenchmark = benchmark::RegisterBenchmark(szName.c_str(), pFunction);
    pBenchmark->Threads(comparison.nThreads);
    switch (comparison.clock) {
    case PASSING_TIME:
        pBenchmark->UseRealTime();
        break;
    case SUPPLIED:
        pBenchmark->UseManualTime();
        pBenchmark->Iterations(kSuppliedIterations); // what is supplied tells nothing of its cost
        break;
    case PROCESSOR_TIME:
        break;
    }
}

/// @return ns of one iteration in one thread.
double fIterationNs(const benchmark::BenchmarkReporter::Run& run)
{
    // All threads' iterations and processor time are counted, but the passing time only once.
    const bool bPassingTime = !run.run_name.time_type.empty();
    const double fTime = bPassingTime ? run.GetAdjustedRealTime() * static_cast<double>(run.threads)
                                      : run.GetAdjustedCPUTime();
    return fTime / benchmark::GetTimeUnitMultiplier(run.time_unit) * 1e9;
}

/// Keeps the times of each repetition; prints nothing itself.
class CCollector : public benchmark::BenchmarkReporter
{
public:
    bool ReportContext(const Context&) override { return true; }

    void ReportRuns(const std::vector<Run>& runs) override
    {
        for (const Run& run : runs) {
            if (run.error_occurred) {
                std::cerr << run.benchmark_name() << ": " << run.error_message << '\n';
                m_bFailed = true;
            } else if (run.run_type == Run::RT_Iteration) {
                const std::string& szName = run.run_name.function_name;
                if (m_TimesNs.count(szName) == 0) {
                    m_Names.push_back(szName);
                }
                m_TimesNs[szName].push_back(fIterationNs(run));
            }
        }
    }

    bool bFailed() const { return m_bFailed; }
    const std::vector<std::string>& Names() const { return m_Names; } ///< In order of their first.

    /// @return ns, or a negative number if @p szName was not run.
    double fMedianNs(const std::string& szName) const
    {
        const auto found = m_TimesNs.find(szName);
        if (found == m_TimesNs.end()) {
            return -1;
        }
        std::vector<double> times = found->second;
        std::sort(times.begin(), times.end());
        const size_t iHalf = times.size() / 2;
        return times.size() % 2 == 1 ? times[iHalf] : (times[iHalf - 1] + times[iHalf]) / 2;
    }

private:
    std::map<std::string, std::vector<double>> m_TimesNs;
    std::vector<std::string> m_Names;
    bool m_bFailed = false;
};

std::string szFormat(const char* szFormat, double fValue)
{
    char aText[64];
    std::snprintf(aText, sizeof(aText), szFormat, fValue);
    return aText;
}

std::string szTime(double fNs)
{
    if (fNs < 0) {
        return "-";
    }
    if (fNs < 1e4) {
        return szFormat("%.2f ns", fNs);
    }
    return fNs < 1e7 ? szFormat("%.2f us", fNs / 1e3) : szFormat("%.2f ms", fNs / 1e6);
}

std::string szTarget(const target_t& target)
{
    switch (target.kind) {
    case target_t::TIMES_LIMIT:
        return szFormat("<= %g x limit", target.fAtMost);
    case target_t::NS_MORE_THAN_LIMIT:
        return "<= limit + " + szFormat("%g ns", target.fAtMost);
    case target_t::NS:
        return szFormat("<= %g ns", target.fAtMost);
    case target_t::MIB:
        return szFormat("<= %g MiB", target.fAtMost);
    }
    return "";
}

bool bMet(const target_t& target, double fNs, double fLimitNs)
{
    switch (target.kind) {
    case target_t::TIMES_LIMIT:
        return fNs <= target.fAtMost * fLimitNs;
    case target_t::NS_MORE_THAN_LIMIT:
        return fNs <= target.fAtMost + fLimitNs;
    case target_t::NS:
    case target_t::MIB:
        return fNs <= target.fAtMost;
    }
    return false;
}

void PrintRow(const std::string& szWorkload, const std::string& szMedian,
              const std::string& szLimit, const std::string& szRatio, const std::string& szAim,
              const std::string& szVerdict)
{
    std::printf("%-48s %12s %12s %8s  %-20s %s\n", szWorkload.c_str(), szMedian.c_str(),
                szLimit.c_str(), szRatio.c_str(), szAim.c_str(), szVerdict.c_str());
}

/// @return Whether the workload met its target, or was not run.
bool bPrintComparison(const comparison_t& comparison, const CCollector& collector)
{
    const std::string szWorkload = comparison.szWorkload;
    const double fNs = collector.fMedianNs(szWorkload);
    const double fLimitNs = collector.fMedianNs(szWorkload + kLimitSuffix);
    const bool bNeedsLimit = comparison.target.kind == target_t::TIMES_LIMIT ||
                             comparison.target.kind == target_t::NS_MORE_THAN_LIMIT;
    if (fNs < 0 || (fLimitNs < 0 && bNeedsLimit)) {
        return true; // filtered out, or half of it
    }
    const bool bReached = bMet(comparison.target, fNs, fLimitNs);
    const bool bMemory = comparison.target.kind == target_t::MIB;
    PrintRow(szWorkload, bMemory ? szFormat("%.2f MiB", fNs) : szTime(fNs),
             bMemory && fLimitNs > 0 ? szFormat("%.2f MiB", fLimitNs) : szTime(fLimitNs),
             fLimitNs > 0 ? szFormat("%.3f", fNs / fLimitNs) : "-", szTarget(comparison.target),
             bReached ? "met" : "NOT MET");
    return bReached;
}

bool bIsCompared(const std::string& szName)
{
    return std::any_of(Comparisons().begin(), Comparisons().end(), [&](const auto& comparison) {
        return szName == comparison.szWorkload ||
               szName == std::string(comparison.szWorkload) + kLimitSuffix;
    });
}

/// @return Whether all that ran met its target.
bool bPrintTable(const std::string& szProgram, const CCollector& collector)
{
    PrintRow(szProgram, "median", "limit", "ratio", "target", "");
    bool bAllMet = true;
    for (const comparison_t& comparison : Comparisons()) {
        bAllMet = bPrintComparison(comparison, collector) && bAllMet;
    }
    for (const std::string& szName : collector.Names()) {
        if (!bIsCompared(szName)) {
            PrintRow(szName, szTime(collector.fMedianNs(szName)), "-", "-", "-", "");
        }
    }
    return bAllMet;
}

int iRun(int iArguments, char** aszArguments)
{
    std::vector<std::string> texts(std::begin(kDefaultOptions), std::end(kDefaultOptions));
    texts.insert(texts.begin(), aszArguments[0]);
    texts.insert(texts.end(), aszArguments + 1, aszArguments + iArguments);
    std::vector<char*> arguments;
    for (std::string& szText : texts) {
        arguments.push_back(szText.data());
    }
    int iCount = static_cast<int>(arguments.size());
    arguments.push_back(nullptr);
    benchmark::Initialize(&iCount, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(iCount, arguments.data())) {
        return EXIT_FAILURE;
    }
    for (void (*pPrepare)() : Preparations()) {
        pPrepare();
    }
    CCollector collector;
    benchmark::RunSpecifiedBenchmarks(&collector);
    const std::string szPath = aszArguments[0];
    const bool bAllMet = bPrintTable(szPath.substr(szPath.rfind('/') + 1), collector);
    return bAllMet && !collector.bFailed() ? EXIT_SUCCESS : EXIT_FAILURE;
}
} // namespace

bool bCompare(const comparison_t& comparison)
{
    Comparisons().push_back(comparison);
    Register(comparison.szWorkload, comparison.pWorkload, comparison);
    if (comparison.pLimit != nullptr) {
        Register(std::string(comparison.szWorkload) + kLimitSuffix, comparison.pLimit, comparison);
    }
    return true;
}

bool bBeforeAll(void (*pFunction)())
{
    Preparations().push_back(pFunction);
    return true;
}
} // namespace Bench

int main(int argc, char** argv)
{
    try {
        return Bench::iRun(argc, argv);
    } catch (const std::exception& error) {
        std::cerr << argv[0] << ": " << error.what() << '\n';
        return EXIT_FAILURE;
    }
}
