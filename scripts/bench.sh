#!/usr/bin/env bash
# Builds and runs the benchmarks (all of them, or those named).
# Usage: scripts/bench.sh [ingest ...]
# Each benchmark measures its own baseline in the same run and prints the
# ratio to it, so figures from different machines compare.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
dir=$("$root/scripts/build.sh" | tail -n 1)
names=("$@")
if [ ${#names[@]} -eq 0 ]; then
  for d in "$root"/bench/*/; do names+=("$(basename "$d")"); done
fi
for name in "${names[@]}"; do
  echo "== $name"
  "$dir/bench/$name/${name}_bench"
done
