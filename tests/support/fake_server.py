"""A server on 127.0.0.1 that says whatever a test wants, for the tests of the clients."""
import os
import socket
import ssl
import subprocess
import threading

import cvnfile
import replies

WAIT = 60  # seconds; only a client that has stopped reading or writing reaches it


class FakeServer:
    """Serves each connection by `serve(conn)`, on a thread of its own, and closes it afterwards.

    serve    takes the accepted socket. What it raises about sockets is ignored, since clients may hang up at any time;
             any other problem is raised again by close().
    rcvbuf   size of the receive buffer, for tests that lean on it
    tls      an ssl.SSLContext: the connections speak TLS then
    """

    def __init__(self, serve, rcvbuf=None, tls=None):
        self._serve, self._tls = serve, tls
        self._problems, self._threads = [], []
        self._listener = socket.socket()
        if rcvbuf:
            self._listener.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, rcvbuf)
        self._listener.bind(("127.0.0.1", 0))
        self._listener.listen(20)
        self.port = self._listener.getsockname()[1]
        self.url = f"kelp://127.0.0.1:{self.port}"
        self._acceptor = threading.Thread(target=self._accept, daemon=True)
        self._acceptor.start()

    def _accept(self):
        while True:
            try:
                conn = self._listener.accept()[0]
            except OSError:  # closed
                return
            conn.settimeout(WAIT)
            thread = threading.Thread(target=self._one, args=(conn,), daemon=True)
            thread.start()
            self._threads.append(thread)

    def _one(self, conn):
        try:
            with conn:
                if self._tls:
                    with self._tls.wrap_socket(conn, server_side=True) as secure:
                        self._serve(secure)
                else:
                    self._serve(conn)
        except OSError:  # a TLS error is one
            pass
        except Exception as problem:
            self._problems.append(problem)

    def close(self):
        """Waits for the connections to end; each ends by itself once its client is gone."""
        self._listener.shutdown(socket.SHUT_RDWR)
        self._listener.close()
        self._acceptor.join(WAIT)
        for thread in self._threads:
            thread.join(2 * WAIT)
            if thread.is_alive():
                raise AssertionError("a connection of the server does not end")
        if self._problems:
            raise self._problems[0]


def make_certificate(folder, name="cert"):
    """Makes a certificate for this machine in `folder`: NAME.pem, and its key, key-NAME.pem. Returns both paths."""
    certificate, key = (os.path.join(folder, part + name + ".pem") for part in ("", "key-"))
    subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
                    "-keyout", key, "-out", certificate, "-days", "2", "-subj", "/CN=localhost",
                    "-addext", "subjectAltName=DNS:localhost,IP:127.0.0.1"],
                   check=True, capture_output=True, timeout=WAIT)
    return certificate, key


def tls_context(folder):
    """What makes a FakeServer speak TLS; its certificate is cert.pem in `folder`."""
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(*make_certificate(folder))
    return context


def _receive_head(conn):
    """Reads the head of a request. Returns its first line's words, its other lines, and the bytes that came after."""
    data = b""
    while b"\r\n\r\n" not in data:
        part = conn.recv(65536)
        if not part:
            raise ConnectionError("the client has left")
        data += part
    head, _, rest = data.partition(b"\r\n\r\n")
    first, *lines = head.decode("latin-1").split("\r\n")
    return first.split(" "), lines, rest


def receive_head(conn):
    """Reads the head of a request; returns its method, its target, and the bytes that came after it."""
    words, _, rest = _receive_head(conn)
    return words[0], words[1], rest


def receive_request(conn):
    """Reads a whole request; returns its method, target and body."""
    words, lines, body = _receive_head(conn)
    headers = {name.lower(): value.strip() for name, _, value in (line.partition(":") for line in lines)}
    while len(body) < int(headers.get("content-length", 0)):
        part = conn.recv(65536)
        if not part:
            raise ConnectionError("the client has left")
        body += part
    return words[0], words[1], body


def drain(conn):
    """Says the end and reads until the peer closes, so that closing here does not reset what was sent."""
    conn.shutdown(socket.SHUT_WR)
    while conn.recv(65536):
        pass


def send(conn, pieces):
    """Sends bytes, or pieces one by one, and then waits for the client's close."""
    for piece in [pieces] if isinstance(pieces, bytes) else pieces:
        conn.sendall(piece)
    drain(conn)


def answering(answer, requests=None):
    """A `serve` that answers each request with what `answer(method, target, body)` returns: bytes, or pieces to send
    one by one. The requests are noted in the list `requests`, if one is given."""

    def serve(conn):
        request = receive_request(conn)
        if requests is not None:
            requests.append(request)
        send(conn, answer(*request))

    return serve


LISTING = ('[ {"name": "p.cvn", "chksum": -5, "ncol": 1, "nrow": 2, "nrowgroup": 1,"nbyte": 9, "zbyte": 9}]\n')


def catalogue(columns, post, files=LISTING):
    """An `answer` for a server of one table: `files` is its listing, and its file has the columns given, each (name,
    type name); the names are written as the daemon does, unescaped. `post(body)` answers the queries."""
    listed = ",".join('{"cno": %d, "typ": "%s", "name": "%s"}' % (k, typ, name)
                      for k, (name, typ) in enumerate(columns))

    def answer(method, target, body):
        if method == "POST":
            return post(body)
        if target.endswith(".cvn"):
            return replies.json_reply('{"column":[%s], "chksum": -5}' % listed)
        return replies.json_reply(files)

    return answer


def table_of(whole, post):
    """A `serve` for one table that holds the file `whole`, a cvnfile.File; a query is answered by `post(conn)`."""
    columns = [(column.name.decode(), cvnfile.NAMES[column.typ]) for column in whole.columns]
    answer = catalogue(columns, None, "[ " + whole.json("p.cvn") + "]\n")

    def serve(conn):
        request = receive_request(conn)
        if request[0] == "POST":
            post(conn)
        else:
            send(conn, answer(*request))

    return serve
