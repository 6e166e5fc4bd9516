#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Operator controls of the real mtd_main against an EK270 (mtd_metersim): a
# pause file keeps the line quiet and the archives catch up after it, a
# force-update file cuts a 300 s wait short, mtd_status reports and alerts, also
# as Prometheus figures (checked with promtool).
# ops_controls.sh BUILD_DIR (re-runs itself in `unshare -rmn`).
. "$(dirname "$0")/lib.sh"
e2e_case "$@"
STATUS_TOOL="$BUILD_DIR/mtd_status"
ID=21
STATUS_FILE=/tmp/mtd_status_$ID.json

# sim_requests: how many requests the simulator has seen (asked with SIGUSR1).
sim_requests() {
    local n
    n=$(count_in "$WORK/sim.out" '^requests ')
    kill -USR1 "$METERSIM_PID"
    wait_count "$WORK/sim.out" '^requests ' $((n + 1)) 5 || return 1
    grep '^requests ' "$WORK/sim.out" | tail -n 1 | cut -d' ' -f2
}
# json_get EXPR: a member of the status file, e.g. json_get '["state"]'.
json_get() { python3 -c "import json,sys; print(json.load(open('$STATUS_FILE'))$1)"; }
main_steps() { count_in "$WORK/main.log" 'CMtdBaseDriver::GetArchActual\(\)'; }
steps_at_least() { test "$(main_steps)" -ge "$1"; }
cycles_are() { test "$(json_get '["counters"]["cycles"]' 2>/dev/null)" = "$1"; }

start_metersim "$WORK/sim.out" --link "$WORK/ek.tty" --no-timing --archive-days 1 || exit 1
write_ek_config "$WORK/host.json" "$ID" "$WORK/ek.tty" 300
start_hostsim "$WORK/host.json" "$WORK/host.rec" || exit 1

# ---- pause from the start: not one byte to the meter while the file exists ----
touch /tmp/pause_gmd_$ID
start_bg "$WORK/main.log" "$MTD_MAIN" -e -v 7 -i "$ID"
MAIN_PID=$BG_PID
check "pause: begin logged once" wait_for "$WORK/main.log" "Notice: .*meter $ID: paused by a control file" 8
steps=$(main_steps)
# Two more steps of the main loop, each a turn the paused driver hands back.
check "pause: main loop keeps stepping" wait_until 15 steps_at_least $((steps + 2))
check "pause: simulator saw no request" test "$(sim_requests)" = 0
check "pause: begin logged only once" test "$(count_in "$WORK/main.log" 'paused by a control file')" = 1
check "pause: status says paused" test "$(json_get '["state"]') $(json_get '["paused"]')" = "paused True"
"$STATUS_TOOL" >"$WORK/st.out" 2>&1
check "pause: mtd_status line" grep -Eq "^$ID +ek270 +paused " "$WORK/st.out"
check "pause: nothing stored" test -z "$(stored_times "$ID" Hourly_JSONRPC)"

rm /tmp/pause_gmd_$ID
check "pause: end logged" wait_for "$WORK/main.log" "Notice: .*meter $ID: pause ended, polling resumes" 8
check "pause: first cycle after it ends" wait_until 30 cycles_are 1
check "pause: archives caught up" series_whole "$ID" Hourly_JSONRPC 3600 20
check "pause: meter was read" test "$(sim_requests)" -gt 0
check "pause: status ok" test "$(json_get '["last_cycle"]["outcome"]') $(json_get '["state"]')" = "ok waiting"

# ---- force update: the 300 s wait ends at the next step of the main loop ----
started=$SECONDS
touch /tmp/gmd_force_update_$ID
check "force: cycle starts with a notice" wait_for "$WORK/main.log" "Notice: .*meter $ID: force-update file removed" 8
check "force: second cycle done" wait_until 30 cycles_are 2
check "force: well before 300 s ($((SECONDS - started)) s)" test $((SECONDS - started)) -lt 40
check "force: file removed" test ! -e /tmp/gmd_force_update_$ID
check "force: one notice per file" test "$(count_in "$WORK/main.log" 'force-update file removed')" = 1

