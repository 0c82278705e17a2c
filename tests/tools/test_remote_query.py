#!/usr/bin/env python3
"""cvn count, query, get and sample against a running daemon."""
import json
import os
import random
import signal
import subprocess
import threading
import time
import unittest

import cvnfile
from cvnfile import STREAM_END, STREAM_HEAD, Column
from fake_server import FakeServer, drain, table_of
from kelpd_proc import WAIT
from remote_support import CommandTest, DaemonTest
from replies import chunk
from support import CVN

SCHEMA = ("b bool, s int16, i int32, l int64, h int128, f float, d double, y bytea, t cstr -z, e dec64, q dec128, "
          "day date, tm time_millis, ts timestamp_millis")
NAMES = ["b", "s", "i", "l", "h", "f", "d", "y", "t", "e", "q", "day", "tm", "ts"]
VALUES = [
    "true,-32768,-2147483648,-9223372036854775808,-170141183460469231731687303715884105728,-1.5,1e300,\\x,"
    '"",-9999999999999999E+369,1E-6176,0001-01-01,00:00:00,0001-01-01T00:00:00Z',
    "false,32767,2147483647,9223372036854775807,170141183460469231731687303715884105727,3.4028235e+38,-0.0,\\x00ff0a,"
    '"a, ""b""\nc",1.50,-0.1000000000000000000000000000000001,9999-12-31,23:59:59.999,9999-12-31T23:59:59.999Z',
    "true,0,0,0,0,NaN,inf,\\x2c22,\\x41,0,1234567890123456789012345678901234E-3,1970-01-01,12:34:56.7,"
    "1969-12-31T23:59:59.999Z",
    ",,,,,,,,,,,,,",
    "false,7,8,9,10,0.1,0.1,\\x78,é,7E+10,2.00,2024-02-29,01:02:03.004,2024-02-29T01:02:03.004Z",
]


def big_groups(ngroup=12, nrow=500):
    """Row groups of (id, text, number with NULLs), for tables with work for several connections."""
    rng = random.Random(20)
    groups = []
    for g in range(ngroup):
        ids = list(range(g * nrow, (g + 1) * nrow))
        groups.append([ids, [b"text %d %d" % (i, rng.randrange(10**9)) for i in ids],
                       [None if i % 7 == 0 else i % 100 for i in ids]])
    return groups


BIG = [Column(b"id", cvnfile.INT64), Column(b"name", cvnfile.CSTR, 1), Column(b"n", cvnfile.INT32)]


