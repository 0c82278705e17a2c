#!/usr/bin/env python3
"""cvn create: CSV in every form, every mistake with its place, and nothing left behind by a failure."""
import os
import pty
import random
import resource
import select
import shlex
import signal
import subprocess
import time
import unittest

from support import CVN, ToolTest


def no_core():
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))


class Create(ToolTest):
    ALL = ("b bool, i2 int16, i4 int32, i8 int64, i16 int128, f float, d double, y bytea, t cstr, d8 dec64, "
           "d16 dec128, day date, tod time_millis, ts timestamp_millis")
    HEAD = "b,i2,i4,i8,i16,f,d,y,t,d8,d16,day,tod,ts\n"
    ROWS = ('true,-32768,2147483647,-9223372036854775808,170141183460469231731687303715884105727,0.1,-0,'
            '\\x00ff,"a,""b""\n\r\n",17.00,1E-30,1969-12-31,23:59:59.999,2024-01-31T12:30:00.001Z\n'
            ',,,,,,,,,,,,,\n'
            'false,0,0,0,-1,NaN,inf,\\x,"",-0.0,0,0000-01-01,00:00:00,1969-12-31T23:59:59Z\n')

    def test_every_type_comes_back_as_it_was(self):
        self.create(self.ALL, self.HEAD + self.ROWS)
        self.run_cvn("verify", "t.cvn")
        done = self.run_cvn("cat", "t.cvn")
        self.assertEqual((self.HEAD + self.ROWS).encode(), done.stdout)

    def test_what_cat_prints_makes_the_same_file_again(self):
        self.create(self.ALL, self.HEAD + self.ROWS)
        self.write("again.csv", self.run_cvn("cat", "t.cvn").stdout)
        self.run_cvn("create", "--schema", self.ALL, "again.cvn", "again.csv")
        with open(self.path("t.cvn"), "rb") as a, open(self.path("again.cvn"), "rb") as b:
            self.assertEqual(a.read(), b.read())

    def test_header_columns_may_come_in_any_order(self):
        self.create("a int32, b cstr", "b,a\nx,1\n")
        self.assertEqual("a,b\n1,x\n", self.cat())

    def test_no_header_takes_columns_by_position(self):
        self.create("a int32, b cstr", "1,x\n2,y\n", "t.cvn", "--no-header")
        self.assertEqual("a,b\n1,x\n2,y\n", self.cat())

    def refused(self, *args, csv="", status=1, has=""):
        self.write("in.csv", csv)
        done = self.run_cvn("create", *args, "t.cvn", "in.csv", status=status)
        self.assertIn(has, done.err)
        self.assertEqual(["in.csv"], self.files())
        return done.err

    def test_headers_that_do_not_match_are_refused(self):
        schema = ("--schema", "a int32, b cstr")
        self.refused(*schema, csv="a\n1\n", has="in.csv:1: the header has no column 'b'")
        self.refused(*schema, csv="a,b,c\n1,x,y\n", has="names a column 'c'")
        self.refused(*schema, csv="a,b,a\n1,x,y\n", has="names 'a' twice")
        self.refused(*schema, csv="", has="is empty")

    def test_a_bad_field_names_file_line_column_text_and_type(self):
        err = self.refused("--schema", "a int32, b date", csv='a,b\n1,2024-01-31\n"\n",x\n')
        self.assertIn("in.csv:3: column 'a' (int32): '\\x0a' is not a whole number", err)
        self.refused("--schema", "a int32, b date", csv="a,b\n1,2024-02-30\n",
                     has="in.csv:2: column 'b' (date): '2024-02-30'")
        self.refused("--schema", "a int16", csv="a\n40000\n", has="out of the range of int16")
        self.refused("--schema", "a dec64", csv="a\n1.2345678901234567\n", has="use dec128")
        self.refused("--schema", "a cstr", csv=b"a\nx\0y\n", has="holds a NUL byte")
        self.refused("--schema", "a int32", csv='a\n""\n', has="NULL is an empty field without quotes")

    def test_rows_with_a_wrong_number_of_fields_are_refused(self):
        self.refused("--schema", "a int32, b int32", csv="a,b\n1,2\n3\n",
                     has="in.csv:3: the row has 1 field, but there are 2")
        self.refused("--schema", "a int32, b int32", csv="a,b\n1,2,3\n", has="in.csv:2: the row has 3 fields")

    def test_an_open_quote_is_refused_with_its_line(self):
        self.refused("--schema", "a cstr", csv='a\nx\n"y\nz\n',
                     has="in.csv:3: field 1 begins with a quote that is never closed")

    def test_bad_schemas_are_wrong_usage(self):
        for schema in ("a", "a int65", "a int32,", "a int32, a int32", "", "a int32 -q", '"a int32'):
            self.refused("--schema", schema, csv="a\n1\n", status=2, has="--schema")
        self.refused("--schema", "a int32", "--delimiter", "ab", csv="a\n1\n", status=2, has="--delimiter")
        self.refused("--rows", "0", csv="a\n1\n", status=2, has="--rows")

    def test_null_is_an_empty_field_or_the_given_text(self):
        self.create("a cstr, b cstr", 'a,b\n,""\nNA,"NA"\n')
        self.assertEqual('a,b\n,""\nNA,NA\n', self.cat())
        self.create("a cstr, b cstr", 'a,b\n,""\nNA,"NA"\n', "u.cvn", "--null", "NA")
        self.assertEqual('a,b\n"",""\n,NA\n', self.cat("u.cvn"))
        self.create("a int32", 'a\n-\n\nNA\n7\n', "v.cvn", "--null", "NA", "--null", "-", "--null", "")
        self.assertEqual("a\n\n\n\n7\n", self.cat("v.cvn"))

    def test_delimiters_line_ends_and_marks_of_every_kind_are_read(self):
        for args, csv in ((("--delimiter", "tab"), b"\xef\xbb\xbfa\tb\r\n1\tx\r\n"),
                          (("--delimiter", "\\t"), b"a\tb\n1\tx"),
                          (("--delimiter", ";"), b"a;b\n\n1;x\n\n")):
            self.create("a int32, b cstr", csv, "t.cvn", *args)
            self.assertEqual("a,b\n1,x\n", self.cat())

    def test_several_files_and_standard_input_are_one_table(self):
        self.write("1.csv", "a,b\n1,x\n")
        self.write("2.csv", "b,a\ny,2")
        self.run_cvn("create", "--schema", "a int32, b cstr", "t.cvn", "1.csv", "-", "2.csv", stdin=b"a,b\n3,z\n")
        self.assertEqual("a,b\n1,x\n3,z\n2,y\n", self.cat())
        self.run_cvn("create", "--schema", "a int32", "u.cvn", stdin=b"a\n5\n")
        self.assertEqual("a\n5\n", self.cat("u.cvn"))

    def test_types_are_chosen_from_the_rows_and_printed_for_use(self):
        self.write("in.csv", "id,when,price,name,none\n1,2024-01-31,1.5,007,\n2,,2,x,\n")
        err = self.run_cvn("create", "t.cvn", "in.csv").err
        schema = "id int64, when date, price double, name cstr -z, none cstr -z"
        self.assertIn("--schema '%s'" % schema, err)
        self.run_cvn("create", "--schema", schema, "u.cvn", "in.csv")
        with open(self.path("t.cvn"), "rb") as a, open(self.path("u.cvn"), "rb") as b:
            self.assertEqual(a.read(), b.read())

    def test_a_value_that_contradicts_the_sample_tells_what_to_do(self):
        err = self.refused("--sample", "2", csv="a\n1\n2\nx\n", has="in.csv:4: column 'a' (int64): 'x'")
        self.assertIn("bigger --sample", err)
        self.assertIn("--schema", err)

    def test_rows_cut_the_output_into_files(self):
        self.create("a int32", "a\n" + "".join("%d\n" % i for i in range(7)), "t.cvn", "--rows", "3")
        self.assertEqual(["in.csv", "t.0.cvn", "t.1.cvn", "t.2.cvn"], self.files())
        self.assertEqual([3, 3, 1], [self.info("t.%d.cvn" % i)["rows"] for i in range(3)])
        self.assertEqual("a\n" + "".join("%d\n" % i for i in range(7)), self.cat("."))

    def test_a_failure_leaves_none_of_several_files(self):
        self.refused("--schema", "a int32", "--rows", "1", csv="a\n1\n2\nx\n", has="in.csv:4")

    def test_an_older_series_that_was_longer_is_not_mixed_with_the_new_one(self):
        self.create("a int32", "a\n1\n2\n3\n4\n", "t.cvn", "--rows", "1")
        before = {name: self.load(name) for name in self.files() if name != "in.csv"}
        self.write("in.csv", "a\n8\n9\n")
        err = self.run_cvn("create", "--schema", "a int32", "--rows", "1", "t.cvn", "in.csv", status=1).err
        self.assertIn("cvn: t.2.cvn and 1 more: would stay behind the new series of 2 files", err)
        self.assertIn("nothing was changed", err)
        self.assertEqual(before, {name: self.load(name) for name in self.files() if name != "in.csv"})
        for name in ("t.2.cvn", "t.3.cvn"):
            os.unlink(self.path(name))
        self.run_cvn("create", "--schema", "a int32", "--rows", "1", "t.cvn", "in.csv")
        self.assertEqual("a\n8\n9\n", self.cat("."))

    def test_names_that_only_resemble_a_series_do_not_stand_in_its_way(self):
        for name in ("t.cvn", "t.x.cvn", "t.7.csv", "u.7.cvn", "t.7x.cvn", "t..cvn"):
            self.write(name, "x")
        self.create("a int32", "a\n1\n2\n", "t.cvn", "--rows", "1")
        self.create("a int32", "a\n1\n", "sub.cvn", "--rows", "1")

    def started(self, *names):
        """A series under way whose files exist under temporary names; the older files t.0.cvn ... stand there."""
        for i, name in enumerate(names):
            self.create("a int32", "a\n%d\n" % (100 + i), name)
            os.unlink(self.path("in.csv"))
        proc = subprocess.Popen([CVN, "create", "--schema", "a int32, b int32", "--rows", "1", "t.cvn"],
                                stdin=subprocess.PIPE, stderr=subprocess.PIPE, cwd=self.dir)
        self.addCleanup(proc.stderr.close)
        # Of two columns an empty line is no row: enough of them make it cut those that are.
        proc.stdin.write(b"a,b\n1,1\n2,2\n3,3\n" + b"\n" * (1 << 19))
        proc.stdin.flush()
        end = time.time() + 60
        while not any(".2.cvn" in n for n in self.files() if n.endswith(".tmp")) and time.time() < end:
            time.sleep(0.01)
        return proc

    def finish(self, proc):
        proc.stdin.close()
        return proc.wait(60), proc.stderr.read().decode()

    def test_a_file_that_cannot_be_placed_leaves_the_older_series_whole(self):
        proc = self.started("t.0.cvn", "t.1.cvn")
        before = {name: self.load(name) for name in ("t.0.cvn", "t.1.cvn")}
        temp, = [n for n in self.files() if n.startswith("t.1.cvn.")]
        os.unlink(self.path(temp))  # so that the second rename fails
        status, err = self.finish(proc)
        self.assertEqual((1, "cvn: t.1.cvn: No such file or directory; nothing was changed\n"), (status, err))
        self.assertEqual(before, {name: self.load(name) for name in self.files()})

    def test_a_new_series_that_cannot_be_placed_leaves_nothing(self):
        proc = self.started()
        temp, = [n for n in self.files() if n.startswith("t.2.cvn.")]
        os.unlink(self.path(temp))
        status, err = self.finish(proc)
        self.assertEqual(1, status, err)
        self.assertEqual([], self.files())

    def test_all_names_of_a_series_are_checked_before_the_first_is_taken(self):
        proc = self.started("t.0.cvn")
        before = self.load("t.0.cvn")
        os.mkdir(self.path("t.2.cvn"))
        status, err = self.finish(proc)
        self.assertEqual((1, "cvn: t.2.cvn: exists and is not a regular file\n"), (status, err))
        self.assertEqual(["t.0.cvn", "t.2.cvn"], self.files())
        self.assertEqual(before, self.load("t.0.cvn"))

    def test_a_series_replaces_an_older_one_of_its_length(self):
        status, err = self.finish(self.started("t.0.cvn", "t.1.cvn", "t.2.cvn"))
        self.assertEqual((0, ""), (status, err))
        self.assertEqual(["t.0.cvn", "t.1.cvn", "t.2.cvn"], self.files())
        self.assertEqual("a,b\n1,1\n2,2\n3,3\n", self.cat("."))

    def test_headers_that_are_no_column_names_are_refused_with_their_line(self):
        self.refused(csv=b"a,b\0c,b\0d\n1,2,3\n", has="in.csv:1: the header's column 2, 'b\\x00c', holds a NUL byte")
        self.refused(csv="\n\na,,c\n1,2,3\n", has="in.csv:3: the header's column 2, '', is empty")
        self.refused(csv="a,%s\n1,2\n" % ("n" * 128), has="is longer than 127 bytes")
        self.refused(csv="a,b,a\n1,2,3\n", has="in.csv:1: the header names 'a' twice")

    def test_lines_that_end_in_cr_alone_are_told(self):
        self.refused(csv="a,b\r1,2\r3,4\r",
                     has="in.csv:1: the header row has a carriage return in it; lines must end in LF")
        self.refused("--schema", "a int32", csv="a\r1\r", has="carriage return")
        self.refused("--no-header", "--schema", "a int32, b int32", csv="1,2\r3,4\r", has="do they end in CR alone?")
        self.create("\"a\rb\" int32", '"a\rb"\n1\n')

    def test_a_line_without_end_is_refused_before_memory_is_short(self):
        limit = lambda: resource.setrlimit(resource.RLIMIT_AS, (600 << 20, 600 << 20))
        kw = {} if os.environ.get("ASAN_OPTIONS") or self.is_sanitized() else {"preexec_fn": limit}
        self.write("in.csv", b"a\n" + b"," * (40 << 20))
        err = self.run_cvn("create", "--schema", "a int32", "t.cvn", "in.csv", status=1, **kw).err
        self.assertIn("in.csv:2: the row has more than 1,000,000 fields; is another --delimiter needed?", err)

    def is_sanitized(self):
        with open(CVN, "rb") as f:
            return b"__asan_init" in f.read()

    def test_the_sample_ends_where_its_rows_are_too_large(self):
        big = "x" * (1 << 20)
        self.write("in.csv", "a,t\n" + "".join("%s,%s\n" % (i if i < 66 else "late", big) for i in range(68)))
        err = self.run_cvn("create", "t.cvn", "in.csv", status=1).err
        self.assertIn("cvn: schema chosen from 64 rows:\n", err)
        self.assertIn("in.csv:68: column 'a' (int64): 'late' is not a whole number", err)
        self.assertIn("the type was chosen from the first 64 rows: give --schema\n", err)

    def test_numbers_of_options_are_refused_in_plain_words(self):
        self.write("in.csv", "a\n1\n")
        for args in (("--rows", "0"), ("--rows", "-1"), ("--sample", "1.5"), ("--rows", "x"), ("--sample", "")):
            err = self.run_cvn("create", *args, "t.cvn", "in.csv", status=2).err
            self.assertIn("%s: '%s' is not a whole number above 0\n" % args, err)
        err = self.run_cvn("create", "--rows", "9" * 30, "t.cvn", "in.csv", status=2).err
        self.assertIn("is too large a number", err)
        self.assertIn("--limit: '-1' is not a whole number of at least 0",
                      self.run_cvn("cat", "in.csv", "--limit", "-1", status=2).err)

    def test_no_header_is_a_plain_option_of_the_help(self):
        help_text = self.run_cvn("create", "--help").out
        self.assertIn("--no-header", help_text)
        self.assertNotIn("{false}", help_text)

    def test_a_chosen_schema_is_safe_to_print_and_to_paste(self):
        self.write("in.csv", b"it's,\x1b[31mred\n1,2\n")
        err = self.run_cvn("create", "t.cvn", "in.csv").err
        self.assertNotIn("\x1b", err)
        self.assertIn("one of the names cannot be written so", err)
        self.write("in.csv", "it's,b\n1,2\n")
        err = self.run_cvn("create", "t.cvn", "in.csv").err
        line = [text for text in err.splitlines() if "--schema" in text][0]
        self.assertEqual(["--schema", "it's int64, b int64"], shlex.split(line))

    def test_a_message_that_nobody_reads_is_no_failure(self):
        self.write("in.csv", "a\n1\n")
        with open("/dev/full", "wb") as full:
            done = subprocess.run([CVN, "create", "t.cvn", "in.csv"], stderr=full, cwd=self.dir, timeout=60)
        self.assertEqual(0, done.returncode)
        self.assertEqual("a\n1\n", self.cat())

    def test_the_progress_bar_is_gone_before_a_failure_is_told(self):
        master, slave = pty.openpty()
        proc = subprocess.Popen([CVN, "create", "--schema", "a int32", "t.cvn"], stdin=subprocess.PIPE, stderr=slave,
                                cwd=self.dir)
        os.close(slave)
        seen = b""
        try:
            proc.stdin.write(b"a\n")
            end = time.time() + 60
            while b"rows/s" not in seen and time.time() < end:
                proc.stdin.write(b"1\n" * 200000)
                proc.stdin.flush()
                while select.select([master], [], [], 0)[0]:
                    seen += os.read(master, 65536)
            proc.stdin.write(b"x\n")
            proc.stdin.close()
            while True:
                try:
                    part = os.read(master, 65536)
                except OSError:  # the other side is closed
                    break
                if not part:
                    break
                seen += part
        finally:
            os.close(master)
        self.assertEqual(1, proc.wait(60))
        self.assertRegex(seen, rb"rows/s\x1b\[K\r\x1b\[Kcvn: standard input:")

    def test_a_table_without_rows_is_a_file(self):
        self.create("a int32, b cstr", "a,b\n")
        self.assertEqual("a,b\n", self.cat())
        self.run_cvn("verify", "t.cvn")

    def test_a_file_that_is_no_data_file_is_not_replaced(self):
        self.write("in.csv", "a\n1\n")
        self.write("precious.csv", "x\n2\n")
        self.assertIn("not replaced", self.run_cvn("create", "precious.csv", "in.csv", status=1).err)
        with open(self.path("precious.csv")) as f:
            self.assertEqual("x\n2\n", f.read())

    def test_missing_input_and_directories_are_failures(self):
        self.assertIn("none.csv: No such file", self.run_cvn("create", "t.cvn", "none.csv", status=1).err)
        self.assertIn("is a directory", self.run_cvn("create", "t.cvn", ".", status=1).err)
        self.assertEqual([], self.files())

    def test_an_older_file_stays_when_the_new_one_fails(self):
        self.create("a int32", "a\n1\n")
        self.write("bad.csv", "a\nx\n")
        self.run_cvn("create", "--schema", "a int32", "t.cvn", "bad.csv", status=1)
        self.assertEqual("a\n1\n", self.cat())

    def test_a_full_disk_is_a_failure_that_leaves_nothing(self):
        rng = random.Random(1)
        self.write("in.csv", "a\n" + "".join("%d\n" % rng.getrandbits(62) for _ in range(20000)))
        limit = lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (50000, 50000))
        done = self.run_cvn("create", "--schema", "a int64", "t.cvn", "in.csv", status=1, preexec_fn=limit)
        self.assertIn("File too large", done.err)
        self.assertEqual(["in.csv"], self.files())

    def test_an_interrupt_removes_what_is_unfinished(self):
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP, signal.SIGQUIT):
            proc = subprocess.Popen([CVN, "create", "--schema", "a int32", self.path("t.cvn")], stdin=subprocess.PIPE,
                                    stderr=subprocess.PIPE, preexec_fn=no_core)
            proc.stdin.write(b"a\n" + b"1\n" * 400000)
            proc.stdin.flush()
            end = time.time() + 60
            while not self.files() and time.time() < end:
                time.sleep(0.01)
            self.assertTrue(self.files())
            proc.send_signal(number)
            self.assertEqual(-number, proc.wait(60))
            proc.stdin.close()
            self.assertEqual(b"", proc.stderr.read())
            proc.stderr.close()
            self.assertEqual([], self.files())

    def test_a_temporary_file_of_somebody_else_is_left_alone(self):
        self.write("in.csv", "a\n1\n")

        def squat():  # the process has its id already
            with open(self.path("t.cvn.%d.0.tmp" % os.getpid()), "w") as f:
                f.write("precious")

        self.run_cvn("create", "--schema", "a int32", "t.cvn", "in.csv", preexec_fn=squat)
        temp, = [name for name in self.files() if name.endswith(".tmp")]
        self.assertEqual(b"precious", self.load(temp))
        self.assertEqual("a\n1\n", self.cat())

    def test_nothing_is_drawn_into_pipes(self):
        self.assertEqual("", self.create("a int32", "a\n1\n").err)


if __name__ == "__main__":
    unittest.main()
