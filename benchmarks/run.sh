#!/usr/bin/env bash
# Builds the benchmarks in a Release folder of their own and runs them. They are not part of the
# test command: their figures mean something only on a machine that is otherwise quiet, and they
# take a minute or two.
#   bash benchmarks/run.sh [busservice] [svcipc] [trace] [-- <benchmark options>]
# Without names all three run. The folder is build-release unless BENCH_BUILD_DIR names another.
# BENCH_CPUS (a taskset CPU list, e.g. 1) runs every process of a benchmark on those CPUs: medians
# then hold still on a busy machine, at the price of the wake-ups across cores a real system pays.
# Every figure is printed on standard error as a ratio to its baseline with medians and 99th
# percentiles; the benchmark tables follow on standard output.
set -euo pipefail
cd "$(dirname "$0")/.."
dir=${BENCH_BUILD_DIR:-build-release}

names=()
while [ $# -gt 0 ] && [ "$1" != "--" ]; do
  case "$1" in
    busservice|svcipc|trace) names+=("$1") ;;
    *) echo "usage: bash benchmarks/run.sh [busservice] [svcipc] [trace] [-- <benchmark options>]" >&2; exit 2 ;;
  esac
  shift
done
[ "${1:-}" = "--" ] && shift
[ ${#names[@]} -eq 0 ] && names=(busservice svcipc trace)

targets=()
for name in "${names[@]}"; do
  case "$name" in
    busservice) targets+=(busservice_bench) ;;
    svcipc) targets+=(svcipc_bench) ;;
    trace) targets+=(bench_trace) ;;
  esac
done
# scripts/build.sh configures the folder afresh when these arguments or the compiler changed.
CBRADIO_TARGETS="${targets[*]}" bash scripts/build.sh "$dir" -DCMAKE_BUILD_TYPE=Release \
  -DCBRADIO_TESTS=OFF -DCBRADIO_BENCHMARKS=ON

pin=()
if [ -n "${BENCH_CPUS:-}" ]; then
  pin=(taskset -c "$BENCH_CPUS")
fi
for name in "${names[@]}"; do
  echo "== $name${BENCH_CPUS:+ (on CPUs $BENCH_CPUS)}"
  case "$name" in
    busservice) "${pin[@]}" "$dir/benchmarks/busservice/busservice_bench" "$@" ;;
    svcipc) "${pin[@]}" "$dir/benchmarks/svcipc/svcipc_bench" "$@" ;;
    trace) "${pin[@]}" "$dir/benchmarks/trace/bench_trace" --benchmark_repetitions=10 \
             --benchmark_report_aggregates_only=true "$@" ;;
  esac
done
