#!/usr/bin/env python3
"""Reads programs and archives with readelf and tells what hardening they lack.

    hardening.py FILE...

A program must be position-independent, resolve all symbols at its start and write-protect what that took, have no
segment that is both written and run, no stack that is run, and no constants among code. Where its symbols say so, or
the bytes of its code when it is stripped, it must guard its stack frames, use the checking forms of the C library and,
on x86-64, mark where indirect calls may land. An archive must show these last three in its objects.

The check is tried on itself: a program built without each of these is refused (--self-test CXX).
"""
import os
import re
import subprocess
import sys
import tempfile

GUARD = bytes.fromhex("64488b042528000000")  # mov %fs:0x28,%rax: the guard's value, as x86-64 reads it
LANDING = bytes.fromhex("f30f1efa")  # endbr64
# The C library and the compiler bring landing marks of their own, up to this many in a static program.
FOREIGN_LANDINGS = 60


def readelf(*arguments):
    return subprocess.run(["readelf", "-W", *arguments], check=True, capture_output=True, text=True,
                          env={**os.environ, "LC_ALL": "C"}, timeout=60).stdout


def has_checks(symbols):
    """Names of the C library's checking forms, such as __snprintf_chk; the stack's check is another matter."""
    return [name for name in symbols if re.fullmatch(r"_*\w+_chk", name) and name != "__stack_chk_fail"]


def symbols_of(path):
    names = set()
    for line in readelf("-s", path).splitlines():
        field = line.split()
        if len(field) >= 8 and field[0].rstrip(":").isdigit():
            names.add(field[7].partition("@")[0])
    return names


def lacks_of_program(path):
    lacks = []
    header, segments, sections, dynamic = (readelf(o, path) for o in ("-h", "-l", "-S", "-d"))
    if not re.search(r"Type:\s+DYN", header) or not re.search(r"FLAGS_1\).*\bPIE\b", dynamic):
        lacks.append("not position-independent")
    if not re.search(r"^\s+GNU_RELRO\s", segments, re.M):
        lacks.append("no read-only relocations")
    # A static program has no symbols left to resolve; what says so for the others may stand in two places.
    if not re.search(r"\(BIND_NOW\)|FLAGS\).*BIND_NOW|FLAGS_1\).*\bNOW\b", dynamic):
        lacks.append("symbols resolved late")
    stack = re.search(r"^\s+GNU_STACK\s+\S+\s+\S+\s+\S+\s+\S+\s+\S+\s+([RWE ]{3})", segments, re.M)
    if not stack or "E" in stack[1]:
        lacks.append("a stack that can be run")
    loads = [(int(m[1], 16), int(m[2], 16), m[3]) for m in re.finditer(
        r"^\s+LOAD\s+\S+\s+(0x\w+)\s+\S+\s+\S+\s+(0x\w+)\s+([RWE ]{3})", segments, re.M)]
    if not loads or any("W" in flags and "E" in flags for _, _, flags in loads):
        lacks.append("a segment that is both written and run")
    constants = [(m[1], int(m[2], 16)) for m in re.finditer(
        r"\]\s+(\.rodata\S*|\.eh_frame\S*)\s+\S+\s+(\w+)", sections)]
    if not any(name.startswith(".rodata") for name, _ in constants):
        lacks.append("no constants found")
    for name, address in constants:
        if any(begin <= address < begin + size and "E" in flags for begin, size, flags in loads):
            lacks.append(f"{name} among code")
    with open(path, "rb") as f:
        data = f.read()
    symbols = symbols_of(path)
    is_static = "INTERP" not in segments
    if is_static and ".symtab" not in sections:
        if "X86-64" in header and GUARD not in data:
            lacks.append("no guarded stack frame")
    else:
        if "__stack_chk_fail" not in symbols:
            lacks.append("no guarded stack frame")
        if not has_checks(symbols):
            lacks.append("none of the C library's checking forms")
    if "X86-64" in header and data.count(LANDING) <= (FOREIGN_LANDINGS if is_static else 6):
        lacks.append("calls may land anywhere")
    return lacks


def lacks_of_archive(path):
    lacks = []
    symbols = symbols_of(path)
    if "__stack_chk_fail" not in symbols:
        lacks.append("no guarded stack frame")
    if not has_checks(symbols):
        lacks.append("none of the C library's checking forms")
    members = len(re.findall(r"^File: ", readelf("-h", path), re.M))
    if "X86-64" in readelf("-h", path) and readelf("-n", path).count("IBT") != members:
        lacks.append("members whose calls may land anywhere")
    return lacks


def lacks_of(path):
    with open(path, "rb") as f:
        magic = f.read(8)
    if magic == b"!<arch>\n":
        return lacks_of_archive(path)
    if magic[:4] == b"\x7fELF":
        return lacks_of_program(path)
    return ["neither a program nor an archive"]


def self_test(cxx):
    """Each property is taken away in turn, and must be missed then, and only then."""
    source = """#include <stdio.h>
#include <string.h>
int f(int i) { return i + 1; } int g(int i) { return i; } int h(int i) { return i - 1; } int k(int i) { return -i; }
int (*volatile table[])(int) = {f, g, h, k, f, g, h};
int main(int argc, char** argv) {
    char buf[64];
    memset(buf, 0, sizeof(buf));
    strncpy(buf, argv[argc - 1], sizeof(buf) - 1);
    printf("a constant %s %d\\n", buf, table[argc & 3](1));
}
"""
    good = ["-O2", "-fPIE", "-pie", "-fstack-protector-strong", "-U_FORTIFY_SOURCE", "-D_FORTIFY_SOURCE=2",
            "-Wl,-z,relro", "-Wl,-z,now", "-Wl,-z,separate-code", "-w"]
    bad = []
    with tempfile.TemporaryDirectory() as work:
        with open(os.path.join(work, "t.cpp"), "w", encoding="ascii") as f:
            f.write(source)

        def check(more, missed):
            subprocess.run([cxx, *good, *more, "t.cpp", "-o", "t"], cwd=work, check=True, timeout=60)
            found = lacks_of(os.path.join(work, "t"))
            if (missed is None and found) or (missed is not None and missed not in found):
                bad.append(f"{more}: {missed!r} expected, found {found}")

        landing = [] if "x86_64" not in os.uname().machine else ["-fcf-protection"]
        check(landing, None)
        check([*landing, "-no-pie", "-fno-pie"], "not position-independent")
        check([*landing, "-Wl,-z,norelro"], "no read-only relocations")
        check([*landing, "-Wl,-z,lazy"], "symbols resolved late")
        check([*landing, "-Wl,-z,execstack"], "a stack that can be run")
        check([*landing, "-Wl,-z,noseparate-code"], ".rodata among code")
        check([*landing, "-fno-stack-protector"], "no guarded stack frame")
        check([*landing, "-U_FORTIFY_SOURCE"], "none of the C library's checking forms")
        if landing:
            check(["-fcf-protection=none"], "calls may land anywhere")
    return bad


def main():
    if sys.argv[1:2] == ["--self-test"]:
        bad = self_test(sys.argv[2])
    else:
        bad = [f"{path}: {lack}" for path in sys.argv[1:] for lack in lacks_of(path)]
        if len(sys.argv) < 2:
            bad = ["no program named"]
    print("\n".join(bad) or f"{len(sys.argv) - 1} are hardened")
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main())
