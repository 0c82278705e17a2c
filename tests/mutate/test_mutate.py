#!/usr/bin/env python3
"""What scripts/mutate rests on: faults are found where they are meant, keep their names, and are shut in."""

import collections
import itertools
import json
import os
import subprocess
import sys
import tempfile
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
import faults  # noqa: E402
import mutate  # noqa: E402

CXX = '''#include <a.h>  // a < b
#define TWICE(x) ((x) + (x))
namespace {
constexpr int LIMIT = 7;
}
static_assert(sizeof(int) == 4);
/* if (a) return 3; */
static int first(int a, const char* b) {
    const char* const text = "a < b; return 5;";
    const char* const raw = R"(x == y && z)";
    if (a < LIMIT && !b) return -7;
    int left = a;
    memcpy(to, b, 9);
    left = use(a, left);
    for (int i = 0; i < a; i++) use(b);
    return left;
}
'''
PYTHON = '''"""a < b"""
LIMIT = 7


def first(a, b):
    """Returns 5 if a < b."""
    if a < LIMIT and not b:
        raise ValueError("a == b")
    left = a  # left == a
    return use(left, b)
'''


def changes(path, text):
    found = collections.defaultdict(set)
    for fault in faults.find(path, text)[0]:
        found[fault.kind].add((fault.before, fault.after))
    return found


class Faults(unittest.TestCase):
    def test_each_kind_is_found_in_cxx(self):
        found = changes("colvane/a.cpp", CXX)
        check = "if (a < LIMIT && !b) return -7;"
        self.assertEqual({(check, check.replace("<", "<=")), (check, check.replace("<", ">"))},
                         {(before, after) for before, after in found["relational"] if before == check})
        self.assertIn((check, check.replace("&&", "||")), found["logical"])
        self.assertIn((check, "if (!(a < LIMIT && !b)) return -7;"), found["condition"])
        self.assertIn((check, "if (a < LIMIT && b) return -7;"), found["condition"])
        self.assertIn((check, "if (a < LIMIT && !b) return 0;"), found["return"])
        self.assertIn((check, ";"), found["deletion"])
        self.assertIn(("memcpy(to, b, 9);", ";"), found["deletion"])
        self.assertIn(("memcpy(to, b, 9);", "memcpy(to, b, (9) - 1);"), found["length"])
        self.assertIn(("memcpy(to, b, 9);", "memcpy(b, to, 9);"), found["swap"])
        self.assertIn(("left = use(a, left);", ";"), found["deletion"])
        self.assertIn(("constexpr int LIMIT = 7;", "constexpr int LIMIT = 8;"), found["constant"])
        loop = "for (int i = 0; i < a; i++) use(b);"
        self.assertIn((loop, loop.replace("i++", "i--")), found["arithmetic"])
        self.assertIn((loop, "for (int i = 0; i < a; i++) ;"), found["deletion"])
        self.assertNotIn("int left = a;", {before for before, _ in found["deletion"]}, "a declaration cannot go")

    def test_comments_texts_directives_and_assertions_of_the_compiler_have_no_faults(self):
        spared = {number for number, line in enumerate(CXX.splitlines(), 1)
                  if line.startswith(("#", "static_assert", "/*")) or "const text" in line or "const raw" in line}
        self.assertEqual(6, len(spared))
        self.assertEqual(set(), spared & {fault.line for fault in faults.find("colvane/a.cpp", CXX)[0]})

    def test_each_kind_is_found_in_python(self):
        found = changes("clients/python/kelp/a.py", PYTHON)
        check = "if a < LIMIT and not b:"
        self.assertIn((check, "if a <= LIMIT and not b:"), found["relational"])
        self.assertIn((check, "if a < LIMIT or not b:"), found["logical"])
        self.assertIn((check, "if not (a < LIMIT and not b):"), found["condition"])
        self.assertIn((check, "if a < LIMIT and b:"), found["condition"])
        self.assertIn((check + ' raise ValueError("a == b")', "pass"), found["deletion"])
        self.assertIn(("left = a # left == a", "pass # left == a"), found["deletion"])
        self.assertIn(("return use(left, b)", "return use(b, left)"), found["swap"])
        self.assertIn(("return use(left, b)", "return None"), found["return"])
        self.assertIn(("LIMIT = 7", "LIMIT = 6"), found["constant"])
        self.assertEqual({"relational", "logical", "condition", "deletion", "swap", "return", "constant"}, set(found))

    def test_a_fault_changes_its_place_and_nothing_else(self):
        for fault in faults.find("colvane/a.cpp", CXX)[0]:
            changed = fault.apply(CXX)
            self.assertEqual(CXX.count("\n"), changed.count("\n"), fault)
            self.assertEqual(CXX[:fault.start], changed[:fault.start])
            self.assertTrue(changed.endswith(CXX[fault.end:]))
            self.assertNotEqual(CXX, changed)

    def test_a_fault_keeps_its_name_when_lines_move(self):
        names = [fault.name for fault in faults.find("colvane/a.cpp", CXX)[0]]
        moved = "// New.\n\nint before() {\n    return 1;\n}\n" + CXX.replace("    if (a <", "\n      if (a  <")
        self.assertLessEqual(set(names), {fault.name for fault in faults.find("colvane/a.cpp", moved)[0]})

    def test_no_two_faults_of_the_tree_have_one_name_and_every_file_with_faults_has_tests(self):
        names = collections.Counter()
        for path in mutate.sources(mutate.ROOT, ()):
            found, nline = faults.find(path, mutate.read(os.path.join(mutate.ROOT, path)))
            names.update(fault.name for fault in found)
            if not found:
                continue
            self.assertGreaterEqual(nline, 0)
            for test in mutate.tests_of(path):
                self.assertTrue(self.exists(test), f"{path}: there is no test {test}")
        self.assertGreater(len(names), 10000)
        self.assertEqual(1, max(names.values()))

    @staticmethod
    def exists(test):
        tests = os.path.dirname(HERE)
        if "." not in test:
            place = "fault/fault" if test == "cvn_fault" else f"unit/{test}"
            return os.path.exists(f"{tests}/{place}_test.cpp")
        area, script = test.split(".")
        return os.path.exists({"wire": f"{tests}/wire/test_{script}.py", "tools": f"{tests}/tools/test_{script}.py",
                               "remote": f"{tests}/tools/test_remote_{script}.py",
                               "python": f"{mutate.ROOT}/clients/python/tests/test_{script}.py"}[area])

    def test_a_seed_always_gives_the_same_order_and_another_seed_another_one(self):
        def begin(seed):
            return [fault.name for fault in itertools.islice(mutate.order(mutate.ROOT, seed, ["store"]), 50)]
        self.assertEqual(begin(3), begin(3))
        self.assertNotEqual(begin(3), begin(4))
        self.assertEqual(50, len(set(begin(3))))


