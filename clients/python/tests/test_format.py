"""Data files: bytes derived by hand, round trips of every type, and files that lie."""

import datetime
import math
import os
import random
import struct
import threading
import unittest
import warnings
from decimal import Decimal as D

import numpy as np

from support import Case, kelp
from cvnfile import Layout, patched, sealed
from kelp import native, writer

MASK32 = 0xffffffff


def plain_xxh32(data):
    """XXH32 with seed 0, spelled out, so that the hashes of files are checked against something else."""
    p1, p2, p3, p4, p5 = 2654435761, 2246822519, 3266489917, 668265263, 374761393

    def rotl(x, r):
        return ((x << r) | (x >> (32 - r))) & MASK32

    at, size = 0, len(data)
    if size >= 16:
        v = [(p1 + p2) & MASK32, p2, 0, (-p1) & MASK32]
        while at + 16 <= size:
            for i, lane in enumerate(struct.unpack_from("<IIII", data, at)):
                v[i] = rotl((v[i] + lane * p2) & MASK32, 13) * p1 & MASK32
            at += 16
        h = (rotl(v[0], 1) + rotl(v[1], 7) + rotl(v[2], 12) + rotl(v[3], 18)) & MASK32
    else:
        h = p5
    h = (h + size) & MASK32
    while at + 4 <= size:
        h = rotl((h + struct.unpack_from("<I", data, at)[0] * p3) & MASK32, 17) * p4 & MASK32
        at += 4
    for byte in data[at:]:
        h = rotl((h + byte * p5) & MASK32, 11) * p1 & MASK32
    h = (h ^ h >> 15) * p2 & MASK32
    h = (h ^ h >> 13) * p3 & MASK32
    return h ^ h >> 16


# One value below, one above and one NULL for each type, as Python sees them.
SAMPLES = {
    "bool": [True, None, False, True],
    "int16": [-32768, None, 32767, 0],
    "int32": [-2147483648, None, 2147483647, 5],
    "int64": [-2**63, None, 2**63 - 1, -1],
    "int128": [-2**127, None, 2**127 - 1, -1, 2**64, 1 - 2**64],
    "float": [-1.5, None, 3.4028234663852886e38, 0.0],
    "double": [-1e308, None, 5e-324, math.inf],
    "bytea": [b"", None, b"\x00\xff\x00", b"abc" * 1000],
    "cstr": ["", None, "ünïcødé \U0001f600", "x" * 50],
    "dec64": [D("-1.50"), None, D("9999999999999999"), D("0.00"), D("1E-10")],
    "dec128": [D("-1.50"), None, D("9" * 34), D("1E+6111"), D("-0")],
    "date": [datetime.date(1900, 1, 1), None, datetime.date(2026, 11, 21), datetime.date(1970, 1, 1)],
    "time_millis": [datetime.timedelta(0), None, datetime.timedelta(milliseconds=86399999)],
    "timestamp_millis": [datetime.datetime(1960, 2, 29, 1, 2, 3, 4000), None, datetime.datetime(2026, 11, 21)],
}


