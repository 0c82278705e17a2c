"""Both directions against the other implementation: the library, the tool cvn, and the daemon.

ROWS, CVN, KELPD and CVNSAMP name the programs; a test is skipped when the variable it needs is not set.
"""

import datetime
import json
import math
import os
import random
import struct
import subprocess
import unittest
from decimal import Decimal as D

import numpy as np

from support import Case, kelp, start_daemon
import cvnfile
from cvnfile import encode
from test_format import SAMPLES
from kelp import types

ROWS, CVN, KELPD, CVNSAMP = (os.environ.get(name) for name in ("ROWS", "CVN", "KELPD", "CVNSAMP"))


def needs(value, name):
    return unittest.skipUnless(value, "%s is not set" % name)


def run(*command, **rest):
    done = subprocess.run(command, capture_output=True, timeout=300, **rest)
    if done.returncode:
        raise AssertionError("%s: %s" % (" ".join(command[:3]), done.stderr.decode()))
    return done.stdout


def stored(type_, value):
    """The bytes that a column stores for one value, made without the package's writer."""
    if value is None:
        return b""
    plain = type_.coerce(value)
    return plain if type_.storage in (types.CSTR, types.BYTEA) else encode(plain, type_.code)


def rows_of(fields, columns):
    out = []
    for row in zip(*(columns[f.name] for f in fields)):
        for field, value in zip(fields, row):
            raw = stored(field.type, value)
            out.append(struct.pack("<Bi", value is None, len(raw)) + raw)
    return b"".join(out)


def random_value(rng, name):
    small = rng.random() < 0.5
    return {
        "bool": lambda: rng.random() < 0.5,
        "int16": lambda: rng.randrange(-9, 9) if small else rng.randrange(-2**15, 2**15),
        "int32": lambda: rng.randrange(-9, 9) if small else rng.randrange(-2**31, 2**31),
        "int64": lambda: rng.randrange(-9, 9) if small else rng.randrange(-2**63, 2**63),
        "int128": lambda: rng.randrange(-2**65, 2**65) if small else rng.randrange(-2**127, 2**127),
        "float": lambda: rng.choice([0.0, -0.0, 1.5, math.nan, math.inf, -math.inf, rng.gauss(0, 1e9)]),
        "double": lambda: rng.choice([0.0, -0.0, 1.5, math.nan, math.inf, -math.inf, rng.gauss(0, 1e99)]),
        "bytea": lambda: rng.randbytes(rng.randrange(0, 30)),
        "cstr": lambda: "".join(rng.choice("abé€😀") for _ in range(rng.choice([0, 3, 12, 38, 41, 60]))),
        "dec64": lambda: rng.choice([D("NaN"), D("Infinity"), D("-0.00"), D(0), D(rng.randrange(-999, 999)).scaleb(-2),
                                     D(rng.randrange(10**15, 10**16)).scaleb(rng.randrange(-398, 369)),
                                     D("1.0"), D("1.00")]),
        "dec128": lambda: rng.choice([D("NaN"), D("-Infinity"), D("-0.00"), D(rng.randrange(-999, 999)).scaleb(-2),
                                      D((rng.randrange(2), tuple(rng.randrange(1, 10) for _ in range(34)),
                                         rng.randrange(-6176, 6111))), D("1.0"), D("1.00")]),
        "date": lambda: datetime.date(1, 1, 1) + datetime.timedelta(rng.randrange(3000000)),
        "time_millis": lambda: datetime.timedelta(milliseconds=rng.randrange(86400000)),
        "timestamp_millis": lambda: datetime.datetime(1, 1, 1) + datetime.timedelta(
            milliseconds=rng.randrange(10**14)),
    }[name]()


