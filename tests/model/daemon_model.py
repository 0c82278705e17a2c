"""What the daemon does with a request, as a model: the tree in memory, and the exact bytes of the reply.

A request is the bytes that a client sends, all at once, and the reply the bytes that come back until the connection
ends, the value of its Date line masked. The model keeps the tree below base/ as nodes, changes it as requests do, and
says which lines the log gains. Nothing here knows the daemon's code; what it promises is written in its documents.

Directory order is the file system's: the model asks `order` for it, and takes from the answer only the order.
"""
import re
import struct

import cvnview
from cvnview import RECORD_MAGIC, Scan, cut32, cut64, datum_from_text, operator, strtol, view

MAXHEAD, MAXLINE, MAXBODY = 10239, 99, 32768
MAXNAME, MAXPATH, MAXHOPS = 255, 4095, 40  # the system's
SEGMENT = 1 << 20
DATE = b"*" * 29

BAD, BAD_URL, BAD_VERSION = b"400 Bad Request", b"400 Bad Request - invalid url", b"400 Bad Request - invalid version"
BAD_CONTENT, NO_CONTENT = b"400 Bad Request - invalid content", b"400 Bad Request - no content"
NOT_FOUND, FAILED = b"404 Not Found", b"500 Internal Server Error"
ENOENT, ENOTDIR, ENAMETOOLONG, ELOOP = (b"No such file or directory", b"Not a directory", b"File name too long",
                                        b"Too many levels of symbolic links")


# The tree.


class Dir:
    def __init__(self):
        self.kids = {}


class File:
    def __init__(self, data):
        self.data = data


class Link:
    def __init__(self, target):
        self.target = target  # relative to the directory that holds the link


class Tree:
    """What lies below base/. A path is a list of names; a result is (error, node), one of them None."""

    def __init__(self):
        self.root = Dir()

    def find(self, path, follow=True):
        if len(shown(path)) > MAXPATH:
            return ENAMETOOLONG, None
        if self.root is None:
            return ENOENT, None
        stack, left, hops = [self.root], list(reversed(path)), 0
        while left:
            name = left.pop()
            here = stack[-1]
            if not isinstance(here, Dir):
                return ENOTDIR, None
            if name == b"..":
                if len(stack) > 1:
                    stack.pop()
                continue
            if len(name) > MAXNAME:
                return ENAMETOOLONG, None
            node = here.kids.get(name)
            if node is None:
                return ENOENT, None
            if isinstance(node, Link) and (left or follow):
                hops += 1
                if hops > MAXHOPS:
                    return ELOOP, None
                left += reversed(node.target.split(b"/"))
                continue
            stack.append(node)
        return None, stack[-1]

    def directory(self, path):
        """The directory at a path, or None when it cannot be opened as one."""
        _, node = self.find(path)
        return node if isinstance(node, Dir) else None

    def make(self, path):
        """A new directory, as far as one can be made; its parent must be there."""
        parent = self.directory(path[:-1])
        if parent is not None and len(path[-1]) <= MAXNAME and path[-1] not in parent.kids:
            parent.kids[path[-1]] = Dir()


# Replies.


def head(status, *lines):
    return b"".join((b"HTTP/1.1 ", status, b"\r\nDate: ", DATE, b"\r\nConnection: close\r\n",
                     *(line + b"\r\n" for line in lines), b"\r\n"))


def error(status):
    return head(status, b"Content-length: %d" % len(status), b"Content-type: application/plain") + status


def json_reply(text):
    return head(b"200 OK", b"Content-length: %d" % len(text), b"Content-type: application/json") + text


def chunk(data):
    return b"%x; chunk\r\n%b\r\n" % (len(data), data)


STREAM = head(b"200 OK", b"Transfer-encoding: chunked", b"Content-type: application/octet-stream")
END = chunk(struct.pack("<ii", RECORD_MAGIC, 0)) + b"0\r\n\r\n"
OK = head(b"200 OK")


# URLs.


