#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# scripts/build.sh [--asan|--tsan] : configure and build into build/, build-asan/ or build-tsan/;
# prints the build folder on standard output (MTD_BUILD_DIR_OVERRIDE picks another folder).
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
# Build output goes to standard error so that callers can take the folder from standard output.
cmake -S . -B "$dir" -G Ninja "${extra[@]}" >&2
cmake --build "$dir" -j"$(nproc)" >&2
echo "$dir"
