#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The service of one serial line: mtd_main started the way mtd_main@<line>.service
# starts it, from /etc/mtd_main/<line>.conf, serves both EK270s on the line with
# one process; a line without a usable file stops with a clear message and the
# status that keeps the unit from restarting.
# unit_line.sh BUILD_DIR (re-runs itself in `unshare -rmn`).
. "$(dirname "$0")/lib.sh"
e2e_case "$@"
e2e_private_etc

# ---- a line with two meters: one process reads both, in the order listed ----
dev=$(ek_device_start 2)
start_metersim "$WORK/sim.out" --link "$WORK/line.tty" --address 7,8 --no-timing --now "$dev" --archive-days 1 ||
    exit 1
meter() {  # ID ADDRESS
    printf '"%s": {"port_params": {"manufacturer": "ek270", "name": "%s", "speed": "9600", ' "$1" "$WORK/line.tty"
    printf '"data": "7", "parity": "E", "stop": "1", "timeout": "300", "serial": "12345678", "address": "%s", ' "$2"
    printf '"password1": "00000000", "password2": "11111111", "data_rate": "600"}, "systems": ["1"]}'
}
printf '{"meters": {%s, %s}}\n' "$(meter 21 7)" "$(meter 22 8)" >"$WORK/host.json"
start_hostsim "$WORK/host.json" "$WORK/host.rec" || exit 1
cat >/etc/mtd_main/rs485a.conf <<'CONF'
# both correctors of the boiler room
  METERS="22 21"
LOG_LEVEL=0
CONF
start_line rs485a "$WORK/line.out"
pid=$BG_PID
check "starter names the line" wait_for "$WORK/line.out" '^mtd_main-line: line rs485a, meters 22 21$' 5
check "the service's process is the daemon" \
    test "$(tr '\0' ' ' </proc/"$pid"/cmdline)" = "$MTD_MAIN -v 0 -i 22 -i 21 "
check "both meters read" wait_count "$WORK/host.rec" '"put_all_current_values","params":\[\{' 2 60
check "configurations fetched in the order listed" \
    test "$(grep -o '"heat_meter":"[0-9]*"' "$WORK/host.rec" | tr '\n' ' ')" = '"heat_meter":"22" "heat_meter":"21" '
has_hourly() { test -n "$(stored_times "$1" Hourly_JSONRPC)"; }
for id in 21 22; do
    check "meter $id: hourly archive stored" wait_until 30 has_hourly $id
done
kill -TERM "$pid"
check "SIGTERM: orderly stop" wait_exit "$pid" 20
check "SIGTERM: status 0" test "${EXIT_STATUS:-}" = 0
stop_pid "$METERSIM_PID"
stop_pid "$HOSTSIM_PID"

# ---- lines the starter refuses: status 78, a message, no daemon ----
printf '# nothing yet\n#METERS="1"\n' >/etc/mtd_main/empty.conf
printf 'METERS="1 2x"\n' >/etc/mtd_main/badid.conf
printf 'METERS=1\nPORT=/dev/ttyS1\n' >/etc/mtd_main/unknown.conf
printf 'METERS 1\n' >/etc/mtd_main/noequal.conf
printf 'METERS=1\nLOG_LEVEL=9\n' >/etc/mtd_main/badlevel.conf
while IFS='|' read -r line message; do
    start_line "$line" "$WORK/$line.out"
    wait_exit "$BG_PID" 5
    check "$line: status 78 (got ${EXIT_STATUS:-none})" test "${EXIT_STATUS:-}" = 78
    check "$line: message" grep -qF -- "$message" "$WORK/$line.out"
done <<'ROWS'
nofile|mtd_main-line: no /etc/mtd_main/nofile.conf: list the meters of line nofile there
empty|mtd_main-line: /etc/mtd_main/empty.conf lists no meter
badid|mtd_main-line: /etc/mtd_main/badid.conf: meter identifier '2x' is not a number
unknown|mtd_main-line: /etc/mtd_main/unknown.conf:2: unknown setting PORT
noequal|mtd_main-line: /etc/mtd_main/noequal.conf:1: not NAME=value: METERS 1
badlevel|mtd_main-line: /etc/mtd_main/badlevel.conf: LOG_LEVEL '9' is not 0..7
ROWS

echo "e2e: $FAILURES failure(s)"
[ "$FAILURES" = 0 ]
