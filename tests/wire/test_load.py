"""Many clients at once: a thousand connections, thousands of requests, and readers amid uploads and removals.

KELPD_LOAD_REQUESTS sets how many small requests are made; scripts/soak asks for 100,000.
"""
import collections
import json
import os
import random
import re
import resource
import struct
import threading
import time
import unittest

import cvnfile
import kelpd_proc
from kelpd_proc import until
from wirecase import (OK, STREAM, STREAM_END, WireCase, delete, error, get, json_reply, post, put,
                      small_file, stream)

REQUESTS = int(os.environ.get("KELPD_LOAD_REQUESTS", "5000"))
PATIENCE = kelpd_proc.WAIT * 10 + REQUESTS / 20  # seconds that the work of one test may take at most
FAILED = "500 Internal Server Error"
REFUSED = "400 Bad Request"
ENTITY = "/v1/d/s/e"
_DATE = re.compile(rb"(?<=\r\nDate: )[^\r]*")


def masked(raw):
    return _DATE.sub(b"*", raw, count=1)


def need_descriptors(test, wanted):
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    if soft < wanted:
        if hard != resource.RLIM_INFINITY and hard < wanted:
            test.skipTest(f"{wanted} descriptors are needed, {hard} are allowed")
        resource.setrlimit(resource.RLIMIT_NOFILE, (wanted, hard))


class Crew:
    """Threads that work until each has done its part. What goes wrong in one of them fails the test."""

    def __init__(self):
        self.problems = []
        self.threads = []
        self.stopped = threading.Event()

    def add(self, work, *arguments):
        def run():
            try:
                work(*arguments)
            except BaseException as problem:
                self.problems.append(problem)
                self.stopped.set()

        self.threads.append(threading.Thread(target=run, daemon=True))
        self.threads[-1].start()

    def join(self):
        end = time.monotonic() + PATIENCE
        for thread in self.threads:
            thread.join(max(0, end - time.monotonic()))
            if thread.is_alive():
                raise AssertionError("a thread does not end")
        if self.problems:
            raise self.problems[0]

    def stop(self):
        self.stopped.set()
        self.join()

    def __enter__(self):
        return self

    def __exit__(self, kind, problem, trace):
        """No thread goes on when its test has failed: the daemon would never be idle."""
        if kind is None:
            self.join()
            return
        self.stopped.set()
        for thread in self.threads:
            thread.join(kelpd_proc.WAIT)


class LoadCase(WireCase):
    limit = PATIENCE + WireCase.limit


