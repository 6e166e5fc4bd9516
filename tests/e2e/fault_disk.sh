#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Fault case: the log file's folder is removed while the daemon runs, and the
# storage is a small tmpfs that is full. The daemon names both, keeps its
# cycle going, and stores every archive record once space comes back. Last, a
# log path made of shell syntax is used as a plain file name.
#   fault_disk.sh BUILD_DIR
. "$(dirname "$0")/lib.sh"
e2e_case "$@"

ID=2501
mount -t tmpfs -o size=256k tmpfs /mnt/storage
dd if=/dev/zero of=/mnt/storage/filler bs=4k 2>/dev/null
check "storage is full" test "$(df --output=avail /mnt/storage | tail -n 1 | tr -d ' ')" = 0

start_metersim "$WORK/ek.out" --link "$WORK/ek" --no-timing --archive-days 1 || exit 1
write_ek_config "$WORK/host.json" "$ID" "$WORK/ek" 2
start_hostsim "$WORK/host.json" "$WORK/rec" || exit 1

mkdir -p "$WORK/logs"
start_bg "$WORK/main.out" "$MTD_MAIN" -v 7 -l "$WORK/logs/main.log" -i "$ID"
pid=$BG_PID
check "log file written" wait_for "$WORK/logs/main.log" 'functionThread begin execute thread' 10
rm -rf "$WORK/logs"
check "lost log folder named" wait_for "$WORK/main.out" "Can't open file $WORK/logs/main.log" 10

# Two cycles on a full disk: values still published, the cycle keeps its pace.
check "cycles go on while full" wait_count "$WORK/rec" put_all_current_values 3 40
check "nothing stored while full" test -z "$(stored_times "$ID" Hourly_JSONRPC)"
check "daemon still running" kill -0 "$pid"

rm -f /mnt/storage/filler
mkdir -p "$WORK/logs"
check "log file again once its folder is back" wait_for "$WORK/logs/main.log" 'CMtdBaseDriver::functionThread' 30
hourly_whole() { series_whole "$ID" Hourly_JSONRPC 3600 23 >/dev/null; }
check "archives stored once space is back" wait_until 60 hourly_whole
check "no gap, no duplicate" series_whole "$ID" Hourly_JSONRPC 3600 23
check "no temporary batch left" test -z "$(find /mnt/storage -name '.*.tmp')"
grep -E "No space left|cannot|not stored" "$WORK/logs/main.log" "$WORK/main.out" | head -n 3
kill -INT "$pid"
check "orderly stop" wait_exit "$pid" 10

# A log path full of shell syntax, erased often (-s 200): it is only ever a file name.
odd="$WORK/log \$(touch $WORK/pwned1);touch $WORK/pwned2 \`touch $WORK/pwned3\`.log"
start_bg "$WORK/odd.out" "$MTD_MAIN" -v 7 -l "$odd" -s 200 -i "$ID"
pid=$BG_PID
n=$(count_in "$WORK/rec" put_all_current_values)
check "odd log path: daemon runs" wait_count "$WORK/rec" put_all_current_values $((n + 1)) 30
check "odd log path: nothing executed" test -z "$(ls "$WORK" | grep pwned)"
kill -INT "$pid"
check "odd log path: orderly stop" wait_exit "$pid" 10

echo "fault_disk: $FAILURES failure(s)"
[ "$FAILURES" = 0 ]