def url_path(url):
    mark, query = url.find(b"#"), url.find(b"?")
    if 0 <= mark < query:
        end = mark
    else:
        end = query if query >= 0 else len(url)
    slashes = url.find(b"//")
    start = url.find(b"/", slashes + 2) if slashes >= 0 else url.find(b"/")
    start = max(start, 0)
    path = url[start:end] if start <= end else url[start:]
    path = re.sub(rb"%([0-9a-fA-F]{2})", lambda m: bytes([int(m[1], 16)]), path.replace(b"+", b" "))
    return path.partition(b"\0")[0]


def table_path(url):
    """(None, the names below base/) or (a status, None)."""
    parts = url_path(url).split(b"/")
    if len(parts) > 6:
        return BAD_URL, None
    if len(parts) == 1:
        return (BAD_URL if parts[0] else BAD_VERSION), None
    if not parts[-1]:
        parts.pop()
    if parts[0]:
        return BAD_URL, None
    if len(parts) == 1 or parts[1] != b"v1":
        return BAD_VERSION, None
    if any(not name or name.startswith(b".") for name in parts[2:]):
        return BAD_URL, None
    return None, parts[2:]


def shown(path):
    return b"base/" + b"/".join(path)


# The query's JSON: a tokenizer that is as lenient as the one that clients have come to know, and the grammar.

OBJECT, ARRAY, STRING, PRIMITIVE = "{", "[", '"', "w"
_STRING = re.compile(rb'"((?:[^"\\\0]|\\["\\/bfnrt]|\\u[0-9a-fA-F]{4})*)"')
_PRIMITIVE = re.compile(rb"[^\t\r\n ,\]}:\0]+")
_PRINTABLE = re.compile(rb"[\x20-\x7e]*")


def tokens_of(text):
    """A list of [kind, text, number of children], or None for what is no JSON."""
    out, containers, parent, at = [], [], -1, 0
    while at < len(text):
        c = text[at : at + 1]
        if c == b"\0":
            break
        if c in b"{[":
            if parent >= 0:
                out[parent][2] += 1
            parent = len(out)
            containers.append(parent)
            out.append([OBJECT if c == b"{" else ARRAY, None, 0])
        elif c in b"}]":
            if not containers or out[containers.pop()][0] != (OBJECT if c == b"}" else ARRAY):
                return None
            parent = containers[-1] if containers else -1
        elif c == b":":
            parent = len(out) - 1
        elif c == b",":
            if parent >= 0 and out[parent][0] not in (OBJECT, ARRAY) and containers:
                parent = containers[-1]
        elif c not in b" \t\r\n":
            if c == b'"':
                found = _STRING.match(text, at)
                if not found:
                    return None
                out.append([STRING, found[1], 0])
            else:
                found = _PRIMITIVE.match(text, at)
                if not _PRINTABLE.fullmatch(found[0]):
                    return None
                out.append([PRIMITIVE, found[0], 0])
            if parent >= 0:
                out[parent][2] += 1
            at = found.end()
            continue
        at += 1
    return None if containers else out


class Refused(Exception):
    """The grammar does not hold."""


class Query:
    """A parsed body. Raises Refused."""

    def __init__(self, body):
        self.columns, self.conditions, self.command, self.fragment = [], [], [], (0, 0)
        tokens = tokens_of(body)
        if not tokens or tokens[0][0] != OBJECT:
            raise Refused
        self.tokens, self.at = tokens, 1
        for _ in range(tokens[0][2]):
            kind, key, size = self.take()
            if kind != STRING or size != 1:
                raise Refused
            if key == b"column" and not self.columns:
                self.columns = self.strings()
            elif key == b"condition" and not self.conditions:
                self.conditions = [self.condition() for _ in range(self.take(ARRAY)[2])]
            elif key == b"command" and not self.command:
                self.command = self.strings(most=49)
            elif key == b"fragment" and self.fragment[1] == 0:
                self.fragment = self.numbers()
            else:
                raise Refused

    def take(self, *kinds):
        if self.at >= len(self.tokens) or kinds and self.tokens[self.at][0] not in kinds:
            raise Refused
        self.at += 1
        return self.tokens[self.at - 1]

    def strings(self, most=None):
        size = self.take(ARRAY)[2]
        if most is not None and size > most:
            raise Refused
        return [self.take(STRING)[1] for _ in range(size)]

    def numbers(self):
        if self.take(ARRAY)[2] != 2:
            raise Refused
        found = []
        for _ in range(2):
            text = self.take(PRIMITIVE)[1]
            value, errno = strtol(text)
            if len(text) > 19 or errno:
                raise Refused
            found.append(cut32(value))
        return tuple(found)

    def condition(self):
        size = self.take(ARRAY)[2]
        if not 2 <= size <= 3:
            raise Refused
        name, op, arguments = self.take(STRING)[1], self.take(STRING)[1], []
        if size == 3 and self.at < len(self.tokens):
            # What is neither a string nor an array is left for whatever is read next to refuse; as the last thing of
            # all it may be accepted or refused, and is accepted.
            if self.tokens[self.at][0] == STRING:
                arguments = [self.take()[1]]
            elif self.tokens[self.at][0] == ARRAY:
                arguments = self.strings()
        return name, op, arguments