class Crowd(LoadCase):
    NREADER, NWRITER, NPOST = 60, 400, 540

    @classmethod
    def setUpClass(cls):
        need_descriptors(cls, 4000)
        super().setUpClass()

    @classmethod
    def skipTest(cls, reason):
        raise unittest.SkipTest(reason)

    def test_a_thousand_connections_at_once_are_all_served(self):
        """Slow readers of more than their sockets hold, slow writers and half-sent queries are held open together, then
        finished mixed."""
        chance = random.Random(1000)
        ngroup = kelpd_proc.held_by_sockets(4096) // (640 << 10) + 2
        whole = cvnfile.build([cvnfile.Column(b"a", cvnfile.BYTEA)],
                              [[[chance.randbytes(640 << 10)]] for _ in range(ngroup)])
        self.kelpd.store("d/s/big/p.cvn", whole.data)
        small = small_file()
        self.kelpd.store("d/s/small/p.cvn", small.data)
        bodies = [small_file(first=k * 100, nrow=400).data for k in range(20)]
        jobs, expected_log = [], collections.Counter()

        def keep(kind, s, k):
            self.addCleanup(s.close)
            jobs.append((kind, s, k))
            if len(jobs) % 15 == 0:  # stay within the backlog: a connection beyond it waits a second for its next try
                until(lambda: len(kelpd_proc.children_of(self.kelpd.pid)) == len(jobs), "the children so far")

        for k in range(self.NREADER):
            s = self.kelpd.connect(rcvbuf=4096)
            s.sendall(post("/v1/d/s/big", '{"column":["a"]}'))
            keep("reader", s, k)
            expected_log["POST /v1/d/s/big -> 200 OK"] += 1
        for k in range(self.NWRITER):
            s = self.kelpd.connect()
            s.sendall(put(f"/v1/d/s/up/p{k}.cvn", bodies[k % 20][:1000], length=len(bodies[k % 20])))
            keep("writer", s, k)
            expected_log[f"PUT /v1/d/s/up/p{k}.cvn -> 200 OK"] += 1
        for k in range(self.NPOST):
            s = self.kelpd.connect()
            s.sendall(post("/v1/d/s/small", '{"column":["note","id"]', length=24))
            keep("query", s, k)
            expected_log["POST /v1/d/s/small -> 200 OK"] += 1
        count = self.NREADER + self.NWRITER + self.NPOST
        self.assertEqual(1000, count)
        until(lambda: len(kelpd_proc.children_of(self.kelpd.pid)) == count, "a thousand connection children")
        # One more is served while all of these stand.
        self.assert_reply(json_reply('["d"]'), self.kelpd.ask(get("/v1")))
        expected_log["GET /v1 -> 200 OK"] += 1

        chance.shuffle(jobs)
        streamed = stream(*(whole.record(k, b"a") for k in range(ngroup)))
        queried = stream(small.record(0, b"note", b"id"))
        for turn in range(1000, 4000, 1000):
            for kind, s, k in jobs:
                if kind == "writer":
                    s.sendall(bodies[k % 20][turn : turn + 1000])
        for kind, s, k in jobs:
            if kind == "reader":
                s.setsockopt(kelpd_proc.socket.SOL_SOCKET, kelpd_proc.socket.SO_RCVBUF, 1 << 20)
                self.assert_reply(streamed, kelpd_proc.receive(s))
            elif kind == "writer":
                s.sendall(bodies[k % 20][4000:])
                self.assert_reply(OK, kelpd_proc.receive(s))
            else:
                s.sendall(b"}")
                self.assert_reply(queried, kelpd_proc.receive(s))
            s.close()
        for k in range(self.NWRITER):
            self.assertEqual(bodies[k % 20], self.kelpd.load(f"d/s/up/p{k}.cvn"))
        self.assertEqual(self.NWRITER, len(os.listdir(self.kelpd.path("base/d/s/up"))))
        log = self.kelpd.await_log(count + 1)
        self.assertEqual(expected_log, collections.Counter(log.splitlines()))

    def test_a_burst_of_connections_beyond_the_backlog_is_served(self):
        with Crew() as crew:
            for _ in range(12):
                crew.add(self.burst, 10)
        self.assertEqual({"GET /v1 -> 200 OK": 120}, collections.Counter(self.kelpd.await_log(120).splitlines()))

    def burst(self, count):
        sockets = []
        for _ in range(count):
            sockets.append(self.kelpd.connect())
            sockets[-1].sendall(get("/v1"))
        for s in sockets:
            self.assertEqual(json_reply("[]"), masked(kelpd_proc.receive(s)))
            s.close()


