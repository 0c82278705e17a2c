"""Replies of the daemon as text: heads, JSON, errors, and the chunks of a stream.

The tests of the daemon compare what it sends with these, its date masked as "*"; the servers that stand in for it in
the tests of the clients send them. What the chunks of a stream hold is made by cvnfile.
"""
DATE = "Sun, 04 Jul 2021 09:30:15 GMT"


class Unsound(Exception):
    """Bytes that are not what their format says."""


def _bytes(text):
    return text if isinstance(text, bytes) else text.encode()


def head(status, *lines, date=DATE):
    """A whole head, its blank line included."""
    return b"".join(_bytes(line) + b"\r\n" for line in (b"HTTP/1.1 " + _bytes(status), f"Date: {date}",
                                                        "Connection: close", *lines, ""))


def error(status, date=DATE):
    """A whole error reply: its body is the status once more."""
    body = _bytes(status)
    return head(status, f"Content-length: {len(body)}", "Content-type: application/plain", date=date) + body


def json_reply(text, status="200 OK", date=DATE):
    body = _bytes(text)
    return head(status, f"Content-length: {len(body)}", "Content-type: application/json", date=date) + body


def stream_head(date=DATE):
    return head("200 OK", "Transfer-encoding: chunked", "Content-type: application/octet-stream", date=date)


def chunk(data):
    return b"%x; chunk\r\n" % len(data) + data + b"\r\n"


LAST_CHUNK = b"0\r\n\r\n"


def chunked(body, sizes=(1 << 20,), last=LAST_CHUNK):
    """A chunked body, cut at the given sizes over and over."""
    out, at, turn = [], 0, 0
    while at < len(body):
        size = sizes[turn % len(sizes)]
        out.append(chunk(body[at : at + size]))
        at += size
        turn += 1
    return b"".join(out) + last


def dechunk(body):
    """Cuts a chunked body. Returns its chunks and what follows the last whole one.

    The rest is b"" after the closing chunk, and anything else when the body stopped before it.
    """
    chunks, at = [], 0
    while True:
        end = body.find(b"\r\n", at)
        if end < 0:
            return chunks, body[at:]
        line = body[at:end]
        if line == b"0" and body[end : end + 4] == b"\r\n\r\n":
            if body[end + 4 :]:
                raise Unsound("something follows the closing chunk")
            return chunks, b""
        text, separator, extension = line.partition(b"; ")
        if separator + extension != b"; chunk" or b"%x" % int(text, 16) != text or text == b"0":
            raise Unsound(f"a chunk's size line is wrong: {line!r}")
        size = int(text, 16)
        if len(body) < end + 2 + size + 2:
            return chunks, body[at:]
        if body[end + 2 + size : end + 4 + size] != b"\r\n":
            raise Unsound("a chunk does not end where it says")
        chunks.append(body[end + 2 : end + 2 + size])
        at = end + 4 + size
