#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# fuzz/record_ek_session.sh BUILD_DIR : records what mtd_metersim answers to a
# real mtd_main session (sign-on, system and current values, the archives) and
# writes seed inputs from it: fuzz/corpus/ek_replies/<model> (first byte picks
# the model as fuzz_ek_replies does, then every reply byte in order) and
# fuzz/corpus/iec61107_reply/session_* (one exchange kind per file). Runs in
# its own namespaces like the end-to-end cases; a relay on a second
# pseudo-terminal sits between the daemon and the simulator and keeps the
# meter's bytes. Regenerate with this one command and review the diff.
. "$(dirname "$0")/record_lib.sh" "$@"
OUT="$ROOT/fuzz/corpus"

record() {  # record MODEL SELECTOR
    local model=$1 selector=$2
    local low=${model,,}
    start_metersim "$WORK/$model.sim" --link "$WORK/$model.meter" --no-timing --archive-days 1 --seed 3 \
        --model "$model" --now "$(ek_device_start 10)" || return 1
    start_relay "$WORK/$model.meter" "$WORK/$model.line" "$WORK/$model.bytes" "$WORK/$model.relay" || return 1
    write_ek_model_config "$WORK/$model.json" 2400 "$low" "$WORK/$model.line" 12345678 600
    start_hostsim "$WORK/$model.json" "$WORK/$model.rec" || return 1
    start_bg "$WORK/$model.log" "$MTD_MAIN" -e -v 7 -i 2400
    wait_for "$WORK/$model.log" 'cycle_end\(\) - session closed' 60 || { echo "$model: no cycle"; return 1; }
    stop_started
    mkdir -p "$OUT/ek_replies"
    { printf "\\x$(printf %02x "$selector")"; cat "$WORK/$model.bytes"; } >"$OUT/ek_replies/$low"
    echo "$model: $(wc -c <"$OUT/ek_replies/$low") bytes"
}

record EK270 0 && record EK260 1 && record TC220 2 || exit 1

# IEC 61107 exchanges cut out of the EK270 session: the selector picks the kind.
python3 - "$WORK/EK270.bytes" "$OUT/iec61107_reply" <<'PY'
import os, sys
data, out = open(sys.argv[1], "rb").read(), sys.argv[2]
ident_end = data.index(b"\n") + 1
p0_end = data.index(b"\x03", ident_end) + 2
first_stx = data.index(b"\x02", p0_end)
r1_end = data.index(b"\x03", first_stx) + 2
eot = data.find(b"\x04")
cuts = {"session_sign_on": (0, data[:ident_end]), "session_options": (1, data[ident_end:p0_end]),
        "session_read": (2, data[first_stx:r1_end])}
if eot > 0:
    start = data.rfind(b"\x02", 0, eot)
    cuts["session_archive_block"] = (4, data[start:eot + 2])
for name, (sel, body) in cuts.items():
    with open(os.path.join(out, name), "wb") as f:
        f.write(bytes([sel]) + body)
    print(name, len(body) + 1, "bytes")
PY
