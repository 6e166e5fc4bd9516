#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# scripts/sysroot.sh arm64|armhf : prints the path of a folder holding the Debian 12
# libraries and headers the controller build links against (build-sysroot-<arch>/),
# making it first when it is missing or was made from another package list.
# The packages are only unpacked there (mmdebstrap's extract variant), from the
# main and bookworm-updates suites, so the host's own dpkg never learns the
# foreign architecture and a security update of the host cannot clash with
# them. MTD_SYSROOT_DIR picks another folder, MTD_SYSROOT_MIRROR another mirror.
set -euo pipefail
cd "$(dirname "$0")/.."
arch="${1:-}"
case "$arch" in arm64|armhf) ;; *) echo "usage: $0 arm64|armhf" >&2; exit 2 ;; esac
dir="${MTD_SYSROOT_DIR:-$PWD/build-sysroot-$arch}"
mirror="${MTD_SYSROOT_MIRROR:-http://deb.debian.org/debian}"
pkgs="libc6-dev,libstdc++-12-dev,libjsoncpp-dev,libcurl4-openssl-dev,libmodbus-dev,libgtest-dev,libgmock-dev,libcpp-httplib-dev"
want="bookworm bookworm-updates $mirror $pkgs"
stamp="$dir/.mtd-sysroot"
if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "$want" ]; then
  echo "$dir"
  exit 0
fi
command -v mmdebstrap >/dev/null || { echo "sysroot: mmdebstrap is missing (scripts/deps.sh --cross $arch)" >&2; exit 1; }
echo "sysroot: unpacking the $arch libraries into $dir" >&2
rm -rf "$dir.new"
# Nothing is installed, so no dpkg database tells which package holds a library:
# the packages' shlibs entries are kept in one file for dpkg-shlibdeps -L instead.
# shellcheck disable=SC2016
mmdebstrap --quiet --variant=extract --architectures="$arch" --include="$pkgs" \
  --extract-hook='for d in "$1"/var/cache/apt/archives/*.deb; do dpkg-deb --info "$d" shlibs 2>/dev/null || true; done |
                  grep -v "^udeb:" >"$1/.mtd-shlibs.local"' \
  bookworm "$dir.new" "deb $mirror bookworm main" "deb $mirror bookworm-updates main" >&2
# qemu -L looks up every path in the sysroot first: device nodes, /tmp and /var
# there would shadow the host's (a /dev/ptmx of another pts instance breaks
# openpty), so only the libraries, headers and their configuration stay.
rm -rf "$dir.new"/{dev,proc,run,sys,tmp,var}
echo "$want" >"$dir.new/.mtd-sysroot"
rm -rf "$dir"
mv "$dir.new" "$dir"
echo "$dir"
