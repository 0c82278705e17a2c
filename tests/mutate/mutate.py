#!/usr/bin/env python3
"""Plants single faults in the sources and tells which of them no test notices.

  scripts/mutate --seed 1 --count 500 --jobs 2        500 faults, in the order that the seed gives
  scripts/mutate --seed 1 --start 480 --count 20      from place 480 of that order on
  scripts/mutate --seed 1 --count 9 --from store      only faults in these folders or files (may be given often)
  scripts/mutate --seed 1 --count 9 --list            names the faults and builds nothing
  scripts/mutate --only ID [--tests T,...]            one fault (may be given often), and what the test said
  scripts/mutate --seed 1 --count 500 --quick 5       a first look, without the tests that take longer than 5 seconds
  scripts/mutate --seed 1 --again [--over 5]          those that survived once more: with all tests, new ones too, or
                                                      with those that take longer; with --only these faults alone
  scripts/mutate --seed 1 --report                    what the runs with this seed have found, from its results file

What was found stands in results-SEED.jsonl below --work; a run that was broken off goes on where it was. A fault that
does not compile is drawn anew. The tests that cover a file are listed below, the quickest first; the first
that fails, or does not end in its time, has noticed the fault. What no test notices is built once more with the address
and leak sanitizers, for the unit tests. Faults that are known to change nothing stand in tests/mutate/equivalent.txt
with the reason; they are counted and not run.

Everything happens in a copy of the tree below --work (default /tmp/kelpd-mutate); the programs with faults run as
cage.py has it: as nobody, in name spaces of their own, with every file system read-only but a small one in memory.
"""

import argparse
import collections
import concurrent.futures
import fcntl
import json
import os
import random
import re
import shlex
import shutil
import subprocess
import sys
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
sys.path.insert(0, HERE)
import faults  # noqa: E402

PYTHON = "/usr/bin/python3"
FOLDERS = ("common", "colvane", "http", "store", "handlers", "server", "rows", "clients/cpp", "clients/python/kelp")
EQUIVALENT = os.path.join(HERE, "equivalent.txt")
ADDRESS_SPACE = 16 << 30  # a thread reserves 128 MiB for its allocations
BUILDS = ("dev", "asan")

# The tests that cover a source, in the order in which they are asked, each once: a word is a program unit_<word>; wire,
# remote, tools and python name a script of that area.
LIBRARY = "cvn_type cvn_lens cvn_scan cvn_prove cvn_split cvn_write cvn_roundtrip headers cvn_hostile cvn_fault " \
          "rows_file rows_page do_scan do_post do_put do_get cvnsamp_sample tools.create tools.read tools.verify " \
          "wire.scan wire.put remote.query"
ROWS = "rows_value rows_cond rows_page rows_file rows_decode tool_schema client_filter client_text client_columns " \
       "client_arrow cvnsamp_choose cvnsamp_sample tool_csv client_scan tools.create tools.read tools.verify " \
       "remote.query"
CLIENT = "client_catalogue client_text client_filter client_stream client_upload client_columns client_scan " \
         "client_scan_damage client_arrow client_kelpd client_tls client_memory client_time remote.catalog " \
         "remote.errors remote.query"
