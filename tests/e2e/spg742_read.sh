#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# SPG742 read by the real mtd_main against mtd_m4sim (real line timing), four
# meters side by side, each with its own daemon:
#   clean   system values, current values published, archives equal to the
#           meter's records exactly once; a second cycle reads only new ones
#   faults  a noisy line (seeded damage at any byte, lost answers, late check bytes)
#   silent  the meter falls silent in the middle of an archive transfer
#   serial  the meter's serial number is not the configured one
#   spg742_read.sh BUILD_DIR
. "$(dirname "$0")/lib.sh"
e2e_case "$@"
M4SIM="$BUILD_DIR/mtd_m4sim"

read -ra cases <<<"${MTD_SPG_CASES:-clean faults silent serial}"
declare -A ids=([clean]=7421 [faults]=7422 [silent]=7423 [serial]=7424)
declare -A extra=(
    [clean]=""
    [faults]="--fault-share 0.08 --fault-seed 11"
    [silent]="--silent-after 1 --silent-count 8 --silent-in-archive"
    [serial]=""
)
declare -A pid

# The device clock 30 hours behind the wall clock, running 720 s a second, so
# an hour of records builds up between two 5 s cycles.
dev=$(ek_device_start 30)
sim_args() {  # CASE: the simulator's settings that decide its records
    echo "--now $dev --archive-days 2 --rate-hour 9 --tz-hours 3 --seed ${ids[$1]} --address 7 --serial 5${ids[$1]}"
}

entry() {  # CASE
    local id=${ids[$1]} serial=5${ids[$1]}
    [ "$1" = serial ] && serial=999
    printf '"%s": {"port_params": {"manufacturer": "spg742", "name": "%s", "speed": "9600", "data": "8", ' \
        "$id" "$WORK/$1.tty"
    printf '"parity": "N", "stop": "1", "timeout": "400", "serial": "%s", "address": "7", "pu_TZ": "3", ' "$serial"
    printf '"rate_hour": "9", "data_rate": "5"}, "systems": ["1"]}'
}
entries=()
for c in "${cases[@]}"; do entries+=("$(entry "$c")"); done
(IFS=,; printf '{"meters": {%s}}\n' "${entries[*]}") >"$WORK/host.json"
start_hostsim "$WORK/host.json" "$WORK/rec" || exit 1

for c in "${cases[@]}"; do
    # shellcheck disable=SC2046,SC2086
    start_bg "$WORK/$c.sim" "$M4SIM" --link "$WORK/$c.tty" --clock-scale 720 $(sim_args "$c") ${extra[$c]}
    wait_for "$WORK/$c.sim" '^ready' 5 || { echo "m4sim did not start"; cat "$WORK/$c.sim"; exit 1; }
    start_bg "$WORK/$c.log" "$MTD_MAIN" -e -v 7 -i "${ids[$c]}"
    pid[$c]=$BG_PID
done

# spg_check_archives CASE MODE [N]: the stored archives of CASE are the
# meter's records, each once and in order, with the meter's values. MODE
# "exact": up to the device time each kind's read of cycle N (1) ended at;
# later cycles may have stored more by then, those are not looked at.
# "whole": up to the newest stored record (a cycle may have been cut short),
# with at least a day of hours. "newer": cycle N stored hourly records past
# the end of cycle N-1's read.
spg_check_archives() {
    local kinds=Hourly_JSONRPC=hourly,Daily_JSONRPC=daily,Journal_Event_JSONRPC=events
    local match='" ".join("%s=%s" % kv for kv in f.items()) == m'
    local until="cycle ${3:-1}"
    case $2 in
    newer) spg_newer_hours "$1" "${3:-2}"; return ;;
    whole) until=stored ;;
    esac
    # shellcheck disable=SC2046
    ARCH_UNTIL=$until ARCH_CYCLE='CmtdSpgM4::cycle_end\(\) - session left' ARCH_MIN=24 \
        check_archives "$WORK/$1.log" "${ids[$1]}" "$M4SIM" "$kinds" "$match" $(sim_args "$1")
}

