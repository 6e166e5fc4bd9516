#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# SPG761 over SPbus read by the real mtd_main against mtd_spbussim (a meter
# answering as its public description says: clock "HH:mm:ss", slices for the
# hourly and daily archives, the journal end time first and newest first):
# system and current values, hourly and daily archives and the event journal
# exactly once, a second cycle that reads only what is new, a wrong serial
# number, a meter silent mid-archive and a noisy line: spg761_read.sh BUILD_DIR
# (re-runs itself in `unshare -rmn`).
. "$(dirname "$0")/lib.sh"
e2e_case "$@"
SPBUSSIM="$BUILD_DIR/mtd_spbussim"

# spg_config FILE ID MANUFACTURER LINK SERIAL
spg_config() {
    cat >"$1" <<JSON
{"meters": {"$2": {"port_params": {"manufacturer": "$3", "name": "$4", "speed": "9600", "data": "8",
  "parity": "N", "stop": "1", "timeout": "300", "serial": "$5", "data_rate": "5"}, "systems": ["1"]}}}
JSON
}

# spg_start ID MANUFACTURER SERIAL SIMARGS... : simulator, host service and daemon; sets PID, SIM_PID.
spg_start() {
    local id=$1 manufacturer=$2 serial=$3
    shift 3
    start_bg "$WORK/$id.sim" "$SPBUSSIM" --link "$WORK/$id.tty" "$@"
    SIM_PID=$BG_PID
    wait_for "$WORK/$id.sim" '^ready' 5 || { cat "$WORK/$id.sim"; return 1; }
    spg_config "$WORK/$id.json" "$id" "$manufacturer" "$WORK/$id.tty" "$serial"
    start_hostsim "$WORK/$id.json" "$WORK/$id.rec" || return 1
    start_bg "$WORK/$id.log" "$MTD_MAIN" -e -v 7 -i "$id"
    PID=$BG_PID
}

spg_stop() {
    kill -INT "$PID"
    check "$1: daemon stops" wait_exit "$PID" 5
    stop_pid "$HOSTSIM_PID"
    stop_pid "$SIM_PID"
}

# spg_check_archives LOG ID SIMARGS... : the stored hourly, daily and journal records are
# exactly the simulator's up to the device time each last read ended at, each once.
spg_check_archives() {
    local log=$1 id=$2
    shift 2
    check_archives "$log" "$id" "$SPBUSSIM" \
        Hourly_JSONRPC=hourly,Daily_JSONRPC=daily,Journal_Event_JSONRPC=events \
        'list(f) == (["DateTime", "Event", "Description"] if len(f) == 3 else ["DateTime", "Vstd", "Vw", "P", "T", "NS"]) and " ".join(list(f.values())[1:]) == m' \
        "$@"
}

# spg_check_current RECORD DEVICE_START : the last put_all_current_values holds the values in order
# with their units, and the totals the meter had at the clock it published (its totals grow by
# 15.31 and 9.875 m3 an hour from 250000 and 160000 at the start of its history, a day before
# the day of DEVICE_START; the clock runs 720 times fast, so a second between the two reads is
# 3 m3).
spg_check_current() {
    { echo "$CURRENT_PY"; cat <<'PY'; } | python3 - "$1" "$2"
import calendar, time
last = last_put(sys.argv[1])
want = [("DateTime", ""), ("Vstd", "m3"), ("Vw", "m3"), ("P", "kgs/sm2 (atm)"), ("T", "grad"),
        ("Qstd", "m3/h"), ("Qw", "m3/h"), ("Kcorr", "")]
got = [(v["name"], v["dim"]) for v in last]
bad = [] if got == want else ["names %s" % got]
vals = {v["name"]: v["value"] for v in last}
if abs(float(vals.get("P", "0")) - 1.6234) > 2e-4: bad.append("P = %s" % vals.get("P"))
if vals.get("T") != "-3.25": bad.append("T = %s" % vals.get("T"))
if any(v["quality"] != 192 or v["sys"] != "1" for v in last): bad.append("quality or sys")
start = int(sys.argv[2])
history = start - start % 86400 - 86400
clock = calendar.timegm(time.strptime(vals.get("DateTime", "2000-01-01,00:00:00"), "%Y-%m-%d,%H:%M:%S"))
if not start <= clock <= start + 86400: bad.append("DateTime = %s" % vals.get("DateTime"))
hours = (clock - history) / 3600.0
for name, base, rate in (("Vstd", 250000, 15.31), ("Vw", 160000, 9.875)):
    if abs(float(vals.get(name, "0")) - (base + hours * rate)) > 10:
        bad.append("%s = %s at %s, meter %.3f" % (name, vals.get(name), vals.get("DateTime"), base + hours * rate))
print("\n".join("  " + b for b in bad))
sys.exit(1 if bad else 0)
PY
}