DAEMON = "server_fault wire.start wire.reply wire.get wire.delete wire.request wire.put wire.fault"
TESTS = [
    ("common/number.h", "number conf hturl htreq do_post_parse wire.request"),
    ("colvane/mpool.cpp", "mpool do_post_parse do_post do_get wire.post"),
    ("colvane/dec.cpp", "dec cvn_write rows_value cvn_lens cvn_type rows_cond headers tools.create tools.read"),
    ("colvane/fadvise.cpp", "cvn_scan do_scan cvn_fault wire.scan"),
    ("colvane/cvn_coldef.cpp", "cvn_write cvn_type cvn_fault cvn_hostile tool_schema tools.create"),
    ("colvane/cvn_write.cpp", "cvn_write " + LIBRARY),
    ("colvane/cvn_split.cpp", "cvn_split cvn_fault cvn_hostile cvn_roundtrip do_put do_get wire.put wire.get"),
    ("colvane/cvn_stat.cpp", "cvn_write cvn_lens cvn_scan do_post do_get do_put " + LIBRARY + " remote.catalog"),
    ("colvane/vec.h", "rows_decode rows_page client_scan client_filter client_arrow rows_cond " + LIBRARY),
    ("colvane/", LIBRARY),
    ("http/htreq.cpp", "htreq wire.request " + DAEMON),
    ("http/htreply.cpp", "htreply wire.reply do_get do_scan " + DAEMON + " wire.scan"),
    ("http/hturl.cpp", "hturl do_get do_put do_post wire.request wire.get " + DAEMON),
    ("store/", "util dir dir2 do_get do_put do_delete do_post do_command " + DAEMON + " wire.sample_meta"),
    ("handlers/do_get.cpp", "do_get server_fault wire.get wire.request wire.fault remote.catalog"),
    ("handlers/do_put.cpp", "do_put server_fault wire.put wire.request wire.fault remote.catalog"),
    ("handlers/do_delete.cpp", "do_delete server_fault wire.delete wire.fault remote.catalog"),
    ("handlers/do_post.cpp", "do_post_parse do_post do_command do_scan server_fault wire.post wire.scan "
                             "wire.sample_meta wire.request wire.fault remote.query"),
    ("handlers/json.cpp", "json do_post_parse do_post server_fault wire.post"),
    ("handlers/do_scan.cpp", "do_scan do_post server_fault wire.scan wire.post wire.fault remote.query"),
    ("handlers/do_command.cpp", "do_command server_fault wire.sample_meta wire.fault remote.query"),
    ("server/conf.cpp", "conf wire.start"),
    ("server/confine.cpp", "confine wire.start wire.put wire.sample_meta wire.request wire.scan"),
    ("server/", "conf kelpd_shared wire.start wire.request wire.get wire.reply wire.put wire.sample_meta wire.fault "
                "wire.load"),
    ("rows/value", "rows_value " + ROWS),
    ("rows/cond.cpp", "rows_cond " + ROWS),
    ("rows/page.cpp", "rows_page " + ROWS),
    ("rows/file.cpp", "rows_file " + ROWS),
    ("rows/show.cpp", "rows_show client_text tools.create tools.read remote.errors remote.catalog"),
    ("clients/cpp/arrow", "client_arrow client_columns client_kelpd client_memory"),
    ("clients/cpp/catalog.cpp", "client_catalogue client_upload " + CLIENT),
    ("clients/cpp/scan.cpp", "client_scan client_scan_damage client_columns " + CLIENT),
    ("clients/cpp/stream.cpp", "client_stream client_scan_damage " + CLIENT),
    ("clients/cpp/query.cpp", "client_filter client_text " + CLIENT),
    ("clients/cpp/http.cpp", "client_upload client_catalogue client_tls client_time " + CLIENT),
    ("clients/cpp/url.cpp", "client_text client_catalogue client_upload " + CLIENT),
    ("clients/cpp/", CLIENT),
    ("clients/python/kelp/where.py", "python.where python.client python.cpp"),
    ("clients/python/kelp/dpd.py", "python.dpd python.format python.cpp"),
    ("clients/python/kelp/stream.py", "python.stream python.client python.cpp"),
    ("clients/python/kelp/page.py", "python.stream python.format python.client python.cpp"),
    ("clients/python/kelp/http.py", "python.client python.stream python.cpp"),
    ("clients/python/kelp/client.py", "python.client python.stream python.cpp"),
    ("clients/python/kelp/", "python.format python.where python.stream python.client python.dpd python.cpp"),
]
# Tests that fail in the cage for reasons of their own: two take the order in which a disk lists names, one looks at how
# the pages of a program on a disk are mapped.
SPARED = {"remote.catalog": ["test_every_command_that_scans_names_both_files", "test_force_puts_them_all_the_same"],
          "wire.start": ["test_the_code_that_serves_is_mapped_before_the_first_child_and_private_so_that_forks_"
                         "copy_it"]}
# Which of the programs a script runs.
PROGRAMS = {"wire": ("kelpd",), "remote": ("cvn", "kelpd", "cvnsamp"), "tools": ("cvn",), "python": ()}
# The archives that a source's object ends up in.
ARCHIVES = {"colvane": ("libcolvane.a",), "rows": ("libcolvane_rows.a", "libcolvane_client.a"),
            "clients": ("libcolvane_client.a",)}
NOT_BUILT = re.compile(r"/(fuzz|bench)/")


def tests_of(path):
    for prefix, words in TESTS:
        if path.startswith(prefix):
            return list(dict.fromkeys(words.split()))
    raise SystemExit(f"{path}: no test is said to cover it (tests/mutate/mutate.py)")