@needs(ROWS, "ROWS")
class Library(Case):
    def same(self, columns, schema, message=None):
        """Both writers make the same bytes of the same rows, and each reads the other's."""
        fields = types.parse_schema(schema)
        text = ", ".join('"%s" %s%s%s' % (f.name, f.type.name, " -z" * f.zflag, " -n" * f.nflag) for f in fields)
        rows = rows_of(fields, columns)
        run(ROWS, self.path("cpp.cvn"), text, input=rows)
        kelp.write_table(self.path("py.cvn"), columns, fields)
        with open(self.path("cpp.cvn"), "rb") as cpp, open(self.path("py.cvn"), "rb") as py:
            theirs, ours = cpp.read(), py.read()
        if theirs != ours:
            at = next((i for i, (a, b) in enumerate(zip(theirs, ours)) if a != b), min(len(theirs), len(ours)))
            groups = [[[c.nrow for c in g][0] for g in kelp.inspect(data).rowgroups] for data in (theirs, ours)]
            self.fail("%s: files of %d and %d bytes differ at %d; row groups %s" % (
                message, len(theirs), len(ours), at, groups))
        self.assertEqual(rows, run(ROWS, "--dump", self.path("py.cvn")), message)
        table = kelp.read_table(theirs)
        self.assertEqual(rows, rows_of(fields, {f.name: table[f.name].to_list() for f in fields}), message)

    def test_samples_of_every_type_and_flag_are_the_same_bytes(self):
        for name, values in SAMPLES.items():
            for flags in ("", "-z", "-n", "-z -n"):
                self.same({"c": values}, "c %s %s" % (name, flags), name + flags)
            self.same({"c": []}, "c " + name, name)
            self.same({"c": [None] * 1000}, "c " + name, name)

    def test_random_rows_of_every_type_are_the_same_bytes(self):
        rng = random.Random(8)
        for case, nrow in enumerate([1, 7, 8, 9, 100, 600, 5000]):
            columns = {}
            for name in SAMPLES:
                share = rng.choice([0, 0.1, 0.9])
                columns[name] = [None if rng.random() < share else random_value(rng, name) for _ in range(nrow)]
            schema = [(name, name, rng.choice(["", "-z"]), rng.choice(["", "", "-n"])) for name in SAMPLES]
            self.same(columns, schema, case)

    def test_compressible_columns_are_the_same_bytes(self):
        rng = random.Random(9)
        for distinct in (1, 2, 5, 16, 40, 200, 5000):
            pool = [rng.randrange(-2**31, 2**31) for _ in range(distinct)]
            values = [rng.choice(pool) for _ in range(3000)]
            columns = {"a": values, "b": values, "s": ["text %d" % v for v in values],
                       "t": ["text %d" % v for v in values]}
            self.same(columns, "a int32, b int32 -z, s cstr, t cstr -z", distinct)

    def test_bounds_over_several_row_groups_are_the_same_bytes(self):
        # A text of 1 MiB in each row makes groups of 31 rows and fewer.
        rng = random.Random(10)
        nrow = 70
        pad = ["p" * (1 << 20)] * nrow
        for case in range(2):
            columns = {name: [None if rng.random() < 0.2 else random_value(rng, name) for _ in range(nrow)]
                       for name in SAMPLES}
            columns["pad"] = pad
            schema = [(name, name) for name in SAMPLES] + [("pad", "cstr", "-z")]
            rng.shuffle(schema)
            self.same(columns, schema, case)

    def test_long_texts_with_a_common_beginning_are_the_same_bytes(self):
        texts = ["x" * 45 + c for c in "dbca"] * 20
        self.same({"s": texts, "pad": ["p" * (1 << 20)] * 80}, "s cstr, pad cstr")

    def test_row_groups_cut_at_1048576_rows_are_the_same_bytes(self):
        self.same({"n": [i % 3 == 0 for i in range(1048577)]}, "n bool")

    def test_rows_that_reserve_more_than_32_mib_are_cut_in_the_same_places(self):
        mib = 1 << 20
        # In MiB. A first row that is too large by itself, rows that are cut at each of their columns, and rows whose
        # rest is too large again.
        for a, b, order in (([33, 1, 0, 33, 1], [0, 33, 17, 17, 12], "abn"),
                            ([33, 1, 0, 33, 1], [0, 33, 17, 17, 12], "bna"),
                            ([12] * 5, [17] * 5, "nab"), ([17, 17, 0, 33, 33], [0, 0, 33, 1, 0], "ban")):
            columns = {"a": [b"v" * (size * mib) for size in a], "b": [b"v" * (size * mib) for size in b],
                       "n": list(range(5))}
            fields = {"a": ("a", "bytea", "-z"), "b": ("b", "cstr", "-z"), "n": ("n", "int64")}
            self.same(columns, [fields[name] for name in order], (a, b, order))

    def test_a_split_directory_of_the_library_reads_like_its_file(self):
        columns = {name: (values * 1000)[:3000] for name, values in SAMPLES.items()}
        path = self.write(columns, [(name, name) for name in SAMPLES])
        run(ROWS, "--split", path, self.path("split"))
        self.assertEqual(list(kelp.read_table(path).rows()), list(kelp.read_table(self.path("split")).rows()))
        self.assertEqual(kelp.inspect(path).checksum, kelp.inspect(self.path("split")).checksum)
        where = "int32 > 0 and cstr is not null"
        self.assertEqual(list(kelp.read_table(path, ["dec64"], where).rows()),
                         list(kelp.read_table(self.path("split"), ["dec64"], where).rows()))


