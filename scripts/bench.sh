#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Whole-daemon figures of mtd_main against the host-service and meter simulators:
# line efficiency of a first archive read, idle cost between cycles, memory beside
# the libraries' floor and its growth, CPU per current-value cycle.
#
#   scripts/bench.sh [--quick] [--no-build] [--only ek|spg742|spg741|spg761] [BUILD_DIR]
#   scripts/bench.sh --fleet [--quick] [--no-build] [BUILD_DIR]   (scripts/bench-fleet.sh)
#
# BUILD_DIR defaults to build-bench: unless --no-build, what is missing is installed
# and a new folder configured (-DMTD_BUILD_BENCH=ON -DCMAKE_BUILD_TYPE=Release).
# Everything runs inside `unshare -rmn`: own loopback, tmpfs over /tmp and
# /mnt/storage, so the real ports and folders are private.
# Prints a table and writes BUILD_DIR/bench-results.json. docs/performance.md
# explains each figure. --quick shortens the idle windows and skips the slow
# (timed 9600 Bd) first run.
set -uo pipefail

HERE=$(cd "$(dirname "$0")" && pwd)
SRC=$(cd "$HERE/.." && pwd)
QUICK=0
FLEET=0
BUILD=1
BUILD_ARG=
ONLY=
want_only=0
for arg in "$@"; do
    if ((want_only)); then ONLY=$arg; want_only=0; continue; fi
    case $arg in
    --quick) QUICK=1 ;;
    --fleet) FLEET=1 ;;
    --only) want_only=1 ;;
    --no-build) BUILD=0 ;;
    -h | --help)
        sed -n '2,15p' "$0"
        exit 0
        ;;
    *) BUILD_ARG=$arg ;;
    esac
done
BUILD_DIR=${BUILD_ARG:-$SRC/build-bench}
if [ -z "${MTD_BENCH_IN_NS:-}" ] && ((BUILD)); then
    # like the other scripts: what is missing is installed, a new folder configured
    "$SRC/scripts/deps.sh" || exit 2
    if [ ! -f "$BUILD_DIR/CMakeCache.txt" ]; then
        cmake -S "$SRC" -B "$BUILD_DIR" -G Ninja -DMTD_BUILD_BENCH=ON -DCMAKE_BUILD_TYPE=Release >/dev/null || exit 2
    fi
fi
BUILD_DIR=$(cd "$BUILD_DIR" 2>/dev/null && pwd) || {
    echo "bench.sh: no build directory ${BUILD_ARG:-$SRC/build-bench}" >&2
    exit 2
}
export BUILD_DIR QUICK ONLY

if [ -z "${MTD_BENCH_IN_NS:-}" ]; then
    if ((BUILD)); then
        cmake --build "$BUILD_DIR" --target mtd_main mtd_hostsim mtd_metersim mtd_m4sim mtd_spbussim mtd_bench_floor \
            >/dev/null || exit 2
    fi
    # A whole controller (8 lines of 4 meters) is measured by its own script.
    ((FLEET)) && MTD_BENCH_IN_NS=1 exec unshare -rmn "$HERE/bench-fleet.sh"
    MTD_BENCH_IN_NS=1 exec unshare -rmn "$0" "$@"
fi

. "$SRC/tests/e2e/lib.sh"
e2e_enter_ns
trap stop_started EXIT
METERSIM="$BUILD_DIR/mtd_metersim"
FLOOR="$BUILD_DIR/bench/mtd_bench_floor"
if ((QUICK)); then IDLE_SECS=15; else IDLE_SECS=60; fi
HZ=$(getconf CLK_TCK)

# ---------------------------------------------------------------- /proc sampling

# CPU nanoseconds run by all live threads of PID (schedstat: on-CPU time).
cpu_ns() {
    cat /proc/"$1"/task/*/schedstat 2>/dev/null | awk '{s += $1} END {printf "%d\n", s}'
}

# Voluntary plus involuntary context switches of all threads of PID.
ctxsw() {
    cat /proc/"$1"/task/*/status 2>/dev/null |
        awk '/^(voluntary|nonvoluntary)_ctxt_switches:/ {s += $2} END {printf "%d\n", s}'
}

