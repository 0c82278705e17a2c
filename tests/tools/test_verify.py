#!/usr/bin/env python3
"""cvn verify: every kind of damage is found and named, none makes it crash."""
import os
import random
import struct
import subprocess
import unittest

from cvnfile import Layout, sealed, xxh32
from support import CVN, ToolTest


class Verify(ToolTest):
    def setUp(self):
        super().setUp()
        rows = "".join("%d,%s,%s\n" % (i, "" if i % 5 == 0 else i * 0.5, "text %d" % i) for i in range(1, 1004))
        self.create("a int32 -z, b double, t cstr -z", "a,b,t\n" + rows)
        with open(self.path("t.cvn"), "rb") as f:
            self.data = bytearray(f.read())
        self.at = Layout(self.data)

    def meta(self, col):
        return self.at.colmeta(0, col)

    def put(self, at, fmt, value):
        struct.pack_into("<" + fmt, self.data, at, value)

    def get(self, at, fmt):
        return struct.unpack_from("<" + fmt, self.data, at)[0]

    def seal(self):
        """Makes the footer's hash right again, so that only the change itself is wrong."""
        self.data = sealed(self.data)

    def found(self, *texts):
        self.write("bad.cvn", bytes(self.data))
        out = self.run_cvn("verify", "bad.cvn", status=1).out
        for text in texts:
            self.assertIn(text, out)
        return out

    def only(self, text):
        self.assertEqual(1, len(self.found(text).splitlines()))

    def test_a_good_file_is_good(self):
        self.assertIn("good: 1,003 rows", self.run_cvn("verify", "t.cvn").out)

    def test_a_changed_chunk_is_named(self):
        self.data[self.get(self.meta(1), "q")] ^= 1
        out = self.found("row group 0, column 'b': its hash is")
        self.assertNotIn("column 'a'", out)

    def test_a_changed_footer_fails_its_hash(self):
        self.data[self.at.footer + 40 + 134] = 1
        self.found("the footer's hash is", "padding of its definition")

    def test_magics_and_sizes_are_checked(self):
        good = bytes(self.data)
        self.data[0] ^= 1
        self.found("the head magic")
        self.data = bytearray(good)
        self.data[-1] ^= 1
        self.found("the trailer magic")
        for size in (-1, 0, 8, 39, 41, len(good), 2**62):
            self.data = bytearray(good)
            self.put(len(good) - 16, "q", size)
            self.found("footer")
        self.data = bytearray(b"CVN1")
        self.found("is only 4 bytes long")

    def test_statistics_are_held_against_the_values(self):
        self.put(self.meta(0) + 48, "i", 2)
        self.seal()
        self.found("row group 0, column 'a': the smallest value is '1', the record says '2'")

    def test_statistics_of_the_file_are_held_against_the_chunks(self):
        self.put(self.at.colstat(0) + 64, "i", 99999)
        self.seal()
        self.only("column 'a': its chunks range from '1' to '1003', the file's statistics say '1' to '99999'")

    def test_nulls_are_counted(self):
        self.put(self.meta(1) + 24, "i", 7)
        self.put(self.at.colstat(1), "q", 7)
        self.seal()
        self.only("row group 0, column 'b': the null bitmap holds 200 NULLs, the record says 7")

    def test_missing_bounds_are_found(self):
        self.data[self.meta(0) + 15] = 0
        self.seal()
        self.found("the record lacks a minimum and maximum")

    def test_offsets_outside_and_overlapping_are_found(self):
        good = bytes(self.data)
        self.put(self.meta(1), "q", 8)
        self.seal()
        self.found("row group 0, column 'b': it begins at offset 8", "overlaps")
        self.data = bytearray(good)
        self.put(self.meta(1), "q", 2**62)
        self.seal()
        self.found("row group 0, column 'b'", "lie outside the file")

    def test_a_chunk_that_does_not_decompress_is_found(self):
        self.put(self.meta(2) + 16, "i", self.get(self.meta(2) + 16, "i") + 1)
        self.seal()
        self.found("row group 0, column 't': it does not decompress")

    def raw_chunk(self, col, change):
        """Changes the bytes of a chunk that is stored raw, and makes its hash right again."""
        offset, nbyte = self.get(self.meta(col), "q"), self.get(self.meta(col) + 16, "i")
        self.assertEqual(nbyte, self.get(self.meta(col) + 20, "i"))
        change(offset, self.get(self.meta(col) + 28, "i"))
        self.put(self.meta(col) + 32, "i", xxh32(self.data[offset:offset + nbyte]))
        self.seal()

    def test_unused_bitmap_bits_and_values_under_nulls_are_found(self):
        rows = "".join("%s\n" % ("" if i == 3 else i) for i in range(10))
        self.create("a int32", "a\n" + rows, "t.cvn")
        with open(self.path("t.cvn"), "rb") as f:
            good = f.read()
        self.at = Layout(good)

        def bit(offset, nmapoff):
            self.data[offset + nmapoff + 1] |= 1

        def value(offset, nmapoff):
            self.data[offset + 4 * 3] = 9

        self.data = bytearray(good)
        self.raw_chunk(0, bit)
        self.only("unused bits of the null bitmap are set")
        self.data = bytearray(good)
        self.raw_chunk(0, value)
        self.only("the NULL in row 3 has a value beneath it")

    def test_row_counts_are_added_up(self):
        self.put(self.at.footer + 8, "q", 1004)
        self.seal()
        self.only("the row groups hold 1003 rows, the footer says 1004")

    def test_every_truncation_is_refused(self):
        good = bytes(self.data)
        for n in list(range(0, 64)) + list(range(64, len(good), 211)) + [len(good) - 1]:
            self.data = bytearray(good[:n])
            self.found()

    def test_no_random_damage_goes_unseen_or_crashes(self):
        good = bytes(self.data)
        rng = random.Random(5)
        for _ in range(150):
            self.data = bytearray(good)
            for _ in range(rng.randrange(1, 4)):
                # Inside the footer, whose hash is then made right: the reading code itself is on trial.
                self.data[rng.randrange(self.at.footer, len(good) - 16)] = rng.randrange(256)
            if bytes(self.data) == good:
                continue
            self.seal()
            self.write("bad.cvn", bytes(self.data))
            for args in (("verify",), ("cat",), ("info", "--rowgroups")):
                done = self.run_any(*args, "bad.cvn")
                self.assertIn(done.returncode, (0, 1), done.stderr)

    def run_any(self, *args):
        done = subprocess.run([CVN, *args], capture_output=True, timeout=120, cwd=self.dir)
        self.assertNotIn(b"Sanitizer", done.stderr)
        self.assertNotIn(b"internal error", done.stderr)
        return done

    def test_a_split_directory_is_proved_too(self):
        self.run_cvn("split", "t.cvn", "parts")
        self.assertIn("good", self.run_cvn("verify", "parts").out)
        with open(self.path("parts/1.cvnx"), "r+b") as f:
            f.seek(5)
            f.write(b"\x77")
        self.assertIn("row group 0, column 'b': its hash is", self.run_cvn("verify", "parts", status=1).out)
        with open(self.path("parts/2.cvnx"), "ab") as f:
            f.write(b"x")
        self.assertIn("2.cvnx: its pages take", self.run_cvn("verify", "parts", status=1).out)

    def test_a_directory_tells_how_many_files_are_damaged(self):
        self.data[self.get(self.meta(0), "q")] ^= 1
        self.write("u.cvn", bytes(self.data))
        self.assertIn("1 of 2 files are damaged", self.run_cvn("verify", ".", status=1).out)

    def test_damage_counts_although_nobody_reads_about_it(self):
        self.data[self.get(self.meta(0), "q")] ^= 1
        self.write("bad.cvn", bytes(self.data))
        self.assertEqual("", self.run_unread("verify", "bad.cvn", status=1))
        self.assertEqual("", self.run_unread("verify", ".", status=1))
        self.assertEqual("", self.run_unread("verify", "t.cvn"))

    def test_a_file_that_cannot_be_read_does_not_hide_those_after_it(self):
        os.symlink("nowhere", self.path("a.cvn"))
        self.data[self.get(self.meta(0), "q")] ^= 1
        self.write("b.cvn", bytes(self.data))
        done = self.run_cvn("verify", ".", status=1)
        lines = done.out.splitlines()
        self.assertEqual("", done.err)
        self.assertEqual("./a.cvn: No such file or directory", lines[0])
        self.assertIn("./b.cvn: row group 0, column 'a': its hash is", lines[1])
        self.assertIn("./t.cvn: good: 1,003 rows, 1 row group, 3 columns, ", lines[-2])
        self.assertEqual(".: 1 of 3 files are damaged, 1 cannot be read", lines[-1])


if __name__ == "__main__":
    unittest.main()
