"""Installs what is needed, builds the benchmarks for release, runs them in rounds and prints medians and ratios.

    scripts/bench                          all of them, 5 rounds, about 3 minutes
    scripts/bench --filter scan --rounds 9

Every benchmark runs once a round. A ratio is taken within a round, of a benchmark and of the bare calls that the same
work needs at least, and the median over the rounds is what counts: what else the machine does then mostly cancels out.
Times are processor time of the one thread that works. All single figures go to a JSON file.

Goals that are missed are shown, and are no failure: the exit status is 1 only when something could not be built or run.
"""
import argparse
import json
import os
import pathlib
import platform
import re
import statistics
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
TOPICS = ("scan", "open", "append", "dec", "qualify", "hash", "page")
PAGE_TYPES = tuple(t + n for t in ("int32", "int64", "double", "dec64", "dec128") for n in ("", "_nulls"))

# Benchmark, what it is compared with, the largest ratio that is good enough (None: no goal).
PAIRS = (
    ("scan_decompressed", "scan_decompressed_bare", 1.15),
    ("scan_decompressed", "scan_decompressed_bare_pread", None),
    ("scan_raw", "scan_raw_bare", None),
    ("scan_stored", "scan_stored_bare", 1.10),
    ("rowgroup_1", "rowgroup_1_bare", None),
    ("rowgroup_15", "rowgroup_15_bare", None),
    ("open_footer/10", "open_footer_pread_fresh/10", None),
    ("open_footer/1000", "open_footer_pread_fresh/1000", None),
    ("open_footer/100000", "open_footer_pread_fresh/100000", 3.0),
    ("open_footer/10", "open_footer_pread_warm/10", None),
    ("open_footer/1000", "open_footer_pread_warm/1000", None),
    ("open_footer/100000", "open_footer_pread_warm/100000", 3.0),
    ("hash_chunk/1048576", "hash_chunk_memcpy/1048576", None),
    # A client's page beside hash and decompression together; then what is apart from them, and the hash alone, beside
    # the decompression.
    *((f"page_decode/{t}", f"page_bare/{t}", 1.05) for t in PAGE_TYPES),
    *((f"page_{part}/{t}", f"page_lz4/{t}", None) for part in ("decode", "view", "hash") for t in PAGE_TYPES),
)


def run(command, **more):
    r = subprocess.run([str(c) for c in command], **more)
    if r.returncode:
        sys.exit(f"bench: {command[0]} ended with status {r.returncode}")
    return r


def build(folder):
    run([ROOT / "scripts" / "setup", "bench"])
    run(["cmake", "-S", ROOT, "-B", folder, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Release", "-DKELPD_BUILD_BENCH=ON",
         "-DKELPD_BUILD_TESTS=OFF"], stdout=subprocess.DEVNULL)
    run(["cmake", "--build", folder, "--target", "cvn_bench", *(f"bench_{t}" for t in TOPICS)], stdout=subprocess.DEVNULL)


def first_line(command):
    try:
        return subprocess.run(command, capture_output=True, text=True, cwd=ROOT).stdout.strip().split("\n")[0]
    except OSError:
        return ""


def environment(folder, cpu):
    model = ""
    if os.path.exists("/proc/cpuinfo"):
        found = re.search(r"^model name\s*:\s*(.*)$", open("/proc/cpuinfo").read(), re.M)
        model = found.group(1) if found else ""
    cache = (folder / "CMakeCache.txt").read_text()
    compiler = re.search(r"^CMAKE_CXX_COMPILER:.*?=(.*)$", cache, re.M)
    return {
        "processor": model,
        "processors": os.cpu_count(),
        "tied_to": cpu,
        "kernel": platform.release(),
        "load_before": os.getloadavg()[0],
        "compiler": first_line([compiler.group(1), "--version"]) if compiler else "",
        "commit": first_line(["git", "describe", "--always", "--dirty"]),
    }


