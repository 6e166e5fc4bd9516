#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# An EK270 given a gas passport through /tmp/gmd_set_value_<id>, and an EK270
# whose replies carry wrong check bytes and error codes in place of values:
# ek_faults.sh BUILD_DIR (re-runs itself in `unshare -rmn`).
. "$(dirname "$0")/lib.sh"
e2e_case "$@"

DEV=$(ek_device_start 10)
SIM=(--now "$DEV" --archive-days 1 --seed 9 --model EK270)

# ---- gas passport written into the meter, then the file is gone ----
id=4001
start_metersim "$WORK/pass.sim" --link "$WORK/ek.tty" --no-timing "${SIM[@]}" || exit 1
write_ek_model_config "$WORK/pass.json" $id ek270 "$WORK/ek.tty"
start_hostsim "$WORK/pass.json" "$WORK/pass.rec" || exit 1
printf '{"PassCO2":"0.52","PassN2":"1.1","PassP":"1.0332"}\n' >"$WORK/passport"
mv "$WORK/passport" /tmp/gmd_set_value_$id
start_bg "$WORK/pass.log" "$MTD_MAIN" -e -v 7 -i $id
pid=$BG_PID
check "passport: cycle completes" wait_for "$WORK/pass.log" "$EK_CYCLE_END" 30
check "passport: CO2 written" grep -qx 'W1 11:314.1(0.52)' "$WORK/pass.sim"
check "passport: N2 written" grep -qx 'W1 14:314.1(1.1)' "$WORK/pass.sim"
# 1.0332 kgf/cm2 in the meter's bar.
check "passport: pressure written in bar" grep -Eqx 'W1 7:314_1.1\(1\.0132[0-9]*\)' "$WORK/pass.sim"
check "passport: supplier lock opened" grep -qx 'W1 3:171.0(11111111)' "$WORK/pass.sim"
check "passport: file removed" test ! -e /tmp/gmd_set_value_$id
check "passport: no write failed" sh -c "! grep -q \"CAN'T WRITE\" '$WORK/pass.log'"
check "passport: new values published" ek_check_current "$WORK/pass.rec" EK270 bar PassCO2=0.52 PassN2=1.1 PassP=1.01322
kill -INT "$pid"
check "passport: daemon stops" wait_exit "$pid" 5
stop_pid "$METERSIM_PID"
stop_pid "$HOSTSIM_PID"

# ---- wrong check bytes and error codes ----
id=4002
start_metersim "$WORK/bcc.sim" --link "$WORK/ek.tty" --no-timing "${SIM[@]}" --bad-bcc-every 5 \
    --error-registers 6:310_1.0,5:310.0 || exit 1
write_ek_model_config "$WORK/bcc.json" $id ek270 "$WORK/ek.tty"
start_hostsim "$WORK/bcc.json" "$WORK/bcc.rec" || exit 1
start_bg "$WORK/bcc.log" "$MTD_MAIN" -e -v 7 -i $id
pid=$BG_PID
check "faults: cycle completes" wait_for "$WORK/bcc.log" "$EK_CYCLE_END" 40
check "faults: error code logged" grep -q "DEVICE RETURNS ERROR CODE '#0001' !!!" "$WORK/bcc.log"
check "faults: failed values skipped" test "$(count_in "$WORK/bcc.log" "CAN'T GET CURRENT PARAMETER 'Read (Temperature|Correction)")" = 2
check "faults: the rest published" ek_check_current "$WORK/bcc.rec" EK270 bar T=- Kcorr=- Vstd.crash=12.5000 Kcomp=1.0023
check "faults: archives complete" ek_check_archives "$WORK/bcc.log" $id EK270 "${SIM[@]}"
check "faults: daemon still runs" kill -0 "$pid"
kill -INT "$pid"
check "faults: daemon stops" wait_exit "$pid" 5

echo "e2e ek_faults: $FAILURES failure(s)"
[ "$FAILURES" = 0 ]