class Equivalent(unittest.TestCase):
    def test_every_entry_of_the_list_is_a_fault_of_this_tree_and_says_why_it_changes_nothing(self):
        known = mutate.read_equivalent()
        keys = {}
        for path in {key[0] for key in known}:
            keys[path] = {fault.key for fault in faults.find(path, mutate.read(os.path.join(mutate.ROOT, path)))[0]}
        for key, reason in known.items():
            self.assertIn(key, keys[key[0]], "the source has changed: judge it again, or remove the entry")
            self.assertGreater(len(reason.split()), 3, key)

    def test_an_entry_without_a_reason_or_given_twice_is_refused(self):
        entry = "colvane/a.cpp: first\n- if (a < b)\n+ if (a <= b)\n  Both are the same here.\n"
        with tempfile.NamedTemporaryFile("w", suffix=".txt") as file:
            def given(text):
                file.seek(0)
                file.truncate()
                file.write(text)
                file.flush()
                return mutate.read_equivalent(file.name)
            key = ("colvane/a.cpp", "first", "if (a < b)", "if (a <= b)", 1)
            self.assertEqual({key: "Both are the same here."}, given("# A list.\n\n" + entry))
            for wrong in (entry + "\n" + entry, entry.replace("  Both are the same here.\n", ""), "x\n" + entry):
                with self.assertRaises(SystemExit):
                    given(wrong)