class Bytes(Case):
    def test_a_file_of_one_column_and_two_rows_is_the_bytes_worked_out_by_hand(self):
        data = self.bytes_of({"n": [7, None]}, "n int32 -z")
        chunk = b"\x07\0\0\0" b"\0\0\0\0" b"\x40"  # two values; the second row's bit from the top
        seven = b"\x07" + bytes(47)
        footer = (
            struct.pack("<iiqqiiq", 1, 1, 2, 1, 136, 112, 160) +
            b"n" + bytes(127) + struct.pack("<iBBxx", 3, 1, 0) +
            struct.pack("<q", 1) + b"\x01" + bytes(7) + seven + seven +
            struct.pack("<iiii", 16, 2, 1, 0) +
            struct.pack("<qi", 8, 2) + b"\0\0\0\x01" +
            struct.pack("<iiiiIi", 9, 9, 1, 8, plain_xxh32(chunk), 0) + bytes(8) + seven + seven)
        self.assertEqual(40 + 248 + 160, len(footer))
        want = b"CVN1IX86" + chunk + bytes(7) + footer + struct.pack("<qI", 448, plain_xxh32(footer)) + b"CVN1"
        self.assertEqual(want.hex(" ", 8), data.hex(" ", 8))

    def test_the_hash_is_xxh32_with_seed_0(self):
        self.assertEqual(0x02CC5D05, plain_xxh32(b""))
        self.assertEqual(0x32D153FF, plain_xxh32(b"abc"))
        rng = random.Random(1)
        for size in (0, 1, 3, 4, 15, 16, 17, 31, 100, 4097):
            data = rng.randbytes(size)
            self.assertEqual(plain_xxh32(data), native.xxh32(data), size)

    def test_values_and_nulls_of_every_type_are_encoded_as_laid_down(self):
        want = {
            "bool": ([True, None], b"\x01\x00"),
            "int16": ([-2, None], b"\xfe\xff\0\0"),
            "int64": ([-2, None], b"\xfe" + b"\xff" * 7 + bytes(8)),
            "int128": ([1 << 64, None], bytes(8) + b"\x01" + bytes(7) + bytes(16)),
            "float": ([1.0, None], b"\0\0\x80\x3f" + bytes(4)),
            "double": ([1.0, None], b"\0\0\0\0\0\0\xf0\x3f" + bytes(8)),
            "bytea": ([b"xyz", None], b"\x03\0\0\0xyz" + bytes(4)),
            "cstr": (["hi", None], b"hi\0\0"),
            "dec64": ([D("-7.50"), None], bytes.fromhex("d0030000000030a2") + bytes.fromhex("0000000000003822")),
            "dec128": ([D(1), None], bytes.fromhex("01" + "00" * 13 + "0822") + bytes.fromhex("00" * 14 + "0822")),
            "date": ([datetime.date(1970, 1, 3), None], b"\x02\0\0\0" + bytes(4)),
            "time_millis": ([datetime.time(0, 0, 1), None], b"\xe8\x03\0\0" + bytes(4)),
            "timestamp_millis": ([datetime.datetime(1970, 1, 1, 0, 0, 1), None], b"\xe8\x03" + bytes(14)),
        }
        for name, (values, encoded) in want.items():
            data = self.bytes_of({"c": values}, [("c", name)])
            chunk = kelp.inspect(data).rowgroups[0][0]
            self.assertEqual((encoded + b"\x40").hex(), data[chunk.offset:chunk.offset + chunk.zbyte].hex(), name)
            self.assertEqual(len(encoded), chunk.nmapoff, name)

    def test_a_table_without_rows_is_head_footer_and_trailer(self):
        data = self.bytes_of({"a": [], "b": []}, "a int32, b cstr")
        self.assertEqual(24 + 40 + 248 * 2, len(data))
        table = kelp.read_table(data)
        self.assertEqual((0, ["a", "b"]), (len(table), list(table.columns)))
        self.assertEqual(0, len(table["b"].values))

    def test_compression_needs_4096_bytes_and_the_column_s_budget(self):
        # 3640 + 455 = 4095 bytes stay as they are, however well they would compress; 3641 + 456 = 4097 do not.
        for rows, compressed in ((3640, False), (3641, True)):
            chunk = kelp.inspect(self.bytes_of({"c": np.zeros(rows, bool)})).rowgroups[0][0]
            self.assertEqual(compressed, chunk.compressed, rows)
            self.assertEqual(compressed, chunk.zbyte < chunk.nbyte, rows)
        noise = np.frombuffer(random.Random(2).randbytes(32768), "<i8")
        half = np.concatenate([noise[:2700], np.zeros(1396, "<i8")])  # about two thirds of it noise
        for values, flag, compressed in ((noise, "-z", False), (half, "", False), (half, "-z", True)):
            chunk = kelp.inspect(self.bytes_of({"c": values}, "c int64 " + flag)).rowgroups[0][0]
            self.assertEqual(compressed, chunk.compressed, flag)

    def test_bounds_keep_the_first_of_equal_values_and_a_leading_nan(self):
        def bounds(values, schema):
            data = self.bytes_of({"c": values}, schema)
            column = kelp.inspect(data).columns[0]
            return column.min, column.max, data
        low, high, _ = bounds([D("1.0"), D("1.00"), D("1")], "c dec64")
        self.assertEqual(("1.0", "1.0"), (str(low), str(high)))
        low, high, _ = bounds([0.0, -0.0], "c double")
        self.assertEqual((1.0, 1.0), (math.copysign(1, low), math.copysign(1, high)))
        low, high, _ = bounds([math.nan, 5.0, 1.0], "c double")
        self.assertTrue(math.isnan(low) and math.isnan(high))
        low, high, _ = bounds([5.0, math.nan, 1.0, 7.0], "c float")
        self.assertEqual((1.0, 7.0), (low, high))
        low, high, _ = bounds([D("NaN"), D(3)], "c dec128")
        self.assertTrue(low.is_nan() and high.is_nan())
        low, high, data = bounds(["b" * 50, "a" * 50], "c cstr")
        self.assertEqual(("a" * 40, "b" * 40), (low, high))
        self.assertIn(b"a" * 40 + bytes(8) + b"b" * 40 + bytes(8), data)
        self.assertEqual((None, None), bounds([1, 2], "c int32 -n")[:2])
        self.assertEqual((None, None), bounds([b"a"], "c bytea")[:2])
        self.assertEqual((None, None), bounds([None], "c int32")[:2])

    def test_row_groups_are_cut_at_1048576_rows(self):
        data = self.bytes_of({"c": np.arange(1048577, dtype="<i4")})
        self.assertEqual([1048576, 1], [group[0].nrow for group in kelp.inspect(data).rowgroups])

    def test_row_groups_are_cut_before_32_mib_of_values(self):
        # 31 texts of 1 MiB and their NULs fit into 32 MiB, the 32nd does not.
        data = self.bytes_of({"c": [b"x" * (1 << 20)] * 70}, "c cstr")
        self.assertEqual([31, 32, 7], [group[0].nrow for group in kelp.inspect(data).rowgroups])

    def test_the_cut_forgets_what_the_row_s_first_columns_had_reserved(self):
        mib = 1 << 20
        # The third row is cut at its second column; its third column alone opens the next sum.
        needs = [np.array([mib] * 6), np.array([10 * mib] * 6), np.array([5 * mib] * 6)]
        self.assertEqual([(0, 2), (2, 4), (4, 6)], list(writer.row_groups(needs, 6)))
        # Counted in full, the second group would hold one row fewer.
        needs = [np.array([12 * mib] * 6), np.array([1 * mib] * 6)]
        self.assertEqual([(0, 2), (2, 5), (5, 6)], list(writer.row_groups(needs, 6)))

    def test_cuts_agree_with_a_row_by_row_count(self):
        rng = random.Random(3)
        for case in range(200):
            nrow, ncol = rng.randrange(1, 60), rng.randrange(1, 5)
            needs = [rng.choice([8, np.array([rng.choice([1, 5, 1 << 20, 9 << 20, 33 << 20, 40 << 20])
                                              for _ in range(nrow)])]) for _ in range(ncol)]
            groups, start, counted = [], 0, 0
            for row in range(nrow):
                for need in needs:
                    counted += int(need if np.isscalar(need) else need[row])
                    if counted > 33554432 and row > start:
                        groups.append((start, row))
                        start, counted = row, 0
            groups.append((start, nrow))
            self.assertEqual(groups, list(writer.row_groups(needs, nrow)), case)


