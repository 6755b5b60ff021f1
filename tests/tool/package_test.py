#!/usr/bin/env python3
"""The Debian package, built from a build tree as CI builds it: its contents
listed, its control fields and lintian's verdict checked, then extracted
into a scratch root, whose devio lists a simulated machine and whose headers,
libraries and pkg-config file build a host that does the same.
Usage: package_test.py BUILD_DIR DEVIO_SIM
cpack and dpkg-deb come with the build tools; their absence is a failure."""

import glob
import gzip
import json
import os
import shutil
import subprocess
import sys
import tempfile

from simulated import Machine

EXPECTED = {
    "./usr/bin/devio", "./usr/bin/qvclient",
    "./usr/share/man/man1/devio.1.gz",
    "./usr/lib/udev/rules.d/70-vantrel-devio.rules",
    "./usr/lib/tmpfiles.d/vantshrd.conf",
    "./usr/share/doc/vantshrd/README.md", "./usr/share/doc/vantshrd/copyright",
    "./usr/share/doc/vantshrd/changelog.gz",
    "./usr/include/devio/Manager/CDevio.h", "./usr/include/devio/Device/IDevice.h",
}

HOST = r"""
#include <cstdio>
#include "Manager/CDevio.h"
#include "Device/IDevice.h"
int main() {
    devio::cdevio.config_set(5, true);
    for (const auto& d : devio::cdevio.devices()) std::printf("%04X\n", d->pid());
}
"""


def run(*args, **kw):
    out = subprocess.run(args, capture_output=True, text=True, timeout=240, **kw)
    if out.returncode != 0:
        sys.exit(f"FAIL: {' '.join(args)}: {out.returncode}\n{out.stdout}\n{out.stderr}")
    return out.stdout


def check(condition, message):
    if not condition:
        sys.exit("FAIL: " + message)


def main(build, sim):
    if not shutil.which("cpack") or not shutil.which("dpkg-deb"):
        check(False, "cpack or dpkg-deb missing")
    with tempfile.TemporaryDirectory(prefix="devio-package-") as tmp:
        run("cpack", "--config", os.path.join(build, "CPackConfig.cmake"), "-B", tmp)
        debs = glob.glob(os.path.join(tmp, "*.deb"))
        check(len(debs) == 1, f"packages made: {debs}")
        deb = debs[0]

        listing = [line.split() for line in run("dpkg-deb", "-c", deb).splitlines()]
        files = {f[5]: f for f in listing if not f[0].startswith("d")}
        check(EXPECTED <= set(files), f"missing: {sorted(EXPECTED - set(files))}")
        check(any(p.endswith("/pkgconfig/devio.pc") for p in files), "no devio.pc")
        check(all(f[1] == "root/root" for f in listing), "a file not owned by root")
        check(all(p.startswith("./usr/") for p in files), "a file outside /usr")
        for program in ("./usr/bin/devio", "./usr/bin/qvclient"):
            check(files[program][0] == "-rwxr-xr-x", f"{program}: {files[program][0]}")

        fields = run("dpkg-deb", "-f", deb, "Package", "Version", "Depends")
        check("Package: vantshrd" in fields and "libudev1" in fields, fields)

        if shutil.which("lintian"):
            out = subprocess.run(["lintian", deb], capture_output=True, text=True, timeout=240)
            errors = [line for line in out.stdout.splitlines() if line.startswith("E:")]
            check(not errors, "lintian: " + "\n".join(errors))
        else:
            print("lintian missing: its check left out")

        root = os.path.join(tmp, "root")
        run("dpkg-deb", "-x", deb, root)
        with open(os.path.join(root, "usr/lib/udev/rules.d/70-vantrel-devio.rules")) as f:
            rules = [r for r in f.read().splitlines() if r and not r.startswith("#")]
        check(len(rules) == 2 and all('TAG+="uaccess"' in r for r in rules), f"rules: {rules}")
        check('ATTRS{idVendor}=="2e5a"' in rules[0], "no USB vendor match")
        check('KERNELS=="0005:2E5A:*"' in rules[1], "no Bluetooth vendor match")
        with gzip.open(os.path.join(root, "usr/share/man/man1/devio.1.gz"), "rt") as f:
            check(f.read().startswith(".TH DEVIO 1"), "manual page")

        machine = Machine(sim)
        try:
            out = machine.run(os.path.join(root, "usr/bin/devio"), "list", "--json")
            check(out.returncode == 0, out.stderr)
            pids = sorted(d["pid"] for d in json.loads(out.stdout)["devices"])
            check(pids == [0xC08B, 0xC33A], f"devices: {out.stdout}")

            # A host built from the package alone.
            pc = glob.glob(os.path.join(root, "usr/lib/**/devio.pc"), recursive=True)[0]
            env = dict(os.environ, PKG_CONFIG_PATH=os.path.dirname(pc))
            flags = run("pkg-config", "--cflags", "--libs", "devio", env=env).split()
            check(any(f.startswith("-I" + root) for f in flags), f"flags: {flags}")
            source = os.path.join(tmp, "host.cc")
            with open(source, "w") as f:
                f.write(HOST)
            host = os.path.join(tmp, "host")
            run("c++", "-std=c++20", "-O0", source, "-o", host, *flags)
            out = machine.run(host)
            check(out.stdout.split() == ["C08B", "C33A"], f"host: {out.stdout} {out.stderr}")
        finally:
            machine.close()
    print("package ok")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1], sys.argv[2]))