def one_round(folder, args):
    """Name -> nanoseconds, items per second and bytes per second of one run of every benchmark."""
    figures = {}
    for topic in TOPICS:
        r = run([folder / "bench" / f"bench_{topic}", "--benchmark_format=json", f"--benchmark_min_time={args.min_time}",
                 f"--benchmark_filter={args.filter}"], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        text = r.stdout.decode()
        if not text.strip():
            continue  # the filter left nothing
        for b in json.loads(text)["benchmarks"]:
            scale = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}[b["time_unit"]]
            name, manual = re.subn(r"/manual_time$", "", b["name"])
            ns = b["real_time" if manual else "cpu_time"] * scale
            # Rates that go with this time, whichever clock the library took for its own.
            factor = b["cpu_time"] / b["real_time"] if not manual and b.get("use_real_time") else 1.0
            figures[name] = {"ns": ns, "items": b.get("items_per_second", 0.0) * factor,
                             "bytes": b.get("bytes_per_second", 0.0) * factor}
    return figures


def show_time(ns):
    for unit, scale in (("ns", 1.0), ("us", 1e3), ("ms", 1e6), ("s", 1e9)):
        if ns < 1000 * scale or unit == "s":
            return f"{ns / scale:.3g} {unit}" if ns < 100 * scale else f"{ns / scale:.0f} {unit}"


def main():
    p = argparse.ArgumentParser(prog="scripts/bench", description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    p.add_argument("--build", type=pathlib.Path, default=ROOT / "build" / "bench", help="build folder")
    p.add_argument("--out", type=pathlib.Path, help="JSON file (results.json in the build folder)")
    p.add_argument("--rounds", type=int, default=5)
    p.add_argument("--min-time", type=float, default=0.2, help="least seconds per benchmark and round")
    p.add_argument("--filter", default=".", help="regular expression on the names of benchmarks")
    p.add_argument("--cpu", type=int, help="processor to use (the last one)")
    args = p.parse_args()
    if args.rounds < 1:
        p.error("--rounds is at least 1")
    folder = args.build.resolve()
    build(folder)
    cpu = max(os.sched_getaffinity(0)) if args.cpu is None else args.cpu
    os.sched_setaffinity(0, {cpu})
    env = environment(folder, cpu)

    rounds = []
    for i in range(args.rounds):
        print(f"round {i + 1} of {args.rounds}", file=sys.stderr, flush=True)
        rounds.append(one_round(folder, args))

    print(f"{args.rounds} rounds on processor {cpu}: {env['processor']}, Linux {env['kernel']}, {env['compiler']}")
    print()
    print("| benchmark | median | smallest..largest | M items/s | MB/s |")
    print("|---|---|---|---|---|")
    for name in rounds[0]:
        ns = [r[name]["ns"] for r in rounds]
        items = statistics.median(r[name]["items"] for r in rounds)
        nbyte = statistics.median(r[name]["bytes"] for r in rounds)
        print(f"| {name} | {show_time(statistics.median(ns))} | {show_time(min(ns))}..{show_time(max(ns))} | "
              f"{f'{items / 1e6:.4g}' if items else ''} | {f'{nbyte / 1e6:.0f}' if nbyte else ''} |")
    print()
    print("| ratio of times | median | smallest..largest | goal | |")
    print("|---|---|---|---|---|")
    ratios = []
    for name, base, goal in PAIRS:
        if name not in rounds[0] or base not in rounds[0]:
            continue
        values = [r[name]["ns"] / r[base]["ns"] for r in rounds]
        median = statistics.median(values)
        met = None if goal is None else median <= goal
        ratios.append({"benchmark": name, "base": base, "rounds": values, "median": median, "goal": goal, "met": met})
        print(f"| {name} / {base} | {median:.3f} | {min(values):.3f}..{max(values):.3f} | "
              f"{'' if goal is None else f'{goal:.2f}'} | {'' if met is None else 'met' if met else 'missed'} |")
    out = args.out or folder / "results.json"
    out.write_text(json.dumps({"environment": env, "rounds": rounds, "ratios": ratios}, indent=1) + "\n")
    print(f"\nEvery figure: {out}")


if __name__ == "__main__":
    main()
