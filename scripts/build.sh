#!/usr/bin/env bash
# Configures (once) and builds one build folder.
#   bash scripts/build.sh <folder> [extra cmake arguments...]
# Known folders: build (default flags), build-asan (sanitizers), build-fuzz (clang + libFuzzer).
set -euo pipefail
cd "$(dirname "$0")/.."
dir=${1:-build}
shift || true
args=(-G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo)
case "$dir" in
  build-asan) args+=(-DCBRADIO_SANITIZE=ON -DCBRADIO_BENCHMARKS=OFF) ;;
  build-fuzz) args+=(-DCBRADIO_FUZZ=ON -DCBRADIO_TESTS=OFF -DCBRADIO_BENCHMARKS=OFF
                     -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++) ;;
esac
if [ ! -f "$dir/build.ninja" ]; then
  cmake -S . -B "$dir" "${args[@]}" "$@" >/dev/null
fi
cmake --build "$dir" -- -j"$(nproc)"
