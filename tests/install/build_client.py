#!/usr/bin/env python3
"""Builds a program against the installed client library, through find_package or through pkg-config, and runs it:
against a daemon of its own, against a port where nothing listens, and where its file cannot grow.

Exit status 0 when it compiles without a warning, links, and prints what it must; 77 when the client is not installed.
"""
import argparse
import glob
import os
import resource
import shutil
import signal
import subprocess
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "support"))

ROWS = "".join("%d %s\n" % (i, "NULL" if i % 10 == 3 else "row %d" % i) for i in range(990, 1000) if i != 995)
EXPECTED = "1000 rows\n" + ROWS + "id l\nprice d:38,2\nnote u\n1000 rows\nremoved: code -8\n"


def run(argv, status=0, **kwargs):
    print("+", " ".join(argv), flush=True)
    done = subprocess.run(argv, timeout=600, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, **kwargs)
    print(done.stdout, end="", flush=True)
    if done.returncode != status:
        sys.exit("ends with status %d, not %d" % (done.returncode, status))
    return done.stdout


def full_disk():
    """No file can grow any more, which is an error and no signal."""
    signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
    resource.setrlimit(resource.RLIMIT_FSIZE, (0, 0))


def build(args, sanitize):
    program = os.path.join(args.work, "table")
    if args.way == "find_package":
        run(["cmake", "-S", HERE + "/client_project", "-B", args.work, "-DCMAKE_PREFIX_PATH=" + args.prefix,
             "-DCMAKE_CXX_COMPILER=" + args.cxx, "-DCMAKE_EXE_LINKER_FLAGS=" + " ".join(sanitize)])
        run(["cmake", "--build", args.work])
        return program
    found = glob.glob(args.prefix + "/**/pkgconfig/colvane-client.pc", recursive=True)
    if len(found) != 1:
        sys.exit("installed colvane-client.pc: %s" % found)
    env = dict(os.environ, PKG_CONFIG_PATH=os.path.dirname(found[0]))
    flags = run(["pkg-config", "--cflags", "--libs", "colvane-client"], env=env).split()
    flags += ["-Wl,-rpath," + f[2:] for f in flags if f.startswith("-L")]
    run([args.cxx, "-std=c++20", "-Wall", "-Wextra", "-pedantic", "-Werror", "-o", program,
         HERE + "/client_project/table.cpp", *flags, *sanitize])
    return program


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("way", choices=["find_package", "pkg_config"])
    for option in ("prefix", "work", "cxx", "kelpd"):
        parser.add_argument("--" + option, required=True)
    parser.add_argument("--sanitize", default="")
    args = parser.parse_args()
    if not os.path.exists(args.prefix + "/include/colvane/client.h"):
        print("the client is not installed: it was built without libcurl")
        sys.exit(77)
    shutil.rmtree(args.work, ignore_errors=True)
    os.makedirs(args.work)
    # A library that was built with sanitizers asks for them at link time as well.
    program = build(args, ["-fsanitize=" + args.sanitize] if args.sanitize else [])

    os.environ["KELPD"] = args.kelpd
    import kelpd_proc  # reads KELPD
    said = run([program, "kelp://127.0.0.1:%d/shop/public/orders/p.cvn" % kelpd_proc.free_port(),
                os.path.join(args.work, "p.cvn")], status=1)
    if "upload: code -4: cannot connect to 127.0.0.1:" not in said or "Connection refused" not in said:
        sys.exit("a refused connection is not reported as one")
    path = os.path.join(args.work, "p.cvn")
    said = run([program, "kelp://127.0.0.1:1/shop/public/orders/p.cvn", path], status=1, preexec_fn=full_disk)
    if said != "table: %s: code -3: File too large\n" % path or os.path.exists(path):
        sys.exit("a file that cannot be written is not reported as one, or left")
    daemon = kelpd_proc.Daemon().start()
    try:
        said = run([program, "kelp://127.0.0.1:%d/shop/public/orders" % daemon.port,
                    os.path.join(args.work, "p.cvn")])
        if said != EXPECTED:
            sys.exit("prints\n%sinstead of\n%s" % (said, EXPECTED))
        if daemon.sanitizer_reports():
            sys.exit(daemon.sanitizer_reports())
    finally:
        daemon.cleanup()


if __name__ == "__main__":
    main()
