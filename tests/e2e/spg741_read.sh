#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# SPG741 read by the real mtd_main against mtd_m4sim --model spg741 (the
# meter's memory as the public facts lay it out): system and current values
# (each pressure in its sensor's unit), the hourly, daily and fault-journal
# rings stored exactly once and equal to the simulator's records, a second
# cycle that reads only what the meter recorded since; the same on a noisy line and with a meter
# that goes silent in the middle of an archive; a wrong serial number.
# spg741_read.sh BUILD_DIR (re-runs itself in `unshare -rmn`); SPG741_CASES=faults
# runs the noisy and the silent meter instead of the clean and the wrong serial.
. "$(dirname "$0")/lib.sh"
e2e_case "$@"

M4SIM="$BUILD_DIR/mtd_m4sim"

# spg741_check_archives LOG ID SIMARGS... : what is stored for meter ID equals
# the simulator's records up to where each ring was last read ("ring read up
# to" in the daemon's log): every timestamp once, field by field (pressures
# published in kgf/cm2, the meter's sensor [P1] keeps kPa).
SPG741_MATCH='(lambda d: f["DateTime"] == d["t"] and (
    list(f) == ["DateTime", "NS", "state"] and f["NS"] == d["NS"] and f["state"] == ("on" if d["on"] == "1" else "off")
    if "on" in d else
    list(f) == ["DateTime", "Vstd1", "Vw1", "P1", "T1", "Vstd2", "Vw2", "NS"] and int(f["NS"], 16) == int(d["NS"])
    and all(abs(float(f[a]) - float(d[a]) * k) < 2e-5 for a, k in (("Vstd1", 1), ("Vw1", 1),
            ("P1", MPA / 1000), ("T1", 1), ("Vstd2", 1), ("Vw2", 1)))))(
    dict(kv.split("=", 1) for kv in m.split()))'
spg741_check_archives() {
    local log=$1 id=$2
    shift 2
    ARCH_END='CmtdSPG741::get_arch_values\(\) - (\w+) ring read up to (\d+)' check_archives "$log" "$id" "$M4SIM" \
        Hourly_JSONRPC=hourly=Hourly,Daily_JSONRPC=daily=Daily,Journal_Event_JSONRPC=events=Journal \
        "$SPG741_MATCH" "$@"
}

# spg741_check_current RECORD : the last put_all_current_values holds the
# meter's values in order, with units, in kgf/cm2 for pressures.
spg741_check_current() {
    { echo "$CURRENT_PY"; cat <<'PY'; } | python3 - "$1"
last = last_put(sys.argv[1])
v = {x["name"]: x for x in last}
names = [x["name"] for x in last]
want = ["DateTime", "Vstd1", "Vw1", "Vstd2", "Vw2", "P1", "T1", "Qw1", "Qstd1", "P2", "T2", "Qw2", "Qstd2", "NS"]
bad = []
if names != want:
    bad.append("names %s" % names)
else:
    checks = [("T1", "7.50000", "grad"), ("Qstd1", "102.50000", "m3/h"), ("Vstd2", "1000.25000", "m3"),
              ("Vw2", "1200.50000", "m3"), ("P2", "2.54929", "kgs/sm2 (atm)"), ("DateTime", None, "")]
    for n, value, dim in checks:
        if (value and v[n]["value"] != value) or v[n]["dim"] != dim:
            bad.append(json.dumps(v[n]))
    if abs(float(v["P1"]["value"]) - 312.5 * 0.010197162129787) > 1e-4 or v["P1"]["dim"] != "kgs/sm2 (atm)":
        bad.append(json.dumps(v["P1"]))
    if float(v["Vstd1"]["value"]) < 50000 or any(x["quality"] != 192 for x in last):
        bad.append(json.dumps(v["Vstd1"]))
for b in bad:
    print("  " + b)
sys.exit(1 if bad else 0)
PY
}

# read_case LEGEND ID SERIAL_CONFIGURED SIMARGS... : one meter read for two cycles.
read_case() {
    local legend=$1 id=$2 given=$3
    shift 3
    local dev
    dev=$(ek_device_start 30)
    local sim=("--model" spg741 "--now" "$dev" "--archive-days" 2 "--seed" "$id" "--serial" 741005 "--rate-hour" 10)
    start_bg "$WORK/$id.sim" "$M4SIM" "${sim[@]}" --link "$WORK/$id.tty" --clock-scale 720 "$@"
    local simpid=$BG_PID
    wait_for "$WORK/$id.sim" '^ready' 5 || { echo "m4sim did not start"; cat "$WORK/$id.sim"; return 1; }
    write_ek_model_config "$WORK/$id.json" "$id" spg741 "$WORK/$id.tty" "$given" 5
    start_hostsim "$WORK/$id.json" "$WORK/$id.rec" || return 1
    start_bg "$WORK/$id.log" "$MTD_MAIN" -e -v 7 -i "$id"
    local pid=$BG_PID
    if [ "$given" != 741005 ]; then
        check "$legend: wrong serial refused" wait_for "$WORK/$id.log" \
            "READ SERIAL '741005' != GIVEN SERIAL '$given'" 20
        check "$legend: nothing stored" test -z "$(find /mnt/storage/"$id" -name '*.jsonl' 2>/dev/null)"
    else
        check "$legend: a cycle ends whole" wait_count "$WORK/$id.log" 'Journal ring read up to' 1 40
        check "$legend: driver started" grep -q 'SPG741 driver version 01.00' "$WORK/$id.log"
        check "$legend: system values" grep -q 'CmtdSPG741::init() - identifier 0x4729' "$WORK/$id.log"
        check "$legend: current values published" spg741_check_current "$WORK/$id.rec"
        check "$legend: archives of the first cycles" spg741_check_archives "$WORK/$id.log" "$id" "${sim[@]}"
        local n
        n=$(count_in "$WORK/$id.log" 'cycle_end\(\) - session left')
        check "$legend: next cycle ends" wait_count "$WORK/$id.log" 'cycle_end\(\) - session left' $((n + 1)) 30
        check "$legend: a new hourly batch" \
            stored_in_cycle "$WORK/$id.log" 'cycle_end\(\) - session left' "$n" Hourly_JSONRPC
        check "$legend: archives after more cycles" spg741_check_archives "$WORK/$id.log" "$id" "${sim[@]}"
        check "$legend: series whole" series_whole "$id" Hourly_JSONRPC 3600 20
    fi
    kill -INT "$pid"
    check "$legend: daemon stops" wait_exit "$pid" 5
    stop_pid "$HOSTSIM_PID"
    kill -INT "$simpid"
    check "$legend: simulator stops" wait_exit "$simpid" 5
    grep -E '^exchanges=' "$WORK/$id.sim" | tail -1
}

case "${SPG741_CASES:-read}" in
read)
    read_case "clean line" 7411 741005 --no-timing
    read_case "wrong serial" 7414 741009 --no-timing
    ;;
faults)
    read_case "noisy line" 7412 741005 --baud 2400 --fault-share 0.15 --fault-seed 5
    read_case "silent in archive" 7413 741005 --no-timing --silent-after 3 --silent-count 4 --silent-in-archive
    check "silent in archive: the cycle broke off" grep -q 'disconnecting from controller registered' "$WORK/7413.log"
    ;;
esac

echo "e2e spg741 ${SPG741_CASES:-read}: $FAILURES failure(s)"
[ "$FAILURES" = 0 ]
