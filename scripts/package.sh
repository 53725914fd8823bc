#!/usr/bin/env bash
# Builds the Debian packages hseg, hseg-dev and python3-hseg in build-deb/
# (Release, prefix /usr) and checks them without installing anything: the
# contents list and dependencies of each, then, unpacked with dpkg -x into a
# throwaway root, hseg-segment segmenting the example photograph, the Python
# module importing its library from there, and a C program building and
# running against the package's pkg-config file.
#
#   scripts/package.sh [CMAKE_ARGS...]    e.g. -DHSEG_WEIGHTS=weights.safetensors
#   scripts/package.sh --in DIR           packages an existing Release build
#                                         configured with prefix /usr (the
#                                         test script's), building nothing new
#
# Then install them with:  apt-get install ./build-deb/*.deb
set -euo pipefail
cd "$(dirname "$0")/.."
out=build-deb
if [ "${1:-}" = "--in" ]; then
  out=$2
  shift 2
  prefix=$(sed -n 's/^CMAKE_INSTALL_PREFIX:PATH=//p' "$out/CMakeCache.txt")
  [ "$prefix" = /usr ] || { echo "package.sh: $out is not configured with prefix /usr" >&2; exit 1; }
else
  cmake -S . -B "$out" -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
    -DHSEG_BUILD_TESTS=OFF -DHSEG_BUILD_BENCH=OFF "$@"
fi
cmake --build "$out" -j"$(nproc)"
rm -f "$out"/*.deb
(cd "$out" && cpack -G DEB)
rm -rf "$out/_CPack_Packages"  # the staging copies, 700 MB

libdir=usr/$(sed -n 's/^CMAKE_INSTALL_LIBDIR:PATH=//p' "$out/CMakeCache.txt")
version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$out/CMakeCache.txt")
arch=$(dpkg --print-architecture)
deb() { echo "$out/$1_${version}_${arch}.deb"; }

fail() {
  echo "package check: $*" >&2
  exit 1
}

# expect PACKAGE PATH...: the package's contents list holds every PATH.
expect() {
  local package=$1 contents
  shift
  contents=$(dpkg-deb -c "$(deb "$package")" | awk '{print $6}')
  for p in "$@"; do
    grep -qxF "./$p" <<<"$contents" || fail "$package lacks $p"
  done
}

count=$(find "$out" -maxdepth 1 -name '*.deb' | wc -l)
[ "$count" -eq 3 ] || fail "expected 3 packages, cpack made $count"
expect hseg "$libdir/libhseg.so.0" "$libdir/libhseg.so.$version" "$libdir/libdeeplab_data.so" \
  usr/bin/hseg-segment usr/bin/hseg-weights
expect hseg-dev usr/include/hseg/hseg.h usr/include/hseg/pipeline.h "$libdir/libhseg.so" \
  "$libdir/pkgconfig/hseg.pc" "$libdir/cmake/hseg/hsegConfig.cmake" \
  "$libdir/cmake/hseg/hsegTargets.cmake"
expect python3-hseg usr/lib/python3/dist-packages/hseg/__init__.py \
  usr/lib/python3/dist-packages/hseg/_config.py
dpkg-deb -f "$(deb hseg)" Depends | grep -q libopenblas || fail "hseg does not depend on OpenBLAS"
dpkg-deb -f "$(deb python3-hseg)" Depends | grep -q python3-numpy ||
  fail "python3-hseg does not depend on python3-numpy"

root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
for p in hseg hseg-dev python3-hseg; do dpkg -x "$(deb "$p")" "$root"; done

# The tool finds the unpacked libraries through its run paths.
ldd "$root/usr/bin/hseg-segment" | grep -q "libdeeplab_data.so => $root/" ||
  fail "hseg-segment does not load the unpacked libraries"
"$root/usr/bin/hseg-segment" -o "$root/mask.png" --overlay "$root/overlay.png" \
  examples/astronaut.png
[ -s "$root/mask.png" ] && [ -s "$root/overlay.png" ] || fail "hseg-segment wrote no mask"

# The module loads the unpacked library, wherever the root is.
PYTHONPATH="$root/usr/lib/python3/dist-packages" /usr/bin/python3 - "$root" <<'EOF'
import os, sys, hseg
path = os.path.realpath(hseg._native.LIBRARY_PATH)
assert path.startswith(sys.argv[1] + "/"), path
EOF

cat >"$root/use.c" <<'EOF'
#include <hseg/hseg.h>
int main(void) { return Hseg(0, 0, 0, 0, 0) == HSEG_ERR_BAD_ARGUMENT ? 0 : 1; }
EOF
# shellcheck disable=SC2046
cc "$root/use.c" -o "$root/use" \
  $(PKG_CONFIG_PATH="$root/$libdir/pkgconfig" pkg-config --cflags --libs hseg)
LD_LIBRARY_PATH="$root/$libdir" "$root/use" || fail "a C program built against hseg-dev fails"

echo "package check: $(cd "$out" && echo *.deb) passed"
