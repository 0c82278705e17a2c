"""Conditions: their text, their exact meaning, and what may be told to the server."""

import datetime
import itertools
import math
import operator
import random
import unittest
from decimal import Decimal as D

from support import Case, kelp
from kelp import types
from kelp.where import bind, parse_where

OPS = {"==": operator.eq, "!=": operator.ne, ">": operator.gt, ">=": operator.ge, "<": operator.lt, "<=": operator.le}


class Texts(unittest.TestCase):
    def test_texts_and_tuples_say_the_same(self):
        cases = [
            ("qty > 10 and note is null", [("qty", ">", ["10"]), ("note", "isnull", [])]),
            ("a=1", [("a", "==", ["1"])]), ("a<>-1.5", [("a", "!=", ["-1.5"])]),
            ('"my col" >= \'it\'\'s\' AND b IS NOT NULL', [("my col", ">=", ["it's"]), ("b", "isnotnull", [])]),
            ("s in (open, 'a b', \"c\") and t isnotnull", [("s", "in", ["open", "a b", "c"]), ("t", "isnotnull", [])]),
            ('"a ""b" = "x ""y"""', [('a "b', "==", ['x "y"'])]),
            ("s in ()", [("s", "in", [])]), ("t < 2026-01-31T10:00:00", [("t", "<", ["2026-01-31T10:00:00"])]),
            ("", []), (None, []),
            (("a", ">", 1), [("a", ">", [1])]),
            ([("a", "IS NULL"), "b = 2"], [("a", "isnull", []), ("b", "==", ["2"])]),
            ([("a", "in", (1, 2))], [("a", "in", [1, 2])]),
        ]
        for given, want in cases:
            self.assertEqual(want, parse_where(given), given)

    def test_what_cannot_be_read_is_refused_with_its_place(self):
        for text, pattern in (("qty >", "near its end"), ("qty > 1 or b = 2", "near 'or b = 2'"),
                              ("qty ~ 1", "near '~ 1'"), ("a in (1, 2", "its end"), ("a is 5", "near '5'"),
                              ("a = 'x", "cannot read the condition at"), ("and", "its end"),
                              ("a > 1 and", "its end"), ("a in 1", "near")):
            with self.assertRaisesRegex(kelp.KelpError, pattern, msg=text):
                parse_where(text)

    def test_tuples_of_the_wrong_form_are_refused(self):
        for given, pattern in ((("a", "like", "x"), "no operator"), (("a", ">"), "lacks its value"),
                               (("a", "is null", 1), "^.is ?null. takes no value"),
                               (("a", "in", "xyz"), "list of values"),
                               (("a", "==", None), "is null"), ([("a",)], "no condition"), ([5], "no condition")):
            with self.assertRaisesRegex(kelp.KelpError, pattern):
                parse_where(given)

    def test_values_of_the_wrong_type_and_unknown_columns_are_refused(self):
        fields = types.parse_schema("i int32, b bool, d date, m time_millis, t timestamp_millis, c dec64, f double, "
                                    "L int128")
        for text in ("i > abc", "i > 1.5", "i > 010", "b = maybe", "b = 2", "d = 2026-13-01", "m > 25:00:00", "c = x",
                     "t = yesterday", "f = 1,", "f > x", "L = 1e3", "d = today", "d = 2024-01", "d = 2024-02-30",
                     "d = 24-01-01", "t = now", "t = 2024-01", "t = 2024-01-01T10", "t = 2024-01-01T10:00+01:00",
                     "m = 8:15", "m = 08:60", "m = 08:15:00.1234", "f = 1_0", "f = ' 1'", "f = 1e400", "c = 1_0",
                     "c = ' 1'", "i = 1_0"):
            with self.assertRaises(kelp.KelpError, msg=text):
                bind(parse_where(text), fields)
        with self.assertRaisesRegex(kelp.KelpError, "no column z; the columns are i, b"):
            bind(parse_where("z = 1"), fields)


