#!/usr/bin/env python3
"""The daemon beside an independent model: random requests, each reply compared byte for byte with what the model says.

    KELPD=... CVNSAMP=... PYTHONPATH=tests/support tests/model/run.py [--seed N] [--requests M] [--jobs J]

Each job has a daemon and a tree of its own. Every 200 steps the whole tree on disk and all lines of the log are
compared as well. After 2,000 requests a job begins anew with an empty tree and the next part of the seed, so what
differs needs no more than these; they are then cut down to the fewest that still show it, printed, and kept for
--replay. At the end the counts of what was met are printed, and a listed kind that was never met is a failure like a
difference.
"""
import argparse
import collections
import multiprocessing
import os
import pickle
import queue
import shutil
import socket
import stat
import struct
import sys
import tempfile
import time

sys.dont_write_bytecode = True

import cvnfile
import daemon_model
import kelpd_proc
from cvnview import TYPE_NAMES
from daemon_model import Dir, File, Link, Model, Sample
from traffic import Pool, Traffic

EPOCH, LOOK = 2000, 200
WAIT = struct.pack("ll", int(kelpd_proc.WAIT), 0)

# What a run must have met. The second list is too rare for a short one.
_STATUSES = {
    "GET": ("200 OK", "400 Bad Request - invalid url", "400 Bad Request - invalid version", "404 Not Found",
            "500 Internal Server Error"),
    "PUT": ("200 OK", "400 Bad Request", "400 Bad Request - invalid url", "400 Bad Request - invalid version",
            "400 Bad Request - no content", "500 Internal Server Error", "silence"),
    "DELETE": ("200 OK", "400 Bad Request - invalid url", "500 Internal Server Error"),
    "POST": ("200 OK", "400 Bad Request", "400 Bad Request - invalid content", "400 Bad Request - invalid url",
             "400 Bad Request - invalid version", "404 Not Found", "500 Internal Server Error", "silence"),
    "other": ("404 Not Found",),
}
_TYPES = [name.decode() for name in TYPE_NAMES.values()]
LISTED = [f"{method} -> {status}" for method, statuses in _STATUSES.items() for status in statuses]
LISTED += [f"head: {what}" for what in ("clnt closed without valid req", "clnt overflowed request buffer",
                                       "too many lines in req", "invalid req line", "HTTP/1.0 not supported",
                                       "invalid Host header")]
LISTED += [f"operator {op}" for op in range(1, 10)] + [f"type {name}" for name in (*_TYPES, "unknown")]
LISTED += [f"condition on {name}" for name in _TYPES]
LISTED += [f"constant refused: {name}" for name in ("int16", "int128", "float", "double", "dec64", "dec128")]
LISTED += [f"upload checked: {code}" for code in (0, -3, -7)] + [f"removal at depth {depth}" for depth in range(5)]
LISTED += [f"listing at depth {depth}" for depth in range(3)] + [f"removal of a {kind}" for kind in ("Dir", "File")]
LISTED += """
    head ends in bare line feeds|split directory opened|listing skips what is no data|listing of files|
    listing of no files|upload makes directories|upload of nothing with bytes after the head|upload cut short|
    upload longer than declared|upload unchecked|upload onto a directory|upload replaces|upload is new|
    removal of nothing|count|scan of no files|scan of one file|scan of several files|scan fails amid its stream|
    column refused|operator refused|condition's column refused|condition refused|fragment|fragment refused|
    scan of an empty list|scan cannot compare|file ruled out|row group ruled out|page cannot be read|meta|sample|
    sample compared|sent in two pieces|by hand: store|by hand: mkdir|by hand: split|by hand: link|by hand: remove
    """.replace("\n    ", "").strip().split("|")
RARE = ["removal of a Link", "column's file is missing", "pages overlap too far", "by hand: base",
        "constant refused: int32",
        "constant refused: unknown"]


class Difference(Exception):
    pass


