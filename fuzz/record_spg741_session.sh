#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# fuzz/record_spg741_session.sh BUILD_DIR : records what mtd_m4sim --model
# spg741 answers to one real mtd_main cycle (session start, settings,
# clock, current values, the daily, hourly and journal rings) and writes it as
# the seed fuzz/corpus/spg741_replies/session. Runs in its own namespaces like
# the end-to-end cases, with fuzz/line_relay.py between the daemon and the
# simulator. Regenerate with this one command and review the diff.
. "$(dirname "$0")/record_lib.sh" "$@"
OUT="$ROOT/fuzz/corpus/spg741_replies"

start_bg "$WORK/sim" "$BUILD_DIR/mtd_m4sim" --model spg741 --link "$WORK/meter" --no-timing --archive-days 2 \
    --seed 3 --serial 741005 --now "$(ek_device_start 10)"
wait_for "$WORK/sim" '^ready' 5 || { cat "$WORK/sim"; exit 1; }
start_relay "$WORK/meter" "$WORK/line" "$WORK/bytes" "$WORK/relay" || exit 1
write_ek_model_config "$WORK/config.json" 7410 spg741 "$WORK/line" 741005 600
start_hostsim "$WORK/config.json" "$WORK/rec" || exit 1
start_bg "$WORK/log" "$MTD_MAIN" -e -v 7 -i 7410
wait_for "$WORK/log" "Journal ring read up to" 60 || { echo "no cycle"; exit 1; }
stop_started
mkdir -p "$OUT"
cp "$WORK/bytes" "$OUT/session"
echo "spg741: $(wc -c <"$OUT/session") bytes"
