#include "BenchStats.h"

#include <algorithm>
#include <cstdio>

namespace BenchStats
{
namespace
{
double microseconds(Clock::duration d)
{
    return std::chrono::duration<double, std::micro>(d).count();
}

double ratio(double a, double b)
{
    return b > 0 ? a / b : 0;
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

void report(benchmark::State& state, const Figure& figure, const Subject& subject, const Subject& baseline,
            const std::vector<double>& measured, const std::vector<double>& base)
{
    const double median = percentile(measured, 0.5);
    const double p99 = percentile(measured, 0.99);
    const double baseMedian = percentile(base, 0.5);
    const double baseP99 = percentile(base, 0.99);
    const std::string prefix = figure.key.empty() ? "" : figure.key + "_";
    state.counters[prefix + "ratio"] = ratio(median, baseMedian);
    state.counters[prefix + "ratio_p99"] = ratio(p99, baseP99);
    state.counters[prefix + subject.key + "_median"] = median;
    state.counters[prefix + subject.key + "_p99"] = p99;
    state.counters[prefix + baseline.key + "_median"] = baseMedian;
    state.counters[prefix + baseline.key + "_p99"] = baseP99;
    const char* unit = figure.unit.c_str();
    std::fprintf(stderr,
                 "%s: ratio median %.3f p99 %.3f | %s median %.1f %s p99 %.1f %s | %s median %.1f %s p99 %.1f %s"
                 " (%zu samples each)\n",
                 figure.what.c_str(), ratio(median, baseMedian), ratio(p99, baseP99), subject.label, median, unit, p99,
                 unit, baseline.label, baseMedian, unit, baseP99, unit, measured.size());
}

void interleaved(benchmark::State& state, const char* what, const Subject& subject, const Subject& baseline,
                 const Sample& measured, const Sample& base, int warmUps)
{
    for (int i = 0; i < warmUps; ++i) {
        measured();
        base();
    }
    std::vector<double> measuredUs, baseUs;
    bool measuredFirst = true;
    for (auto _ : state) {
        Clock::duration m, b;
        if (measuredFirst) {
            m = measured();
            b = base();
        } else {
            b = base();
            m = measured();
        }
        measuredFirst = !measuredFirst;
        measuredUs.push_back(microseconds(m));
        baseUs.push_back(microseconds(b));
        state.SetIterationTime(std::chrono::duration<double>(m).count());
    }
    report(state, {"", what, "us"}, subject, baseline, measuredUs, baseUs);
}

void interleaved(benchmark::State& state, const char* what, const Subject& subject, const Sample& measured,
                 const Sample& plain, int warmUps)
{
    interleaved(state, what, subject, {"plain", "plain libdbus"}, measured, plain, warmUps);
}
}
