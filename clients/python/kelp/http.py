"""HTTP/1.1 as far as kelpd speaks it: one request a connection, a reply of fixed length or in chunks.

The reader is strict, because the server reports a failure in the middle of a stream by writing its status text where
the next chunk's size should stand. Whatever is not exactly a chunk is therefore the end of the reply, and an error.
"""

import base64
import io
import re
import socket
import ssl
import time
from urllib.parse import quote, unquote, urlsplit

from .errors import KelpError
from .text import shown, without_password

DEFAULT_PORTS = {"kelp": None, "http": 80, "https": 443}
_LINE_LIMIT = 8192
_HEAD_LINES = 100
_SEND_PIECE = 1 << 18
_SIZE_LINE = re.compile(rb"([0-9a-fA-F]{1,8})[ \t]*(;[^\r\n]*)?\r?\n")
_STATUS_TEXT = re.compile(rb"[1-5][0-9][0-9] [A-Za-z][ -~]*")


class Address:
    """Where a server is, out of a URL such as kelp://host:8642/db/schema/entity or http://host/v1/db/schema."""

    def __init__(self, url):
        if not isinstance(url, str):
            raise KelpError("%r is no URL; write kelp://host:port" % (url,))
        if "://" not in url:
            url = "kelp://" + url
        # What urlsplit raises may quote a part of the password, so it stays out of the traceback as well.
        wrong = self._parse(url)
        if wrong:
            raise KelpError(wrong % repr(without_password(url)))

    def _parse(self, url):
        """Takes the URL apart. Returns what is wrong with it, with a %s for the URL, or None."""
        try:
            parts = urlsplit(url)
            self.scheme, self.host, port = parts.scheme.lower(), parts.hostname, parts.port
        except ValueError:
            return "%s is no URL; write kelp://host:port"
        if self.scheme not in DEFAULT_PORTS or not self.host:
            return "%s is no server; write kelp://host:port or http://host:port"
        try:
            # As it stands in the name service and in the request's head: without letters beyond ASCII.
            self.host = self.host.encode("idna").decode("ascii")
        except UnicodeError:
            return "%s is no server: its host name cannot be one"
        self.port = port or DEFAULT_PORTS[self.scheme]
        if not self.port:
            return "%s has no port; write kelp://host:port"
        self.authorization = None
        if parts.username is not None:
            pair = "%s:%s" % (unquote(parts.username), unquote(parts.password or ""))
            self.authorization = "Basic " + base64.b64encode(pair.encode("utf-8", "surrogateescape")).decode("ascii")
        self.path = [unquote(part) for part in parts.path.split("/") if part]
        if self.scheme != "kelp" and self.path:
            if self.path[0] != "v1":
                return "the path of %s does not begin with /v1; write http://host:port/v1/db/schema/entity"
            del self.path[0]
        return None

    def __repr__(self):
        return "<kelp.http.Address %s>" % self

    def __str__(self):
        return shown("%s:%d" % (self.host, self.port))


class Clock:
    """How long a request, or a scan with all of its requests, may take.

    idle    seconds without a byte in either direction; None for ever
    total   seconds in all; None for ever
    """

    def __init__(self, idle, total):
        self._idle, self._total = idle, total
        self._end = None if total is None else time.monotonic() + total

    def left(self):
        """Returns what the next wait may take, as a socket's time-out. Raises TimeoutError when all is spent."""
        if self._end is None:
            return self._idle
        left = self._end - time.monotonic()
        if left <= 0:
            raise TimeoutError
        return left if self._idle is None else min(left, self._idle)

    def late(self, address, words):
        """What to raise for a TimeoutError: `words`, unless it was all of the time that was spent."""
        if self._end is not None and time.monotonic() >= self._end:
            return KelpError("%s did not finish in %g seconds" % (address, self._total))
        return KelpError(words % address)


class _Incoming(io.RawIOBase):
    """What a connection receives. The clock is asked before every wait: a buffered read may wait many times."""

    def __init__(self, connection, clock):
        super().__init__()
        self._socket, self._clock = connection, clock

    def readable(self):
        return True

    def readinto(self, view):
        self._socket.settimeout(self._clock.left())
        return self._socket.recv_into(view)


