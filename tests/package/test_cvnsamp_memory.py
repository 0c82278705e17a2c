#!/usr/bin/env python3
"""The memory of cvnsamp: whatever a file claims and however many rows are wanted, at most the size of the sample and
256 MiB. The figures of every run are printed. Sanitizers take memory of their own: under one the replies are tested,
and the bound is not."""
import argparse
import array
import os
import struct
import subprocess
import sys
import tempfile
import unittest

from cvnfile import BOOL, BYTEA, CSTR, INT32, Column, Page, build, claim, lz4_unblock, read, xxh32

ARGS = None
BOUND = 256 << 20
MAX_ROWS = 2**31 - 1
GROUP_NROW = 1 << 20

LAUNCH = """
import os, sys
flags = os.O_WRONLY | os.O_CREAT | os.O_TRUNC
pid = os.posix_spawn(sys.argv[3], sys.argv[3:], os.environ,
                     file_actions=[(os.POSIX_SPAWN_OPEN, 1, sys.argv[1], flags, 0o600),
                                   (os.POSIX_SPAWN_OPEN, 2, sys.argv[2], flags, 0o600)])
_, status, usage = os.wait4(pid, 0)
print(os.waitstatus_to_exitcode(status), usage.ru_maxrss, usage.ru_utime + usage.ru_stime)
"""


def column(name, typ):
    return Column(name.encode(), typ, False, False)


def bitmap_size(nrow):
    return (nrow + 7) // 8


def repeated_block(first, nbyte):
    """An LZ4 block of `first`, at most 13 bytes, and zeros up to `nbyte` bytes: these and one zero, then a match with
    it as long as can be, then five as they are."""
    literal = first + b"\0"
    runs, last = divmod(nbyte - len(literal) - 5 - 4 - 15, 255)
    return bytes([len(literal) << 4 | 15]) + literal + b"\x01\x00" + b"\xff" * runs + bytes([last]) + b"\x50" + bytes(5)


def zeros_page(cno, typ, nrow, width):
    """A page of that many zeros as one block, and the block."""
    nbyte = nrow * width + bitmap_size(nrow)
    block = repeated_block(b"", nbyte)
    return Page(cno, typ, nrow, 0, nrow * width, nbyte, len(block), xxh32(block), b""), block


def bytes_page(cno, length):
    """A page of one byte string of that many zeros as one block, and the block."""
    block = repeated_block(struct.pack("<i", length), length + 5)
    return Page(cno, BYTEA, 1, 0, length + 4, length + 5, len(block), xxh32(block), b""), block