class Types(DaemonTest):
    """What comes back through the daemon is what went in, for every type."""

    def setUp(self):
        super().setUp()
        self.create(SCHEMA, ",".join(NAMES) + "\n" + "\n".join(VALUES) + "\n")
        self.put("t.cvn")

    def test_all_types_survive_the_way_through_the_daemon_and_csv(self):
        text = self.cvn("query", "db/sc/t", "--jobs", "1").stdout
        self.assertEqual(self.cvn("cat", "t.cvn").stdout, text)
        self.create(SCHEMA, text, "again.cvn")
        first, again = cvnfile.read(self.load("t.cvn")), cvnfile.read(self.load("again.cvn"))
        for one, other in zip(first.groups[0], again.groups[0], strict=True):
            self.assertEqual(one.body, other.body, cvnfile.NAMES[one.typ])
        self.assertEqual(5, first.nrow)
        self.assertEqual([1] * 14, [page.nnull for page in first.groups[0]])

    def test_get_gives_the_same_values_in_a_sound_file(self):
        self.cvn("get", "db/sc/t", "got.cvn", "--jobs", "1")
        self.assertIn("good: 5 rows", self.out("verify", "got.cvn"))
        first, got = cvnfile.read(self.load("t.cvn")), cvnfile.read(self.load("got.cvn"))
        self.assertEqual([(c.name, c.typ) for c in first.columns], [(c.name, c.typ) for c in got.columns])
        self.assertEqual([p.body for p in first.groups[0]], [p.body for p in got.groups[0]])

    def test_null_is_nothing_in_csv_and_null_in_json(self):
        lines = self.out("query", "db/sc/t", "--columns", "t,l", "--where", "l is null").splitlines()
        self.assertEqual(["t,l", ","], lines)
        row = json.loads(self.out("query", "db/sc/t", "--where", "b is null", "--format", "jsonl"))
        self.assertEqual(dict.fromkeys(NAMES), row)
        self.assertEqual("NULL", self.out("query", "db/sc/t", "--where", "b is null", "--columns", "tm", "--format",
                                          "table").split()[-1])

    def test_conditions_on_every_type_select_what_cat_selects(self):
        conditions = [
            "b = yes", "b != on", "b in (f, t)", "s >= 7", "s in (-32768, 7)", "i < 0", "i <> 8", "l <= 9",
            "l = 9223372036854775807", "h > 0x0a", "h = -170141183460469231731687303715884105728", "f > 0", "f != NaN",
            "f <= inf", "f = 0.1", "d < 0.2", "d = 0", "d >= inf", "y = '\\x2c22'", "y >= '\\x78'", "y = '\\x'",
            "y in ('\\x', '\\x00ff0a')", "t = ''", "t = '\\x41'", "t > 'a'", "t = 'é'", "t in ('', 'a, \"b\"\nc')",
            "e = 1.5", "e < 0", "e in (1.500, 7e10)", "q = 2", "q > 1", "q <= -0.1", "day >= 2024-02-29",
            "day in (0001-01-01, 9999-12-31)", "tm = 01:02:03.004", "tm < 12:34:56.701", "tm >= 23:59",
            "ts = '2024-02-29T03:02:03.004+02:00'", "ts < '1970-01-01T00:00'", "ts > '2024-02-29 01:02:03'", "l in ()",
            "b is null", "t is not null", "s > 0 and i > 0 and t is not null",
        ]
        for where in conditions:
            expected = self.cvn("cat", "t.cvn", "--columns", "l,t", "--where", where).stdout
            got = self.cvn("query", "db/sc/t", "--jobs", "1", "--columns", "l,t", "--where", where).stdout
            self.assertEqual(expected, got, where)
        selected = [where for where in conditions if len(self.out("query", "db/sc/t", "--columns", "l", "--where",
                                                                  where).splitlines()) > 1]
        self.assertEqual({"l in ()"}, set(conditions) - set(selected))

    def test_nan_meets_only_unequal(self):
        for op, n in (("=", 0), ("!=", 4), ("<", 0), (">=", 0)):
            self.assertEqual(f"{n}\n", self.out("count", "db/sc/t", "--where", f"d {op} NaN"))
        self.assertEqual("true\n", self.out("query", "db/sc/t", "--columns", "b", "--where", "f != 0.1 and s = 0")[2:])


