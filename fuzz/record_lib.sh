# SPDX-License-Identifier: Apache-2.0
# Sourced first by the fuzz/record_*_session.sh scripts, with their arguments:
# takes BUILD_DIR, enters private namespaces like the end-to-end cases (the
# script runs again inside them) and loads tests/e2e/lib.sh.
set -uo pipefail
export BUILD_DIR=${1:?usage: $(basename "$0") BUILD_DIR}
ROOT=$(cd "$(dirname "$0")/.." && pwd)
if [ -z "${MTD_E2E_IN_NS:-}" ]; then
    MTD_E2E_IN_NS=1 exec unshare -rmn "$0" "$@"
fi
. "$ROOT/tests/e2e/lib.sh"
e2e_enter_ns
trap stop_started EXIT

# start_relay METER LINE BYTES LOG: fuzz/line_relay.py between the simulator's
# pseudo-terminal METER and a new one whose link is LINE (the daemon's port);
# every byte is passed on both ways and the meter's side is written to BYTES.
start_relay() {
    start_bg "$4" python3 "$ROOT/fuzz/line_relay.py" "$1" "$2" "$3"
    wait_for "$4" '^ready' 5 || { cat "$4"; return 1; }
}
