#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Fault case: the reporter holds its lock on the release folder for two
# minutes. The daemon says so at Crit level once a minute, releases the
# batches as soon as the lock is gone and leaves no lock of its own behind.
# Runs at real time (the wait is a minute per look), in parallel with others.
#   fault_lock.sh BUILD_DIR
. "$(dirname "$0")/lib.sh"
e2e_case "$@"

ID=2301
LOCK=/tmp/RPRT_LCK_${ID}_1_tmp_archives
# The logger keeps the first 127 characters of a message: this one loses "ed the folder!".
BLOCKED='ReleaseArchives\(\) data is read, but it is impossible to rewrite it in the release folder, the reporter block'
start_metersim "$WORK/ek.out" --link "$WORK/ek" --no-timing --archive-days 1 || exit 1
write_ek_config "$WORK/host.json" "$ID" "$WORK/ek" 3
start_hostsim "$WORK/host.json" "$WORK/rec" || exit 1

: >"$LOCK"
start_bg "$WORK/main.log" "$MTD_MAIN" -e -v 7 -i "$ID"
pid=$BG_PID
check "blocked release named" wait_for "$WORK/main.log" "$BLOCKED" 60
# Three looks a minute apart: the lock has then been held for two minutes.
check "Crit message repeats" wait_count "$WORK/main.log" "$BLOCKED" 3 130
check "nothing released while locked" test -z "$(find "/mnt/storage/$ID/1/tmp_archives" -type f 2>/dev/null)"
check "no driver lock while waiting" test ! -e "/tmp/DRV_LCK_${ID}_1_tmp_archives"
rm -f "$LOCK"
released() { test -n "$(find "/mnt/storage/$ID/1/tmp_archives" -name 'Hourly_JSONRPC-*.jsonl' 2>/dev/null)"; }
check "released once the lock is gone" wait_until 70 released
check "no driver lock left" wait_until 5 test -z "$(ls /tmp | grep '^DRV_LCK_')"
check "three Crit messages, not more" test "$(count_in "$WORK/main.log" "$BLOCKED")" = 3
check "daemon still running" kill -0 "$pid"
kill -INT "$pid"
check "orderly stop" wait_exit "$pid" 10

echo "fault_lock: $FAILURES failure(s)"
[ "$FAILURES" = 0 ]
