#!/usr/bin/env bash
# Starts a simulated Bluetooth machine for the demo and for hand testing: a
# private dbus-daemon standing in for the system bus, BlueZ on it played by
# python3-dbusmock, and devio-sim serving MACHINE.json (default: a classic
# keyboard, a Low Energy pen and a corded mouse), with every Bluetooth node
# paired to the radio hci0. Prints the environment that points the library
# at all of it, and serves until interrupted.
#
# usage: tools/bluetooth-machine/bluetooth-machine.sh DIR [MACHINE.json]
#
# While it runs, from another shell (the address is in DIR/env):
#   tools/bluetooth-machine/bluez.py "$DBUS_SYSTEM_BUS_ADDRESS" DisconnectDevice hci0 ADDRESS
#   tools/bluetooth-machine/bluez.py "$DBUS_SYSTEM_BUS_ADDRESS" ConnectDevice hci0 ADDRESS
#   build/tools/devio-sim/devio-sim ctl DIR/machine unplug keys
#   tools/bluetooth-machine/bluez.py "$DBUS_SYSTEM_BUS_ADDRESS" gatt ADDRESS NODE-SOCKET
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
dir=${1:?usage: $0 DIR [MACHINE.json]}
machine=${2:-$here/machine.json}
sim=${DEVIO_SIM:-$root/build/tools/devio-sim/devio-sim}
[ -x "$sim" ] || { echo "no devio-sim at $sim (build it, or set DEVIO_SIM)" >&2; exit 1; }

mkdir -p "$dir"
dir=$(cd "$dir" && pwd)
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
}
trap cleanup EXIT INT TERM

dbus-daemon --session --nofork --print-address=3 3>"$dir/bus-address" 2>"$dir/dbus-daemon.log" &
pids+=($!)
for _ in $(seq 100); do [ -s "$dir/bus-address" ] && break; sleep 0.1; done
address=$(head -n 1 "$dir/bus-address")
[ -n "$address" ] || { echo "dbus-daemon did not start" >&2; exit 1; }

DBUS_SYSTEM_BUS_ADDRESS="$address" /usr/bin/python3 -m dbusmock --system --template bluez5 \
  >"$dir/bluez-mock.log" 2>&1 &
pids+=($!)
for _ in $(seq 200); do
  dbus-send --bus="$address" --print-reply --dest=org.freedesktop.DBus /org/freedesktop/DBus \
    org.freedesktop.DBus.NameHasOwner string:org.bluez 2>/dev/null | grep -q "boolean true" && break
  sleep 0.1
done

"$sim" serve "$machine" "$dir/machine" </dev/null >"$dir/devio-sim.log" 2>&1 &
pids+=($!)
for _ in $(seq 100); do [ -S "$dir/machine/control" ] && break; sleep 0.1; done
[ -S "$dir/machine/control" ] || { echo "devio-sim did not start" >&2; exit 1; }

/usr/bin/python3 "$here/bluez.py" "$address" pair-all "$dir/machine/sys"
cat >"$dir/env" <<ENV
export DBUS_SYSTEM_BUS_ADDRESS='$address'
export DEVIO_SYSFS_ROOT='$dir/machine/sys'
export DEVIO_DEV_ROOT='$dir/machine/dev'
ENV
echo "simulated Bluetooth machine ready; for the library: source $dir/env"
echo "interrupt to stop"
wait
