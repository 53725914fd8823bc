#!/usr/bin/env bash
# Installs what is missing, builds the library and its tests, and runs the
# test suite twice: in the Release build (then builds and checks the Debian
# packages) and in a build instrumented with AddressSanitizer and
# UndefinedBehaviorSanitizer; then the threaded and lattice tests in a small
# ThreadSanitizer build, and every libFuzzer target for a bounded time.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/bootstrap.sh
jobs=$(nproc)

# The Release build, with the benchmarks (built, not run, so that they keep
# compiling) and the packages' prefix.
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release -DHSEG_BUILD_BENCH=ON -DCMAKE_INSTALL_PREFIX=/usr
cmake --build build -j"$jobs"
ctest --test-dir build --output-on-failure -j"$jobs"

# Debian packages from the Release build: their contents checked, and the
# tool, the module and a C program run from them unpacked into a throwaway
# root.
scripts/package.sh --in build

cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DHSEG_SANITIZE=ON
cmake --build build-asan -j"$jobs"
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
  ctest --test-dir build-asan --output-on-failure -j"$jobs"

# ThreadSanitizer: only the three test programs it runs are built, on the
# Release build's weights file (so the weights are not made again).
cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DHSEG_TSAN=ON \
  -DHSEG_BUILD_TOOLS=OFF -DHSEG_WEIGHTS="$PWD/build/generated/synthetic.safetensors"
cmake --build build-tsan -j"$jobs" --target crf_test segment_test network_test
TSAN_OPTIONS=halt_on_error=1 \
  ctest --test-dir build-tsan -R '^(crf_test|segment_threads_test|net_pool_threads_test)$' --output-on-failure -j"$jobs"

# Every parser of untrusted bytes, fuzzed for half a minute each (longer
# runs: scripts/fuzz.sh SECONDS).
if command -v clang++ >/dev/null 2>&1; then
  scripts/fuzz.sh 30
else
  echo "clang++ not found: fuzz targets skipped" >&2
fi
