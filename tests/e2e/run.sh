#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# End-to-end cases of the real mtd_main: run.sh BUILD_DIR
# Re-runs itself inside `unshare -rmn` (own loopback, private /tmp and /mnt/storage).
. "$(dirname "$0")/lib.sh"
e2e_case "$@"

# ---- command line ----
out=$("$MTD_MAIN" -r)
check "-r prints the version" test "$? $out" = "0 version 1.3.35 (2017.06.05)"
out=$("$MTD_MAIN" -r -v 9)
check "-r before any other check" test "$? $out" = "0 version 1.3.35 (2017.06.05)"

"$MTD_MAIN" -h >"$WORK/help" 2>&1
check "-h exits 0" test $? = 0
check "-h usage line" grep -qx "Usage: $MTD_MAIN \[options\]" "$WORK/help"
check "-h last line" grep -qx '    -s  --logsize               Max size of log file (in bytes). After reach log file erase. 0 - unlimit' "$WORK/help"
check "-h -l line" grep -qF '    -l  --logname               Full name (with the path) to the log file. Does not make sense if there "-e".' "$WORK/help"

option_error() {  # legend, expected message, args...
    local legend=$1 message=$2
    shift 2
    "$MTD_MAIN" "$@" >"$WORK/out" 2>"$WORK/err"
    local status=$?
    check "$legend: status 1" test "$status" = 1
    check "$legend: message" grep -qx "main: $message" "$WORK/err"
    check "$legend: usage" grep -q '^Usage: ' "$WORK/err"
    check "$legend: nothing on stdout" test ! -s "$WORK/out"
}
option_error "-v 8" "Unacceptable logs level!" -v 8 -i 1
option_error "-v -1" "Unacceptable logs level!" -v -1 -i 1
option_error "-v 5x" "Unacceptable logs level!" --verbose 5x -i 1
option_error "-s 5x" "Unacceptable max logfile size!" -s 5x -i 1
option_error "-s empty" "Unacceptable max logfile size!" --logsize= -i 1
option_error "-l empty" "Error logs file name!" -l "" -i 1

"$MTD_MAIN" -e -v 0 >"$WORK/out" 2>"$WORK/err"
check "no -i: status 1" test $? = 1
check "no -i: message" grep -qx 'main: Do not set any ID of HeatMeter!' "$WORK/err"
check "no -i: no usage" sh -c "! grep -q Usage '$WORK/err'"

# ---- two meters on one line, orderly stop on SIGINT ----
write_config "$WORK/two.json" "no-such-model" 11 12
start_hostsim "$WORK/two.json" "$WORK/rec" || exit 1
start_bg "$WORK/two.log" "$MTD_MAIN" -e -v 7 -i 11 -i 12
pid=$BG_PID
# The second meter gets its turn at the main loop's next 5 s step. The bounds
# on waits here are generous: a loaded machine or a sanitizer build starts the
# daemon slowly, and a passing case never waits them out.
check "two -i: both meters published" wait_count "$WORK/rec" put_all_current_values 2 20
check "two -i: configurations in order" test "$(grep -o '"heat_meter":"[0-9]*"' "$WORK/rec" | tr '\n' ' ')" = '"heat_meter":"11" "heat_meter":"12" '
check "two -i: empty list published" grep -q '"method":"put_all_current_values","params":\[\]' "$WORK/rec"
check "empty driver warning" grep -q 'CmtdEmptyDriver IS STARTED !!!' "$WORK/two.log"
check "one connector for both" test "$(count_in "$WORK/two.log" 'The CConnector is created')" = 1
kill -INT "$pid"
check "SIGINT once: exits" wait_exit "$pid" 15
check "SIGINT once: status 0" test "$EXIT_STATUS" = 0
check "SIGINT once: logged" grep -q 'System signal number 2 (Interrupt) is received' "$WORK/two.log"
check "SIGINT once: drivers stopped" grep -q 'main: stopped.' "$WORK/two.log"

# ---- SIGTERM once; -l with -s erasing ----
start_bg "$WORK/term.out" "$MTD_MAIN" -v 7 -l "$WORK/small.log" -s 300 -i 11
pid=$BG_PID
published=$(count_in "$WORK/rec" put_all_current_values)
check "-l -s: cycle ran" wait_count "$WORK/rec" put_all_current_values $((published + 1)) 15
# Erased whenever it passes 300 bytes: the start-up lines are long gone.
check "-l -s: file was erased" sh -c "! grep -q 'assembly starts' '$WORK/small.log'"
check "-l -s: file stays small" sh -c "[ ! -e '$WORK/small.log' ] || [ \$(stat -c %s '$WORK/small.log') -lt 600 ]"
kill -TERM "$pid"
check "SIGTERM once: exits" wait_exit "$pid" 15
check "SIGTERM once: status 0" test "$EXIT_STATUS" = 0

# ---- daemon mode ----
"$MTD_MAIN" -d -v 7 -l "$WORK/daemon.log" -i 11 >"$WORK/out" 2>&1
check "-d: parent exits 0" test $? = 0
check "-d: child logs" wait_for "$WORK/daemon.log" 'create_and_init\(\) - Start\(\)' 15
dpid=$(pgrep -f -- "-l $WORK/daemon.log" | head -n 1)
check "-d: child runs" test -n "$dpid"
if [ -n "$dpid" ]; then
    STARTED_PIDS+=("$dpid")
    check "-d: own session" test "$(ps -o sid= -p "$dpid" | tr -d ' ')" = "$dpid"
    check "-d: stdin on /dev/null" test "$(readlink /proc/"$dpid"/fd/0)" = /dev/null
    kill -TERM "$dpid"
    deadline=$((SECONDS + 15))
    while kill -0 "$dpid" 2>/dev/null && ((SECONDS < deadline)); do sleep 0.05; done
    check "-d: stops on SIGTERM" sh -c "! kill -0 $dpid 2>/dev/null"
fi
stop_pid "$HOSTSIM_PID"

# A second signal during the orderly stop (status 1 at once) is tested without
# a race in tests/app (CMtdMainLoop_test): the stop is held there until the
# second signal has been sent.

echo "e2e: $FAILURES failure(s)"
[ "$FAILURES" = 0 ]
