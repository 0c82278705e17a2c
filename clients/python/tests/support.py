"""What the tests share: temporary files, a server that says whatever a test wants, and streams built byte by byte."""

import os
import re
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))

import kelp  # noqa: E402


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


def page(body, cno=0, typ=3, nrow=2, nnull=0, nmapoff=8, nbyte=None, zbyte=None, hash=None, magic=0x19293949):
    """One page as the server sends it, every field open to a lie."""
    nbyte = len(body) if nbyte is None else nbyte
    zbyte = len(body) if zbyte is None else zbyte
    hash = kelp.native.xxh32(body) if hash is None else hash
    return struct.pack("<iiiiiiiiIi", magic, cno, typ, nrow, nnull, nmapoff, nbyte, zbyte, hash, 0) + body


def record(*pages, magic=0x71727374, nbyte=None):
    body = b"".join(pages)
    return struct.pack("<ii", magic, len(body) if nbyte is None else nbyte) + body


END = record()


def int32_page(values, cno=0, typ=3):
    bitmap = bytes(((len(values) + 7) // 8))
    return page(struct.pack("<%di" % len(values), *values) + bitmap, cno, typ, len(values), 0, 4 * len(values))


def stream_of(data, names=None):
    """The reply to a query for `names` of one file, made from the file's bytes and its footer."""
    info = kelp.inspect(data)
    fields = [c.field for c in info.columns]
    numbers = range(len(fields)) if names is None else [[f.name for f in fields].index(n) for n in names]
    out = []
    for group in info.rowgroups:
        pages = []
        for cno in numbers:
            c = group[cno]
            pages.append(page(data[c.offset:c.offset + c.zbyte], cno, fields[cno].type.code, c.nrow, c.nnull,
                              c.nmapoff, c.nbyte, c.zbyte, c.hash))
        out.append(record(*pages))
    return b"".join(out) + END


CHUNKED_HEAD = (b"HTTP/1.1 200 OK\r\nDate: Sun, 04 Jul 2021 09:30:15 GMT\r\nConnection: close\r\n"
                b"Transfer-encoding: chunked\r\nContent-type: application/octet-stream\r\n\r\n")


def chunk(data):
    return b"%x; chunk\r\n" % len(data) + data + b"\r\n"


def chunked(body, sizes=(1 << 20,), last=b"0\r\n\r\n"):
    """A chunked body cut at the given sizes, over and over."""
    out, at, turn = [], 0, 0
    while at < len(body):
        size = sizes[turn % len(sizes)]
        out.append(chunk(body[at:at + size]))
        at += size
        turn += 1
    return b"".join(out) + last


def json_reply(text, status=b"200 OK"):
    return b"HTTP/1.1 %s\r\nConnection: close\r\nContent-length: %d\r\n\r\n" % (status, len(text)) + text


class FakeServer:
    """Answers each request with what `answer(method, target, body)` returns: bytes, or a list of pieces to send one
    by one. After the answer it closes the connection."""

    def __init__(self, case, answer):
        self.requests = []
        self._answer = answer
        self._socket = socket.create_server(("127.0.0.1", 0))
        self._socket.settimeout(0.05)
        self._stop = threading.Event()
        self.url = "kelp://127.0.0.1:%d" % self._socket.getsockname()[1]
        self._threads = [threading.Thread(target=self._serve)]
        self._threads[0].start()
        case.addCleanup(self.close)

    def close(self):
        self._stop.set()
        for thread in self._threads:
            thread.join()
        self._socket.close()

    def _serve(self):
        while not self._stop.is_set():
            try:
                connection, _ = self._socket.accept()
            except TimeoutError:
                continue
            thread = threading.Thread(target=self._talk, args=(connection,))
            self._threads.append(thread)
            thread.start()

    def _talk(self, connection):
        with connection:
            connection.settimeout(10)
            try:
                data = b""
                while b"\r\n\r\n" not in data:
                    piece = connection.recv(65536)
                    if not piece:
                        return
                    data += piece
                head, body = data.split(b"\r\n\r\n", 1)
                lines = head.decode("latin-1").split("\r\n")
                headers = dict((k.lower(), v.strip()) for k, v in (line.split(":", 1) for line in lines[1:]))
                while len(body) < int(headers.get("content-length", 0)):
                    piece = connection.recv(65536)
                    if not piece:
                        return
                    body += piece
                method, target, _ = lines[0].split(" ")
                self.requests.append((method, target, body))
                answer = self._answer(method, target, body)
                for piece in [answer] if isinstance(answer, bytes) else answer:
                    connection.sendall(piece)
                connection.shutdown(socket.SHUT_WR)
                connection.recv(1)  # until the client has hung up, so that nothing is reset under it
            except OSError:
                pass


def table_server(case, fields, post, files=b'[ {"name": "p.cvn", "chksum": -5, "ncol": 1, "nrow": 2, "nrowgroup": 1,'
                                               b'"nbyte": 9, "zbyte": 9}]\n'):
    """A server of one table with the given columns; `post(body)` answers the queries."""
    columns = ",".join('{"cno": %d, "typ": "%s", "name": "%s"}' % (i, f[1], f[0]) for i, f in enumerate(fields))

    def answer(method, target, body):
        if method == "POST":
            return post(body)
        if target.endswith(".cvn"):
            return json_reply(('{"column":[%s], "chksum": -5}' % columns).encode())
        return json_reply(files)
    server = FakeServer(case, answer)
    server.table = kelp.connect(server.url, timeout=10).table("d.s.e")
    return server


class Daemon:
    """A kelpd of its own on a free port, stopped by its pid."""

    def __init__(self, case, program, fork=True):
        self.directory = tempfile.TemporaryDirectory()
        case.addCleanup(self.directory.cleanup)
        self._process = None
        os.mkdir(os.path.join(self.directory.name, "log"))
        case.addCleanup(self._stop)
        # Somebody else may take the port between its choice and the daemon's bind; the daemon then ends at once.
        if not any(self._start(program, fork) for _ in range(5)):
            raise AssertionError("kelpd did not start")

    def _start(self, program, fork):
        with socket.create_server(("127.0.0.1", 0)) as probe:
            port = probe.getsockname()[1]
        self.url = "kelp://127.0.0.1:%d" % port
        with open(os.path.join(self.directory.name, "kelpd.conf"), "w") as conf:
            conf.write("port = %d\n" % port)
        # In the foreground the daemon serves one connection at a time; in the background it forks for each.
        with open(os.path.join(self.directory.name, "log", "stderr"), "ab") as log:
            if fork:
                subprocess.run([program, "-D", self.directory.name], check=True, timeout=30,
                               stdin=subprocess.DEVNULL, stdout=log, stderr=log)
            else:
                self._process = subprocess.Popen([program, "-n", "-D", self.directory.name],
                                                 stdin=subprocess.DEVNULL, stdout=log, stderr=log)
        for _ in range(200):
            try:
                socket.create_connection(("127.0.0.1", port), 1).close()
                return bool(self._pids()) and (fork or self._process.poll() is None)
            except OSError:
                if not self._pids() and (fork or self._process.poll() is not None):
                    return False
                time.sleep(0.05)
        return False

    def _pids(self):
        """The processes whose working directory is the data directory: the daemon and its connections."""
        found = []
        for entry in filter(str.isdigit, os.listdir("/proc")):
            try:
                if os.readlink("/proc/%s/cwd" % entry) == os.path.realpath(self.directory.name):
                    found.append(int(entry))
            except OSError:
                pass
        return [pid for pid in found if pid != os.getpid()]

    def _stop(self):
        if self._process is not None:
            self._process.terminate()
            self._process.wait(30)
        else:
            for pid in self._pids():
                try:
                    os.kill(pid, signal.SIGTERM)
                except ProcessLookupError:
                    pass  # a connection's process that has just ended
            for _ in range(600):
                if not self._pids():
                    break
                time.sleep(0.05)
            else:
                raise AssertionError("kelpd did not stop")
        logs = os.path.join(self.directory.name, "log")
        for name in os.listdir(logs):
            with open(os.path.join(logs, name), errors="replace") as file:
                for line in file:
                    if re.search("Sanitizer|runtime error|FATAL", line):
                        raise AssertionError("kelpd reports: " + line)