class Rows(Case):
    """Every operator on every type against Python's own comparison, row by row."""

    def check(self, type_name, values, arguments):
        path = self.write({"c": values, "row": list(range(len(values)))}, [("c", type_name), ("row", "int32")])
        for op, argument in itertools.product(OPS, arguments):
            # A NaN satisfies != and nothing else; Python's decimals raise where floats answer.
            nan = [isinstance(v, (float, D)) and v != v for v in values]
            want = [i for i, v in enumerate(values) if v is not None and (
                op == "!=" if nan[i] or argument != argument else OPS[op](v, argument))]
            got = kelp.read_table(path, ["row"], [("c", op, argument)])["row"].to_list()
            self.assertEqual(want, got, (type_name, op, argument))
        wanted = [a for a in arguments if a == a]
        want = [i for i, v in enumerate(values) if v is not None and any(v == a for a in wanted)]
        self.assertEqual(want, kelp.read_table(path, ["row"], [("c", "in", arguments)])["row"].to_list(), type_name)
        for op, null in (("is null", True), ("is not null", False)):
            want = [i for i, v in enumerate(values) if (v is None) == null]
            self.assertEqual(want, kelp.read_table(path, ["row"], [("c", op)])["row"].to_list())
        self.assertEqual(0, len(kelp.read_table(path, ["row"], [("c", "in", [])])))

    def test_integers_also_beyond_the_column_s_range(self):
        rng = random.Random(6)
        for name, bits in (("int16", 16), ("int32", 32), ("int64", 64), ("int128", 128)):
            edge = 1 << (bits - 1)
            values = [None, -edge, edge - 1, 0, -1, 1] + [rng.randrange(-edge, edge) for _ in range(50)]
            self.check(name, values, [0, -1, 5, values[7], -edge, edge - 1, edge, -edge - 1, 1 << 130])

    def test_int128_compares_both_halves(self):
        self.check("int128", [2**64 - 1, 2**64, -2**64, -2**64 - 1, 2**65 + 3, None], [2**64, -2**64, 2**63, 3])

    def test_floats_with_nan_and_infinity(self):
        values = [1.5, None, math.nan, math.inf, -math.inf, 0.0, -0.0, -2.25]
        for name in ("float", "double"):
            self.check(name, values, [0.0, 1.5, math.inf, math.nan, -3.0])

    def test_a_float_column_compares_with_the_nearest_float(self):
        path = self.write({"c": [0.1, 0.2]}, "c float")
        self.assertEqual(1, len(kelp.read_table(path, where="c == 0.1")))

    def test_bools(self):
        self.check("bool", [True, False, None, True], [True, False])

    def test_texts_compare_as_bytes(self):
        values = ["", "a", "ab", None, "é", "z", "\U0001f600", "x" * 45, "x" * 39 + "yz"]
        self.check("cstr", values, ["", "a", "é", "x" * 39, "x" * 45])

    def test_byte_strings(self):
        self.check("bytea", [b"", b"\0", None, b"\xff\0", b"ab"], [b"", b"\0", b"ab", b"zz"])

    def test_decimals_of_different_exponents_and_specials(self):
        values = [D("1.0"), D("1.00"), D("1"), None, D("-0"), D("0.000"), D("1E+5"), D("-1E-5"), D("NaN"),
                  D("Infinity"), D("-Infinity"), D("99999.99999")]
        arguments = [D(1), D("0"), D("99999.999990"), D("NaN"), D("Infinity"), D("1E+300"), D("-0.00001")]
        for name in ("dec64", "dec128"):
            self.check(name, values, arguments)

    def test_decimals_of_one_exponent_against_values_between_them(self):
        values = [D(i).scaleb(-2) for i in (*range(-300, 300, 7), -1, 0, 1)] + [None]
        self.check("dec64", values, [D("0.005"), D("-0.005"), D("0.01"), D("-1.23456789"), D("1E+20"), D("-1E+20")])

    def test_dates_and_times_as_values_and_as_text(self):
        day, clock, moment = datetime.date(2026, 1, 31), datetime.time(8, 15), datetime.datetime(2026, 1, 31, 8, 15)
        path = self.write({"d": [day, None, datetime.date(1969, 12, 31)],
                           "m": [clock, None, datetime.time(0)],
                           "t": [moment, None, datetime.datetime(1969, 12, 31)]},
                          "d date, m time_millis, t timestamp_millis")
        for where in ("d = 2026-01-31", "d >= 2026-01-31", "m = 08:15:00", "m > 00:00:00", "t = 2026-01-31T08:15:00",
                      "t >= '2026-01-31 08:15:00'", "t > 2026-01-31", "t = 2026-01-31T08:15:00.000Z", "m = 08:15",
                      "m = 08:15:00.0", "m > 08:14:59.5", "d = +20484", [("d", "==", day)], [("m", "==", clock)],
                      [("t", "==", moment)], "d = 20484", "m = 29700000"):
            table = kelp.read_table(path, where=where)
            self.assertEqual([day], table["d"].to_list(), where)


