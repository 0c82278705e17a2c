#!/usr/bin/env python3
"""Builds and runs the consumer project against an installed colvane, through find_package or through pkg-config.

Exit status 0 when all three programs (C11, C++17, C++20) compile without a warning, link, and print "ok".
"""
import argparse
import glob
import os
import shutil
import subprocess
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
WARNINGS = ["-Wall", "-Wextra", "-pedantic", "-Werror"]


def run(argv, **kwargs):
    print("+", " ".join(argv), flush=True)
    done = subprocess.run(argv, timeout=300, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, **kwargs)
    print(done.stdout, end="", flush=True)
    if done.returncode != 0:
        sys.exit("failed with status %d" % done.returncode)
    return done.stdout


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("way", choices=["find_package", "pkg_config"])
    for option in ("prefix", "work", "cc", "cxx"):
        parser.add_argument("--" + option, required=True)
    parser.add_argument("--sanitize", default="")
    args = parser.parse_args()
    shutil.rmtree(args.work, ignore_errors=True)
    os.makedirs(args.work)
    # A library that was built with sanitizers asks for them at link time as well.
    sanitize = ["-fsanitize=" + args.sanitize] if args.sanitize else []
    programs = ["consumer_c11", "consumer_cxx17", "consumer_cxx20"]

    headers = sorted(os.path.basename(h) for h in glob.glob(args.prefix + "/include/colvane/*"))
    # The client's headers stand beside the library's when libcurl was there to build it.
    expected = ["colvane.h", "dec.h", "fadvise.h", "mpool.h", "vec.h"]
    if [h for h in headers if h not in ("arrow.h", "client.h")] != expected:
        sys.exit("installed headers: %s" % headers)

    if args.way == "find_package":
        run(["cmake", "-S", HERE + "/project", "-B", args.work, "-DCMAKE_PREFIX_PATH=" + args.prefix,
             "-DCMAKE_C_COMPILER=" + args.cc, "-DCMAKE_CXX_COMPILER=" + args.cxx,
             "-DCMAKE_EXE_LINKER_FLAGS=" + " ".join(sanitize)])
        run(["cmake", "--build", args.work])
    else:
        found = glob.glob(args.prefix + "/**/pkgconfig/colvane.pc", recursive=True)
        if len(found) != 1:
            sys.exit("installed colvane.pc: %s" % found)
        env = dict(os.environ, PKG_CONFIG_PATH=os.path.dirname(found[0]))
        flags = ["--cflags", "--libs"]
        if not glob.glob(args.prefix + "/**/libcolvane.so", recursive=True):
            flags.append("--static")
        flags = run(["pkg-config", *flags, "colvane"], env=env).split()
        lib = [f[2:] for f in flags if f.startswith("-L")]
        flags += ["-Wl,-rpath," + d for d in lib]
        for program, compiler, source, standard in (("consumer_c11", args.cc, "consumer.c", "-std=c11"),
                                                    ("consumer_cxx17", args.cxx, "consumer.cpp", "-std=c++17"),
                                                    ("consumer_cxx20", args.cxx, "consumer.cpp", "-std=c++20")):
            run([compiler, standard, *WARNINGS, "-o", os.path.join(args.work, program),
                 os.path.join(HERE, "project", source), *flags, *sanitize])
    for program in programs:
        if run([os.path.join(args.work, program), os.path.join(args.work, program + ".cvn")]) != "ok\n":
            sys.exit(program + " does not print ok")


if __name__ == "__main__":
    main()
