#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Fault case: the host service goes away and comes back answering garbage
# (text that is not JSON) to its first requests, then with answers that never
# end, then goes away again while the daemon is stopped. The polling thread
# holds the values it read meanwhile, retries with growing pauses, writes each
# kind of failure once, and publishes them once the service answers; the
# cycles then go on, the daemon's memory stays small and a stop is prompt.
# Every wait here is for a line in a log or a record file, never for the
# machine's pace: the bounds only limit how long a failing run takes.
#   fault_host.sh BUILD_DIR
. "$(dirname "$0")/lib.sh"
e2e_case "$@"

ID=2401
SEND_ERROR='SendParameters - Error while sending data! retry!!!'
ANSWERED='SendParameters - the host service answered after'
start_metersim "$WORK/ek.out" --link "$WORK/ek" --no-timing --archive-days 1 || exit 1
write_ek_config "$WORK/host.json" "$ID" "$WORK/ek" 2
start_hostsim "$WORK/host.json" "$WORK/rec1" || exit 1

start_bg "$WORK/main.log" "$MTD_MAIN" -e -v 7 -i "$ID"
pid=$BG_PID
check "first cycle published" wait_for "$WORK/rec1" put_all_current_values 60
stop_pid "$HOSTSIM_PID"
down_at=$(date +%s)

# Down until the daemon has failed to publish, then two answers that are not JSON.
check "publishing retried while down" wait_for "$WORK/main.log" "$SEND_ERROR" 60
: >"$WORK/rec2"
start_bg "$WORK/hostsim2.out" "$HOSTSIM" --config "$WORK/host.json" --record "$WORK/rec2" --garbage 2
HOSTSIM_PID=$BG_PID
check "host service back" wait_for "$WORK/hostsim2.out" '^ready' 30
up_at=$(date +%s)
# The pauses grew while it was down (5 ms doubling): the answer comes within
# about twice the outage, plus the two garbage answers' pauses.
check "outage's end logged" wait_for "$WORK/main.log" "$ANSWERED" 100
check "held values published" wait_for "$WORK/rec2" '"method":"put_all_current_values","params":\[\{' 10
check "not-JSON answer named" grep -q 'SendParameters - Error while parsing data! retry!!!' "$WORK/main.log"
check "its text shown" grep -q 'Response String - Service Temporarily Unavailable' "$WORK/main.log"
# One outage so far (a first failure may be the answer cut off by the stop, then refusals):
# no failure line twice.
check "each failure written once" test -z "$(grep -o 'SendParameters - Error while.*' "$WORK/main.log" | sort | uniq -d)"
check "outage's length and attempts logged" grep -q "$ANSWERED [0-9]* s and [0-9]* failed attempts" "$WORK/main.log"
# The request answered first carries the values read while the service was away.
held=$(grep '"method":"put_all_current_values"' "$WORK/rec2" | head -n 1 | grep -o '"timestamp":[0-9]*' | head -n 1 | cut -d: -f2)
check "held values are from the outage" test -n "$held"
# The same request was sent again for each garbage answer: two repeats, then accepted.
check "garbage answers retried" test "$(grep -c '"method":"put_all_current_values"' "$WORK/rec2")" -ge 3
n=$(count_in "$WORK/main.log" 'cycle_end\(\) - session closed')
check "cycles go on" wait_count "$WORK/main.log" 'cycle_end\(\) - session closed' $((n + 1)) 60
echo "fault_host: down at $down_at, up at $up_at, first held value stamped $held"

# Answers that never end: each is cut at 1 MiB and counts as a failed receive.
hwm_before=$(awk '/^VmHWM:/ { print $2 }' "/proc/$pid/status")
stop_pid "$HOSTSIM_PID"
: >"$WORK/rec3"
start_bg "$WORK/hostsim3.out" "$HOSTSIM" --config "$WORK/host.json" --record "$WORK/rec3" --endless 2
HOSTSIM_PID=$BG_PID
check "endless host service up" wait_for "$WORK/hostsim3.out" '^ready' 30
answered=$(count_in "$WORK/main.log" "$ANSWERED")
check "endless answers given up" wait_count "$WORK/main.log" "$ANSWERED" $((answered + 1)) 90
check "endless answer is a failed receive" grep -q 'SendParameters - Error while receiving data! retry!!!' "$WORK/main.log"
hwm=$(awk '/^VmHWM:/ { print $2 }' "/proc/$pid/status")
echo "fault_host: daemon's peak memory ${hwm} KiB, ${hwm_before} KiB before the endless answers"
if grep -q '^MTD_SANITIZE:STRING=.' "$BUILD_DIR/CMakeCache.txt" 2>/dev/null; then
    echo "fault_host: sanitizer build, peak memory not judged"
else
    check "daemon's peak memory under 20 MiB" test "${hwm:-999999}" -lt 20480
fi
check "daemon still running" kill -0 "$pid"

# Down again: a stop signal ends the retries at once.
stop_pid "$HOSTSIM_PID"
errors=$(count_in "$WORK/main.log" "$SEND_ERROR")
check "second outage seen" wait_count "$WORK/main.log" "$SEND_ERROR" $((errors + 1)) 60
kill -INT "$pid"
check "orderly stop while the host is down" wait_exit "$pid" 10
check "orderly stop: status 0" test "$EXIT_STATUS" = 0

echo "fault_host: $FAILURES failure(s)"
[ "$FAILURES" = 0 ]
