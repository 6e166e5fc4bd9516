#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# A whole controller measured: 8 serial lines with 4 simulated meters each, every
# line started the way its systemd unit starts it (packaging/mtd_main-line from
# /etc/mtd_main/<line>.conf). Reports, per line and for the whole controller:
#   - own memory of each line process (Private_Dirty of smaps_rollup, and VmHWM);
#   - CPU at rest, all line processes together, in % of one core;
#   - each line's steady cycle (first meter's cycle start to last meter's cycle
#     end, from the status files) against its data_rate;
#   - each line's first run (an empty store, 2 days of history per meter) against
#     the bytes on the line at its speed plus the 20 ms of quiet every request needs.
#
#   scripts/bench.sh --fleet [--quick] [--no-build] [BUILD_DIR]
#
# The meters are EK270 volume correctors of mtd_metersim, which answers several
# addresses on one line (a multi-drop RS-485 line); FLEET_LINES and FLEET_METERS
# change the size. Everything runs inside `unshare -rmn` with a private /etc/mtd_main.
# Writes BUILD_DIR/bench-fleet.json and prints a table; docs/performance.md has the
# figures of a run and how to read them.
set -uo pipefail

HERE=$(cd "$(dirname "$0")" && pwd)
SRC=$(cd "$HERE/.." && pwd)
# bench.sh --fleet builds, then starts this script in its own namespaces.
[ -n "${MTD_BENCH_IN_NS:-}" ] && [ -n "${BUILD_DIR:-}" ] || {
    echo "bench-fleet.sh: run it as scripts/bench.sh --fleet [--quick] [--no-build] [BUILD_DIR]" >&2
    exit 2
}
QUICK=${QUICK:-0}

. "$SRC/tests/e2e/lib.sh"
e2e_enter_ns
trap stop_started EXIT
METERSIM="$BUILD_DIR/mtd_metersim"
LINES=${FLEET_LINES:-8}
PER_LINE=${FLEET_METERS:-4}
RATE=300    # data_rate of every meter, s (the daemon's default)
BAUD=9600
HISTORY=2   # days of archive in each simulated meter
IDLE_SECS=60
if ((QUICK)); then RATE=120 IDLE_SECS=20; fi

