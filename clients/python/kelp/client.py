"""Talking to a kelpd server: catalogue, upload, removal, and scans."""

import collections
import contextlib
import json
import os
import queue
import threading

from . import http, types
from .errors import KelpError
from .files import DataFile, check_columns, open_regular, path_text
from .stream import MAX_RECORD, RecordReader, read_counts, read_meta
from .table import Table
from .text import shown
from .where import apply, bind, parse_where, sendable

MAX_BODY = 32768  # bytes of a query, set by the server
PRUNE = ("safe", "all", "none")
# A catalogue larger than this is not believed: a quarter of a million files, as the server describes them. Nor is one
# of more elements, or of so many commas that there are more values than so many files have, since each value takes
# more memory than its text. As in the C++ client.
JSON_MAX = 32 << 20
ELEMENT_MAX = 1 << 20
# What a count takes from the stream of counts before it adds up the catalogue instead: rows, and records, of which a
# file has one or more. As in the C++ client.
COUNT_ROWS = 1 << 28
COUNT_RECORDS = 1 << 20

FileStat = collections.namedtuple("FileStat", "name chksum ncol nrow nrowgroup nbyte zbyte")
FileStat.__doc__ = """One file of a table: its name, the hash of its footer, columns, rows, row groups, and the bytes of
its columns uncompressed (nbyte) and as stored (zbyte)."""
Meta = collections.namedtuple("Meta", "nrow nrowgroup")
Meta.__doc__ = "Rows and row groups of a whole table."


def connect(url=None, timeout=60.0, total_timeout=None, max_record=MAX_RECORD):
    """Returns a Connection. Nothing is sent yet.

    url       kelp://host:port or http://host:port (80 without a port). A path may follow:
              kelp://host:port/db/schema/entity, http://host:port/v1/db/schema/entity. https:// and user:password@
              serve a proxy in front of the server. Without a URL the environment's KELPD_URL counts.
    timeout   seconds that the server may stay silent; None waits for ever
    total_timeout   seconds for one request in all, or for a count, a sample or one iteration of a scan with all of its
              requests; None has no such end. A server that sends a byte now and then is not silent
    max_record      bytes of the largest row group to accept, stored as well as decompressed
    """
    url = url or os.environ.get("KELPD_URL")
    if not url:
        raise KelpError("no server is named: give a URL such as kelp://localhost:8642, or set KELPD_URL")
    return Connection(http.Address(url), timeout, total_timeout, max_record)


class Connection:
    """A server. Every operation opens its own connection, so one Connection may serve several threads."""

    def __init__(self, address, timeout, total_timeout=None, max_record=MAX_RECORD):
        self.address = address
        self.timeout = timeout
        self.total_timeout = total_timeout
        self.max_record = max_record

    def __repr__(self):
        return "<kelp.Connection %s>" % self.address

    def _clock(self):
        """How long what begins now may take."""
        return http.Clock(self.timeout, self.total_timeout)

    def _request(self, method, path, clock=None, **rest):
        return http.request(self.address, clock or self._clock(), method, path, **rest)

    def _get(self, path, what, clock=None):
        with self._request("GET", path, clock) as reply:
            if not reply.ok:
                raise _refused(reply.status, what)
            body = reply.read_all(JSON_MAX)
        if body.count(b",") > len(FileStat._fields) * ELEMENT_MAX:
            raise KelpError("the server's answer about %s is larger than any catalogue" % what)
        try:
            # Names come unescaped, so a strange one may hold control characters, or break the text altogether.
            answer = json.loads(body.decode("utf-8", "surrogateescape"), strict=False)
        except (ValueError, RecursionError):
            raise KelpError("the server's answer about %s is not JSON; is it a kelpd, and has a name there quotes "
                            "or backslashes?" % what) from None
        if isinstance(answer, (list, dict)) and len(answer) > ELEMENT_MAX:
            raise KelpError("the server's answer about %s is larger than any catalogue" % what)
        return answer

    def _names(self, path, what):
        names = self._get(path, what)
        if not isinstance(names, list) or not all(isinstance(name, str) for name in names):
            raise KelpError("what answers at %s is no kelpd; check host and port" % self.address)
        return sorted(names)

    def databases(self):
        """Returns the names of the databases, sorted."""
        return self._names([], "catalogue")

    def schemas(self, database):
        """Returns the names of a database's schemas, sorted."""
        return self._names([database], "database %s" % database)

    def entities(self, database, schema):
        """Returns the names of a schema's tables, sorted."""
        return self._names([database, schema], "schema %s.%s" % (database, schema))

    def table(self, name=None):
        """Returns a RemoteTable: 'db.schema.entity', a tuple of the three, or by default the one of the URL's path."""
        if name is None:
            parts = self.address.path
        elif isinstance(name, str):
            parts = name.split("/") if "/" in name else name.split(".")
        else:
            parts = list(name)
        if len(parts) != 3:
            raise KelpError("%s is no table; write db.schema.entity" % (name or "the URL's path"))
        http.target(parts)
        return RemoteTable(self, parts)


