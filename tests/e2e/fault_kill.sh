#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Fault case: the daemon is killed with SIGKILL at random moments while it
# reads and stores archives, again and again; after a last, undisturbed run
# every record the simulated EK270 holds is stored exactly once.
#
# Each round waits for a random landmark of the archive work (a transfer
# begins, the hourly transfer begins, a batch was stored) and kills a random
# 0..0.1 s later. The meter's clock runs 720 times fast, so every round finds
# new hourly records to read and store.
#   fault_kill.sh BUILD_DIR [ROUNDS]
ROUNDS=${2:-20}
. "$(dirname "$0")/lib.sh"
e2e_case "$@"

ID=2201
# 30 hours behind: at 720 times the meter gains 12 hours a minute and must not
# overtake the wall clock the daemon schedules by.
SIM=(--now "$(ek_device_start 30)" --archive-days 3 --seed 5 --model EK270 --clock-scale 720)
start_metersim "$WORK/ek.out" --link "$WORK/ek" --no-timing --max-speed 6 "${SIM[@]}" || exit 1
write_ek_config "$WORK/host.json" "$ID" "$WORK/ek" 1
start_hostsim "$WORK/host.json" "$WORK/rec" || exit 1

RANDOM=${MTD_FAULT_SEED:-4711}
landmarks=('get_arch_values\(' 'get_arch_values\(Hourly_JSONRPC\)' 'GasFileConnector::StoreRecords [0-9]+ records stored')
in_archive=0
for ((round = 1; round <= ROUNDS; round++)); do
    start_bg "$WORK/round.log" "$MTD_MAIN" -e -v 7 -i "$ID"
    pid=$BG_PID
    wait_for "$WORK/round.log" "${landmarks[RANDOM % 3]}" 15
    sleep "0.0$((RANDOM % 10))$((RANDOM % 10))"  # archive reads take well under a second now
    kill -KILL "$pid" 2>/dev/null
    wait "$pid" 2>/dev/null
    # Killed in the archive work: a transfer had begun and the cycle had not ended.
    if grep -q 'get_arch_values(' "$WORK/round.log" && ! grep -q 'cycle_end() - session closed' "$WORK/round.log"; then
        in_archive=$((in_archive + 1))
    fi
    { cat "$WORK/round.log"; echo "=== killed"; } >>"$WORK/all_rounds.log"
done
echo "fault_kill: $ROUNDS rounds, $in_archive killed in the archive work"
check "most kills landed in the archive work" test "$in_archive" -ge $((ROUNDS / 2))

start_bg "$WORK/last.log" "$MTD_MAIN" -e -v 7 -i "$ID"
pid=$BG_PID
check "last run completes a cycle" wait_for "$WORK/last.log" 'cycle_end\(\) - session closed' 60
kill -INT "$pid"
check "orderly stop" wait_exit "$pid" 10
# Every record of the meter up to where the runs last read each archive, once,
# in order (the last run reads only what is due, the daily archive maybe not).
cat "$WORK/all_rounds.log" "$WORK/last.log" >"$WORK/runs.log"
check "archives: each record once, none missing" ek_check_archives "$WORK/runs.log" "$ID" EK270 "${SIM[@]}"
check "no temporary batch left" test -z "$(find /mnt/storage -name '.*.tmp')"
check "no driver lock left" test -z "$(ls /tmp | grep '^DRV_LCK_')"

echo "fault_kill: $FAILURES failure(s)"
[ "$FAILURES" = 0 ]