class SmallRequests(LoadCase):
    def test_thousands_of_small_requests_are_all_answered(self):
        whole = small_file()
        self.kelpd.store("d/s/e/p.cvn", whole.data)
        totals = b"".join(struct.pack("<10iqB", cvnfile.PAGE_MAGIC, cno, 4, 1, 0, 8, 9, 9, 0, 0, total, 0)
                          for cno, total in enumerate((10, 1)))
        record = struct.pack("<2i", cvnfile.RECORD_MAGIC, 98)
        cases = [
            (get("/v1"), json_reply('["d"]'), "GET /v1 -> 200 OK"),
            (get(ENTITY), json_reply("[ " + whole.json("p.cvn") + "]\n"), f"GET {ENTITY} -> 200 OK"),
            (get("/v1/none"), error("404 Not Found"), "GET /v1/none -> 404 Not Found"),
            (post(ENTITY, '{"command":["meta"]}'), stream([record, totals[:49], totals[49:]]),
             f"POST {ENTITY} -> 200 OK"),
            (post(ENTITY, '{"column":["id"],"condition":[["id",">","3"]]}'), stream(whole.record(0, b"id")),
             f"POST {ENTITY} -> 200 OK"),
            (post(ENTITY, "[]"), error("400 Bad Request - invalid content"),
             f"POST {ENTITY} -> 400 Bad Request - invalid content"),
            (delete("/v1/none"), OK, "DELETE /v1/none -> 200 OK"),
            (b"GET\r\n\r\n", b"", "htreq_parse failed: htreq_parse: invalid req line"),
        ]
        before = self.resident()
        nthread = 4

        def work(first):
            for k in range(first, REQUESTS, nthread):
                raw, expected, _ = cases[k % len(cases)]
                got = masked(self.kelpd.ask(raw))
                if got != expected:
                    raise AssertionError(f"request {k}: {raw!r}\nexpected {expected!r}\nreceived {got!r}")
                if crew.stopped.is_set():
                    return

        with Crew() as crew:
            for first in range(nthread):
                crew.add(work, first)
        expected_log = collections.Counter(cases[k % len(cases)][2] for k in range(REQUESTS))
        self.assertEqual(expected_log, collections.Counter(self.kelpd.await_log(REQUESTS).splitlines()))
        self.kelpd.await_idle()
        if not kelpd_proc.SANITIZED:
            self.assertEqual(before, self.resident(), "the daemon keeps memory of connections it has handed on")

    def resident(self):
        return kelpd_proc.status_field(self.kelpd.pid, "VmData")


class Races(LoadCase):
    def test_of_two_uploads_the_one_that_ends_last_stays(self):
        first, second = small_file(first=100), small_file(first=200, nrow=30)
        with self.kelpd.connect() as a, self.kelpd.connect() as b:
            a.sendall(put(ENTITY + "/p.cvn", first.data[:-1], length=len(first.data)))
            until(lambda: len(self.kelpd.tree()) == 4, "the first temporary file")
            began = int(time.time())
            until(lambda: int(time.time() - 0.1) > began, "the next second")
            b.sendall(put(ENTITY + "/p.cvn", second.data[:-1], length=len(second.data)))
            until(lambda: len(self.kelpd.tree()) == 5, "the second temporary file")
            b.sendall(second.data[-1:])
            self.assert_reply(OK, kelpd_proc.receive(b))
            self.assertEqual(second.data, self.kelpd.load("d/s/e/p.cvn"))
            a.sendall(first.data[-1:])
            self.assert_reply(OK, kelpd_proc.receive(a))
            self.assertEqual(first.data, self.kelpd.load("d/s/e/p.cvn"))
        self.assert_tree("d/", "d/s/", "d/s/e/", "d/s/e/p.cvn")
        self.assert_log(*[f"PUT {ENTITY}/p.cvn -> 200 OK"] * 2)

    def test_uploads_racing_within_a_second_leave_nothing_behind(self):
        """They share one temporary name, so each may succeed or fail; the next upload alone is whole again."""
        files = [small_file(first=k * 1000, nrow=300 + k).data for k in range(8)]
        statuses = collections.Counter()
        lock = threading.Lock()

        def work(data):
            for _ in range(12):
                got = masked(self.kelpd.ask(put(ENTITY + "/p.cvn", data)))
                if got not in (OK, error(REFUSED), error(FAILED)):
                    raise AssertionError(got)
                with lock:
                    statuses[got.split(b"\r\n")[0].decode().removeprefix("HTTP/1.1 ")] += 1

        with Crew() as crew:
            for data in files:
                crew.add(work, data)
        self.kelpd.await_idle()
        self.assertEqual(96, sum(statuses.values()))
        lines = collections.Counter(self.kelpd.await_log(96).splitlines())
        self.assertEqual({f"PUT {ENTITY}/p.cvn -> {status}": n for status, n in statuses.items()}, lines)
        self.assertEqual([], [name for name in self.kelpd.tree() if name.endswith(".tmp")])
        self.check_ok(put(ENTITY + "/p.cvn", files[0]))
        self.assertEqual(files[0], self.kelpd.load("d/s/e/p.cvn"))
        self.assert_tree("d/", "d/s/", "d/s/e/", "d/s/e/p.cvn")

    def test_uploads_of_different_names_do_not_disturb_each_other(self):
        def work(k):
            for turn in range(10):
                data = small_file(first=k * 1000 + turn, nrow=100).data
                name = f"{ENTITY}/p{k}.cvn"
                self.assertEqual(OK, masked(self.kelpd.ask(put(name, data))))
                self.assertEqual(data, self.kelpd.load(f"d/s/e/p{k}.cvn"))

        with Crew() as crew:
            for k in range(8):
                crew.add(work, k)
        self.assertEqual({f"PUT {ENTITY}/p{k}.cvn -> 200 OK": 10 for k in range(8)},
                         collections.Counter(self.kelpd.await_log(80).splitlines()))
        self.assertEqual(3 + 8, len(self.kelpd.tree()))


