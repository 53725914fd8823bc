#!/usr/bin/env bash
# Installs what is missing, builds the library and its tests, and runs the
# test suite twice: in the Release build and in a build instrumented with
# AddressSanitizer and UndefinedBehaviorSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/bootstrap.sh
jobs=$(nproc)

cmake -S . -B build -DCMAKE_BUILD_TYPE=Release -DHSEG_BUILD_BENCH=OFF
cmake --build build -j"$jobs"
ctest --test-dir build --output-on-failure -j"$jobs"

cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DHSEG_SANITIZE=ON
cmake --build build-asan -j"$jobs"
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
  ctest --test-dir build-asan --output-on-failure -j"$jobs"