# spg_newer_hours CASE N: cycle N stored hourly records past the end of cycle N-1's read.
spg_newer_hours() {
    python3 - "$WORK/$1.log" "/mnt/storage/${ids[$1]}" "$2" <<'PY'
import glob, json, re, sys
log, root, cycle = sys.argv[1], sys.argv[2], int(sys.argv[3])
ends, end, kind = [], None, None
for line in open(log, errors="replace"):
    m = re.search(r"get_arch_values\((\w+)\) ---", line)
    if m:
        kind = m.group(1)
    m = re.search(r"end_dt = curr_dt because end_dt > curr_dt = (\d+)", line)
    if m and kind == "Hourly_JSONRPC":
        end = int(m.group(1))
    if "CmtdSpgM4::cycle_end() - session left" in line:
        ends.append(end)
if len(ends) < cycle or ends[cycle - 2] is None:
    sys.exit("  fewer than %d cycles" % cycle)
newer = [json.loads(l) for p in glob.glob(root + "/**/Hourly_JSONRPC-*.jsonl", recursive=True) for l in open(p)]
newer = [r for r in newer if r["timestamp"] > ends[cycle - 2]]
print("  %d hourly records after %d" % (len(newer), ends[cycle - 2]))
sys.exit(0 if newer else 1)
PY
}

# spg_check_current: the host service got every value of both pipes, with its
# unit, the meter's time and quality 192 (the records do not name the meter,
# so the last complete list of any of them is looked at).
spg_check_current() {
    { echo "$CURRENT_PY"; cat <<'PY'; } | python3 - "$WORK/rec"
record = sys.argv[1]
dims = {"DateTime": "", "Vstd": "m3", "OperatingTime": "hour",
        "Vw1": "m3", "Vstd1": "m3", "P1": "kgs/sm2 (atm)", "T1": "grad", "Qw1": "m3/h", "Qstd1": "m3/h", "K1": "",
        "Vw2": "m3", "Vstd2": "m3", "P2": "kgs/sm2 (atm)", "T2": "grad", "Qw2": "m3/h", "Qstd2": "m3/h", "K2": ""}
vals = last_put(record, len(dims))
names = [v["name"] for v in vals]
bad = [] if names == list(dims) else ["names %s" % names]
for v in vals:
    if v["dim"] != dims.get(v["name"]) or v["quality"] != 192 or v["timestamp"] != vals[0]["timestamp"]:
        bad.append(json.dumps(v))
# The meter keeps about 0.3-0.4 MPa: 3.1-4.2 kgf/cm2.
p1 = [float(v["value"]) for v in vals if v["name"] == "P1"]
if not p1 or not 3.0 < p1[0] < 4.3:
    bad.append("P1 %s" % p1)
for b in bad:
    print("  " + b)
sys.exit(1 if bad else 0)
PY
}

left='CmtdSpgM4::cycle_end\(\) - session left'
for c in "${cases[@]}"; do
    case $c in
    clean)
        check "clean: first cycle ends" wait_count "$WORK/clean.log" "$left" 1 40
        check "clean: serial read" grep -q "SerialNumber = '57421'" "$WORK/clean.log"
        check "clean: model identified" grep -q "MeterModel = 'SPG742'" "$WORK/clean.log"
        check "clean: contract hour read" grep -q "RateHour = '9'" "$WORK/clean.log"
        check "clean: current values published" spg_check_current
        check "clean: archives of the first cycle" spg_check_archives clean exact 1
        check "clean: second cycle ends" wait_count "$WORK/clean.log" "$left" 2 30
        check "clean: second cycle stored new hourly records" spg_check_archives clean newer 2
        check "clean: archives after the second cycle" spg_check_archives clean exact 2
        check "clean: no error from the driver" sh -c "! grep -E 'Err: ' '$WORK/clean.log'" ;;
    faults)
        check "faults: two cycles end" wait_count "$WORK/faults.log" "$left" 2 60
        check "faults: damage seen" grep -Eq "WRONG CRC|CAN'T READ HEADER|Tail Recv - TIMEOUT" "$WORK/faults.log"
        check "faults: archives whole" spg_check_archives faults whole ;;
    silent)
        check "silent: a cycle ends at the silence" wait_for "$WORK/silent.log" "CAN'T SEND REQUEST" 40
        check "silent: a later cycle ends" wait_count "$WORK/silent.log" "$left" 1 40
        check "silent: archives whole" spg_check_archives silent whole ;;
    serial)
        check "serial: mismatch named" wait_for "$WORK/serial.log" "READ SERIAL '57424' != GIVEN SERIAL '999'" 40
        check "serial: nothing stored" test -z "$(find /mnt/storage/7424 -name '*.jsonl' 2>/dev/null)" ;;
    esac
done
for c in "${cases[@]}"; do
    check "$c: daemon still running" kill -0 "${pid[$c]}"
    kill -INT "${pid[$c]}"
    check "$c: daemon stops" wait_exit "${pid[$c]}" 10
done

echo "e2e spg742_read: $FAILURES failure(s)"
[ "$FAILURES" = 0 ]