class RoundTrips(Case):
    def test_every_type_comes_back_from_lists(self):
        for name, values in SAMPLES.items():
            column = kelp.read_table(self.write({"c": values}, [("c", name)]))["c"]
            self.assertEqual(name, column.type.name)
            self.assertEqual(values, column.to_list(), name)
            self.assertEqual([v is None for v in values], column.mask.tolist(), name)
            if name.startswith("dec"):
                self.assertEqual([str(v) for v in values], [str(v) for v in column.to_list()])

    def test_every_type_comes_back_from_what_was_read_byte_for_byte(self):
        columns = {name: (values * 6)[:12] for name, values in SAMPLES.items()}
        first = self.write(columns, [(name, name) for name in SAMPLES], "1.cvn")
        kelp.write_table(self.path("2.cvn"), kelp.read_table(first))
        with open(first, "rb") as a, open(self.path("2.cvn"), "rb") as b:
            self.assertEqual(a.read(), b.read())

    def test_all_null_columns_of_every_type(self):
        data = self.bytes_of({name: [None] * 9 for name in SAMPLES}, [(name, name) for name in SAMPLES])
        table = kelp.read_table(data)
        for name, column in table.columns.items():
            self.assertEqual([None] * 9, column.to_list(), name)
            self.assertTrue(np.ma.getmaskarray(column.to_numpy()).all())

    def test_numpy_arrays_and_masked_arrays_come_back(self):
        arrays = {
            "bool": np.array([True, False, True]), "int16": np.array([1, -2, 3], "<i2"),
            "int32": np.array([1, -2, 3], "<i4"), "int64": np.array([1, -2, 3], "<i8"),
            "float": np.array([1, np.nan, 3], "<f4"), "double": np.array([1, np.inf, 3], "<f8"),
            "date": np.array(["1969-12-31", "2026-11-21", "0001-01-01"], "<M8[D]"),
            "timestamp_millis": np.array(["1969-12-31T23:59:59.999", "2026-11-21", "0001-01-01"], "<M8[ms]"),
            "time_millis": np.array([0, 1, 86399999], "<m8[ms]"),
        }
        table = kelp.read_table(self.write(arrays))
        for name, array in arrays.items():
            self.assertEqual(name, table[name].type.name)
            self.assertEqual(array.dtype, table[name].values.dtype, name)
            np.testing.assert_array_equal(array, table[name].values)
            self.assertIsNone(table[name].mask)
        masked = np.ma.MaskedArray([10, 20, 30], [False, True, False])
        objects = np.ma.MaskedArray(np.array([D(1), None, D(3)], object), [True, False, False])
        self.assertEqual([None, None, D(3)], kelp.read_table(self.write({"c": objects}))["c"].to_list())
        back = kelp.read_table(self.write({"c": masked}))["c"]
        self.assertEqual([10, None, 30], back.to_list())
        self.assertEqual(40, back.to_numpy().sum())

    def test_types_follow_from_python_values(self):
        cases = [([1, None], "int64"), ([2**63], "int128"), ([1, 2.5], "double"), (["a"], "cstr"), ([b"a"], "bytea"),
                 ([True], "bool"), ([D("1.5")], "dec64"), ([D("1" * 17)], "dec128"),
                 ([datetime.date(2020, 1, 1)], "date"), ([datetime.datetime(2020, 1, 1)], "timestamp_millis"),
                 ([datetime.time(1)], "time_millis"), (np.array([1], "u1"), "int16"), (np.array([1], "u8"), "int128"),
                 (np.array(["2020-01-01T00"], "M8[h]"), "timestamp_millis"), (np.array(["x"]), "cstr")]
        for values, name in cases:
            self.assertEqual(name, writer.infer_type("c", values).name, values)

    def test_fixed_width_values_share_the_memory_of_the_file(self):
        for name in ("int32", "int64", "double", "timestamp_millis"):
            dtype = {"int32": "<i4", "double": "<f8"}.get(name, "<i8")
            # Noise, so that the chunk is stored as it is.
            noise = np.frombuffer(random.Random(4).randbytes(80000), dtype)
            with kelp.DataFile(self.write({"c": noise}, [("c", name)])) as file:
                column = file.read_chunk(0, 0)
                self.assertTrue(np.shares_memory(column.values, file._data), name)

    def test_an_open_file_takes_columns_as_text_list_or_iterator(self):
        with kelp.DataFile(self.write({"id": [1, 2], "note": ["a", None]})) as file:
            for columns in ("note,id", ["note", "id"], iter(["note", "id"])):
                self.assertEqual([("a", 1), (None, 2)], list(file.read(columns).rows()))
            self.assertEqual([(1,), (2,)], list(file.read("id").rows()))

    def test_columns_and_conditions_choose_rows_and_order(self):
        path = self.write({"a": [1, 2, 3, None], "b": ["x", None, "y", "z"], "c": [1.0, 2.0, 3.0, 4.0]})
        table = kelp.read_table(path, ["c", "a"], "b is not null and a >= 1")
        self.assertEqual([(1.0, 1), (3.0, 3)], list(table.rows()))
        self.assertEqual(["c", "a"], list(table.columns))
        with self.assertRaisesRegex(kelp.KelpError, "no column q"):
            kelp.read_table(path, ["q"])
        with self.assertRaisesRegex(kelp.KelpError, "twice"):
            kelp.read_table(path, ["a", "a"])

    def test_texts_that_are_not_utf8_come_back_as_they_were(self):
        path = self.write({"c": [b"\xff\xfe", b"ok", b"\xe2\x82"]}, "c cstr")
        column = kelp.read_table(path)["c"]
        self.assertEqual([b"\xff\xfe", b"ok", b"\xe2\x82"],
                         [v.encode("utf-8", "surrogateescape") for v in column.values])

    def test_a_split_directory_reads_like_its_file(self):
        columns = {"a": list(range(5000)), "b": ["text %d" % (i % 9) for i in range(5000)]}
        data = self.bytes_of(columns)
        info = kelp.inspect(data)
        os.mkdir(self.path("split"))
        at = Layout(data)
        meta = data
        for cno in range(2):
            chunk = info.rowgroups[0][cno]
            with open(self.path("split/%d.cvnx" % cno), "wb") as file:
                file.write(data[chunk.offset:chunk.offset + chunk.zbyte])
            meta = patched(meta, at.colmeta(0, cno), "<q", 0)
        with open(self.path("split/meta.cvnx"), "wb") as file:
            file.write(meta[:8] + meta[at.footer:])
        self.assertEqual(list(kelp.read_table(data).rows()), list(kelp.read_table(self.path("split")).rows()))
        self.assertTrue(kelp.inspect(self.path("split")).split)
        self.assertEqual(info.checksum, kelp.inspect(self.path("split")).checksum)

    def test_arrays_of_integers_become_int128_with_their_sign(self):
        signed, unsigned = [-1, 5, -2**63, 2**63 - 1], [2**64 - 1, 0, 1, 2**63]
        back = kelp.read_table(self.write({"s": np.array(signed, "<i8"), "u": np.array(unsigned, "<u8")},
                                          "s int128, u int128"))
        self.assertEqual(list(zip(signed, unsigned)), list(back.rows()))

    def test_pandas_frames_go_both_ways(self):
        try:
            with warnings.catch_warnings():
                warnings.simplefilter("ignore")  # what it warns of while it is loaded is its own affair
                import pandas
        except ImportError:
            self.skipTest("pandas is not installed")
        columns = {name: values for name, values in SAMPLES.items()}
        columns = {name: (values * 4)[:8] for name, values in columns.items()}
        table = kelp.read_table(self.write(columns, [(name, name) for name in SAMPLES]))
        frame = table.to_pandas()
        self.assertEqual(list(SAMPLES), list(frame.columns))
        for name in SAMPLES:
            want = [v is None for v in columns[name]]
            self.assertEqual(want, frame[name].isna().tolist(), name)
        self.assertEqual("Int32", str(frame["int32"].dtype))
        self.assertEqual("boolean", str(frame["bool"].dtype))
        self.assertEqual("datetime64[ns]", str(frame["timestamp_millis"].dtype))
        kelp.write_table(self.path("f.cvn"), frame, [(name, name) for name in SAMPLES])
        back = kelp.read_table(self.path("f.cvn"))
        self.assertEqual(list(table.rows()), list(back.rows()))
        # Beyond what nanoseconds can hold nothing may wrap around.
        far = kelp.read_table(self.write({"c": np.array(["1500-01-01", "2026-01-01"], "M8[D]")})).to_pandas()
        self.assertEqual([datetime.date(1500, 1, 1), datetime.date(2026, 1, 1)], far["c"].tolist())
        self.assertIsInstance(pandas.DataFrame(far), pandas.DataFrame)


