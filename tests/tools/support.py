"""What the tests of the tool share: running it, and a directory of its own for each test."""
import json
import os
import shutil
import subprocess
import tempfile
import unittest

CVN = os.environ.get("CVN", "cvn")


class ToolTest(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.mkdtemp(prefix="cvn_test_")
        self.addCleanup(shutil.rmtree, self.dir, ignore_errors=True)

    def path(self, name):
        return os.path.join(self.dir, name)

    def write(self, name, text):
        data = text if isinstance(text, bytes) else text.encode()
        with open(self.path(name), "wb") as f:
            f.write(data)
        return self.path(name)

    def run_cvn(self, *args, stdin=b"", status=0, **kw):
        done = subprocess.run([CVN, *args], input=stdin, capture_output=True, timeout=120, cwd=self.dir, **kw)
        if status is not None:  # any is expected
            self.assertEqual(status, done.returncode, (args, done.stdout[-2000:], done.stderr[-2000:]))
        self.assertNotIn(b"Sanitizer", done.stderr)
        self.assertNotIn(b"runtime error", done.stderr)
        done.out, done.err = done.stdout.decode(errors="replace"), done.stderr.decode(errors="replace")
        return done

    def run_unread(self, *args, status=0, **kw):
        """Runs the tool with nobody at the other end of its output; returns what it said on the standard error."""
        read, write = os.pipe()
        os.close(read)
        try:
            done = subprocess.run([CVN, *args], stdin=subprocess.DEVNULL, stdout=write, stderr=subprocess.PIPE,
                                  timeout=120, cwd=self.dir, **kw)
        finally:
            os.close(write)
        self.assertEqual(status, done.returncode, (args, done.stderr[-2000:]))
        self.assertNotIn(b"Sanitizer", done.stderr)
        return done.stderr.decode()

    def load(self, name):
        with open(self.path(name), "rb") as f:
            return f.read()

    def create(self, schema, csv, name="t.cvn", *args):
        self.write("in.csv", csv)
        return self.run_cvn("create", "--schema", schema, *args, name, "in.csv")

    def cat(self, name="t.cvn", *args):
        return self.run_cvn("cat", name, *args).out

    def info(self, name="t.cvn", *args):
        return json.loads(self.run_cvn("info", name, "--json", *args).out)

    def files(self):
        return sorted(os.listdir(self.dir))
