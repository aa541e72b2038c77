#!/usr/bin/env bash
# Configures and builds one build folder.
#   bash scripts/build.sh <folder> [extra cmake arguments...]
# Known folders: build (default flags), build-asan (AddressSanitizer + UBSan), build-tsan
# (ThreadSanitizer), build-fuzz (clang + libFuzzer).
# The configure arguments are kept in <folder>/configure-args; when they differ from the last
# run the folder is configured afresh, so a changed option is never silently ignored.
# CBRADIO_TARGETS, when set, names the targets to build (default: everything).
set -euo pipefail
cd "$(dirname "$0")/.."
dir=${1:-build}
shift || true
args=(-G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo)
case "$dir" in
  build-asan) args+=(-DCBRADIO_SANITIZE=ON -DCBRADIO_BENCHMARKS=OFF) ;;
  build-tsan) args+=(-DCBRADIO_TSAN=ON -DCBRADIO_BENCHMARKS=OFF -DCBRADIO_FUZZ=OFF) ;;
  build-fuzz) args+=(-DCBRADIO_FUZZ=ON -DCBRADIO_TESTS=OFF -DCBRADIO_BENCHMARKS=OFF
                     -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++) ;;
esac
args+=("$@")
stamp="$dir/configure-args"
wanted=$(printf '%s\n' "${args[@]}")
if [ ! -f "$dir/build.ninja" ] || [ ! -f "$stamp" ] || [ "$(cat "$stamp")" != "$wanted" ]; then
  fresh=()
  # A folder configured with other arguments keeps them in its cache; start that cache anew.
  if [ -f "$dir/CMakeCache.txt" ]; then fresh=(--fresh); fi
  cmake "${fresh[@]}" -S . -B "$dir" "${args[@]}" >/dev/null
  printf '%s\n' "$wanted" >"$stamp"
fi
# shellcheck disable=SC2086
cmake --build "$dir" ${CBRADIO_TARGETS:+--target $CBRADIO_TARGETS} -- -j"$(nproc)"
