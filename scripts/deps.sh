#!/usr/bin/env bash
# Installs the Debian packages the project needs, only those missing. Quiet when all is there.
set -euo pipefail
PKGS=(build-essential cmake ninja-build pkg-config
      libjsoncpp-dev libcurl4-openssl-dev libmodbus-dev
      libgtest-dev libgmock-dev libbenchmark-dev libcpp-httplib-dev
      clang libclang-rt-14-dev util-linux iproute2 python3 procps)
missing=()
for p in "${PKGS[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
echo "deps: installing ${missing[*]}"
SUDO=""
[ "$(id -u)" -eq 0 ] || SUDO="sudo"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