@needs(CVN, "CVN")
class Tool(Case):
    def test_a_file_made_from_csv_is_the_same_bytes(self):
        rng = random.Random(12)
        columns = {"id": list(range(20000)), "qty": [rng.choice([None, 1, 5, 1000000]) for _ in range(20000)],
                   "note": ["note %d" % rng.randrange(50) for _ in range(20000)],
                   "price": [D(rng.randrange(99999)).scaleb(-2) for _ in range(20000)],
                   "weight": [rng.random() for _ in range(20000)]}
        schema = "id int64, qty int32, note cstr -z, price dec64 -z, weight double -n"
        with open(self.path("t.csv"), "w") as csv:
            csv.write(",".join(columns) + "\n")
            for row in zip(*columns.values()):
                csv.write(",".join("" if v is None else repr(v) if isinstance(v, float) else str(v) for v in row))
                csv.write("\n")
        run(CVN, "create", self.path("cpp.cvn"), self.path("t.csv"), "--schema", schema)
        kelp.write_table(self.path("py.cvn"), columns, schema)
        with open(self.path("cpp.cvn"), "rb") as cpp, open(self.path("py.cvn"), "rb") as py:
            self.assertTrue(cpp.read() == py.read())

    def test_files_of_this_package_are_verified_and_read(self):
        columns = {name: (values * 1000)[:3000] for name, values in SAMPLES.items()}
        path = self.write(columns, [(name, name) for name in SAMPLES])
        run(CVN, "verify", path)
        lines = run(CVN, "cat", path, "--format", "jsonl").decode().splitlines()
        self.assertEqual(3000, len(lines))
        first = json.loads(lines[1])
        self.assertEqual(set(SAMPLES), set(first))
        self.assertEqual([None] * len(SAMPLES), list(first.values()))
        self.assertEqual("x" * 50, json.loads(lines[3])["cstr"])


class Served(Case):
    fork = True

    @classmethod
    def setUpClass(cls):
        if not KELPD:
            raise unittest.SkipTest("KELPD is not set")

    def setUp(self):
        super().setUp()
        if CVNSAMP:
            path = os.environ["PATH"]
            os.environ["PATH"] = os.path.dirname(CVNSAMP) + os.pathsep + path
            self.addCleanup(os.environ.__setitem__, "PATH", path)
        self.daemon = start_daemon(self, self.fork)
        self.connection = kelp.connect(self.daemon.url, timeout=60)
        self.table = self.connection.table("d.s.e")

    def upload(self, columns, schema, name="p.cvn"):
        path = self.write(columns, schema, name)
        self.table.upload(path)
        return path