def target(path):
    """Returns the request target of path components; raises KelpError for names that no path can carry."""
    for part in path:
        if not part or part.startswith(".") or "/" in part or "\0" in part:
            raise KelpError("%r cannot be a name: it is empty, begins with a dot, or holds a slash" % part)
    return "/v1" + "".join("/" + quote(part.encode("utf-8", "surrogateescape"), safe="-._~") for part in path)


class Link:
    """A connection that another thread may end."""

    def __init__(self, connection):
        self._socket = connection

    def cancel(self):
        """Ends whatever is being sent or waited for."""
        try:
            self._socket.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass


class Reply:
    """The reply of one request: its status, then its body in whatever pieces the reader asks for."""

    def __init__(self, connection, file, address, clock):
        self._socket = connection
        self._file = file
        self._address = address
        self._clock = clock
        self.status = self._read_status()
        headers = self._read_headers()
        self._left = 0          # bytes of the body, or of the current chunk, still to come
        self._first = True
        self._ended = False
        self._chunked = headers.get("transfer-encoding", "").lower() == "chunked"
        self._until_close = False
        if not self._chunked:
            length = headers.get("content-length")
            if length is None:
                self._until_close = True
            elif not re.fullmatch(r"[0-9]{1,18}", length):
                raise self._alien()
            else:
                self._left = int(length)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        self._file.close()
        self._socket.close()

    @property
    def ok(self):
        return self.status.split(" ")[0] == "200"

    def _alien(self):
        return KelpError("what answers at %s is no kelpd; check host and port" % self._address)

    def _line(self):
        return self._guard(lambda: self._file.readline(_LINE_LIMIT))

    def _read_status(self):
        line = self._line()
        if not line:
            raise KelpError("%s closed the connection without a reply; look into the server's log" % self._address)
        if not re.match(rb"HTTP/1\.[01] [0-9]{3}( |\r?\n)", line) or not line.endswith(b"\n"):
            raise self._alien()
        return line.decode("latin-1").split(" ", 1)[1].strip()

    def _read_headers(self):
        headers = {}
        for _ in range(_HEAD_LINES):
            line = self._line()
            if line in (b"\r\n", b"\n"):
                return headers
            if not line.endswith(b"\n"):
                break
            name, _, value = line.decode("latin-1").partition(":")
            headers[name.strip().lower()] = value.strip()
        raise self._alien()

    def _broken(self, line):
        if _STATUS_TEXT.fullmatch(line):
            text = line.decode("ascii")
            return KelpError("the server failed in the middle of the reply: %s; its log may say more" % text, text)
        if not line.endswith(b"\n"):
            return self._short()
        return KelpError("the reply of %s is damaged: a chunk does not begin with its size" % self._address)

    def _short(self):
        return KelpError("the reply of %s ends too early; it is not whole" % self._address)

    def _next_chunk(self):
        if not self._first:
            end = self._line()
            if end not in (b"\r\n", b"\n"):
                raise self._broken(end)
        self._first = False
        line = self._line()
        found = _SIZE_LINE.fullmatch(line)
        if not found:
            raise self._broken(line)
        self._left = int(found.group(1), 16)
        if self._left == 0:
            self._ended = True
            for _ in range(_HEAD_LINES):  # trailer fields up to the empty line
                line = self._line()
                if line in (b"\r\n", b"\n"):
                    return
                if not line.endswith(b"\n"):
                    break
            raise self._short()

    def readinto(self, view):
        """Reads into a memoryview; returns how many bytes, 0 at the end of the whole body."""
        if self._until_close:
            return self._guard(lambda: self._file.readinto(view))
        if self._chunked and self._left == 0 and not self._ended:
            self._next_chunk()
        if self._left == 0:
            return 0
        piece = view[:self._left]
        got = self._guard(lambda: self._file.readinto(piece))
        if not got:
            raise self._short()
        self._left -= got
        return got

    def read_all(self, limit):
        """Returns the whole body of a short reply, of at most `limit` bytes."""
        out, piece = bytearray(), memoryview(bytearray(1 << 16))
        while True:
            got = self.readinto(piece)
            if not got:
                return bytes(out)
            out += piece[:got]
            if len(out) > limit:
                raise self._alien()

    def _guard(self, call):
        """Runs one operation of the connection and puts its failure into words."""
        try:
            return call()
        except TimeoutError:
            raise self._clock.late(self._address, "%s did not answer in time") from None
        except (OSError, ValueError) as error:  # ValueError: cancelled while reading
            raise KelpError("the connection to %s broke: %s"
                            % (self._address, getattr(error, "strerror", None) or error)) from None


