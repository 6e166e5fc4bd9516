# SPDX-License-Identifier: Apache-2.0
# Helpers for end-to-end runs of the real mtd_main. Source this file inside a
# private namespace (see run.sh): the simulators then use the real ports
# 8082/4665 and the daemon the real /tmp and /mnt/storage, all private.
#
#   e2e_case "$@"                first line of a case: re-runs the script inside
#                                `unshare -rmn`, enters the namespace, cleans up on exit
#   e2e_case_two_users "$@"      the same with a real second user at hand (as_other_user)
#   e2e_enter_ns                 bring up lo, tmpfs over /tmp and /mnt/storage (a checkout
#                                or build folder below them stays in view)
#   start_hostsim CONFIG RECORD  run mtd_hostsim with a config file, record requests
#   wait_for FILE REGEX [SECS]   true once FILE has a line matching REGEX
#   count_in FILE REGEX          matching lines
#   wait_count FILE REGEX N [SECS] true once FILE has N matching lines
#   wait_exit PID [SECS]         sets EXIT_STATUS; false when still running
#   check NAME COND...           runs COND, counts a failure with NAME
#   stop_started                 ends every process started through these helpers
#   keep_work                    copies the case's files to $MTD_E2E_KEEP (when set, or below
#                                $BUILD_DIR/e2e-failed/ when the case failed) for a look after the run
#
# A driver case adds its own meter simulator with start_bg and a config whose
# "port_params" "name" is the simulator's pseudo-terminal.

# A case script is run as `<case>.sh BUILD_DIR [its own arguments]` and sources
# this file first; a caller that sources it for its helpers sets BUILD_DIR itself.
set -uo pipefail
export BUILD_DIR=${BUILD_DIR:-${1:?usage: $0 BUILD_DIR}}
MTD_MAIN="$BUILD_DIR/mtd_main"
# Physical paths of the checkout and the build folder, to keep them in view in the namespace.
E2E_SOURCE_DIR=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd -P)
E2E_BUILD_DIR=$(cd "$BUILD_DIR" && pwd -P)
HOSTSIM="$BUILD_DIR/mtd_hostsim"
FAILURES=0
STARTED_PIDS=()

e2e_case() {
    if [ -z "${MTD_E2E_IN_NS:-}" ]; then
        MTD_E2E_IN_NS=1 exec unshare -rmn "$0" "$@"
    fi
    e2e_enter_ns
    trap 'stop_started; keep_work' EXIT
}

# e2e_case_two_users "$@": like e2e_case, for a case that needs a second, real
# unprivileged user (65534) next to the daemon's root. A user namespace maps
# one id without newuidmap, so this runs as the machine's root (as the CI
# does) in private mount and network namespaces only; otherwise it skips (77).
E2E_OTHER_UID=65534
e2e_case_two_users() {
    if [ -z "${MTD_E2E_IN_NS:-}" ]; then
        if [ "$(id -u)" != 0 ]; then
            echo "skip: a second user needs the machine's root (unshare -mn, setpriv)"
            exit 77
        fi
        MTD_E2E_IN_NS=1 exec unshare -mn "$0" "$@"
    fi
    e2e_enter_ns
    trap 'stop_started; keep_work' EXIT
}

e2e_enter_ns() {
    ip link set lo up
    e2e_private_mount /tmp
    # /mnt/storage is made inside the private /mnt when the machine has none:
    # nothing is created on the real disk.
    if [ -d /mnt/storage ]; then
        e2e_private_mount /mnt/storage
    else
        e2e_private_mount /mnt
        mkdir /mnt/storage
    fi
    WORK=$(mktemp -d /tmp/e2e.XXXXXX)
}