def _refused(status, what, hint="its log may say more"):
    """The server's answer put into words; `what` is the thing that was asked for or sent."""
    if status.startswith("404"):
        return KelpError("the server has no %s (%s)" % (what, status), status)
    return KelpError("the server refused %s: %s; %s" % (what, status, hint), status)


class RemoteTable:
    """A table on a server."""

    def __init__(self, connection, path):
        self.connection = connection
        self.path = list(path)
        self.name = ".".join(path)

    def __repr__(self):
        return "<kelp.RemoteTable %s at %s>" % (shown(self.name), self.connection.address)

    @property
    def _what(self):
        return "table %s" % self.name

    def files(self):
        """Returns the table's files as a list of FileStat, sorted by name."""
        return self._files(None)

    def _files(self, clock):
        listed = self.connection._get(self.path, self._what, clock)
        if not isinstance(listed, list):
            raise self._alien()
        try:
            found = [FileStat(*(item[key] for key in FileStat._fields)) for item in listed]
        except (TypeError, KeyError):
            raise self._alien() from None
        if not all(isinstance(f.name, str) and all(isinstance(number, int) for number in f[1:]) for f in found):
            raise self._alien()
        if not all(0 <= number < 1 << 63 for f in found for number in f[2:]):  # chksum may be negative
            raise self._alien()
        return sorted(found)

    def _alien(self):
        return KelpError("what answers at %s is no kelpd; check host and port" % self.connection.address)

    def schema(self):
        """Returns the columns as a list of Field, taken from the first file. The flags are not known remotely."""
        return self._schema(None)

    def _schema(self, clock):
        files = [f for f in self._files(clock) if f.name.endswith(".cvn")]
        if not files:
            raise KelpError("table %s has no data file yet; upload one first" % self.name)
        answer = self.connection._get(self.path + [files[0].name], "file %s" % files[0].name, clock)
        if not isinstance(answer, dict) or not isinstance(answer.get("column"), list):
            raise self._alien()
        try:
            columns = [(item["cno"], item["name"], item["typ"]) for item in answer["column"]]
        except (TypeError, KeyError):
            raise self._alien() from None
        if not all(isinstance(c[0], int) and isinstance(c[1], str) and isinstance(c[2], str) for c in columns):
            raise self._alien()
        return [types.Field(name, typ) for _, name, typ in sorted(columns)]

    def _post(self, body, opened=None, clock=None):
        raw = body.encode("utf-8", "surrogateescape")
        reply = self.connection._request("POST", self.path, clock, body=[raw], length=len(raw),
                                         content_type="application/json", opened=opened)
        if reply.ok:
            return reply
        with reply:
            raise _refused(reply.status, self._what if reply.status.startswith("404") else "the query",
                           "the files of the table may differ in their columns")

    def count(self, where=None, prune="safe"):
        """Returns the number of rows, or of those that satisfy `where`."""
        if where is None:
            clock = self.connection._clock()
            return sum(self._counts(lambda: self._post("{}", clock=clock), clock))
        with self.scan(columns=[], where=where, prune=prune) as scan:
            return sum(len(batch) for batch in scan)

    def _counts(self, post, clock):
        """Yields numbers of rows that add up to those that the table's files claim to have.

        The server streams them, 16 KiB for every 2^20 rows, so that one file of a few hundred bytes that claims 2^62
        would keep it and this client at it for ever. From COUNT_ROWS on (4 MiB) the catalogue is added up instead,
        which is the same sum where the server can read all files: what it cannot read breaks off the stream, but is
        left out of the catalogue.
        """
        counted = 0
        with post() as reply:
            for number, nrow in enumerate(read_counts(reply)):
                if counted >= COUNT_ROWS or number == COUNT_RECORDS:
                    break
                counted += nrow
                yield nrow
            else:
                return
        claimed = 0
        for file in self._files(clock):
            if file.name.endswith(".cvn"):
                claimed += file.nrow
            if claimed >= 1 << 63:
                raise KelpError("impossible totals: with what the file %s claims they exceed 64 bits; verify that file"
                                % file.name)
        if claimed < counted:
            raise KelpError("the reply counts more rows than the catalogue has, %d, and goes on; try again, and if it "
                            "stays so, check host and port" % claimed)
        yield claimed - counted

    def meta(self):
        """Returns Meta: rows and row groups as the server counts them (files named *.cvn.mismatch included)."""
        with self._post('{"command": ["meta"]}') as reply:
            return Meta(*read_meta(reply))

    def sample(self, n):
        """Returns a Table of `n` rows, or of all where there are fewer, that the server's sampler chose."""
        if not isinstance(n, int) or not 0 < n < 1 << 31:
            raise KelpError("a sample needs a number of rows from 1 to 2147483647")
        clock = self.connection._clock()
        fields, batches, nrow = self._schema(clock), [], 0
        with self._post('{"command": ["sample", "%d"]}' % n, clock=clock) as reply:
            try:
                for pages in RecordReader(reply, len(fields), self.connection.max_record):
                    nrow += pages[0].nrow
                    if nrow > n:
                        raise KelpError("the server sends more than the %d rows that were asked for" % n)
                    batches.append(Table(_columns(pages, fields), pages[0].nrow))
            except KelpError as error:
                raise KelpError("the sample failed: %s (is cvnsamp installed on the server?)" % error,
                                error.status) from None
        return Table.concat(batches, fields)

    def upload(self, source, name=None, progress=None, verify=True):
        """Stores a file in the table, replacing one of that name.

        source     a path, whose last part is the default for `name`, or the bytes of the file
        name       the file's name in the table; the server scans only names that end in .cvn
        progress   called with (bytes sent, bytes in all)
        verify     check the footer of a .cvn file before anything is sent
        """
        is_bytes = isinstance(source, (bytes, bytearray, memoryview))
        if name is None:
            if is_bytes:
                raise KelpError("an upload of bytes needs a name")
            name = os.path.basename(path_text(source))
        if not isinstance(name, str):
            raise KelpError("%r is no name of a file" % (name,))
        if name.endswith(".tmp"):
            raise KelpError("the name %s cannot be listed: the server uses .tmp for uploads in progress" % name)
        if verify and name.endswith(".cvn"):
            DataFile(source).close()
        if is_bytes:
            view = memoryview(source).cast("B")
            self._put(name, http.pieces_of(view), len(view), progress)
            return
        with open_regular(source) as file:
            length = os.fstat(file.fileno()).st_size
            self._put(name, http.pieces_of_file(file, length, source), length, progress)

    def _put(self, name, pieces, length, progress):
        with self.connection._request("PUT", self.path + [name], body=pieces, length=length,
                                      progress=progress) as reply:
            if not reply.ok:
                raise _refused(reply.status, "the upload of %s" % name,
                               "the file may be damaged" if reply.status.startswith("400") else
                               "its disk may be full; its log may say more")

    def remove(self, name=None):
        """Removes one file, or without a name the whole table. Removing what is not there succeeds."""
        path = self.path if name is None else self.path + [name]
        with self.connection._request("DELETE", path) as reply:
            if not reply.ok:
                raise _refused(reply.status, "the removal of %s" % "/".join(path))

    def scan(self, columns=None, where=None, jobs=1, prune="safe"):
        """Returns a Scan of the rows that satisfy `where`.

        columns   names in the order wanted, as a list or a text with commas; None for all, [] for row counts only
        where     conditions that must all hold, on any columns: a text as in "qty > 10 and note is null", or tuples
                  such as ("qty", ">", 10), ("note", "is null"), ("state", "in", ["open", "held"])
        jobs      connections that share the scan, each read by its own thread
        prune     which conditions the server may use to leave row groups out: "safe", those that can never lose a
                  row; "all", also comparisons of float, double and decimal columns, which are right as long as the
                  column holds no NaN; "none"
        """
        if prune not in PRUNE:
            raise KelpError("prune must be one of %s" % ", ".join(PRUNE))
        if not isinstance(jobs, int) or not 1 <= jobs <= 256:
            raise KelpError("jobs must be a number from 1 to 256")
        return Scan(self, columns, where, jobs, prune)


