#!/usr/bin/env bash
# The main job, end to end, in a throw-away data folder: qvclient reads a
# sample event stream, stamps the events into qvevents.json and keeps its
# state in registry.json. Then a second stream ends with ".OFF", and the
# client uploads everything to an HTTPS ingest server on 127.0.0.1 (with a
# CA made for the demo), which prints what it received. The devices in the
# upload's header come from a simulated desk (scripts/demo/desk.json, served
# by devio-sim); the machine sections describe this machine.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$("$root/scripts/build.sh" | tail -n 1)
qvclient="$build/client/qvclient"
devio_sim="$build/tools/devio-sim/devio-sim"

data=$(mktemp -d "${TMPDIR:-/tmp}/vantshrd-demo-XXXXXX")
ingest="$data/ingest"
server_pid=""
sim_pid=""
cleanup() {
  if [ -n "$server_pid" ]; then kill "$server_pid" 2>/dev/null || true; wait "$server_pid" 2>/dev/null || true; fi
  if [ -n "$sim_pid" ]; then kill "$sim_pid" 2>/dev/null || true; wait "$sim_pid" 2>/dev/null || true; fi
  rm -rf "$data"
}
trap cleanup EXIT
export VANTSHRD_DIR="$data/shared"

show() {
  echo
  echo "---- $1"
  cat "$2"
}

run_client() {
  echo "---- qvclient --noupload --debugout debug.log < scripts/demo/events.jsonl"
  "$qvclient" --noupload --debugout "$data/debug.log" <"$root/scripts/demo/events.jsonl"
}

start_server() {
  python3 "$root/tools/ingest-server/ingest_server.py" --cert-dir "$ingest/certs" \
    --store "$ingest/store" --port-file "$ingest/port" \
    --reply '{"MinUploadSize":"2097152"}' >/dev/null &
  server_pid=$!
  for _ in $(seq 100); do [ -s "$ingest/port" ] && break; sleep 0.1; done
  [ -s "$ingest/port" ] || { echo "ingest server did not start" >&2; exit 1; }
  export VANTSHRD_UPLOAD_URL="https://127.0.0.1:$(cat "$ingest/port")/events"
  export VANTSHRD_CA_FILE="$ingest/certs/ca.pem"
  unset https_proxy HTTPS_PROXY all_proxy ALL_PROXY
}

# The simulated desk: a corded mouse, a keyboard in two pieces, and a
# receiver with a keyboard and a trackball whose link is down. The client's
# device library reads it through its own environment.
start_desk() {
  "$devio_sim" serve "$root/scripts/demo/desk.json" "$data/desk" >"$data/desk.out" </dev/null &
  sim_pid=$!
  for _ in $(seq 100); do grep -q '^# control' "$data/desk.out" 2>/dev/null && break; sleep 0.1; done
  grep -q '^# control' "$data/desk.out" || { echo "devio-sim did not start" >&2; exit 1; }
  eval "$(grep '^export ' "$data/desk.out")"
  export DEVIO_LOCK_DIR="$data/desk"
  echo
  echo "---- devio-sim serve scripts/demo/desk.json   (the simulated desk)"
  grep -v '^export \|^# control' "$data/desk.out"
}

run_upload() {
  echo
  echo "---- qvclient --debugout upload.log < scripts/demo/upload-events.jsonl   (ends with .OFF)"
  echo "     uploading to $VANTSHRD_UPLOAD_URL"
  "$qvclient" --debugout "$data/upload.log" <"$root/scripts/demo/upload-events.jsonl"
}

show_received() {
  echo
  echo "---- what the ingest server received"
  python3 - "$ingest/store" <<'PY'
import json, os, sys
store = sys.argv[1]

def scalars(obj):
    return ", ".join(f"{k}={v}" for k, v in obj.items() if not isinstance(v, (dict, list)))

for name in sorted(n for n in os.listdir(store) if n.startswith("upload-") and "." not in n):
    with open(os.path.join(store, name, "meta.json")) as f:
        meta = json.load(f)
    with open(os.path.join(store, name, "header.json")) as f:
        header = json.load(f)
    print(f"{name}: multipart checked: {meta['valid']}, "
          f"{meta['event_lines']} events ({meta['event_bytes']} bytes, "
          f"{meta['compressed_bytes']} gzipped)")
    print("  header keys, in the order they travel:", ", ".join(header))
    print("  uploadid:", header["uploadid"], " auth:", header["auth"])
    print(f"  vant: {len(header['vant']['a'])} devices")
    for device in header["vant"]["a"]:
        print("   -", scalars(device))
        for fw in device.get("fws", []):
            print("       firmware:", scalars(fw))
    print("  machine:", scalars({k: v for k, v in header.items() if k not in (
        "clientid", "uploadid", "version", "auth", "test", "maxlinebuf", "maxpauseseconds",
        "maxlastuploadseconds", "minuploadsize", "timeoutshutdownseconds")}))
    for section in ("video", "cpu", "monitors"):
        rows = header.get(section, {}).get("a", [])
        print(f"  {section}: {len(rows)}")
        for row in rows:
            print("   -", scalars(row))
    print("  usb:", ", ".join(header.get("usb", {}).get("a", [])) or "(none)")
PY
}

run_client
show "qvevents.json (one stamped event per line)" "$VANTSHRD_DIR/qvevents.json"
show "registry.json (identity, settings, pause state)" "$VANTSHRD_DIR/registry.json"
show "debug.log (first 25 lines)" <(head -n 25 "$data/debug.log")
start_server
start_desk
run_upload
show_received
show "upload.log (the worker's upload traces)" <(grep -E '^(forcing|!!!|bg get devio|bg got devio|send file|sent |upload complete|events file|CollectSystemData|exception)' "$data/upload.log")
show "registry.json after the upload (new UploadId, MinUploadSize from the reply)" "$VANTSHRD_DIR/registry.json"
echo
echo "data folder $data is removed on exit"
