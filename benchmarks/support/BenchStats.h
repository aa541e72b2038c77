// BenchStats: a measured subject against a baseline, sampled in turns within one benchmark.
//
// Each iteration takes one sample of each, alternating which goes first, so both see the same
// machine at the same time. The benchmark's iteration time is the subject's sample (use
// UseManualTime()); medians and 99th percentiles of both in microseconds and the ratio of the
// medians (subject / baseline) become counters and are printed on standard error.
#ifndef BENCHSTATS_H
#define BENCHSTATS_H

#include <benchmark/benchmark.h>

#include <chrono>
#include <functional>
#include <vector>

namespace BenchStats
{
using Clock = std::chrono::steady_clock;
// Takes one sample and returns how long it took.
using Sample = std::function<Clock::duration()>;

// How the subject is named: `key` prefixes its counters ("<key>_median_us", "<key>_p99_us"),
// `label` names it in the printed line. The baseline is "plain" / "plain libdbus".
struct Subject
{
    const char* key;
    const char* label;
};

// The value below which a share `p` (0..1) of the samples lie; 0 for no samples.
double percentile(std::vector<double> samples, double p);

// `warmUps` unmeasured pairs first (connections, caches, page faults), then the benchmark loop.
void interleaved(benchmark::State& state, const char* what, const Subject& subject, const Sample& measured,
                 const Sample& plain, int warmUps);
}

#endif
