// BenchStats: a measured subject against a baseline, sampled in turns within one benchmark.
//
// Each iteration takes one sample of each, alternating which goes first, so both see the same
// machine at the same time. Every figure is reported as the ratio subject / baseline of the
// medians and of the 99th percentiles, with both sides' median and 99th percentile, as benchmark
// counters and as one line on standard error. For latencies the benchmark's iteration time is the
// subject's sample (use UseManualTime()).
#ifndef BENCHSTATS_H
#define BENCHSTATS_H

#include <benchmark/benchmark.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace BenchStats
{
using Clock = std::chrono::steady_clock;
// Takes one sample and returns how long it took.
using Sample = std::function<Clock::duration()>;

// One side of a comparison: `key` prefixes its counters ("<key>_median", "<key>_p99"), `label`
// names it in the printed line.
struct Subject
{
    const char* key;
    const char* label;
};

// What is compared: `key` prefixes the figure's counters (empty: none), `what` names it in the
// printed line, `unit` follows its values.
struct Figure
{
    std::string key;
    std::string what;
    std::string unit;
};

// The value below which a share `p` (0..1) of the samples lie; 0 for no samples.
double percentile(std::vector<double> samples, double p);

// Counters and the printed line for one figure.
void report(benchmark::State& state, const Figure& figure, const Subject& subject, const Subject& baseline,
            const std::vector<double>& measured, const std::vector<double>& base);

// Latency: `warmUps` unmeasured pairs first (connections, caches, page faults), then the benchmark
// loop, one pair per iteration.
void interleaved(benchmark::State& state, const char* what, const Subject& subject, const Subject& baseline,
                 const Sample& measured, const Sample& base, int warmUps);
// The same against plain libdbus ("plain").
void interleaved(benchmark::State& state, const char* what, const Subject& subject, const Sample& measured,
                 const Sample& plain, int warmUps);
}

#endif