# ---- mtd_status ----
"$STATUS_TOOL" >"$WORK/st.out" 2>&1
check "status: fresh meter exits 0" test $? = 0
check "status: header" grep -q '^ID  *MODEL  *STATE  *LAST-READ  *HOURLY' "$WORK/st.out"
check "status: meter line" grep -Eq "^$ID +ek270 +waiting +[0-9]+s " "$WORK/st.out"
"$STATUS_TOOL" --json --dir /tmp >"$WORK/st.json"
check "status: --json" python3 -c "
import json, sys
d = json.load(open('$WORK/st.json'))
m = d['meters'][0]
sys.exit(not (m['meter_id'] == '$ID' and m['stale'] is False and d['stale'] == 0 and m['counters']['cycles'] == 2
              and m['archives']['hourly']['lag'] < 7200 and m['version'] and m['rss_kb'] > 0))"
last=$(json_get '["last_good_read"]')
"$STATUS_TOOL" --now $((last + 3 * 300 + 1)) >"$WORK/st.out" 2>&1
check "status: three periods unread exits 1" test $? = 1
check "status: stale meter marked" grep -q "^$ID .*NOT READ FOR 3 PERIODS" "$WORK/st.out"
"$STATUS_TOOL" --now $((last + 3 * 300)) >/dev/null 2>&1
check "status: exactly three periods is still fine" test $? = 0

# ---- the same figures for node_exporter's textfile collector ----
PROM="$WORK/textfile/mtd_main.prom"
mkdir "$WORK/textfile"
"$STATUS_TOOL" --prometheus --output "$PROM"
check "prometheus: fresh meter exits 0" test $? = 0
check "prometheus: promtool accepts the file" sh -c "promtool check metrics <'$PROM'"
check "prometheus: cycles of the meter" grep -q "^mtd_meter_cycles_total{meter_id=\"$ID\"} 2\$" "$PROM"
check "prometheus: hourly archive lag" grep -Eq "^mtd_meter_archive_lag_seconds\{meter_id=\"$ID\",kind=\"hourly\"\} [0-9]+\$" "$PROM"
check "prometheus: nothing else left in the folder" test "$(ls -A "$WORK/textfile")" = mtd_main.prom
"$STATUS_TOOL" --prometheus --output "$PROM" --now $((last + 3 * 300 + 1))
check "prometheus: three periods unread exits 1" test $? = 1
check "prometheus: stale meter marked" grep -q "^mtd_meter_stale{meter_id=\"$ID\"} 1\$" "$PROM"
check "prometheus: age of the last good read" grep -q "^mtd_meter_last_good_read_age_seconds{meter_id=\"$ID\"} 901\$" "$PROM"
"$STATUS_TOOL" --prometheus --output "$WORK/nowhere/mtd_main.prom" 2>"$WORK/prom.err"
check "prometheus: unwritable folder exits 1" test $? = 1
check "prometheus: unwritable folder named" grep -q "mtd_status: open of '$WORK/nowhere/mtd_main.prom' failed: " "$WORK/prom.err"

mkdir "$WORK/bad"
echo '{"meter_id": ' >"$WORK/bad/mtd_status_9.json"
"$STATUS_TOOL" --dir "$WORK/bad" >"$WORK/st.out" 2>&1
check "status: broken file exits 1" test $? = 1
check "status: broken file named" grep -q "mtd_status: $WORK/bad/mtd_status_9.json: " "$WORK/st.out"
echo '{"meter_id": "7\\\"x", "model": "a\nb\\", "counters": {"cycles": 1}}' >"$WORK/bad/mtd_status_8.json"
"$STATUS_TOOL" --dir "$WORK/bad" --prometheus >"$WORK/st.prom" 2>/dev/null
check "prometheus: odd labels escaped" sh -c "promtool check metrics <'$WORK/st.prom'"
check "prometheus: unreadable file counted" grep -q '^mtd_status_unreadable_files 1$' "$WORK/st.prom"
"$STATUS_TOOL" --dir "$WORK/empty" >"$WORK/st.out" 2>&1
check "status: no directory exits 1" test $? = 1
"$STATUS_TOOL" --now x >/dev/null 2>&1
check "status: bad option exits 2" test $? = 2

kill -INT "$MAIN_PID"
check "daemon stops" wait_exit "$MAIN_PID" 5
echo "ops_controls: $FAILURES failure(s)"
[ "$FAILURES" = 0 ]
