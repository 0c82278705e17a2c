#!/usr/bin/env python3
"""Mixed traffic for a given time, each reply checked, with peers that stall and vanish throughout.

    KELPD=... CVNSAMP=... PYTHONPATH=tests/support tests/load/run.py [--seconds S | --hours H] [--svg FILE]

Two processes of clients talk to one daemon. Every client knows what its replies may hold: one that owns its tables
knows them to the byte; readers of the file that many clients replace accept each of its whole versions and nothing
else. Meanwhile other clients send half a request, stop reading, stop sending, or reset the connection. The parent's
memory and descriptors, its children, their memory and the temporary files are recorded, and how long replies took.

It fails on a wrong reply, on a parent that grows, on a log line that no request accounts for, and on processes,
descriptors or temporary files that are left when the clients have ended. --svg draws what was recorded, --json keeps
it.
"""
import argparse
import bisect
import collections
import json
import multiprocessing
import os
import queue
import random
import re
import socket
import struct
import sys
import tempfile
import threading
import time

sys.dont_write_bytecode = True

import cvnfile
import kelpd_proc
import replies
from cvnfile import Column
from kelpd_proc import until

WAIT = kelpd_proc.WAIT
NPROCESS = 2
HEAD_SECONDS = 5  # after which half a head is given up
MOST_GROWTH = 1 << 20  # bytes by which the parent may grow after the first fifth
_DATE = re.compile(rb"(?<=\r\nDate: )[^\r]*")
OK = replies.head("200 OK", date="*")
SAMPLE_ROWS = 7
ACCESS = re.compile(r"(GET|POST|PUT|DELETE|HEAD) /v1\S* -> (200 OK|400 Bad Request( - [a-z ]+)?|404 Not Found|"
                    r"500 Internal Server Error)")
DROPPED = re.compile(r"htreq_(readbuf failed: clnt (timed out|closed without valid req)|"
                     r"parse failed: htreq_parse: invalid req line)")


def error(status):
    return replies.error(status, date="*")


def masked(raw):
    return _DATE.sub(b"*", raw, count=1)


def version(first, nrow, ngroup=3):
    """A small file whose every number says which version it is of."""
    columns = [Column(b"id", cvnfile.INT64), Column(b"note", cvnfile.CSTR, 1)]
    return cvnfile.build(columns, [[[first + group * nrow + k for k in range(nrow)],
                                    [b"version %d" % first if k % 3 else None for k in range(nrow)]]
                                   for group in range(ngroup)])


def streamed(built, *names):
    """The reply to a scan of these columns of one file."""
    chunks = [part for group in range(len(built.groups)) for part in built.record(group, *names)]
    return replies.stream_head(date="*") + b"".join(map(replies.chunk, chunks)) + cvnfile.STREAM_END


def request(method, url, body=b"", length=None):
    text = f"{method} {url} HTTP/1.1\r\nHost: localhost\r\n"
    if body or length is not None:
        text += f"Content-Length: {len(body) if length is None else length}\r\n"
    return text.encode() + b"\r\n" + body


def totals(nrow, nrowgroup):
    pages = [struct.pack("<10iqB", cvnfile.PAGE_MAGIC, cno, 4, 1, 0, 8, 9, 9, 0, 0, total, 0)
             for cno, total in enumerate((nrow, nrowgroup))]
    chunks = [struct.pack("<ii", cvnfile.RECORD_MAGIC, 98), *pages]
    return replies.stream_head(date="*") + b"".join(map(replies.chunk, chunks)) + cvnfile.STREAM_END


def counted(nrow):
    size = (nrow - 1) // 64 + 1
    page = struct.pack("<10i", cvnfile.PAGE_MAGIC, -1, 0, nrow, 0, 0, size, size, 0, 0) + bytes(size)
    chunks = [struct.pack("<ii", cvnfile.RECORD_MAGIC, len(page)), page]
    return replies.stream_head(date="*") + b"".join(map(replies.chunk, chunks)) + cvnfile.STREAM_END


class Wrong(Exception):
    """A reply that must not be."""


