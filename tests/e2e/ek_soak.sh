#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Soak on a bad line: EK270 simulators (one per seed) damage a share of their
# answers, one fault each (changed bytes anywhere, lost end bytes, truncated
# or lost answers, late check bytes, noise, requests the line garbled), with
# real line timing. Each meter's daemon is killed with SIGKILL twice during its
# archive reads and runs on for several cycles. Then, per archive: no record
# stored twice, no hole, every field the meter's, the daemon caught up; and no
# published current value differs from the meter's. Every process is checked
# to end as it should: a daemon only by our SIGKILL (137) or the final SIGINT
# (0), the simulators with 0; a sanitizer's halt (66) or a crash shows as such,
# and a failed run keeps its files (see keep_work in lib.sh).
#   ek_soak.sh BUILD_DIR [SEEDS [CYCLES [SHARE]]]
SEEDS=${2:-"11 12 13"}
CYCLES=${3:-3}
SHARE=${4:-0.08}
. "$(dirname "$0")/lib.sh"
e2e_case "$@"

# 30 hours behind the wall clock at 360 times: the meter gains an hour every
# 10 s, so every cycle finds a new hourly record and journal entries come
# every minute or so; one day of history keeps the first read short.
DEV=$(ek_device_start 30)
VALUES=(--value 2:300.0=123456.7891 --value 4:300.0=100001.5 --value 2:302.0=123469.2891 --value 4:302.0=100008.97
        --value 6:210.0=1.234 --value 7:314_1.0=1.01325 --value 6:310_1.0=-3.25 --value 11:314.0=0.612)
CURRENT=(Vstd=123456.7891 Vw=100001.5 Vstd.sum=123469.2891 Vw.sum=100008.97 Vstd.crash=12.5000 Vw.crash=7.4700
         T=-3.25 P=1.234 Kcorr=1.6734 Kcomp=1.0023 PassT=20.00 PassP=1.01325 PassCO2=0.612 PassH2=0.000
         PassN2=0.900 PassS=0.6800)
declare -A pid sim_pid
entries=()
for seed in $SEEDS; do
    entries+=("$(ek_meter "3$seed" "$WORK/$seed.tty" 5)")
done
(IFS=,; printf '{"meters": {%s}}\n' "${entries[*]}") >"$WORK/host.json"
start_hostsim "$WORK/host.json" "$WORK/rec" || exit 1

sim_args() { echo --now "$DEV" --archive-days 1 --seed "$1" --model EK270 --clock-scale 360; }
for seed in $SEEDS; do
    # shellcheck disable=SC2046
    start_metersim "$WORK/$seed.sim" --link "$WORK/$seed.tty" --max-speed 6 $(sim_args "$seed") "${VALUES[@]}" \
        --fault-share "$SHARE" --fault-seed "$seed" || exit 1
    sim_pid[$seed]=$METERSIM_PID
done

run_daemon() {  # SEED
    start_bg "$WORK/$1.run" "$MTD_MAIN" -e -v 7 -i "3$1"
    pid[$1]=$BG_PID
}
# Kill in the middle of an archive read: after a few more of its blocks. A
# daemon is always killed, never left running beside the next one.
kill_in_archive() {  # SEED
    local seed=$1 n
    n=$(count_in "$WORK/$seed.run" "Send: <ACK>$")
    wait_count "$WORK/$seed.run" "Send: <ACK>$" $((n + 2 + RANDOM % 5)) 40 ||
        wait_for "$WORK/$seed.run" 'get_arch_values\(' 20
    kill -KILL "${pid[$seed]}" 2>/dev/null
    if grep -q 'get_arch_values(' "$WORK/$seed.run" && ! grep -q 'cycle_end() - session closed' "$WORK/$seed.run"; then
        echo "killed in the archive reads" >>"$WORK/$seed.kills"
    fi
    { cat "$WORK/$seed.run"; echo "=== killed"; } >>"$WORK/$seed.log"
}

RANDOM=${MTD_FAULT_SEED:-4711}
for seed in $SEEDS; do run_daemon "$seed"; done
for round in 1 2; do
    # All meters at once: a meter waiting for its turn would finish its reads.
    killers=()
    for seed in $SEEDS; do
        kill_in_archive "$seed" &
        killers+=($!)
    done
    wait "${killers[@]}"
    for seed in $SEEDS; do  # gone before the next one starts, and by our SIGKILL, not on its own
        wait "${pid[$seed]}" 2>/dev/null
        status=$?
        check "$seed: round $round: the daemon ran until killed (status $status)" test "$status" = 137
    done
    for seed in $SEEDS; do
        check "$seed: round $round: simulator alive" kill -0 "${sim_pid[$seed]}"
        run_daemon "$seed"
    done
done
for seed in $SEEDS; do
    check "$seed: $CYCLES cycles after the restarts" \
        wait_count "$WORK/$seed.run" 'cycle_end\(\) - session closed' "$CYCLES" $((30 + 15 * CYCLES))
done
for seed in $SEEDS; do
    kill -INT "${pid[$seed]}"
    check "$seed: daemon stops" wait_exit "${pid[$seed]}" 10
    check "$seed: daemon's exit status 0 (${EXIT_STATUS:-running})" test "${EXIT_STATUS:-x}" = 0
    cat "$WORK/$seed.run" >>"$WORK/$seed.log"
done
for seed in $SEEDS; do
    check "$seed: two kills landed in archive reads" test "$(cat "$WORK/$seed.kills" 2>/dev/null | wc -l)" = 2
    # shellcheck disable=SC2046
    check "$seed: archives whole, once, the meter's" ek_check_soak "$WORK/$seed.log" "3$seed" EK270 $(sim_args "$seed")
done
check "current values are the meter's" ek_check_current_every "$WORK/rec" bar "${CURRENT[@]}"
# What the line did, per seed and in all ("faults exchanges=N changed_byte=N ..." on the simulator's exit).
for seed in $SEEDS; do
    kill -TERM "${sim_pid[$seed]}" 2>/dev/null
    check "$seed: simulator stops" wait_exit "${sim_pid[$seed]}" 10
    check "$seed: simulator's exit status 0 (${EXIT_STATUS:-running})" test "${EXIT_STATUS:-x}" = 0
    echo "seed $seed: $(grep '^faults ' "$WORK/$seed.sim" | tail -1)"
done
check "host simulator alive to the end" kill -0 "$HOSTSIM_PID"
cat "$WORK"/*.sim | grep '^faults ' | tr ' =' '\n\n' | awk '
    /^[a-z_]+$/ { k = $0; next } k != "" && /^[0-9]+$/ { sum[k] += $0; k = "" }
    END { damaged = 0; for (k in sum) if (k != "exchanges") damaged += sum[k]
          printf "all seeds: exchanges=%d damaged=%d (%.1f %%)", sum["exchanges"], damaged, 100 * damaged / (sum["exchanges"] ? sum["exchanges"] : 1)
          for (k in sum) if (k != "exchanges") printf " %s=%d", k, sum[k]; print "" }' | tee "$WORK/faults"
check "at least 5 % of the exchanges damaged" awk '{ split($3, d, "="); split($2, e, "="); exit !(d[2] * 20 >= e[2]) }' "$WORK/faults"

echo "e2e ek_soak: $FAILURES failure(s)"
[ "$FAILURES" = 0 ]