dev=$(ek_device_start 30)
sim=(--now "$dev" --archive-days 1 --seed 7 --rate-hour 9)

# A clean line: two cycles, everything read once.
read_clean() {
    local args=(--model spg761.1 --pressure-unit MPa "${sim[@]}")
    spg_start 7611 spg761.1 76100042 --no-timing --clock-scale 720 "${args[@]}" || return 1
    check "clean: first cycle ends" wait_count "$WORK/7611.log" 'cycle_end\(\) - line left idle' 1 30
    check "clean: driver started" grep -q 'SPG761 driver version 01.01' "$WORK/7611.log"
    check "clean: serial read" sh -c "grep -q \"SendRequest('Read Model And Serial'): Recv: \" '$WORK/7611.log' &&
        ! grep -q \"CAN'T READ SERIAL\" '$WORK/7611.log'"
    check "clean: current values published" spg_check_current "$WORK/7611.rec" "$dev"
    check "clean: archives of the first cycle" spg_check_archives "$WORK/7611.log" 7611 "${args[@]}"
    check "clean: second cycle ends" wait_count "$WORK/7611.log" 'cycle_end\(\) - line left idle' 2 20
    check "clean: second cycle stored a new hourly batch" \
        stored_in_cycle "$WORK/7611.log" 'cycle_end\(\) - line left idle' 1 Hourly_JSONRPC
    check "clean: archives after the second cycle" spg_check_archives "$WORK/7611.log" 7611 "${args[@]}"
    check "clean: no error from the driver" sh -c "! grep -E 'BAD SLICE|BAD JOURNAL|SKIP IT|WRONG|Err: ' '$WORK/7611.log'"
    spg_stop clean
}

# The configured serial number is another meter's: nothing is published or stored.
read_wrong_serial() {
    spg_start 7612 spg761 11111111 --no-timing "${sim[@]}" || return 1
    check "wrong serial: refused" wait_for "$WORK/7612.log" "READ SERIAL '76100042' != GIVEN SERIAL '11111111'" 20
    check "wrong serial: cycle ended" wait_for "$WORK/7612.log" 'disconnecting from controller registered' 5
    check "wrong serial: no values" sh -c "! grep -q put_all_current_values '$WORK/7612.rec'"
    check "wrong serial: nothing stored" test -z "$(find /mnt/storage -path '*7612*' -name '*.jsonl')"
    spg_stop "wrong serial"
}

# The meter falls silent in the middle of the hourly archive, then answers
# again: the records before the silence stay, the rest follow, none twice.
read_silent() {
    spg_start 7613 spg761.2 76100042 --no-timing --clock-scale 720 --model spg761.2 --silent-after 18 --silent-count 9 \
        "${sim[@]}" || return 1
    check "silent: silence noticed" wait_for "$WORK/7613.log" "CAN'T SEND REQUEST" 30
    check "silent: two cycles after it" wait_count "$WORK/7613.log" 'cycle_end\(\) - line left idle' 3 40
    check "silent: archives whole" spg_check_archives "$WORK/7613.log" 7613 "${sim[@]}"
    spg_stop silent
}

# A noisy line at the real pace: damaged, late, lost and ignored frames. The
# first read walks fifteen days of hourly and two months of daily slices back,
# one request each: at 57600 Bd that is about half a minute.
read_noisy() {
    spg_start 7614 spg761 76100042 --baud 57600 --clock-scale 720 --fault-share 0.1 --fault-seed 5 "${sim[@]}" || return 1
    check "noisy: three cycles" wait_count "$WORK/7614.log" 'cycle_end\(\) - line left idle' 3 120
    check "noisy: faults were played" sh -c "kill -USR1 $SIM_PID; sleep 0.3; grep -Eq 'changed_byte=[1-9]' '$WORK/7614.sim'"
    check "noisy: archives exact" spg_check_archives "$WORK/7614.log" 7614 "${sim[@]}"
    spg_stop noisy
}

# SPG_ONLY=clean|wrong_serial|silent|noisy runs one case.
for c in clean wrong_serial silent noisy; do
    [ -z "${SPG_ONLY:-}" ] || [ "$SPG_ONLY" = "$c" ] && "read_$c"
done

echo "e2e spg761_read: $FAILURES failure(s)"
[ "$FAILURES" = 0 ]