class Server(Served):
    def test_files_go_up_are_listed_read_back_and_removed(self):
        columns = {name: (values * 1000)[:3000] for name, values in SAMPLES.items()}
        schema = [(name, name) for name in SAMPLES]
        path = self.upload(columns, schema)
        self.assertEqual((["d"], ["s"], ["e"]), (self.connection.databases(), self.connection.schemas("d"),
                                                 self.connection.entities("d", "s")))
        info, (stat,) = kelp.inspect(path), self.table.files()
        self.assertEqual(("p.cvn", info.checksum, len(SAMPLES), 3000, 1, info.nbyte, info.zbyte), tuple(stat))
        self.assertEqual(schema, [(f.name, f.type.name) for f in self.table.schema()])
        self.assertEqual((3000, 1), tuple(self.table.meta()))
        self.assertEqual(3000, self.table.count())
        local = kelp.read_table(path)
        for jobs in (1, 3):
            got = self.table.scan(jobs=jobs).read()
            self.assertEqual(list(local.columns), list(got.columns))
            for name in SAMPLES:
                self.assertEqual(list(map(repr, local[name].to_list())), list(map(repr, got[name].to_list())))
        self.table.remove("p.cvn")
        self.assertEqual([], self.table.files())
        self.assertEqual(0, self.table.count())
        self.table.remove()
        with self.assertRaisesRegex(kelp.KelpError, "no table d.s.e"):
            self.table.files()

    def test_names_with_strange_characters_go_through(self):
        table = self.connection.table(("my db", "50%+x", "ü#?&"))
        table.upload(self.write({"a b": [1, 2], "ü": ["x", None]}), "the file +1%.cvn")
        self.assertEqual(["the file +1%.cvn"], [f.name for f in table.files()])
        self.assertEqual(["my db"], self.connection.databases())
        self.assertEqual([(None,)], list(table.scan(["ü"], '"a b" = 2').read().rows()))

    def test_an_upload_streams_with_progress_and_a_damaged_one_is_refused(self):
        noise = np.frombuffer(random.Random(13).randbytes(4 << 20), "<i8")
        seen = []
        path = self.write({"n": noise})
        self.table.upload(path, progress=lambda sent, whole: seen.append((sent, whole)))
        self.assertEqual((os.path.getsize(path),) * 2, seen[-1])
        self.assertGreater(len(seen), 10)
        with open(path, "rb") as file:
            data = file.read()
        with self.assertRaisesRegex(kelp.KelpError, "refused the upload of p2.cvn: 400 Bad Request"):
            self.table.upload(data[:-5], "p2.cvn", verify=False)
        self.table.upload(b"select 1", "note.sql")
        self.assertEqual(["t.cvn"], [f.name for f in self.table.files()])
        np.testing.assert_array_equal(noise, self.table.scan().read()["n"].values)

    def test_a_page_damaged_on_the_server_s_disk_is_noticed(self):
        path = self.upload({"n": list(range(1000))}, "n int32")
        kept = self.daemon.path("base/d/s/e/p.cvn")
        with open(kept, "r+b") as file:
            file.seek(kelp.inspect(path).rowgroups[0][0].offset + 5)
            file.write(b"\x55")
        with self.assertRaisesRegex(kelp.KelpError, "does not match its hash"):
            self.table.scan().read()

    def test_counts_of_large_tables_are_whole(self):
        self.upload({"n": np.zeros(2500000, bool)}, "n bool", "a.cvn")
        self.upload({"n": np.ones(7, bool)}, "n bool", "b.cvn")
        self.assertEqual(2500007, self.table.count())
        self.assertEqual((2500007, 4), tuple(self.table.meta()))
        self.assertEqual(7, self.table.count("n == true"))
        for jobs in (1, 2, 5):
            self.assertEqual(2500007, sum(len(b) for b in self.table.scan(jobs=jobs)), jobs)

    def test_a_file_that_claims_endless_rows_does_not_make_a_count_endless(self):
        huge = cvnfile.build([cvnfile.Column(b"n", cvnfile.INT32)], [], nrow=2**62).data
        self.assertEqual(312, len(huge))
        self.upload({"n": [1, 2, 3]}, "n int32", "a.cvn")
        self.table.upload(huge, "b.cvn", verify=False)
        self.assertEqual(2**62 + 3, self.table.count())
        self.assertEqual(2**62 + 3, sum(len(b) for b in self.table.scan(columns=[])))
        self.assertEqual((2**62 + 3, 1), tuple(self.table.meta()))
        self.assertEqual(2, self.table.count("n > 1"))
        self.assertEqual([1, 2, 3], self.table.scan().read()["n"].to_list())
        self.table.upload(huge, "c.cvn", verify=False)
        with self.assertRaisesRegex(kelp.KelpError, "impossible totals: with what the file c.cvn claims they exceed"):
            self.table.count()
        with self.assertRaisesRegex(kelp.KelpError, "counts -9223372036854775805 rows or row groups"):
            self.table.meta()

    def test_files_with_other_columns_fail_the_scan_and_say_so(self):
        self.upload({"n": [1]}, "n int32", "a.cvn")
        self.upload({"m": [1]}, "m int32", "b.cvn")
        with self.assertRaisesRegex(kelp.KelpError, "400 Bad Request"):
            self.table.scan().read()
        self.table.remove("b.cvn")
        self.upload({"n": [1]}, "n int64", "c.cvn")
        with self.assertRaisesRegex(kelp.KelpError, "in one file of the table and"):
            self.table.scan().read()

    def test_a_sample_has_rows_of_the_table(self):
        if not CVNSAMP:
            self.skipTest("CVNSAMP is not set")
        self.upload({"n": list(range(5000)), "s": ["t%d" % i for i in range(5000)]}, "n int32, s cstr")
        rows = list(self.table.sample(100).rows())
        self.assertEqual(100, len(set(rows)))
        self.assertTrue(all(0 <= n < 5000 and s == "t%d" % n for n, s in rows))

    def test_a_sample_without_a_sampler_has_failed(self):
        if CVNSAMP:
            self.skipTest("the sampler is there")
        self.upload({"n": [1]}, "n int32")
        with self.assertRaisesRegex(kelp.KelpError, "the sample failed"):
            self.table.sample(5)


