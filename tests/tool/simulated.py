"""A simulated machine served by devio-sim, and runs of the devio tool
against it, for the tool's tests."""

import json
import os
import signal
import subprocess
import tempfile

# Two corded devices with everything the tool shows. Values are chosen so
# that each field can be told from the others.
MACHINE = {
    "devices": [
        {
            "id": "mouse", "name": "Vantrel Corded Mouse", "pid": "0xC08B",
            "marketing_name": "Vantrel Test Mouse", "device_type": "mouse",
            "entities": [
                {"type": 0, "prefix": "MPM", "version": "0x1203", "build": "0x0045", "rdnf": 1},
                {"type": 1, "prefix": "BOT", "version": "0x0102", "build": "0x0007", "rdnf": 0},
            ],
            "battery": {"level": 80, "next_level": 50, "status": 0, "number_of_levels": 4,
                        "critical_level": 5},
            "friendly_name": {"name": "Desk mouse", "default": "Vantrel Mouse", "max_len": 32},
            "properties": [
                {"name": "sensitivity", "type": "int", "value": 800, "min": 100, "max": 8000},
                {"name": "lift", "type": "float", "value": 1.5},
                {"name": "serial", "type": "int", "value": 7, "writable": False},
            ],
        },
        {
            "id": "keyboard", "name": "Vantrel Corded Keyboard", "pid": "0xC33A",
            "device_type": "keyboard",
            # No friendly name.
            "features": [0x0001, 0x0003, 0x0005, 0x0020, 0x1000, 0x1D4B],
            "entities": [{"type": 0, "prefix": "MPK", "version": "0x0410", "build": "0x0002",
                          "rdnf": 1}],
            "battery": {"level": 30, "next_level": 20, "status": 1},
        },
    ]
}


class Machine:
    """devio-sim serving MACHINE in a temporary folder, with the environment
    that points the tool at it and keeps it off the user's own folders."""

    def __init__(self, sim, description=None):
        self.sim = sim
        self.tmp = tempfile.TemporaryDirectory(prefix="devio-tool-")
        self.dir = os.path.join(self.tmp.name, "machine")
        path = os.path.join(self.tmp.name, "machine.json")
        with open(path, "w") as f:
            json.dump(description or MACHINE, f)
        self.proc = subprocess.Popen([sim, "serve", path, self.dir], stdin=subprocess.DEVNULL,
                                     stdout=subprocess.PIPE, text=True)
        self.env = dict(os.environ)
        for prefix in ("DEVIO_SYSFS_ROOT", "DEVIO_DEV_ROOT"):
            line = self.proc.stdout.readline()
            key, value = line.strip().removeprefix("export ").split("=", 1)
            assert key == prefix, line
            self.env[key] = value
        for name in ("lock", "cache", "config", "logs"):
            os.mkdir(os.path.join(self.tmp.name, name))
        self.env.update({
            "DEVIO_LOCK_DIR": os.path.join(self.tmp.name, "lock"),
            "XDG_CACHE_HOME": os.path.join(self.tmp.name, "cache"),
            "XDG_CONFIG_HOME": os.path.join(self.tmp.name, "config"),
            "TMPDIR": os.path.join(self.tmp.name, "logs"),
        })

    def ctl(self, *command):
        out = subprocess.run([self.sim, "ctl", self.dir, *command], capture_output=True,
                             text=True, timeout=30)
        assert out.returncode == 0, (command, out.stdout, out.stderr)

    def run(self, tool, *args, timeout=120):
        return subprocess.run([tool, *args], capture_output=True, text=True, env=self.env,
                              timeout=timeout)

    def close(self):
        self.proc.send_signal(signal.SIGTERM)
        self.proc.wait(timeout=30)
        self.proc.stdout.close()
        self.tmp.cleanup()
