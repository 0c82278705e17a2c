#!/usr/bin/env python3
"""The command line of cvnsamp: statuses, messages, the seed, and that a failure writes nothing."""
import argparse
import os
import pty
import resource
import subprocess
import sys
import tempfile
import unittest

ARGS = None


def golden(name):
    return os.path.join(ARGS.golden, name)


class CommandLine(unittest.TestCase):
    def setUp(self):
        self.tmp = tempfile.TemporaryDirectory()
        self.addCleanup(self.tmp.cleanup)

    def run_it(self, *args, seed=None, **env):
        environ = {k: v for k, v in os.environ.items() if k != "CVNSAMP_SEED"}
        environ["TMPDIR"] = self.tmp.name
        if seed is not None:
            environ["CVNSAMP_SEED"] = seed
        environ.update(env)
        p = subprocess.run([ARGS.cvnsamp, *args], env=environ, stdin=subprocess.DEVNULL, capture_output=True,
                           timeout=60)
        self.assertEqual([], os.listdir(self.tmp.name), "left behind")
        return p.returncode, p.stdout, p.stderr.decode()

    def test_a_sample_of_all_rows_has_the_schema_and_the_rows_of_the_file(self):
        status, out, err = self.run_it("1000000", golden("types.cvn"))
        self.assertEqual((0, ""), (status, err))
        with open(golden("types.cvn"), "rb") as f:
            self.assertEqual(f.read(), out)

    def test_the_same_seed_gives_the_same_bytes_and_none_a_different_sample(self):
        files = [golden("groups.cvn")] * 100
        first = self.run_it("50", *files, seed="18446744073709551615")
        self.assertEqual(0, first[0], first[2])
        self.assertEqual(first, self.run_it("50", *files, seed="18446744073709551615"))
        self.assertNotEqual(first[1], self.run_it("50", *files, seed="1")[1])
        self.assertEqual(1, len({self.run_it("50", *files, seed="7")[1] for _ in range(3)}))
        self.assertLess(1, len({self.run_it("50", *files)[1] for _ in range(4)}))

    def test_an_empty_seed_counts_as_none(self):
        self.assertEqual(0, self.run_it("5", golden("groups.cvn"), seed="")[0])

    def test_a_wrong_command_line_has_status_2_and_says_what_is_wrong(self):
        for args, what in [
            ([], "the number of rows is missing"),
            (["0", "x"], "'0' is not a number of rows"),
            (["-5", "x"], "unknown option '-5'"),
            (["12x", "x"], "'12x' is not a number of rows"),
            (["99999999999999999999", "x"], "is not a number of rows"),
            (["--rows", "5"], "unknown option '--rows'"),
        ]:
            status, out, err = self.run_it(*args)
            self.assertEqual((2, b""), (status, out), args)
            self.assertIn(what, err)
            self.assertIn("cvnsamp --help", err)

    def test_a_wrong_seed_has_status_2(self):
        for seed in ["x", "-1", "1 ", "0x10", "18446744073709551616"]:
            status, out, err = self.run_it("5", golden("types.cvn"), seed=seed)
            self.assertEqual((2, b""), (status, out), seed)
            self.assertIn("CVNSAMP_SEED", err)

    def test_no_files_have_no_schema_and_status_1(self):
        self.assertEqual((1, b"", "cvnsamp: no data files, so there is no schema to write\n"), self.run_it("5"))

    def test_a_file_of_another_schema_is_refused_with_status_1(self):
        status, out, err = self.run_it("5", golden("types.cvn"), golden("groups.cvn"))
        self.assertEqual((1, b""), (status, out))
        self.assertIn(golden("groups.cvn"), err)
        self.assertIn("has not the same schema", err)
        self.assertEqual(1, err.count("\n"))

    def test_a_missing_file_is_named(self):
        status, out, err = self.run_it("5", golden("types.cvn"), "no such.cvn")
        self.assertEqual((1, b"", "cvnsamp: 'no such.cvn': No such file or directory\n"), (status, out, err))

    def test_a_terminal_gets_no_sample(self):
        parent, child = pty.openpty()
        try:
            p = subprocess.run([ARGS.cvnsamp, "5", golden("types.cvn")], stdout=child, stderr=subprocess.PIPE,
                               timeout=60)
        finally:
            os.close(child)
            os.close(parent)
        self.assertEqual(1, p.returncode)
        self.assertIn(b"is a terminal", p.stderr)

    def test_a_full_output_is_a_failure(self):
        with open("/dev/full", "wb") as full:
            p = subprocess.run([ARGS.cvnsamp, "5", golden("types.cvn")], stdout=full, stderr=subprocess.PIPE,
                               timeout=60)
        self.assertEqual(1, p.returncode)
        self.assertIn(b"No space left on device", p.stderr)

    def test_a_sample_larger_than_its_file_may_be_is_cut_back_to_nothing(self):
        path = os.path.join(self.tmp.name, "out")
        with open(path, "wb") as out:
            # The limit on a file's size stands in for a disk that fills up half-way through the copy.
            size = os.path.getsize(golden("types.cvn"))
            script = 'trap "" XFSZ; exec "$0" 5 "$1"'
            p = subprocess.run(["/bin/sh", "-c", script, ARGS.cvnsamp, golden("types.cvn")], stdout=out,
                               stderr=subprocess.PIPE, timeout=60,
                               preexec_fn=lambda: resource.setrlimit(
                                   resource.RLIMIT_FSIZE, (size // 2, size // 2)))
        self.assertEqual(1, p.returncode, p.stderr)
        self.assertEqual(0, os.path.getsize(path))
        os.unlink(path)

    def test_help_and_version_go_to_standard_output(self):
        status, out, err = self.run_it("--help")
        self.assertEqual((0, ""), (status, err))
        self.assertTrue(out.startswith(b"Usage: cvnsamp N FILE...\n"))
        status, out, err = self.run_it("--version")
        self.assertEqual((0, ""), (status, err))
        self.assertRegex(out.decode(), r"^cvnsamp \d+\.\d+\.\d+\n$")

    def test_an_operand_after_two_dashes_may_start_with_one(self):
        status, out, err = self.run_it("--", "5", "-x.cvn")
        self.assertEqual((1, b"", "cvnsamp: '-x.cvn': No such file or directory\n"), (status, out, err))


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--cvnsamp", required=True)
    parser.add_argument("--golden", required=True)
    ARGS, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0], *rest])