# Per-thread "tid:switches" list, to see which thread wakes.
ctxsw_threads() {
    local t
    for t in /proc/"$1"/task/*; do
        awk -v tid="${t##*/}" '/^(voluntary|nonvoluntary)_ctxt_switches:/ {s += $2} END {printf "%s:%d ", tid, s}' \
            "$t/status" 2>/dev/null
    done
}

# User plus system CPU seconds of the whole process, threads that ended included.
cpu_total_s() {
    awk -v hz="$HZ" '{sub(/^.*\) /, ""); printf "%.2f\n", ($12 + $13) / hz}' /proc/"$1"/stat
}

kib() { awk -v k="$2" '$1 == k":" {print $2}' "$1"; }
private_dirty_kib() { kib /proc/"$1"/smaps_rollup Private_Dirty; }
vmhwm_kib() { kib /proc/"$1"/status VmHWM; }
vmrss_kib() { kib /proc/"$1"/status VmRSS; }
threads_of() { ls /proc/"$1"/task | wc -l; }

# ---------------------------------------------------------------- results

declare -A R=()
ORDER=()
# put SECTION KEY VALUE (numbers as they are, anything else quoted)
put() {
    local k="$1.$2"
    [[ -v R[$k] ]] || ORDER+=("$k")
    R[$k]=$3
}

json_value() {
    if [[ $1 =~ ^-?[0-9]+(\.[0-9]+)?$ ]]; then printf '%s' "$1"; else printf '"%s"' "${1//\"/\\\"}"; fi
}

