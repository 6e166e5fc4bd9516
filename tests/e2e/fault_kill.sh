#!/usr/bin/env bash
# Fault case: the daemon is killed with SIGKILL at random moments while it
# reads and stores archives, again and again; after a last, undisturbed run
# every record the simulated EK270 holds is stored exactly once.
#   fault_kill.sh BUILD_DIR [ROUNDS]
set -uo pipefail
export BUILD_DIR=${1:?usage: fault_kill.sh BUILD_DIR [ROUNDS]}
ROUNDS=${2:-20}
HERE=$(cd "$(dirname "$0")" && pwd)
if [ -z "${MTD_E2E_IN_NS:-}" ]; then
    MTD_E2E_IN_NS=1 exec unshare -rmn "$0" "$@"
fi
. "$HERE/lib.sh"
e2e_enter_ns
trap 'stop_started; keep_work' EXIT

ID=2201
DAYS=8
start_metersim "$WORK/ek.out" --link "$WORK/ek" --no-timing --archive-days "$DAYS" --max-speed 6 || exit 1
write_ek_config "$WORK/host.json" "$ID" "$WORK/ek" 3
start_hostsim "$WORK/host.json" "$WORK/rec" || exit 1

RANDOM=${MTD_FAULT_SEED:-4711}
killed_in_archive=0
for ((round = 1; round <= ROUNDS; round++)); do
    start_bg "$WORK/round.log" "$MTD_MAIN" -e -v 7 -i "$ID"
    pid=$BG_PID
    if wait_for "$WORK/round.log" 'CmtdEK2xxTC2xx::get_arch_values\(' 20; then
        # A random moment of the transfer: 0 to 1.5 s after it began.
        sleep "$((RANDOM % 16)).$((RANDOM % 10))e-1"
        grep -q 'StoreRecords\|stored' "$WORK/round.log" && killed_in_archive=$((killed_in_archive + 1))
    fi
    kill -KILL "$pid" 2>/dev/null
    wait "$pid" 2>/dev/null
    cat "$WORK/round.log" >>"$WORK/all_rounds.log"
done
echo "fault_kill: $ROUNDS rounds, $killed_in_archive after records were stored"

start_bg "$WORK/last.log" "$MTD_MAIN" -e -v 7 -i "$ID"
pid=$BG_PID
complete() {
    series_whole "$ID" Hourly_JSONRPC 3600 $((DAYS * 24 - 1)) >/dev/null &&
        series_whole "$ID" Daily_JSONRPC 86400 "$DAYS" >/dev/null &&
        grep -q 'CmtdEK2xxTC2xx::cycle_end() - session closed' "$WORK/last.log"
}
check "last run completes the archives" wait_until 90 complete
check "hourly: each record once, no gap" series_whole "$ID" Hourly_JSONRPC 3600 $((DAYS * 24 - 1))
check "daily: each record once, no gap" series_whole "$ID" Daily_JSONRPC 86400 "$DAYS"
check "events: each record once" test -z "$(stored_times "$ID" Journal_Event_JSONRPC | uniq -d)"
check "events: stored" test -n "$(stored_times "$ID" Journal_Event_JSONRPC)"
check "no temporary batch left" test -z "$(find /mnt/storage -name '.*.tmp' -newer "$WORK/last.log" -prune -o -name '.*.tmp' -print)"
check "no driver lock left" test -z "$(ls /tmp | grep '^DRV_LCK_')"
kill -INT "$pid"
check "orderly stop" wait_exit "$pid" 10

echo "fault_kill: $FAILURES failure(s)"
[ "$FAILURES" = 0 ]
