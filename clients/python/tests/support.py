"""What the tests share: temporary files, a server that says whatever a test wants, and a daemon.

What the server says is made by the tests' own encoder in tests/support, which knows nothing of this package.
"""

import os
import sys
import tempfile
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path[:0] = [os.path.join(HERE, ".."), os.path.join(HERE, "..", "..", "..", "tests", "support")]

import cvnfile  # noqa: E402
import kelp  # noqa: E402
from cvnfile import INT32, page_of  # noqa: E402
from fake_server import LISTING, FakeServer, answering, catalogue  # noqa: E402
from kelpd_proc import Daemon  # noqa: E402


class Case(unittest.TestCase):
    """A test with a directory of its own."""

    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.dir = directory.name

    def path(self, name):
        return os.path.join(self.dir, name)

    def write(self, columns, schema=None, name="t.cvn"):
        kelp.write_table(self.path(name), columns, schema)
        return self.path(name)

    def bytes_of(self, columns, schema=None):
        with open(self.write(columns, schema), "rb") as file:
            return file.read()


def int32_page(values, cno=0, typ=INT32):
    """A page of int32 values that says it were of the type `typ`."""
    return page_of(values)._replace(cno=cno, typ=typ).bytes()


def stream_of(data, names=None):
    """The reply to a query for `names` of one file, made from the file's bytes."""
    return cvnfile.read(data).stream(names and [name.encode() for name in names])


def serve(case, answer):
    """A server that answers each request with what `answer(method, target, body)` returns; it notes them in
    `requests`."""
    requests = []
    server = FakeServer(answering(answer, requests))
    server.requests = requests
    case.addCleanup(server.close)
    return server


def table_server(case, fields, post, files=LISTING):
    """A server of one table with the given columns; `post(body)` answers the queries."""
    server = serve(case, catalogue(fields, post, files))
    server.table = kelp.connect(server.url, timeout=10).table("d.s.e")
    return server


def start_daemon(case, fork=True):
    """A kelpd of the test's own. In the foreground it serves one connection at a time; in the background it forks for
    each."""
    daemon = Daemon(nofork=not fork).start()
    case.addCleanup(daemon.stop)
    return daemon
