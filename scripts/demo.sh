#!/usr/bin/env bash
# The main job, end to end, in a throw-away data folder: qvclient reads a
# sample event stream, stamps the events into qvevents.json and keeps its
# state in registry.json. Each step is a function, so later steps (the
# upload to a local ingest server) slot in beside them.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$("$root/scripts/build.sh" | tail -n 1)
qvclient="$build/client/qvclient"

data=$(mktemp -d "${TMPDIR:-/tmp}/vantshrd-demo-XXXXXX")
trap 'rm -rf "$data"' EXIT
export VANTSHRD_DIR="$data"

show() {
  echo
  echo "---- $1"
  cat "$2"
}

run_client() {
  echo "---- qvclient --noupload --debugout debug.log < scripts/demo/events.jsonl"
  "$qvclient" --noupload --debugout "$data/debug.log" <"$root/scripts/demo/events.jsonl"
}

run_client
show "qvevents.json (one stamped event per line)" "$data/qvevents.json"
show "registry.json (identity, settings, pause state)" "$data/registry.json"
show "debug.log (first 25 lines)" <(head -n 25 "$data/debug.log")
echo
echo "data folder $data is removed on exit"