def read(path):
    with open(path, encoding="utf-8") as file:
        return file.read()


def sources(root, wanted):
    """The paths of all sources that can have a fault, below the folders or files `wanted`."""
    paths = []
    for folder in FOLDERS:
        for name in sorted(os.listdir(os.path.join(root, folder))):
            path = f"{folder}/{name}"
            if name.endswith((".cpp", ".h", ".py")) and \
                    any(path == w or path.startswith(w.rstrip("/") + "/") for w in wanted or FOLDERS):
                paths.append(path)
    return paths


def order(root, seed, wanted=()):
    """All faults: a file is drawn by its lines that can have one, then a kind by its weight, then one of that kind."""
    rng = random.Random(seed)
    left, weights = {}, {}
    for path in sources(root, wanted):
        found, nline = faults.find(path, read(os.path.join(root, path)))
        if found:
            left[path] = collections.defaultdict(list)
            for fault in found:
                left[path][fault.kind].append(fault)
            for kind in left[path].values():
                rng.shuffle(kind)
            weights[path] = max(1, nline)
    while left:
        path = rng.choices(list(left), [weights[p] for p in left])[0]
        kinds = left[path]
        kind = rng.choices(list(kinds), [faults.WEIGHTS[k] for k in kinds])[0]
        yield kinds[kind].pop()
        if not kinds[kind]:
            del kinds[kind]
        if not kinds:
            del left[path]


def read_equivalent(path=EQUIVALENT):
    """{key of a fault: why it changes nothing}. An entry is a head "file: function [#number]", the lines "- before" and
    "+ after", and the reason, indented; entries are parted by empty lines, "#" begins a line for the reader."""
    known = {}
    for entry in re.split(r"\n\s*\n", read(path)):
        lines = [line for line in entry.splitlines() if not line.startswith("#") and line.strip()]
        if not lines:
            continue
        match = re.fullmatch(r"(\S+): ?(\S*?)(?: #(\d+))?", lines[0].strip())
        if not match or len(lines) < 4 or lines[1][:2] != "- " or lines[2][:2] != "+ " or \
                any(line[:2] != "  " for line in lines[3:]):
            raise SystemExit(f"{path}: not an entry:\n{entry}")
        key = match.group(1), match.group(2), lines[1][2:].strip(), lines[2][2:].strip(), int(match.group(3) or 1)
        if key in known:
            raise SystemExit(f"{path}: given twice:\n{entry}")
        known[key] = faults.even(" ".join(lines[3:]))
    return known


