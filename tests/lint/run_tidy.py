#!/usr/bin/env python3
"""Runs clang-tidy, as .clang-tidy has it, and fails when it finds something.

  scripts/tidy               all sources but the tests, benchmarks and fuzz targets
  scripts/tidy FILE...       these sources, of any kind that the dev build compiles

A source that was found clean is not looked at again until it, a header that it includes, its
compiler options, .clang-tidy or clang-tidy itself changes: build/tidy keeps a mark for each.
"""
import concurrent.futures
import hashlib
import json
import os
import shlex
import subprocess
import sys

FOLDERS = ("colvane/", "http/", "store/", "handlers/", "server/", "rows/", "clients/cpp/", "tools/", "sampler/")
DATABASE = "build/dev/compile_commands.json"
MARKS = "build/tidy"


def compile_commands():
    """Maps each source, relative to the project, to its options and the folder that they hold in."""
    if not os.path.exists(DATABASE):
        subprocess.run(["cmake", "--preset", "dev"], check=True, stdout=subprocess.DEVNULL)
    with open(DATABASE, encoding="utf-8") as f:
        entries = json.load(f)
    return {os.path.relpath(e["file"]): (shlex.split(e["command"]), e["directory"]) for e in entries}


def files_of(command, folder):
    """The files that a compilation reads, as the compiler itself lists them."""
    args = []
    words = iter(command)
    for word in words:
        if word in ("-o", "-MF", "-MT"):
            next(words)
        elif word not in ("-c", "-MD"):
            args.append(word)
    run = subprocess.run(args + ["-M"], cwd=folder, check=True, capture_output=True, text=True)
    _, _, names = run.stdout.replace("\\\n", " ").partition(": ")
    return [os.path.join(folder, name) for name in shlex.split(names)]


def digest_file(path, known={}):
    if path not in known:
        with open(path, "rb") as f:
            known[path] = hashlib.sha256(f.read()).digest()
    return known[path]


def check(source, command, folder, version):
    """Returns what clang-tidy says about a source: nothing when it is clean."""
    sums = hashlib.sha256("\0".join([version, source, *command]).encode())
    sums.update(digest_file(".clang-tidy"))
    try:
        for path in files_of(command, folder):
            sums.update(digest_file(path))
    except subprocess.CalledProcessError as e:
        return f"{source}: does not compile\n{e.stderr}"
    mark = os.path.join(MARKS, sums.hexdigest())
    if os.path.exists(mark):
        return ""
    run = subprocess.run(["clang-tidy", "--quiet", "-p", os.path.dirname(DATABASE), source],
                         capture_output=True, text=True, check=False)
    if run.returncode != 0 or run.stdout.strip():
        return run.stdout or run.stderr
    with open(mark, "w", encoding="utf-8") as f:
        f.write(source + "\n")
    return ""


def main():
    if sys.argv[1:2] in (["-h"], ["--help"]):
        print(__doc__.strip())
        return 0
    top = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")
    wanted = [os.path.relpath(name, top) for name in sys.argv[1:]]
    os.chdir(top)
    commands = compile_commands()
    for name in wanted:
        if name not in commands:
            print(f"scripts/tidy: {name} is no source of the dev build", file=sys.stderr)
            return 2
    sources = wanted or sorted(name for name in commands if name.startswith(FOLDERS))
    os.makedirs(MARKS, exist_ok=True)
    version = subprocess.run(["clang-tidy", "--version"], check=True, capture_output=True, text=True).stdout
    nbad = 0
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        jobs = [pool.submit(check, name, *commands[name], version) for name in sources]
        for job in concurrent.futures.as_completed(jobs):
            said = job.result()
            if said:
                nbad += 1
                print(said, flush=True)
    if nbad > 0:
        print(f"scripts/tidy: findings in {nbad} of {len(sources)} sources", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
