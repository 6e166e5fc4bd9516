# Helpers for end-to-end runs of the real mtd_main. Source this file inside a
# private namespace (see run.sh): the simulators then use the real ports
# 8082/4665 and the daemon the real /tmp and /mnt/storage, all private.
#
#   e2e_enter_ns                 bring up lo, tmpfs over /tmp and /mnt/storage
#   start_hostsim CONFIG RECORD  run mtd_hostsim with a config file, record requests
#   wait_for FILE REGEX [SECS]   true once FILE has a line matching REGEX
#   count_in FILE REGEX          matching lines
#   wait_count FILE REGEX N [SECS] true once FILE has N matching lines
#   wait_exit PID [SECS]         sets EXIT_STATUS; false when still running
#   check NAME COND...           runs COND, counts a failure with NAME
#   stop_started                 ends every process started through these helpers
#
# A driver case adds its own meter simulator with start_bg and a config whose
# "port_params" "name" is the simulator's pseudo-terminal.

: "${BUILD_DIR:?BUILD_DIR must name the build directory}"
MTD_MAIN="$BUILD_DIR/mtd_main"
HOSTSIM="$BUILD_DIR/mtd_hostsim"
FAILURES=0
STARTED_PIDS=()

e2e_enter_ns() {
    ip link set lo up
    mount -t tmpfs tmpfs /tmp
    if ! mkdir -p /mnt/storage 2>/dev/null; then
        mount -t tmpfs tmpfs /mnt
        mkdir -p /mnt/storage
    fi
    mount -t tmpfs tmpfs /mnt/storage
    WORK=$(mktemp -d /tmp/e2e.XXXXXX)
}

# start_bg OUTFILE CMD ARGS... : runs CMD in the background, sets BG_PID.
start_bg() {
    local out=$1
    shift
    : >"$out"  # now, not in the background job: a waiter must not see old lines
    "$@" >>"$out" 2>&1 &
    BG_PID=$!
    STARTED_PIDS+=("$BG_PID")
}

wait_for() {
    local file=$1 regex=$2 secs=${3:-8}
    local deadline=$((SECONDS + secs))
    while ((SECONDS <= deadline)); do
        grep -Eq -- "$regex" "$file" 2>/dev/null && return 0
        sleep 0.05
    done
    return 1
}

count_in() { grep -Ec -- "$2" "$1" 2>/dev/null || true; }

# wait_count FILE REGEX N [SECS]: true once FILE has at least N matching lines.
wait_count() {
    local file=$1 regex=$2 n=$3 secs=${4:-8}
    local deadline=$((SECONDS + secs))
    while ((SECONDS <= deadline)); do
        (($(count_in "$file" "$regex") >= n)) && return 0
        sleep 0.05
    done
    return 1
}

start_hostsim() {
    local config=$1 record=$2
    : >"$record"
    start_bg "$WORK/hostsim.out" "$HOSTSIM" --config "$config" --record "$record"
    HOSTSIM_PID=$BG_PID
    wait_for "$WORK/hostsim.out" '^ready' 5 || { echo "hostsim did not start"; cat "$WORK/hostsim.out"; return 1; }
}

stop_pid() {
    kill -TERM "$1" 2>/dev/null || true
    wait "$1" 2>/dev/null || true
}

wait_exit() {
    local pid=$1 secs=${2:-8}
    local deadline=$((SECONDS + secs))
    while ((SECONDS <= deadline)); do
        if ! kill -0 "$pid" 2>/dev/null; then
            wait "$pid"
            EXIT_STATUS=$?
            return 0
        fi
        sleep 0.05
    done
    EXIT_STATUS=
    return 1
}

check() {
    local name=$1
    shift
    if "$@"; then
        echo "ok   $name"
    else
        echo "FAIL $name"
        FAILURES=$((FAILURES + 1))
    fi
}

stop_started() {
    local pid
    for pid in "${STARTED_PIDS[@]}"; do
        kill -KILL "$pid" 2>/dev/null || true
        wait "$pid" 2>/dev/null || true
    done
    STARTED_PIDS=()
}

# A host-service configuration: meter ids, each with the model string given.
# write_config FILE MODEL ID...
write_config() {
    local file=$1 model=$2
    shift 2
    local sep="" id
    {
        printf '{"meters": {'
        for id in "$@"; do
            printf '%s"%s": {"port_params": {"manufacturer": "%s", "name": "/dev/ptmx", "speed": "9600", "timeout": "200"}, "systems": ["1"]}' \
                "$sep" "$id" "$model"
            sep=", "
        done
        printf '}}\n'
    } >"$file"
}

# ---- volume-corrector cases (ek_*.sh) ----
METERSIM="$BUILD_DIR/mtd_metersim"

# start_metersim OUTFILE ARGS... : mtd_metersim in the background until it is
# ready; sets METERSIM_PID. Pass --link to give the daemon a fixed port name.
start_metersim() {
    local out=$1
    shift
    start_bg "$out" "$METERSIM" "$@"
    METERSIM_PID=$BG_PID
    wait_for "$out" '^ready' 5 || { echo "metersim did not start"; cat "$out"; return 1; }
}

# ek_meter ID LINK [DATA_RATE] : the "get_config" entry of one EK270 on LINK, as JSON member text.
ek_meter() {
    local id=$1 link=$2 rate=${3:-5}
    printf '"%s": {"port_params": {"manufacturer": "ek270", "name": "%s", "speed": "9600", ' "$id" "$link"
    printf '"data": "7", "parity": "E", "stop": "1", "timeout": "300", "serial": "12345678", '
    printf '"password1": "00000000", "password2": "11111111", "data_rate": "%s"}, "systems": ["1"]}' "$rate"
}

# write_ek_config FILE ID LINK [DATA_RATE] : host-service configuration of one EK270 on LINK.
write_ek_config() {
    local file=$1
    shift
    printf '{"meters": {%s}}\n' "$(ek_meter "$@")" >"$file"
}

# stored_times ID KIND : timestamps of every stored record of KIND ("Hourly_JSONRPC", ...)
# of meter ID, released or not, sorted, one per line (repeats kept).
stored_times() {
    find "/mnt/storage/$1" -name "$2-*.jsonl" -exec cat {} + 2>/dev/null |
        grep -o '"timestamp":[0-9]*' | cut -d: -f2 | sort -n
}

# series_whole ID KIND STEP MIN : true when the stored records of KIND hold at least
# MIN records, no timestamp twice and no step other than STEP seconds between them.
series_whole() {
    stored_times "$1" "$2" | awk -v step="$3" -v min="$4" '
        NR > 1 && $1 == prev { print "duplicate " $1; bad = 1 }
        NR > 1 && $1 != prev && $1 - prev != step { print "gap " prev " -> " $1; bad = 1 }
        { prev = $1; n++ }
        END { if (n < min) { print n " records, want " min; bad = 1 } exit bad }'
}

# wait_until SECS CMD ARGS... : true once CMD succeeds, polled every 0.2 s.
wait_until() {
    local secs=$1
    shift
    local deadline=$((SECONDS + secs))
    while ((SECONDS <= deadline)); do
        "$@" && return 0
        sleep 0.2
    done
    return 1
}
