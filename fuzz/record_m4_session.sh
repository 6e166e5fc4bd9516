#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# fuzz/record_m4_session.sh BUILD_DIR : records what mtd_m4sim (SPG742) answers
# to a real mtd_main session and writes seed inputs from it:
# fuzz/corpus/m4_reply/spg742_* (the selector byte of fuzz_m4_reply, then one
# reply as the line carried it) and fuzz/corpus/m4_elements/spg742_archive_body
# (the body of an archive reply). Runs in its own namespaces like the
# end-to-end cases, with a relay between the daemon and the simulator that
# keeps the meter's bytes. Regenerate with this one command and review the diff.
. "$(dirname "$0")/record_lib.sh" "$@"
OUT="$ROOT/fuzz/corpus"

start_bg "$WORK/sim" "$BUILD_DIR/mtd_m4sim" --link "$WORK/meter" --no-timing --archive-days 1 --seed 3 \
    --address 1 --serial 74200 --now "$(ek_device_start 10)"
wait_for "$WORK/sim" '^ready' 5 || { cat "$WORK/sim"; exit 1; }
start_relay "$WORK/meter" "$WORK/line" "$WORK/bytes" "$WORK/relay" || exit 1
cat >"$WORK/host.json" <<JSON
{"meters": {"7400": {"port_params": {"manufacturer": "spg742", "name": "$WORK/line", "speed": "9600",
  "data": "8", "parity": "N", "stop": "1", "timeout": "300", "serial": "74200", "address": "1",
  "data_rate": "600"}, "systems": ["1"]}}}
JSON
start_hostsim "$WORK/host.json" "$WORK/rec" || exit 1
start_bg "$WORK/log" "$MTD_MAIN" -e -v 7 -i 7400
wait_for "$WORK/log" 'CmtdSpgM4::cycle_end\(\) - session left' 60 || { echo "no cycle"; exit 1; }
stop_started

# Cut the stream into answers: the 8-byte session answer, then long frames by
# their announced length. fuzz_m4_reply starts a fresh session, whose first
# request carries packet identifier 0; other answers get that identifier (and
# their CRC) rewritten.
python3 - "$WORK/bytes" "$OUT" <<'PY'
import os, sys
data, out = open(sys.argv[1], "rb").read(), sys.argv[2]
def crc(b):
    c = 0
    for x in b:
        c ^= x << 8
        for _ in range(8):
            c = ((c << 1) ^ 0x1021) & 0xFFFF if c & 0x8000 else (c << 1) & 0xFFFF
    return c
frames, i = [data[:8]], 8
while i + 7 <= len(data):
    n = 7 + (data[i + 5] | data[i + 6] << 8) + 2
    frames.append(data[i:i + n])
    i += n
def with_id0(f):
    f = bytearray(f)
    f[3] = 0
    c = crc(f[1:-2])
    f[-2:] = bytes([c >> 8, c & 0xFF])
    return bytes(f)
read = next(f for f in frames[1:] if f[7] == 0x72)
archive = max((f for f in frames[1:] if f[7] == 0x61), key=len)
os.makedirs(out + "/m4_reply", exist_ok=True)
seeds = {"m4_reply/spg742_session": b"\x00" + frames[0], "m4_reply/spg742_read": b"\x01" + with_id0(read),
         "m4_reply/spg742_archive": b"\x02" + with_id0(archive), "m4_elements/spg742_archive_body": archive[8:-2]}
for name, body in seeds.items():
    open(os.path.join(out, name), "wb").write(body)
    print(name, len(body), "bytes")
PY