# Requests.


class Head:
    """A parsed request head."""

    def __init__(self):
        self.method = self.url = self.proto = b""
        self.length = -1
        self.body_at = 0


class Sample:
    """A reply whose rows are chosen by chance: the stream of `wanted` of the rows of `files`, each (path, View).

    The sampler is a program of its own; `is_known` tells whether its files are sound and alike, so that what it
    answers is determined up to that chance.
    """

    def __init__(self, wanted, files):
        self.wanted, self.files = wanted, files


class Model:
    """The daemon's state, and what it answers.

    order    called with a path (a list of names) and the set of names there; returns them in the system's order
    hits     counts what has been met, by name
    log      the lines that the log gained, to be taken by the caller
    """

    def __init__(self, order, hits):
        self.tree = Tree()
        self.order = order
        self.hits = hits
        self.log = []
        self.needs_end = False

    def hit(self, *names):
        for name in names:
            self.hits[name] = self.hits.get(name, 0) + 1

    def respond(self, raw):
        """The reply to a connection that sends `raw` and then waits, or a Sample.

        `needs_end` tells that the daemon reads on beyond these bytes, so that a client must end its side.
        """
        self.needs_end = False
        request = self.read_head(raw)
        if isinstance(request, bytes):
            self.hit("head: " + request.decode().split(": ")[-1])
            kind = b"parse" if request.startswith(b"htreq_parse") else b"readbuf"
            self.log.append(b"htreq_%b failed: %b\n" % (kind, request))
            return b""
        handler = {b"POST": self.post, b"GET": self.get, b"PUT": self.put, b"DELETE": self.delete}.get(request.method)
        name = request.method.decode() if handler else "other"
        result = handler(request, raw[request.body_at :]) if handler else NOT_FOUND
        status, reply = result if isinstance(result, tuple) else (result, None)
        if status is not None:
            # A failure after the head of a stream has gone out adds its text to the stream.
            reply = reply + status if reply else error(status)
        elif reply is None:
            reply = b""
        said = status or b"200 OK"
        self.hit(f"{name} -> {said.decode()}" if reply != b"" else f"{name} -> silence")
        self.log.append(b"%b %b -> %b\n" % (request.method, request.url, said))
        return reply

    def read_head(self, raw):
        """A Head, or the text of what is wrong."""
        # What has come is searched as text: a NUL ends it, and a head that holds one has no end.
        first = raw[:MAXHEAD].partition(b"\0")[0]
        end, size = first.find(b"\r\n\r\n"), 4
        if end < 0:
            end, size = first.find(b"\n\n"), 2
        if end < 0:
            if len(raw) >= MAXHEAD:
                return b"clnt overflowed request buffer"
            self.needs_end = True
            return b"clnt closed without valid req"
        if size == 2:
            self.hit("head ends in bare line feeds")
        request = Head()
        request.body_at = end + size
        lines = [line.partition(b"\r")[0] for line in first[:end].split(b"\n")]
        if len(lines) > MAXLINE:
            return b"htreq_parse: too many lines in req"
        words = lines[0].split(b" ")
        if not 2 <= len(words) <= 3:
            return b"htreq_parse: invalid req line"
        request.method, request.url = words[:2]
        request.proto = words[2] if len(words) == 3 else b""
        if request.proto.lower() == b"http/1.0":
            return b"htreq_parse: HTTP/1.0 not supported"
        for line in lines[1:]:
            name, colon, value = line.partition(b":")
            if not colon:
                continue
            name, value = name.lower(), value.lstrip(b" \t")
            if name == b"host":
                host = value.partition(b":")[0]
                if b"/" in host or host.startswith(b"."):
                    return b"htreq_parse: invalid Host header"
            elif name == b"content-length":
                request.length, _ = strtol(value)
        return request

    # Listings.

    def listed(self, path):
        """The nodes of a directory in the system's order, as (name, node), or None."""
        here = self.tree.directory(path)
        return None if here is None else [(name, here.kids[name]) for name in self.order(path, here.kids)]

    def resolve(self, path, node):
        return self.tree.find(path)[1] if isinstance(node, Link) else node

    def view_at(self, path, node=None):
        """(None, View of the data file or split directory at a path) or (an error of the system, None)."""
        if node is None or isinstance(node, Link):
            wrong, node = self.tree.find(path)
            if wrong:
                return wrong, None
        if isinstance(node, Dir):
            wrong, node = self.tree.find(path + [b"meta.cvnx"])
            if wrong:
                return wrong, None
            if isinstance(node, Dir):
                return b"Is a directory", None
            self.hit("split directory opened")
        return None, view(node.data)

    def stat_of(self, path, node=None):
        """(View, nbyte, zbyte), or None for what has no statistics."""
        wrong, seen = self.view_at(path, node)
        if wrong or seen.code != 0 or seen.sums() is None:
            return None
        return seen, *seen.sums()

    def get(self, request, _):
        wrong, path = table_path(request.url)
        if wrong:
            return wrong
        if len(path) == 4:
            return self.get_partition(path)
        found = self.listed(path)
        if found is None:
            return NOT_FOUND
        found = [(name, node) for name, node in found if name[:1] != b"." and name[-4:] != b".tmp"]
        if len(path) < 3:
            names = [b'"%b"' % name for name, node in found
                     if isinstance(self.resolve(path + [name], node), Dir)]
            self.hit(f"listing at depth {len(path)}")
            return None, json_reply(b"[" + b",".join(names) + b"]")
        items = []
        for name, node in found:
            stat = self.stat_of(path + [name], node)
            if stat is None:
                self.hit("listing skips what is no data")
                continue
            seen, nbyte, zbyte = stat
            items.append(b' {"name": "%b", "chksum": %d, "ncol": %d, "nrow": %d, "nrowgroup": %d,"nbyte": %d, '
                         b'"zbyte": %d}' % (name, seen.chksum, seen.ncol, seen.nrow, seen.nrowgroup, nbyte, zbyte))
        self.hit("listing of files" if items else "listing of no files")
        return None, json_reply(b"[" + b",".join(items) + b"]\n")

    def get_partition(self, path):
        wrong, seen = self.view_at(path)
        if wrong == ENOENT:
            return NOT_FOUND
        if wrong or seen.code != 0 or seen.sums() is None:
            return FAILED
        columns = [b'{"cno": %d, "typ": "%b", "name": "%b"}' %
                   (cno, cvnview.TYPE_NAMES.get(typ, b"unknown"), seen.shown(cno)) for cno, typ in enumerate(seen.typs)]
        for typ in seen.typs:
            self.hit("type " + cvnview.TYPE_NAMES.get(typ, b"unknown").decode())
        return None, json_reply(b'{"column":[%b], "chksum": %d}' % (b",".join(columns), seen.chksum))

    # Uploads.

    def put(self, request, body):
        wrong, path = table_path(request.url)
        if wrong:
            return wrong
        if len(path) < 4:
            return None
        if request.length < 0:
            return NO_CONTENT
        name = path[3]

        def parent():
            here = self.tree.directory(path[:3])
            # The temporary name is that of the file, ten digits of seconds and ".tmp".
            return here if here is not None and len(name) + 15 <= MAXNAME else None

        here = parent()
        if here is None:
            for depth in (1, 2, 3):
                if self.tree.root is not None:
                    self.tree.make(path[:depth])
            self.hit("upload makes directories")
            here = parent()
        if here is None:
            return FAILED
        early = MAXHEAD - request.body_at  # bytes that come with the head
        if request.length == 0 and body[:early]:
            self.hit("upload of nothing with bytes after the head")
            return FAILED
        if len(body) < request.length:
            self.needs_end = True
            self.hit("upload cut short")
            return BAD
        if len(body) > request.length:
            self.hit("upload longer than declared")
        data = body[: request.length]
        if name.endswith((b".cvn", b".cvn.mismatch")):
            code = view(data).code
            self.hit(f"upload checked: {code}")
            if code != 0:
                return BAD
        else:
            self.hit("upload unchecked")
        old = here.kids.get(name)
        if isinstance(old, Dir):
            self.hit("upload onto a directory")
            return FAILED
        self.hit("upload replaces" if old else "upload is new")
        here.kids.pop(name, None)
        here.kids[name] = File(data)
        return None, OK

    # Removals.

    def delete(self, request, _):
        wrong, path = table_path(request.url)
        if wrong:
            return BAD_URL
        self.hit(f"removal at depth {len(path)}")
        if not path:
            self.tree.root = None
            return None, OK
        wrong, node = self.tree.find(path, follow=False)
        if wrong == ENOENT:
            self.hit("removal of nothing")
            return None, OK
        if wrong == ENOTDIR:
            self.log.append(b"Error unlink %b: %b\n" % (shown(path), wrong))
            return FAILED
        if wrong:
            self.log.append(b"Error rm -rf %b: %b\n" % (shown(path), wrong))
            return FAILED
        self.hit(f"removal of a {type(node).__name__}")
        del self.tree.directory(path[:-1]).kids[path[-1]]
        return None, OK

    # Queries.

    def post(self, request, body):
        wrong, path = table_path(request.url)
        if wrong:
            return wrong
        if len(path) == 4:
            return BAD_URL
        if len(path) < 3:
            return None
        if request.length > MAXBODY:
            return BAD_CONTENT
        if request.length <= 0:  # nothing says what a negative length is; like none, it is taken for no body
            body = b"{}"
        elif len(body) < request.length:
            self.needs_end = True
            return BAD
        try:
            query = Query(body[: request.length] if request.length > 0 else body)
        except Refused:
            return BAD_CONTENT
        if not query.command:
            return self.scan(path, query)
        if query.columns or query.conditions:
            return None
        if query.command[0] == b"sample":
            return self.sample(path, query.command)
        if query.command[0] == b"meta":
            return self.meta(path, query.command)
        return BAD

    def data_files(self, path, *suffixes):
        """The data files of an entity in the system's order, or None."""
        found = self.listed(path)
        if found is None:
            return None
        return [(name, node) for name, node in found if name[:1] != b"." and name.endswith(suffixes)]

    def scan(self, path, query):
        files = self.data_files(path, b".cvn")
        if files is None:
            return NOT_FOUND
        out = []
        status = None
        for name, node in files:
            if query.columns or query.conditions:
                status = self.scan_file(out, path + [name], node, query)
            else:
                status = self.count_file(out, path + [name], node)
            if status:
                break
        else:
            out.append(END)
            self.hit("count" if not query.columns and not query.conditions else
                     "scan of " + ("no files" if not files else "one file" if len(files) == 1 else "several files"))
        if out and status:
            self.hit("scan fails amid its stream")
        return status, STREAM + b"".join(out) if out else None

    def count_file(self, out, path, node):
        stat = self.stat_of(path, node)
        if stat is None:
            return FAILED
        left = stat[0].nrow
        while left > 0:
            n = min(left, SEGMENT)
            size = (n - 1) // 64 + 1
            out.append(chunk(struct.pack("<ii", RECORD_MAGIC, size + 40)))
            out.append(chunk(struct.pack("<10i", cvnview.PAGE_MAGIC, -1, 0, n, 0, 0, size, size, 0, 0) + bytes(size)))
            left -= n
        return None

    def scan_file(self, out, path, node, query):
        wrong, seen = self.view_at(path, node)
        if wrong or seen.code != 0:
            return FAILED
        scan = Scan(seen)
        for name in query.columns:
            if scan.require(name) != 0:
                self.hit("column refused")
                return BAD
        for name, text, arguments in query.conditions:
            op = operator(text)
            cno = seen.find(name)
            if op == 0 or cno < 0:
                self.hit("operator refused" if op == 0 else "condition's column refused")
                return BAD
            typ = seen.typs[cno]
            self.hit(f"operator {op}")
            values = []
            for argument in arguments:
                code, value = datum_from_text(argument, typ)
                if code != 0:
                    self.hit(f"constant refused: {cvnview.TYPE_NAMES.get(typ, b'unknown').decode()}")
                    return BAD
                values.append(value)
            if scan.add(cno, op, values) != 0:
                self.hit("condition refused")
                return BAD
            self.hit(f"condition on {cvnview.TYPE_NAMES.get(typ, b'unknown').decode()}")
        fragment, nfragment = query.fragment
        if nfragment != 0:
            if nfragment < 0 or not 0 <= fragment < nfragment:
                self.hit("fragment refused")
                return BAD
            self.hit("fragment")
        return self.send_groups(out, scan, path, nfragment, fragment)

    def sources(self, scan, path):
        """Where the pages of each column lie: bytes by column, or None when a column's file is missing."""
        if not isinstance(self.tree.find(path)[1], Dir):
            return dict.fromkeys(scan.wanted, scan.view.data)
        found = {}
        for cno in scan.wanted:
            _, node = self.tree.find(path + [b"%d.cvnx" % cno])
            if node is None:
                return None
            found[cno] = None if isinstance(node, Dir) else node.data  # a directory opens, but is not read
        return found

    def send_groups(self, out, scan, path, nfragment, fragment):
        seen = scan.view
        if scan.is_empty:
            self.hit("scan of an empty list")
            return None
        result = scan.qualifies()
        if result < 0:
            self.hit("scan cannot compare")
            return BAD
        if result == 0:
            self.hit("file ruled out")
            return None
        sources = self.sources(scan, path)
        if sources is None:
            self.hit("column's file is missing")
            return BAD
        groups = []
        for group in range(seen.nrowgroup):
            if nfragment and group % nfragment != fragment:
                continue
            result = scan.qualifies(group)
            if result < 0:
                self.hit("scan cannot compare")
                return BAD
            if result:
                groups.append(group)
            else:
                self.hit("row group ruled out")
        for group in groups:
            pages, total, stored = [], 0, 0
            for cno in scan.wanted:
                source = sources[cno]
                page = seen.page(group, cno, source) if source is not None else None
                if page is None:
                    self.hit("page cannot be read")
                    return BAD
                stored = page[0] - 40 + (stored if source is seen.data else 0)
                if stored > cvnview.OVERLAP_FREE and stored // cvnview.OVERLAP_MAX > len(source):
                    self.hit("pages overlap too far")
                    return BAD
                total += page[0]
                pages.append(page[1])
            out.append(chunk(struct.pack("<ii", RECORD_MAGIC, total)))
            out += pages
            for cno in scan.wanted:
                if seen.typs[cno] == 0:
                    self.log.append(b"\n *** invalid typ 0 detected *** \n\n")
        return None

    # Commands.

    def meta(self, path, command):
        if len(command) != 1:
            return BAD_CONTENT
        files = self.data_files(path, b".cvn", b".cvn.mismatch")
        if files is None:
            return NOT_FOUND
        nrow = nrowgroup = 0
        for name, node in files:
            stat = self.stat_of(path + [name], node)
            if stat is not None:
                nrow += stat[0].nrow
                nrowgroup += stat[0].nrowgroup
        self.hit("meta")
        pages = [struct.pack("<10iqB", cvnview.PAGE_MAGIC, cno, 4, 1, 0, 8, 9, 9, 0, 0, cut64(total), 0)
                 for cno, total in enumerate((nrow, nrowgroup))]
        return None, b"".join((STREAM, chunk(struct.pack("<ii", RECORD_MAGIC, 98)), *map(chunk, pages), END))

    def sample(self, path, command):
        wanted, errno = strtol(command[1]) if len(command) == 2 else (0, 0)
        if errno or cut32(wanted) <= 0:
            return BAD_CONTENT
        files = self.data_files(path, b".cvn")
        if files is None:
            return NOT_FOUND
        self.hit("sample")
        return None, Sample(cut32(wanted), [(path + [name], self.view_at(path + [name], node)[1])
                                            for name, node in files])
