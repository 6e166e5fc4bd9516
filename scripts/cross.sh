#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# scripts/cross.sh arm64|armhf : builds mtd_main for a controller with Debian's cross
# toolchain and the -dev packages of that architecture (installed by deps.sh
# --cross), makes its Debian packages (into build-<arch>/packages/), which lintian
# must accept, and runs the unit test suites under qemu-user. The end-to-end and
# package tests stay with the native build; no benchmarks or fuzz targets here.
# MTD_BUILD_DIR_OVERRIDE picks another build folder.
set -euo pipefail
cd "$(dirname "$0")/.."
arch="${1:-}"
case "$arch" in
  arm64) triplet=aarch64-linux-gnu; cpu=aarch64; qemu=qemu-aarch64-static ;;
  armhf) triplet=arm-linux-gnueabihf; cpu=arm; qemu=qemu-arm-static ;;
  *) echo "usage: $0 arm64|armhf" >&2; exit 2 ;;
esac
scripts/deps.sh --cross "$arch"
dir="${MTD_BUILD_DIR_OVERRIDE:-build-$arch}"
# pkg-config must find the .pc files of the target architecture only
export PKG_CONFIG_LIBDIR="/usr/lib/$triplet/pkgconfig:/usr/share/pkgconfig"
cmake -S . -B "$dir" -G Ninja \
  -DCMAKE_SYSTEM_NAME=Linux -DCMAKE_SYSTEM_PROCESSOR="$cpu" \
  -DCMAKE_C_COMPILER="$triplet-gcc" -DCMAKE_CXX_COMPILER="$triplet-g++" \
  -DCMAKE_CROSSCOMPILING_EMULATOR="$(command -v "$qemu")" \
  -DMTD_DEB_ARCH="$arch" -DMTD_BUILD_BENCH=OFF -DMTD_FUZZ=OFF >&2
cmake --build "$dir" -j"$(nproc)" >&2
mkdir -p "$dir/packages"
(cd "$dir/packages" && rm -f ./*.deb ./*.ddeb && cpack -G DEB --config ../CPackConfig.cmake >cpack.log 2>&1) ||
  { cat "$dir/packages/cpack.log"; echo "cross: cpack failed" >&2; exit 1; }
for deb in "$dir"/packages/*.deb; do
  got=$(dpkg-deb -f "$deb" Architecture)
  [ "$got" = "$arch" ] || { echo "cross: $deb is for $got" >&2; exit 1; }
done
lintian --allow-root --fail-on error,warning "$dir"/packages/*.deb "$dir"/packages/*.ddeb ||
  { echo "cross: lintian" >&2; exit 1; }
ls "$dir"/packages/*.deb "$dir"/packages/*.ddeb
cd "$dir"
# Death tests re-execute the test binary from the child, which the kernel
# cannot start without a binfmt handler for the foreign architecture; they run
# in the native suites.
ctest --output-on-failure -j"$(nproc)" --timeout 600 -E '^(e2e_|packaging\.)|DeathTest'
