#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Fault case: the host service goes away for 30 s and comes back answering
# garbage (text that is not JSON) to its first requests. The polling thread
# holds the values it read meanwhile, retries, and publishes them once the
# service answers; the cycles then go on.
#   fault_host.sh BUILD_DIR
. "$(dirname "$0")/lib.sh"
e2e_case "$@"

ID=2401
start_metersim "$WORK/ek.out" --link "$WORK/ek" --no-timing --archive-days 1 || exit 1
write_ek_config "$WORK/host.json" "$ID" "$WORK/ek" 2
start_hostsim "$WORK/host.json" "$WORK/rec1" || exit 1

start_bg "$WORK/main.log" "$MTD_MAIN" -e -v 7 -i "$ID"
pid=$BG_PID
check "first cycle published" wait_for "$WORK/rec1" put_all_current_values 30
stop_pid "$HOSTSIM_PID"
down_at=$(date +%s)

# Down for 30 s (nothing listens), then three answers that are not JSON.
start_bg "$WORK/hostsim2.out" "$HOSTSIM" --config "$WORK/host.json" --record "$WORK/rec2" --refuse 30 --garbage 3
HOSTSIM_PID=$BG_PID
check "publishing retried while down" wait_for "$WORK/main.log" 'SendParameters - Error while sending data! retry!!!' 30
check "host service back" wait_for "$WORK/hostsim2.out" '^ready' 40
up_at=$(date +%s)
check "held values published" wait_for "$WORK/rec2" '"method":"put_all_current_values","params":\[\{' 20
check "not-JSON answer named" grep -q 'SendParameters - Error while parsing data! retry!!!' "$WORK/main.log"
check "its text shown" grep -q 'Response String - Service Temporarily Unavailable' "$WORK/main.log"
# The request answered first carries the values read while the service was away.
held=$(grep '"method":"put_all_current_values"' "$WORK/rec2" | head -n 1 | grep -o '"timestamp":[0-9]*' | head -n 1 | cut -d: -f2)
check "held values are from the outage" test -n "$held"
# The same request was sent again for each garbage answer: three repeats, then accepted.
check "garbage answers retried" test "$(grep -c '"method":"put_all_current_values"' "$WORK/rec2")" -ge 4
n=$(count_in "$WORK/main.log" 'cycle_end\(\) - session closed')
check "cycles go on" wait_count "$WORK/main.log" 'cycle_end\(\) - session closed' $((n + 1)) 30
check "daemon still running" kill -0 "$pid"
echo "fault_host: down at $down_at, up at $up_at, first held value stamped $held"
kill -INT "$pid"
check "orderly stop" wait_exit "$pid" 10

echo "fault_host: $FAILURES failure(s)"
[ "$FAILURES" = 0 ]