# e2e_private_mount DIR: an empty tmpfs over DIR. The checkout and the build
# folder may lie below DIR (a clone under /tmp): those are bound back at the same
# path, reached through a descriptor opened on DIR before the mount hid it.
e2e_private_mount() {
    local dir=$1 fd p
    exec {fd}<"$dir"
    mount -t tmpfs tmpfs "$dir"
    for p in "$E2E_SOURCE_DIR" "$E2E_BUILD_DIR"; do
        case $p in "$dir"/*) ;; *) continue ;; esac
        [ -e "$p" ] && continue  # already back with the folder that holds it
        mkdir -p "$p"
        # --no-canonicalize: the path must be followed through the descriptor, not
        # resolved to its name, which now lies in the new tmpfs
        mount --no-canonicalize --rbind "/proc/$$/fd/$fd/${p#"$dir"/}" "$p"
    done
    exec {fd}<&-
}

# as_other_user CMD ARGS... : CMD as the unprivileged second user (e2e_case_two_users).
as_other_user() {
    setpriv --reuid="$E2E_OTHER_UID" --regid="$E2E_OTHER_UID" --clear-groups "$@"
}

# start_bg OUTFILE CMD ARGS... : runs CMD in the background, sets BG_PID.
start_bg() {
    local out=$1
    shift
    : >"$out"  # now, not in the background job: a waiter must not see old lines
    "$@" >>"$out" 2>&1 &
    BG_PID=$!
    STARTED_PIDS+=("$BG_PID")
}

wait_for() {
    local file=$1 regex=$2 secs=${3:-8}
    local deadline=$((SECONDS + secs))
    while ((SECONDS <= deadline)); do
        grep -Eq -- "$regex" "$file" 2>/dev/null && return 0
        sleep 0.05
    done
    return 1
}

count_in() { grep -Ec -- "$2" "$1" 2>/dev/null || true; }

# wait_count FILE REGEX N [SECS]: true once FILE has at least N matching lines.
wait_count() {
    local file=$1 regex=$2 n=$3 secs=${4:-8}
    local deadline=$((SECONDS + secs))
    while ((SECONDS <= deadline)); do
        (($(count_in "$file" "$regex") >= n)) && return 0
        sleep 0.05
    done
    return 1
}

start_hostsim() {
    local config=$1 record=$2
    : >"$record"
    start_bg "$WORK/hostsim.out" "$HOSTSIM" --config "$config" --record "$record"
    HOSTSIM_PID=$BG_PID
    wait_for "$WORK/hostsim.out" '^ready' 5 || { echo "hostsim did not start"; cat "$WORK/hostsim.out"; return 1; }
}

stop_pid() {
    kill -TERM "$1" 2>/dev/null || true
    wait "$1" 2>/dev/null || true
}

wait_exit() {
    local pid=$1 secs=${2:-8}
    local deadline=$((SECONDS + secs))
    while ((SECONDS <= deadline)); do
        if ! kill -0 "$pid" 2>/dev/null; then
            wait "$pid"
            EXIT_STATUS=$?
            return 0
        fi
        sleep 0.05
    done
    EXIT_STATUS=
    return 1
}

# The EK driver's last line of a cycle (after the archives, the session closed).
EK_CYCLE_END='cycle_end\(\) - session closed'

# e2e_private_etc: a private, empty /etc/mtd_main for the units' line files; the
# rest of /etc is a tmpfs of links to the real entries, which stay untouched.
e2e_private_etc() {
    local entry
    mkdir "$WORK/etc.real"
    mount --rbind /etc "$WORK/etc.real"
    mount -t tmpfs tmpfs /etc
    for entry in "$WORK"/etc.real/* "$WORK"/etc.real/.[!.]*; do
        [ -e "$entry" ] || [ -L "$entry" ] || continue
        [ "${entry##*/}" = mtd_main ] || ln -s "$entry" "/etc/${entry##*/}"
    done
    mkdir /etc/mtd_main
}

