#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The bad-line soak of the suite (tests/e2e/ek_soak.sh), longer: more seeds,
# more cycles, by hand. Prints the faults injected per seed and in all.
#   scripts/soak.sh [SEEDS [CYCLES [SHARE]]]    (default: seeds 21..28, 8 cycles, 0.08)
set -euo pipefail
ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD_DIR=${BUILD_DIR:-$ROOT/build}
SEEDS=${1:-"21 22 23 24 25 26 27 28"}
CYCLES=${2:-8}
SHARE=${3:-0.08}
if [ ! -x "$BUILD_DIR/mtd_main" ] || [ ! -x "$BUILD_DIR/mtd_metersim" ]; then
    "$ROOT/scripts/deps.sh"
    "$ROOT/scripts/build.sh" >/dev/null
fi
exec "$ROOT/tests/e2e/ek_soak.sh" "$BUILD_DIR" "$SEEDS" "$CYCLES" "$SHARE"
