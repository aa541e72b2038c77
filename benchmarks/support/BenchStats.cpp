#include "BenchStats.h"

#include <algorithm>
#include <cstdio>
#include <string>

namespace BenchStats
{
namespace
{
double microseconds(Clock::duration d)
{
    return std::chrono::duration<double, std::micro>(d).count();
}

void report(benchmark::State& state, const char* what, const Subject& subject, const std::vector<double>& measured,
            const std::vector<double>& plain)
{
    const double median = percentile(measured, 0.5);
    const double p99 = percentile(measured, 0.99);
    const double plainMedian = percentile(plain, 0.5);
    const double plainP99 = percentile(plain, 0.99);
    const double ratio = plainMedian > 0 ? median / plainMedian : 0;
    const std::string key = subject.key;
    state.counters[key + "_median_us"] = median;
    state.counters["plain_median_us"] = plainMedian;
    state.counters[key + "_p99_us"] = p99;
    state.counters["plain_p99_us"] = plainP99;
    state.counters["ratio"] = ratio;
    std::fprintf(stderr,
                 "%s: %s median %.1f us p99 %.1f us | plain libdbus median %.1f us p99 %.1f us"
                 " | ratio %.3f (%zu samples each)\n",
                 what, subject.label, median, p99, plainMedian, plainP99, ratio, measured.size());
}
}

double percentile(std::vector<double> samples, double p)
{
    if (samples.empty())
        return 0;
    std::sort(samples.begin(), samples.end());
    const size_t i = static_cast<size_t>(p * static_cast<double>(samples.size() - 1) + 0.5);
    return samples[std::min(i, samples.size() - 1)];
}

void interleaved(benchmark::State& state, const char* what, const Subject& subject, const Sample& measured,
                 const Sample& plain, int warmUps)
{
    for (int i = 0; i < warmUps; ++i) {
        measured();
        plain();
    }
    std::vector<double> measuredUs, plainUs;
    bool measuredFirst = true;
    for (auto _ : state) {
        Clock::duration m, p;
        if (measuredFirst) {
            m = measured();
            p = plain();
        } else {
            p = plain();
            m = measured();
        }
        measuredFirst = !measuredFirst;
        measuredUs.push_back(microseconds(m));
        plainUs.push_back(microseconds(p));
        state.SetIterationTime(std::chrono::duration<double>(m).count());
    }
    report(state, what, subject, measuredUs, plainUs);
}
}
