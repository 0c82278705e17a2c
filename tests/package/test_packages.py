#!/usr/bin/env python3
"""Installs the Debian packages in a clean root, runs what they install, and removes them again.

The clean root is made by debootstrap, or is a directory given with --root (a bookworm system with adduser,
init-system-helpers and curl, used as a template and left as it is). Needs root; exits with 77, skipped, without it or
without debootstrap. In the root the daemon runs as the user of the package, on a port of its own.
"""
import argparse
import glob
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "docs"))
import run_docs  # noqa: E402
from run_docs import free_port  # noqa: E402

SKIPPED = 77


class Root:
    def __init__(self, path):
        self.path = path

    def run(self, *command, check=True, **kwargs):
        env = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "DEBIAN_FRONTEND": "noninteractive",
               "LC_ALL": "C.UTF-8", "HOME": "/root"}
        p = subprocess.run(["chroot", self.path, *command], env=env, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                           stderr=subprocess.STDOUT, text=True, timeout=300, **kwargs)
        if check and p.returncode != 0:
            raise AssertionError(f"{' '.join(command)}: status {p.returncode}\n{p.stdout}")
        return p.stdout

    def file(self, name):
        return os.path.join(self.path, name.lstrip("/"))


def expect(condition, what):
    if not condition:
        raise AssertionError(what)


def make_root(path, template):
    if template:
        subprocess.run(["cp", "-a", "--reflink=auto", template, path], check=True)
    else:
        subprocess.run(["debootstrap", "--variant=minbase", "--include=adduser,init-system-helpers,curl", "bookworm",
                        path],
                       check=True, stdout=subprocess.DEVNULL)
    root = Root(path)
    # No service is started by a package here.
    with open(root.file("usr/sbin/policy-rc.d"), "w") as f:
        f.write("#!/bin/sh\nexit 101\n")
    os.chmod(root.file("usr/sbin/policy-rc.d"), 0o755)
    return root


def daemon_pid(root):
    """The daemon of this root, found by the directory that it works in."""
    for name in os.listdir("/proc"):
        if name.isdigit():
            try:
                if os.readlink(f"/proc/{name}/cwd") == root.file("var/lib/kelpd"):
                    return int(name)
            except OSError:
                pass
    return None


def stop(root):
    end = time.monotonic() + 20
    while (pid := daemon_pid(root)) is not None:
        expect(time.monotonic() < end, "the daemon does not end")
        try:
            os.kill(pid, signal.SIGTERM)
        except ProcessLookupError:
            pass
        time.sleep(0.05)


def check_lintian(debs):
    if not shutil.which("lintian"):
        print("lintian is missing: not checked")
        return
    p = subprocess.run(["lintian", "--profile", "debian", "--allow-root", "--fail-on", "error,warning", *debs],
                       stdout=subprocess.PIPE,
                       stderr=subprocess.STDOUT, text=True, timeout=300)
    expect(p.returncode == 0, "lintian:\n" + p.stdout)


