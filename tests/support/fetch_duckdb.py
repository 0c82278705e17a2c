#!/usr/bin/env python3
"""Fetches the shared library that the Arrow tests load: fetch_duckdb.py FOLDER LIBRARY. Status 77: it cannot be had."""
import os
import shutil
import subprocess
import sys

PACKAGE = "@duckdb/node-bindings-linux-x64@1.5.6-r.1"


def main():
    folder, library = sys.argv[1:3]
    if os.path.exists(library):
        return 0
    if not shutil.which("npm"):
        print("skipped: there is no npm to fetch", PACKAGE, "with")
        return 77
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, "package.json"), "w") as f:
        f.write('{"private": true}\n')
    try:
        done = subprocess.run(["npm", "install", "--no-audit", "--no-fund", "--no-save", PACKAGE], cwd=folder,
                              timeout=240)
    except subprocess.TimeoutExpired:
        print("skipped: npm did not finish")
        return 77
    if done.returncode != 0 or not os.path.exists(library):
        print("skipped: npm could not install", PACKAGE)
        return 77
    return 0


if __name__ == "__main__":
    sys.exit(main())
