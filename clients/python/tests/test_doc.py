"""The README's examples, run as they stand against a daemon, and its way of installing."""

import doctest
import importlib.util
import os
import resource
import shutil
import signal
import subprocess
import sys
import unittest

from support import Case, kelp, start_daemon

PACKAGE = os.path.dirname(os.path.dirname(os.path.abspath(kelp.__file__)))
KELPD = os.environ.get("KELPD")


class Readme(Case):
    def setUp(self):
        super().setUp()
        with open(os.path.join(PACKAGE, "README.md"), encoding="utf-8") as file:
            self.text = file.read()

    @unittest.skipUnless(KELPD, "KELPD is not set")
    def test_the_examples_print_what_the_readme_shows(self):
        daemon = start_daemon(self)
        here = os.getcwd()
        self.addCleanup(os.chdir, here)
        os.chdir(self.dir)
        text = self.text.replace("kelp://localhost:8642", daemon.url)
        test = doctest.DocTestParser().get_doctest(text, {}, "README.md", "README.md", 0)
        self.assertGreater(len(test.examples), 20)
        said = []
        result = doctest.DocTestRunner(verbose=False).run(test, out=said.append)
        self.assertEqual((0, len(test.examples)), tuple(result), "".join(said))

    def test_the_example_that_writes_a_file_fails_aloud_on_a_full_disk(self):
        def prepare():
            signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
            resource.setrlimit(resource.RLIMIT_FSIZE, (100, 100))

        examples = doctest.DocTestParser().get_examples(self.text)
        code = "".join(e.source for e in examples[:2])
        self.assertIn("kelp.write_table(\"day1.cvn\"", examples[1].source)
        for limited in (False, True):
            done = subprocess.run([sys.executable, "-c", code], cwd=self.dir, stderr=subprocess.PIPE, text=True, timeout=60,
                                  env=dict(os.environ, PYTHONPATH=PACKAGE), preexec_fn=prepare if limited else None)
            if not limited:
                self.assertEqual((0, ""), (done.returncode, done.stderr))
                os.unlink(self.path("day1.cvn"))
        self.assertEqual(1, done.returncode)
        self.assertRegex(done.stderr.splitlines()[-1], "File too large")
        self.assertEqual([], [n for n in os.listdir(self.dir) if "day1" in n])

    def test_the_package_installs_with_pip_and_imports_from_there(self):
        if not all(importlib.util.find_spec(name) for name in ("pip", "setuptools", "wheel")):
            self.skipTest("this Python has no pip, setuptools and wheel")
        self.assertIn("pip install ./clients/python", self.text)
        shutil.copytree(PACKAGE, self.path("source"), ignore=shutil.ignore_patterns("__pycache__", "tests"))
        subprocess.run([sys.executable, "-m", "pip", "install", "--quiet", "--no-deps", "--no-build-isolation",
                        "--no-index", "--target", self.path("site"), self.path("source")], check=True, timeout=300,
                       capture_output=True)
        found = subprocess.run([sys.executable, "-c", "import kelp; print(kelp.__file__, kelp.__version__)"],
                               env=dict(os.environ, PYTHONPATH=self.path("site")), cwd=self.dir, check=True,
                               timeout=60, capture_output=True, text=True).stdout.split()
        self.assertEqual([os.path.join(self.path("site"), "kelp", "__init__.py"), kelp.__version__], found)


if __name__ == "__main__":
    unittest.main()
