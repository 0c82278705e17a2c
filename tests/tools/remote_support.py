"""What the tests of the remote commands share: running the tool with a server, and a daemon for each class.

KELPD, CVN and CVNSAMP name the programs.
"""
import os
import pty
import select
import subprocess
import time

import cvnfile
from kelpd_proc import WAIT, Daemon
from support import CVN, ToolTest

CVNSAMP = os.environ.get("CVNSAMP", "")


class CommandTest(ToolTest):
    """Runs the tool with KELPD_URL set to `base`, if that is given."""

    base = None

    def environment(self):
        env = {k: v for k, v in os.environ.items() if k not in ("KELPD_URL", "KELPD_CACERT")}
        if self.base:
            env["KELPD_URL"] = self.base
        return env

    def cvn(self, *args, status=0, **kw):
        kw.setdefault("env", self.environment())
        return self.run_cvn(*args, status=status, **kw)

    def out(self, *args, **kw):
        return self.cvn(*args, **kw).out

    def fails(self, *args, status=1, **kw):
        """Runs what must fail with one line on the standard error and nothing else; returns the line."""
        done = self.cvn(*args, status=status, **kw)
        self.assertEqual("", done.out)
        self.assertEqual(1, done.err.count("\n"), done.err)
        self.assertTrue(done.err.startswith("cvn: "), done.err)
        return done.err

    def build(self, name, columns, groups):
        """Writes a data file made without the library, and returns it."""
        whole = cvnfile.build(columns, groups)
        self.write(name, whole.data)
        return whole

    def on_terminal(self, *args, answer=b"", stdout=subprocess.PIPE):
        """Runs the tool with a terminal for its input and diagnostics. Returns status, output and terminal."""
        master, slave = pty.openpty()
        child = subprocess.Popen([CVN, *args], stdin=slave, stdout=stdout, stderr=slave, cwd=self.dir,
                                 env=self.environment())
        os.close(slave)
        seen, output, end = b"", b"", time.monotonic() + WAIT
        try:
            if answer:
                os.write(master, answer)
            waiting = [master] + ([child.stdout] if child.stdout else [])
            while waiting and time.monotonic() < end:
                for ready in select.select(waiting, [], [], 1)[0]:
                    try:
                        part = os.read(ready if ready is master else ready.fileno(), 65536)
                    except OSError:  # the terminal's other side is closed
                        part = b""
                    if not part:
                        waiting.remove(ready)
                    elif ready is master:
                        seen += part
                    else:
                        output += part
            status = child.wait(WAIT)
        finally:
            if child.poll() is None:
                child.kill()
                child.wait()
            os.close(master)
            if child.stdout:
                child.stdout.close()
        self.assertNotIn(b"Sanitizer", seen)
        return status, output.decode(), seen.decode()


class DaemonTest(CommandTest):
    """One daemon for the class; its tables are gone after each test."""

    @classmethod
    def setUpClass(cls):
        path = os.environ["PATH"]
        cls.daemon = Daemon(env={"PATH": os.path.dirname(CVNSAMP) + os.pathsep + path if CVNSAMP else path})
        cls.daemon.start()
        cls.base = cls.daemon.url

    @classmethod
    def tearDownClass(cls):
        cls.daemon.stop()

    def setUp(self):
        super().setUp()
        self.addCleanup(self.clear)

    def clear(self):
        self.daemon.await_idle()
        self.daemon.clear()

    def put(self, name, table="db/sc/t"):
        self.cvn("put", name, table)

    def rows(self, *args):
        """The rows of a query, sorted: with several jobs they come in no particular order."""
        return sorted(self.out("query", *args).splitlines()[1:])