class Replacement(LoadCase):
    """Readers while one file is replaced again and again: each sees one version, whole."""

    def test_readers_see_the_old_file_or_the_new_one(self):
        versions = [small_file(first=k * 1000, nrow=50 + k, ngroup=3) for k in range(25)]
        self.kelpd.store("d/s/e/p.cvn", versions[0].data)
        streams = {stream(*(v.record(k, b"id", b"note") for k in range(3))) for v in versions}
        listings = {json_reply("[ " + v.json("p.cvn") + "]\n") for v in versions}
        seen = collections.Counter()

        def check(raw, allowed, what):
            got = masked(self.kelpd.ask(raw))
            if got not in allowed:
                raise AssertionError(f"{what} shows no version of the file: {got[:300]!r}")
            if what == "scan":
                for record in cvnfile.read_stream(got[got.index(b"\r\n\r\n") + 4 :]):
                    for page in record:
                        page.values()
            seen[what] += 1

        def read(raw, allowed, what):
            while not crew.stopped.is_set():
                check(raw, allowed, what)

        with Crew() as crew:
            crew.add(read, post(ENTITY, '{"column":["id","note"]}'), streams, "scan")
            crew.add(read, get(ENTITY), listings, "listing")
            for version in versions * 3:
                self.assertEqual(OK, masked(self.kelpd.ask(put(ENTITY + "/p.cvn", version.data))))
                self.assertEqual(version.data, self.kelpd.load("d/s/e/p.cvn"))
            until(lambda: (seen["scan"] > 20 and seen["listing"] > 20) or crew.stopped.is_set(), "readers")
            crew.stop()
        expected = collections.Counter({f"PUT {ENTITY}/p.cvn -> 200 OK": 75, f"POST {ENTITY} -> 200 OK": seen["scan"],
                                        f"GET {ENTITY} -> 200 OK": seen["listing"]})
        self.assertEqual(expected, collections.Counter(self.kelpd.await_log(expected.total()).splitlines()))
        self.assert_tree("d/", "d/s/", "d/s/e/", "d/s/e/p.cvn")