def _columns(pages, fields):
    """Turns the pages of a record into columns; `fields` says which columns they must be."""
    out = []
    for page, field in zip(pages, fields):
        if page.typ != field.type.code:
            found = types.by_code(page.typ)
            raise KelpError("column %s is %s in one file of the table and %s in another" % (
                field.name, field.type.name, found.name if found else "of an unknown type"))
        out.append(page.column(field.name, field.type))
    return out


class _Run:
    """One iteration of a scan: its open connections, its clock, and the word that it is over."""

    def __init__(self, clock):
        self.clock = clock
        self.stopped = threading.Event()
        self._lock = threading.Lock()
        self._links = set()

    @contextlib.contextmanager
    def post(self, table, body):
        """Sends a query and gives its reply. From the moment when the connection stands `stop` ends it."""
        links = []

        def opened(link):
            links.append(link)
            with self._lock:
                self._links.add(link)
            if self.stopped.is_set():
                link.cancel()

        try:
            with table._post(body, opened, self.clock) as reply:
                yield reply
        finally:
            with self._lock:
                self._links.difference_update(links)

    def stop(self):
        self.stopped.set()
        with self._lock:
            for link in self._links:
                link.cancel()


class Scan:
    """A query. Iterating yields Tables, one per row group with rows left; `read` returns all of it.

    Memory is bounded by the row groups in flight. Batches of several jobs come in the order in which they are ready;
    `read` puts them into an order that does not depend on timing. A failure raises KelpError from the iteration, and
    rows that came before it must then not be taken for the whole. `close`, or leaving a with statement, cancels.

    schema   the result's columns, as Fields
    stats    after and during an iteration: rowgroups received, rows kept, bytes received
    """

    def __init__(self, table, columns, where, jobs, prune):
        self._table = table
        self._jobs = jobs
        self._runs = []
        self._closed = False
        self._lock = threading.Lock()
        self.stats = {"rowgroups": 0, "rows": 0, "bytes": 0}
        schema = table.schema()
        fields = {f.name: f for f in schema}
        if len(fields) != len(schema):
            raise KelpError("table %s has two columns of one name" % table.name)
        names = list(fields) if columns is None else check_columns(columns, list(fields))
        self._conditions = bind(parse_where(where), schema)
        self._names = names
        self.schema = [fields[name] for name in names]
        # Columns that only a condition needs are fetched after the others and dropped after the filtering.
        extra = [c.name for c in self._conditions if c.name not in names]
        self._fetch = [fields[name] for name in names + list(dict.fromkeys(extra))]
        pushed = [item for c in self._conditions for item in c.push(prune)]
        self._bodies = [_query([f.name for f in self._fetch], pushed, job, jobs) for job in range(jobs)]

    def __iter__(self):
        for _, _, batch in self._batches():
            yield batch

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        """Cancels what is still running; from then on the scan raises KelpError."""
        with self._lock:
            self._closed = True
            runs = list(self._runs)
        for run in runs:
            run.stop()

    def read(self):
        """Returns the whole result as one Table."""
        found = sorted(self._batches(), key=lambda item: item[:2])
        return Table.concat([batch for _, _, batch in found], self.schema)

    def to_numpy(self):
        return self.read().to_numpy()

    def to_pandas(self):
        return self.read().to_pandas()

    def _batches(self):
        """Yields (number within its job, job, Table)."""
        run = _Run(self._table.connection._clock())
        with self._lock:
            if self._closed:
                raise KelpError("the scan was closed")
            self._runs.append(run)
            self.stats = {"rowgroups": 0, "rows": 0, "bytes": 0}
        try:
            if not self._fetch:
                yield from self._counts(run)
            elif self._jobs == 1:
                yield from self._fragment(run, 0)
            else:
                yield from self._parallel(run)
        except KelpError:
            if self._closed:
                raise KelpError("the scan was closed") from None
            raise
        finally:
            run.stop()
            with self._lock:
                self._runs.remove(run)

    def _note(self, rowgroups, rows, nbyte):
        with self._lock:
            self.stats["rowgroups"] += rowgroups
            self.stats["rows"] += rows
            self.stats["bytes"] += nbyte

    def _counts(self, run):
        counts = self._table._counts(lambda: run.post(self._table, "{}"), run.clock)
        for number, nrow in enumerate(counts):
            self._note(1, nrow, 0)
            yield number, 0, Table([], nrow)

    def _fragment(self, run, job):
        with run.post(self._table, self._bodies[job]) as reply:
            reader, before = RecordReader(reply, len(self._fetch), self._table.connection.max_record), 0
            for number, pages in enumerate(reader):
                batch = self._filter(pages)
                self._note(1, 0 if batch is None else len(batch), reader.nbyte - before)
                before = reader.nbyte
                if batch is not None:
                    yield number, job, batch

    def _filter(self, pages):
        columns = _columns(pages, self._fetch)
        nrow = pages[0].nrow
        keep = apply(self._conditions, {c.name: c for c in columns}, nrow)
        if nrow == 0 or (keep is not None and not keep.any()):
            return None
        table = Table(columns[:len(self._names)], nrow)
        return table if keep is None else table.take(keep)

    def _parallel(self, run):
        # Batches are taken as they come: a server that serves one connection at a time must never be waited for in an
        # order that it cannot keep. One slot a job bounds what is in flight.
        ready = queue.Queue(self._jobs)

        def put(item):
            while not run.stopped.is_set():
                try:
                    ready.put(item, timeout=0.1)
                    return True
                except queue.Full:
                    pass
            return False

        def work(job):
            try:
                for item in self._fragment(run, job):
                    if not put(item):
                        return
                put(None)
            except BaseException as error:  # handed to the consumer, whatever it is
                put(error)

        threads = [threading.Thread(target=work, args=(job,), daemon=True) for job in range(self._jobs)]
        for thread in threads:
            thread.start()
        try:
            running = self._jobs
            while running:
                try:
                    item = ready.get(timeout=0.1)
                except queue.Empty:
                    if run.stopped.is_set():
                        raise KelpError("the scan was closed") from None
                    continue
                if item is None:
                    running -= 1
                elif isinstance(item, BaseException):
                    raise item
                else:
                    yield item
        finally:
            run.stop()
            for thread in threads:
                thread.join()


def _query(names, pushed, job, jobs):
    """Returns the text of a query. Strings go out raw, as the server reads them: without escapes."""
    if not names:
        return "{}"
    for name in names:
        if not sendable(name):
            raise KelpError("column %s cannot be asked for: its name holds a quote or a backslash" % name)

    def string(value):
        return '"%s"' % value

    def condition(item):
        name, op, *argument = item
        parts = [string(name), string(op)] + ["[]" if a == [] else string(a) for a in argument]
        return "[%s]" % ", ".join(parts)

    def text(conditions):
        members = ['"column": [%s]' % ", ".join(map(string, names))]
        if conditions:
            members.append('"condition": [%s]' % ", ".join(map(condition, conditions)))
        if jobs > 1:
            members.append('"fragment": [%d, %d]' % (job, jobs))
        return "{%s}" % ", ".join(members)

    def fits(conditions):
        return len(text(conditions).encode("utf-8", "surrogateescape")) <= MAX_BODY

    if not fits([]):
        raise KelpError("the query names too many columns; the server takes %d bytes" % MAX_BODY)
    # The server may do without any condition, so those that do not fit are left to the client's own filtering.
    kept = []
    for item in pushed:
        if fits(kept + [item]):
            kept.append(item)
    return text(kept)
