#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# scripts/deps.sh [--cross ARCH] : installs the Debian packages the build, the tests,
# the demo and the benchmarks need, only those missing. Quiet when all is there.
# --cross arm64|armhf adds the cross toolchain of that architecture, qemu-user to run
# its tests and mmdebstrap, which unpacks that architecture's -dev packages into a
# folder of their own (scripts/sysroot.sh); the host's dpkg stays single-architecture.
set -euo pipefail
PKGS=(build-essential cmake ninja-build pkg-config
      libjsoncpp-dev libcurl4-openssl-dev libmodbus-dev
      libgtest-dev libgmock-dev libbenchmark-dev libcpp-httplib-dev
      clang libclang-rt-14-dev util-linux mount iproute2 python3 procps
      # the package test: CPack needs file, the unit check systemd-analyze
      file dpkg-dev systemd lintian
      # promtool checks mtd_status --prometheus in the end-to-end tests; it comes
      # only with the whole server (about 20 MB), which the tests never start
      prometheus)
ARCH=
case "${1:-}" in
  --cross) ARCH="${2:?usage: $0 [--cross arm64|armhf]}" ;;
  "") ;;
  *) echo "usage: $0 [--cross arm64|armhf]" >&2; exit 2 ;;
esac
SUDO=""
[ "$(id -u)" -eq 0 ] || SUDO="sudo"
if [ -n "$ARCH" ]; then
  case "$ARCH" in arm64|armhf) ;; *) echo "deps: unknown architecture $ARCH" >&2; exit 2 ;; esac
  PKGS+=("crossbuild-essential-$ARCH" qemu-user-static mmdebstrap)
fi
missing=()
for p in "${PKGS[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
echo "deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
# A mirror caught mid-sync fails one index now and then; the install below still
# fails clearly if a package is really out of reach.
$SUDO apt-get update -qq || echo "deps: apt-get update reported errors; installing from the lists at hand" >&2
$SUDO apt-get install -y -qq --no-install-recommends -o DPkg::Lock::Timeout=600 "${missing[@]}" >/dev/null