class Refusals(Case):
    def refuse(self, columns, schema, pattern):
        with self.assertRaisesRegex(kelp.KelpError, pattern):
            kelp.write_table(self.path("x.cvn"), columns, schema)
        self.assertEqual([], os.listdir(self.dir))

    def test_what_holds_no_columns_is_refused(self):
        for columns in ([1, 2], 5, None, "abc"):
            self.refuse(columns, None, "^columns must be a dict of name and values, a Table or a DataFrame$")

    def test_an_array_whose_kind_has_no_column_type_is_named(self):
        with self.assertRaisesRegex(kelp.KelpError, "^column a: numpy's complex128 has no column type$"):
            kelp.write_table(self.path("t.cvn"), {"a": np.zeros(2, complex)})

    def test_values_of_the_wrong_type_are_named_and_nothing_is_left(self):
        self.refuse({"c": [40000]}, "c int16", "column c: 40000 is out of range for int16")
        self.refuse({"c": np.array([2**31])}, "c int32", "2147483648 is out of range for int32")
        self.refuse({"c": ["x"]}, "c int32", "'x' is no value of type int32")
        self.refuse({"c": [1.5]}, "c int64", "1.5 is no value of type int64")
        self.refuse({"c": [1.5]}, "c dec64", "1.5 is no value of type dec64")
        self.refuse({"c": ["a\0b"]}, "c cstr", "NUL")
        self.refuse({"c": [2]}, "c bool", "2 is no value of type bool")
        self.refuse({"c": ["a"]}, "c bytea", "no value of type bytea")
        self.refuse({"c": np.array(["2020-01-01T01"], "M8[h]")}, "c date", "finer")
        self.refuse({"c": [2**127]}, "c int128", "out of range for int128")

    def test_numbers_that_a_float_cannot_hold_are_refused_and_not_bent(self):
        for schema, values, pattern in (
                ("c float", [1e300], "1e\\+300 is out of range for float"),
                ("c float", np.array([1.0, -1e39]), "-1e\\+39 is out of range for float"),
                ("c double", [D("1E+400")], "1E\\+400 is out of range for double"),
                ("c double", [10**400], "no value of type double"),
                ("c double", [2**53 + 1], "9007199254740993 has more digits than double holds"),
                ("c double", [1.5, -2**53 - 1], "-9007199254740993 has more digits"),
                ("c double", np.array([2**62 + 1]), "4611686018427387905 has more digits"),
                ("c double", np.array([2**64 - 1], "u8"), "18446744073709551615 has more digits"),
                ("c float", [2**24 + 1], "16777217 has more digits than float holds"),
                ("c float", np.array([-2**24 - 1], "i4"), "-16777217 has more digits than float holds")):
            self.refuse({"c": values}, schema, pattern)
        held = [2.0**70, float("inf"), 2**60, -2**53, None]
        path = self.write({"c": held}, "c double")
        self.assertEqual(held, kelp.read_table(path)["c"].to_list())
        path = self.write({"c": np.ma.MaskedArray(np.array([2**53 + 1, 2**62]), [True, False])}, "c double")
        self.assertEqual([None, 2.0**62], kelp.read_table(path)["c"].to_list())

    def test_what_is_no_path_schema_or_column_list_is_refused(self):
        for path in (5, "a\0b", None):
            with self.assertRaisesRegex(kelp.KelpError, "is no path", msg=path):
                kelp.write_table(path, {"a": [1]})
            with self.assertRaisesRegex(kelp.KelpError, "is no path", msg=path):
                kelp.DataFile(path)
        self.refuse({"a": [1]}, 5, "5 is no schema")
        self.refuse({"a": [1]}, [("a",)], "is no schema")
        path = self.write({"a": [1], "id": [2]})
        for columns, pattern in ((5, "names no columns"), ("id,z", "no column z"), (["id", "id"], "asked for twice")):
            with kelp.DataFile(path) as file, self.assertRaisesRegex(kelp.KelpError, pattern):
                file.read(columns)

    def test_a_fifo_is_refused_and_not_waited_for(self):
        os.mkfifo(self.path("f.cvn"))
        with self.assertRaisesRegex(kelp.KelpError, "cannot read .*f.cvn: it is no regular file"):
            kelp.DataFile(self.path("f.cvn"))

    def test_threads_that_write_the_same_file_do_not_meet(self):
        tables = [{"a": np.full(50000, i)} for i in range(4)]
        failed = []

        def work(table):
            try:
                for _ in range(5):
                    kelp.write_table(self.path("t.cvn"), table)
            except BaseException as error:
                failed.append(error)
        threads = [threading.Thread(target=work, args=(table,)) for table in tables]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual([], failed)
        values = set(kelp.read_table(self.path("t.cvn"))["a"].to_list())
        self.assertEqual(1, len(values))
        self.assertEqual(["t.cvn"], os.listdir(self.dir))

    def test_shapes_and_schemas_that_cannot_be_are_refused(self):
        self.refuse({"a": [1], "b": [1, 2]}, None, "column b has 2 rows, column a has 1")
        self.refuse({}, None, "at least one column")
        self.refuse({"a": [None]}, None, "only NULLs")
        self.refuse({"a": [1, "x"]}, None, "mixes int, str")
        self.refuse({"a": [1]}, "b int32", "schema has b, the data have a")
        self.refuse({"a": [1]}, "a int31", "no column type 'int31'")
        self.refuse({"a": [1]}, "a int32 -q", "'-q' is no column flag")
        self.refuse({"a": [1]}, "a", "lacks its type")
        self.refuse({"a": [1]}, 'a "int32', "not closed")
        self.refuse({"n" * 128: [1]}, None, "longer than 127")

    def test_schema_texts_are_read_with_quotes_commas_and_flags(self):
        fields = kelp.types.parse_schema(' a int32 -z -n ,"b, c" cstr,d"e dec64 -z')
        self.assertEqual([("a", "int32", True, True), ("b, c", "cstr", False, False), ('d"e', "dec64", True, False)],
                         [(f.name, f.type.name, f.zflag, f.nflag) for f in fields])

    def test_a_failed_write_leaves_the_old_file(self):
        path = self.write({"a": [1]})
        with open(path, "rb") as file:
            old = file.read()
        original, calls = writer.lz4_compress, []

        def fail(*arguments):
            calls.append(arguments)
            raise OSError(28, "No space left on device")
        writer.lz4_compress = fail
        try:
            with self.assertRaisesRegex(kelp.KelpError, "No space left"):
                kelp.write_table(path, {"a": np.arange(10000)})
        finally:
            writer.lz4_compress = original
        self.assertEqual(1, len(calls))
        with open(path, "rb") as file:
            self.assertEqual(old, file.read())
        self.assertEqual(["t.cvn"], os.listdir(self.dir))


