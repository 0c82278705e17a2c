#!/usr/bin/env python3
"""The runner of the documents has to notice what is wrong with one."""
import os
import subprocess
import sys
import tempfile
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))


class RunDocs(unittest.TestCase):
    def run_text(self, text):
        with tempfile.TemporaryDirectory() as tmp:
            path = os.path.join(tmp, "d.md")
            with open(path, "w") as f:
                f.write(text)
            p = subprocess.run([sys.executable, os.path.join(HERE, "run_docs.py"), path], stdout=subprocess.PIPE,
                               stderr=subprocess.STDOUT, text=True, timeout=60)
        return p.returncode, p.stdout

    def test_a_document_that_tells_the_truth_passes(self):
        status, out = self.run_text("```sh\nx=1; echo a b; echo c\n```\n```text\na ...\n...\n```\n\n```sh\ntest $x = 1\n```\n")
        self.assertEqual(0, status, out)

    def test_other_output_than_the_document_says_fails(self):
        for expected in ("b\n", "a\nb\n", "", "a...b\n", "...b\n"):
            status, out = self.run_text(f"```sh\necho a\n```\n```text\n{expected}```\n")
            self.assertEqual(1, status, expected)
            self.assertIn("prints something else", out)

    def test_a_failing_command_fails_and_ends_the_document(self):
        status, out = self.run_text("```sh\necho before; false; echo after\n```\n```sh\necho never\n```\n")
        self.assertEqual(1, status)
        self.assertIn("before", out)
        self.assertNotIn("never", out)
        self.assertEqual(1, self.run_text("```sh\nfalse | true\n```\n")[0])

    def test_a_command_that_is_not_there_fails(self):
        self.assertEqual(1, self.run_text("```sh\nno-such-command\n```\n")[0])

    def test_what_needs_a_missing_program_is_skipped_and_the_rest_runs(self):
        text = "```sh\nfalse\n```\n```sh needs=no-such-program\ntrue\n```\n"
        self.assertEqual(1, self.run_text(text)[0])
        status, out = self.run_text(text.replace("false", "true"))
        self.assertEqual(77, status)
        self.assertIn("1 skipped for want of no-such-program", out)

    def test_a_document_without_commands_fails(self):
        self.assertEqual(1, self.run_text("nothing here\n")[0])

    def test_a_port_of_the_document_is_replaced_by_a_free_one(self):
        status, out = self.run_text("```sh\necho 7070\n```\n```text\n7070\n```\n```sh\ntest 7070 != 70'70'\n```\n")
        self.assertEqual(0, status, out)

    def test_what_a_command_leaves_running_is_stopped(self):
        with tempfile.TemporaryDirectory() as tmp:
            status, out = self.run_text(f"```sh\nsetsid sleep 1000 > /dev/null 2>&1 &\necho $! > {tmp}/pid\n```\n")
            self.assertEqual(0, status, out)
            with open(f"{tmp}/pid") as f:
                pid = int(f.read())
        self.assertFalse(os.path.exists(f"/proc/{pid}"))


if __name__ == "__main__":
    unittest.main()
