// The cost of one trace call on the calling thread:
//   FilteredOut      sendFormattedMessage with three arguments on a scope whose filter lacks the
//                    kind (the common case in a running service: the test before any formatting);
//   EnabledNoOutput  the same message enabled for media 1 while no trace channel exists
//                    (formatting and the handler loop, nothing written);
//   ConsoleDevNull   the same message to the console, standard output redirected to /dev/null
//                    (formatting, the line head and one writev).
// ScopeFilteredOut adds the entry/exit pair of a CJTTraceScope whose entry bit is off.
// Each reports "allocs", the malloc calls per iteration (counted by the wrapper below).
// Quote the CPU-time median of repetitions: the machine is shared, wall time swings.
#include <benchmark/benchmark.h>

#include <atomic>

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

#include "CJTTraceHelper.h"
#include "CJTTraceScope.h"
#include "CJTTraceScopeDef.h"

static CJTTraceScopeDef gsTraceServerScopeDef_Bench_CBench_filtered("Bench_CBench", "filtered", 0x02, 0x0F);
static CJTTraceScopeDef gsTraceServerScopeDef_Bench_CBench_noOutput("Bench_CBench", "noOutput", 0x40, 0x01);
static CJTTraceScopeDef gsTraceServerScopeDef_Bench_CBench_console("Bench_CBench", "console", 0x40, 0x08);

// Every malloc of the process passes here (the C library's own entry does the work).
extern "C" void* __libc_malloc(size_t size);
static std::atomic<unsigned long> sMallocs{0};
extern "C" void* malloc(size_t size)
{
    sMallocs.fetch_add(1, std::memory_order_relaxed);
    return __libc_malloc(size);
}

namespace
{
// Sets the "allocs" counter to the malloc calls per iteration since start.
void reportAllocations(benchmark::State& state, unsigned long start)
{
    state.counters["allocs"] = benchmark::Counter(static_cast<double>(sMallocs.load() - start),
                                                  benchmark::Counter::kAvgIterations);
}

void sendThree(const CJTTraceScope& scope, int i)
{
    scope.sendFormattedMessage("\n[CBR bench] channel %d squelch %s level %u\n", i, "open", 7u);
}

// Points standard output at /dev/null for the lifetime of the object.
class StdoutToDevNull
{
public:
    StdoutToDevNull()
    {
        fflush(stdout);
        mSaved = dup(1);
        int null = open("/dev/null", O_WRONLY);
        dup2(null, 1);
        close(null);
    }
    ~StdoutToDevNull()
    {
        fflush(stdout);
        dup2(mSaved, 1);
        close(mSaved);
    }

private:
    int mSaved;
};
}

// Three trace calls per iteration in one scope entered once, with the allocations they make.
static void sendThreeInOneScope(benchmark::State& state, const CJTTraceScopeDef& def)
{
    CJTTraceHelper::getInstancePtr();
    CJTTraceScope scope(def);
    int i = 0;
    unsigned long start = sMallocs.load();
    for (auto _ : state)
        sendThree(scope, ++i);
    reportAllocations(state, start);
}

static void FilteredOut(benchmark::State& state)
{
    sendThreeInOneScope(state, gsTraceServerScopeDef_Bench_CBench_filtered);
}
BENCHMARK(FilteredOut);

static void ScopeFilteredOut(benchmark::State& state)
{
    CJTTraceHelper::getInstancePtr();
    int i = 0;
    unsigned long start = sMallocs.load();
    for (auto _ : state) {
        CJTTraceScope scope(gsTraceServerScopeDef_Bench_CBench_filtered);
        sendThree(scope, ++i);
    }
    reportAllocations(state, start);
}
BENCHMARK(ScopeFilteredOut);

static void EnabledNoOutput(benchmark::State& state)
{
    sendThreeInOneScope(state, gsTraceServerScopeDef_Bench_CBench_noOutput);
}
BENCHMARK(EnabledNoOutput);

static void ConsoleDevNull(benchmark::State& state)
{
    CJTTraceHelper::getInstancePtr();
    CJTTraceScope scope(gsTraceServerScopeDef_Bench_CBench_console);
    StdoutToDevNull redirect;
    int i = 0;
    for (auto _ : state)
        sendThree(scope, ++i);
}
BENCHMARK(ConsoleDevNull);

BENCHMARK_MAIN();
