#!/usr/bin/env bash
# Installs what is missing, builds, and shows the daemon at work against simulators.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
dir=$(scripts/build.sh | tail -n 1)
"$dir/mtd_main" -h