# start_line LINE OUTFILE: runs the ExecStart of mtd_main@LINE.service (the starter
# taken from the checkout, the daemon from the build); sets BG_PID.
start_line() {
    local cmd
    cmd=$(sed -n 's/^ExecStart=//p' "$E2E_SOURCE_DIR/packaging/mtd_main@.service")
    cmd=${cmd//%i/$1}
    cmd=${cmd//\/usr\/libexec\/mtd_main\//$E2E_SOURCE_DIR/packaging/}
    # shellcheck disable=SC2086  # split into words as systemd does
    start_bg "$2" env MTD_MAIN_BIN="$MTD_MAIN" $cmd
}

check() {
    local name=$1
    shift
    if "$@"; then
        echo "ok   $name"
    else
        echo "FAIL $name"
        FAILURES=$((FAILURES + 1))
    fi
}

stop_started() {
    local pid
    for pid in "${STARTED_PIDS[@]}"; do
        kill -KILL "$pid" 2>/dev/null || true
        wait "$pid" 2>/dev/null || true
    done
    STARTED_PIDS=()
}

keep_work() {
    # A failed case keeps its files anyway, below the build folder (which
    # outlives the namespace): a rare failure must not vanish with its logs.
    if [ -z "${MTD_E2E_KEEP:-}" ] && [ "${FAILURES:-0}" -gt 0 ]; then
        MTD_E2E_KEEP="$E2E_BUILD_DIR/e2e-failed/$(basename "$0" .sh).$(date +%Y%m%d-%H%M%S).$$"
        echo "files of the failed case kept in $MTD_E2E_KEEP"
    fi
    [ -n "${MTD_E2E_KEEP:-}" ] || return 0
    mkdir -p "$MTD_E2E_KEEP" && cp -r "$WORK" /mnt/storage "$MTD_E2E_KEEP/" 2>/dev/null
    return 0
}

# A host-service configuration: meter ids, each with the model string given.
# write_config FILE MODEL ID...
write_config() {
    local file=$1 model=$2
    shift 2
    local sep="" id
    {
        printf '{"meters": {'
        for id in "$@"; do
            printf '%s"%s": {"port_params": {"manufacturer": "%s", "name": "/dev/ptmx", "speed": "9600", "timeout": "200"}, "systems": ["1"]}' \
                "$sep" "$id" "$model"
            sep=", "
        done
        printf '}}\n'
    } >"$file"
}

# ---- volume-corrector cases (ek_*.sh) ----
METERSIM="$BUILD_DIR/mtd_metersim"

# start_metersim OUTFILE ARGS... : mtd_metersim in the background until it is
# ready; sets METERSIM_PID. Pass --link to give the daemon a fixed port name.
start_metersim() {
    local out=$1
    shift
    start_bg "$out" "$METERSIM" "$@"
    METERSIM_PID=$BG_PID
    wait_for "$out" '^ready' 5 || { echo "metersim did not start"; cat "$out"; return 1; }
}

# ek_meter ID LINK [DATA_RATE] : the "get_config" entry of one EK270 on LINK, as JSON member text.
ek_meter() {
    local id=$1 link=$2 rate=${3:-5}
    printf '"%s": {"port_params": {"manufacturer": "ek270", "name": "%s", "speed": "9600", ' "$id" "$link"
    printf '"data": "7", "parity": "E", "stop": "1", "timeout": "300", "serial": "12345678", '
    printf '"password1": "00000000", "password2": "11111111", "data_rate": "%s"}, "systems": ["1"]}' "$rate"
}

# write_ek_config FILE ID LINK [DATA_RATE] : host-service configuration of one EK270 on LINK.
write_ek_config() {
    local file=$1
    shift
    printf '{"meters": {%s}}\n' "$(ek_meter "$@")" >"$file"
}

# stored_times ID KIND : timestamps of every stored record of KIND ("Hourly_JSONRPC", ...)
# of meter ID, released or not, sorted, one per line (repeats kept).
stored_times() {
    find "/mnt/storage/$1" -name "$2-*.jsonl" -exec cat {} + 2>/dev/null |
        grep -o '"timestamp":[0-9]*' | cut -d: -f2 | sort -n
}

# series_whole ID KIND STEP MIN : true when the stored records of KIND hold at least
# MIN records, no timestamp twice and no step other than STEP seconds between them.
series_whole() {
    stored_times "$1" "$2" | awk -v step="$3" -v min="$4" '
        NR > 1 && $1 == prev { print "duplicate " $1; bad = 1 }
        NR > 1 && $1 != prev && $1 - prev != step { print "gap " prev " -> " $1; bad = 1 }
        { prev = $1; n++ }
        END { if (n < min) { print n " records, want " min; bad = 1 } exit bad }'
}

# stored_in_cycle LOG END_REGEX N KIND : true when the daemon's log shows a
# batch of KIND ("Hourly_JSONRPC", ...) stored in the cycle after the N-th line
# matching END_REGEX (a cycle's last line), up to the next one. Told by the
# log, not by counting files, which races a cycle already under way.
stored_in_cycle() {
    END_REGEX=$2 awk -v n="$3" -v kind="$4" '
        $0 ~ ENVIRON["END_REGEX"] { if (++seen > n) exit }
        seen == n && $0 ~ "StoreRecords [0-9]+ records stored in \\[" kind "-" { found = 1 }
        END { exit !found }' "$1"
}

# wait_until SECS CMD ARGS... : true once CMD succeeds, polled every 0.2 s.
wait_until() {
    local secs=$1
    shift
    local deadline=$((SECONDS + secs))
    while ((SECONDS <= deadline)); do
        "$@" && return 0
        sleep 0.2
    done
    return 1
}

# ---- models, current values and archives of the volume correctors (ek_read.sh, ek_recover.sh, ek_faults.sh) ----

# write_ek_model_config FILE ID MANUFACTURER LINK [SERIAL [DATA_RATE]]: a
# host-service configuration with one volume corrector of any model on LINK.
write_ek_model_config() {
    local file=$1 id=$2 model=$3 link=$4 serial=${5:-12345678} rate=${6:-600}
    cat >"$file" <<JSON
{"meters": {"$id": {"port_params": {"manufacturer": "$model", "name": "$link", "speed": "9600",
  "data": "7", "parity": "E", "stop": "1", "timeout": "300", "serial": "$serial",
  "password1": "00000000", "password2": "11111111", "data_rate": "$rate"}, "systems": ["1"]}}}
JSON
}

# ek_device_start [HOURS]: a device clock for the simulator, half past an hour,
# HOURS (10) hours behind the wall clock, so the daemon (which schedules by the
# wall clock) finds every interval closed and the meter's clock does not
# overtake it during a case. At --clock-scale 720 the meter gains 12 hours a
# minute: such a case starts 30 hours behind, which lasts 150 s however slow a
# loaded machine runs it. A meter ahead of the wall clock is read only up to
# the wall clock's hour, and its next cycles find nothing new.
ek_device_start() {
    local now
    now=$(date +%s)
    echo $((now - now % 3600 - ${1:-10} * 3600 + 1800))
}

# Python for the archive checks: whole_reads_asked(LOG) gives, per archive, the
# device time up to which the newest read that ended whole asked the meter:
# its "end_dt = curr_dt" time cut to the whole hour. A read ends whole when
# the next archive read or the end of the cycle follows; a broken transfer, a
# refused request, a cycle cut by an error, a stop signal or a kill ("=== killed"
# in LOG) leave it out. stored_records(ROOT) gives the records stored below
# ROOT, per archive name.
EK_READ_ENDS_PY='
import glob, json, re
def stored_records(root):
    stored = {}
    for path in glob.glob(root + "/**/*.jsonl", recursive=True):
        for line in open(path):
            rec = json.loads(line)
            stored.setdefault(rec["archive"], []).append(rec)
    return stored
def whole_reads_asked(log):
    asked, kind, end = {}, None, None
    for line in open(log, errors="replace"):
        m = re.search(r"get_arch_values\((\w+)\) ---", line)
        ends_whole = m or "cycle_end()" in line
        if kind and end is not None and ends_whole:
            asked[kind] = max(asked.get(kind, 0), end - end % 3600)
        if m:
            kind, end = m.group(1), None
            continue
        if ends_whole or re.search(r"TRANSFER BROKEN|TRANSFER STOPPED|CAN.T SEND|CAN.T READ|DOESN.T MATCH|"
                                   r"disconnecting|System signal number|stop requested|^=== killed", line):
            kind, end = None, None
            continue
        m = re.search(r"end_dt = curr_dt because end_dt > curr_dt = (\d+)", line)
        if m and kind:
            end = int(m.group(1))
    return asked
'

# ek_check_archives LOG ID MODEL SIMARGS... : the archives stored for meter ID
# under /mnt/storage are exactly the simulator's records, every timestamp
# once, in order, with the meter's field values under the driver's field
# names, up to the newest stored record and at least up to what the last whole
# read asked for. The archive request names whole hours, so a read that ended
# at device time 10:37 (the daemon's "end_dt = curr_dt" line) asked up to
# 10:00: entries of the partial hour come with the next read. Only reads that
# ended whole count (not broken, not killed: "=== killed" in LOG marks a kill),
# and a cycle still running while this checks may have stored more.
# SIMARGS are the simulator's archive settings (--now, --archive-days, --seed,
# --model, ...), passed to mtd_metersim --dump-archive.
ek_check_archives() {
    local log=$1 id=$2 model=$3
    shift 3
    { echo "$EK_READ_ENDS_PY"; cat <<'PY'; } | python3 - "$log" "/mnt/storage/$id" "$model" "$METERSIM" "$@"
import glob, json, subprocess, sys
log, root, model, sim, simargs = sys.argv[1], sys.argv[2], sys.argv[3], sys.argv[4], sys.argv[5:]
tc = model.startswith("TC")
ek_interval = ["Npp", "ArchIdx", "DateTime", "Vstd", "Vstd.sum", "Vw.sum", "Kcomp", "Kcorr", "status 2",
               "status 4", "status 7", "status 6", "system status", "archiving reason", "check sum"]
tc_interval = ["Npp", "DateTime", "Vstd", "Vstd.sum", "Vw.sum", "Kcorr", "status 5", "status 6",
               "system status", "archiving reason", "check sum"]
events = ["Npp", "ArchIdx", "DateTime", "Event", "check sum", "event", "state", "intervention"]
kinds = {"Hourly_JSONRPC": (3, tc_interval if tc else ek_interval), "Journal_Event_JSONRPC": (4, events)}
if not tc:
    kinds["Daily_JSONRPC"] = (7, ek_interval)
asked = whole_reads_asked(log)
stored = stored_records(root)
bad = 0
for name, (number, fields) in kinds.items():
    if name not in asked:
        print("  %s: never read whole" % name)
        bad += 1
        continue
    got = sorted(stored.get(name, []), key=lambda r: r["timestamp"])
    have = [r["timestamp"] for r in got]
    upto = max(have[-1] if have else 0, asked[name])
    out = subprocess.run([sim] + simargs + ["--dump-archive", str(number), "--dump-until", str(upto)],
                         capture_output=True, text=True, check=True).stdout.split("\n")
    want = [(int(l.split(" ", 1)[0]), l.split(" ", 1)[1]) for l in out if l]
    if have != [t for t, _ in want]:
        missing = sorted(set(t for t, _ in want) - set(have))
        extra = sorted(set(have) - set(t for t, _ in want))
        dups = sorted(set(t for t in have if have.count(t) > 1))
        print("  %s: %d stored, %d expected up to %d; missing %s extra %s repeated %s"
              % (name, len(have), len(want), upto, missing[:5], extra[:5], dups[:5]))
        bad += 1
        continue
    for rec, (t, text) in zip(got, want):
        names = list(rec["fields"].keys())
        values = list(rec["fields"].values())
        n = len(fields) - (3 if name.startswith("Journal") else 0)
        if names != fields or "".join("(%s)" % v for v in values[:n]) != text:
            print("  %s: record %d differs: %s\n    meter: %s" % (name, t, json.dumps(rec["fields"]), text))
            bad += 1
            break
    print("  %s: %d records up to %d (a whole read asked up to %d)" % (name, len(have), upto, asked[name]))
sys.exit(1 if bad else 0)
PY
}

# check_archives LOG ID SIM KINDS MATCH [SIMARGS...] : the archives stored for
# meter ID under /mnt/storage are the simulator's records (SIM SIMARGS
# --dump-archive DUMP --dump-until T, one "TIMESTAMP TEXT" line a record) up to
# T: every timestamp once, in order, each record agreeing with the meter's.
#   KINDS  ARCHIVE=DUMP[=LABEL],... : the stored archive name, the simulator's
#          archive and the name the daemon's log gives the read (ARCHIVE).
#   MATCH  a Python expression over t (timestamp), f (stored fields, in order)
#          and m (the dump line after the timestamp); true when they agree.
#          Records of one second may be stored in any order.
# How far T reaches, from the variables:
#   ARCH_UNTIL  "log" (default): where each kind's last read ended; "cycle N":
#               where it ended by the Nth line matching ARCH_CYCLE; "stored":
#               the newest stored record (the read may have been cut short).
#   ARCH_END    regex (LABEL, time) of the line telling where a read ended;
#               default the daemon's "end_dt = curr_dt" line after the kind's
#               "get_arch_values(LABEL) ---" line.
#   ARCH_MIN    the fewest hourly records that must be there (0).
check_archives() {
    local log=$1 id=$2 sim=$3 kinds=$4 match=$5
    shift 5
    { echo "$EK_READ_ENDS_PY"; cat <<'PY'; } | python3 - "$log" "/mnt/storage/$id" "$sim" "$kinds" "$match" \
        "${ARCH_UNTIL:-log}" "${ARCH_CYCLE:-}" "${ARCH_END:-}" "${ARCH_MIN:-0}" "$@"
import glob, json, re, subprocess, sys
log, root, sim, kinds, match, until_mode, cycle_re, end_re, least = sys.argv[1:10]
simargs = sys.argv[10:]
specs = []
for item in kinds.split(","):
    parts = item.split("=")
    specs.append((parts[0], parts[1], parts[2] if len(parts) > 2 else parts[0]))
end, ends, label = {}, [], None
for line in open(log, errors="replace"):
    if end_re:
        m = re.search(end_re, line)
        if m:
            end[m.group(1)] = int(m.group(2))
    else:
        m = re.search(r"get_arch_values\((\w+)\) ---", line)
        if m:
            label = m.group(1)
        m = re.search(r"end_dt = curr_dt because end_dt > curr_dt = (\d+)", line)
        if m and label:
            end[label] = int(m.group(1))
    if cycle_re and re.search(cycle_re, line):
        ends.append(dict(end))
if until_mode.startswith("cycle"):
    n = int(until_mode.split()[1])
    end = ends[n - 1] if len(ends) >= n else {}
stored = stored_records(root)
MPA = 10.197162129787
bad = 0
for name, dump, lab in specs:
    got = sorted(stored.get(name, []), key=lambda r: r["timestamp"])
    if until_mode == "stored":
        if not got:
            print("  %s: nothing stored" % name); bad += 1; continue
        until = got[-1]["timestamp"]
    elif lab in end:
        until = end[lab]
        got = [r for r in got if r["timestamp"] <= until]
    else:
        print("  %s: never read" % name); bad += 1; continue
    out = subprocess.run([sim] + simargs + ["--dump-archive", dump, "--dump-until", str(until)],
                         capture_output=True, text=True, check=True).stdout.split("\n")
    want = [(int(l.split(" ", 1)[0]), l.split(" ", 1)[1] if " " in l else "") for l in out if l]
    have = [r["timestamp"] for r in got]
    if have != [t for t, _ in want]:
        print("  %s: %d stored, %d expected; missing %s extra %s repeated %s" % (name, len(have), len(want),
              sorted(set(t for t, _ in want) - set(have))[:5], sorted(set(have) - set(t for t, _ in want))[:5],
              sorted(set(t for t in have if have.count(t) > 1))[:5]))
        bad += 1; continue
    left = list(want)
    for rec in got:
        t, f = rec["timestamp"], rec["fields"]
        hit = next((i for i, (wt, m) in enumerate(left)
                    if wt == t and eval(match, dict(globals(), t=t, f=f, m=m))), None)
        if hit is None:
            print("  %s: record %d differs: %s\n    meter: %s" % (name, t, json.dumps(f),
                  [m for wt, m in left if wt == t])); bad += 1; break
        del left[hit]
    if name.startswith("Hourly") and len(have) < int(least):
        print("  %s: only %d records" % (name, len(have))); bad += 1
    print("  %s: %d records up to %d" % (name, len(have), until))
sys.exit(1 if bad else 0)
PY
}

# Python for the checks of published values: last_put(RECORD, length) gives the
# last put_all_current_values the host service got (of `length` values when
# given), or ends the check with "no put_all_current_values"; TO_KGF_CM2 turns
# a pressure unit of the meter into the published kgf/cm2.
CURRENT_PY='
import json, sys
TO_KGF_CM2 = {"bar": 1.0197162129779, "kPa": 0.01019716212978, "MPa": 10.197162129787, "atm": 1.0332274528}
def last_put(record, length=None):
    last = None
    for line in open(record):
        req = json.loads(line)
        if req.get("method") == "put_all_current_values" and (length is None or len(req["params"]) == length):
            last = req["params"]
    if last is None:
        sys.exit("  no put_all_current_values")
    return last
def report(bad):
    for b in bad:
        print("  " + b)
    sys.exit(1 if bad else 0)
def puts(record):
    """The values of every put_all_current_values in RECORD, oldest first."""
    for line in open(record):
        try:
            req = json.loads(line)
        except ValueError:
            continue
        if req.get("method") == "put_all_current_values":
            yield req.get("params")
'

# ek_check_current RECORD MODEL PRESSURE_UNIT NAME=VALUE... : the last
# put_all_current_values the host service got holds the model's current values
# in table order, each with its unit name, quality 192 and the meter's time;
# NAME=VALUE gives the meter's text (P and PassP in PRESSURE_UNIT, published in
# kgf/cm2). A name given as NAME=- must be absent.
ek_check_current() {
    { echo "$CURRENT_PY"; cat <<'PY'; } | python3 - "$@"
record, model, unit = sys.argv[1:4]
given = dict(a.split("=", 1) for a in sys.argv[4:])
to_at = TO_KGF_CM2[unit]
dims = {"DateTime": "", "Vstd": "m3", "Vw": "m3", "Vstd.crash": "m3", "Vw.crash": "m3", "Vstd.sum": "m3",
        "Vw.sum": "m3", "T": "grad", "P": "kgs/sm2 (atm)", "Kcorr": "", "Kcomp": "", "PassT": "grad",
        "PassP": "kgs/sm2 (atm)", "PassCO2": "procent", "PassH2": "procent", "PassN2": "procent", "PassS": "kg/m3"}
order = [n for n in dims if given.get(n) != "-"]
last = last_put(record)
bad = []
names = [v["name"] for v in last]
if names != order:
    bad.append("names %s, want %s" % (names, order))
for v in last:
    n = v["name"]
    if v["dim"] != dims.get(n) or v["quality"] != 192 or v["sys"] != "1" or v["timestamp"] != last[0]["timestamp"]:
        bad.append("%s: %s" % (n, json.dumps(v)))
    if n in given and given[n] != "-":
        if n in ("P", "PassP"):
            if abs(float(v["value"]) - float(given[n]) * to_at) > 5e-5:
                bad.append("%s = %s, want %s %s in kgf/cm2" % (n, v["value"], given[n], unit))
        elif v["value"] != given[n]:
            bad.append("%s = %s, want %s" % (n, v["value"], given[n]))
report(bad)
PY
}

# ---- a bad line over many cycles (ek_soak.sh, scripts/soak.sh) ----

# ek_check_soak LOG ID MODEL SIMARGS... : per archive of meter ID, the stored
# records are exactly the meter's from its first record up to the newest one
# stored (none twice, no hole, every field equal, journal entries that share a
# second included), and the daemon caught up: the newest stored record is the
# meter's newest up to the hour where the last unbroken read of that archive
# ended. LOG is every run's log in order, a line "=== killed" after a run killed.
ek_check_soak() {
    local log=$1 id=$2 model=$3
    shift 3
    { echo "$EK_READ_ENDS_PY"; cat <<'PY'; } | python3 - "$log" "/mnt/storage/$id" "$model" "$METERSIM" "$@"
import glob, json, subprocess, sys
log, root, model, sim, simargs = sys.argv[1], sys.argv[2], sys.argv[3], sys.argv[4], sys.argv[5:]
kinds = {"Hourly_JSONRPC": 3, "Daily_JSONRPC": 7, "Journal_Event_JSONRPC": 4}
if model.startswith("TC"):
    del kinds["Daily_JSONRPC"]
asked = whole_reads_asked(log)
stored = stored_records(root)
bad = 0
for name, number in kinds.items():
    got = stored.get(name, [])
    if not got or name not in asked:
        print("  %s: nothing stored or never read whole" % name)
        bad += 1
        continue
    newest = max(r["timestamp"] for r in got)
    upto = max(newest, asked[name])
    out = subprocess.run([sim] + simargs + ["--dump-archive", str(number), "--dump-until", str(upto)],
                         capture_output=True, text=True, check=True).stdout.split("\n")
    meter = sorted((int(l.split(" ", 1)[0]), l.split(" ", 1)[1]) for l in out if l)
    want = [m for m in meter if m[0] <= newest]
    n = 5 if name.startswith("Journal") else None
    have = sorted((r["timestamp"], "".join("(%s)" % v for v in list(r["fields"].values())[:n])) for r in got)
    if have != want:
        hs, ws = set(have), set(want)
        dups = sorted(set(h for h in have if have.count(h) > 1))
        print("  %s: %d stored, %d held by the meter; missing %s; not the meter's %s; twice %s"
              % (name, len(have), len(want), sorted(ws - hs)[:3], sorted(hs - ws)[:3], dups[:3]))
        bad += 1
    caught = [m[0] for m in meter if m[0] <= asked[name]]
    if caught and newest < caught[-1]:
        print("  %s: newest stored %d, the meter had %d when a read last ended whole" % (name, newest, caught[-1]))
        bad += 1
    print("  %s: %d records, newest %d" % (name, len(have), newest))
sys.exit(1 if bad else 0)
PY
}

# ek_check_current_every RECORD PRESSURE_UNIT NAME=VALUE... : every
# put_all_current_values the host service got carries, for each NAME it holds,
# the meter's VALUE (P and PassP given in PRESSURE_UNIT, published in kgf/cm2).
ek_check_current_every() {
    { echo "$CURRENT_PY"; cat <<'PY'; } | python3 - "$@"
record, unit = sys.argv[1:3]
given = dict(a.split("=", 1) for a in sys.argv[3:])
to_at = TO_KGF_CM2[unit]
puts, bad = 0, []
for line in open(record):
    req = json.loads(line)
    if req.get("method") != "put_all_current_values":
        continue
    puts += 1
    for v in req["params"]:
        n = v["name"]
        if n not in given:
            continue
        if n in ("P", "PassP"):
            if abs(float(v["value"]) - float(given[n]) * to_at) > 5e-5:
                bad.append("%s = %s" % (n, v["value"]))
        elif v["value"] != given[n]:
            bad.append("%s = %s, want %s" % (n, v["value"], given[n]))
print("  %d publications, %d values not the meter's %s" % (puts, len(bad), bad[:5]))
sys.exit(1 if bad or puts == 0 else 0)
PY
}
