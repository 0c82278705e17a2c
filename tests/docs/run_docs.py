#!/usr/bin/env python3
"""Runs every command of a document and compares what it prints with what the document says.

A fenced block marked `sh` is run by bash, all blocks of a document in one shell, in a fresh directory, with the
programs under test first on the PATH. A command that fails fails the document. A block marked `text` right behind it
holds the expected output (both streams): `...` stands for anything within a line, and for any lines on a line of its
own. A further word in the mark says where a block is run instead:

    sh needs=PROGRAM            only where that program is there; the document is reported as skipped otherwise
    sh needs=PROGRAM:COMMAND    only where the program has that command
    sh package                  in a clean root with the Debian packages, by the packages' own test

The documents use the port 7070; a free one takes its place in commands and in expected output.
"""
import argparse
import ctypes
import difflib
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time

SKIPPED = 77
FENCE = re.compile(r"^```(\S*)[ \t]*(.*?)\n(.*?)^```\n", re.M | re.S)


class Block:
    def __init__(self, line, words, code):
        self.line, self.words, self.code, self.expected = line, words, code, None


def blocks_of(path):
    """The `sh` blocks of a document in order, each with the `text` block that follows it, if one does."""
    with open(path, encoding="utf-8") as f:
        text = f.read()
    blocks, end = [], None
    for m in FENCE.finditer(text):
        kind, words, body = m.group(1), m.group(2).split(), m.group(3)
        if kind == "sh":
            blocks.append(Block(text.count("\n", 0, m.start()) + 1, words, body))
            end = m.end()
        elif kind == "text" and blocks and blocks[-1].expected is None and not text[end:m.start()].strip():
            blocks[-1].expected = body
    return blocks


def pattern(expected):
    """The regular expression that the lines of an expected output stand for."""
    parts = []
    for line in expected.splitlines():
        if line.strip() == "...":
            parts.append(r"(?:.*\n)*?")
        else:
            parts.append(".*?".join(re.escape(p) for p in line.split("...")) + r"[ \t]*\n")
    return re.compile("".join(parts) + r"\Z")


def matches(expected, output):
    if output and not output.endswith("\n"):
        output += "\n"
    return pattern(expected).match(output) is not None


def free_ports(count):
    """Ports that nothing listens on: for 7070, and for 7071, which stands in front of the daemon."""
    found = []
    for port in range(20000 + os.getpid() % 5000, 32000):
        with socket.socket() as s:
            try:
                s.bind(("127.0.0.1", port))
            except OSError:
                continue
        found.append(str(port))
        if len(found) == count:
            return found
    raise RuntimeError("no free port")


def children():
    """The processes whose parent is this one: orphans of the documents' commands among them."""
    me, found = os.getpid(), []
    for name in os.listdir("/proc"):
        if name.isdigit():
            try:
                with open(f"/proc/{name}/stat") as f:
                    fields = f.read().rpartition(")")[2].split()
                if int(fields[1]) == me:
                    found.append(int(name))
            except OSError:
                pass
    return found


def stop_children():
    """Stops what the commands left running, by process id."""
    end = time.monotonic() + 20
    while time.monotonic() < end:
        left = children()
        if not left:
            return
        for pid in left:
            try:
                os.kill(pid, signal.SIGTERM)
                os.waitpid(pid, os.WNOHANG)
            except (ProcessLookupError, ChildProcessError):
                pass
        time.sleep(0.05)
    raise RuntimeError("a daemon does not end")


def there(need, programs):
    program, _, command = need.partition(":")
    tested = [p for p in programs if os.path.basename(p) == program]
    path = tested[0] if tested else shutil.which(program, path=os.environ.get("PATH", "") + ":/usr/sbin:/sbin")
    if not path:
        return False
    text = subprocess.run([path, "--help"], stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=60).stdout
    return not command or re.search(rf"^  {command}\b", text, re.M) is not None


def run(document, programs):
    blocks = [b for b in blocks_of(document) if "package" not in b.words]
    missing = {w[6:] for b in blocks for w in b.words if w.startswith("needs=")}
    missing = {p for p in missing if not there(p, programs)}
    skipped = [b for b in blocks if any(w.startswith("needs=") and w[6:] in missing for w in b.words)]
    blocks = [b for b in blocks if b not in skipped]
    if not blocks:
        print(f"{document}: no commands to run")
        return SKIPPED if skipped else 1
    port = free_ports(2)

    def placed(text):
        return text.replace("7070", port[0]).replace("7071", port[1])

    failed = 0
    with tempfile.TemporaryDirectory(prefix="kelpd-docs-") as tmp:
        bindir, outdir, work = (os.path.join(tmp, d) for d in ("bin", "out", "work"))
        for d in (bindir, outdir, work):
            os.mkdir(d)
        for program in programs:
            os.symlink(os.path.abspath(program), os.path.join(bindir, os.path.basename(program)))
        script = ["set -eu -o pipefail"]
        for i, b in enumerate(blocks):
            script.append(f"{{\n{placed(b.code)}\n}} >{outdir}/{i} 2>&1 </dev/null")
        env = {"PATH": f"{bindir}:{os.environ['PATH']}:/usr/sbin:/sbin", "HOME": work, "LC_ALL": "C.UTF-8", "TZ": "UTC",
               "TMPDIR": tmp}
        for name in ("ASAN_OPTIONS", "UBSAN_OPTIONS"):
            if name in os.environ:
                env[name] = os.environ[name]
        status = subprocess.run(["bash", "-c", "\n".join(script)], cwd=work, env=env, stdin=subprocess.DEVNULL,
                                timeout=300).returncode
        stop_children()
        ran = sorted(int(n) for n in os.listdir(outdir))
        for i in ran:
            with open(f"{outdir}/{i}", encoding="utf-8", errors="replace") as f:
                output = f.read()
            b = blocks[i]
            if status != 0 and i == ran[-1]:
                failed += 1
                print(f"{document}:{b.line}: failed with status {status}:\n{placed(b.code)}{output}")
            elif b.expected is not None and not matches(placed(b.expected), output):
                failed += 1
                print(f"{document}:{b.line}: prints something else than the document says:")
                sys.stdout.writelines(difflib.unified_diff(placed(b.expected).splitlines(True), output.splitlines(True),
                                                           "document", "printed"))
        if status != 0 and not ran:
            failed += 1
    print(f"{document}: {len(blocks)} blocks, {failed} failed, {len(skipped)} skipped" +
          (f" for want of {', '.join(sorted(missing))}" if skipped else ""))
    return 1 if failed else SKIPPED if skipped else 0


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("document")
    parser.add_argument("--program", action="append", default=[], help="a program under test, found by its name")
    args = parser.parse_args()
    # Daemons leave their launcher behind; as the reaper of orphans this process finds them again.
    if ctypes.CDLL(None, use_errno=True).prctl(36, 1, 0, 0, 0) != 0:
        raise OSError(ctypes.get_errno(), "prctl")
    return run(args.document, args.program)


if __name__ == "__main__":
    sys.exit(main())
