# SPDX-License-Identifier: Apache-2.0
# The SPG761 part of scripts/bench.sh (sourced there, after its helpers): a
# timed first read of an SPG761.1 over SPbus at 9600 Bd against mtd_spbussim
# with a week of history and its line timing on. The daemon's first read walks
# 15 days of hourly and 62 days of daily slices back (one request each; those
# before the meter's history answer "no data") and reads the journal. SPbus
# asks for no pause between requests; the simulator takes 30 ms to answer,
# as a meter thinks, so the figures are given against the bytes alone and
# against the bytes plus that answer time. The simulator paces only what it
# sends (the daemon's requests reach it at once over the pseudo-terminal), so
# the bytes time is that of the replies; the requests' bytes are given apart.
# io_of PID FIELD: rchar or wchar of the process
io_of() { awk -v k="$2:" '$1 == k {print $2}' /proc/"$1"/io; }

spg761_line() {
    local hist=7
    ((QUICK)) && hist=2
    local link="$WORK/spg761.tty" sim_pid
    start_bg "$WORK/spg761.sim" "$BUILD_DIR/mtd_spbussim" --link "$link" --model spg761.1 --archive-days "$hist" --seed 3
    sim_pid=$BG_PID
    wait_for "$WORK/spg761.sim" '^ready' 5 || { echo "bench.sh: mtd_spbussim did not start" >&2; return; }
    cat >"$WORK/spg761.json" <<JSON
{"meters": {"761": {"port_params": {"manufacturer": "spg761.1", "name": "$link", "speed": "9600", "timeout": "1000",
  "data_rate": "600", "serial": "76100042"}, "systems": ["1"]}}}
JSON
    start_hostsim "$WORK/spg761.json" "$WORK/spg761.rec" || return
    local r0 w0 r1 w1
    r0=$(io_of "$sim_pid" rchar)
    w0=$(io_of "$sim_pid" wchar)
    start_daemon spg761 7 761
    if ! wait_count "$LOG" 'CmtdSPG761::cycle_end\(\) - line left idle' 1 900; then
        echo "bench.sh: the SPG761 first read did not finish" >&2
        stop_pid "$PID"; stop_pid "$sim_pid"; stop_pid "$HOSTSIM_PID"
        return
    fi
    r1=$(io_of "$sim_pid" rchar)
    w1=$(io_of "$sim_pid" wchar)
    cp "$LOG" "$BUILD_DIR/bench-spg761-first-run.log"
    local sends first_send last_recv measured bytes ideal answer
    sends=$(count_in "$LOG" "CSpNet::SendRequest\('[^']*'\): Send: <DLE><SOH>")
    first_send=$(log_seconds "$(grep -m1 -E "CSpNet::SendRequest\('[^']*'\): Send: " "$LOG")")
    last_recv=$(log_seconds "$(grep -E "CSpNet::SendRequest\('[^']*'\): Recv: " "$LOG" | tail -1)")
    measured=$(calc "$last_recv - $first_send + ($last_recv < $first_send ? 86400 : 0)" 3)
    bytes=$((w1 - w0))
    ideal=$(calc "$bytes * 10 / 9600" 3)
    answer=$(calc "$sends * 0.03" 3)
    put spg761_line baud 9600
    put spg761_line history_days "$hist"
    put spg761_line requests "$sends"
    put spg761_line reply_bytes "$bytes"
    put spg761_line request_bytes "$((r1 - r0))"
    put spg761_line bytes_time_s "$ideal"
    put spg761_line meter_answer_time_s "$answer"
    put spg761_line measured_s "$measured"
    put spg761_line efficiency "$(calc "$ideal / $measured" 3)"
    put spg761_line efficiency_vs_answer_time "$(calc "($ideal + $answer) / $measured" 3)"
    put spg761_line records_stored "$(cat /mnt/storage/761/*/*/*.jsonl 2>/dev/null | wc -l)"
    echo "SPG761 line efficiency (bytes time / measured): $(calc "$ideal / $measured" 2)"
    stop_pid "$PID"
    stop_pid "$sim_pid"
    stop_pid "$HOSTSIM_PID"
}
