#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# EK270, EK260 and TC220 read completely by the real mtd_main against
# EK_ONLY=EK270|EK260|TC220 runs one model.
# mtd_metersim and mtd_hostsim, then a second cycle that reads only what the
# meter recorded since: ek_read.sh BUILD_DIR (re-runs itself in `unshare -rmn`).
. "$(dirname "$0")/lib.sh"
e2e_case "$@"

# One meter per model; the device clock runs at 720 s per second, so the
# 10 s data rate lets about two hours of new records build up between cycles
# (and leaves the checks of the first cycle time before the second begins).
read_model() {  # ID MODEL MANUFACTURER PRESSURE_UNIT SEED
    local id=$1 model=$2 manufacturer=$3 unit=$4 seed=$5
    local dev sim=("--now" "" "--archive-days" 1 "--seed" "$seed" "--model" "$model" "--pressure-unit" "$unit")
    dev=$(ek_device_start 30)
    sim[1]=$dev
    local p=1.234 pass_p=1.01325
    [ "$unit" = kPa ] && p=123.4 pass_p=101.325
    local pressure=6:210.0
    [ "${model:0:2}" = TC ] && pressure=7:311.0
    start_metersim "$WORK/$id.sim" --link "$WORK/$id.tty" --no-timing --clock-scale 720 --serial "5${seed}0${seed}" \
        "${sim[@]}" --value 2:300.0=123456.7891 --value 4:300.0=100001.5 --value "$pressure=$p" \
        --value 7:314_1.0=$pass_p --value 6:310_1.0=-3.25 --value 11:314.0=0.612 || return 1
    write_ek_model_config "$WORK/$id.json" "$id" "$manufacturer" "$WORK/$id.tty" "5${seed}0${seed}" 10
    start_hostsim "$WORK/$id.json" "$WORK/$id.rec" || return 1
    start_bg "$WORK/$id.log" "$MTD_MAIN" -e -v 7 -i "$id"
    local pid=$BG_PID
    check "$model: first cycle ends" wait_count "$WORK/$id.log" 'cycle_end\(\) - session closed' 1 30
    check "$model: model read" grep -q "receive('Read Meter Model'): Recv: .*1:181.0($model)" "$WORK/$id.log"
    check "$model: serial read" grep -q "receive('Read Serial Number'): Recv: .*1:180.0(5${seed}0${seed})" "$WORK/$id.log"
    check "$model: firmware read" grep -q "receive('Read Firmware'): Recv: .*2:190.0(2.52)" "$WORK/$id.log"
    check "$model: rate hour read" grep -Eq "receive\('Read Rate Hour'\): Recv: .*0?2:0?141.0\(6\)" "$WORK/$id.log"
    check "$model: archive period" grep -q 'archiving period is 60 min' "$WORK/$id.log"
    if [ "${model:0:2}" = EK ]; then
        check "$model: K mode read" grep -q "receive('Read K Calculation Mode'): Recv: .*8:317.0(2)" "$WORK/$id.log"
    fi
    local extra=()
    [ "${model:0:2}" = TC ] && extra=("Vstd.sum=-" "Vw.sum=-")
    check "$model: current values published" ek_check_current "$WORK/$id.rec" "$model" "$unit" \
        Vstd=123456.7891 Vw=100001.5 Vstd.crash=12.5000 Vw.crash=7.4700 T=-3.25 "P=$p" Kcorr=1.6734 Kcomp=1.0023 \
        PassT=20.00 "PassP=$pass_p" PassCO2=0.612 PassH2=0.000 PassN2=0.900 PassS=0.6800 "${extra[@]}"
    check "$model: archives of the first cycle" ek_check_archives "$WORK/$id.log" "$id" "$model" "${sim[@]}"
    check "$model: second cycle ends" wait_count "$WORK/$id.log" 'cycle_end\(\) - session closed' 2 20
    check "$model: second cycle stored a new hourly batch" \
        stored_in_cycle "$WORK/$id.log" 'cycle_end\(\) - session closed' 1 Hourly_JSONRPC
    check "$model: archives after the second cycle" ek_check_archives "$WORK/$id.log" "$id" "$model" "${sim[@]}"
    check "$model: no error from the driver" sh -c "! grep -E 'BAD CRC|BAD RECORD|DOESN.T MATCH|SKIP IT|Err: ' '$WORK/$id.log'"
    kill -INT "$pid"
    check "$model: daemon stops" wait_exit "$pid" 5
    stop_pid "$HOSTSIM_PID"
    stop_pid "$METERSIM_PID"
}

[ -z "${EK_ONLY:-}" ] || [ "$EK_ONLY" = EK270 ] && read_model 2701 EK270 ek270 bar 3
[ -z "${EK_ONLY:-}" ] || [ "$EK_ONLY" = EK260 ] && read_model 2601 EK260 ek260 kPa 4
[ -z "${EK_ONLY:-}" ] || [ "$EK_ONLY" = TC220 ] && read_model 2201 TC220 tc220 bar 5

echo "e2e ek_read: $FAILURES failure(s)"
[ "$FAILURES" = 0 ]
