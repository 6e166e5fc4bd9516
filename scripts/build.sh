#!/usr/bin/env bash
# scripts/build.sh [--asan|--tsan|--release] : configure and build into build/, build-asan/ or build-tsan/.
set -euo pipefail
cd "$(dirname "$0")/.."
mode="${1:-}"
case "$mode" in
  --asan) dir=build-asan; extra=(-DMTD_SANITIZE=address -DCMAKE_BUILD_TYPE=Debug) ;;
  --tsan) dir=build-tsan; extra=(-DMTD_SANITIZE=thread -DCMAKE_BUILD_TYPE=Debug) ;;
  "")     dir=build; extra=() ;;
  *) echo "usage: $0 [--asan|--tsan]" >&2; exit 2 ;;
esac
dir="${MTD_BUILD_DIR_OVERRIDE:-$dir}"
cmake -S . -B "$dir" -G Ninja "${extra[@]}" >/dev/null
cmake --build "$dir" -j"$(nproc)"
echo "$dir"