def near(expected, got):
    at = next((k for k, (a, b) in enumerate(zip(expected, got)) if a != b), min(len(expected), len(got)))
    show = slice(max(at - 100, 0), at + 160)
    return (f"{len(expected)} bytes expected, {len(got)} received, different from byte {at} on:\n"
            f"  expected {expected[show]!r}\n  received {got[show]!r}")


class Side:
    """The daemon, its directory, and the model of both."""

    def __init__(self, pool, hits):
        self.pool, self.hits = pool, hits
        path = os.path.dirname(os.path.abspath(os.environ["CVNSAMP"])) + ":" + os.environ["PATH"]
        self.kelpd = kelpd_proc.Daemon(env={"PATH": path, "TMPDIR": tempfile.gettempdir()}).start()
        self.base = os.fsencode(self.kelpd.path("base"))
        self.logfile = open(self.kelpd.log_files()[-1], "rb")
        self.address = "127.0.0.1", self.kelpd.port
        self.dates = {}
        self.begin()

    def begin(self):
        """An empty tree on both sides, and a daemon that runs, should the last steps have ended it."""
        if self.kelpd.has_ended():
            self.kelpd.restart()
            self.logfile.close()
            self.logfile = open(self.kelpd.log_files()[-1], "rb")
        self.kelpd.await_idle()
        self.logfile.seek(0, os.SEEK_END)
        if os.path.isdir(self.base):
            for entry in os.scandir(self.base):
                shutil.rmtree(entry.path) if entry.is_dir(follow_symlinks=False) else os.unlink(entry.path)
        else:
            os.mkdir(self.base, 0o700)
        self.model = Model(self.order, self.hits)

    def stop(self):
        self.logfile.close()
        self.kelpd.stop()

    def real(self, path):
        return b"/".join((self.base, *path))

    def order(self, path, names):
        found = os.listdir(self.real(path))
        if len(found) != len(names) or set(found) != set(names):
            raise Difference(f"{path!r} holds {sorted(found)!r}, expected {sorted(names)!r}")
        return found

    # Asking.

    def ask(self, raw, cut, end):
        s = socket.socket()
        try:
            s.setsockopt(socket.SOL_SOCKET, socket.SO_RCVTIMEO, WAIT)
            try:
                s.connect(self.address)
            except ConnectionRefusedError:
                raise Difference("nobody listens any more") from None
            try:
                if cut:
                    s.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
                    s.sendall(raw[:cut])
                    time.sleep(0.001)
                    s.sendall(raw[cut:])
                else:
                    s.sendall(raw)
                if end:
                    s.shutdown(socket.SHUT_WR)
            except OSError:
                pass  # it has answered already
            parts = []
            while True:
                try:
                    part = s.recv(1 << 18)
                except ConnectionResetError:  # bytes were left unread on the other side
                    break
                except BlockingIOError:
                    raise Difference("the reply has no end: " + repr(b"".join(parts)[:300])) from None
                if not part:
                    break
                parts.append(part)
            return b"".join(parts) if len(parts) != 1 else parts[0]
        finally:
            s.close()

    def date_is_due(self, text, since):
        now = int(time.time())
        for second in range(int(since - 0.1), now + 1):
            if second not in self.dates:
                self.dates = {k: v for k, v in self.dates.items() if k > now - 10}
                self.dates[second] = time.strftime("%a, %d %b %Y %H:%M:%S GMT", time.gmtime(second)).encode()
            if self.dates[second] == text:
                return True
        return False

    def request(self, raw, cut):
        since = time.time()
        expected = self.model.respond(raw)
        sampled = isinstance(expected, Sample)
        if sampled:
            line = self.model.log.pop()
            self.look_at_log()
        got = self.ask(raw, cut, self.model.needs_end)
        if cut:
            self.model.hit("sent in two pieces")
        at = got.find(b"\r\nDate: ", 0, 200) + 8
        if at >= 8:
            if not self.date_is_due(got[at : at + 29], since):
                raise Difference(f"the date is wrong: {got[: at + 40]!r}")
            got = got[:at] + daemon_model.DATE + got[at + 29 :]
        if sampled:
            self.check_sample(expected, got)
            self.check_sample_log(expected, line)
        elif got != expected:
            raise Difference(near(expected, got))

    # The sample: rows chosen by chance out of known ones.

    def determined(self, sample):
        """Whether all of its files are sound and of one table; what others give is the sampler's to say."""
        views = [seen for _, seen in sample.files]
        return bool(views) and all(seen is not None and seen.data in self.pool.rows for seen in views) and \
            all(seen.names == views[0].names and seen.typs == views[0].typs for seen in views) and \
            len(set(views[0].names)) == views[0].ncol > 0

    def check_sample(self, sample, got):
        if not got.startswith(daemon_model.STREAM):
            raise Difference(f"a sample of {sample.files!r} begins with {got[:300]!r}")
        body = got[len(daemon_model.STREAM) :]
        if not self.determined(sample):
            if body and not body.endswith(daemon_model.END):
                raise Difference(f"a sample ends in {body[-100:]!r}")
            return
        typs = sample.files[0][1].typs
        rows = collections.Counter()
        for _, seen in sample.files:
            for group in self.pool.rows[seen.data]:
                rows.update(zip(*([cvnfile.encode(value, typ) + b"01"[value is None : 2] for value in values]
                                  for typ, values in zip(typs, group))))
        wanted, found = min(sample.wanted, rows.total()), collections.Counter()
        try:
            for record in cvnfile.read_stream(body):
                if [page.typ for page in record] != typs:
                    raise Difference("a sample has other columns than its table")
                found.update(zip(*([cvnfile.encode(value,
                                                   page.typ) + b"01"[value is None : 2] for value in page.values()]
                                   for page in record)))
        except (cvnfile.Unsound, struct.error) as problem:
            raise Difference(f"a sample cannot be read: {problem}") from None
        if found.total() != wanted or found - rows:
            raise Difference(f"a sample of {found.total()} rows instead of {wanted}, of which these are not the "
                             f"table's: {list((found - rows).items())[:3]!r}")
        self.model.hit("sample compared")

    def check_sample_log(self, sample, line):
        text = self.take_log(lambda text: text.endswith(line))
        if text != line if self.determined(sample) else not text.endswith(line):
            raise Difference(f"the log of a sample: {text!r}")

    # Looking around.

    def take_log(self, is_whole):
        text = self.logfile.read()
        end = time.monotonic() + kelpd_proc.WAIT
        while not is_whole(text) and time.monotonic() < end:
            time.sleep(0.002)
            more = self.logfile.read()
            text += more
            if not more and not kelpd_proc.children_of(self.kelpd.pid):
                text += self.logfile.read()
                break
        return text

    def look_at_log(self):
        expected = b"".join(self.model.log)
        self.model.log.clear()
        got = self.take_log(lambda text: len(text) >= len(expected))
        if got != expected:
            raise Difference("the log: " + near(expected, got))

    def look(self):
        """The whole tree and the log."""
        self.look_at_log()
        if self.model.tree.root is None:
            if os.path.lexists(self.base):
                raise Difference("base/ is still there")
            return
        self.compare(self.base, self.model.tree.root)
        left = os.listdir(self.kelpd.path("tmp"))
        if left:
            raise Difference(f"left in tmp/: {left}")

    def compare(self, path, node):
        found = {entry.name: entry for entry in os.scandir(path)}
        if found.keys() != node.kids.keys():
            raise Difference(f"{path!r} holds {sorted(found)!r}, expected {sorted(node.kids)!r}")
        for name, kid in node.kids.items():
            entry = found[name]
            mode = entry.stat(follow_symlinks=False).st_mode
            kind = Dir if stat.S_ISDIR(mode) else Link if stat.S_ISLNK(mode) else File
            if kind is not type(kid) or kind is not Link and mode & 0o7777 != (0o700 if kind is Dir else 0o600):
                raise Difference(f"{entry.path!r} has the mode {mode:o}, expected a {type(kid).__name__}")
            if kind is Dir:
                self.compare(entry.path, kid)
            elif kind is Link:
                if os.readlink(entry.path) != kid.target:
                    raise Difference(f"{entry.path!r} is another link")
            else:
                with open(entry.path, "rb") as f:
                    data = f.read()
                if data != kid.data:
                    raise Difference(f"{entry.path!r}: " + near(kid.data, data))

    # By hand.

    def write(self, path, data):
        with open(self.real(path), "wb") as f:
            os.fchmod(f.fileno(), 0o600)
            f.write(data)

    def make(self, path):
        os.mkdir(self.real(path), 0o700)

    def by_hand(self, kind, path=None, *values):
        """The same change on both sides; nothing when a shortened list of steps has lost what it rests on."""
        self.model.hit("by hand: " + kind)
        tree = self.model.tree
        if kind == "base":
            if tree.root is None:
                os.mkdir(self.base, 0o700)
                tree.root = Dir()
            return
        here = tree.directory(path[:-1])
        if here is None:
            return
        name, old = path[-1], here.kids.get(path[-1])
        if kind == "remove":
            if isinstance(old, Dir):
                shutil.rmtree(self.real(path))
            elif old is not None:
                os.unlink(self.real(path))
            here.kids.pop(name, None)
        elif kind == "store":
            if old is None or isinstance(old, File):
                self.write(path, values[0])
                here.kids[name] = File(values[0])
        elif old is None and kind == "mkdir":
            self.make(path)
            here.kids[name] = Dir()
        elif old is None and kind == "link":
            os.symlink(values[0], self.real(path))
            here.kids[name] = Link(values[0])
        elif old is None and kind == "split":
            meta, files = values
            self.make(path)
            here.kids[name] = made = Dir()
            inside = [(b"%d.cvnx" % cno, data) for cno, data in files]
            for inner, data in inside + ([(b"meta.cvnx", meta)] if meta is not None else []):
                self.write(path + [inner], data)
                made.kids[inner] = File(data)

    def take(self, step):
        if step[0] == "request":
            self.request(*step[1:])
        else:
            self.by_hand(*step)