class Cage(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.dir = directory.name
        os.chmod(self.dir, 0o777)  # so that only the cage stands in the way

    def run_steps(self, *scripts, timeout=60):
        job = {"work": self.dir, "address": 1 << 30, "steps": [
            {"name": str(i), "argv": ["/bin/sh", "-c", script], "cwd": "/tmp", "timeout": timeout,
             "env": {"PATH": "/usr/bin:/bin"}} for i, script in enumerate(scripts)]}
        done = subprocess.run([sys.executable, os.path.join(HERE, "cage.py")], input=json.dumps(job), text=True,
                              capture_output=True, check=False, timeout=120)
        if done.returncode == 3:
            self.skipTest(done.stderr.strip())
        self.assertEqual((0, ""), (done.returncode, done.stderr))
        return [json.loads(line) for line in done.stdout.splitlines()]

    def test_a_step_removes_nothing_that_lies_outside_its_own_memory_file_system(self):
        kept = os.path.join(self.dir, "kept")
        os.mkdir(kept, 0o777)
        os.chmod(kept, 0o777)
        with open(os.path.join(kept, "file"), "w", encoding="ascii") as file:
            file.write("here")
        os.chmod(os.path.join(kept, "file"), 0o666)
        result, = self.run_steps(f"cat {kept}/file; rm -rf {self.dir}/* /var/tmp/*; echo bad > {kept}/file; "
                                 f"echo bad > {self.dir}/new; touch /tmp/mine && echo done")
        self.assertEqual(0, result["status"])
        self.assertTrue(result["tail"].startswith("here"), result["tail"])
        self.assertTrue(result["tail"].endswith("done\n"), result["tail"])
        self.assertIn("Read-only file system", result["tail"])
        self.assertEqual(["kept"], os.listdir(self.dir))
        with open(os.path.join(kept, "file"), encoding="ascii") as file:
            self.assertEqual("here", file.read())

    def test_steps_share_what_they_write_and_stop_at_the_first_that_fails(self):
        results = self.run_steps("echo text > /tmp/a", "cat /tmp/a; exit 5", "echo never")
        self.assertEqual([("0", 0, ""), ("1", 5, "text\n")], [(r["name"], r["status"], r["tail"]) for r in results])

    def test_a_step_that_does_not_end_is_ended(self):
        results = self.run_steps("echo begun; sleep 60", timeout=1)
        self.assertEqual([(None, "begun\n")], [(r["status"], r["tail"]) for r in results])

    def test_what_a_step_leaves_running_ends_with_it(self):
        results = self.run_steps("setsid sleep 60 & echo $!", "ls -d /proc/[0-9]* | wc -l")
        self.assertEqual([0, 0], [r["status"] for r in results])
        self.assertLessEqual(int(results[1]["tail"]), 4)  # the first process, the shell, ls and wc

    def test_a_step_sees_no_process_and_no_server_of_others(self):
        with subprocess.Popen(["sleep", "60"]) as outside:
            try:
                result, = self.run_steps(f"kill -9 {outside.pid}; kill -9 -1; echo on; wc -l < /proc/net/tcp")
                self.assertIsNone(outside.poll())
            finally:
                outside.kill()
        self.assertIn(result["status"], (0, -9))

    def test_a_step_has_no_capability_and_can_gain_none(self):
        result, = self.run_steps("grep -E '^(CapEff|CapPrm|CapInh|NoNewPrivs)' /proc/self/status")
        self.assertEqual(sorted(["CapInh:\t0000000000000000", "CapPrm:\t0000000000000000", "CapEff:\t0000000000000000",
                                 "NoNewPrivs:\t1"]), sorted(result["tail"].splitlines()))

    def test_a_step_gets_neither_memory_nor_files_beyond_their_bounds(self):
        results = self.run_steps("dd if=/dev/zero of=/dev/null bs=2G count=1 2>&1 || true",
                                 f"dd if=/dev/zero of=/tmp/large bs=1 seek={(1 << 30) - 1} count=1 2>&1",
                                 f"dd if=/dev/zero of=/tmp/large bs=1 seek={1 << 30} count=1 2>&1")
        self.assertIn("memory exhausted", results[0]["tail"])
        self.assertEqual([0, 0], [r["status"] for r in results[:2]], results)
        self.assertNotEqual(0, results[2]["status"])


if __name__ == "__main__":
    unittest.main()
