#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# scripts/cross.sh arm64|armhf : builds mtd_main for a controller with Debian's cross
# toolchain against the -dev packages of that architecture, unpacked into a folder
# apart from the host (scripts/sysroot.sh), makes its Debian packages (into
# build-<arch>/packages/), which lintian must accept, and runs the unit test suites
# under qemu-user, after the fuzz seed corpora went through the parsers there and
# on this machine with the same results. The end-to-end and package tests stay
# with the native build. MTD_BUILD_DIR_OVERRIDE picks another build folder.
set -euo pipefail
cd "$(dirname "$0")/.."
arch="${1:-}"
case "$arch" in
  arm64) triplet=aarch64-linux-gnu; cpu=aarch64; qemu=qemu-aarch64-static ;;
  armhf) triplet=arm-linux-gnueabihf; cpu=arm; qemu=qemu-arm-static ;;
  *) echo "usage: $0 arm64|armhf" >&2; exit 2 ;;
esac
scripts/deps.sh --cross "$arch"
sysroot=$(scripts/sysroot.sh "$arch" | tail -n 1)
dir="${MTD_BUILD_DIR_OVERRIDE:-build-$arch}"
cmake -S . -B "$dir" -G Ninja --toolchain "$PWD/scripts/cross-toolchain.cmake" \
  -DMTD_CROSS_TRIPLET="$triplet" -DMTD_CROSS_CPU="$cpu" -DMTD_CROSS_SYSROOT="$sysroot" \
  -DMTD_CROSS_QEMU="$(command -v "$qemu")" \
  -DMTD_DEB_ARCH="$arch" -DMTD_BUILD_BENCH=OFF -DMTD_FUZZ=OFF -DMTD_FUZZ_REPLAY=ON >&2
cmake --build "$dir" -j"$(nproc)" >&2
mkdir -p "$dir/packages"
export MTD_CROSS_SYSROOT="$sysroot" MTD_CROSS_TRIPLET="$triplet"
shlibdeps="$PWD/scripts/cross-shlibdeps.sh"
(cd "$dir/packages" && rm -f ./*.deb ./*.ddeb &&
   cpack -G DEB --config ../CPackConfig.cmake -D SHLIBDEPS_EXECUTABLE="$shlibdeps" >cpack.log 2>&1) ||
  { cat "$dir/packages/cpack.log"; echo "cross: cpack failed" >&2; exit 1; }
for deb in "$dir"/packages/*.deb; do
  got=$(dpkg-deb -f "$deb" Architecture)
  [ "$got" = "$arch" ] || { echo "cross: $deb is for $got" >&2; exit 1; }
done
lintian --allow-root --fail-on error,warning "$dir"/packages/*.deb "$dir"/packages/*.ddeb ||
  { echo "cross: lintian" >&2; exit 1; }
ls "$dir"/packages/*.deb "$dir"/packages/*.ddeb
export QEMU_LD_PREFIX="$sysroot"

# The parsers must read the fuzz seed corpora on the controller exactly as on
# this machine: the same log lines, values and records. A difference is code
# that depends on the width of long, size_t or time_t, on alignment or on the
# sign of char. The targets' scratch folders (mtd_fuzz_<name>_XXXXXX) are named
# at random, and the drivers' greeting carries the time they were compiled.
replay() {
  for target in $("$host/mtd_fuzz_replay" --list); do
    TZ=UTC "$@" "$target" fuzz/corpus/"$target"/*
  done | sed -E -e 's#(mtd_fuzz_[a-z]+_)[A-Za-z0-9]{6}/#\1X/#g' -e 's/, compiled: .*$/, compiled: -/'
}
host="$dir/host-replay"
cmake -S . -B "$host" -G Ninja -DMTD_BUILD_TESTS=OFF -DMTD_BUILD_TOOLS=OFF -DMTD_FUZZ_REPLAY=ON >&2
cmake --build "$host" -j"$(nproc)" --target mtd_fuzz_replay >&2
replay "$host/mtd_fuzz_replay" >"$dir/replay-host.txt"
replay "$(command -v "$qemu")" "$dir/mtd_fuzz_replay" >"$dir/replay-$arch.txt"
diff -u "$dir/replay-host.txt" "$dir/replay-$arch.txt" ||
  { echo "cross: the parsers read the seed corpora differently on $arch" >&2; exit 1; }
echo "cross: $(grep -c '^==' "$dir/replay-host.txt") seed inputs read alike on $(uname -m) and $arch"

cd "$dir"
# Death tests re-execute the test binary from the child, which the kernel
# cannot start without a binfmt handler for the foreign architecture; they run
# in the native suites.
ctest --output-on-failure -j"$(nproc)" --timeout 600 -E '^(e2e_|packaging\.)|DeathTest'
