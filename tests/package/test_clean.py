#!/usr/bin/env python3
"""Runs kelpd-clean over a data directory of every kind of file, and lets systemd read the units where it is installed."""
import os
import re
import shutil
import subprocess
import sys
import tempfile
import time

PACKAGING = sys.argv[1]
OLD = time.time() - 3 * 86400


def make(folder, name, age):
    path = os.path.join(folder, name)
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as f:
        f.write(b"x")
    os.utime(path, (age, age))
    return path


def check_clean():
    gone = ["base/d/s/e/p.cvn.1700000000.tmp", "base/d/s/e/it's \"odd\" *.1700000000.tmp", "tmp/1f-2e-3d.tmp"]
    kept = ["base/d/s/e/p.cvn", "base/d/s/e/p.tmp", "base/d/s/e/p.123.tmp", "base/d/s/p.cvn.1700000000.tmp",
            "base/d/s/e/f/p.cvn.1700000000.tmp", "tmp/other", "p.1700000000.tmp", "log/p.1700000000.tmp"]
    fresh = ["base/d/s/e/new.1700000000.tmp", "tmp/4-5-6.tmp"]
    used = "base/d/s/e/slow.1700000000.tmp"
    with tempfile.TemporaryDirectory() as folder, tempfile.TemporaryDirectory() as outside:
        for name in gone + kept:
            make(folder, name, OLD)
        for name in fresh:
            make(folder, name, time.time())
        make(outside, "s/e/far.1700000000.tmp", OLD)
        os.symlink(outside, os.path.join(folder, "base/link"))
        with open(make(folder, used, OLD), "rb"):
            out = subprocess.run([os.path.join(PACKAGING, "kelpd-clean"), folder], stdout=subprocess.PIPE,
                                 stderr=subprocess.STDOUT, text=True, timeout=60)
        assert (out.returncode, out.stdout) == (0, ""), out
        left = sorted(os.path.relpath(os.path.join(at, name), folder)
                      for at, _, names in os.walk(folder) for name in names)
        assert left == sorted(kept + fresh + [used]), left
        assert os.listdir(os.path.join(outside, "s/e")) == ["far.1700000000.tmp"]
        out = subprocess.run([os.path.join(PACKAGING, "kelpd-clean"), folder + "/none"], stderr=subprocess.DEVNULL,
                             timeout=60)
        assert out.returncode != 0, "a missing directory is no failure"


def check_unit():
    with open(os.path.join(PACKAGING, "kelpd.service.in"), encoding="ascii") as f:
        text = f.read()
    for line in ("OOMPolicy=continue", "MemoryMax=75%", "KillMode=control-group", "Restart=always",
                 "StartLimitIntervalSec=0", "Environment=TMPDIR=/var/lib/kelpd/tmp", "IPAddressDeny=any"):
        assert re.search(f"^{re.escape(line)}$", text, re.M), line
    if not shutil.which("systemd-analyze"):
        return False
    with tempfile.TemporaryDirectory() as folder:
        names = ["kelpd.service", "kelpd-clean.service", "kelpd-clean.timer"]
        for name in names:
            source = os.path.join(PACKAGING, name if name.endswith(".timer") else name + ".in")
            with open(source, encoding="ascii") as f:
                text = f.read().replace("@CMAKE_INSTALL_FULL_BINDIR@/kelpd", "/bin/true")
            text = text.replace("@CMAKE_INSTALL_FULL_LIBEXECDIR@/kelpd-clean", "/bin/true")
            with open(os.path.join(folder, name), "w", encoding="ascii") as f:
                f.write(text.replace("@CMAKE_INSTALL_FULL_BINDIR@", "/usr/bin"))
        out = subprocess.run(["systemd-analyze", "verify", "--man=no", *names], cwd=folder, stdout=subprocess.PIPE,
                             stderr=subprocess.STDOUT, text=True, timeout=60)
        assert not [line for line in out.stdout.splitlines() if "kelpd" in line], out.stdout
    return True


def main():
    check_clean()
    verified = check_unit()
    print("clean" + ("" if verified else "; systemd-analyze is not installed: the units were not read by it"))
    return 0


if __name__ == "__main__":
    sys.exit(main())
