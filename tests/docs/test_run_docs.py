#!/usr/bin/env python3
"""The runner of the documents has to notice what is wrong with one."""
import os
import re
import subprocess
import sys
import tempfile
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))


class RunDocs(unittest.TestCase):
    def run_text(self, text, *options, name="d.md"):
        with tempfile.TemporaryDirectory() as tmp:
            path = os.path.join(tmp, name)
            with open(path, "w") as f:
                f.write(text)
            p = subprocess.run([sys.executable, os.path.join(HERE, "run_docs.py"), path, *options],
                               stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=300)
        return p.returncode, p.stdout

    def test_a_document_that_tells_the_truth_passes(self):
        status, out = self.run_text("```sh\nx=1; echo a b; echo c\n```\n```text\na ...\n...\n```\n\n"
                                    "```sh\ntest $x = 1\n```\n")
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
        status, out = self.run_text("```sh\necho 8642\n```\n```text\n8642\n```\n```sh\ntest 8642 != 86'42'\n```\n"
                                    "```sh\ntest 8643 != 86'43' -a 8642 != 8643\n```\n")
        self.assertEqual(0, status, out)

    def test_the_port_of_the_packaged_service_is_refused(self):
        with open(os.path.join(HERE, "..", "..", "packaging", "kelpd.conf"), encoding="utf-8") as f:
            port = re.search(r"^port = (\d+)$", f.read(), re.M).group(1)
        status, out = self.run_text(f"```sh\necho localhost:{port}\n```\n")
        self.assertEqual(1, status)
        self.assertIn("which is the packaged service's", out)
        self.assertEqual(0, self.run_text(f"```sh\necho localhost:{port}0\n```\n")[0])

    def test_a_block_that_loses_a_file_in_silence_on_a_full_disk_fails(self):
        for text in ("```sh\necho a > b || true\n```\n", "```sh\necho a > b 2> /dev/null\n```\n",
                     "```sh\nx=1\n```\n```sh\necho $x | tee b > /dev/null 2>&1\n```\n"):
            self.assertEqual(0, self.run_text(text)[0])
            status, out = self.run_text(text, "--full-disk")
            self.assertEqual(1, status, text)
            self.assertIn("on a full disk", out)

    def test_a_block_that_fails_aloud_or_writes_nothing_passes_the_full_disk(self):
        text = "```sh\nmkdir d\n```\n```sh\necho a > d/b\n```\n```sh\ncat d/b; : > empty\n```\n```text\na\n```\n"
        status, out = self.run_text(text, "--full-disk")
        self.assertEqual(0, status, out)

    def test_the_examples_of_a_manual_page_are_commands_or_programs(self):
        page = ".Sh NAME\n.Bd -literal\nfalse\n.Ed\n.Sh EXAMPLES\n.Bd -literal -offset indent\n%s\n.Ed\n.Sh MORE\n"
        self.assertEqual(0, self.run_text(page % r"test \(dqa b\(dq = 'a b'", name="x.1")[0])
        self.assertEqual(1, self.run_text(page % "false", name="x.8")[0])
        self.assertEqual(0, self.run_text(page % "test -s made", "--before", "echo > made", name="x.1")[0])

    def test_what_a_command_leaves_running_is_stopped(self):
        with tempfile.TemporaryDirectory() as tmp:
            status, out = self.run_text(f"```sh\nsetsid sleep 1000 > /dev/null 2>&1 &\necho $! > {tmp}/pid\n```\n")
            self.assertEqual(0, status, out)
            with open(f"{tmp}/pid") as f:
                pid = int(f.read())
        self.assertFalse(os.path.exists(f"/proc/{pid}"))


PROGRAM = """```c many=10
#include <colvane/colvane.h>
#include <stdio.h>

int main(void) {
    cvn_t* out;
    if (cvn_create(&out, "a.cvn") != 0) return 1;
    if (cvn_create_column(out, "id", CVN_TYP_INT64, false, false) != 0) return 1;
    bool good = true;
    for (int64_t id = 0; id < 10; id++) {
        const cvn_datum_t value = {.I = id * 0x9e3779b97f4a7c15};
        const bool isnull = false;
        if (cvn_append(out, 1, &value, &isnull) != 0) {
            good = false;
            break;
        }
    }
    if (cvn_close(out) != 0) good = false;
    if (good) return 0;
    fprintf(stderr, "a.cvn cannot be written\\n");
    remove("a.cvn");
    return 1;
}
```
"""


@unittest.skipUnless(os.environ.get("RUN_PROGRAMS"), "RUN_PROGRAMS does not name the options of an installed library")
class RunPrograms(RunDocs):
    def run_program(self, text):
        return self.run_text(text, "--full-disk", *os.environ["RUN_PROGRAMS"].split())

    def test_a_program_that_tells_of_every_failure_passes(self):
        status, out = self.run_program(PROGRAM)
        self.assertEqual(0, status, out)

    def test_a_program_that_hides_a_failure_fails(self):
        for old, new, what in (("good = false;\n            break", "break", "with room for"),
                               ("!= 0) good = false", "!= 0) puts(\"a.cvn\")", "on a full device"),
                               ("remove(\"a.cvn\")", "good = true", "leaves"),
                               ("a.cvn cannot", "it cannot", "says"), ("id < 10;", "id < 9;", "no 10 in it"),
                               ("(out, 1,", "(out, 2,", "ends with status 1"), ("return 1;\n}", "}", "ends with status 0"),
                               ("bool good", "bool unused, good", "does not compile")):
            self.assertIn(old, PROGRAM)
            status, out = self.run_program(PROGRAM.replace(old, new))
            self.assertEqual(1, status, new)
            self.assertIn(what, out)

    def test_a_text_after_a_program_is_what_it_prints(self):
        program = PROGRAM.replace("if (good) return 0", "if (good) return puts(\"done\") < 0")
        self.assertEqual(0, self.run_program(program + "```text\ndone\n```\n")[0])
        self.assertEqual(1, self.run_program(program + "```text\nmore\n```\n")[0])


if __name__ == "__main__":
    unittest.main()