def play(side, steps):
    """Whether these steps, from an empty tree on, show a difference: its text, or None."""
    side.begin()
    try:
        for step in steps:
            side.take(step)
        side.look()
    except Difference as problem:
        return str(problem)
    return None


def shrunk(side, steps, limit=400):
    """The fewest of these steps found that still show a difference, and its text."""
    text = play(side, steps)
    if text is None:
        return steps, None
    size = len(steps) // 2
    while size > 0 and limit > 0:
        at = 0
        while at < len(steps) and limit > 0:
            fewer = steps[:at] + steps[at + size :]
            limit -= 1
            found = play(side, fewer)
            if found is not None:
                steps, text = fewer, found
            else:
                at += size
        size = size // 2 if size > 1 else 0
    return steps, text


def show(steps):
    def brief(value):
        return repr(value) if len(repr(value)) < 1500 else f"{value[:200]!r} ... {len(value)} bytes in all"

    return "\n".join(f"  {step[0]} " + " ".join(brief(value) for value in step[1:]) for step in steps)


def work(number, options, goals, results):
    """One job: epochs until there are no more to take."""
    hits = {}
    side = None
    try:
        pool = Pool()
        side = Side(pool, hits)
        while True:
            try:
                epoch, count = goals.get_nowait()
            except queue.Empty:
                break
            side.begin()
            traffic, steps, nrequest = Traffic(f"{options.seed}/{epoch}", pool, side.model.tree), [], 0
            try:
                while nrequest < count:
                    step = traffic.step()
                    steps.append(step)
                    nrequest += step[0] == "request"
                    side.take(step)
                    if len(steps) % LOOK == 0:
                        side.look()
                side.look()
            except Difference as problem:
                fewer, text = shrunk(side, steps)
                with open(options.keep, "wb") as f:
                    pickle.dump(fewer, f)
                results.put(("difference", f"seed {options.seed}, epoch {epoch}, step {len(steps)}: {problem}\n"
                             f"{len(fewer)} of these steps show: {text}\n{show(fewer)}\n"
                             f"again: run.py --replay {options.keep}"))
                return
            results.put(("done", count))
        reports = side.kelpd.sanitizer_reports()
        if reports:
            results.put(("difference", reports))
    except BaseException as problem:
        results.put(("difference", f"job {number}: {type(problem).__name__}: {problem}"))
        raise
    finally:
        results.put(("hits", hits))
        if side:
            side.stop()


