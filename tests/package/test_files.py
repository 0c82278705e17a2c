#!/usr/bin/env python3
"""Checks the manual pages with mandoc, the completions with their shells and the scripts with shellcheck, where these
are installed."""
import glob
import os
import re
import shutil
import subprocess
import sys


def output(*command):
    p = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                       timeout=60)
    return p.returncode, p.stdout


def main():
    packaging = sys.argv[1]
    root = os.path.join(packaging, "..")
    bad, checked, missing = [], 0, []
    pages = sorted(glob.glob(os.path.join(packaging, "man", "*.[1-8]")))
    names = {os.path.basename(p) for p in pages}
    if names != {"kelpd.8", "kelpd.conf.5", "cvn.1", "cvnsamp.1", "colvane.3", "cvn.5"}:
        bad.append(f"manual pages: {sorted(names)}")
    for page in pages:
        with open(page) as f:
            text = f.read()
        # References among the pages; mandoc looks for them among the installed ones only.
        for name, section in re.findall(r"^\.Xr (\S+) (\d)", text, re.M):
            if f"{name}.{section}" not in names:
                bad.append(f"{page}: refers to {name}({section}), which is not there")
    for tool, files, command in [
        ("mandoc", pages, ["mandoc", "-Tlint", "-W", "style"]),
        ("bash", glob.glob(os.path.join(packaging, "completions", "*.bash")), ["bash", "-n"]),
        ("zsh", glob.glob(os.path.join(packaging, "completions", "_*")), ["zsh", "-n"]),
        ("sh", glob.glob(os.path.join(packaging, "debian", "p*")), ["sh", "-n"]),
        ("shellcheck", glob.glob(os.path.join(root, "scripts", "*")) +
         [os.path.join(root, ".ci", "run"), os.path.join(packaging, "build_packages"),
          os.path.join(packaging, "kelpd-clean")], ["shellcheck"]),
    ]:
        if not shutil.which(tool):
            missing.append(tool)
            continue
        if not files:
            bad.append(f"nothing for {tool}")
        for file in files:
            _, out = output(*command, file)
            out = "".join(x for x in out.splitlines(True) if "referenced manual not found" not in x)
            checked += 1
            if out.strip():
                bad.append(out)
    script = f'. {packaging}/completions/cvn.bash; COMP_WORDS=(cvn c); COMP_CWORD=1; _cvn; echo "${{COMPREPLY[*]}}"'
    _, out = output("bash", "-c", script)
    if out.split() != ["create", "cat", "count"]:
        bad.append(f"completion of 'cvn c': {out}")
    print("\n".join(bad) or f"{checked} files are clean" + (f"; {', '.join(missing)} not installed" if missing else ""))
    return 1 if bad else 77 if missing else 0


if __name__ == "__main__":
    sys.exit(main())
