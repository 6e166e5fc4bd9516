#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# An EK270 that ends cycles early, then recovers: a wrong serial number, and a
# meter that goes silent in the middle of an archive transfer. Nothing is lost
# or stored twice. ek_recover.sh BUILD_DIR (re-runs itself in `unshare -rmn`).
. "$(dirname "$0")/lib.sh"
e2e_case "$@"

DEV=$(ek_device_start 10)
SIM=(--now "$DEV" --archive-days 1 --seed 7 --model EK270)

# ---- wrong serial number: the cycle ends; the right meter on the same line is read ----
id=3001
start_metersim "$WORK/serial.sim" --link "$WORK/ek.tty" --no-timing "${SIM[@]}" --serial 87654321 || exit 1
write_ek_model_config "$WORK/serial.json" $id ek270 "$WORK/ek.tty" 12345678 5
start_hostsim "$WORK/serial.json" "$WORK/serial.rec" || exit 1
start_bg "$WORK/serial.log" "$MTD_MAIN" -e -v 7 -i $id
pid=$BG_PID
# The log cuts lines at 127 characters: "... EXCEPTION WILL BE THROWN." loses its end.
check "wrong serial: exception" wait_for "$WORK/serial.log" \
    "READ SERIAL '87654321' != GIVEN SERIAL '12345678' !!! EXCEPTIO" 15
check "wrong serial: cycle ended" wait_for "$WORK/serial.log" 'disconnecting from controller registered' 5
check "wrong serial: nothing published" sh -c "! grep -q put_all_current_values '$WORK/serial.rec'"
check "wrong serial: no archive read" sh -c "! grep -q 'get_arch_values(' '$WORK/serial.log'"
stop_pid "$METERSIM_PID"
start_metersim "$WORK/serial2.sim" --link "$WORK/ek.tty" --no-timing "${SIM[@]}" --serial 12345678 || exit 1
check "right serial: next cycle completes" wait_for "$WORK/serial.log" "$EK_CYCLE_END" 30
check "right serial: values published" grep -q put_all_current_values "$WORK/serial.rec"
check "right serial: archives complete" ek_check_archives "$WORK/serial.log" $id EK270 "${SIM[@]}"
kill -INT "$pid"
check "wrong serial: daemon stops" wait_exit "$pid" 5
stop_pid "$METERSIM_PID"
stop_pid "$HOSTSIM_PID"

[ -n "${EK_SERIAL_ONLY:-}" ] && exit 0
# ---- silent in the middle of the hourly archive, then answering again ----
id=3002
# About 30 requests open the session and read the system values, the current
# values and the daily archive; the 45th asks for a block of the hourly one.
start_metersim "$WORK/silent.sim" --link "$WORK/ek.tty" --no-timing "${SIM[@]}" --silent-after 45 || exit 1
write_ek_model_config "$WORK/silent.json" $id ek270 "$WORK/ek.tty" 12345678 5
start_hostsim "$WORK/silent.json" "$WORK/silent.rec" || exit 1
start_bg "$WORK/silent.log" "$MTD_MAIN" -e -v 7 -i $id
pid=$BG_PID
check "silent: transfer broken" wait_for "$WORK/silent.log" 'disconnecting from controller registered' 30
check "silent: broken in the hourly archive" grep -q "CAN'T SEND REQUEST !!!" "$WORK/silent.log"
partial=$(find /mnt/storage/$id -name 'Hourly_JSONRPC-*' -exec cat {} + | wc -l)
check "silent: what was read is stored ($partial hourly)" test "$partial" -gt 0
stop_pid "$METERSIM_PID"
start_metersim "$WORK/silent2.sim" --link "$WORK/ek.tty" --no-timing "${SIM[@]}" || exit 1
check "silent: next cycle completes" wait_for "$WORK/silent.log" "$EK_CYCLE_END" 30
check "silent: nothing lost, nothing twice" ek_check_archives "$WORK/silent.log" $id EK270 "${SIM[@]}"
check "silent: the rest came in a batch of its own" \
    test "$(find /mnt/storage/$id -name 'Hourly_JSONRPC-*' | wc -l)" -ge 2
kill -INT "$pid"
check "silent: daemon stops" wait_exit "$pid" 5

echo "e2e ek_recover: $FAILURES failure(s)"
[ "$FAILURES" = 0 ]
