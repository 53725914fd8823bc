#!/usr/bin/env bash
# Installs what is missing, builds everything (library, tools, benchmarks) and
# runs the main job.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/bootstrap.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release
cmake --build build -j"$(nproc)"
for b in build/bench/*_bench; do
  [ -x "$b" ] || continue
  echo "== $b"
  "$b" --benchmark_min_time=0.2
done
