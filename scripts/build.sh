#!/usr/bin/env bash
# Configures and builds one build folder.
#   bash scripts/build.sh <folder> [extra cmake arguments...]
# Known folders: build (default flags), build-asan (AddressSanitizer + UBSan), build-tsan
# (ThreadSanitizer), build-fuzz (clang + libFuzzer).
# What decides the configuration (the cmake arguments, and CC, CXX, CFLAGS, CXXFLAGS, LDFLAGS,
# which cmake reads only when a folder is first configured) is kept in <folder>/configure-args,
# with the project's own cache entries as they were after that run. When either differs (another
# argument or compiler, or an option set by hand with `cmake -D` since), the folder is configured
# afresh, so a changed option is never silently ignored nor a hand-set one silently kept.
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

# The cache entries a user may set: the project's options and the compilers and their flags.
settings() {
  grep -E '^(CBRADIO_[A-Z_]+|CMAKE_BUILD_TYPE|CMAKE_C(XX)?_COMPILER|CMAKE_(C|CXX|EXE_LINKER)_FLAGS[A-Z_]*):' \
    "$dir/CMakeCache.txt" 2>/dev/null || true
}

stamp="$dir/configure-args"
wanted=$(printf '%s\n' "${args[@]}" "CC=${CC:-}" "CXX=${CXX:-}" "CFLAGS=${CFLAGS:-}" \
  "CXXFLAGS=${CXXFLAGS:-}" "LDFLAGS=${LDFLAGS:-}")
if [ ! -f "$dir/build.ninja" ] || [ ! -f "$stamp" ] || [ "$(cat "$stamp")" != "$wanted"$'\n'"$(settings)" ]; then
  fresh=()
  # A folder configured with other arguments keeps them in its cache; start that cache anew.
  if [ -f "$dir/CMakeCache.txt" ]; then fresh=(--fresh); fi
  mkdir -p "$dir"
  if ! cmake "${fresh[@]}" -S . -B "$dir" "${args[@]}" >"$dir/configure.log"; then
    cat "$dir/configure.log"
    exit 1
  fi
  # What is built and what is left out, and why (the rest is in configure.log).
  sed -n 's/^-- cbradio: //p' "$dir/configure.log"
  printf '%s\n' "$wanted"$'\n'"$(settings)" >"$stamp"
fi
# shellcheck disable=SC2086
cmake --build "$dir" ${CBRADIO_TARGETS:+--target $CBRADIO_TARGETS} -- -j"$(nproc)"