def documented(docs):
    """The commands that the documents run in a root like this, in the order tutorial, operation."""
    return [b for d in ("tutorial.md", "operate.md")
            for b in run_docs.blocks_of(os.path.join(docs, d)) if "package" in b.words]


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--packages", required=True, help="directory with the three packages")
    parser.add_argument("--docs", required=True)
    parser.add_argument("--root", help="a clean root to copy")
    args = parser.parse_args()
    if os.geteuid() != 0 or not (args.root or shutil.which("debootstrap")):
        print("needs root and debootstrap")
        return SKIPPED
    debs = sorted(glob.glob(os.path.join(args.packages, "*.deb")))
    names = [os.path.basename(d).split("_")[0] for d in debs]
    expect(names == ["colvane-tools", "kelpd", "libcolvane-dev"], f"packages: {names}")
    check_lintian(debs)

    with tempfile.TemporaryDirectory(prefix="kelpd-root-") as tmp:
        root = make_root(os.path.join(tmp, "root"), args.root)
        os.mkdir(root.file("debs"))
        for d in debs:
            shutil.copy(d, root.file("debs"))
        try:
            root.run("apt-get", "update", "-qq")
            # Not running, but there, so that units can be enabled and checked.
            root.run("apt-get", "install", "-y", "-qq", "--no-install-recommends", "systemd")
            for block in documented(args.docs):
                out = root.run("bash", "-euc", "cd /debs\n" + block.code)
                expect(block.expected is None or run_docs.matches(block.expected, out),
                       f"documented command prints:\n{out}")

            # What the packages made.
            passwd = root.run("getent", "passwd", "kelpd").strip().split(":")
            expect(passwd[5:] == ["/var/lib/kelpd", "/usr/sbin/nologin"], f"the user: {passwd}")
            st = os.stat(root.file("var/lib/kelpd"))
            expect(st.st_uid == int(passwd[2]) and st.st_mode & 0o7777 == 0o750, "owner and mode of the data directory")
            expect(os.readlink(root.file("var/lib/kelpd/kelpd.conf")) == "/etc/kelpd/kelpd.conf",
                   "the configuration's link")
            wants = root.file("etc/systemd/system/multi-user.target.wants/kelpd.service")
            expect(os.path.islink(wants), "the service is not enabled")
            for program in ("kelpd", "cvn", "cvnsamp"):
                head = subprocess.run(["readelf", "-Sd", root.file(f"usr/bin/{program}")], capture_output=True,
                                      text=True,
                                      check=True).stdout
                expect(not re.search(r"\((RPATH|RUNPATH)\)|\.symtab|\.debug", head),
                       f"{program}: not stripped, or with a path")
            hardening = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "hardening.py")
            p = subprocess.run([sys.executable, hardening,
                                *(root.file(f"usr/bin/{name}") for name in ("kelpd", "cvn", "cvnsamp"))],
                               stdout=subprocess.PIPE, text=True, timeout=120)
            expect(p.returncode == 0, "hardening: " + p.stdout)
            out = root.run("systemd-analyze", "verify", "--man=no", "kelpd.service", "kelpd-clean.service",
                           "kelpd-clean.timer", check=False)
            expect(not [x for x in out.splitlines() if "kelpd" in x], "systemd-analyze: " + out)

            # The unit's command as the unit's user, on a free port.
            port = free_port()
            with open(root.file("etc/kelpd/kelpd.conf"), "w") as f:
                f.write(f"port = {port}\n")
            with open(root.file("usr/lib/systemd/system/kelpd.service")) as f:
                command = re.search(r"^ExecStart=(.*)$", f.read(), re.M).group(1)
            as_user = ["setpriv", f"--reuid={passwd[2]}", f"--regid={passwd[3]}", "--clear-groups", "--no-new-privs"]
            root.run(*as_user, *command.split())
            url = f"http://127.0.0.1:{port}/v1"
            root.run("curl", "-sf", "--retry", "20", "--retry-connrefused", url)
            root.run("sh", "-ec",
                     "cd /tmp; printf 'id,name\\n1,Ada\\n2,\\n' | cvn create --schema 'id int32, name cstr' a.cvn -")
            root.run("curl", "-sf", "-T", "/tmp/a.cvn", f"{url}/home/public/pets/a.cvn")
            listing = root.run("curl", "-sf", f"{url}/home/public/pets")
            expect('"name": "a.cvn"' in listing and '"nrow": 2,' in listing, listing)
            root.run("sh", "-ec",
                     f"curl -sf -d '{{\"column\": [\"id\"]}}' {url}/home/public/pets > /tmp/scan")
            with open(root.file("tmp/scan"), "rb") as f:
                scan = f.read()
            expect(scan[:4] == b"tsrq" and scan.endswith(b"tsrq\0\0\0\0"), "the scan's records")
            root.run("sh", "-ec",
                     f"curl -sf -d '{{\"command\": [\"sample\", \"9\"]}}' {url}/home/public/pets > /tmp/sample")
            with open(root.file("tmp/sample"), "rb") as f:
                sample = f.read()
            expect(sample.endswith(b"tsrq\0\0\0\0") and b"Ada\0" in sample, "the sample's records")
            base = os.stat(root.file("var/lib/kelpd/base/home"))
            expect((base.st_uid, base.st_mode & 0o7777) == (int(passwd[2]), 0o700), "owner and mode of the tables")

            # A program against the installed library.
            root.run("sh", "-ec", "cd /debs; apt-get install -y -qq --no-install-recommends gcc libc6-dev pkg-config "
                                  "./libcolvane-dev_*.deb")
            with open(root.file("tmp/t.c"), "w") as f:
                f.write('#include <colvane/colvane.h>\n'
                        'int main(void) { cvn_filestat_t s; return cvn_filestat(&s, "/tmp/a.cvn") || s.nrow != 2; }\n')
            root.run("sh", "-ec", "cd /tmp; gcc -o t t.c $(pkg-config --cflags --libs colvane) && ./t")

            # Removed, the tables stay; purged, what is not a table goes.
            stop(root)
            root.run("dpkg", "--remove", "kelpd")
            expect(os.path.exists(root.file("var/lib/kelpd/base/home/public/pets/a.cvn")),
                   "a table is gone with the package")
            expect(not os.path.exists(root.file("usr/bin/kelpd")), "the program is still there")
            out = root.run("dpkg", "--purge", "kelpd")
            expect("files are left" in out, out)
            expect(os.listdir(root.file("var/lib/kelpd")) == ["base"], "more than tables is left")
            expect(not os.path.exists(root.file("etc/kelpd")) and not os.path.lexists(wants), "configuration is left")
            # An installation without tables leaves nothing.
            shutil.rmtree(root.file("var/lib/kelpd"))
            root.run("sh", "-ec", "dpkg -i /debs/kelpd_*.deb")
            out = root.run("dpkg", "--purge", "kelpd")
            expect(not os.path.exists(root.file("var/lib/kelpd")) and "left" not in out, out)
        finally:
            stop(root)
    print("installed, served, removed")
    return 0


if __name__ == "__main__":
    sys.exit(main())