class Tree:
    """The copy of the sources, its two builds, and how to compile and link a part of them anew."""

    def __init__(self, work):
        self.work = os.path.abspath(work)
        self.root = os.path.join(self.work, "tree")
        self.lock = threading.Lock()
        self._links = {}
        self._compiles = {}
        self._dependencies = {}

    def update(self):
        """Copies what git knows or would add; files that are the same keep their time, so that little is built anew."""
        names = subprocess.run(["git", "-C", ROOT, "ls-files", "-z", "--cached", "--others", "--exclude-standard"],
                               check=True, capture_output=True).stdout.decode().split("\0")
        wanted = set()
        for name in filter(None, names):
            source, target = os.path.join(ROOT, name), os.path.join(self.root, name)
            if not os.path.lexists(source):
                continue
            wanted.add(name)
            if os.path.islink(source):
                if not os.path.lexists(target):
                    os.makedirs(os.path.dirname(target), exist_ok=True)
                    os.symlink(os.readlink(source), target)
                continue
            with open(source, "rb") as file:
                data = file.read()
            try:
                with open(target, "rb") as file:
                    same = file.read() == data
            except OSError:
                same = False
            if not same:
                os.makedirs(os.path.dirname(target), exist_ok=True)
                shutil.copy(source, target)
        for folder, folders, files in os.walk(self.root):
            if folder == self.root and "build" in folders:
                folders.remove("build")
            for name in files:
                if os.path.relpath(os.path.join(folder, name), self.root) not in wanted:
                    os.unlink(os.path.join(folder, name))

    def build(self, builds):
        environment = dict(os.environ, CCACHE_BASEDIR=self.root)
        targets = {f"unit_{word}" for _, words in TESTS for word in words.split() if "." not in word}
        for build in builds:
            def run(*command):
                done = subprocess.run(command, cwd=self.root, env=environment, text=True, check=False,
                                      stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
                if done.returncode:
                    raise SystemExit(done.stdout[-5000:])
            run("cmake", "--preset", build, "-DKELPD_BUILD_FUZZ=OFF",
                "-DCMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE=PRE_TEST")
            programs = ("kelpd", "cvn", "cvnsamp", "python_rows") if build == "dev" else ()
            run("cmake", "--build", f"build/{build}", "--target", *sorted(targets), *programs, "--", "--quiet")

    def directory(self, build):
        return os.path.join(self.root, "build", build)

    def compiles(self, build, path):
        """(command, object) pairs for each object that must be built when the source `path` changes."""
        with self.lock:
            if build not in self._compiles:
                with open(os.path.join(self.directory(build), "compile_commands.json"), encoding="utf-8") as file:
                    listed = json.load(file)
                found = {}
                for entry in listed:
                    source = os.path.relpath(entry["file"], self.root)
                    command = shlex.split(entry["command"])
                    target = command[command.index("-o") + 1]
                    if source.startswith(FOLDERS) and not NOT_BUILT.search("/" + target):
                        found.setdefault(source, (command, target))
                self._compiles[build] = found
                deps = subprocess.run(["ninja", "-C", self.directory(build), "-t", "deps"], check=True,
                                      capture_output=True, text=True).stdout
                self._dependencies[build] = {
                    block.split(":", 1)[0]: set(block.split("\n    ")[1:])
                    for block in re.sub(r"^ninja: .*\n", "", deps).split("\n\n")}
        commands = self._compiles[build]
        if path in commands:
            return [(path, *commands[path])]
        header = os.path.join(self.root, path)
        users = [(source, command, target) for source, (command, target) in commands.items()
                 if header in {os.path.normpath(os.path.join(self.directory(build), name))
                               for name in self._dependencies[build].get(target, ())}]
        return users

    def link(self, build, program):
        """The command that links a program, as a list."""
        with self.lock:
            if (build, program) not in self._links:
                commands = subprocess.run(["ninja", "-C", self.directory(build), "-t", "commands", program],
                                          check=True, capture_output=True, text=True).stdout
                last = commands.rstrip().split("\n")[-1]
                if last.startswith("ninja:") or " -o " not in last:
                    raise SystemExit(f"no command links {program}: {last}")
                self._links[build, program] = shlex.split(last.removeprefix(": && ").split(" && ")[0])
            return list(self._links[build, program])

    def program(self, build, name):
        folder = {"kelpd": "server", "cvn": "tools", "cvnsamp": "sampler"}.get(name, "tests")
        return os.path.join(self.directory(build), folder, name)


class Trial:
    """The steps that try one fault, or with none the programs as they are."""

    def __init__(self, tree, build, fault, mutated_root):
        self.tree, self.build, self.fault = tree, build, fault
        self.mutated_root = mutated_root
        self.environment = {"PATH": "/usr/bin:/bin:/usr/sbin:/sbin", "TMPDIR": "/tmp", "HOME": "/tmp",
                            "LC_ALL": "C.UTF-8", "PYTHONDONTWRITEBYTECODE": "1"}
        if build == "asan":
            self.environment |= {"ASAN_OPTIONS": "detect_stack_use_after_return=1:allocator_may_return_null=1:"
                                                 "hard_rss_limit_mb=3000", "UBSAN_OPTIONS": "print_stacktrace=1"}
        self.objects = []  # (object of the build, object with the fault)
        self.linked = {}
        self.steps = []

    @property
    def is_python(self):
        return self.fault is not None and self.fault.path.endswith(".py")

    def _step(self, name, argv, cwd, timeout, environment=None):
        if not argv[0].startswith("/"):
            argv = [shutil.which(argv[0]), *argv[1:]]
        self.steps.append({"name": name, "argv": argv, "cwd": cwd, "timeout": timeout,
                           "env": self.environment | (environment or {})})

    def add_compiling(self):
        if self.fault is None or self.is_python:
            return
        is_header = self.fault.path.endswith(".h")
        for i, (source, command, target) in enumerate(self.tree.compiles(self.build, self.fault.path)):
            command = [word for word in command if not word.endswith("ccache") and
                       word not in ("-Werror", "-g", "-g1", "-O1", "-O2", "-MD")]
            command[command.index("-o") + 1] = f"/tmp/{i}.o"
            command[command.index("-c") + 1] = os.path.join(self.tree.root if is_header else self.mutated_root, source)
            command[1:1] = ["-O0", "-w", "-I" + self.mutated_root]
            self.objects.append((target, f"/tmp/{i}.o"))
            self._step("compile", command, self.tree.directory(self.build), 300)

    def _program(self, name):
        """The path of a program with the fault in it; its own when the fault is in nothing that it links."""
        if name in self.linked:
            return self.linked[name]
        command = self.tree.link(self.build, name)
        touched = False
        first_archive = next(i for i, word in enumerate(command) if word.endswith((".a", ".so")))
        extra = []
        for built, faulty in self.objects:
            if built in command:
                command[command.index(built)] = faulty
                touched = True
            else:
                # Before its archive: what is defined already is not taken from there.
                archives = ARCHIVES.get(built.split("/")[0], ("libkelpd_core.a",))
                if any(word.endswith(archives) for word in command) and "kelpd.dir" not in built:
                    extra.append(faulty)
                    touched = True
        if not touched:
            self.linked[name] = self.tree.program(self.build, name)
            return self.linked[name]
        command[first_archive:first_archive] = extra
        command[command.index("-o") + 1] = f"/tmp/{name}"
        command.append("-Wl,-S")
        if not any("serving.ld" in word for word in command) and shutil.which("ld.gold"):
            command.append("-fuse-ld=gold")
        self._step(f"link {name}", command, self.tree.directory(self.build), 300)
        self.linked[name] = f"/tmp/{name}"
        return self.linked[name]

    def add_test(self, name, timeout):
        if "." not in name:
            environment = {}
            if name == "client_kelpd":
                environment["KELPD"] = self._program("kelpd")
            program = self._program("unit_" + name)
            self._step(name, [program, "--gtest_brief=1", "--gtest_fail_fast"],
                       os.path.join(self.tree.directory(self.build), "tests"), timeout, environment)
            return
        area, script = name.split(".")
        tests = os.path.join(self.tree.root, "tests")
        environment = {p.upper(): self._program(p) for p in PROGRAMS[area]}
        environment["PYTHONPATH"] = os.path.join(tests, "support")
        path = {"wire": f"{tests}/wire/test_{script}.py", "remote": f"{tests}/tools/test_remote_{script}.py",
                "tools": f"{tests}/tools/test_{script}.py",
                "python": f"{self.mutated_root if self.is_python else self.tree.root}/clients/python/tests/"
                          f"test_{script}.py"}[area]
        if area == "python":
            environment |= {p.upper(): self.tree.program("dev", p) for p in ("kelpd", "cvn", "cvnsamp")}
            environment["ROWS"] = self.tree.program("dev", "python_rows")
        warnings = ["-W", "error"] if area == "python" else []
        self._step(name, [PYTHON, *warnings, os.path.join(tests, "mutate", "without.py"), path, *SPARED.get(name, ())],
                   os.path.dirname(path) if area == "wire" else "/tmp", timeout, environment)

    def run(self):
        """What each step that ran gave, and what the cage said of itself."""
        job = {"work": self.tree.work, "address": 0 if self.build == "asan" else ADDRESS_SPACE, "steps": self.steps}
        bound = sum(step["timeout"] for step in self.steps) + 600
        done = subprocess.run([PYTHON, "-S", "-E", os.path.join(self.tree.root, "tests/mutate/cage.py")], check=False,
                              input=json.dumps(job), capture_output=True, text=True, timeout=bound)
        if done.returncode or done.stderr:
            raise SystemExit(f"the cage failed: {done.returncode} {done.stderr}")
        return [json.loads(line) for line in done.stdout.splitlines()]


def plant(tree, fault, folder):
    """A folder that holds the file with the fault, and for Python the rest of its package and tests."""
    shutil.rmtree(folder, ignore_errors=True)
    target = os.path.join(folder, fault.path)
    if fault.path.endswith(".py"):
        shutil.copytree(os.path.join(tree.root, "clients/python"), os.path.join(folder, "clients/python"))
        os.symlink(os.path.join(tree.root, "tests"), os.path.join(folder, "tests"))
    os.makedirs(os.path.dirname(target), exist_ok=True)
    with open(target, "w", encoding="utf-8") as file:
        file.write(fault.apply(read(os.path.join(tree.root, fault.path))))


def baseline(tree, builds, again):
    """{build: {test: seconds}} of the tests that pass in the cage without any fault."""
    path = os.path.join(tree.work, "baseline.json")
    names = list(dict.fromkeys(name for prefix, _ in TESTS for name in tests_of(prefix)))
    known = {}
    if os.path.exists(path) and not again:
        known = json.loads(read(path))
    for build in builds:
        passed = known.setdefault(build, {})
        for name in names:
            if passed.get(name) is not None or build == "asan" and "." in name:
                continue
            trial = Trial(tree, build, None, "")
            trial.add_test(name, 600)
            result = trial.run()[-1]
            passed[name] = result["seconds"] if result["status"] == 0 else None
            if result["status"] != 0:
                print(f"{build}: {name} fails without any fault and is left out:\n{result['tail']}", file=sys.stderr)
            with open(path, "w", encoding="utf-8") as file:
                json.dump(known, file, indent=1)
    return known


def judge(tree, fault, times, folder, options):
    """(verdict, the test that noticed, what it said)."""
    if fault.path.endswith(".py"):
        try:
            compile(fault.apply(read(os.path.join(tree.root, fault.path))), fault.path, "exec")
        except SyntaxError:
            return "uncompiled", "", ""
    plant(tree, fault, folder)
    said = ""
    for build in options.builds:
        if build == "asan" and fault.path.endswith(".py"):
            break
        trial = Trial(tree, build, fault, folder)
        trial.add_compiling()
        tests = [name for name in options.tests or tests_of(fault.path) if times[build].get(name) is not None]
        if not options.tests:
            tests = [name for i, name in enumerate(tests)
                     if (i == 0 and not options.over) or options.over < times[build][name] <= options.quick]
        for name in tests:
            # The machine may be busy: ten times as long as alone, and then some.
            trial.add_test(name, int(30 + 10 * times[build][name]))
        results = trial.run()
        last = results[-1] if results else None
        if last is None:
            return "unproved", "", "no test covers it"
        if last["status"] == 0:
            continue
        if last["name"] == "compile" or last["name"].startswith("link "):
            return "uncompiled", last["name"], last["tail"]
        verdict = "hangs" if last["status"] is None else "noticed"
        return verdict, f"{build}:{last['name']}", last["tail"][-1500:]
    return "survived", "", said


def show(fault, position=None):
    place = "" if position is None else f"{position:5} "
    return f"{place}{fault.name} {fault.kind:10} {fault.path}:{fault.line} {fault.function}\n" \
           f"        - {fault.before}\n        + {fault.after}"


def last_records(path):
    """What was found of each fault the last time."""
    last = {}
    for line in read(path).splitlines():
        record = json.loads(line)
        last[record["id"]] = record
    return list(last.values())


def report(path, known):
    last = last_records(path)
    count = collections.Counter()
    by_folder = collections.defaultdict(collections.Counter)
    by_kind = collections.defaultdict(collections.Counter)
    for record in last:
        if record["verdict"] == "uncompiled":
            count["drawn anew"] += 1
            continue
        verdict = record["verdict"]
        if verdict == "survived" and tuple(record["key"]) in known:
            verdict = "equivalent"
        for table in (count, by_folder[os.path.dirname(record["key"][0])], by_kind[record["kind"]]):
            table[verdict] += 1
    print(json.dumps(count))
    for table in (by_folder, by_kind):
        for name, counts in sorted(table.items()):
            print(f"{name:22} {sum(counts.values()):4} {dict(counts)}")
    for record in last:
        if record["verdict"] == "survived" and tuple(record["key"]) not in known:
            print(f"{record['position']:5} {record['id']} {record['kind']} {record['key'][0]}:{record['line']} "
                  f"{record['key'][1]}" + (f" #{record['key'][4]}" if record["key"][4] > 1 else "") +
                  f"\n        - {record['key'][2]}\n        + {record['key'][3]}")
    return count


def run(options):
    known = read_equivalent()
    tree = Tree(options.work)
    os.makedirs(tree.work, mode=0o755, exist_ok=True)
    guard = open(os.path.join(tree.work, "lock"), "w", encoding="ascii")
    try:
        fcntl.flock(guard, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except OSError:
        raise SystemExit(f"{tree.work} is in use; give another --work") from None
    if not options.no_update:
        tree.update()
        tree.build(options.builds)
    times = baseline(tree, options.builds, options.baseline)
    results = os.path.join(tree.work, f"results-{options.seed}.jsonl")
    lock = threading.Lock()
    ncounted = 0
    if options.again:
        survivors = {r["id"]: r["position"] for r in last_records(results) if r["verdict"] == "survived" and
                     tuple(r["key"]) not in known and (not options.only or r["id"] in options.only)}
        drawn = sorted((survivors[fault.name], fault) for fault in order(tree.root, 0) if fault.name in survivors)
        options.count, options.only = len(drawn), []
    elif options.only:
        drawn = [(None, fault) for fault in order(tree.root, 0) if fault.name in options.only]
        if len(drawn) != len(options.only):
            raise SystemExit("no such fault in this tree")
    else:
        # What the results file has already is not tried again, so that a run can be broken off and gone on with.
        done = {r["id"]: r["verdict"] for r in last_records(results)} if os.path.exists(results) else {}
        drawn = []
        for position, fault in enumerate(order(tree.root, options.seed, options.wanted)):
            ncounted += position >= options.start and done.get(fault.name, "uncompiled") != "uncompiled"
            if fault.name not in done:
                drawn.append((position, fault))
    drawn = iter(drawn)
    deadline = time.monotonic() + options.seconds if options.seconds else None

    def work(number):
        nonlocal ncounted
        folder = os.path.join(tree.work, f"job-{number}")
        while True:
            with lock:
                if deadline and time.monotonic() > deadline:
                    return
                if not options.only and ncounted >= options.count:
                    return
                position, fault = next(drawn, (None, None))
                while fault and position is not None and position < options.start:
                    position, fault = next(drawn, (None, None))
                if fault is None:
                    return
                ncounted += 1
            begin = time.monotonic()
            if fault.key in known and not options.only:
                verdict, test, said = "equivalent", "", ""
            else:
                verdict, test, said = judge(tree, fault, times, folder, options)
            with lock:
                if verdict == "uncompiled":
                    ncounted -= 1
                record = {"position": position, "id": fault.name, "verdict": verdict, "test": test,
                          "kind": fault.kind, "line": fault.line, "key": fault.key,
                          "seconds": round(time.monotonic() - begin, 1), "said": said}
                if not options.only:
                    with open(results, "a", encoding="utf-8") as file:
                        file.write(json.dumps(record) + "\n")
                if verdict != "uncompiled" or options.only:
                    print(f"{verdict:10} {test:24} {record['seconds']:6} s  {show(fault, position)}", flush=True)
                    if options.only and said:
                        print(said)

    with concurrent.futures.ThreadPoolExecutor(options.jobs) as pool:
        for future in [pool.submit(work, number) for number in range(options.jobs)]:
            future.result()
    if options.only:
        return 0
    return 1 if report(results, known)["survived"] else 0


def main():
    parser = argparse.ArgumentParser(prog="scripts/mutate", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--count", type=int, default=20, help="faults that compile (20)")
    parser.add_argument("--start", type=int, default=0, help="place in the seed's order to begin at")
    parser.add_argument("--seconds", type=int, default=0, help="begin no new fault after this time")
    parser.add_argument("--jobs", type=int, default=2)
    parser.add_argument("--from", dest="wanted", action="append", default=[], metavar="FOLDER")
    parser.add_argument("--only", action="append", default=[], metavar="ID")
    parser.add_argument("--tests", type=lambda text: text.split(","), help="ask these tests instead of the listed ones")
    parser.add_argument("--quick", type=float, default=1e9, metavar="SECONDS")
    parser.add_argument("--over", type=float, default=0, metavar="SECONDS")
    parser.add_argument("--again", action="store_true")
    parser.add_argument("--plain", dest="builds", action="store_const", const=("dev",), default=BUILDS,
                        help="without the second build, that with the sanitizers")
    parser.add_argument("--list", action="store_true")
    parser.add_argument("--report", action="store_true")
    parser.add_argument("--baseline", action="store_true", help="run the tests without faults again")
    parser.add_argument("--no-update", action="store_true", help="take the copy and its builds as they are")
    parser.add_argument("--work", default="/tmp/kelpd-mutate")
    options = parser.parse_args()
    if options.list:
        for position, fault in enumerate(order(ROOT, options.seed, options.wanted)):
            if position >= options.start + options.count:
                break
            if position >= options.start:
                print(show(fault, position))
        return 0
    if options.report:
        return 1 if report(os.path.join(options.work, f"results-{options.seed}.jsonl"), read_equivalent())["survived"] \
            else 0
    return run(options)


if __name__ == "__main__":
    sys.exit(main())
