#!/usr/bin/env python3
"""cvn info, cat and split, the help texts and the exit status."""
import csv
import io
import json
import os
import random
import resource
import subprocess
import unittest

import cvnfile
from cvnfile import Column
from support import CVN, ToolTest


class Read(ToolTest):
    CSV = 'id,qty,"a name",note\n1,10,x,\n2,,"it\'s",""\n3,30,,plain\n4,5,z,"b,c"\n'
    SCHEMA = 'id int32, qty int64, "a name" cstr -z, note cstr -n'

    def setUp(self):
        super().setUp()
        self.create(self.SCHEMA, self.CSV)

    def ids(self, *where):
        args = []
        for w in where:
            args += ["--where", w]
        return self.cat("t.cvn", "--columns", "id", *args).split()[1:]

    def test_conditions_select_exactly(self):
        self.assertEqual(["1", "3"], self.ids("qty >= 10"))
        self.assertEqual(["3"], self.ids("qty > 10"))
        self.assertEqual(["1", "3"], self.ids("qty != 5"))
        self.assertEqual(["2"], self.ids("qty is null"))
        self.assertEqual(["1", "4"], self.ids("qty in (5, 10)"))
        self.assertEqual([], self.ids("qty in ()"))
        self.assertEqual(["2"], self.ids("\"a name\" = 'it''s'"))
        self.assertEqual(["2"], self.ids("note = ''"))
        self.assertEqual(["4"], self.ids("qty < 20", "id > 1 and note is not null"))

    def test_every_flipped_byte_of_a_page_ends_a_cat_with_an_error(self):
        whole = self.load("t.cvn")
        footer = int.from_bytes(whole[-16:-8], "little")
        refused = 0
        for at in range(8, len(whole) - 16 - footer):
            self.write("bad.cvn", whole[:at] + bytes([whole[at] ^ 0x20]) + whole[at + 1:])
            done = self.run_cvn("cat", "bad.cvn", status=None)
            if done.returncode == 0:  # a byte between two pages, which belongs to none
                self.assertEqual(0, whole[at])
                self.assertEqual(self.cat(), done.out)
                continue
            refused += 1
            self.assertEqual(1, done.returncode)
            self.assertIn("is damaged: its hash does not match; 'cvn verify' tells more", done.err)
            self.assertEqual("", done.out)
        self.assertGreater(refused, 30)

    def test_one_language_of_conditions_for_files_and_tables(self):
        self.assertEqual(["4"], self.ids('note = "b,c"'))
        self.assertEqual(["3"], self.ids("note = plain"))
        self.assertEqual(["1", "2"], self.ids("id < 0x3"))
        self.assertEqual(["2"], self.ids("qty isnull"))
        self.assertEqual([], self.ids("note = plain text and id > 0"))
        err = self.run_cvn("cat", "t.cvn", "--where", 'note = "id"', status=1).err
        self.assertIn("condition on column 'note' (cstr): 'id' may be a text or the column of that name", err)

    def test_bad_conditions_columns_and_formats_are_told(self):
        for where in ("qty >", "qty 10", "qty = 'a"):
            self.run_cvn("cat", "t.cvn", "--where", where, status=2)
        columns = "t.cvn: there is no column 'nope'; its columns are id, qty, a name, note\n"
        self.assertIn(columns, self.run_cvn("cat", "t.cvn", "--where", "nope = 1", status=1).err)
        self.assertIn("cvn: t.cvn: condition on column 'qty' (int64): 'x' is not a whole number",
                      self.run_cvn("cat", "t.cvn", "--where", "qty = x", status=1).err)
        self.assertIn("no column 'nope'", self.run_cvn("cat", "t.cvn", "--columns", "nope", status=1).err)
        self.run_cvn("cat", "t.cvn", "--format", "xml", status=2)

    def test_columns_come_in_the_order_asked_for(self):
        self.assertEqual("note,id\n,1\n\"\",2\nplain,3\n\"b,c\",4\n", self.cat("t.cvn", "--columns", "note,id"))

    def test_names_with_commas_stand_in_double_quotes(self):
        self.create('"a,b" int32, c int32', '"a,b",c\n1,2\n', "q.cvn")
        self.assertEqual('c,"a,b"\n2,1\n', self.cat("q.cvn", "--columns", 'c,"a,b"'))
        self.assertEqual('"a,b",c\n1,2\n', self.cat("q.cvn", "--columns", '"a,b"', "--columns", "c"))
        for bad in ('"a,b', '"a"b', 'c,"'):
            self.assertIn("a list looks like", self.run_cvn("cat", "q.cvn", "--columns", bad, status=2).err)

    def test_names_that_messages_list_cannot_write_to_the_terminal(self):
        self.create("\"a\x1b[31mb\" int32", "a\x1b[31mb\n1\n", "e.cvn")
        err = self.run_cvn("cat", "e.cvn", "--columns", "nope", status=1).err
        self.assertIn("its columns are a\\x1b[31mb\n", err)

    def test_limit_stops(self):
        self.assertEqual(3, len(self.cat("t.cvn", "--limit", "2").splitlines()))
        self.assertEqual("id,qty,a name,note\n", self.cat("t.cvn", "--limit", "0"))

    def test_jsonl_is_json_in_every_line(self):
        rows = [json.loads(line) for line in self.cat("t.cvn", "--format", "jsonl").splitlines()]
        self.assertEqual({"id": 2, "qty": None, "a name": "it's", "note": ""}, rows[1])
        self.create("d double, x dec64, t cstr", b'd,x,t\nNaN,1.50,"a""\n\xff"\n', "j.cvn")
        self.assertEqual({"d": "NaN", "x": "1.50", "t": 'a"\n\ufffd'},
                         json.loads(self.cat("j.cvn", "--format", "jsonl")))

    def test_table_aligns_its_columns(self):
        lines = self.cat("t.cvn", "--format", "table").splitlines()
        self.assertEqual("id   qty  a name  note", lines[0])
        self.assertEqual(" 2  NULL  it's    ", lines[3])

    def test_info_tells_types_flags_nulls_and_bounds(self):
        info = self.info()
        self.assertEqual((4, 1), (info["rows"], info["row_groups"]))
        qty, name, note = info["columns"][1:]
        self.assertEqual(("int64", 1, "5", "30"), (qty["type"], qty["nulls"], qty["min"], qty["max"]))
        self.assertEqual((True, False, "it's", "z"), (name["z"], name["n"], name["min"], name["max"]))
        self.assertEqual((True, None), (note["n"], note["min"]))
        self.assertEqual(info["raw_bytes"], sum(c["raw_bytes"] for c in info["columns"]))
        text = self.run_cvn("info", "t.cvn", "--rowgroups").out
        self.assertIn("4 rows, 1 row group", text)
        self.assertIn("row group 0: 4 rows", text)
        self.assertEqual("4", str(self.info("t.cvn", "--rowgroups")["groups"][0]["rows"]))

    def test_info_marks_texts_that_were_cut(self):
        self.create("t cstr", "t\n" + "x" * 50 + "\n", "u.cvn")
        col = self.info("u.cvn")["columns"][0]
        self.assertEqual(("x" * 40, True), (col["min"], col["min_cut"]))
        self.assertIn("x" * 40 + "...", self.run_cvn("info", "u.cvn").out)

    def test_a_split_directory_reads_like_its_file(self):
        self.run_cvn("split", "t.cvn", "parts")
        self.assertEqual(self.cat(), self.cat("parts"))
        self.assertEqual(self.cat("t.cvn", "--where", "qty > 5"), self.cat("parts", "--where", "qty > 5"))
        self.run_cvn("verify", "parts")
        self.assertTrue(self.info("parts")["split"])
        self.assertEqual(["0.cvnx", "1.cvnx", "2.cvnx", "3.cvnx", "meta.cvnx"], sorted(os.listdir(self.path("parts"))))

    def test_splitting_what_cannot_be_read_is_a_failure(self):
        self.write("bad.cvn", "not a data file at all, but long enough")
        self.run_cvn("split", "bad.cvn", "parts", status=1)
        self.run_cvn("split", "none.cvn", "parts", status=1)
        self.run_cvn("split", "t.cvn", "parts")
        self.assertIn("is a directory", self.run_cvn("split", "parts", "more", status=1).err)

    def test_a_split_that_fails_leaves_the_older_one_as_it_was(self):
        rng = random.Random(2)
        self.create("a int64", "a\n" + "".join("%d\n" % rng.getrandbits(62) for _ in range(3000)), "big.cvn")
        self.run_cvn("split", "big.cvn", "parts")
        with open(self.path("big.cvn"), "rb") as f:
            data = bytearray(f.read())
        # The first chunk claims to begin near the end of the file, so that reading it comes up short.
        size = int.from_bytes(data[-16:-8], "little")
        at = len(data) - 16 - size + 40 + 248 + 16
        data[at:at + 8] = (len(data) - 8).to_bytes(8, "little")
        self.write("cut.cvn", bytes(data))
        self.assertIn("row group 0, column 'a': its page cannot be read",
                      self.run_cvn("split", "cut.cvn", "parts", status=1).err)
        self.assertEqual(["0.cvnx", "meta.cvnx"], sorted(os.listdir(self.path("parts"))))
        self.assertEqual(self.cat("big.cvn"), self.cat("parts"))
        self.run_cvn("split", "cut.cvn", "new", status=1)
        self.assertFalse(os.path.exists(self.path("new")))

    def test_a_page_that_does_not_match_its_hash_is_not_split(self):
        data = bytearray(self.load("t.cvn"))
        data[8] ^= 1
        self.write("bad.cvn", bytes(data))
        err = self.run_cvn("split", "bad.cvn", "parts", status=1).err
        self.assertIn("bad.cvn: row group 0, column 'id': its bytes do not match their hash; it is not split", err)
        self.assertFalse(os.path.exists(self.path("parts")))

    def test_a_split_in_place_of_a_wider_one_leaves_none_of_its_columns(self):
        self.run_cvn("split", "t.cvn", "parts")
        self.write("parts/x.cvnx", "not a column")
        self.create("id int32, b int32", "id,b\n1,2\n", "n.cvn")
        self.run_cvn("split", "n.cvn", "parts")
        self.assertEqual(["0.cvnx", "1.cvnx", "meta.cvnx", "x.cvnx"], sorted(os.listdir(self.path("parts"))))
        self.assertIn("good: 1 row, 1 row group, 2 columns", self.run_cvn("verify", "parts").out)

    def test_two_columns_of_one_name_cannot_be_split(self):
        data = self.load("t.cvn")
        at = len(data) - 16 - int.from_bytes(data[-16:-8], "little") + 40
        self.write("twice.cvn", data[:at + 136] + data[at:at + 128] + data[at + 136 + 128:])
        err = self.run_cvn("split", "twice.cvn", "parts", status=1).err
        self.assertIn("twice.cvn: two columns are named 'id'", err)
        self.assertFalse(os.path.exists(self.path("parts")))

    def test_a_split_of_more_columns_than_files_may_be_open_is_made_read_and_verified(self):
        limit = lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (40, 4096))
        names = ["c%d" % i for i in range(100)]
        self.create(", ".join(n + " int32" for n in names), ",".join(names) + "\n" + ",".join("1" * 100) + "\n",
                    "w.cvn")
        self.run_cvn("split", "w.cvn", "wide", preexec_fn=limit)
        self.assertIn("good: 1 row", self.run_cvn("verify", "wide", preexec_fn=limit).out)
        self.assertEqual(self.cat("w.cvn"), self.run_cvn("cat", "wide", preexec_fn=limit).out)

    def test_a_pipe_is_no_data_file_and_is_not_waited_for(self):
        os.mkfifo(self.path("f.cvn"))
        os.mkdir(self.path("dir"))
        os.mkfifo(self.path("dir/f.cvn"))
        self.run_cvn("split", "t.cvn", "parts")
        os.unlink(self.path("parts/1.cvnx"))
        os.mkfifo(self.path("parts/1.cvnx"))
        for args in (("info", "f.cvn"), ("cat", "f.cvn"), ("verify", "f.cvn"), ("split", "f.cvn", "out"),
                     ("info", "dir"), ("cat", "dir"), ("verify", "dir"), ("info", "parts"), ("cat", "parts"),
                     ("verify", "parts"), ("split", "dir/f.cvn", "out")):
            done = self.run_cvn(*args, status=1)
            self.assertRegex(done.err + done.out, r"(f\.cvn|1\.cvnx): is not a regular file", args)
        os.unlink(self.path("parts/meta.cvnx"))
        os.mkfifo(self.path("parts/meta.cvnx"))
        for command in ("info", "cat", "verify"):
            done = self.run_cvn(command, "parts", status=1)
            self.assertIn("is not a regular file", done.err + done.out)
        self.assertFalse(os.path.exists(self.path("out")))

    def test_one_bad_file_does_not_hide_the_others_from_info(self):
        os.mkdir(self.path("dir"))
        self.create("a int32", "a\n1\n", "dir/a.cvn")
        self.create("a int32", "a\n1\n2\n", "dir/c.cvn")
        self.write("dir/b.cvn", "bad")
        done = self.run_cvn("info", "dir", status=1)
        self.assertEqual(1, done.err.count("\n"), done.err)
        self.assertIn("cvn: dir/b.cvn: ", done.err)
        self.assertIn("dir/a.cvn: 1 row, 1 row group, 1 column, ", done.out)
        self.assertIn("dir/c.cvn: 2 rows, 1 row group, 1 column, ", done.out)
        self.assertIn("dir: 2 files (and 1 left out), 3 rows, 2 row groups, ", done.out)
        info = json.loads(self.run_cvn("info", "dir", "--json", status=1).out)
        self.assertEqual(["dir/a.cvn", "dir/c.cvn"], [f["path"] for f in info["files"]])

    def test_row_counts_that_add_up_to_too_much_name_the_file(self):
        os.mkdir(self.path("dir"))
        data = bytearray(self.load("t.cvn"))
        at = len(data) - 16 - int.from_bytes(data[-16:-8], "little") + 8
        data[at:at + 8] = (2**63 - 1).to_bytes(8, "little")
        for name in ("dir/a.cvn", "dir/b.cvn"):
            self.write(name, bytes(data))
        done = self.run_cvn("info", "dir", status=1)
        self.assertIn("dir: 1 file (and 1 left out), 9,223,372,036,854,775,807 rows, ", done.out)
        self.assertEqual("cvn: dir/b.cvn: with what it claims the totals exceed 64 bits; 'cvn verify' tells more\n",
                         done.err)
        info = json.loads(self.run_cvn("info", "dir", "--json", status=1).out)
        self.assertEqual((["dir/a.cvn"], 2**63 - 1), ([f["path"] for f in info["files"]], info["rows"]))
        self.run_cvn("verify", "dir", status=1)

    def test_a_file_that_claims_endless_rows_is_told_at_once(self):
        data = cvnfile.build([Column(b"id", cvnfile.INT64)], [], nrow=2**62).data
        self.assertEqual(312, len(data))
        self.write("huge.cvn", data)
        self.assertIn("huge.cvn: 4,611,686,018,427,387,904 rows, 0 row groups, 1 column",
                      self.run_cvn("info", "huge.cvn").out)
        self.assertEqual("id\n", self.cat("huge.cvn"))
        self.run_cvn("verify", "huge.cvn", status=1)

    def test_a_directory_of_files_is_one_table(self):
        os.mkdir(self.path("entity"))
        self.create("a int32", "a\n1\n2\n", "entity/p0.cvn")
        self.create("a int32", "a\n3\n", "entity/p1.cvn")
        self.assertEqual("a\n1\n2\n3\n", self.cat("entity"))
        self.assertEqual("a\n2\n3\n", self.cat("entity", "--where", "a > 1"))
        self.assertEqual("a\n1\n2\n3\n"[:6], self.cat("entity", "--limit", "2"))
        info = self.info("entity")
        self.assertEqual((3, 2), (info["rows"], len(info["files"])))
        self.assertIn("2 files, 3 rows", self.run_cvn("info", "entity").out)
        self.create("a int64", "a\n3\n", "entity/p2.cvn")
        self.assertIn("is int64, in the files before it int32", self.run_cvn("cat", "entity", status=1).err)

    def test_files_that_are_none_are_told_apart(self):
        self.write("short.cvn", "abc")
        self.write("text.cvn", "this is some text and no data file")
        self.assertIn("not a colvane file", self.run_cvn("cat", "text.cvn", status=1).err)
        self.run_cvn("info", "short.cvn", status=1)
        self.assertIn("No such file", self.run_cvn("cat", "none.cvn", status=1).err)
        os.mkdir(self.path("empty"))
        self.assertIn("no file here", self.run_cvn("cat", "empty", status=1).err)

    def test_a_reader_that_stops_ends_it_quietly(self):
        self.create("a int64", "a\n" + "".join("%d\n" % i for i in range(200000)), "long.cvn")
        proc = subprocess.Popen([CVN, "cat", self.path("long.cvn")], stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.assertEqual(b"a\n", proc.stdout.readline())
        proc.stdout.close()
        self.assertEqual(b"", proc.stderr.read())
        self.assertEqual(0, proc.wait(60))
        proc.stderr.close()

    def test_output_that_cannot_be_written_is_a_failure(self):
        with open("/dev/full", "wb") as full:
            done = subprocess.run([CVN, "cat", self.path("t.cvn")], stdout=full, stderr=subprocess.PIPE, timeout=60)
        self.assertEqual(1, done.returncode)
        self.assertIn(b"No space left", done.stderr)

    def test_help_and_version_succeed_and_wrong_usage_is_two(self):
        for args in (["--help"], ["create", "--help"], ["cat", "--help"], ["info", "-h"], ["verify", "-h"],
                     ["split", "-h"]):
            self.assertIn("cvn ", self.run_cvn(*args).out)
        self.assertIn("Example", self.run_cvn("create", "--help").out)
        self.assertRegex(self.run_cvn("--version").out, r"^cvn \d+\.\d+\.\d+\n$")
        for args in ([], ["bogus"], ["cat"], ["cat", "t.cvn", "--bogus"], ["cat", "t.cvn", "--limit", "-1"],
                     ["create"]):
            self.assertIn("--help", self.run_cvn(*args, status=2).err)

    def test_random_tables_with_nulls_come_back_through_python(self):
        rng = random.Random(3)
        text = lambda: "".join(rng.choice('ab,"\n\r é;') for _ in range(rng.randrange(6)))
        rows = [[None if rng.random() < 0.2 else str(rng.randrange(-10**6, 10**6)),
                 None if rng.random() < 0.2 else text(),
                 None if rng.random() < 0.2 else repr(rng.uniform(-1, 1))] for _ in range(3000)]
        quote = lambda v: "" if v is None else '"' + v.replace('"', '""') + '"'
        body = "".join(",".join((r[0] or "", quote(r[1]), r[2] or "")) + "\r\n" for r in rows)
        self.create("i int32, t cstr, d double", "i,t,d\r\n" + body, "r.cvn")
        self.run_cvn("verify", "r.cvn")
        got = list(csv.reader(io.StringIO(self.run_cvn("cat", "r.cvn").stdout.decode(), newline="")))[1:]
        self.assertEqual(len(rows), len(got))
        for want, have in zip(rows, got):
            self.assertEqual([want[0] or "", want[1] or ""], have[:2])
            self.assertEqual(None if want[2] is None else float(want[2]), None if have[2] == "" else float(have[2]))
        texts = [json.loads(line)["t"] for line in self.cat("r.cvn", "--format", "jsonl").splitlines()]
        self.assertEqual([r[1] for r in rows], texts)


if __name__ == "__main__":
    unittest.main()
