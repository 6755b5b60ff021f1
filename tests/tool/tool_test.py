#!/usr/bin/env python3
"""The devio tool as a user runs it: a real process against a machine that
devio-sim serves, its output checked against the machine's description.
Usage: tool_test.py DEVIO DEVIO_SIM [unittest arguments]"""

import json
import os
import re
import select
import signal
import subprocess
import sys
import time
import unittest

from simulated import MACHINE, Machine

TOOL = SIM = None


def by_product(devices):
    return {d["pid"]: d for d in devices}


class ToolTest(unittest.TestCase):
    def setUp(self):
        self.machine = Machine(SIM)

    def tearDown(self):
        self.machine.close()

    def devio(self, *args, status=0, timeout=120):
        out = self.machine.run(TOOL, *args, timeout=timeout)
        self.assertEqual(out.returncode, status, (args, out.stdout, out.stderr))
        # A sanitizer build reports there, whatever the status.
        self.assertNotIn("Sanitizer", out.stderr)
        return out

    def test_list_and_show_tell_what_the_devices_are(self):
        devices = json.loads(self.devio("list", "--json").stdout)["devices"]
        self.assertEqual(len(devices), 2)
        mouse, keyboard = by_product(devices)[0xC08B], by_product(devices)[0xC33A]
        self.assertEqual(
            {k: mouse[k] for k in ("bustype", "bus", "product", "name", "type", "type_id",
                                   "connected", "battery", "firmware", "errors", "vxp20")},
            {"bustype": 0, "bus": "corded", "product": "Vantrel Corded Mouse",
             "name": "Vantrel Test Mouse", "type": "mouse", "type_id": 3, "connected": True,
             "battery": {"level": 80, "next_level": 50, "status": 0}, "firmware": "12.3.45",
             "errors": [], "vxp20": True})
        self.assertEqual((keyboard["type"], keyboard["battery"]["level"],
                          keyboard["battery"]["status"], keyboard["firmware"]),
                         ("keyboard", 30, 1, "4.10.2"))
        self.assertTrue(mouse["path"].startswith(self.machine.env["DEVIO_DEV_ROOT"]))

        text = self.devio("list").stdout.splitlines()
        self.assertEqual(text[0].split(), ["PATH", "BUS", "PID", "NAME", "TYPE", "CONNECTED",
                                           "BATTERY", "FIRMWARE"])
        row = next(line for line in text if "0xC08B" in line)
        self.assertEqual(row.split(), [mouse["path"], "0", "corded", "0xC08B", "Vantrel",
                                       "Test", "Mouse", "mouse", "yes", "80%", "12.3.45"])

        # By product id, by path and by a part of the marketing name alike.
        for name in ("0xc08b", mouse["path"], "TEST mou"):
            shown = json.loads(self.devio("show", name, "--json").stdout)
            self.assertEqual(shown["path"], mouse["path"], name)
        self.assertEqual(shown["friendly_name"],
                         {"name": "Desk mouse", "default": "Vantrel Mouse", "max_length": 32})
        self.assertEqual((shown["battery"]["levels"], shown["battery"]["critical_level"]), (4, 5))
        self.assertEqual(
            [(e["type"], e["prefix"], e["version"], e["build"], e["running"])
             for e in shown["firmware_info"]["entities"]],
            [(0, "MPM", "1203", "0045", True), (1, "BOT", "0102", "0007", False)])
        props = {p["name"]: p for p in shown["properties"]}
        self.assertEqual(list(props), ["sensitivity", "lift", "serial"])
        self.assertEqual((props["sensitivity"]["value"], props["sensitivity"]["min"],
                          props["sensitivity"]["max"]), (800, 100, 8000))
        self.assertEqual((props["lift"]["type"], props["lift"]["value"]), ("float", 1.5))
        self.assertEqual([f["id"] for f in shown["features"]],
                         [0x0000, 0x0001, 0x0003, 0x0005, 0x0007, 0x0020, 0x1000, 0x1D4B,
                          0x1F1F])
        self.assertTrue(shown["wireless_status"])

        text = self.devio("show", "keyboard").stdout
        for line in ("product id          0xC33A", "type                keyboard",
                     "firmware            4.10.2"):
            self.assertIn(line, text)
        self.assertRegex(text, r"\n  0  0     MPK     0410     0002   yes\n")

    def test_a_second_run_starts_warm_from_the_cache(self):
        def reports():
            err = self.devio("list", "--verbose").stderr
            # The library's log, which --verbose turns on, and the summary;
            # the log's thread writes on its own, so lines may interleave.
            self.assertIn("INFO - devio::CDevio::config_set CDevio::config_set\n", err)
            return int(re.search(r"devio: 2 devices, (\d+) reports sent, ", err).group(1))

        cold, warm = reports(), reports()
        self.assertGreater(cold, 2 * warm)
        # Asked afresh on each run, per device: the root's version, the battery
        # level, the cookie.
        self.assertLessEqual(warm, 6)
        cache = os.path.join(self.machine.env["XDG_CACHE_HOME"], "devio")
        # A feature cache per device, and the pairing filter's paired.xml.
        names = os.listdir(cache)
        self.assertIn("paired.xml", names)
        self.assertEqual(len(names), 3)
        self.assertEqual(os.stat(cache).st_mode & 0o777, 0o700)

        # New firmware: the cache no longer fits; the device is read afresh.
        self.machine.ctl("reflash", "mouse", "0", "0x1300")
        mouse = by_product(json.loads(self.devio("list", "--json").stdout)["devices"])[0xC08B]
        self.assertEqual((mouse["firmware"], mouse["type"], mouse["errors"]),
                         ("13.0.45", "mouse", []))

    def test_writes_reach_the_device(self):
        out = json.loads(self.devio("name", "mouse", "--set", "Travel", "--json").stdout)
        self.assertEqual(out["name"], "Travel")
        self.assertIn("friendly name: Vantrel Mouse",
                      self.devio("name", "mouse", "--reset").stdout)
        # The device clamps; the tool shows what it took.
        out = json.loads(self.devio("property", "mouse", "sensitivity", "20000", "--json").stdout)
        self.assertEqual(out["value"], 8000)
        self.assertIn("lift = 2.25", self.devio("property", "mouse", "lift", "2.25").stdout)
        refused = self.devio("property", "mouse", "serial", "9", status=1)
        self.assertIn("Vxp20Error4 (48)", refused.stderr)
        self.assertEqual(
            json.loads(self.devio("property", "mouse", "serial", "--json").stdout)["value"], 7)

    def test_bad_arguments(self):
        cases = [
            (("show", "trackpad"), 1, "no device matches 'trackpad'"),
            (("show", "vantrel"), 1, "'vantrel' matches 2 devices"),
            (("show",), 2, "wrong number of arguments"),
            (("list", "--frobnicate"), 2, "unknown option --frobnicate"),
            (("launch",), 2, "unknown command launch"),
            ((), 2, "no command given"),
            (("list", "--set", "x"), 2, "--set and --reset belong to the command name"),
            (("property", "mouse", "sensitivity", "12abc"), 2, "'12abc' is not an integer"),
            (("property", "mouse", "lift", "nan"), 2, "'nan' is not a number"),
            (("property", "mouse", "tilt"), 1, "has no property 'tilt'; it has: sensitivity"),
            (("name", "keyboard"), 1, "no friendly name: NotPresent (30)"),
        ]
        for args, status, message in cases:
            out = self.devio(*args, status=status)
            self.assertIn(message, out.stderr, args)
            self.assertEqual(out.stdout, "", args)
        self.assertIn("usage: devio show DEVICE", self.devio("show", "--help").stdout)

    def test_watch_prints_every_event_once_in_order(self):
        watch = subprocess.Popen([TOOL, "watch", "--json"], env=self.machine.env,
                                 stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        lines, pending = [], b""

        def until(count, seconds=30):
            # Raw reads: a buffered readline could hold a second line that
            # select would then never report.
            nonlocal pending
            deadline = time.monotonic() + seconds
            while len(lines) < count and time.monotonic() < deadline:
                if select.select([watch.stdout], [], [], 0.2)[0]:
                    chunk = os.read(watch.stdout.fileno(), 65536)
                    if not chunk:
                        break
                    pending += chunk
                    *whole, pending = pending.split(b"\n")
                    lines.extend(json.loads(line) for line in whole)
            return [(e["event"], e["path"]) for e in lines]

        try:
            arrivals = until(2)
            self.assertEqual([e for e, _ in arrivals], ["arrival", "arrival"], lines)
            mouse = next(e["path"] for e in lines if e["pid"] == 0xC08B)
            steps = [
                (("battery", "mouse", "40", "30", "1"), "battery"),
                (("cookie", "mouse", "0x1234", "3"), "cookie"),
                (("property", "mouse", "0", "1600"), "property"),
                (("unplug", "mouse"), "removal"),
                (("plug", "mouse"), "arrival"),
                (("battery", "mouse", "35"), "battery"),
            ]
            for n, (command, expected) in enumerate(steps, start=3):
                self.machine.ctl(*command)
                self.assertEqual(until(n)[-1], (expected, mouse), lines)
            # Nothing more comes: no event twice.
            self.assertEqual(len(until(len(steps) + 3, seconds=3)), len(steps) + 2, lines)
            battery, cookie, prop = lines[2], lines[3], lines[4]
            self.assertEqual((battery["level"], battery["next_level"], battery["status"]),
                             (40, 30, 1))
            self.assertEqual((cookie["cookie"], cookie["swid"]), (0x1234, 3))
            self.assertEqual((prop["property"], prop["value"]), ("sensitivity", 1600))
            self.assertEqual(lines[-1]["level"], 35)
            times = [e["time"] for e in lines]
            self.assertEqual(times, sorted(times))
            self.assertRegex(times[0], r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z$")
        finally:
            watch.send_signal(signal.SIGINT)
            status = watch.wait(timeout=30)
            watch.stdout.close()
            stderr = watch.stderr.read().decode(errors="replace")
            watch.stderr.close()
        self.assertEqual(status, 0, stderr)
        self.assertNotIn("Sanitizer", stderr)

    def test_a_device_that_drops_every_answer_keeps_its_row(self):
        self.machine.ctl("fault", "mouse", "drop", "on")
        started = time.monotonic()
        devices = by_product(json.loads(self.devio("list", "--json").stdout)["devices"])
        # One command's full time-out, not one per question.
        self.assertLess(time.monotonic() - started, 90)
        mouse = devices[0xC08B]
        self.assertEqual((mouse["product"], mouse["bus"]), ("Vantrel Corded Mouse", "corded"))
        self.assertNotIn("battery", mouse)
        self.assertEqual([(e["code"], e["name"]) for e in mouse["errors"]], [(4, "NoResponse")])
        self.assertEqual(devices[0xC33A]["errors"], [])
        self.assertEqual(devices[0xC33A]["battery"]["level"], 30)


if __name__ == "__main__":
    TOOL, SIM = sys.argv[1], sys.argv[2]
    unittest.main(argv=[sys.argv[0], *sys.argv[3:]])