class Removal(LoadCase):
    """Readers and uploads while their tree is removed again and again: whole files, or a failure that says so."""

    NAMES = ("a.cvn", "b.cvn", "c.cvn")

    def setUp(self):
        super().setUp()
        self.files = {name: small_file(first=1000 * k, nrow=40 + k, ngroup=2) for k, name in enumerate(self.NAMES)}
        self.streamed = {tuple(f.record(k, b"id", b"qty")) for f in self.files.values() for k in range(2)}

    def check_listing(self, got):
        if got == error("404 Not Found"):
            return
        body = got[got.index(b"\r\n\r\n") + 4 :]
        self.assertEqual(json_reply(body.decode()), got)
        for item in json.loads(body):
            self.assertEqual(json.loads(self.files[item["name"]].json(item["name"])), item)

    def check_scan(self, got):
        if got in (error("404 Not Found"), error(FAILED)):
            return
        self.assertTrue(got.startswith(STREAM), got[:200])
        body = got[len(STREAM) :]
        if body.endswith(STREAM_END):
            self.assertTrue(all(page.values() for record in cvnfile.read_stream(body) for page in record))
        else:
            self.assertTrue(body.endswith(FAILED.encode()), body[-100:])
        chunks, rest = cvnfile.dechunk(body)
        self.assertIn(rest, (b"", FAILED.encode()))
        if not rest:
            chunks.pop()
        for k in range(0, len(chunks), 3):
            self.assertIn(tuple(chunks[k : k + 3]), self.streamed)

    def test_readers_see_whole_files_or_a_failure(self):
        counts = collections.Counter()
        lock = threading.Lock()  # three threads upload

        def count(what):
            with lock:
                counts[what] += 1

        def read(raw, check, what):
            while not crew.stopped.is_set():
                check(masked(self.kelpd.ask(raw)))
                count(what)

        def write(name):
            while not crew.stopped.is_set():
                got = masked(self.kelpd.ask(put(f"{ENTITY}/{name}", self.files[name].data)))
                # Refused when its temporary file went away before the check, failed when it did at another time.
                self.assertIn(got, (OK, error(REFUSED), error(FAILED)))
                count("put")

        with Crew() as crew:
            crew.add(read, get(ENTITY), self.check_listing, "get")
            crew.add(read, post(ENTITY, '{"column":["id","qty"]}'), self.check_scan, "post")
            for name in self.NAMES:
                crew.add(write, name)
            for url in ("/v1/d", "/v1/d/s/e", "/v1/d/s", f"{ENTITY}/b.cvn") * 15:
                got = masked(self.kelpd.ask(delete(url)))
                self.assertIn(got, (OK, error(FAILED)))
                count("delete")
            until(lambda: crew.stopped.is_set() or min(counts["get"], counts["post"], counts["put"]) > 20,
                  "all to work")
            crew.stop()
        self.kelpd.await_idle()
        access = re.compile(r"(GET|POST|PUT|DELETE) /v1\S* -> "
                            r"(200 OK|400 Bad Request|404 Not Found|500 Internal Server Error)")
        removal = re.compile(r"ERROR while remove\(base/d[^)]*\): Directory not empty|"
                             r"Error rm -rf base/d\S*: Directory not empty")
        lines = self.kelpd.await_log(counts.total()).splitlines()
        self.assertEqual([], [line for line in lines if not access.fullmatch(line) and not removal.fullmatch(line)])
        self.assertEqual(counts.total(), sum(1 for line in lines if access.fullmatch(line)))
        self.assertEqual([], [name for name in self.kelpd.tree() if name.endswith(".tmp")])
        self.check_ok(delete("/v1/d"))
        self.assert_tree()

    def test_two_removals_of_one_tree_both_succeed(self):
        """Each meets names that the other has just removed; together they leave nothing and complain of nothing."""
        raw = delete("/v1/d")
        for _ in range(100):
            for k in range(48):
                self.kelpd.store(f"d/s{k % 2}/e{k % 12}/p{k}", b"")
            with self.kelpd.connect() as a, self.kelpd.connect() as b:
                for s in (a, b):
                    s.sendall(raw[:-1])
                for s in (a, b):
                    self.kelpd.await_child(s)
                for s in (a, b):
                    s.sendall(raw[-1:])
                for s in (a, b):
                    self.assert_reply(OK, kelpd_proc.receive(s))
            self.assert_log(*["DELETE /v1/d -> 200 OK"] * 2)
            self.assert_tree()


if __name__ == "__main__":
    unittest.main()