class HostileFiles(Case):
    def setUp(self):
        super().setUp()
        self.data = self.bytes_of({"a": list(range(3000)), "b": ["t%d" % i for i in range(3000)],
                                   "c": [b"y" * (i % 5) for i in range(3000)]})
        self.at = Layout(self.data)

    def refuse(self, data, pattern):
        with self.assertRaisesRegex(kelp.KelpError, pattern):
            kelp.read_table(bytes(data))

    def patched(self, at, fmt, value):
        """The file with one bad field, and the hash of its footer right again."""
        return sealed(patched(self.data, at, fmt, value))

    def test_every_truncation_is_refused(self):
        for size in list(range(0, 200)) + list(range(200, len(self.data), 97)) + list(
                range(len(self.data) - 200, len(self.data))):
            with self.assertRaises(kelp.KelpError, msg=size):
                kelp.read_table(self.data[:size])

    def test_every_flipped_bit_is_refused_or_reads_the_same(self):
        want = list(kelp.read_table(self.data).rows())
        rng = random.Random(5)
        for _ in range(400):
            data = bytearray(self.data)
            at = rng.randrange(len(data))
            data[at] ^= 1 << rng.randrange(8)
            try:
                rows = list(kelp.read_table(bytes(data)).rows())
            except kelp.KelpError:
                continue
            self.assertEqual(want, rows, at)  # a bit of the padding between chunks

    def test_magics_version_and_hash(self):
        self.refuse(b"CVN2" + self.data[4:], "begin with CVN1IX86")
        self.refuse(self.data[:-1] + b"2", "end with CVN1")
        self.refuse(self.data[:-8] + b"\0\0\0\0CVN1", "does not match its hash")
        self.refuse(self.patched(self.at.footer, "<i", 2), "version is 2")

    def test_footers_that_contradict_themselves(self):
        footer, group, meta, typ = self.at.footer, self.at.rowgroup(0), self.at.colmeta(0, 0), self.at.coldef(0) + 128
        for at, fmt, value, pattern in (
                (footer + 4, "<i", -1, "contradicts"), (footer + 4, "<i", 2, "contradicts"),
                (footer + 16, "<q", 2, "add up"), (footer + 16, "<q", 2**62, "add up"),
                (footer + 8, "<q", 2999, "row groups do not add up"), (group + 8, "<i", 2, "row groups do not add up"),
                (meta, "<q", 2**62, "outside the file"), (meta, "<q", -8, "sizes of a chunk|outside"),
                (meta + 20, "<i", -1, "sizes of a chunk"), (meta + 16, "<i", 2**31 - 1, "sizes of a page"),
                (meta + 28, "<i", 5, "sizes of a page"), (meta + 24, "<i", 1, "miscounts its NULLs"),
                (meta + 32, "<i", 1, "does not match its hash"), (typ, "<i", 12, "unknown type 12"),
                (typ, "<i", 3, "no room for its rows")):
            with self.subTest(at=at, value=value):
                self.refuse(self.patched(at, fmt, value), pattern)
        self.refuse(self.patched(self.at.coldef(0), "128s", b"n" * 128), "name has no end")

    def test_trailer_sizes_beyond_the_file(self):
        for size in (-1, 0, 7, 39, len(self.data), 2**62, -2**63):
            self.refuse(self.data[:-16] + struct.pack("<q", size) + self.data[-8:], "size of its footer")

    def test_a_path_that_is_not_there_is_named(self):
        with self.assertRaisesRegex(kelp.KelpError, "cannot read .*/none.cvn: No such file"):
            kelp.read_table(self.path("none.cvn"))


if __name__ == "__main__":
    unittest.main()
