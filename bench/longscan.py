"""Reads a table of 10 GB through a daemon in one scan, with `cvn query` and with `cvn-bench query`, and reports the
peak of the client's memory (ru_maxrss). The table compresses well, so that it takes little of the disk; it lies in a
temporary folder that goes again.

    scripts/longscan                               build/release, 10 GB, 1, 2 and 4 connections
    scripts/longscan --build DIR --gb 2 --jobs 8   another build, size or number of connections

Exit status: 0 when every client stayed below the limit, 1 when one did not or something failed.
"""
import argparse
import ctypes
import os
import pathlib
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
LIMIT_MIB = 256
ROWS = 250000  # of a row group, nearly as many as fit
TEXT = "a line of text that many rows of the table repeat word for word as lines of logs do: "
SCHEMA = "id int64, at timestamp_millis, price double -z, quantity dec64 -z, state cstr -z, line cstr -z"


def run(argv, **more):
    done = subprocess.run([str(a) for a in argv], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, **more)
    if done.returncode:
        sys.exit("longscan: %s ends with status %d: %s" % (argv[0], done.returncode, done.stdout))
    return done.stdout


def xxh32(data):
    lib = ctypes.CDLL("libxxhash.so.0")
    lib.XXH32.restype = ctypes.c_uint32
    lib.XXH32.argtypes = [ctypes.c_char_p, ctypes.c_size_t, ctypes.c_uint32]
    return lib.XXH32(data, len(data), 0)


def one_group(cvn, folder):
    """A data file of one row group, as bytes."""
    rows = folder / "rows.csv"
    with open(rows, "w") as f:
        f.write("id,at,price,quantity,state,line\n")
        for i in range(ROWS):
            k = i // 64
            f.write("%d,2026-11-21T10:%02d:%02d.000Z,%d.25,%d.00,%s,%s%d\n" % (
                k, k // 60 % 60, k % 60, k % 50, k % 50, "open" if k % 3 else "closed", TEXT, k % 100))
    made = folder / "one.cvn"
    run([cvn, "create", "--schema", SCHEMA, made, rows])
    rows.unlink()
    data = made.read_bytes()
    made.unlink()
    return data


def repeat(data, path, nbyte):
    """Writes a file whose row groups are copies of the one in `data`, `nbyte` bytes or more before compression."""
    size = struct.unpack("<q", data[-16:-8])[0]
    foot = len(data) - 16 - size
    chunks, footer = data[8:foot], bytearray(data[foot:-16])
    ncol, nrow, ngroup = struct.unpack_from("<iqq", footer, 4)
    if ngroup != 1:
        sys.exit("longscan: the rows do not fit one row group")
    head = 40 + 248 * ncol
    group = bytes(footer[head:])
    raw = sum(struct.unpack_from("<i", group, 16 + 144 * c + 16)[0] for c in range(ncol))
    times = (nbyte + raw - 1) // raw
    struct.pack_into("<qq", footer, 8, nrow * times, times)
    struct.pack_into("<q", footer, 32, len(group) * times)
    records = []
    with open(path, "wb") as f:
        f.write(data[:8])
        for k in range(times):
            f.write(chunks)
            record = bytearray(group)
            for c in range(ncol):
                at = 16 + 144 * c
                struct.pack_into("<q", record, at, struct.unpack_from("<q", group, at)[0] + k * len(chunks))
            records.append(bytes(record))
        foot = bytes(footer[:head]) + b"".join(records)
        f.write(foot + struct.pack("<qI", len(foot), xxh32(foot)) + b"CVN1")
    return nrow * times, raw * times, times


def start(kelpd, folder):
    """Starts a daemon on a free port in the foreground's place, and returns its pid and port."""
    with socket.create_server(("127.0.0.1", 0)) as probe:
        port = probe.getsockname()[1]
    (folder / "kelpd.conf").write_text("port = %d\n" % port)
    run([kelpd, "-D", folder])
    for _ in range(100):
        for name in filter(str.isdigit, os.listdir("/proc")):
            try:
                if os.readlink("/proc/%s/cwd" % name) == str(folder):
                    socket.create_connection(("127.0.0.1", port), 1).close()
                    return int(name), port
            except OSError:
                pass  # not there yet, or not ours
        time.sleep(0.1)
    sys.exit("longscan: kelpd did not start; see %s" % (folder / "log"))


def measure(argv):
    """Runs a client with its output thrown away; returns seconds and the peak of its memory in MiB."""
    began = time.monotonic()
    with open(os.devnull, "wb") as null:
        child = subprocess.Popen([str(a) for a in argv], stdin=subprocess.DEVNULL, stdout=null)
    _, status, usage = os.wait4(child.pid, 0)
    child.returncode = os.waitstatus_to_exitcode(status)
    if child.returncode:
        sys.exit("longscan: %s ends with status %d" % (argv[0], child.returncode))
    return time.monotonic() - began, usage.ru_maxrss / 1024


def main():
    p = argparse.ArgumentParser(prog="scripts/longscan", description=__doc__,
                                formatter_class=argparse.RawDescriptionHelpFormatter)
    p.add_argument("--build", type=pathlib.Path, default=ROOT / "build" / "release", help="build folder")
    p.add_argument("--gb", type=float, default=10, help="size of the table before compression, in 10^9 bytes")
    p.add_argument("--jobs", type=int, action="append", help="connections; may be given several times")
    p.add_argument("--format", default="csv", help="what cvn query prints")
    args = p.parse_args()
    cvn, kelpd, bench = (args.build.resolve() / name for name in ("tools/cvn", "server/kelpd", "bench/cvn-bench"))
    for program in (cvn, kelpd, bench):
        if not os.access(program, os.X_OK):
            sys.exit("longscan: %s is missing: build it, or name another folder with --build" % program)
    folder = pathlib.Path(tempfile.mkdtemp(prefix="kelpd-longscan-")).resolve()
    daemon, high = None, False
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))  # so that daemon and folder go then, too
    try:
        data = folder / "data"
        data.mkdir()
        file = folder / "p.cvn"
        nrow, nbyte, ngroup = repeat(one_group(cvn, folder), file, int(args.gb * 1e9))
        print("%d rows in %d row groups, %.2f GB, %.2f GB as stored" % (nrow, ngroup, nbyte / 1e9,
                                                                       file.stat().st_size / 1e9), flush=True)
        daemon, port = start(kelpd, data)
        url = "kelp://127.0.0.1:%d/d/s/e" % port
        run([cvn, "put", file, url])
        file.unlink()
        print("| client | jobs | seconds | peak MiB | below %d |\n|---|---|---|---|---|" % LIMIT_MIB)
        for jobs in args.jobs or (1, 2, 4):
            for name, argv in (("cvn-bench query", [bench, "query", url, jobs]),
                               ("cvn query --format " + args.format,
                                [cvn, "query", url, "--jobs", jobs, "--format", args.format])):
                seconds, mib = measure(argv)
                high = high or mib >= LIMIT_MIB
                print("| %s | %d | %.1f | %.0f | %s |" % (name, jobs, seconds, mib, "yes" if mib < LIMIT_MIB else "NO"),
                      flush=True)
    finally:
        if daemon:
            os.kill(daemon, signal.SIGTERM)
        shutil.rmtree(folder, ignore_errors=True)
    return 1 if high else 0


if __name__ == "__main__":
    sys.exit(main())
