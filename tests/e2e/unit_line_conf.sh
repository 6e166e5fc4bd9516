#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The line configuration parser of the service unit (packaging/mtd_main-line)
# fed hostile files. The starter is shell and reads a fixed path, so it is not
# fuzzed in-process: this harness writes generated files to a private
# /etc/mtd_main/ and runs the real starter on each, with a recorder in place
# of the daemon. Properties, for every file:
#   - the starter ends within 5 s with status 0 (it started the daemon) or 78;
#   - nothing in the file is run: no canary file appears, whatever $(...),
#     backquotes, ; | & or globs it holds;
#   - a started daemon gets exactly "-v L -i ID [-i ID ...]", L in 0..7 and
#     every ID a decimal number, and no other argument.
# unit_line_conf.sh BUILD_DIR [CASES [SEED]] (re-runs itself in `unshare -rmn`).
. "$(dirname "$0")/lib.sh"
CASES=${2:-300}
SEED=${3:-23}
e2e_case "$@"
STARTER="$E2E_SOURCE_DIR/packaging/mtd_main-line"
CANARY=/tmp/canary

# A private, empty /etc/mtd_main.
e2e_private_etc

# The recorder: its arguments, one per line, NUL-free by construction of execve.
cat >"$WORK/recorder" <<'REC'
#!/bin/sh
for a in "$@"; do printf '%s\n' "$a"; done >"$RECORD"
REC
chmod +x "$WORK/recorder"

# The generator: files made of the starter's own words mixed with shell syntax,
# quotes, long and binary runs. Deterministic for a seed.
python3 - "$CASES" "$SEED" "$WORK/cases" "$CANARY" <<'PY'
import os, random, sys
cases, seed, out, canary = int(sys.argv[1]), int(sys.argv[2]), sys.argv[3], sys.argv[4]
rnd = random.Random(seed)
os.makedirs(out)
names = ["METERS", "LOG_LEVEL", "meters", "METERS ", " METERS", "PATH", "IFS", "MTD_MAIN_BIN", "", "#METERS"]
values = ["1001", "1001 1002", '"1001 1002"', "'1001'", "7", "8", "-1", "06", "", " ", "*", "/*", "-i 5", "--help",
          "$(touch %s)" % canary, "`touch %s`" % canary, "1; touch %s" % canary, "1 | touch %s" % canary,
          "1 && touch %s" % canary, "$IFS", "${PATH}", '"', "'", '\\', "\\n", "1\t2", "1\r", "9" * 5000,
          "1 " * 3000, "\u00e9\u00e8", "1001=1002", "\"1001'", "1001\"", "0x10", "+5", "1e3"]
good = {"METERS": ["1001", "1001 1002", '"1001 1002"', "'7'", "  12   13  "], "LOG_LEVEL": ["0", "6", "7", '"3"']}
def line():
    r = rnd.random()
    if r < 0.08:
        return bytes(rnd.randrange(256) for _ in range(rnd.randrange(40)))
    if r < 0.16:
        return rnd.choice([b"", b"# comment $(touch x)", b"   ", b"=", b"==1", b"METERS", b"\x00METERS=1"])
    if r < 0.6:
        name = rnd.choice(list(good))
        text = rnd.choice(["", " ", "\t"]) + name + "=" + rnd.choice(good[name])
        if rnd.random() < 0.25:
            text += rnd.choice(values)
        return text.encode()
    text = rnd.choice(names) + rnd.choice(["=", "=", "=", " = ", "=="]) + rnd.choice(values)
    if rnd.random() < 0.3:
        text += rnd.choice(values)
    return text.encode("utf-8", "surrogateescape")
for i in range(cases):
    body = b"\n".join(line() for _ in range(rnd.randrange(1, 5)))
    if rnd.random() < 0.7:
        body += b"\n"
    with open(os.path.join(out, "%04d" % i), "wb") as f:
        f.write(body)
PY

bad=0 started=0
for f in "$WORK"/cases/*; do
    cp "$f" /etc/mtd_main/l.conf
    rm -f "$CANARY" "$WORK/args"
    RECORD="$WORK/args" MTD_MAIN_BIN="$WORK/recorder" timeout 5 sh "$STARTER" l </dev/null >"$WORK/out" 2>&1
    status=$?
    why=
    if [ -e "$CANARY" ]; then
        why="ran something from the file"
    elif [ "$status" = 0 ]; then
        started=$((started + 1))
        python3 - "$WORK/args" <<'PY' || why="daemon arguments: $(tr '\n' ' ' <"$WORK/args" 2>/dev/null)"
import re, sys
args = open(sys.argv[1], "rb").read().decode("utf-8", "replace").split("\n")[:-1]
ok = len(args) >= 4 and len(args) % 2 == 0 and args[0] == "-v" and re.fullmatch(r"[0-7]", args[1])
ok = ok and all(args[i] == "-i" and re.fullmatch(r"[0-9]+", args[i + 1]) for i in range(2, len(args), 2))
sys.exit(0 if ok else 1)
PY
    elif [ "$status" != 78 ]; then
        why="status $status"
    fi
    if [ -n "$why" ]; then
        bad=$((bad + 1))
        echo "FAIL $(basename "$f"): $why"
        od -c "$f" | head -5
        head -3 "$WORK/out"
    fi
done
echo "$started of $CASES files started the daemon"
# The generator must reach both ends, or the properties prove little.
check "some files start the daemon, most do not" test "$started" -gt $((CASES / 20)) -a "$started" -lt "$CASES"
check "$CASES hostile line files (seed $SEED): status 0 or 78, nothing run, clean arguments" test "$bad" = 0
echo "unit_line_conf: $FAILURES failure(s)"
[ "$FAILURES" = 0 ]