class Pruning(Served):
    """No condition may lose a row, whatever the statistics of the row groups look like."""

    ARGUMENTS = {
        "bool": [True, False], "int16": [0, -5, 300, 40000, -40000, -32768], "int32": [0, 3, 2**31, -2**31],
        "int64": [0, 3, 2**63, -2**63], "int128": [0, 2**64, -2**64, 2**127], "float": [0.0, 1.5, math.nan, math.inf],
        "double": [0.0, 1.5, math.nan, -math.inf, 1e98], "bytea": [b"", b"k"],
        "cstr": ["", "a", "é€", "x" * 39, "x" * 45 + "b", "x" * 40, 'say "x"', "ab\\n", "line\nfeed\t\x01",
                 b"\xff\xe2\x82".decode("utf-8", "surrogateescape")],
        "dec64": [D(0), D("1.000"), D("NaN"), D("Infinity"), D("-3.33")],
        "dec128": [D(0), D("1.000"), D("NaN"), D("-3.33"), D("1E+6000")],
        "date": [datetime.date(2000, 1, 1)], "time_millis": [datetime.time(12)],
        "timestamp_millis": [datetime.datetime(2000, 1, 1)],
    }

    def test_no_row_is_lost_by_any_condition_on_any_type(self):
        rng = random.Random(14)
        nrow, per_group = 90, 31
        columns = {}
        for name in SAMPLES:
            values = [None if rng.random() < 0.1 else random_value(rng, name) for _ in range(nrow)]
            # One group begins with a NaN where the type has one, one is all NULL, one of a single value.
            if name in ("float", "double"):
                values[0] = values[per_group] = math.nan
            if name.startswith("dec"):
                values[0] = values[per_group] = D("NaN")
            if name == "cstr":
                values[:per_group] = ["x" * 45 + rng.choice("abc") for _ in range(per_group)]
            if rng.random() < 0.5:
                values[2 * per_group:] = [None] * (nrow - 2 * per_group)
            columns[name] = values
        columns["row"] = list(range(nrow))
        columns["pad"] = ["p" * (1 << 20)] * nrow
        schema = [(name, name) for name in SAMPLES] + [("row", "int32"), ("pad", "cstr", "-z")]
        path = self.upload(columns, schema)
        self.upload({k: v[:1] for k, v in columns.items()}, schema, "one.cvn")
        local = kelp.read_table(path)
        one = kelp.read_table(self.path("one.cvn"))
        self.assertGreater(len(kelp.inspect(path).rowgroups), 2)
        skipped = 0
        for name, arguments in self.ARGUMENTS.items():
            conditions = [(name, op, a) for op in ("==", "!=", ">", ">=", "<", "<=") for a in arguments]
            conditions += [(name, "is null"), (name, "is not null"), (name, "in", []), (name, "in", arguments),
                           (name, "in", arguments[:1])]
            conditions += [(name, op, v) for op in ("==", ">=", "!=") for v in columns[name][30:33] if v is not None]
            for condition in conditions:
                want = []
                for table in (local, one):
                    keep = kelp.where.bind(kelp.where.parse_where(condition), table.schema)[0].match(table[name])
                    want += table["row"].values[keep].tolist()
                with self.table.scan(["row"], condition) as scan:
                    self.assertEqual(sorted(want), sorted(scan.read()["row"].to_list()), condition)
                    skipped += scan.stats["rowgroups"] < len(kelp.inspect(path).rowgroups) + 1
        self.assertGreater(skipped, 50)

    def test_vouched_for_columns_prune_more_and_lose_nothing_either(self):
        nrow = 90
        columns = {"row": list(range(nrow)), "f": [i * 0.1 for i in range(nrow)], "g": [i * 0.1 for i in range(nrow)],
                   "d": [D(i).scaleb(-1) for i in range(nrow)], "e": [D(i).scaleb(-1) for i in range(nrow)],
                   "pad": ["p" * (1 << 20)] * nrow}
        path = self.upload(columns, "row int32, f float, g double, d dec64, e dec128, pad cstr -z")
        for name in "fgde":
            exact = D if name in "de" else float
            for op, value in (("==", "3.5"), ("!=", "3.5"), (">", "8"), (">=", "6.2"), ("<", "0.3"), ("<=", "3.1"),
                              ("in", ["0.1", "0.2"]), ("in", ["8.8"]), ("in", [])):
                where = (name, op, [exact(v) for v in value] if op == "in" else exact(value))
                want = kelp.read_table(path, ["row"], where)["row"].to_list()
                received = {}
                for prune in ("all", "safe", "none"):
                    with self.table.scan(["row"], where, prune=prune) as scan:
                        self.assertEqual(want, scan.read()["row"].to_list(), (where, prune))
                        received[prune] = scan.stats["rowgroups"]
                self.assertEqual((3, 3 if value else 0), (received["none"], received["safe"]), where)
                self.assertEqual(op == "!=", received["all"] == 3, where)

    def test_fragments_share_every_row_group_exactly_once(self):
        nrow = 200
        columns = {"row": list(range(nrow)), "pad": ["p" * (1 << 20)] * nrow}
        self.upload(columns, [("row", "int32"), ("pad", "cstr", "-z")])
        for jobs in (1, 2, 3, 9):
            table = self.table.scan(["row"], "row >= 40", jobs=jobs).read()
            self.assertEqual(list(range(40, nrow)) if jobs == 1 else sorted(range(40, nrow)),
                             table["row"].to_list() if jobs == 1 else sorted(table["row"].to_list()), jobs)
        whole = [self.table.scan(["row"], jobs=jobs).read()["row"].to_list() for jobs in (1, 2, 3, 4)]
        self.assertEqual([list(range(nrow))] * 4, whole)

    def test_quoted_column_names_in_a_file_are_told_apart_from_a_foreign_server(self):
        self.upload({'a"b': [1]}, [('a"b', "int32")])
        with self.assertRaisesRegex(kelp.KelpError, "quotes"):
            self.table.scan()


class OneAtATime(Served):
    """A daemon in the foreground serves one connection at a time; several jobs must not wait for one another."""

    fork = False

    def test_several_jobs_finish_one_after_the_other(self):
        nrow = 200
        self.upload({"row": list(range(nrow)), "pad": ["p" * (1 << 20)] * nrow},
                    [("row", "int32"), ("pad", "cstr", "-z")])
        for _ in range(3):
            self.assertEqual(list(range(nrow)), self.table.scan(["row"], jobs=4).read()["row"].to_list())
        self.assertEqual(nrow, sum(len(batch) for batch in self.table.scan(jobs=4)))


if __name__ == "__main__":
    unittest.main()
