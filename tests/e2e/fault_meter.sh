#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Fault case: the meter's line misbehaves in the middle of the archive transfer
# and then recovers. Three EK270 simulators, each with one fault, each read by
# its own mtd_main: silent for a while, a noisy line (wrong check bytes and
# lost bytes), and a pseudo-terminal hung up during an archive transfer. Each
# daemon must keep running, name the fault in its log, and after the next
# cycles hold every hourly and daily record exactly once.
#   fault_meter.sh BUILD_DIR
. "$(dirname "$0")/lib.sh"
e2e_case "$@"

# MTD_FAULT_CASES picks cases when one is looked at alone.
read -ra cases <<<"${MTD_FAULT_CASES:-silent noisy hangup}"
declare -A meter_args=(
    [silent]="--silent-after 40 --silent-count 30"
    [noisy]="--bad-bcc-every 9 --drop-byte-every 13"
    [hangup]="--hangup-in-archive"
)
declare -A ids=([silent]=2101 [noisy]=2102 [hangup]=2103)
declare -A main_pid

entries=()
for c in "${cases[@]}"; do
    entries+=("$(ek_meter "${ids[$c]}" "$WORK/$c" 3)")
done
(IFS=,; printf '{"meters": {%s}}\n' "${entries[*]}") >"$WORK/host.json"
start_hostsim "$WORK/host.json" "$WORK/rec" || exit 1

for c in "${cases[@]}"; do
    # shellcheck disable=SC2086
    start_metersim "$WORK/$c.out" --link "$WORK/$c" --no-timing --archive-days 2 --max-speed 5 ${meter_args[$c]} || exit 1
    start_bg "$WORK/$c.log" "$MTD_MAIN" -e -v 7 -i "${ids[$c]}"
    main_pid[$c]=$BG_PID
done

# Two days of hourly records (at least 47 closed hours) and the daily records.
archives_whole() {
    series_whole "$1" Hourly_JSONRPC 3600 47 >/dev/null && series_whole "$1" Daily_JSONRPC 86400 2 >/dev/null
}
for c in "${cases[@]}"; do
    check "$c: archives complete after the fault" wait_until 90 archives_whole "${ids[$c]}"
done
for c in "${cases[@]}"; do
    check "$c: no gap, no duplicate (hourly)" series_whole "${ids[$c]}" Hourly_JSONRPC 3600 47
    check "$c: no gap, no duplicate (daily)" series_whole "${ids[$c]}" Daily_JSONRPC 86400 2
    check "$c: daemon still running" kill -0 "${main_pid[$c]}"
    check "$c: a later cycle completed" wait_for "$WORK/$c.log" 'CmtdEK2xxTC2xx::cycle_end\(\) - session closed' 20
    case $c in
    silent)
        check "silent: time-outs named" grep -q "RECV: TIMEOUT" "$WORK/silent.log"
        check "silent: request given up" grep -q "CAN'T SEND REQUEST" "$WORK/silent.log" ;;
    noisy)
        # Blocks carry no checked BCC: a damaged line shows as a damaged record.
        check "noisy: damage named" grep -Eq "WRONG BCC|NAK|DAMAGED RECORD" "$WORK/noisy.log"
        check "noisy: nothing skipped for good" test "$(count_in "$WORK/noisy.log" 'SKIPPED FOR GOOD')" = 0 ;;
    hangup)
        # The simulator names a new pseudo-terminal each time it opens one.
        check "hangup: the meter did hang up" test "$(count_in "$WORK/hangup.out" '^pty ')" -ge 2
        check "hangup: lost line named" grep -Eq "CAN'T SEND REQUEST|not open|archive transfer broken" "$WORK/hangup.log" ;;
    esac
done
for c in "${cases[@]}"; do
    kill -INT "${main_pid[$c]}"
    check "$c: orderly stop" wait_exit "${main_pid[$c]}" 10
done

echo "fault_meter: $FAILURES failure(s)"
[ "$FAILURES" = 0 ]
