#!/usr/bin/env python3
"""Runs every command and every program of a document and compares what they print with what the document says.

A fenced block marked `sh` is run by bash, all blocks of a document in one shell, in a fresh directory, with the
programs under test first on the PATH. A command that fails fails the document. A block marked `text` right after it
holds the expected output (both streams): `...` stands for anything within a line, and for any lines on a line of its
own. A further word in the mark says where a block is run instead:

    sh needs=PROGRAM            only where that program is there; the document is reported as skipped otherwise
    sh needs=PROGRAM:COMMAND    only where the program has that command
    sh package                  in a clean root with the Debian packages, by the packages' own test

A block marked `c` or `cpp` is a whole program: it is compiled against the installed library without a warning, run, and
the data files that it makes are verified. `many=N` names the number in it that stands for the rows of a file; it is run
again with a large one in its place, so that files are written before they are closed. Of a manual page, what is
displayed literally below EXAMPLES is run: as `c` in section 3, as `sh` elsewhere.

With --full-disk nothing may fail in silence. Each `sh` block that changes a file is run once more where no file can
grow: it must fail and say something, or leave and print the same as without the limit. Each program is run where its files can only grow so
far, and where they lie on a full device: it must fail and name the file.

The documents use the port 8642, and 8643 for what stands in front of the daemon; free ones take their place in commands
and in expected output. The port of the packaged service must not stand in a command: it would reach that service.
"""
import argparse
import ctypes
import difflib
import glob
import os
import re
import resource
import shutil
import signal
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))

from kelpd_proc import children_of, free_port  # noqa: E402

SKIPPED = 77
PACKAGED_PORT = "7070"
PORT, FRONT_PORT = "8642", "8643"
FENCE = re.compile(r"^```(\S*)[ \t]*(.*?)\n(.*?)^```\n", re.M | re.S)
DISPLAY = re.compile(r"^\.Bd -literal.*?\n(.*?)^\.Ed\n", re.M | re.S)
MANY = 3000000


class Block:
    def __init__(self, line, kind, words, code):
        self.line, self.kind, self.words, self.code, self.expected = line, kind, words, code, None

    def word(self, name):
        """What follows `name=` in the mark; None without one."""
        found = [w[len(name) + 1:] for w in self.words if w.startswith(name + "=")]
        return found[0] if found else None


def unescaped(line):
    """A literal line of a manual page."""
    return line.replace("\\(dq", '"').replace("\\(aq", "'").replace("\\-", "-").replace("\\&", "").replace("\\e", "\\")


def manual_blocks(path, text):
    examples = text.index(".Sh EXAMPLES")
    end = text.find("\n.Sh ", examples + 1)
    kind = "c" if path.endswith(".3") else "sh"
    return [Block(text.count("\n", 0, m.start()) + 1, kind, [], unescaped(m.group(1)))
            for m in DISPLAY.finditer(text, examples, end + 1 if end > 0 else len(text))]


def blocks_of(path):
    """The blocks of a document that are run, in order, each with the `text` block that follows it, if one does."""
    with open(path, encoding="utf-8") as f:
        text = f.read()
    if re.search(r"\.\d$", path):
        return manual_blocks(path, text)
    blocks, end = [], None
    for m in FENCE.finditer(text):
        kind, words, body = m.group(1), m.group(2).split(), m.group(3)
        if kind in ("sh", "c", "cpp"):
            blocks.append(Block(text.count("\n", 0, m.start()) + 1, kind, words, body))
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
    """Ports that nothing listens on."""
    found = []
    while len(found) < count:
        port = str(free_port())
        if port not in found:
            found.append(port)
    return found


def stop_children():
    """Stops what the commands left running, by process id."""
    end = time.monotonic() + 20
    while time.monotonic() < end:
        left = children_of(os.getpid())
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


def ignore_size_signal():
    """A file that may not grow is to be an error, as on a full disk, and no signal."""
    signal.signal(signal.SIGXFSZ, signal.SIG_IGN)


def there(need, programs):
    program, _, command = need.partition(":")
    tested = [p for p in programs if os.path.basename(p) == program]
    path = tested[0] if tested else shutil.which(program, path=os.environ.get("PATH", "") + ":/usr/sbin:/sbin")
    if not path:
        return False
    text = subprocess.run([path, "--help"], stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=60).stdout
    return not command or re.search(rf"^  {command}\b", text, re.M) is not None


def changes(left, k):
    """What block `k` did to the files, as lines: what is gone and what is there."""
    old, new = set(left[k - 1].splitlines(True) if k else []), set(left[k].splitlines(True))
    return ["gone " + line for line in sorted(old - new)] + ["made " + line for line in sorted(new - old)]