class Pushed(Case):
    """What goes to the server, and that no row can be lost by it."""

    def push(self, schema, where, prune="safe"):
        return [item for c in bind(parse_where(where), types.parse_schema(schema)) for item in c.push(prune)]

    def test_integers_texts_and_null_tests_are_sent(self):
        self.assertEqual([["a", ">", "10"], ["s", "==", "x"], ["s", "isnull"], ["b", "!=", "1"]],
                         self.push("a int16, s cstr, b bool", "a > 10 and s = x and s is null and b != true"))
        self.assertEqual([["d", ">=", "20484"], ["t", "<", "1000"]],
                         self.push("d date, t timestamp_millis", "d >= 2026-01-31 and t < 1970-01-01T00:00:01"))
        self.assertEqual([["L", "<", "0x" + "f" * 32]], self.push("L int128", "L < -1"))

    def test_lists_are_sent_as_the_range_that_holds_them(self):
        self.assertEqual([["a", ">=", "-300"], ["a", "<=", "300"]], self.push("a int16", "a in (5, 300, -300)"))
        self.assertEqual([["s", ">=", "a"], ["s", "<=", "c"]], self.push("s cstr", "s in (b, c, a)"))
        self.assertEqual([["a", "in", []]], self.push("a int16", "a in ()"))
        self.assertEqual([["a", "in", []]], self.push("a int16", "a in (99999)"))

    def test_numbers_beyond_the_column_s_range_are_settled_here(self):
        for where, want in (("a > 32768", [["a", "in", []]]), ("a < 32768", [["a", "isnotnull"]]),
                            ("a != 99999", [["a", "isnotnull"]]), ("a == -32769", [["a", "in", []]]),
                            ("a >= -99999", [["a", "isnotnull"]])):
            self.assertEqual(want, self.push("a int16", where), where)

    def test_comparisons_that_a_nan_could_spoil_stay_here_unless_vouched_for(self):
        schema = "f float, g double, d dec64, e dec128"
        where = "f > 1 and g == 2 and d < 3 and e in (4, 5)"
        self.assertEqual([], self.push(schema, where))
        self.assertEqual([["f", ">", "1.0"], ["g", "==", "2.0"], ["d", "<", "3"], ["e", ">=", "4"], ["e", "<=", "5"]],
                         self.push(schema, where, "all"))
        self.assertEqual([["f", "isnull"], ["d", "isnotnull"]], self.push(schema, "f is null and d is not null"))
        self.assertEqual([], self.push(schema, "f is null", "none"))
        self.assertEqual([], self.push(schema, "g > nan and d > NaN and d > 12345678901234567890", "all"))

    def test_texts_that_cannot_be_sent_raw_stay_here(self):
        self.assertEqual([], self.push("s cstr", [("s", "==", 'say "hi"'), ("s", ">", "back\\slash")]))
        self.assertEqual([["s", "<=", "z"]], self.push("s cstr", [("s", "in", ['"', "z"])]))

    def test_byte_strings_are_never_sent(self):
        self.assertEqual([], self.push("a bytea", [("a", "==", b"x")], "all"))


if __name__ == "__main__":
    unittest.main()
