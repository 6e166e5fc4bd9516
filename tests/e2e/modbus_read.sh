#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Modbus RTU meters from register-map templates, the real mtd_main against
# mtd_modbussim (real line timing):
#   flow     the example template (words high first): values with the daemon's
#            units, clock and serial read, the meter's hourly archive stored
#            once, daily records made by the daemon; in the same process a
#            meter with a bad template: one Error line, never polled
#   swapped  a template with words low first, on a slave that refuses one
#            register (02) and is busy (06) now and then: the other values
#            still come, hourly and daily records made by the daemon, once
#            each, also across a restart, with a visible gap while it was down
#   noisy    the example template on a line with seeded faults
#   modbus_read.sh BUILD_DIR
. "$(dirname "$0")/lib.sh"
e2e_case "$@"
SIM="$BUILD_DIR/mtd_modbussim"
SRC="$E2E_SOURCE_DIR"

mkdir -p "$WORK/tpl"
cp "$SRC/drivers/modbus/templates/example-flow.json" "$SRC/tests/data/modbus/swapped-meter.json" "$WORK/tpl/"
# A template with a misspelt format: refused as a whole.
sed 's/"format": "float32", "unit": "grad"/"format": "flaot32", "unit": "grad"/' \
    "$SRC/drivers/modbus/templates/example-flow.json" >"$WORK/tpl/broken.json"

# The meters' clocks 30 hours behind the wall clock, running 360 s a second:
# half an hour of the meter's time between two cycles (5 s, the main loop's
# step), and the wall clock stays ahead for five minutes.
dev=$(ek_device_start 30)
rate=$(( (dev / 3600 + 3) % 24 ))  # the contract hour comes about 30 s into the case

entry() {  # ID MODEL TTY SERIAL
    printf '"%s": {"port_params": {"manufacturer": "modbus:%s", "protocol": "modbus", "name": "%s", ' "$1" "$2" "$3"
    printf '"speed": "115200", "timeout": "150", "serial": "%s", "template_dir": "%s/tpl/", ' "$4" "$WORK"
    printf '"pu_TZ": "0", "rate_hour": "%s", "data_rate": "2"}, "systems": ["1"]}' "$rate"
}
printf '{"meters": {%s, %s, %s, %s}}\n' \
    "$(entry 2601 example-flow "$WORK/flow.tty" 2601)" \
    "$(entry 2602 broken "$WORK/flow.tty" 2602)" \
    "$(entry 2603 swapped-meter "$WORK/swapped.tty" SW2603)" \
    "$(entry 2604 example-flow "$WORK/noisy.tty" 2604)" >"$WORK/host.json"
start_hostsim "$WORK/host.json" "$WORK/rec" || exit 1

common=(--now "$dev" --clock-scale 360 --baud 115200 --rate-hour "$rate")
start_bg "$WORK/flow.sim" "$SIM" --template "$WORK/tpl/example-flow.json" --link "$WORK/flow.tty" \
    --serial 2601 "${common[@]}"
start_bg "$WORK/swapped.sim" "$SIM" --template "$WORK/tpl/swapped-meter.json" --link "$WORK/swapped.tty" \
    --serial SW2603 --refuse 1010 --busy-every 9 "${common[@]}"
start_bg "$WORK/noisy.sim" "$SIM" --template "$WORK/tpl/example-flow.json" --link "$WORK/noisy.tty" \
    --serial 2604 --fault-share 0.08 --fault-seed 26 "${common[@]}"
noisy_sim=$BG_PID
for s in flow swapped noisy; do
    wait_for "$WORK/$s.sim" '^ready' 5 || { echo "modbussim did not start"; cat "$WORK/$s.sim"; exit 1; }
done

start_bg "$WORK/flow.log" "$MTD_MAIN" -e -v 6 -i 2601 -i 2602
flow_pid=$BG_PID
start_bg "$WORK/swapped.log" "$MTD_MAIN" -e -v 6 -i 2603
swapped_pid=$BG_PID
start_bg "$WORK/noisy.log" "$MTD_MAIN" -e -v 6 -i 2604

# Hourly records of the meter's archive, then two daemon-made hours of the swapped meter.
wait_count "$WORK/flow.log" 'CMtdBaseDriver::functionThread end all current values' 3 60
wait_count "$WORK/swapped.log" 'hourly record [0-9]+ made' 3 60

# The swapped meter's daemon stops for about two meter hours, then comes back.
stop_pid "$swapped_pid"
sleep 20
start_bg "$WORK/swapped2.log" "$MTD_MAIN" -e -v 6 -i 2603
wait_count "$WORK/swapped2.log" 'hourly record [0-9]+ made' 2 60
wait_for "$WORK/flow.log" 'daily record [0-9]+ made' 120
wait_count "$WORK/noisy.log" 'CMtdBaseDriver::functionThread end all current values' 4 90
sleep 6
stop_pid "$noisy_sim"  # it prints its fault summary when it ends
stop_started

check "bad template: one Error line naming file and member" \
    test "$(grep -c 'BAD TEMPLATE .*broken.json: values\[3\].format: unknown value' "$WORK/flow.log")" = 1
