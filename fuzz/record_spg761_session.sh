#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# fuzz/record_spg761_session.sh BUILD_DIR : records what mtd_spbussim answers
# to a real mtd_main session of an SPG761.1 (system and current values, hourly
# and daily slices, the journal) and writes seeds for fuzz_spnet_reply from it:
# fuzz/corpus/spnet_reply/session_param, session_array, session_archive,
# session_columns, session_slice (the first byte picks the request kind as the
# target does, then one reply).
# Runs in its own namespaces like the end-to-end cases, with the relay of
# fuzz/line_relay.py keeping the meter's bytes. Regenerate with this one
# command and review the diff.
. "$(dirname "$0")/record_lib.sh" "$@"
OUT="$ROOT/fuzz/corpus/spnet_reply"

start_bg "$WORK/sim.out" "$BUILD_DIR/mtd_spbussim" --link "$WORK/meter" --no-timing --archive-days 1 --seed 3 --model spg761.1 \
    --now "$(ek_device_start 10)"
wait_for "$WORK/sim.out" '^ready' 5 || { cat "$WORK/sim.out"; exit 1; }
start_relay "$WORK/meter" "$WORK/line" "$WORK/bytes" "$WORK/relay.out" || exit 1
cat >"$WORK/host.json" <<JSON
{"meters": {"7610": {"port_params": {"manufacturer": "spg761.1", "name": "$WORK/line", "speed": "9600",
  "timeout": "300", "serial": "76100042", "data_rate": "600"}, "systems": ["1"]}}}
JSON
start_hostsim "$WORK/host.json" "$WORK/host.rec" || exit 1
start_bg "$WORK/main.log" "$MTD_MAIN" -e -v 7 -i 7610
wait_for "$WORK/main.log" 'cycle_end\(\) - line left idle' 60 || { echo "no cycle"; exit 1; }
stop_started

mkdir -p "$OUT"
python3 - "$WORK/bytes" "$OUT" <<'PY'
import os, sys
data, out = open(sys.argv[1], "rb").read(), sys.argv[2]
replies, pos = [], 0
while True:
    start = data.find(b"\x10\x01\x10\x1f", pos)
    if start < 0:
        break
    end = data.find(b"\x10\x03", start + 7)
    if end < 0:
        break
    replies.append(data[start:end + 4])
    pos = end + 4
want = {"session_param": (0, 0x03), "session_array": (1, 0x14), "session_archive": (2, 0x16),
        "session_columns": (3, 0x21), "session_slice": (4, 0x20)}
for name, (sel, fn) in want.items():
    of_kind = [r for r in replies if r[4] == fn]
    if not of_kind:
        sys.exit("no reply 0x%02x recorded" % fn)
    body = max(of_kind, key=len)
    with open(os.path.join(out, name), "wb") as f:
        f.write(bytes([sel]) + body)
    print(name, len(body) + 1, "bytes")
PY
