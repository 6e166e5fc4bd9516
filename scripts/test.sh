#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# scripts/test.sh [--asan|--tsan] : installs what is missing, builds and runs every test.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
mode="${1:-}"
dir=$(scripts/build.sh "$mode" | tail -n 1)
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1:${ASAN_OPTIONS:-}"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1:${UBSAN_OPTIONS:-}"
export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1:${TSAN_OPTIONS:-}"
cd "$dir"
ctest --output-on-failure -j"$(nproc)" --timeout 600