class Memory(unittest.TestCase):
    def setUp(self):
        self.tmp = tempfile.TemporaryDirectory()
        self.addCleanup(self.tmp.cleanup)

    def file(self, name, data):
        path = os.path.join(self.tmp.name, name)
        with open(path, "wb") as f:
            f.write(data)
        return path

    def run_it(self, nrow, *files, bound=BOUND):
        """Status, messages and the sample's path; the memory that was taken has passed the bound."""
        out = os.path.join(self.tmp.name, "sample")
        err = os.path.join(self.tmp.name, "messages")
        # Through a small process, since a child's peak counts that of the process it was forked from.
        p = subprocess.run([sys.executable, "-c", LAUNCH, out, err, ARGS.cvnsamp, str(nrow), *files],
                           env={**os.environ, "CVNSAMP_SEED": "7", "TMPDIR": self.tmp.name},
                           stdout=subprocess.PIPE, check=True, timeout=300)
        status, most, seconds = p.stdout.split()
        status, most = int(status), int(most) * 1024
        with open(err, encoding="utf-8") as f:
            messages = f.read()
        print(f"\n  {self.id().split('.')[-1]}: {most / 2**20:.1f} MiB, sample {os.path.getsize(out)} bytes, "
              f"{float(seconds):.1f} s, {messages.strip()[-200:]}", file=sys.stderr)
        if not ARGS.sanitize:
            self.assertLessEqual(most, os.path.getsize(out) + bound)
        return status, messages, out

    def assert_refused(self, what, nrow, *files):
        status, messages, out = self.run_it(nrow, *files)
        self.assertEqual((1, 0, 1), (status, os.path.getsize(out), messages.count("\n")), messages)
        self.assertIn(what, messages)

    def test_row_groups_that_the_file_has_no_bytes_for_are_refused(self):
        page = Page(0, INT32, GROUP_NROW, 0, 4 * GROUP_NROW, 4 * GROUP_NROW + GROUP_NROW // 8, 8, 0, b"")
        path = self.file("a.cvn", claim([column("n", INT32)], bytes(8), [[(page, 8)]] * 33000))
        self.assert_refused("damaged: row group 0, column 'n': its stored size is too small for its size",
                            MAX_ROWS, path)

    def test_row_groups_that_all_have_the_same_bytes_are_refused(self):
        page, block = zeros_page(0, BOOL, GROUP_NROW, 1)
        path = self.file("a.cvn", claim([column("b", BOOL)], block, [[(page, 8)]] * 33000))
        self.assertLess(os.path.getsize(path), 6 << 20)
        self.assert_refused("column 'b': it has its bytes in common with too many others", MAX_ROWS, path)

    def test_many_rows_of_few_bytes_are_chosen_row_group_by_row_group(self):
        page, block = zeros_page(0, BOOL, GROUP_NROW, 1)
        block += bytes(-len(block) % 8)
        groups = [[(page, 8 + i * len(block))] for i in range(200)]
        path = self.file("a.cvn", claim([column("b", BOOL)], block * len(groups), groups))
        nrow = len(groups) * GROUP_NROW // 17  # a share that is drawn; its row numbers alone would be 94 MiB
        status, messages, out = self.run_it(nrow, path, bound=32 << 20)
        self.assertEqual((0, ""), (status, messages))
        with open(out, "rb") as f:
            data = f.read()
        foot = len(data) - 16 - struct.unpack_from("<q", data, len(data) - 16)[0]
        self.assertEqual(nrow, struct.unpack_from("<q", data, foot + 8)[0])

    def test_ten_thousand_columns_without_rows_are_a_sample(self):
        columns = [column(f"c{i}", INT32) for i in range(10000)]
        data = claim(columns, b"", [])
        path = self.file("a.cvn", data)
        status, messages, out = self.run_it(1, path)
        self.assertEqual((0, ""), (status, messages))
        with open(out, "rb") as f:
            self.assertEqual(data, f.read())

    def test_ten_thousand_columns_with_rows_are_a_sample(self):
        columns = [column(f"c{i}", (INT32, CSTR, BYTEA)[i % 3]) for i in range(10000)]
        values = [[7, None], [b"text", b""], [b"bytes", None]]
        made = build(columns, [[values[i % 3] for i in range(10000)]])
        path = self.file("a.cvn", made.data)
        status, messages, out = self.run_it(5, path)
        self.assertEqual((0, ""), (status, messages))
        with open(out, "rb") as f:
            self.assertEqual(made.data, f.read())

    def test_more_columns_are_refused(self):
        path = self.file("a.cvn", claim([column(f"c{i}", INT32) for i in range(10001)], b"", []))
        self.assert_refused("has 10001 columns: no more than 10000 can be sampled", 1, path)

    def test_columns_that_share_one_block_are_refused(self):
        # 786 KB that stand for 191 MiB, four times.
        page, block = bytes_page(0, 785000 * 255)
        path = self.file("a.cvn", claim([column(f"c{i}", BYTEA) for i in range(4)], block,
                                        [[(page._replace(cno=i), 8) for i in range(4)]]))
        self.assert_refused("bytes of memory: no more than 184549376 can be sampled", 1, path)

    def test_columns_that_share_a_block_and_fit_are_a_sample(self):
        page, block = zeros_page(0, BOOL, GROUP_NROW, 1)
        path = self.file("a.cvn", claim([column(f"c{i}", BOOL) for i in range(4)], block,
                                        [[(page._replace(cno=i), 8) for i in range(4)]]))
        status, messages, _ = self.run_it(MAX_ROWS, path)
        self.assertEqual((0, ""), (status, messages))

    def test_a_footer_that_is_all_of_a_large_file_says_how_much_memory_there_is(self):
        page = Page(0, BOOL, 0, 0, 0, 0, 0, 0, b"")
        one = claim([column("b", BOOL)], b"", [[(page, 8)]])
        group = one[-16 - 160 : -16]
        ngroup = 2 << 20
        size = 40 + 248 + ngroup * 160
        path = os.path.join(self.tmp.name, "a.cvn")
        with open(path, "wb") as f:
            f.write(one[:16] + struct.pack("<qq", 0, ngroup) + one[32:40] + struct.pack("<q", ngroup * 160)
                    + one[48 : -16 - 160])
            for _ in range(ngroup >> 10):
                f.write(group * 1024)
            f.write(struct.pack("<qi4s", size, 0, b"CVN1"))
        if ARGS.sanitize:
            self.skipTest("no limit")
        self.assert_refused("out of memory: a sample is made within 256 MiB", 1, path)

    def test_columns_that_are_large_in_turn_stay_within_the_bound(self):
        # Each row group has one long value; row group by row group it stands in another of sixteen columns.
        ncol, length = 16, 20 << 20
        data, groups = b"", []
        empty = build([column("a", BYTEA)], [[[b""]]]).groups[0][0]
        for i in range(ncol):
            offset = 8 + len(data)
            big, block = bytes_page(i, length)
            small = Page(i, BYTEA, 1, 0, 4, 5, 5, empty.hash, b"")
            stored = block + bytes(-len(block) % 8) + bytes(8)
            groups.append([(big, offset) if c == i else
                           (small._replace(cno=c), offset + len(stored) - 8) for c in range(ncol)])
            data += stored
        path = self.file("a.cvn", claim([column(f"c{i}", BYTEA) for i in range(ncol)], data, groups))
        status, messages, _ = self.run_it(100, path, path)
        self.assertEqual((0, ""), (status, messages))

    def test_a_large_sample_has_whole_rows_in_order_and_takes_all_parts_alike(self):
        ngroup, nbin, nrow = 16, 256, 900000
        parts, groups, offset = [], [], 8
        for g in range(ngroup):
            ids = array.array("i", range(g * GROUP_NROW, (g + 1) * GROUP_NROW)).tobytes()
            twice = array.array("i", range(-g * GROUP_NROW, -(g + 1) * GROUP_NROW, -1)).tobytes()
            group = []
            for cno, values in enumerate((ids, twice)):
                body = values + bytes(GROUP_NROW // 8)
                group.append((Page(cno, INT32, GROUP_NROW, 0, len(values), len(body), len(body), xxh32(body), b""),
                              offset))
                offset += len(body)
                parts.append(body)
            groups.append(group)
        path = self.file("a.cvn", claim([column("id", INT32), column("neg", INT32)], b"".join(parts), groups))
        del parts
        status, messages, out = self.run_it(nrow, path)
        self.assertEqual((0, ""), (status, messages))
        with open(out, "rb") as f:
            sample = read(f.read())
        got = [array.array("i"), array.array("i")]
        for group in sample.groups:
            for page, values in zip(group, got):
                raw = page.body if page.zbyte == page.nbyte else lz4_unblock(page.body, page.nbyte)
                values.frombytes(raw[: 4 * page.nrow])
        ids, negs = got
        self.assertEqual(nrow, len(ids))
        self.assertTrue(all(a < b for a, b in zip(ids, ids[1:])), "in order and none twice")
        self.assertTrue(all(a == -b for a, b in zip(ids, negs)), "whole rows")
        total = ngroup * GROUP_NROW
        count = [0] * nbin
        for i in ids:
            count[i * nbin // total] += 1
        expected = nrow / nbin
        x = sum((c - expected) ** 2 for c in count) / expected / (1 - nrow / total)
        # Five deviations about the mean of chi-square; the seed is fixed, so this comes out alike in every run.
        spread = 5 * (2 * (nbin - 1)) ** 0.5
        self.assertLess(abs(x - (nbin - 1)), spread)


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--cvnsamp", required=True)
    parser.add_argument("--sanitize", default="")
    ARGS, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0], *rest])