calc() { awk "BEGIN {printf \"%.${2:-3}f\n\", $1}"; }
kib() { awk -v k="$2" '$1 == k":" {print $2}' "$1"; }
cpu_ns() { cat /proc/"$1"/task/*/schedstat 2>/dev/null | awk '{s += $1} END {printf "%d\n", s}'; }
io_bytes() { awk '$1 == "rchar:" || $1 == "wchar:" {s += $2} END {print s}' /proc/"$1"/io; }
# status PATH ID: a number from the meter's status file, PATH as "counters.cycles"
# (0 when absent)
status() {
    python3 - "$1" "/tmp/mtd_status_$2.json" <<'PY' 2>/dev/null || echo 0
import json, sys
try:
    v = json.load(open(sys.argv[2]))
    for key in sys.argv[1].split("."):
        v = v[key]
    print(int(v))
except Exception:
    print(0)
PY
}

e2e_private_etc

# ---- the meters: one simulator per line answering addresses 1..PER_LINE
declare -A SIM_PID=() LINE_PID=() IDS=()
addresses=$(seq -s, 1 "$PER_LINE")
now=$(date -u +%s)
sep=""
printf '{"meters": {' >"$WORK/host.json"
for ((l = 1; l <= LINES; l++)); do
    start_bg "$WORK/sim$l.out" "$METERSIM" --link "$WORK/line$l.tty" --model EK270 --address "$addresses" \
        --archive-days "$HISTORY" --now "$now" --seed "$l" --baud "$BAUD" --max-speed 5
    SIM_PID[$l]=$BG_PID
    wait_for "$WORK/sim$l.out" '^ready' 5 || { echo "bench-fleet.sh: simulator of line $l did not start" >&2; exit 1; }
    IDS[$l]=""
    for ((m = 1; m <= PER_LINE; m++)); do
        id=$((l * 100 + m))
        IDS[$l]="${IDS[$l]} $id"
        printf '%s"%s": {"port_params": {"manufacturer": "ek270", "name": "%s", "speed": "%s", "timeout": "1000", ' \
            "$sep" "$id" "$WORK/line$l.tty" "$BAUD" >>"$WORK/host.json"
        printf '"address": "%s", "serial": "12345678", "password1": "00000000", "password2": "11111111", ' "$m" \
            >>"$WORK/host.json"
        printf '"data_rate": "%s", "rate_hour": "6"}, "systems": ["1"]}' "$RATE" >>"$WORK/host.json"
        sep=", "
    done
done
printf '}}\n' >>"$WORK/host.json"
start_hostsim "$WORK/host.json" "$WORK/host.rec" || exit 1

# ---- the lines, started as their units start them
declare -A B0=() T0=()
for ((l = 1; l <= LINES; l++)); do
    printf 'METERS="%s"\nLOG_LEVEL=4\n' "${IDS[$l]# }" >"/etc/mtd_main/line$l.conf"
    B0[$l]=$(io_bytes "${SIM_PID[$l]}")
    T0[$l]=$(date +%s.%N)
    start_line "line$l" "$WORK/line$l.out"
    LINE_PID[$l]=$BG_PID
done

# cycles_done LINE N: every meter of the line has ended N cycles
cycles_done() {
    local id
    for id in ${IDS[$1]}; do
        (($(status counters.cycles "$id") >= $2)) || return 1
    done
}
# requests LINE: the simulator's count of requests so far
requests() {
    local out="$WORK/sim$1.out" before
    before=$(count_in "$out" '^requests ')
    kill -USR1 "${SIM_PID[$1]}"
    wait_count "$out" '^requests ' $((before + 1)) 5 >/dev/null
    grep '^requests ' "$out" | tail -1 | awk '{print $2}'
}

declare -A R=()
ORDER=()
put() {
    [[ -v R[$1] ]] || ORDER+=("$1")
    R[$1]=$2
}

# ---- first run of every line (all lines at once, each line's meters in turn)
for ((l = 1; l <= LINES; l++)); do
    if ! wait_until 900 cycles_done "$l" 1; then
        echo "bench-fleet.sh: line $l: first run did not finish" >&2
        continue
    fi
    t1=$(date +%s.%N)
    bytes=$(($(io_bytes "${SIM_PID[$l]}") - B0[$l]))
    sends=$(requests "$l")
    measured=$(calc "$t1 - ${T0[$l]}" 1)
    need=$(calc "$bytes * 10 / $BAUD + $sends * 0.02" 1)
    put "line$l.first_run_s" "$measured"
    put "line$l.first_run_bytes" "$bytes"
    put "line$l.first_run_requests" "$sends"
    put "line$l.first_run_bytes_and_gaps_s" "$need"
    # 1.0: the line carried bytes or required quiet all the time
    put "line$l.first_run_line_use" "$(calc "$need / $measured" 3)"
done

# ---- steady cycles: the second round of each line against data_rate
for ((l = 1; l <= LINES; l++)); do
    if ! wait_until $((RATE * 3)) cycles_done "$l" 2; then
        echo "bench-fleet.sh: line $l: no second cycle" >&2
        continue
    fi
    first=0
    last=0
    for id in ${IDS[$l]}; do
        s=$(status last_cycle.started "$id")
        e=$(status last_cycle.ended "$id")
        if ((first == 0 || s < first)); then first=$s; fi
        if ((e > last)); then last=$e; fi
    done
    put "line$l.cycle_s" "$((last - first))"
    put "line$l.data_rate_s" "$RATE"
done

# ---- at rest: every line waits for its next cycle
sleep 2
declare -A C0=()
for ((l = 1; l <= LINES; l++)); do C0[$l]=$(cpu_ns "${LINE_PID[$l]}"); done
t0=$(date +%s.%N)
sleep "$IDLE_SECS"
t1=$(date +%s.%N)
secs=$(calc "$t1 - $t0" 2)
total_ns=0
max_priv=0
for ((l = 1; l <= LINES; l++)); do
    pid=${LINE_PID[$l]}
    priv=$(kib /proc/"$pid"/smaps_rollup Private_Dirty)
    put "line$l.private_dirty_kib" "$priv"
    put "line$l.vmhwm_kib" "$(kib /proc/"$pid"/status VmHWM)"
    ((priv > max_priv)) && max_priv=$priv
    total_ns=$((total_ns + $(cpu_ns "$pid") - C0[$l]))
done
put "controller.lines" "$LINES"
put "controller.meters" "$((LINES * PER_LINE))"
put "controller.idle_window_s" "$secs"
put "controller.idle_core_percent" "$(calc "$total_ns / 1e9 * 100 / $secs" 4)"
put "controller.max_private_dirty_kib" "$max_priv"
total_priv=0
for ((l = 1; l <= LINES; l++)); do total_priv=$((total_priv + ${R[line$l.private_dirty_kib]:-0})); done
put "controller.total_private_dirty_kib" "$total_priv"

{
    printf '{'
    sep=""
    for k in "${ORDER[@]}"; do
        v=${R[$k]}
        [[ $v =~ ^-?[0-9]+(\.[0-9]+)?$ ]] || v="\"$v\""
        printf '%s\n  "%s": %s' "$sep" "$k" "$v"
        sep=","
    done
    printf '\n}\n'
} >"$BUILD_DIR/bench-fleet.json"
printf '%-40s %s\n' figure value ------ -----
for k in "${ORDER[@]}"; do printf '%-40s %s\n' "$k" "${R[$k]}"; done
echo "written: $BUILD_DIR/bench-fleet.json"
