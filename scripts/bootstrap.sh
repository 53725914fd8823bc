#!/usr/bin/env bash
# Installs the Debian packages that building, testing and benchmarking need.
# Idempotent: packages already present are left alone and apt-get update runs
# only when something is missing.
#
#   scripts/bootstrap.sh           what building and testing need
#   scripts/bootstrap.sh --bench   also OpenCV, which the benchmarks time
#                                  beside the library where it is installed
set -euo pipefail

packages=(
  build-essential cmake pkg-config git python3
  libopenblas-dev        # GEMM, GEMV and AXPY of the network
  libeigen3-dev          # convmul
  libgtest-dev           # tests
  libbenchmark-dev       # bench/
  nlohmann-json3-dev     # safetensors header parsing in the weights tool
  libstb-dev             # PNG/JPEG/BMP reading and PNG writing in the tools
  clang libclang-rt-14-dev  # libFuzzer targets (scripts/fuzz.sh)
  # the Python module
  python3-numpy          # the module's arrays
  python3-pil            # its tests read the example photograph and masks
)

if [ "${1:-}" = "--bench" ]; then
  packages+=(libopencv-dev)
fi

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done

if [ ${#missing[@]} -gt 0 ]; then
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO="sudo"
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
