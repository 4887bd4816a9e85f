/// @file
/// @brief How a benchmark states its workloads, and what each is measured against.
///
/// Each bench/NAMEBench.cpp becomes a program whose main() is in bench/support/. It registers
/// pairs: a workload of the library and its limit, the least that the same job costs in the same
/// process. The program measures both in turns, several times, and prints one row per pair with the
/// medians; its exit code is 1 if a workload missed its target. `scripts/bench` builds and runs
/// them all.
///
///     void PostMessage(benchmark::State& state)
///     {
///         CThing thing; // not measured
///         for (auto _ : state) {
///             thing.Post(); // measured
///         }
///     }
///     void SetSemaphore(benchmark::State& state) { ... } // what it cannot do without
///
///     const bool kRegistered =
///         Bench::bCompare({"post a message", PostMessage, SetSemaphore, Bench::AtMostTimes(1.5)})
///         && Bench::bCompare({"post from two threads", PostMessage, SetSemaphore,
///                          Bench::AtMostMoreNs(100), Bench::PASSING_TIME, 2});
///
/// A limit may be a null pointer if there is only a time to stay below, as AtMostNs(50000). What
/// has no target is an ordinary BENCHMARK() of Google Benchmark and gets a row, too. Options of
/// Google Benchmark work as usual: --benchmark_filter, --benchmark_repetitions,
/// --benchmark_min_time, ...
#pragma once

#include <benchmark/benchmark.h>

namespace Bench
{
/// @brief What a workload must reach; made by the functions below.
struct target_t {
    enum eKind { TIMES_LIMIT, NS_MORE_THAN_LIMIT, NS, MIB };
    eKind kind;
    double fAtMost;
};

/// The median is at most @p fFactor times that of the limit.
constexpr target_t AtMostTimes(double fFactor)
{
    return {target_t::TIMES_LIMIT, fFactor};
}

/// The median is at most @p fNs ns more than that of the limit.
constexpr target_t AtMostMoreNs(double fNs)
{
    return {target_t::NS_MORE_THAN_LIMIT, fNs};
}

/// The median is at most @p fNs ns; there may be no limit.
constexpr target_t AtMostNs(double fNs)
{
    return {target_t::NS, fNs};
}

/// The median is at most @p fMib MiB of memory, supplied in place of ns; there may be no limit.
constexpr target_t AtMostMib(double fMib)
{
    return {target_t::MIB, fMib};
}

/// @brief What is measured: the time that passes, or, for a job that waits for nothing, the time
///        that it has a processor, which other programs of the machine stretch less; or what the
///        workload supplies itself, with benchmark::State::SetIterationTime(), as a percentile is.
enum eClock { PASSING_TIME, PROCESSOR_TIME, SUPPLIED };

/// @brief One row of the table.
struct comparison_t {
    const char* szWorkload; ///< Unique in its program; a string literal.
    benchmark::internal::Function* pWorkload;
    benchmark::internal::Function* pLimit; ///< Or null, with AtMostNs() only.
    target_t target;
    eClock clock = PASSING_TIME;
    int nThreads = 1; ///< Run the same function at once; times are those of one iteration in each.
};

/// @brief Registers a comparison. To be called by the initialiser of a static object.
/// @return True.
bool bCompare(const comparison_t& comparison);

/// @brief Has @p pFunction called once before all measurements, as long as there are no threads.
/// @return True.
bool bBeforeAll(void (*pFunction)());
} // namespace Bench