write_json() {
    local out=$1 section="" k s key first=1
    {
        printf '{'
        for k in "${ORDER[@]}"; do
            s=${k%%.*}
            key=${k#*.}
            if [ "$s" != "$section" ]; then
                [ -n "$section" ] && printf '}'
                ((first)) || printf ','
                first=0
                printf '\n  "%s": {' "$s"
                section=$s
                sep=""
            fi
            printf '%s"%s": ' "$sep" "$key"
            json_value "${R[$k]}"
            sep=", "
        done
        [ -n "$section" ] && printf '}'
        printf '\n}\n'
    } >"$out"
}

print_table() {
    local k
    printf '%-44s %s\n' "figure" "value"
    printf '%-44s %s\n' "------" "-----"
    for k in "${ORDER[@]}"; do
        printf '%-44s %s\n' "$k" "${R[$k]}"
    done
}

calc() { awk "BEGIN {printf \"%.${2:-3}f\n\", $1}"; }

# ---------------------------------------------------------------- machine

put machine cpu "$(lscpu | sed -n 's/^Model name: *//p' | head -1)"
put machine cores "$(nproc)"
put machine kernel "$(uname -r)"
put machine idle_window_s "$IDLE_SECS"

# ---------------------------------------------------------------- floor

start_bg "$WORK/floor.out" "$FLOOR"
floor_pid=$BG_PID
if wait_for "$WORK/floor.out" '^ready' 5; then
    put floor private_dirty_kib "$(private_dirty_kib "$floor_pid")"
    put floor vmhwm_kib "$(vmhwm_kib "$floor_pid")"
    put floor vmrss_kib "$(vmrss_kib "$floor_pid")"
else
    echo "bench.sh: the floor program did not start" >&2
fi
stop_pid "$floor_pid"
FLOOR_HWM=${R[floor.vmhwm_kib]:-0}

# ---------------------------------------------------------------- daemon runs

# write_bench_config FILE MODEL PORT DATA_RATE ID...
write_bench_config() {
    local file=$1 model=$2 port=$3 rate=$4
    shift 4
    local sep="" id
    {
        printf '{"meters": {'
        for id in "$@"; do
            printf '%s"%s": {"port_params": {"manufacturer": "%s", "name": "%s", "speed": "9600", "timeout": "1000", ' \
                "$sep" "$id" "$model" "$port"
            printf '"data_rate": "%s", "serial": "12345678", "password": "00000000", "password1": "00000000", ' "$rate"
            printf '"password2": "11111111", "rate_hour": "6"}, "systems": ["1"]}'
            sep=", "
        done
        printf '}}\n'
    } >"$file"
}

# start_daemon NAME LEVEL ID... : hostsim must run; sets PID and LOG
start_daemon() {
    local name=$1 level=$2
    shift 2
    local args=() id
    for id in "$@"; do args+=(-i "$id"); done
    LOG="$WORK/$name.log"
    start_bg "$LOG" "$MTD_MAIN" -e -v "$level" "${args[@]}"
    PID=$BG_PID
}

# idle_window SECTION PID METERS [SECTION PID METERS ...]: CPU and wake-ups of each
# daemon over one window of IDLE_SECS while nothing is due
idle_window() {
    local args=("$@") i section pid meters
    local -A c0=() w0=() th0=()
    for ((i = 0; i < ${#args[@]}; i += 3)); do
        pid=${args[i + 1]}
        th0[$pid]=$(ctxsw_threads "$pid")
        c0[$pid]=$(cpu_ns "$pid")
        w0[$pid]=$(ctxsw "$pid")
    done
    local t0 t1
    t0=$(date +%s.%N)
    sleep "$IDLE_SECS"
    t1=$(date +%s.%N)
    local secs wakes cpu th1
    secs=$(calc "$t1 - $t0" 2)
    for ((i = 0; i < ${#args[@]}; i += 3)); do
        section=${args[i]} pid=${args[i + 1]} meters=${args[i + 2]}
        cpu=$(calc "($(cpu_ns "$pid") - ${c0[$pid]}) / 1e9" 4)
        wakes=$(($(ctxsw "$pid") - ${w0[$pid]}))
        th1=$(ctxsw_threads "$pid")
        put "$section" meters "$meters"
        put "$section" threads "$(threads_of "$pid")"
        put "$section" cpu_s_per_min "$(calc "$cpu * 60 / $secs" 4)"
        put "$section" core_percent "$(calc "$cpu * 100 / $secs" 4)"
        put "$section" wakeups_per_min "$(calc "$wakes * 60 / $secs" 1)"
        put "$section" wakeups_per_s_per_meter "$(calc "$wakes / $secs / $meters" 3)"
        # the main loop's 5 s steps: 0.2/s, shared by all meters
        put "$section" beyond_main_loop_per_s_per_meter "$(calc "($wakes / $secs - 0.2) / $meters" 3)"
        put "$section" per_thread_switches "$(awk -v a="${th0[$pid]}" -v b="$th1" 'BEGIN {
            n = split(a, x, " "); for (i = 1; i <= n; i++) { split(x[i], p, ":"); s[p[1]] = p[2] }
            n = split(b, y, " "); for (i = 1; i <= n; i++) { split(y[i], p, ":"); out = out sep p[1] "=" (p[2] - s[p[1]]); sep = " " }
            print out }')"
    done
}

# memory SECTION PID
memory() {
    put "$1" private_dirty_kib "$(private_dirty_kib "$2")"
    put "$1" vmhwm_kib "$(vmhwm_kib "$2")"
    put "$1" vmhwm_over_floor_kib "$(($(vmhwm_kib "$2") - FLOOR_HWM))"
}

# ---- idle cost and memory with the empty driver (no meter traffic)
for n in 1 4; do
    ids=()
    for ((i = 1; i <= n; i++)); do ids+=($((100 + i))); done
    write_bench_config "$WORK/empty$n.json" "no-such-model" /dev/ptmx 300 "${ids[@]}"
    start_hostsim "$WORK/empty$n.json" "$WORK/empty$n.rec" || exit 1
    start_daemon "empty$n" 6 "${ids[@]}"
    if wait_count "$WORK/empty$n.rec" put_all_current_values "$n" $((8 + 6 * n)); then
        sleep 1  # let the last cycle's turn go back
        idle_window "idle_empty_$n" "$PID" "$n"
        memory "idle_empty_$n" "$PID"
    else
        echo "bench.sh: empty driver, $n meters: no publication" >&2
    fi
    stop_pid "$PID"
    stop_pid "$HOSTSIM_PID"
done

# ---------------------------------------------------------------- EK270 runs
# log_seconds LINE: the logger's "HH:MM:SS.mmm.uuu" prefix as seconds of the day
log_seconds() { awk '{split($1, t, "[:.]"); printf "%.6f\n", t[1] * 3600 + t[2] * 60 + t[3] + t[4] / 1e3 + t[5] / 1e6}' <<<"$1"; }

# first_to_last LOG SEND_RE RECV_RE: seconds from the first request to the last reply
first_to_last() {
    local first last
    first=$(log_seconds "$(grep -m1 -E "$2" "$1")")
    last=$(log_seconds "$(grep -E "$3" "$1" | tail -1)")
    calc "$last - $first + ($last < $first ? 86400 : 0)" 3
}

# io_bytes PID: bytes the simulator read and wrote (rchar + wchar): its line traffic
io_bytes() { awk '$1 == "rchar:" || $1 == "wchar:" {s += $2} END {print s}' /proc/"$1"/io; }

# start_metersim NAME ARGS...: sets MS_PID and MS_LINK
start_metersim() {
    local name=$1
    shift
    MS_LINK="$WORK/$name.tty"
    start_bg "$WORK/$name.ms" "$METERSIM" --link "$MS_LINK" --model EK270 --max-speed 5 "$@"
    MS_PID=$BG_PID
    wait_for "$WORK/$name.ms" '^ready' 5 || { echo "bench.sh: metersim $name did not start" >&2; return 1; }
}

# The driver's line at the end of every cycle (after the archives, session closed)
CYCLE_END='cycle_end\(\) - session closed'
sessions_closed() { count_in "$1" "$CYCLE_END"; }

ek_runs() {
    local days n
    # ---- growth with the number of meters and the archive length: all runs side by
    # side (no timing on the line), memory read once every meter has finished its first cycle
    declare -A GPID=() GLOG=() GMETERS=()
    local ids_list="1 4 16" days_list="15 62"
    ((QUICK)) && ids_list="1 4" && days_list="15"
    local cfg="$WORK/growth.json" base=200 entries=()
    : >"$WORK/growth.ids"
    for n in $ids_list; do
        start_metersim "ids$n" --no-timing --archive-days 1 || return
        for ((i = 0; i < n; i++)); do echo "$((base + i)) $MS_LINK" >>"$WORK/growth.ids"; done
        GMETERS[ids$n]="$base $n"
        base=$((base + 100))
    done
    for days in $days_list; do
        start_metersim "days$days" --no-timing --archive-days $((days + 2)) || return
        echo "$base $MS_LINK" >>"$WORK/growth.ids"
        GMETERS[days$days]="$base 1"
        base=$((base + 100))
    done
    {
        printf '{"meters": {'
        local sep="" id link
        while read -r id link; do
            printf '%s"%s": {"port_params": {"manufacturer": "ek270", "name": "%s", "speed": "9600", "timeout": "1000", ' \
                "$sep" "$id" "$link"
            printf '"serial": "12345678", "password1": "00000000", "password2": "11111111", "rate_hour": "6"}, '
            printf '"systems": ["1"]}'
            sep=", "
        done <"$WORK/growth.ids"
        printf '}}\n'
    } >"$cfg"
    start_hostsim "$cfg" "$WORK/growth.rec" || return
    local run first count ids
    for run in "${!GMETERS[@]}"; do
        read -r first count <<<"${GMETERS[$run]}"
        ids=()
        for ((i = 0; i < count; i++)); do ids+=($((first + i))); done
        start_daemon "$run" 7 "${ids[@]}"
        GPID[$run]=$PID
        GLOG[$run]=$LOG
    done
    for run in "${!GMETERS[@]}"; do
        read -r first count <<<"${GMETERS[$run]}"
        if ! wait_count "${GLOG[$run]}" "$CYCLE_END" "$count" 400; then
            echo "bench.sh: $run: first cycles did not finish" >&2
        fi
    done
    sleep 1
    for n in $ids_list; do
        memory "ek_ids_$n" "${GPID[ids$n]}"
    done
    put ek_days_1 note "same run as ek_ids_1 (1 meter, 1 day)"
    for days in $days_list; do
        memory "ek_days_$days" "${GPID[days$days]}"
        put "ek_days_$days" records_stored "$(cat /mnt/storage/$(echo "${GMETERS[days$days]}" | cut -d' ' -f1)/1/*/*.jsonl 2>/dev/null | wc -l)"
    done
    # idle: every daemon now waits for its next cycle (data_rate 300 s)
    idle_window ek_idle_1 "${GPID[ids1]}" 1 ek_idle_4 "${GPID[ids4]}" 4
    for run in "${!GPID[@]}"; do stop_pid "${GPID[$run]}"; done
    stop_pid "$HOSTSIM_PID"

    # ---- line efficiency: a first run at 9600 Bd with the simulator's line timing on
    # (15 days hourly + 62 days daily + the event journal; --quick: 2 days of history),
    # then CPU per cycle of the current-value reads that follow every data_rate s
    local hist=64 rate=20 cycles=3
    ((QUICK)) && hist=2 && cycles=2
    start_metersim line --archive-days "$hist" --frame-bits 10 || return
    bench_ek_config "$WORK/line.json" "$MS_LINK" "$rate" 900  # an id no other run stored under
    start_hostsim "$WORK/line.json" "$WORK/line.rec" || return
    local b0 b1 t_start
    b0=$(io_bytes "$MS_PID")
    t_start=$(date +%s.%N)
    start_daemon line 7 900
    if ! wait_count "$LOG" "$CYCLE_END" 1 900; then
        echo "bench.sh: the timed first run did not finish" >&2
        return
    fi
    b1=$(io_bytes "$MS_PID")
    cp "$LOG" "$BUILD_DIR/bench-first-run.log"  # kept for a look at the exchange timing
    local cpu_first sends measured bytes ideal_bytes gaps
    cpu_first=$(calc "$(cpu_ns "$PID") / 1e9" 3)
    sends=$(count_in "$LOG" "CGost61107::send\(")
    measured=$(first_to_last "$LOG" "CGost61107::send\(" "CGost61107::receive\(")
    bytes=$((b1 - b0))
    ideal_bytes=$(calc "$bytes * 10 / 9600" 3)
    gaps=$(calc "$sends * 0.02" 3)   # the 20 ms of quiet the meter needs before every request
    put ek_line baud 9600
    put ek_line history_days "$hist"
    put ek_line requests "$sends"
    put ek_line line_bytes "$bytes"
    put ek_line bytes_time_s "$ideal_bytes"
    put ek_line quiet_gaps_s "$gaps"
    put ek_line measured_s "$measured"
    put ek_line efficiency "$(calc "$ideal_bytes / $measured" 3)"
    echo "line efficiency (bytes time / measured): $(calc "$ideal_bytes / $measured" 2)"
    # what the line allows at best with the quiet gaps: bytes time + gaps
    put ek_line efficiency_vs_gaps "$(calc "($ideal_bytes + $gaps) / $measured" 3)"
    # Split of the run: time inside exchanges (request sent .. reply complete) and
    # the time between a reply and the next request (the quiet gap, parsing,
    # storing, publishing).
    local split
    split=$(grep -E "CGost61107::send\(|CGost61107::receive\(.*(Recv: |will not wait)" "$LOG" | awk '
        { split($1, t, "[:.]"); s = t[1] * 3600 + t[2] * 60 + t[3] + t[4] / 1e3 + t[5] / 1e6
          if (ls && s < ls - 43200) s += 86400
          if ($0 ~ /::send\(/) { if (lr) gap += s - lr; ls = s }
          else { if (ls) ex += s - ls; lr = s } }
        END { printf "%.3f %.3f\n", ex, gap }')
    local in_ex between
    read -r in_ex between <<<"$split"
    put ek_line in_exchange_s "$in_ex"
    put ek_line between_exchanges_s "$between"
    put ek_line line_busy_fraction "$(calc "$in_ex / $measured" 4)"
    put ek_line cpu_s_first_run "$cpu_first"
    put ek_line wakeups_first_run "$(ctxsw "$PID")"
    put ek_line first_run_wall_s "$(calc "$(date +%s.%N) - $t_start" 1)"
    memory ek_line "$PID"

    # next cycles: current values only (plus an hourly read when an hour closes)
    local c0 c1 k0
    k0=$(sessions_closed "$LOG")
    c0=$(cpu_ns "$PID")
    if wait_count "$LOG" "$CYCLE_END" $((k0 + cycles)) $(((rate + 30) * cycles)); then
        c1=$(cpu_ns "$PID")
        put ek_cycle cycles "$cycles"
        put ek_cycle data_rate_s "$rate"
        put ek_cycle cpu_s_per_cycle "$(calc "($c1 - $c0) / 1e9 / $cycles" 4)"
        memory ek_cycle "$PID"
    else
        echo "bench.sh: no further cycles" >&2
    fi
    stop_pid "$PID"
    stop_pid "$MS_PID"
    stop_pid "$HOSTSIM_PID"
}

# bench_ek_config FILE LINK DATA_RATE ID...
bench_ek_config() {
    local file=$1 link=$2 rate=$3
    shift 3
    local sep="" id
    {
        printf '{"meters": {'
        for id in "$@"; do
            printf '%s"%s": {"port_params": {"manufacturer": "ek270", "name": "%s", "speed": "9600", "timeout": "1000", ' \
                "$sep" "$id" "$link"
            printf '"data_rate": "%s", "serial": "12345678", "password1": "00000000", "password2": "11111111", ' "$rate"
            printf '"rate_hour": "6"}, "systems": ["1"]}'
            sep=", "
        done
        printf '}}\n'
    } >"$file"
}
# first_run_figures SECTION NAME BAUD DAYS REQUESTS BYTES MEASURED_S: a timed
# first run against the time its bytes take on the line
first_run_figures() {
    local ideal
    ideal=$(calc "$6 * 10 / $3" 3)
    put "$1" baud "$3"
    put "$1" history_days "$4"
    put "$1" requests "$5"
    put "$1" line_bytes "$6"
    put "$1" bytes_time_s "$ideal"
    put "$1" measured_s "$7"
    put "$1" efficiency "$(calc "$ideal / $7" 3)"
    echo "$2 line efficiency (bytes time / measured): $(calc "$ideal / $7" 2)"
}

# spg742_runs: the SPG742's timed first run at 9600 Bd against mtd_m4sim with its
# line timing on (a week of hourly records, the daily archive and the journal of
# each channel). M4 wants no quiet before a request: the driver sends the next
# one as soon as an answer is in, so the line allows bytes time alone.
spg742_runs() {
    local hist=7
    ((QUICK)) && hist=2
    local link="$WORK/spg742.tty" b0 b1 r0 r1
    start_bg "$WORK/spg742.sim" "$BUILD_DIR/mtd_m4sim" --link "$link" --model spg742 --archive-days "$hist" \
        --address 1 --serial 74200 --frame-bits 10 --baud 9600 --now "$(ek_device_start 2)"
    local sim=$BG_PID
    wait_for "$WORK/spg742.sim" '^ready' 5 || { echo "bench.sh: m4sim did not start" >&2; return; }
    printf '{"meters": {"910": {"port_params": {"manufacturer": "spg742", "name": "%s", "speed": "9600", ' "$link" \
        >"$WORK/spg742.json"
    printf '"timeout": "1000", "serial": "74200", "address": "1", "pu_TZ": "0", "data_rate": "600"}, ' \
        >>"$WORK/spg742.json"
    printf '"systems": ["1"]}}}\n' >>"$WORK/spg742.json"
    start_hostsim "$WORK/spg742.json" "$WORK/spg742.rec" || return
    b0=$(io_bytes "$sim")
    r0=$(awk '$1 == "rchar:" {print $2}' /proc/"$sim"/io)
    start_daemon spg742 7 910
    if ! wait_count "$LOG" 'CmtdSpgM4::cycle_end\(\) - session left' 1 900; then
        echo "bench.sh: the SPG742 first run did not finish" >&2
        return
    fi
    b1=$(io_bytes "$sim")
    r1=$(awk '$1 == "rchar:" {print $2}' /proc/"$sim"/io)
    cp "$LOG" "$BUILD_DIR/bench-spg742-first-run.log"
    local sends measured bytes ideal
    sends=$(count_in "$LOG" "M4::SendRequest\('[^']*'\): Send")
    measured=$(first_to_last "$LOG" "M4::SendRequest\('[^']*'\): Send" "M4::SendRequest\('[^']*'\): Recv")
    bytes=$((b1 - b0))
    ideal=$(calc "$bytes * 10 / 9600" 3)
    first_run_figures spg742_line SPG742 9600 "$hist" "$sends" "$bytes" "$measured"
    put spg742_line hourly_records "$(find /mnt/storage/910 -name 'Hourly_JSONRPC-*.jsonl' -exec cat {} + 2>/dev/null | wc -l)"
    # The simulator paces its answers only; the requests reach it at once. Adding
    # their bytes time to the measured time gives the figure of a real line.
    local req
    req=$(calc "($r1 - $r0) * 10 / 9600" 3)
    put spg742_line request_bytes_time_s "$req"
    put spg742_line efficiency_requests_timed "$(calc "$ideal / ($measured + $req)" 3)"
    stop_pid "$PID"
    stop_pid "$sim"
    stop_pid "$HOSTSIM_PID"
}

if [ -n "$ONLY" ] && [ "$ONLY" != ek ]; then
    :
# (need the EK driver in the factory; skipped without it)
elif ! grep -q CmtdEK2xxTC2xx "$MTD_MAIN"; then
    echo "bench.sh: mtd_main has no EK driver; EK figures skipped" >&2
    put ek skipped "no EK driver in this build"
else
    ek_runs
fi
if [ -z "$ONLY" ] || [ "$ONLY" = spg742 ]; then
    spg742_runs
fi

# ---------------------------------------------------------------- SPG741 first run
# A first read of an SPG741 at the meter's 2400 Bd with the simulator's line
# timing on: the settings, the current values, a week of hourly records, the
# daily ring and the fault journal, against the bytes on the line (both ways).
# The dialect asks for no pause between a reply and the next request.
spg741_runs() {
    local id=7419 link="$WORK/spg741.tty" days=7
    ((QUICK)) && days=2
    start_bg "$WORK/spg741.sim" "$BUILD_DIR/mtd_m4sim" --model spg741 --link "$link" --baud 2400 --frame-bits 10 \
        --archive-days "$days" --serial 741005 --now "$(ek_device_start 10)"
    local simpid=$BG_PID
    wait_for "$WORK/spg741.sim" '^ready' 5 || { echo "bench.sh: mtd_m4sim did not start" >&2; return; }
    write_ek_model_config "$WORK/spg741.json" "$id" spg741 "$link" 741005 600
    start_hostsim "$WORK/spg741.json" "$WORK/spg741.rec" || return
    local b0 b1 first_send last_recv measured bytes requests
    b0=$(io_bytes "$simpid")
    start_daemon spg741 7 "$id"
    if ! wait_for "$LOG" 'Journal ring read up to' 600; then
        echo "bench.sh: the SPG741 first run did not finish" >&2
        return
    fi
    b1=$(io_bytes "$simpid")
    requests=$(count_in "$LOG" "\\[CmtdSPG741\\] .*: Send ")
    first_send=$(log_seconds "$(grep -m1 -E "\\[CmtdSPG741\\] .*: Send " "$LOG")")
    last_recv=$(log_seconds "$(grep -E "\\[CmtdSPG741\\] .*: Recv " "$LOG" | tail -1)")
    measured=$(calc "$last_recv - $first_send + ($last_recv < $first_send ? 86400 : 0)" 3)
    bytes=$((b1 - b0))
    first_run_figures spg741_line SPG741 2400 "$days" "$requests" "$bytes" "$measured"
    stop_pid "$PID"
    stop_pid "$HOSTSIM_PID"
    stop_pid "$simpid"
}
if [ -x "$BUILD_DIR/mtd_m4sim" ] && { [ -z "$ONLY" ] || [ "$ONLY" = spg741 ]; }; then
    spg741_runs
fi
# The SPG761 first read (scripts/bench-spg761.sh).
if [ -z "$ONLY" ] || [ "$ONLY" = spg761 ]; then
    . "$HERE/bench-spg761.sh"
    spg761_line
fi

write_json "$BUILD_DIR/bench-results.json"
print_table
echo "written: $BUILD_DIR/bench-results.json"
