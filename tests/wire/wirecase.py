"""What the test files share: expected replies, requests, and a test case that watches everything around a request.

A reply is compared byte for byte; only the value of its Date line is masked, after its form and time were checked.
Around each test the case also sees to it that the log holds the lines that the test expects and no other, that no
sanitizer reported anything, that the daemon has kept its descriptors and has no child left, and that tmp/ is empty.
"""
import datetime
import functools
import os
import re
import time
from urllib.parse import quote

import cvnfile
import replies
from cvnfile import STREAM_END
from kelpd_proc import BoundedCase, Daemon, descriptors, until
from replies import chunk

_DATE = re.compile(rb"\A(HTTP/1\.1 [^\r\n]*\r\nDate: )([^\r\n]*)(\r\n)")
_RFC1123 = re.compile(
    r"(Mon|Tue|Wed|Thu|Fri|Sat|Sun), \d\d (Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) \d{4} \d\d:\d\d:\d\d GMT")


# The replies with their date masked.
head = functools.partial(replies.head, date="*")
error = functools.partial(replies.error, date="*")


def json_reply(text):
    return replies.json_reply(text, date="*")


SILENCE = b""
OK = head("200 OK")
STREAM = replies.stream_head(date="*")


def stream(*records, end=STREAM_END):
    """A whole scan reply; each record is a list of chunks."""
    return STREAM + b"".join(chunk(part) for record in records for part in record) + end


def request(method, url, body=b"", *, length=None, lines=(), proto="HTTP/1.1"):
    """A request; with a body, or with `length`, it has a Content-Length line."""
    if isinstance(url, str):
        url = url.encode()
    out = [method.encode() + b" " + url + b" " + proto.encode(), b"Host: localhost"]
    out += [line.encode() for line in lines]
    if length is None and body:
        length = len(body)
    if length is not None:
        out.append(b"Content-Length: %s" % str(length).encode())
    return b"\r\n".join(out) + b"\r\n\r\n" + body


def put(url, body, **options):
    options.setdefault("length", len(body))
    return request("PUT", url, body, **options)


def get(url):
    return request("GET", url)


def delete(url):
    return request("DELETE", url)


def post(url, body=b"", **options):
    if isinstance(body, str):
        body = body.encode()
    return request("POST", url, body, **options)


def listed(directory):
    """The names in a directory in the order in which the system lists them."""
    return os.listdir(directory)


def mask_date(test, raw, since):
    """`raw` with its date replaced by "*", when that date has the right form and lies between `since` and now."""
    found = _DATE.match(raw)
    if not found:
        return raw
    text = found[2].decode("latin-1")
    test.assertRegex(text, _RFC1123)
    date = datetime.datetime.strptime(text, "%a, %d %b %Y %H:%M:%S GMT").replace(tzinfo=datetime.timezone.utc)
    test.assertEqual(text, date.strftime("%a, %d %b %Y %H:%M:%S GMT"), "the day of the week does not fit the date")
    # The clock of time() may lag a little behind Python's.
    test.assertTrue(int(since - 0.1) <= date.timestamp() <= time.time(), f"{text} is not the time of the reply")
    return raw[: found.start(2)] + b"*" + raw[found.end(2) :]


class WireCase(BoundedCase):
    """One daemon for a class of tests, with an emptied base/ for each."""

    options = ()
    daemon_arguments = {}
    maxDiff = 4000

    @classmethod
    def setUpClass(cls):
        cls.kelpd = Daemon(*cls.options, **cls.daemon_arguments).start()
        cls.addClassCleanup(cls.kelpd.stop)
        cls.idle_descriptors = descriptors(cls.kelpd.pid)

    def setUp(self):
        self.since = time.time()
        self.kelpd.clear()
        self.assertEqual("", self.kelpd.take_log(), "log lines from nowhere")

    def tearDown(self):
        try:
            self.check_around()
        except BaseException:
            self.kelpd.end_children()
            self.kelpd.take_log()
            raise

    def check_around(self):
        """Nothing is left of the test: no process, no log line, no file, no connection."""
        self.assertFalse(self.kelpd.has_ended(), f"the daemon has ended: {self.kelpd.exit_status}")
        self.kelpd.await_idle()
        self.assertEqual("", self.kelpd.take_log(), "log lines that the test does not expect")
        self.assertEqual("", self.kelpd.sanitizer_reports())
        self.assertEqual([], self.kelpd.tree("tmp"))
        # A client sees the end of a reply a little before the daemon has closed its copy of the connection.
        until(lambda: descriptors(self.kelpd.pid) == self.idle_descriptors, "the daemon to close its connections")

    # Comparing.

    def assert_reply(self, expected, raw):
        got = mask_date(self, raw, self.since)
        if got == expected:
            return
        if len(got) + len(expected) < 2000:
            self.assertEqual(expected, got)
        at = next((i for i, (a, b) in enumerate(zip(expected, got)) if a != b), min(len(got), len(expected)))
        near = slice(max(at - 60, 0), at + 100)
        self.fail(f"{len(expected)} bytes expected, {len(got)} received; from byte {at} on they differ:\n"
                  f"expected {expected[near]!r}\nreceived {got[near]!r}")

    def assert_log(self, *lines):
        """The log since the last look is these lines; waits for them, as a client may not know that they are there."""
        text = self.kelpd.await_log(len(lines)) if lines else self.kelpd.take_log()
        self.assertEqual("".join(line + "\n" for line in lines), text)

    def check(self, raw, expected, *lines, half_close=False):
        """Sends a request; the reply is `expected` and the log grows by `lines`."""
        self.assert_reply(expected, self.kelpd.ask(raw, half_close=half_close))
        self.assert_log(*lines)

    def check_status(self, raw, status):
        """The request is answered by the error `status`, and logged so."""
        self.check(raw, error(status), f"{self._words(raw)} -> {status}")

    def check_ok(self, raw, expected=OK):
        self.check(raw, expected, f"{self._words(raw)} -> 200 OK")

    def check_silence(self, raw):
        """The connection is closed without a byte, and the request logged as if it had gone well."""
        self.check(raw, SILENCE, f"{self._words(raw)} -> 200 OK")

    @staticmethod
    def _words(raw):
        return b" ".join(raw.split(b"\r\n")[0].split(b" ")[:2]).decode("latin-1")

    def assert_tree(self, *paths):
        self.assertEqual(sorted(paths), self.kelpd.tree())


# Data that several files use.


def small_file(first=0, nrow=10, ngroup=1):
    """A file of the columns id (int64, ascending from `first`), qty (int32) and note (cstr)."""
    columns = [cvnfile.Column(b"id", cvnfile.INT64), cvnfile.Column(b"qty", cvnfile.INT32),
               cvnfile.Column(b"note", cvnfile.CSTR, 1)]
    groups = []
    for group in range(ngroup):
        ids = list(range(first + group * nrow, first + (group + 1) * nrow))
        groups.append([ids, [i % 7 if i % 5 else None for i in ids], [b"note %d" % i if i % 3 else None for i in ids]])
    return cvnfile.build(columns, groups)


def url_of(*names):
    return "/v1/" + "/".join(quote(name, safe="") for name in names)