class Crew:
    """The clients of one process: threads that work until they are told to stop."""

    def __init__(self, number, shared, options):
        self.number, self.shared, self.options = number, shared, options
        self.took = collections.defaultdict(list)
        self.lock = threading.Lock()
        self.hot = [version(1000 * k, 40 + k) for k in range(24)]
        self.scans = {streamed(built, b"id", b"note") for built in self.hot}
        self.listings = {replies.json_reply("[ " + built.json("p.cvn") + "]\n", date="*") for built in self.hot}
        self.counts = {counted(built.nrow) for built in self.hot}
        self.metas = {totals(built.nrow, 3) for built in self.hot}
        self.rows = {row for built in self.hot for group in built.groups
                     for row in zip(*(page.values() for page in group))}
        self.big_reply = streamed(big_file(), b"a")

    # Talking.

    def note(self, kind, began):
        with self.lock:
            self.took[kind].append(round(1000 * (time.monotonic() - began), 3))

    def ask(self, kind, raw):
        began = time.monotonic()
        with kelpd_proc.connect(self.shared.port) as s:
            kelpd_proc.send(s, raw)
            got = kelpd_proc.receive(s)
        self.note(kind, began)
        return masked(got)

    def expect(self, kind, raw, allowed):
        got = self.ask(kind, raw)
        if got not in allowed:
            raise Wrong(f"{kind}: {raw[:200]!r} gives {got[:300]!r} ... {got[-80:]!r}, {len(got)} bytes")
        return got

    def is_over(self):
        return self.shared.stop.is_set()

    def rest(self, chance, mean=0.01):
        self.shared.stop.wait(chance.expovariate(1 / mean))

    # Readers of the file that is replaced all the time.

    def read_hot(self, chance):
        kind = chance.randrange(6)
        url = "/v1/hot/s/e"
        if kind < 2:
            self.expect("scan", request("POST", url, b'{"column":["id","note"]}'), self.scans)
        elif kind == 2:
            self.expect("list", request("GET", url), self.listings)
        elif kind == 3:
            self.expect("count", request("POST", url, b"{}"), self.counts)
        elif kind == 4:
            self.expect("meta", request("POST", url, b'{"command":["meta"]}'), self.metas)
        else:
            got = self.ask("list", request("GET", "/v1"))
            head, _, body = got.partition(b"\r\n\r\n")
            names = json.loads(body) if head.startswith(b"HTTP/1.1 200 OK\r\n") else []
            if not {"hot", "big", "race"} <= set(names) or set(names) - {"hot", "big", "race", *OWN_NAMES} or \
                    len(set(names)) != len(names) or got != replies.json_reply(body, date="*"):
                raise Wrong(f"the databases are {got!r}")
        self.rest(chance)

    def sample(self, chance):
        """Different rows of one version; none when the sampler saw the file change between its two passes."""
        got = self.ask("sample", request("POST", "/v1/hot/s/e", b'{"command":["sample","%d"]}' % SAMPLE_ROWS))
        head = replies.stream_head(date="*")
        if not got.startswith(head):
            raise Wrong(f"a sample begins with {got[:300]!r}")
        body = got[len(head) :]
        if body:
            rows = [row for record in cvnfile.read_stream(body) for row in zip(*(page.values() for page in record))]
            if len(rows) != SAMPLE_ROWS or not set(rows) <= self.rows or len(set(rows)) != SAMPLE_ROWS or \
                    len({row[0] // 1000 for row in rows}) != 1:
                raise Wrong(f"a sample has the rows {rows!r}")
        self.rest(chance, 0.5)

    # Uploads to the one name. Two that begin within one second share a temporary file by its name, and nobody promises
    # then which bytes it gets; so each begins in a second of its own, and lasts as long as it likes.

    def replace_hot(self, chance):
        built = chance.choice(self.hot)
        raw = request("PUT", "/v1/hot/s/e/p.cvn", built.data)
        began = None
        with self.shared.turn:
            while time.time() < self.shared.second.value + 1.05:
                if self.is_over():
                    return
                time.sleep(0.02)
            folder = self.shared.path("hot", "s", "e")
            before = set(os.listdir(folder))
            began = time.monotonic()
            s = kelpd_proc.connect(self.shared.port)
            try:
                s.sendall(raw[: len(raw) // 2])
                new = until(lambda: {name for name in os.listdir(folder) if name.endswith(".tmp")} - before,
                            "the temporary file")
                self.shared.second.value = max(int(name.split(".")[-2]) for name in new)
            except BaseException:
                s.close()
                raise
        with s:
            slow = chance.random() < 0.5
            if slow:
                self.shared.stop.wait(chance.uniform(0.1, 5))
            if chance.random() < 0.2:
                kelpd_proc.reset(s)
                return
            s.sendall(raw[len(raw) // 2 :])
            got = masked(kelpd_proc.receive(s))
        self.note("slow upload" if slow else "upload", began)
        if got != OK:
            raise Wrong(f"an upload among others gives {got!r}")

    def race(self, chance):
        """Uploads that share their second: each is taken or refused, and none leaves anything."""
        built = chance.choice(self.hot)
        self.expect("upload", request("PUT", "/v1/race/s/e/p.cvn", built.data),
                    (OK, error("400 Bad Request"), error("500 Internal Server Error")))
        self.rest(chance, 0.3)

    # The owner of a table: nobody else touches it, so every reply is known.

    def own(self, chance, name):
        root, url = f"/v1/{name}", f"/v1/{name}/s/e"
        files = {}
        for turn in range(6):
            built = version(chance.randrange(50) * 1000, chance.randrange(5, 60), chance.randrange(1, 4))
            partition = f"p{chance.randrange(3)}.cvn"
            self.expect("upload", request("PUT", f"{url}/{partition}", built.data), (OK,))
            files[partition] = built
            order = [entry for entry in os.listdir(self.shared.path(name, "s", "e")) if entry in files]
            wanted = "[" + ",".join(" " + files[entry].json(entry) for entry in order) + "]\n"
            self.expect("list", request("GET", url), (replies.json_reply(wanted, date="*"),))
            parts = [part for entry in order for group in range(len(files[entry].groups))
                     for part in files[entry].record(group, b"note")]
            scan = replies.stream_head(date="*") + b"".join(map(replies.chunk, parts)) + cvnfile.STREAM_END
            self.expect("scan", request("POST", url, b'{"column":["note"]}'), (scan,))
            self.expect("refused", request("PUT", f"{url}/{partition}", built.data[:-1]), (error("400 Bad Request"),))
            self.expect("refused", request("POST", url, b'{"column":["none"]}'), (error("400 Bad Request"),))
            self.expect("refused", request("HEAD", url), (error("404 Not Found"),))
            if chance.random() < 0.3:
                self.expect("remove", request("DELETE", f"{url}/{partition}"), (OK,))
                del files[partition]
            self.rest(chance)
        self.expect("remove", request("DELETE", root), (OK,))
        self.expect("list", request("GET", root), (error("404 Not Found"),))

    # Peers that stall, and peers that vanish.

    def trouble(self, chance):
        kind = chance.randrange(7)
        if kind == 0:
            self.half_a_head(chance)
        elif kind == 1:
            with kelpd_proc.connect(self.shared.port) as s:
                s.sendall(chance.choice((b"", b"GET /v1 HT", b"GET\r\n\r\n", b"PUT /v1/hot/s/e/p.cvn HTTP/1.1\r\n")))
                kelpd_proc.reset(s)
        elif kind == 2:
            self.upload_that_ends(chance)
        elif kind == 3:
            self.upload_that_stalls(chance)
        elif kind == 4:
            self.query_that_ends(chance)
        else:
            self.reader_that_stalls(chance, is_patient=kind == 5)
        self.rest(chance, 0.2)

    def half_a_head(self, chance):
        began = time.monotonic()
        with kelpd_proc.connect(self.shared.port) as s:
            s.sendall(chance.choice((b"", b"GET", b"GET /v1 HTTP/1.1\r\nHost: x\r\n")))
            got = kelpd_proc.receive(s)
        if got != b"" or time.monotonic() - began < HEAD_SECONDS - 0.5:
            raise Wrong(f"half a head gives {got!r} after {time.monotonic() - began:.1f} s")

    def leave_early(self, chance, s, what):
        """Stops sending, or vanishes, after a while."""
        self.shared.stop.wait(chance.uniform(0, 3))
        if chance.random() < 0.5:
            kelpd_proc.reset(s)
            return
        s.shutdown(socket.SHUT_WR)
        got = masked(kelpd_proc.receive(s))
        if got != error("400 Bad Request"):
            raise Wrong(f"{what} that ends early gives {got!r}")

    def upload_that_ends(self, chance):
        data = chance.choice(self.hot).data
        url = f"/v1/race/s/gone/p{chance.randrange(1000000)}.cvn"
        with kelpd_proc.connect(self.shared.port) as s:
            s.sendall(request("PUT", url, data[: chance.randrange(len(data))], length=len(data)))
            self.leave_early(chance, s, "an upload")

    def upload_that_stalls(self, chance):
        data = chance.choice(self.hot).data
        url = f"/v1/race/s/slow/p{self.number}-{threading.get_ident()}.cvn"
        with kelpd_proc.connect(self.shared.port) as s:
            raw = request("PUT", url, data)
            for at in range(0, len(raw), len(raw) // 4 + 1):
                s.sendall(raw[at : at + len(raw) // 4 + 1])
                self.shared.stop.wait(chance.uniform(0, 2))
            got = masked(kelpd_proc.receive(s))
        if got != OK:
            raise Wrong(f"an upload in pieces gives {got!r}")
        self.expect("remove", request("DELETE", url), (OK,))

    def query_that_ends(self, chance):
        with kelpd_proc.connect(self.shared.port) as s:
            s.sendall(request("POST", "/v1/hot/s/e", b'{"column":', length=24))
            self.leave_early(chance, s, "a query")

    def reader_that_stalls(self, chance, is_patient):
        """A reply larger than what the sockets hold, so that the daemon waits for its reader."""
        with kelpd_proc.connect(self.shared.port, rcvbuf=4096) as s:
            s.sendall(request("POST", "/v1/big/s/e", b'{"column":["a"]}'))
            start = s.recv(1000)
            self.shared.stop.wait(chance.uniform(0, 8))
            if not is_patient:
                kelpd_proc.reset(s)
                return
            s.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 20)
            got = masked(start + kelpd_proc.receive(s))
        if got != self.big_reply:
            raise Wrong(f"a reader that stalled has {len(got)} bytes of {len(self.big_reply)}")

    # Working.

    def run(self, work, seed, *arguments):
        chance = random.Random(seed)
        try:
            while not self.is_over():
                work(chance, *arguments)
        except BaseException as problem:
            self.shared.problems.put(f"{work.__name__}: {type(problem).__name__}: {problem}")
            self.shared.stop.set()

    def start(self):
        jobs = [(self.read_hot,)] * 2 + [(self.replace_hot,)] * 3 + [(self.race,)] * 2 + [(self.trouble,)] * 8
        jobs += [(self.own, name) for name in OWN_NAMES[self.number :: NPROCESS]]
        jobs += [(self.sample,)] if self.number == 0 else []
        return [threading.Thread(target=self.run, args=(work, f"{self.options.seed}/{self.number}/{k}", *arguments),
                                 daemon=True) for k, (work, *arguments) in enumerate(jobs)]

    def report(self):
        with self.lock:
            took, self.took = self.took, collections.defaultdict(list)
        self.shared.figures.put(dict(took))


OWN_NAMES = [f"own{k}" for k in range(4)]
_BIG = []


def big_file():
    if not _BIG:
        chance = random.Random(1000)
        ngroup = kelpd_proc.held_by_sockets(4096) // (640 << 10) + 2
        _BIG.append(cvnfile.build([Column(b"a", cvnfile.BYTEA)],
                                  [[[chance.randbytes(640 << 10)]] for _ in range(ngroup)]))
    return _BIG[0]


class Shared:
    """What the processes of clients have in common with the one that watches."""

    def __init__(self, kelpd):
        self.port, self.base = kelpd.port, kelpd.path("base")
        self.stop, self.turn = multiprocessing.Event(), multiprocessing.Lock()
        self.second = multiprocessing.Value("q", 0)
        self.problems, self.figures = multiprocessing.Queue(), multiprocessing.Queue()

    def path(self, *names):
        return os.path.join(self.base, *names)


def clients(number, shared, options):
    crew = Crew(number, shared, options)
    threads = crew.start()
    for thread in threads:
        thread.start()
    while any(thread.is_alive() for thread in threads):
        time.sleep(0.5)
        crew.report()
        if shared.stop.is_set():
            end = time.monotonic() + 2 * WAIT
            for thread in threads:
                thread.join(max(0, end - time.monotonic()))
                if thread.is_alive():
                    shared.problems.put("a client does not end")
                    break
            crew.report()
            break
    shared.figures.put(None)


# Watching.


def memory(pid):
    """(RSS, PSS) in bytes, or None when the process has gone."""
    try:
        with open(f"/proc/{pid}/smaps_rollup") as f:
            fields = dict(line.split(":") for line in f.read().splitlines()[1:])
        return tuple(1024 * int(fields[name].split()[0]) for name in ("Rss", "Pss"))
    except (OSError, KeyError):
        return None


def temporary(top):
    return sum(name.endswith(".tmp") for _, _, names in os.walk(top) for name in names)


def look(kelpd, began):
    children = kelpd_proc.children_of(kelpd.pid)
    found = [figure for figure in map(memory, children) if figure]
    rss, pss = memory(kelpd.pid)
    return {"t": round(time.monotonic() - began, 1), "rss": rss, "pss": pss, "children": len(children),
            "children_pss": sum(figure[1] for figure in found), "descriptors": len(kelpd_proc.descriptors(kelpd.pid)),
            "tmp": temporary(kelpd.path("base")) + temporary(kelpd.path("tmp"))}


def percentile(values, share):
    return values[min(len(values) - 1, int(share * len(values)))] if values else 0


class Log:
    """Counts the log's lines as they come, and keeps those that nobody expects.

    What was read is cut off now and then, or a day of it would fill the disk; a line that comes just then is not seen.
    """

    MOST = 64 << 20

    def __init__(self, kelpd):
        self.file = open(kelpd.log_files()[-1], encoding="latin-1")
        self.counts, self.odd = collections.Counter(), []

    def read(self):
        for line in iter(self.file.readline, ""):
            line = line.rstrip("\n")
            found = ACCESS.fullmatch(line)
            if found:
                self.counts[f"{found[1]} {found[2]}"] += 1
            elif DROPPED.fullmatch(line):
                self.counts["dropped"] += 1
            elif line.startswith("cvnsamp: "):
                self.counts["sampler"] += 1  # the file changed under it
            else:
                self.odd.append(line)
        if self.file.tell() > self.MOST:
            os.truncate(self.file.name, 0)
            self.file.seek(0)


# Drawing.


class Plot:
    """A plain SVG of panels one below the other, each with lines over the time of the run."""

    WIDTH, HEIGHT, LEFT, GAP = 760, 130, 70, 46
    COLOURS = ("#1b6ca8", "#c0392b", "#2e8b57", "#b8860b", "#6a3d9a", "#444444", "#d35400", "#008b8b", "#999999")

    def __init__(self, seconds):
        self.seconds, self.parts, self.top = seconds, [], 30

    def x(self, t):
        return self.LEFT + (self.WIDTH - self.LEFT - 150) * t / self.seconds

    def text(self, x, y, text, more=""):
        self.parts.append(f'<text x="{x:.0f}" y="{y:.0f}" {more}>{text}</text>')

    def panel(self, title, lines, steps=None):
        """`lines` maps a name to a list of (t, value); `steps` are the marks of a logarithmic axis."""
        values = [value for line in lines.values() for _, value in line] or [1]
        most = max(max(values), 1e-9) * 1.1
        low = high = None
        if steps:
            low = max(step for step in steps if step <= max(min(values), steps[0]))
            high = min([step for step in steps if step >= max(values)] or [steps[-1]])
            steps = [step for step in steps if low <= step <= high]

        def y(value):
            if steps:
                share = bisect.bisect_right(steps, value) - 1
                share = min(max(share, 0), len(steps) - 2) if len(steps) > 1 else 0
                if len(steps) > 1:
                    a, b = steps[share], steps[share + 1]
                    share += (min(max(value, a), b) - a) / (b - a)
                return self.top + self.HEIGHT * (1 - share / max(len(steps) - 1, 1))
            return self.top + self.HEIGHT * (1 - value / most)

        self.text(self.LEFT, self.top - 8, title, 'font-weight="bold"')
        self.parts.append(f'<rect x="{self.LEFT}" y="{self.top}" width="{self.x(self.seconds) - self.LEFT:.0f}" '
                          f'height="{self.HEIGHT}" fill="none" stroke="#888"/>')
        for mark in steps or [most / 1.1 * k / 2 for k in range(3)]:
            self.text(self.LEFT - 6, y(mark) + 4, f"{mark:.4g}", 'text-anchor="end"')
        for k in range(5):
            t = self.seconds * k / 4
            label = f"{t / 3600:.2g} h" if self.seconds >= 7200 else f"{t / 60:.3g} min" if self.seconds >= 120 else \
                f"{t:.3g} s"
            self.text(self.x(t), self.top + self.HEIGHT + 14, label, 'text-anchor="middle"')
        for k, (name, line) in enumerate(lines.items()):
            colour = self.COLOURS[k % len(self.COLOURS)]
            points = " ".join(f"{self.x(t):.1f},{y(value):.1f}" for t, value in line)
            self.parts.append(f'<polyline points="{points}" fill="none" stroke="{colour}" stroke-width="1.2"/>')
            self.text(self.x(self.seconds) + 8, self.top + 12 + 14 * k, name, f'fill="{colour}"')
        self.top += self.HEIGHT + self.GAP

    def write(self, path):
        with open(path, "w") as f:
            f.write(f'<svg xmlns="http://www.w3.org/2000/svg" width="{self.WIDTH}" height="{self.top}" '
                    f'viewBox="0 0 {self.WIDTH} {self.top}" font-family="sans-serif" font-size="11">\n'
                    f'<rect width="100%" height="100%" fill="white"/>\n' + "\n".join(self.parts) + "\n</svg>\n")


def draw(path, seconds, looks, spans):
    plot = Plot(seconds)
    plot.panel("Memory of the parent, KiB", {"RSS": [(s["t"], s["rss"] / 1024) for s in looks],
                                             "PSS": [(s["t"], s["pss"] / 1024) for s in looks]})
    plot.panel("Memory of all children, MiB", {"PSS": [(s["t"], s["children_pss"] / (1 << 20)) for s in looks]})
    plot.panel("Counts", {"children": [(s["t"], s["children"]) for s in looks],
                          "parent's descriptors": [(s["t"], s["descriptors"]) for s in looks],
                          "temporary files": [(s["t"], s["tmp"]) for s in looks]})
    plot.panel("Requests per second", {"all kinds": [(s["t"], s["rate"]) for s in spans]})
    kinds = [kind for kind in sorted({kind for s in spans for kind in s["kinds"]}) if kind != "slow upload"]
    scale = [base * 10**power for power in range(-1, 5) for base in (1, 2, 5)]
    for name, title in (("p50", "Half of the replies take at most, ms"), ("p99", "99 % take at most, ms")):
        plot.panel(title, {kind: [(s["t"], s["kinds"][kind][name]) for s in spans if kind in s["kinds"]]
                           for kind in kinds}, scale)
    plot.write(path)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0], epilog="See the head of this file.")
    parser.add_argument("--seconds", type=float, default=20)
    parser.add_argument("--hours", type=float, help="instead of --seconds")
    parser.add_argument("--seed", type=int, default=1, help="what the clients do, though not when")
    parser.add_argument("--svg", metavar="FILE")
    parser.add_argument("--json", metavar="FILE")
    options = parser.parse_args()
    seconds = 3600 * options.hours if options.hours else options.seconds
    path = os.path.dirname(os.path.abspath(os.environ["CVNSAMP"])) + ":" + os.environ["PATH"]
    kelpd = kelpd_proc.Daemon(env={"PATH": path, "TMPDIR": tempfile.gettempdir()}).start()
    try:
        problems = watch(kelpd, seconds, options)
    finally:
        kelpd.stop()
    sys.exit("\n".join(problems) or 0)


def watch(kelpd, seconds, options):
    kelpd.store("hot/s/e/p.cvn", version(0, 40).data)
    kelpd.store("big/s/e/p.cvn", big_file().data)
    kelpd.store("race/s/e/p.cvn", version(0, 40).data)
    for folder in ("hot", "big", "race"):
        for place, folders, files in os.walk(kelpd.path("base", folder)):
            os.chmod(place, 0o700)
    idle = kelpd_proc.descriptors(kelpd.pid)
    shared, log = Shared(kelpd), Log(kelpd)
    processes = [multiprocessing.Process(target=clients, args=(k, shared, options)) for k in range(NPROCESS)]
    for process in processes:
        process.start()
    began = time.monotonic()
    span = max(1.0, seconds / 120)
    looks, spans, took, all_took, left, cut = [], [], collections.defaultdict(list), {}, NPROCESS, span
    most, due = {}, 0  # the largest figures of this span, and when to look again
    while left:
        now = time.monotonic() - began
        if now > seconds:
            shared.stop.set()
        try:
            figure = shared.figures.get(timeout=max(0.05, min(0.5, span / 4)))
            if figure is None:
                left -= 1
            for kind, values in (figure or {}).items():
                took[kind] += values
        except queue.Empty:
            pass
        if kelpd.has_ended():
            shared.stop.set()
            break
        if now >= due and not shared.stop.is_set():
            due = now + min(span, 10)
            most = {name: max(value, most.get(name, 0)) for name, value in look(kelpd, began).items()}
        if now >= cut and not shared.stop.is_set():
            cut = now + span
            looks.append(most)
            most = {}
            log.read()
            spans.append(close_span(looks[-1]["t"], spans, took, all_took))
    for process in processes:
        process.join(WAIT)
    close_span(seconds, spans, took, all_took)
    problems = []
    while not shared.problems.empty():
        problems.append(shared.problems.get())
    problems += judge(kelpd, idle, looks, log)
    print_figures(seconds, options, looks, log, all_took)
    if options.json:
        with open(options.json, "w") as f:
            json.dump({"seconds": seconds, "looks": looks, "spans": spans}, f)
    if options.svg:
        draw(options.svg, seconds, looks, spans)
    return problems


# Latencies of all the run, in steps of a tenth, so that a day of them takes no memory.
def step_of(ms):
    return round(ms, 1) if ms < 100 else round(ms)


def close_span(t, spans, took, all_took):
    kinds, count = {}, 0
    for kind, values in took.items():
        values.sort()
        count += len(values)
        kinds[kind] = {"n": len(values), "p50": percentile(values, 0.5), "p99": percentile(values, 0.99),
                       "max": values[-1]} if values else {}
        all_took.setdefault(kind, collections.Counter()).update(map(step_of, values))
    took.clear()
    before = spans[-1]["t"] if spans else 0
    return {"t": t, "rate": round(count / max(t - before, 0.1), 1), "kinds": {k: v for k, v in kinds.items() if v}}


def of_counter(counter, share):
    wanted, seen = share * counter.total(), 0
    for value in sorted(counter):
        seen += counter[value]
        if seen > wanted:
            return value
    return max(counter)


def judge(kelpd, idle, looks, log):
    """What must hold when the clients have ended."""
    problems = []
    if kelpd.has_ended():
        return [f"the daemon has ended: {kelpd.exit_status}"]
    try:
        kelpd.await_idle()
        until(lambda: kelpd_proc.descriptors(kelpd.pid) == idle, "the descriptors of the start")
        until(lambda: temporary(kelpd.path("base")) + temporary(kelpd.path("tmp")) == 0, "the temporary files to go")
    except AssertionError as problem:
        problems.append(f"left at the end: {problem}; {kelpd_proc.children_of(kelpd.pid)} "
                        f"{kelpd_proc.descriptors(kelpd.pid)} {kelpd.tree()}")
    log.read()
    if log.odd:
        problems.append(f"{len(log.odd)} log lines that nobody expects, the first: {log.odd[:5]!r}")
    if looks and not kelpd_proc.SANITIZED:
        warm = max(s["rss"] for s in looks[: len(looks) // 5 + 1])
        grown = memory(kelpd.pid)[0] - warm
        if grown > MOST_GROWTH:
            problems.append(f"the parent has grown by {grown} bytes")
    if max([s["descriptors"] for s in looks] or [0]) > len(idle) + 2:
        problems.append(f"the parent has had {max(s['descriptors'] for s in looks)} descriptors")
    return problems


def print_figures(seconds, options, looks, log, all_took):
    ntimed = sum(counter.total() for counter in all_took.values())
    print(f"seed {options.seed}, {seconds:.0f} s: {ntimed} timed replies, {log.counts.total()} log lines")
    for kind, counter in sorted(all_took.items()):
        print(f"  {kind:12} {counter.total():9}  ms: " + "  ".join(
            f"{name} {of_counter(counter, share):.1f}" for name, share in
            (("p50", 0.5), ("p90", 0.9), ("p99", 0.99), ("p99.9", 0.999))) + f"  max {max(counter):.0f}")
    for name, count in sorted(log.counts.items()):
        print(f"  log: {name}: {count}")
    if looks:
        mib = 1 << 20
        print(f"  parent RSS {min(s['rss'] for s in looks) / mib:.2f} to {max(s['rss'] for s in looks) / mib:.2f} MiB, "
              f"PSS {min(s['pss'] for s in looks) / mib:.2f} to {max(s['pss'] for s in looks) / mib:.2f} MiB, "
              f"descriptors {min(s['descriptors'] for s in looks)} to {max(s['descriptors'] for s in looks)}")
        print(f"  children at most {max(s['children'] for s in looks)}, their PSS at most "
              f"{max(s['children_pss'] for s in looks) / mib:.1f} MiB, temporary files at most "
              f"{max(s['tmp'] for s in looks)}")


if __name__ == "__main__":
    main()
