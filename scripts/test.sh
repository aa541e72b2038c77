#!/usr/bin/env bash
# The project's test command: installs what is missing, checks the formatting of the sources
# (scripts/format.sh), then builds and runs the whole suite twice (a normal build and an
# AddressSanitizer + UndefinedBehaviorSanitizer build), runs the integration and end-to-end groups
# once more in a ThreadSanitizer build, and runs every fuzz target for a short bounded time in a
# clang/libFuzzer build.
#   bash scripts/test.sh
# FUZZ_SECONDS (default 15) bounds each fuzz target; SKIP_FUZZ=1 leaves fuzzing out;
# SKIP_TSAN=1 leaves the ThreadSanitizer stage out; TEST_JOBS (default twice the cores) is how many
# tests of the normal and sanitizer builds run at once.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh --no-build

# Formatting first: it takes seconds, and a tree that fails it would fail after the builds too.
echo "== format"
if ! bash scripts/format.sh --check; then
  echo "== format: the files above differ from .clang-format; run bash scripts/format.sh --fix and commit"
  exit 1
fi

# The bus and end-to-end tests spend most of their time waiting for the daemon (its start alone
# paces three one-second pauses), not computing: twice as many at once as there are cores halves
# the stage and still passes under both sanitizers.
jobs=${TEST_JOBS:-$((2 * $(nproc)))}

run_suite() {
  local dir=$1
  echo "== $dir: build"
  bash scripts/build.sh "$dir"
  echo "== $dir: test"
  (cd "$dir" && ctest --output-on-failure -j"$jobs" --timeout 300 --no-tests=error)
}

run_suite build
ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  run_suite build-asan

# Every process of the stage (tests, daemon, simulators) writes its reports to a file of its own,
# so a race in a child process fails the stage as well as one in the test program. Only what the
# integration and e2e tests run is built; the install and packaging checks (deploy_*), which need
# every target and start no threads of their own, run in the other builds only.
if [ "${SKIP_TSAN:-0}" != "1" ]; then
  echo "== build-tsan: build"
  CBRADIO_TARGETS="tests/integration/all tests/e2e/all" bash scripts/build.sh build-tsan
  echo "== build-tsan: test (integration, e2e)"
  reports="$PWD/build-tsan/tsan-reports"
  rm -rf "$reports" && mkdir -p "$reports"
  (cd build-tsan &&
   TSAN_OPTIONS="suppressions=$PWD/../tests/tsan.supp log_path=$reports/tsan second_deadlock_stack=1" \
     ctest --output-on-failure -j"$jobs" --timeout 300 -L 'integration|e2e' -E '^deploy_')
  if [ -n "$(ls -A "$reports")" ]; then
    cat "$reports"/*
    echo "== build-tsan: ThreadSanitizer reports above ($(ls "$reports" | wc -l) processes)"
    exit 1
  fi
fi

if [ "${SKIP_FUZZ:-0}" != "1" ]; then
  # Only the fuzz targets and what they link: the programs and man pages of a clang build with
  # coverage instrumentation would be built for nothing.
  echo "== build-fuzz: build"
  CBRADIO_TARGETS="fuzz/all" bash scripts/build.sh build-fuzz -DCBRADIO_FUZZ_SECONDS="${FUZZ_SECONDS:-15}"
  echo "== build-fuzz: run"
  (cd build-fuzz && ctest --output-on-failure -j2 -L fuzz --no-tests=error)
fi
echo "== all suites passed"
