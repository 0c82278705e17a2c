"""What the tests of the remote commands share: a daemon for each class, and servers that misbehave on purpose.

KELPD, CVN and CVNSAMP name the programs. Every server listens on 127.0.0.1 only.
"""
import os
import pty
import select
import socket
import struct
import subprocess
import sys
import threading
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "wire"))

import cvnfile  # noqa: E402
from cvnfile import Column  # noqa: E402, F401
from kelpd_proc import WAIT, Daemon  # noqa: E402
from support import CVN, ToolTest  # noqa: E402

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
        cls.base = f"kelp://127.0.0.1:{cls.daemon.port}"

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


class FakeServer:
    """Serves each connection by `serve(conn)` on a thread of its own. What it raises about sockets is ignored."""

    def __init__(self, serve, rcvbuf=None):
        self.serve = serve
        self.listener = socket.socket()
        if rcvbuf:
            self.listener.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, rcvbuf)
        self.listener.bind(("127.0.0.1", 0))
        self.listener.listen(20)
        self.port = self.listener.getsockname()[1]
        self.threads = []
        self.acceptor = threading.Thread(target=self._accept)
        self.acceptor.start()

    def _accept(self):
        while True:
            try:
                conn = self.listener.accept()[0]
            except OSError:
                return
            conn.settimeout(WAIT)
            thread = threading.Thread(target=self._one, args=(conn,))
            thread.start()
            self.threads.append(thread)

    def _one(self, conn):
        with conn:
            try:
                self.serve(conn)
            except OSError:
                pass

    def close(self):
        self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()
        self.acceptor.join(WAIT)
        for thread in self.threads:
            thread.join(WAIT)


def receive_head(conn):
    """Reads a request's head; returns its method, its path, and what came after it."""
    data = b""
    while b"\r\n\r\n" not in data:
        part = conn.recv(65536)
        if not part:
            raise ConnectionError
        data += part
    head, _, rest = data.partition(b"\r\n\r\n")
    method, path = head.decode().split(" ")[:2]
    return method, path, rest


def drain(conn):
    """Reads until the peer closes, so that closing here does not reset what was sent."""
    conn.shutdown(socket.SHUT_WR)
    while conn.recv(65536):
        pass


def chunk(data):
    return b"%x; chunk\r\n" % len(data) + data + b"\r\n"


STREAM_HEAD = (b"HTTP/1.1 200 OK\r\nConnection: close\r\nTransfer-encoding: chunked\r\n"
               b"Content-type: application/octet-stream\r\n\r\n")
STREAM_END = chunk(struct.pack("<2i", cvnfile.RECORD_MAGIC, 0)) + b"0\r\n\r\n"


def fake_table(whole, post):
    """Serves a catalogue with the one data file `whole`; a POST is answered by `post(conn)`."""
    names = [c.name.decode() for c in whole.columns]

    def serve(conn):
        method, path, _ = receive_head(conn)
        if method == "POST":
            post(conn)
            return
        if path.endswith(".cvn"):
            text = '{"column":[%s], "chksum": 1}' % ",".join(
                '{"cno": %d, "typ": "%s", "name": "%s"}' % (k, cvnfile.NAMES[c.typ], names[k])
                for k, c in enumerate(whole.columns))
        else:
            text = "[ " + whole.json("p.cvn") + "]\n"
        conn.sendall(b"HTTP/1.1 200 OK\r\nConnection: close\r\nContent-length: %d\r\n\r\n" % len(text) + text.encode())
        drain(conn)

    return serve