class Runner:
    def __init__(self, document, args):
        self.document, self.args = document, args
        self.port = dict(zip((PORT, FRONT_PORT), free_ports(2)))
        self.failed = 0

    def placed(self, text):
        return re.sub(rf"\b({PORT}|{FRONT_PORT})\b", lambda m: self.port[m.group()], text)

    def fail(self, block, what, detail=""):
        self.failed += 1
        print(f"{self.document}:{block.line}: {what}")
        if detail:
            print(detail.rstrip("\n"))

    # Commands.

    def run_blocks(self, blocks, limited=False):
        """Runs blocks, with `limited` the last one where no file can grow. Returns the status, the blocks' outputs as
        far as they ran, and the files (names and sizes) that each of them left."""
        with tempfile.TemporaryDirectory(prefix="kelpd-docs-") as tmp:
            bindir, outdir, work = (os.path.join(tmp, d) for d in ("bin", "out", "work"))
            for d in (bindir, outdir, work):
                os.mkdir(d)
            for program in self.args.program:
                os.symlink(os.path.abspath(program), os.path.join(bindir, os.path.basename(program)))
            script = ["set -eu -o pipefail"]
            for i, b in enumerate(blocks):
                code = f"{{\n{self.placed(b.code)}\n}}"
                # What a block prints goes through a pipe, since its file could not grow either.
                script.append(f"(\nulimit -f 0\n{code}\n) 2>&1 </dev/null | cat >{outdir}/{i}"
                              if limited and i == len(blocks) - 1 else f"{code} >{outdir}/{i} 2>&1 </dev/null")
                script.append(f"(cd {work}; find . -type f -not -path '*/log/*' -printf '%p %s\\n') |"
                              f" sort >{outdir}/{i}.left")
            env = {"PATH": f"{bindir}:{os.environ['PATH']}:/usr/sbin:/sbin", "HOME": work, "LC_ALL": "C.UTF-8",
                   "TZ": "UTC", "TMPDIR": tmp}
            for name in ("ASAN_OPTIONS", "UBSAN_OPTIONS"):
                if name in os.environ:
                    env[name] = os.environ[name]
            status = subprocess.run(["bash", "-c", "\n".join(script)], cwd=work, env=env, stdin=subprocess.DEVNULL,
                                    preexec_fn=ignore_size_signal, timeout=300).returncode
            stop_children()
            output, left = [], []
            for i in range(len(blocks)):
                for name, to in ((f"{outdir}/{i}", output), (f"{outdir}/{i}.left", left)):
                    if os.path.exists(name):
                        with open(name, encoding="utf-8", errors="replace") as f:
                            to.append(f.read())
        return status, output, left

    def run_commands(self, blocks):
        for b in blocks:
            if re.search(rf"\b{PACKAGED_PORT}\b", b.code):
                self.fail(b, f"uses port {PACKAGED_PORT}, which is the packaged service's")
        status, output, left = self.run_blocks(blocks)
        for i, out in enumerate(output):
            b = blocks[i]
            if status != 0 and i == len(output) - 1:
                self.fail(b, f"failed with status {status}:", self.placed(b.code) + out)
            elif b.expected is not None and not matches(self.placed(b.expected), out):
                self.fail(b, "prints something else than the document says:", "".join(difflib.unified_diff(
                    self.placed(b.expected).splitlines(True), out.splitlines(True), "document", "printed")))
        if status != 0 and not output:
            self.failed += 1
        if self.failed or not self.args.full_disk:
            return
        for k, b in enumerate(blocks):
            changed = changes(left, k)
            if not changed:
                continue
            status, output, left_now = self.run_blocks(blocks[:k + 1], limited=True)
            if len(output) <= k:
                self.fail(b, "what goes before it does not run again", "".join(output[-1:]))
            elif status != 0:
                if not output[k].strip():
                    self.fail(b, f"fails without a word on a full disk, with status {status}")
            elif changes(left_now, k) != changed:
                self.fail(b, "succeeds on a full disk, but leaves other files:", "".join(difflib.unified_diff(
                    changed, changes(left_now, k), "enough room", "full disk")))
            elif b.expected is not None and not matches(self.placed(b.expected), output[k]):
                self.fail(b, "succeeds on a full disk, but prints:", output[k])

    # Programs.

    def compiled(self, block, code, work):
        """The path of the program, or None when it does not compile."""
        args, program = self.args, os.path.join(work, "program")
        found = glob.glob(os.path.join(args.prefix, "**", "pkgconfig", "colvane.pc"), recursive=True)
        flags = ["--cflags", "--libs"]
        if not glob.glob(os.path.join(args.prefix, "**", "libcolvane.so"), recursive=True):
            flags.append("--static")
        env = {**os.environ, "PKG_CONFIG_PATH": os.path.dirname(found[0])}
        flags = subprocess.run(["pkg-config", *flags, "colvane"], check=True, stdout=subprocess.PIPE, text=True,
                               timeout=60, env=env).stdout.split()
        flags += ["-Wl,-rpath," + f[2:] for f in flags if f.startswith("-L")]
        flags += ["-fsanitize=" + args.sanitize] if args.sanitize else []
        compiler = [args.cc, "-std=c11", "-x", "c"] if block.kind == "c" else [args.cxx, "-std=c++17", "-x", "c++"]
        warnings = ["-Wall", "-Wextra", "-pedantic", "-Werror"]
        done = subprocess.run([*compiler, *warnings, "-o", program, "-", "-x", "none", *flags], input=code, text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=300)
        if done.returncode != 0:
            self.fail(block, "does not compile:", done.stdout)
            return None
        return program

    def start(self, program, limit=None, full=()):
        """Runs a program in a fresh directory, in which the names `full` lead to a full device. Returns the process
        with its output and the sizes of the files that it left."""
        def prepare():
            ignore_size_signal()
            if limit is not None:
                resource.setrlimit(resource.RLIMIT_FSIZE, (limit, limit))

        with tempfile.TemporaryDirectory(prefix="kelpd-docs-") as work:
            for name in full:
                os.symlink("/dev/full", os.path.join(work, name))
            done = subprocess.run([program], cwd=work, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True,
                                  stderr=subprocess.STDOUT, preexec_fn=prepare, timeout=120)
            done.left = {n: os.path.getsize(os.path.join(work, n)) for n in sorted(os.listdir(work))
                         if not os.path.islink(os.path.join(work, n))}
            done.bad = [n for n in done.left if n.endswith(".cvn") and self.verify(os.path.join(work, n)) != 0]
        return done

    def verify(self, path):
        cvn = [p for p in self.args.program if os.path.basename(p) == "cvn"]
        return subprocess.run([cvn[0] if cvn else "cvn", "verify", path], stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL, timeout=120).returncode

    def run_program(self, block):
        codes = [block.code]
        if block.word("many"):
            code, n = re.subn(rf"\b{block.word('many')}\b", str(MANY), block.code)
            if n == 0:
                self.fail(block, f"there is no {block.word('many')} in it")
            codes.append(code)
        for code in codes:
            with tempfile.TemporaryDirectory(prefix="kelpd-docs-") as work:
                program = self.compiled(block, code, work)
                if not program:
                    return
                self.run_compiled(block, program)

    def run_compiled(self, block, program):
        done = self.start(program)
        if done.returncode != 0 or done.bad or not done.left:
            self.fail(block, f"ends with status {done.returncode}, leaves {done.left}, damaged {done.bad}:",
                      done.stdout)
            return
        if block.expected is not None and not matches(block.expected, done.stdout):
            self.fail(block, "prints something else than the document says:", done.stdout)
        if not self.args.full_disk:
            return
        for name, size in done.left.items():
            tries = [(f"with {name} on a full device", self.start(program, full=[name]))]
            for limit in sorted({0, 1, size // 2, size - 1}):
                tries.append((f"with room for {limit} of {size} bytes", self.start(program, limit=limit)))
            for what, got in tries:
                if got.returncode <= 0 or name not in got.stdout or "\n" not in got.stdout:
                    self.fail(block, f"{what}: ends with status {got.returncode} and says: {got.stdout!r}")
                if name in got.left:
                    self.fail(block, f"{what}: leaves {got.left}")

    def run(self):
        blocks = [b for b in blocks_of(self.document) if "package" not in b.words]
        missing = {b.word("needs") for b in blocks if b.word("needs")}
        missing = {p for p in missing if not there(p, self.args.program)}
        skipped = [b for b in blocks if b.word("needs") in missing]
        blocks = [b for b in blocks if b not in skipped]
        if not blocks:
            print(f"{self.document}: no commands to run")
            return SKIPPED if skipped else 1
        commands = [b for b in blocks if b.kind == "sh"]
        if commands:
            before = [Block(0, "sh", [], self.args.before)] if self.args.before else []
            self.run_commands(before + commands)
        for b in blocks:
            if b.kind != "sh":
                self.run_program(b)
        print(f"{self.document}: {len(blocks)} blocks, {self.failed} failed, {len(skipped)} skipped" +
              (f" for want of {', '.join(sorted(missing))}" if skipped else ""))
        return 1 if self.failed else SKIPPED if skipped else 0


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("document")
    parser.add_argument("--program", action="append", default=[], help="a program under test, found by its name")
    parser.add_argument("--before", help="commands that a document takes for granted")
    parser.add_argument("--full-disk", action="store_true", help="see to it that nothing fails in silence")
    parser.add_argument("--prefix", help="where the library is installed, for programs")
    parser.add_argument("--cc", default="cc")
    parser.add_argument("--cxx", default="c++")
    parser.add_argument("--sanitize", default="", help="what the library was built with")
    args = parser.parse_args()
    # Daemons leave their launcher behind; as the reaper of orphans this process finds them again.
    if ctypes.CDLL(None, use_errno=True).prctl(36, 1, 0, 0, 0) != 0:
        raise OSError(ctypes.get_errno(), "prctl")
    return Runner(args.document, args).run()


if __name__ == "__main__":
    sys.exit(main())