def silence(side):
    """A head that never ends is dropped after five seconds, without a reply. Returns what is wrong, or None."""
    s = side.kelpd.connect()
    with s:
        s.sendall(b"GET /v1 HTTP/1.1\r\n")
        began = time.monotonic()
        got = kelpd_proc.receive(s)
        waited = time.monotonic() - began
    side.model.log.append(b"htreq_readbuf failed: clnt timed out\n")
    try:
        side.look_at_log()
    except Difference as problem:
        return str(problem)
    return None if got == b"" and waited > 4.5 else f"after {waited:.1f} s came {got!r}"


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0], epilog="See the head of this file.")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--requests", type=int, default=20000)
    parser.add_argument("--jobs", type=int, default=2, help="processes, each with a daemon (default 2)")
    parser.add_argument("--replay", metavar="FILE", help="the steps that a difference left")
    parser.add_argument("--epoch", type=int, help="only this one of the seed's epochs")
    parser.add_argument("--keep", metavar="FILE", default=os.path.join(tempfile.gettempdir(),
                                                                       f"model-steps-{os.getpid()}"),
                        help="where the steps of a difference go")
    options = parser.parse_args()
    if os.access("/dev/shm", os.W_OK):
        tempfile.tempdir = "/dev/shm"  # removals and flushes are not what is tested
    if options.replay:
        with open(options.replay, "rb") as f:
            steps = pickle.load(f)
        side = Side(Pool(), {})
        try:
            text = play(side, steps)
        finally:
            side.stop()
        print(show(steps))
        if text is None:
            print("no difference")
        sys.exit(text)

    goals, results = multiprocessing.Queue(), multiprocessing.Queue()
    counts = [min(EPOCH, options.requests - first) for first in range(0, options.requests, EPOCH)]
    for epoch, count in enumerate(counts):
        if options.epoch is None or options.epoch == epoch:
            goals.put((epoch, count))
    time.sleep(0.1)  # the queue is filled by a thread of its own
    began = time.monotonic()
    jobs = [multiprocessing.Process(target=work, args=(k, options, goals, results)) for k in range(options.jobs)]
    for job in jobs:
        job.start()
    side = Side(None, {})
    problem = silence(side)
    side.stop()
    problems, hits, compared, left, told = [problem] if problem else [], collections.Counter(), 0, len(jobs), began
    while left:
        kind, value = results.get()
        if kind == "done":
            compared += value
        elif kind == "hits":
            hits.update(value)
            left -= 1
        else:
            problems.append(value)
            while not goals.empty():
                goals.get()
        if time.monotonic() > told + 60:
            told = time.monotonic()
            print(f"{compared} requests so far, {compared / (told - began):.0f} per second", flush=True)
    for job in jobs:
        job.join()
    took = time.monotonic() - began
    for name in sorted(hits):
        print(f"{hits[name]:9}  {name}")
    listed = LISTED + (RARE if options.requests >= 200000 else [])
    missed = [name for name in listed if not hits[name]] if options.epoch is None and options.requests >= 20000 else []
    print(f"seed {options.seed}: {compared} requests compared in {took:.0f} s, {compared / took:.0f} per second, "
          f"{len(problems)} differences")
    if missed:
        problems.append("never met: " + ", ".join(missed))
    sys.exit("\n".join(problems) or 0)


if __name__ == "__main__":
    main()
