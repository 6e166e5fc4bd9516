#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The daemon at work: installs what is missing, builds, then inside a private
# namespace (own loopback, tmpfs over /tmp and /mnt/storage) runs mtd_hostsim
# and an EK270 simulated by mtd_metersim (three days of archives, line timing
# at 9600 Bd; --model ek260, tc220, tc215 or tc210 for its relatives), lets mtd_main -e do one full cycle, stops it with SIGINT and
# shows what was read. --model spg742 (or spg741) plays that Logika corrector
# with mtd_m4sim instead, --model spg761 (spg761.1, spg761.2) the SPbus one with
# mtd_spbussim.
set -euo pipefail
cd "$(dirname "$0")/.."

if [ "${MTD_DEMO_INSIDE:-}" != 1 ]; then
    scripts/deps.sh
    dir=$(cd "$(scripts/build.sh | tail -n 1)" && pwd)
    exec unshare -rmn env MTD_DEMO_INSIDE=1 BUILD_DIR="$dir" "$0" "$@"
fi

# shellcheck source=../tests/e2e/lib.sh
source tests/e2e/lib.sh
e2e_enter_ns
trap stop_started EXIT

ID=1001
MODEL=ek270
WAIT=100  # seconds for the first cycle
SERIAL=12345678
MODELS="ek270, ek260, tc220, tc215, tc210, spg742, spg741, spg761, spg761.1 or spg761.2"
[ "${1:-}" = --model ] && MODEL=${2:?--model wants $MODELS}
case $MODEL in
ek270|ek260|tc220|tc215|tc210)
    start_bg "$WORK/sim.out" "$BUILD_DIR/mtd_metersim" --link "$WORK/meter" --model "${MODEL^^}" \
        --serial 12345678 --archive-days 3 --baud 9600 --max-speed 5
    line='"data": "7", "parity": "E", "password1": "00000000", "password2": "11111111"'
    cycle_end='CmtdEK2xxTC2xx::cycle_end\(\) - session closed' ;;
spg742)
    start_bg "$WORK/sim.out" "$BUILD_DIR/mtd_m4sim" --link "$WORK/meter" --model spg742 \
        --serial 12345678 --archive-days 3 --baud 9600
    line='"data": "8", "parity": "N", "address": "0"'
    cycle_end='CmtdSpgM4::cycle_end\(\) - session left' ;;
spg741)
    SERIAL=741005  # the meter keeps 24 bits of it
    start_bg "$WORK/sim.out" "$BUILD_DIR/mtd_m4sim" --link "$WORK/meter" --model spg741 \
        --serial $SERIAL --archive-days 3 --baud 9600
    line='"data": "8", "parity": "N", "address": "0"'
    cycle_end='CmtdSPG741::cycle_end\(\) - session left' ;;
spg761|spg761.1|spg761.2)
    start_bg "$WORK/sim.out" "$BUILD_DIR/mtd_spbussim" --link "$WORK/meter" --model "$MODEL" \
        --serial $SERIAL --archive-days 3 --baud 9600
    line='"data": "8", "parity": "N"'
    # The hourly archive comes one hour per request: the first run takes about 100 s.
    WAIT=300
    cycle_end='CmtdSPG761::cycle_end\(\)' ;;
*) echo "demo: unknown model '$MODEL' ($MODELS)"; exit 2 ;;
esac
wait_for "$WORK/sim.out" '^ready' 5 || { echo "simulator did not start"; cat "$WORK/sim.out"; exit 1; }

cat >"$WORK/host.json" <<JSON
{"meters": {"$ID": {"port_params": {"manufacturer": "$MODEL", "name": "$WORK/meter", "speed": "9600",
  $line, "stop": "1", "timeout": "1000", "serial": "$SERIAL", "data_rate": "600"}, "systems": ["1"]}}}
JSON
start_hostsim "$WORK/host.json" "$WORK/host.record"

echo "demo: mtd_main -e -i $ID against an $MODEL on $(readlink "$WORK/meter") (9600 Bd, line timing on)"
start_bg "$WORK/mtd_main.log" "$MTD_MAIN" -e -v 7 -i "$ID"
MAIN_PID=$BG_PID
if ! wait_for "$WORK/mtd_main.log" "$cycle_end" "$WAIT"; then
    echo "demo: the cycle did not finish in time; last log lines:"
    tail -n 20 "$WORK/mtd_main.log"
    exit 1
fi
kill -INT "$MAIN_PID"
wait_exit "$MAIN_PID" 10 || true

echo
echo "== system values read =="
grep -E "receive\('Read (Serial Number|Meter Model|Rate Hour|Firmware|Archive Period|K Calculation Mode)'\): Recv: <STX>" \
    "$WORK/mtd_main.log" | sed -E "s/.*receive\('(.*)'\): Recv: <STX>(.*)<ETX>.*/  \1: \2/" || true
grep -E 'archiving period is|parseIdent|get_all_system_values\(\) - [A-Za-z]+ = |::init\(\) - model ' "$WORK/mtd_main.log" |
    sed -E 's/.*\] //' | sed 's/^/  /' || true

echo
echo "== current values as the host service received them =="
{ echo "$CURRENT_PY"; cat <<'PY'; } | python3 - "$WORK/host.record"
for params in puts(sys.argv[1]):
    values = params.get("values", params) if isinstance(params, dict) else params
    for v in values if isinstance(values, list) else []:
        name = v.get("value_name", v.get("name", "?"))
        print("  %-11s %-20s %-15s quality %s  time %s  sys %s" % (name, v.get("value"), v.get("dim", ""),
              v.get("opc_quality", v.get("quality")), v.get("timestamp"), v.get("sys")))
PY

echo
echo "== archive records stored =="
find /mnt/storage -type f -name '*.jsonl' | sort | while read -r f; do
    printf '  %5d records  %s\n' "$(wc -l <"$f")" "$f"
done
for kind in Hourly Daily Journal_Event; do
    n=$(find /mnt/storage -type f -name "${kind}_*.jsonl" -exec cat {} + 2>/dev/null | wc -l)
    echo "  $kind: $n records"
done
echo "demo: done"
