#!/usr/bin/env bash
# Builds every libFuzzer target with Clang (build-fuzz/) and runs each for a
# bounded time, seeded from fuzz/seeds/<target>/. A crash, leak or sanitizer
# report stops the script with the fuzzer's status; the input that caused it
# is left in build-fuzz/ (crash-*, leak-*).
#
#   scripts/fuzz.sh [SECONDS_PER_TARGET]   (default 60)
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}

CC=clang CXX=clang++ cmake -S . -B build-fuzz -DHSEG_FUZZ=ON \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build-fuzz -j"$(nproc)"

for target in build-fuzz/fuzz/*_fuzz; do
  name=$(basename "$target")
  corpus=build-fuzz/corpus/$name
  mkdir -p "$corpus"
  if [ -d "fuzz/seeds/$name" ]; then cp -n fuzz/seeds/"$name"/* "$corpus"/ 2>/dev/null || true; fi
  echo "== $name: ${seconds} s"
  log=build-fuzz/$name.log
  if ! (cd build-fuzz && "fuzz/$name" -max_total_time="$seconds" -max_len=65536 -timeout=10 \
          -rss_limit_mb=2048 -print_final_stats=1 "corpus/$name") >"$log" 2>&1; then
    cat "$log"
    echo "$name failed; the input is in build-fuzz/" >&2
    exit 1
  fi
  grep -E '^stat::number_of_executed_units|^stat::peak_rss_mb' "$log" || true
done
