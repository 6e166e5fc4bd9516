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
