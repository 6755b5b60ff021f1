#!/usr/bin/env bash
# Builds and runs the command benchmark twice: with the log facility as a
# host gets it by default (every line goes to the log files), and with
# logging off, which shows the engine's own cost.
# Usage: bench/command/run.sh [build-dir]
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
dir=${1:-$root/build}
cmake -S "$root" -B "$dir" >/dev/null
cmake --build "$dir" --target command_bench -j2 >/dev/null
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
echo "== logging on (default settings)"
TMPDIR=$scratch XDG_CONFIG_HOME=$scratch "$dir/bench/command/command_bench" 2>/dev/null
echo "== logging off (DEVIO_LOGGING=0)"
DEVIO_LOGGING=0 TMPDIR=$scratch XDG_CONFIG_HOME=$scratch "$dir/bench/command/command_bench" 2>/dev/null