class Query(DaemonTest):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.groups = big_groups()
        cls.whole = cvnfile.build(BIG, cls.groups)

    def setUp(self):
        super().setUp()
        data = self.whole.data
        self.write("big.cvn", data)
        self.daemon.store("db/sc/t/big.cvn", data)
        self.expected = sorted(
            f"{i},{name.decode()},{'' if n is None else n}" for g in self.groups for i, name, n in zip(*g))

    def test_any_number_of_jobs_gives_the_same_rows(self):
        in_order = self.out("query", "db/sc/t", "--jobs", "1").splitlines()[1:]
        self.assertEqual(self.expected, sorted(in_order))
        self.assertEqual(list(range(6000)), [int(line.split(",")[0]) for line in in_order])
        for jobs in ("2", "3", "4", "64"):
            self.assertEqual(self.expected, self.rows("db/sc/t", "--jobs", jobs))
            self.assertEqual(["5", "5999"], self.rows("db/sc/t", "--jobs", jobs, "--columns", "id", "--where",
                                                      "id in (5, 5999)"))

    def test_rows_of_several_files_come_together(self):
        other = cvnfile.build(BIG, [[[9000, 9001], [b"x", None], [1, None]]])
        self.daemon.store("db/sc/t/other.cvn", other.data)
        self.assertEqual(sorted(self.expected + ["9000,x,1", "9001,,"]), self.rows("db/sc/t", "--jobs", "4"))
        self.assertEqual("6002\n", self.out("count", "db/sc/t"))

    def test_columns_come_in_the_order_asked_for_and_conditions_need_not_be_among_them(self):
        self.assertEqual("n,id\n43,43\n", self.out("query", "db/sc/t", "--columns", "n,id", "--where", "id = 43"))
        lines = self.out("query", "db/sc/t", "--columns", "n", "--where", "id > 97 and id < 101", "--jobs", "1")
        self.assertEqual("n\n\n99\n0\n", lines)

    def test_an_empty_result_is_a_header_and_a_sound_file(self):
        for where in ("id < 0", "n = 1000", "id in ()"):
            self.assertEqual("id,name,n\n", self.out("query", "db/sc/t", "--where", where))
            self.assertEqual("", self.out("query", "db/sc/t", "--where", where, "--format", "jsonl"))
            self.assertEqual("0\n", self.out("count", "db/sc/t", "--where", where))
            self.cvn("get", "db/sc/t", "none.cvn", "--where", where)
            self.assertIn("good: 0 rows", self.out("verify", "none.cvn"))

    def test_count_decides_exactly(self):
        self.assertEqual("6000\n", self.out("count", "db/sc/t"))
        rows = [row for g in self.groups for row in zip(*g)]
        for where, meets in (("id >= 5990", lambda i, name, n: i >= 5990), ("n is null", lambda i, name, n: n is None),
                             ("n = 3 and id < 600", lambda i, name, n: n == 3 and i < 600),
                             ("name > 'text 59'", lambda i, name, n: name > b"text 59")):
            want = sum(meets(*row) for row in rows)
            self.assertNotIn(want, (0, 6000))
            self.assertEqual(f"{want}\n", self.out("count", "db/sc/t", "--where", where, "--jobs", "3"))

    def test_a_file_that_claims_endless_rows_does_not_make_a_count_endless(self):
        huge = cvnfile.build([Column(b"id", cvnfile.INT64)], [], nrow=2**62).data
        self.assertEqual(312, len(huge))
        self.write("huge.cvn", huge)
        self.write("three.cvn", cvnfile.build([Column(b"id", cvnfile.INT64)], [[[1, 2, 3]]]).data)
        self.cvn("put", "three.cvn", "db/sc/huge")
        self.daemon.store("db/sc/huge/huge.cvn", huge)
        self.assertEqual(f"{2**62 + 3}\n", self.out("count", "db/sc/huge"))
        self.assertIn(f"0 of {2**62 + 3:,} rows read, {2**62 + 3:,} selected",
                      self.cvn("count", "db/sc/huge", "--stats").err)
        self.assertEqual("3\n", self.out("count", "db/sc/huge", "--where", "id > 0"))
        self.assertEqual(f"rows        {2**62 + 3}\nrow groups  1\n", self.out("meta", "db/sc/huge"))
        self.assertIn(f"{2**62}", self.out("ls", "db/sc/huge"))
        self.assertEqual("id\n1\n2\n3\n", self.out("query", "db/sc/huge"))
        self.assertIn("sampler failed", self.fails("sample", "db/sc/huge", "2"))
        self.daemon.store("db/sc/huge/also.cvn", huge)
        for args in ((), ("--stats",), ("--where", "id > 0")):
            self.assertRegex(self.fails("count", "db/sc/huge", *args),
                             r"impossible totals: with what the file (huge|also)\.cvn claims they exceed 64 bits")
        self.assertIn("impossible totals", self.fails("query", "db/sc/huge"))
        self.assertIn("counts -9223372036854775805 rows", self.fails("meta", "db/sc/huge"))

    def test_several_conditions_must_all_hold(self):
        self.assertEqual(["101"], self.rows("db/sc/t", "--columns", "id", "--where", "id > 100", "--where",
                                            "id < 103 and n = 1"))

    def test_stats_tell_what_was_read_and_skipped(self):
        done = self.cvn("query", "db/sc/t", "--where", "id >= 5500", "--columns", "id", "--stats", "-o", "o.csv")
        lines = done.err.splitlines()
        self.assertEqual("cvn: 1 file, 12 row groups: 1 read, 11 skipped", lines[0])
        self.assertEqual("cvn: 500 of 6,000 rows read, 500 selected", lines[1])
        page = cvnfile.read(self.load("big.cvn")).groups[11][0]
        total = cvnfile.read(self.load("big.cvn")).zbyte
        self.assertEqual(f"cvn: {page.zbyte:,} of {total:,} stored bytes received, {total - page.zbyte:,} skipped; "
                         f"{page.nbyte:,} decompressed", lines[2])
        err = self.cvn("count", "db/sc/t", "--where", "n=1", "--stats").err
        self.assertIn("12 row groups: 12 read, 0 skipped", err)

    def test_stats_of_a_count_without_conditions_tell_that_nothing_was_read(self):
        done = self.cvn("count", "db/sc/t", "--stats")
        self.assertEqual("6000\n", done.out)
        self.assertEqual(["cvn: 1 file, 12 row groups: 0 read, 12 skipped", "cvn: 0 of 6,000 rows read, 6,000 selected",
                          f"cvn: 0 of {self.whole.zbyte:,} stored bytes received, {self.whole.zbyte:,} skipped; "
                          "0 decompressed"], done.err.splitlines())

    def test_a_promise_of_no_nan_lets_the_server_skip(self):
        groups = [[[float(g * 100 + i) for i in range(100)]] for g in range(5)]
        self.daemon.store("db/sc/d/d.cvn", cvnfile.build([Column(b"x", cvnfile.DOUBLE)], groups).data)
        for args in (("query", "db/sc/d"), ("count", "db/sc/d"), ("get", "db/sc/d", "o.cvn")):
            err = self.cvn(*args, "--where", "x >= 450", "--stats").err
            self.assertIn("5 row groups: 5 read, 0 skipped", err)
            err = self.cvn(*args, "--where", "x >= 450", "--stats", "--no-nan").err
            self.assertIn("5 row groups: 1 read, 4 skipped", err)
        self.assertEqual("50\n", self.out("count", "db/sc/d", "--where", "x >= 450", "--no-nan"))

    def test_names_with_commas_stand_in_double_quotes(self):
        odd = cvnfile.build([Column(b"a,b", cvnfile.INT32), Column(b"c", cvnfile.INT32)], [[[1], [2]]])
        self.daemon.store("db/sc/o/o.cvn", odd.data)
        self.assertEqual('c,"a,b"\n2,1\n', self.out("query", "db/sc/o", "--columns", 'c,"a,b"'))
        self.assertIn("a list looks like", self.fails("query", "db/sc/o", "--columns", '"a,b', status=2))

    def test_limit_cuts(self):
        for limit in (0, 1, 500, 501, 7000):
            self.assertEqual(min(limit, 6000), len(self.rows("db/sc/t", "--limit", str(limit))))
        self.assertEqual(3, len(self.rows("db/sc/t", "--limit", "3", "--where", "n = 5")))

    def test_output_goes_into_a_file_by_rename(self):
        self.write("o.csv", "old")
        os.chmod(self.path("o.csv"), 0o640)
        os.symlink("o.csv", self.path("link.csv"))
        inode = os.stat(self.path("o.csv")).st_ino
        self.assertEqual("", self.out("query", "db/sc/t", "--jobs", "1", "-o", "link.csv"))
        self.assertEqual(self.out("query", "db/sc/t", "--jobs", "1"), self.load("o.csv").decode())
        self.assertNotEqual(inode, os.stat(self.path("o.csv")).st_ino)
        self.assertEqual(0o640, os.stat(self.path("o.csv")).st_mode & 0o777)
        self.assertTrue(os.path.islink(self.path("link.csv")))
        self.assertEqual(["big.cvn", "link.csv", "o.csv"], self.files())
        os.unlink(self.path("o.csv"))
        os.mkdir(self.path("sub"))
        os.symlink("../o.csv", self.path("sub/far.csv"))
        os.symlink("sub/far.csv", self.path("near.csv"))
        self.cvn("query", "db/sc/t", "--jobs", "1", "-o", "near.csv")  # a link to a link to nothing yet
        self.assertEqual(6001, len(self.load("o.csv").splitlines()))
        self.assertTrue(os.path.islink(self.path("near.csv")) and os.path.islink(self.path("sub/far.csv")))
        os.symlink("loop.csv", self.path("loop.csv"))
        self.assertIn("Too many levels", self.fails("query", "db/sc/t", "-o", "loop.csv"))
        self.assertEqual(6001, len(self.out("query", "db/sc/t", "-o", "-").splitlines()))
        self.assertEqual(6001, len(self.out("query", "db/sc/t", "-o", "/dev/stdout").splitlines()))

    def test_a_closed_pipe_ends_it_quietly(self):
        child = subprocess.Popen([CVN, "query", "db/sc/t"], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                 env=self.environment())
        child.stdout.close()
        err = child.stderr.read()
        child.stderr.close()
        self.assertEqual((0, b""), (child.wait(WAIT), err))

    def test_get_writes_columns_and_rows_of_a_query(self):
        self.cvn("get", "db/sc/t", "g.cvn", "--columns", "n,id", "--where", "id < 3000 and n is not null", "--jobs",
                 "3")
        self.assertIn("good: ", self.out("verify", "g.cvn"))
        got = sorted(self.out("cat", "g.cvn").splitlines()[1:])
        want = [f"{n},{i}" for g in self.groups for i, _, n in zip(*g) if i < 3000 and n is not None]
        self.assertEqual(sorted(want), got)
        self.cvn("get", "db/sc/t", "g.cvn", "--jobs", "4")
        self.assertEqual(self.expected, sorted(self.out("cat", "g.cvn").splitlines()[1:]))
        self.assertEqual(["big.cvn", "g.cvn"], self.files())

    def test_get_does_not_replace_what_is_no_data_file(self):
        self.write("notes.txt", "dear diary")
        self.assertIn("is not replaced", self.fails("get", "db/sc/t", "notes.txt"))
        self.assertEqual(b"dear diary", self.load("notes.txt"))
        self.fails("get", "db/sc/t", self.base + "/db/sc/u", status=2)

    def test_a_sample_is_rows_of_the_table_each_once(self):
        got = self.out("sample", "db/sc/t", "100").splitlines()
        self.assertEqual("id,name,n", got[0])
        self.assertEqual(100, len(set(got[1:])))
        self.assertLess(set(got[1:]), set(self.expected))
        self.assertEqual(self.expected, sorted(self.out("sample", "db/sc/t", "7000").splitlines()[1:]))
        self.cvn("sample", "db/sc/t", "5", "--format", "jsonl", "-o", "s.jsonl")
        self.assertEqual(5, len([json.loads(line) for line in self.load("s.jsonl").splitlines()]))
        for n in ("0", "5x", "2147483648", ""):
            self.assertIn("no number of rows", self.fails("sample", "db/sc/t", n, status=2))

    def test_kelpd_url_may_name_the_table(self):
        env = {**self.environment(), "KELPD_URL": self.base + "/db/sc/t"}
        self.assertEqual(6001, len(self.out("query", env=env).splitlines()))
        self.assertEqual(8, len(self.out("sample", "7", env=env).splitlines()))
        self.cvn("get", "g.cvn", "--limit", "2", env=env)
        self.assertIn("good: 2 rows", self.out("verify", "g.cvn"))