check "bad template: never polled" bash -c "! grep -q '\[2602\]\[CmtdModbusTemplate\] Modbus template driver version' '$WORK/flow.log'"
check "bad template: the other meter's cycles go on" \
    test "$(grep -c 'end all current values' "$WORK/flow.log")" -ge 3

{ echo "$CURRENT_PY"; cat <<'PY'; } | python3 - "$WORK/rec" "$dev" || FAILURES=$((FAILURES + 1))
rec, dev = sys.argv[1], int(sys.argv[2])
pub = {}
for params in puts(rec):
    values = {v["name"]: v for v in params}
    # The requests do not name the meter; the value names tell the templates apart.
    meter = "2603" if "Qw" in values else "2601"
    pub.setdefault(meter, {}).update(values)
ok = True
def want(meter, name, dim):
    global ok
    v = pub.get(meter, {}).get(name)
    if v is None or v["dim"] != dim:
        print("published", meter, name, "wrong:", v); ok = False
want("2601", "Vstd", "m3"); want("2601", "P", "kgs/sm2 (atm)"); want("2601", "Alarm", "")
want("2603", "Vstd", "m3"); want("2603", "Qw", "m3/h"); want("2603", "P", "bar")
if "T" in pub.get("2603", {}):
    print("2603 T was refused by the meter yet published"); ok = False
# Low words first: the model's total of value 0 is 1000 + 10/h since 1600000000.
v = float(pub["2603"]["Vstd"]["value"]); t = pub["2603"]["Vstd"]["timestamp"]
model = 1000 + 10 * (t - 1600000000) / 3600.0
if abs(v - model) > 1:
    print("2603 Vstd", v, "is not the meter's", model); ok = False
v = float(pub["2601"]["Vstd"]["value"]); t = pub["2601"]["Vstd"]["timestamp"]
if abs(v - (1000 + 10 * (t - 1600000000) / 3600.0)) > 1:
    print("2601 Vstd", v, "is not the meter's"); ok = False
print("published values", "ok" if ok else "WRONG")
sys.exit(0 if ok else 1)
PY

python3 - /mnt/storage "$dev" "$rate" <<'PY' || FAILURES=$((FAILURES + 1))
import glob, json, sys
root, dev, rate = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
def records(meter, kind):
    out = []
    for f in sorted(glob.glob("%s/%s/1/**/%s-*.jsonl" % (root, meter, kind), recursive=True)):
        out += [json.loads(l) for l in open(f)]
    return out
ok = True
def fail(*a):
    global ok
    print(*a); ok = False
# The meter's own hourly archive: every hour once, in order, the meter's values.
h = records("2601", "Hourly_JSONRPC")
ts = [r["timestamp"] for r in h]
if len(ts) < 24 or ts != sorted(set(ts)) or any(b - a != 3600 for a, b in zip(ts, ts[1:])):
    fail("2601 hourly: not every hour once", len(ts))
for r in h:
    if r["fields"].get("source") != "meter" or abs(float(r["fields"]["Vstd"]) - (1000 + 10 * (r["timestamp"] - 1600000000) / 3600.0)) > 0.02:
        fail("2601 hourly record wrong", r); break
# Daily records the daemon made: at the contract hour, once.
d = records("2601", "Daily_JSONRPC")
if not d or any(r["fields"].get("source") != "daemon" or (r["timestamp"] // 3600) % 24 != rate for r in d):
    fail("2601 daily records made by the daemon wrong", d)
# The swapped meter: hourly records by the daemon, each once, read within its hour,
# with a gap while the daemon was stopped.
h = records("2603", "Hourly_JSONRPC")
ts = [r["timestamp"] for r in h]
if len(ts) < 4 or ts != sorted(set(ts)):
    fail("2603 hourly: duplicates or out of order", ts)
for r in h:
    f = r["fields"]
    at = int(f.get("read_at", 0))
    if f.get("source") != "daemon" or not (r["timestamp"] <= at < r["timestamp"] + 3600) or "Vw" not in f:
        fail("2603 record wrong", r); break
    if abs(float(f["Vstd"]) - (1000 + 10 * (at - 1600000000) / 3600.0)) > 3:
        fail("2603 record total is not the meter's at read_at", r); break
if not any(b - a > 3600 for a, b in zip(ts, ts[1:])):
    fail("2603 hourly: no gap while the daemon was stopped", ts)
n = records("2604", "Hourly_JSONRPC")
ts = [r["timestamp"] for r in n]
if len(ts) < 24 or ts != sorted(set(ts)):
    fail("2604 hourly on the noisy line: not each once", len(ts))
print("archives", "ok" if ok else "WRONG")
sys.exit(0 if ok else 1)
PY
check "noisy line: the simulator damaged answers" grep -Eq 'changed_byte=[1-9]|truncated=[1-9]|no_answer=[1-9]' "$WORK/noisy.sim"
check "swapped: refused register logged" grep -q 'REFUSED, EXCEPTION 02' "$WORK/swapped.log"
check "swapped: busy asked again" grep -q 'slave busy, asked again' "$WORK/swapped.log"

echo "modbus_read: $FAILURES failure(s)"
exit $((FAILURES > 0))
