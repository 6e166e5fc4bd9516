#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Files a hostile local user leaves for the root daemon: a pause file, a
# force-update file, a passport file and a reporter lock created by a second,
# unprivileged user, and a root file anyone may write, are all ignored with one
# Warning each; the meter is read and its archives released as if they were
# absent, and the passport stays unread where it is. Then a port name that
# points at a regular file: one Err line, the file untouched, no cycle.
# fault_trust.sh BUILD_DIR (re-runs itself in `unshare -mn`, as root; skips otherwise).
. "$(dirname "$0")/lib.sh"
e2e_case_two_users "$@"
ID=23
STATUS_FILE=/tmp/mtd_status_$ID.json
PASSPORT='{"PassP":"1.0332","PassCO2":"0.52"}'

json_get() { python3 -c "import json,sys; print(json.load(open('$STATUS_FILE'))$1)"; }
cycles_at_least() { test "$(json_get '["counters"]["cycles"]' 2>/dev/null || echo 0)" -ge "$1"; }
released_files() { find "/mnt/storage/$ID/1/tmp_archives" -maxdepth 1 -name '*.jsonl' 2>/dev/null | wc -l; }
untrusted_warnings() { count_in "$WORK/main.log" "Warning: $1: untrusted control file ignored, owner $2 mode $3"; }

start_metersim "$WORK/sim.out" --link "$WORK/ek.tty" --no-timing --archive-days 1 || exit 1
printf '{"meters": {%s, %s}}\n' "$(ek_meter "$ID" "$WORK/ek.tty" 300)" "$(ek_meter 24 "$WORK/not-a-port" 300)" \
    >"$WORK/host.json"
start_hostsim "$WORK/host.json" "$WORK/host.rec" || exit 1

# ---- the second user's files, and a root file writable by anyone ----
as_other_user sh -c "umask 022; : >/tmp/pause_gmd_all; : >/tmp/gmd_force_update_$ID;
    : >/tmp/RPRT_LCK_${ID}_1_tmp_archives; printf '%s' '$PASSPORT' >/tmp/gmd_set_value_$ID"
: >/tmp/pause_gmd_$ID
chmod 0666 /tmp/pause_gmd_$ID
other="$E2E_OTHER_UID:$E2E_OTHER_UID"
check "setup: files belong to the second user" test "$(stat -c %u /tmp/pause_gmd_all)" = "$E2E_OTHER_UID"

start_bg "$WORK/main.log" "$MTD_MAIN" -e -v 7 -i "$ID"
MAIN_PID=$BG_PID
check "untrusted: the meter is read all the same" wait_until 40 cycles_at_least 1
check "untrusted: archives stored" test -n "$(stored_times "$ID" Hourly_JSONRPC)"
check "untrusted: released despite the foreign reporter lock" test "$(released_files)" -gt 0
check "untrusted: no wait for the reporter" test "$(count_in "$WORK/main.log" 'the reporter blocked the folder')" = 0
check "untrusted: never paused" test "$(count_in "$WORK/main.log" 'paused by a control file')" = 0
check "untrusted: foreign force-update not taken" test -e "/tmp/gmd_force_update_$ID"
check "untrusted: no force-update notice" test "$(count_in "$WORK/main.log" 'force-update file removed')" = 0
check "untrusted: passport left in place" test "$(cat "/tmp/gmd_set_value_$ID")" = "$PASSPORT"
check "untrusted: passport never taken" test "$(count_in "$WORK/main.log" 'GetGasPassportParams\(\) - passport file')" = 0
# A second cycle looks at every file again; each is still reported once.
check "untrusted: second look" wait_count "$WORK/main.log" 'CMtdBaseDriver::GetArchActual\(\)' 3 20
check "warning: pause_gmd_all once" test "$(untrusted_warnings /tmp/pause_gmd_all "$other" 100644)" = 1
check "warning: world-writable pause once" test "$(untrusted_warnings "/tmp/pause_gmd_$ID" 0:0 100666)" = 1
check "warning: force-update once" test "$(untrusted_warnings "/tmp/gmd_force_update_$ID" "$other" 100644)" = 1
check "warning: reporter lock once" \
    test "$(untrusted_warnings "/tmp/RPRT_LCK_${ID}_1_tmp_archives" "$other" 100644)" = 1
check "warning: passport once" test "$(untrusted_warnings "/tmp/gmd_set_value_$ID" "$other" 100644)" = 1
stop_pid "$MAIN_PID"

# ---- a port name that is a regular file (say, an archive state file) ----
printf '1700006400\n' >"$WORK/not-a-port"
start_bg "$WORK/port.log" "$MTD_MAIN" -e -v 7 -i 24
check "file as port: one Err line" \
    wait_for "$WORK/port.log" "Err: CRSConnector::open_device - $WORK/not-a-port is not a serial port" 15
# Two more steps of the main loop: the driver retried the port every second meanwhile.
steps=$(count_in "$WORK/port.log" 'CMtdBaseDriver::GetArchActual\(\)')
check "file as port: retries go on" wait_count "$WORK/port.log" 'CMtdBaseDriver::GetArchActual\(\)' $((steps + 2)) 20
check "file as port: still one Err line" test "$(count_in "$WORK/port.log" 'is not a serial port')" = 1
check "file as port: file untouched" test "$(cat "$WORK/not-a-port")" = 1700006400
check "file as port: no cycle" test "$(count_in "$WORK/port.log" 'begin all current values')" = 0
echo "fault_trust: $FAILURES failure(s)"
[ "$FAILURES" = 0 ]