def _open(address, clock):
    """Returns a connected socket: the first of the host's addresses that answers."""
    problem = OSError("the host has no address")
    for family, kind, protocol, _, where in socket.getaddrinfo(address.host, address.port, type=socket.SOCK_STREAM):
        connection = socket.socket(family, kind, protocol)
        try:
            connection.settimeout(clock.left())
            connection.connect(where)
            return connection
        except OSError as error:
            connection.close()
            problem = error
    raise problem


def _connect(address, clock):
    connection = None
    try:
        connection = _open(address, clock)
        if address.scheme == "https":
            connection.settimeout(clock.left())  # the handshake in all
            connection = ssl.create_default_context().wrap_socket(connection, server_hostname=address.host)
        connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        return connection
    except (OSError, ValueError) as error:  # ValueError: a host name that cannot be one
        if connection:
            connection.close()
        if isinstance(error, TimeoutError):
            raise clock.late(address, "cannot reach %s in time; is the host right?") from None
        raise KelpError("cannot reach %s: %s; is kelpd running there?"
                        % (address, getattr(error, "strerror", None) or error)) from None


def _send(address, connection, data, clock):
    """Sends all of `data`. Returns False when the server hung up, which it may do after it has answered."""
    view = memoryview(data)
    try:
        while view:
            connection.settimeout(clock.left())
            view = view[connection.send(view):]
        return True
    except TimeoutError:
        raise clock.late(address, "%s did not take the request in time") from None
    except (BrokenPipeError, ConnectionResetError, ConnectionAbortedError):
        return False
    except OSError as error:
        raise KelpError("the connection to %s broke: %s" % (address, error.strerror or error)) from None


def request(address, clock, method, path, body=None, length=0, content_type=None, progress=None, opened=None):
    """Sends one request and returns its Reply, of any status. The caller closes the reply.

    clock      how long it may take, to the end of its reply
    body       an iterable of bytes that add up to `length`, or None
    progress   called with (bytes sent, length) after each piece
    opened     called with the Link as soon as the connection stands
    """
    host = "[%s]" % address.host if ":" in address.host else address.host
    lines = ["%s %s HTTP/1.1" % (method, target(path)), "Host: %s:%d" % (host, address.port), "Connection: close"]
    if address.authorization:
        lines.append("Authorization: " + address.authorization)
    if body is not None:
        lines.append("Content-Length: %d" % length)
    if content_type:
        lines.append("Content-Type: " + content_type)
    head = ("\r\n".join(lines) + "\r\n\r\n").encode("latin-1")
    connection = _connect(address, clock)
    file = None
    try:
        if opened:
            opened(Link(connection))
        going, sent = _send(address, connection, head, clock), 0
        for piece in body or ():
            going = going and _send(address, connection, piece, clock)
            if not going:
                break
            sent += len(piece)
            if progress:
                progress(sent, length)
        file = io.BufferedReader(_Incoming(connection, clock), 1 << 16)
        return Reply(connection, file, address, clock)
    except BaseException:
        if file is not None:
            file.close()
        connection.close()
        raise


def pieces_of(buffer):
    view = memoryview(buffer).cast("B")
    for at in range(0, len(view), _SEND_PIECE):
        yield view[at:at + _SEND_PIECE]


def pieces_of_file(file, length, name):
    """Yields exactly `length` bytes of a file that may change under the upload."""
    left = length
    while left:
        try:
            piece = file.read(min(left, _SEND_PIECE))
        except OSError as error:
            raise KelpError("cannot read %s: %s" % (name, error.strerror)) from None
        if not piece:
            raise KelpError("the file became shorter during the upload")
        left -= len(piece)
        yield piece
