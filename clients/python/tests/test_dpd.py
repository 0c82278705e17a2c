"""Decimals against values that are known from the encoding's definition."""

import random
import unittest
from decimal import Decimal

import numpy as np

from support import kelp
from kelp import dpd

# Worked out on paper from the combination field, the biased exponent and the declets.
KNOWN64 = [
    ("0", 0x2238000000000000), ("1", 0x2238000000000001), ("-1", 0xA238000000000001), ("9", 0x2238000000000009),
    ("10", 0x2238000000000010), ("79", 0x2238000000000079), ("80", 0x223800000000000A), ("99", 0x223800000000005F),
    ("999", 0x22380000000000FF), ("1000", 0x2238000000000400), ("-7.50", 0xA2300000000003D0),
    ("1.50", 0x22300000000000D0), ("0.00", 0x2230000000000000), ("-0", 0xA238000000000000),
    ("9999999999999999", 0x6E38FF3FCFF3FCFF), ("1E+369", 0x43FC000000000001), ("9.999999999999999E+384",
                                                                              0x77FCFF3FCFF3FCFF),
    ("1E-398", 0x0000000000000001), ("Infinity", 0x7800000000000000), ("-Infinity", 0xF800000000000000),
    ("NaN", 0x7C00000000000000), ("sNaN", 0x7E00000000000000), ("-NaN", 0xFC00000000000000),
    ("NaN123", 0x7C000000000000A3)]
KNOWN128 = [
    ("0", 0x22080000000000000000000000000000), ("-7.50", 0xA20780000000000000000000000003D0),
    ("9999999999999999999999999999999999", 0x6E080FF3FCFF3FCFF3FCFF3FCFF3FCFF),
    ("1E-6176", 0x00000000000000000000000000000001), ("Infinity", 0x78000000000000000000000000000000),
    ("NaN", 0x7C000000000000000000000000000000)]


def words128(numbers):
    return np.array([[n & (2**64 - 1), n >> 64] for n in numbers], np.uint64).reshape(-1, 2)


class Decimals(unittest.TestCase):
    def same(self, text, value):
        self.assertEqual(Decimal(text).as_tuple(), value.as_tuple(), text)

    def test_decimal64_words_decode_to_the_known_values(self):
        for (text, word), value in zip(KNOWN64, dpd.decode64(np.array([w for _, w in KNOWN64], np.uint64))):
            self.same(text, value)

    def test_decimal64_values_encode_to_the_known_words(self):
        for text, word in KNOWN64:
            self.assertEqual(hex(word), hex(int(dpd.encode64([Decimal(text)])[0])), text)
            self.assertEqual(hex(word), hex(dpd.encode_one64(Decimal(text))), text)

    def test_decimal128_known_values_in_both_directions(self):
        for (text, word), value in zip(KNOWN128, dpd.decode128(words128([w for _, w in KNOWN128]))):
            self.same(text, value)
            self.assertEqual(hex(word), hex(dpd.encode_one128(Decimal(text))), text)

    def test_null_is_the_zero_with_exponent_zero(self):
        self.assertEqual(0x2238000000000000, int(dpd.encode64([None])[0]))
        self.assertEqual([[0, 0x2208000000000000]], dpd.encode128([None]).tolist())

    def test_random_decimals_come_back_with_their_exponents_and_signs(self):
        rng = random.Random(20261121)
        for digits, exponents, encode, decode in (
                (16, dpd.EXPONENTS64, dpd.encode64, dpd.decode64),
                (34, dpd.EXPONENTS128, dpd.encode128, dpd.decode128)):
            values = [Decimal((rng.randrange(2), tuple(map(int, str(rng.randrange(10 ** rng.randint(1, digits))))),
                               rng.randint(*exponents))) for _ in range(2000)]
            for value, back in zip(values, decode(encode(values))):
                self.assertEqual(value.as_tuple(), back.as_tuple())

    def test_all_1024_declets_decode_and_1000_of_them_are_canonical(self):
        self.assertEqual(set(range(1000)), set(dpd.DECODE.tolist()))
        self.assertEqual(list(range(1000)), dpd.DECODE[dpd.ENCODE.astype(int)].tolist())
        # The second spellings are those of three digits 8 or 9, with any of two free bits set.
        spare = [bits for bits in range(1024) if dpd.ENCODE[dpd.DECODE[bits]] != bits]
        self.assertEqual(24, len(spare))
        self.assertTrue(all(set(str(dpd.DECODE[bits])) <= set("89") and bits >> 8 for bits in spare))

    def test_a_declet_across_both_words_of_a_decimal128_is_read(self):
        # The declet of bits 60 to 69 holds the digits of 10^18 to 10^20.
        self.same("123" + "0" * 18, dpd.decode128(words128([dpd.ZERO128 | 0x0A3 << 60]))[0])

    def test_what_does_not_fit_is_refused_rather_than_rounded(self):
        for text in ("12345678901234567", "1E+370", "1E-399"):
            with self.assertRaises(kelp.KelpError, msg=text):
                dpd.encode64([Decimal(text)])
        for text in ("1" * 35, "1E+6112", "1E-6177"):
            with self.assertRaises(kelp.KelpError, msg=text):
                dpd.encode128([Decimal(text)])


if __name__ == "__main__":
    unittest.main()
