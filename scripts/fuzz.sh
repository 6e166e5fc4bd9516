#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# scripts/fuzz.sh [seconds] : builds every libFuzzer target under fuzz/ with clang
# (ASan+UBSan) into build-fuzz/ and runs each for the given time (default 30 s),
# starting from its seed corpus in fuzz/corpus/<name>/. New inputs go to a scratch
# copy, so the committed corpus stays small. Stops at the first crash, a leak or
# an input that takes more than a second. Output of the code under test (the
# command line's usage text) is closed off; libFuzzer's own report stays.
# MTD_FUZZ_BUILD_DIR picks the build folder, MTD_FUZZ_ONLY one target (name without fuzz_).
set -euo pipefail
cd "$(dirname "$0")/.."
secs="${1:-30}"
dir="${MTD_FUZZ_BUILD_DIR:-build-fuzz}"
cmake -S . -B "$dir" -G Ninja -DMTD_FUZZ=ON -DMTD_BUILD_TESTS=OFF -DMTD_BUILD_TOOLS=OFF \
      -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_C_COMPILER=clang -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
targets=()
for src in fuzz/fuzz_${MTD_FUZZ_ONLY:-*}.cpp; do
  [ -e "$src" ] || continue
  targets+=("$(basename "$src" .cpp)")
done
[ ${#targets[@]} -gt 0 ] || { echo "fuzz: no targets"; exit 0; }
cmake --build "$dir" -j2 --target "${targets[@]}"
for t in "${targets[@]}"; do
  name="${t#fuzz_}"
  work="$dir/corpus/$name"
  mkdir -p "$work"
  [ -d "fuzz/corpus/$name" ] && cp -n "fuzz/corpus/$name"/* "$work"/ 2>/dev/null || true
  echo "fuzz: $t for ${secs}s"
  "$dir/fuzz/$t" -max_total_time="$secs" -timeout=1 -detect_leaks=1 -close_fd_mask=3 -print_final_stats=1 \
      -artifact_prefix="$dir/$name-" "$work"
done