def record(whole, group):
    return b"".join(chunk(part) for part in whole.record(group, *(c.name for c in whole.columns)))


class Streams(CommandTest):
    """What needs a server that takes its time or never ends."""

    def setUp(self):
        super().setUp()
        self.whole = self.build("t.cvn", [Column(b"id", cvnfile.INT64)], [[list(range(1000))] for _ in range(4)])

    def serve(self, post):
        server = FakeServer(table_of(self.whole, post))
        self.addCleanup(server.close)
        return f"kelp://127.0.0.1:{server.port}/db/sc/t"

    def test_a_bool_that_is_neither_0_nor_1_is_true(self):
        self.whole = self.build("b.cvn", [Column(b"ok", cvnfile.BOOL)], [[[True, False, True]]])
        page = self.whole.groups[0][0]
        body = b"\x02\x00\xff" + page.body[3:]
        page = page._replace(body=body, hash=cvnfile.xxh32(body)).bytes()
        head = self.whole.record(0, b"ok")[0]

        def post(conn):
            conn.sendall(STREAM_HEAD + chunk(head) + chunk(page) + STREAM_END)
            drain(conn)

        url = self.serve(post)
        self.assertEqual("ok\ntrue\nfalse\ntrue\n", self.out("query", url, "--jobs", "1"))
        self.cvn("get", url, "got.cvn", "--jobs", "1")
        self.assertIn("good: 3 rows", self.out("verify", "got.cvn"))

    def test_limit_ends_the_connection_of_a_stream_without_end(self):
        closed = threading.Event()

        def post(conn):
            conn.sendall(STREAM_HEAD)
            end = time.monotonic() + WAIT
            try:
                while time.monotonic() < end:
                    conn.sendall(record(self.whole, 0))
            except (BrokenPipeError, ConnectionResetError):
                closed.set()

        out = self.out("query", self.serve(post), "--limit", "5", "--jobs", "1")
        self.assertEqual("id\n0\n1\n2\n3\n4\n", out)
        self.assertTrue(closed.wait(WAIT))

    def test_progress_is_drawn_on_a_terminal_and_not_among_rows(self):
        def post(conn):
            conn.sendall(STREAM_HEAD + record(self.whole, 0))
            time.sleep(0.7)  # longer than what is too short to draw
            conn.sendall(record(self.whole, 1) + STREAM_END)
            drain(conn)

        url = self.serve(post)
        status, _, seen = self.on_terminal("query", url, "-o", "o.csv", "--jobs", "1")
        self.assertEqual(0, status, seen)
        self.assertRegex(seen, r"\[#+\.+\]  50%  2,000 of 4,000 rows, [\d.]+ kB, [\d,]+ rows/s")
        self.assertEqual(2001, len(self.load("o.csv").splitlines()))
        status, _, seen = self.on_terminal("count", url, "--where", "id >= 0", "--jobs", "1")
        self.assertEqual(0, status)
        self.assertIn("50%", seen)
        self.assertEqual("", self.cvn("query", url, "-o", "o.csv", "--jobs", "1").err)

    def test_an_interrupt_ends_it_and_leaves_nothing(self):
        started = threading.Event()

        def post(conn):
            conn.sendall(STREAM_HEAD + record(self.whole, 0))
            started.set()
            drain(conn)

        url = self.serve(lambda conn: post(_Half(conn)))
        for args in (("query", url, "-o", "o.csv"), ("get", url, "o.cvn"), ("count", url, "--where", "id = 1")):
            started.clear()
            self.write("o.csv", "old")
            child = subprocess.Popen([CVN, *args], cwd=self.dir, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
            self.assertTrue(started.wait(WAIT))
            child.send_signal(signal.SIGINT)
            out, err = child.communicate(timeout=WAIT)
            self.assertEqual((-signal.SIGINT, b"", b""), (child.returncode, out, err))
            self.assertEqual(["o.csv", "t.cvn"], self.files())
            self.assertEqual(b"old", self.load("o.csv"))

    def test_silence_ends_after_the_timeout(self):
        url = self.serve(lambda conn: (conn.sendall(STREAM_HEAD), conn.recv(1)))
        err = self.fails("query", url, "-o", "o.csv", "--timeout", "1")
        self.assertIn("has sent nothing for 1000 ms; try again, or allow more time", err)
        self.assertEqual(["t.cvn"], self.files())


class _Half:
    """A connection on which nothing is shut down: the peer waits for more."""

    def __init__(self, conn):
        self.sendall, self.recv = conn.sendall, conn.recv

    def shutdown(self, how):
        pass


if __name__ == "__main__":
    unittest.main()
