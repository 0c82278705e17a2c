#!/usr/bin/env python3
"""cvn ls, put, rm and meta against a running daemon."""
import json
import os
import threading
import unittest

import cvnfile
from cvnfile import Column
from fake_server import FakeServer, receive_head
from remote_support import CommandTest, DaemonTest
from replies import json_reply


class Ls(DaemonTest):
    def setUp(self):
        super().setUp()
        self.create("id int32, name cstr", "id,name\n1,a\n2,b\n3,\n")
        self.put("t.cvn", "db/sc/t")
        self.put("t.cvn", "db/sc/a")

    def test_each_depth_lists_what_is_below_it(self):
        self.put("t.cvn", "other/x/y")
        self.assertEqual("db\nother\n", self.out("ls", self.base))
        self.assertEqual("sc\n", self.out("ls", self.base + "/db"))
        self.assertEqual("a\nt\n", self.out("ls", self.base + "/db/sc/"))
        self.assertEqual({"name": "a"}, json.loads(self.out("ls", "db/sc", "--format", "jsonl").splitlines()[0]))
        self.assertEqual("column  type\n------  -----\nid      int32\nname    cstr\n", self.out("ls", "db/sc/t/t.cvn"))

    def test_a_table_shows_the_totals_of_its_files(self):
        whole = cvnfile.read(self.load("t.cvn"))
        row = json.loads(self.out("ls", "db/sc/t", "--format", "jsonl"))
        self.assertEqual({"name": "t.cvn", "columns": 2, "rows": 3, "row_groups": 1, "stored_bytes": whole.zbyte,
                          "raw_bytes": whole.nbyte}, row)
        self.assertEqual(["name", "t.cvn"], [line.split()[0] for line in self.out("ls", "db/sc/t").splitlines()[::2]])

    def test_http_urls_name_the_same_places(self):
        http = self.base.replace("kelp://", "http://")
        self.assertEqual("db\n", self.out("ls", http))
        self.assertEqual("a\nt\n", self.out("ls", http + "/v1/db/sc"))

    def test_kelpd_url_is_where_paths_begin(self):
        env = {**self.environment(), "KELPD_URL": self.base + "/db"}
        self.assertEqual("sc\n", self.out("ls", env=env))
        self.assertEqual("a\nt\n", self.out("ls", "sc", env=env))
        self.assertEqual("sc\n", self.out("ls", "/db", env=env))
        env["KELPD_URL"] = self.base.replace("kelp://", "http://") + "/v1/db/sc/t"
        self.assertEqual("3\n", self.out("count", env=env))
        del env["KELPD_URL"]
        self.assertIn("set KELPD_URL", self.fails("ls", "db", status=2, env=env))
        self.assertIn("a URL is missing", self.fails("ls", status=2, env=env))
        env["KELPD_URL"] = "kelp://127.0.0.1"
        self.assertIn("KELPD_URL: ", self.fails("ls", status=2, env=env))

    def test_what_is_not_there_is_an_error_that_tells_where_to_look(self):
        http = self.base.replace("kelp://", "http://")
        err = self.fails("ls", "nowhere")
        self.assertIn("404 Not Found", err)
        self.assertIn(f"'cvn ls {http}/v1'", err)
        self.assertIn(f"'cvn ls {http}/v1/db/sc/t'", self.fails("ls", "db/sc/t/nofile.cvn"))

    def test_names_that_need_escapes_in_a_url_are_found(self):
        self.put("t.cvn", "db/a%20b/t")
        self.assertEqual("a b\nsc\n", self.out("ls", "db"))
        self.assertEqual("t\n", self.out("ls", "db/a%20b"))

    def test_meta_adds_up_mismatched_files_too_and_count_does_not(self):
        self.cvn("put", "t.cvn", "db/sc/t/u.cvn.mismatch")
        self.assertEqual("rows        6\nrow groups  2\n", self.out("meta", "db/sc/t"))
        self.assertEqual("3\n", self.out("count", "db/sc/t"))
        self.assertIn("is not a table", self.fails("meta", "db/sc", status=2))
        self.assertIn("404 Not Found", self.fails("meta", "db/sc/none"))


class Put(DaemonTest):
    def setUp(self):
        super().setUp()
        self.create("id int32", "id\n1\n2\n", "a.cvn")
        self.create("id int32", "id\n3\n", "b.cvn")

    def test_files_arrive_as_they_are_under_their_own_names(self):
        out = self.out("put", "a.cvn", self.path("b.cvn"), "db/sc/t")
        self.assertEqual(["db/", "db/sc/", "db/sc/t/", "db/sc/t/a.cvn", "db/sc/t/b.cvn"], self.daemon.tree())
        for name in ("a.cvn", "b.cvn"):
            self.assertEqual(self.load(name), self.daemon.load("db/sc/t/" + name))
        self.assertEqual(2, len(out.splitlines()))
        self.assertIn("a.cvn: 2 rows", out)

    def test_a_url_of_four_parts_names_the_file(self):
        self.cvn("put", "a.cvn", "db/sc/t/x.cvn")
        self.assertEqual(["x.cvn"], [n.split("/")[-1] for n in self.daemon.tree() if n.endswith(".cvn")])
        self.cvn("put", "b.cvn", "db/sc/t/x.cvn")
        self.assertEqual("1\n", self.out("count", "db/sc/t"))
        self.assertIn("names one file", self.fails("put", "a.cvn", "b.cvn", "db/sc/t/x.cvn", status=2))

    def test_all_files_are_put_although_nobody_reads_about_it(self):
        self.assertEqual("", self.run_unread("put", "a.cvn", "b.cvn", "db/sc/t", env=self.environment()))
        self.assertEqual("3\n", self.out("count", "db/sc/t"))
        self.assertEqual("", self.run_unread("rm", "--yes", "db/sc/t/a.cvn", env=self.environment()))
        self.assertEqual("1\n", self.out("count", "db/sc/t"))

    def test_files_alone_go_into_the_table_of_kelpd_url(self):
        env = {**self.environment(), "KELPD_URL": self.base + "/db/sc/t"}
        self.assertIn("a.cvn: 2 rows, ", self.out("put", "a.cvn", env=env))
        self.assertIn("b.cvn: 1 row, ", self.out("put", "b.cvn", "a.cvn", env=env).splitlines()[0])
        self.assertEqual("3\n", self.out("count", env=env))
        self.cvn("put", "a.cvn", "c.cvn", env=env)
        self.assertEqual("5\n", self.out("count", env=env))
        self.assertIn("is not a table", self.fails("put", "a.cvn", status=2))
        self.assertIn("put takes files", self.fails("put", "none.cvn", status=2, env=env))
        del env["KELPD_URL"]
        self.assertIn("a URL is missing", self.fails("put", "a.cvn", status=2, env=env))

    def test_nothing_is_sent_when_one_file_is_damaged(self):
        data = bytearray(self.load("b.cvn"))
        data[8] ^= 1
        self.write("b.cvn", bytes(data))
        err = self.fails("put", "a.cvn", "b.cvn", "db/sc/t")
        self.assertIn("b.cvn: row group 0, column 'id': its hash is", err)
        self.assertIn("'cvn verify b.cvn'", err)
        self.assertEqual([], self.daemon.tree())
        self.write("b.cvn", bytes(data[:-20]))
        self.assertIn("nothing was uploaded", self.fails("put", "b.cvn", "db/sc/t"))
        self.assertEqual([], self.daemon.tree())

    def test_what_is_no_data_file_is_refused(self):
        self.write("c.cvn", "id\n1\n")
        self.assertIn("c.cvn", self.fails("put", "c.cvn", "db/sc/t"))
        os.mkdir(self.path("d.cvn"))
        self.assertIn("is a directory", self.fails("put", "d.cvn", "db/sc/t"))
        self.assertIn("No such file", self.fails("put", "e.cvn", "db/sc/t"))
        self.assertIn("end the name in .cvn", self.fails("put", "a.cvn", "db/sc/t/a.dat"))
        self.assertIn("is called 'a.cvn' too", self.fails("put", "a.cvn", "./a.cvn", "db/sc/t"))
        self.assertIn("is not a table", self.fails("put", "a.cvn", "db/sc", status=2))
        self.fails("put", "a.cvn", status=2)
        self.assertEqual([], self.daemon.tree())

    def test_a_refusal_by_the_server_is_told_in_its_words(self):
        os.rename(self.daemon.path("base"), self.daemon.path("away"))
        try:
            err = self.fails("put", "a.cvn", "db/sc/t")
        finally:
            os.rename(self.daemon.path("away"), self.daemon.path("base"))
        self.assertIn("db/sc/t/a.cvn: ", err)
        self.assertIn("500 Internal Server Error; look into the server's log", err)


class PutColumns(DaemonTest):
    """put compares the columns of what it sends with those of what stays in the table."""

    def setUp(self):
        super().setUp()
        self.create("id int32, day date", "id,day\n1,2024-01-31\n2,\n", "a.cvn")
        self.create("id int32, day date", "id,day\n3,\n", "b.cvn")
        self.create("id int64, day date", "id,day\n4,\n", "type.cvn")
        self.create("id int32", "id\n5\n", "less.cvn")
        self.create("id int32, day date, note cstr", "id,day,note\n6,,x\n", "more.cvn")
        self.create("day date, id int32", "day,id\n,7\n", "order.cvn")

    def refused(self, text, *args):
        """A put that is refused for `text` and leaves the table as it was."""
        before = self.daemon.tree()
        err = self.fails("put", *args)
        self.assertEqual(f"cvn: {text}; all files of a table have the same columns, so nothing was uploaded; "
                         "--force puts files all the same\n", err)
        self.assertEqual(before, self.daemon.tree())

    def test_every_difference_is_named(self):
        self.put("a.cvn")
        self.refused("column 'id' is of type int64 in type.cvn, but of type int32 in db/sc/t/a.cvn",
                     "type.cvn", "db/sc/t")
        self.refused("less.cvn has no column 'day' (date), but db/sc/t/a.cvn has", "less.cvn", "db/sc/t")
        self.refused("more.cvn has a column 'note' (cstr), but db/sc/t/a.cvn has not", "more.cvn", "db/sc/t")
        self.refused("column 1 is 'day' in order.cvn, but 'id' in db/sc/t/a.cvn", "order.cvn", "db/sc/t/new.cvn")
        self.put("b.cvn")
        self.assertEqual("3\n", self.out("count", "db/sc/t"))

    def test_force_puts_them_all_the_same(self):
        self.put("a.cvn")
        self.cvn("put", "--force", "type.cvn", "less.cvn", "db/sc/t")
        self.assertEqual("4\n", self.out("count", "db/sc/t"))
        err = self.fails("count", "db/sc/t", "--where", "day is null")
        self.assertRegex(err, r"^cvn: db/sc/t: .*(less|a|type)\.cvn.*; remove that file, or replace it by one with the "
                         r"table's columns\n$")

    def test_one_request_of_the_first_file_is_all_that_a_large_table_costs(self):
        for k in range(30):
            self.daemon.store(f"db/sc/t/{k}.cvn", self.load("a.cvn"))
        self.daemon.take_log()
        self.put("b.cvn")
        self.daemon.await_idle()
        lines = self.daemon.take_log().splitlines()
        self.assertEqual(["GET /v1 -> 200 OK", "GET /v1/db/sc/t -> 200 OK"], lines[:2])
        self.assertRegex(lines[2], r"^GET /v1/db/sc/t/\d+\.cvn -> 200 OK$")
        self.assertEqual(["PUT /v1/db/sc/t/b.cvn -> 200 OK"], lines[3:])

    def test_the_only_file_may_be_replaced_by_one_with_other_columns(self):
        self.put("a.cvn")
        self.cvn("put", "type.cvn", "db/sc/t/a.cvn")
        self.assertEqual(["column,type", "id,int64", "day,date"],
                         self.out("ls", "db/sc/t/a.cvn", "--format", "csv").splitlines())
        self.cvn("put", "less.cvn", "db/sc/t/a.cvn")
        self.cvn("put", "--force", "b.cvn", "db/sc/t")
        self.refused("less.cvn has no column 'day' (date), but db/sc/t/b.cvn has", "less.cvn", "db/sc/t/a.cvn")

    def test_all_files_may_be_replaced_in_one_put(self):
        self.put("a.cvn")
        self.put("b.cvn")
        self.create("x bool", "x\n1\n", "a.cvn")
        self.refused("a.cvn has no column 'id' (int32), but db/sc/t/b.cvn has", "a.cvn", "db/sc/t")
        self.create("x bool", "x\n0\n", "b.cvn")
        self.cvn("put", "a.cvn", "b.cvn", "db/sc/t")
        self.assertEqual(["false", "true"], self.rows("db/sc/t"))

    def test_files_of_one_put_are_compared_with_each_other(self):
        self.refused("column 'id' is of type int64 in type.cvn, but of type int32 in a.cvn",
                     "a.cvn", "b.cvn", "type.cvn", "db/sc/t")
        self.refused("less.cvn has no column 'day' (date), but a.cvn has", "a.cvn", "less.cvn", "b.cvn", "db/sc/t")
        self.assertEqual([], self.daemon.tree())
        self.put("a.cvn")
        self.refused("less.cvn has no column 'day' (date), but db/sc/t/a.cvn has", "b.cvn", "less.cvn", "db/sc/t")

    def test_files_that_are_set_aside_need_not_fit(self):
        self.put("a.cvn")
        self.cvn("put", "less.cvn", "db/sc/t/less.cvn.mismatch")
        self.cvn("put", "type.cvn", "db/sc/t/a.cvn")
        self.assertEqual("1\n", self.out("count", "db/sc/t"))

    def test_a_table_whose_columns_cannot_be_read_takes_files_by_force_alone(self):
        odd = cvnfile.build([Column(b'x": [', cvnfile.INT32)], [[[1]]])
        self.daemon.store("db/sc/t/odd.cvn", odd.data)
        err = self.fails("put", "a.cvn", "db/sc/t")
        self.assertRegex(err, r"^cvn: .* is no catalogue; its columns cannot be compared; --force puts files all the "
                         r"same\n$")
        self.assertEqual(["db/", "db/sc/", "db/sc/t/", "db/sc/t/odd.cvn"], self.daemon.tree())
        self.cvn("put", "--force", "a.cvn", "db/sc/t")
        self.assertEqual("3\n", self.out("count", "db/sc/t"))


class Misfit(DaemonTest):
    """A table whose files differ: what fails of it names the file."""

    def setUp(self):
        super().setUp()
        self.create("id int32, day date", "id,day\n1,2024-01-31\n", "a.cvn")
        self.create("id int32", "id\n2\n", "b.cvn")
        self.put("a.cvn")
        self.cvn("put", "--force", "b.cvn", "db/sc/t")

    def test_every_command_that_scans_names_both_files(self):
        # The columns of a table are those of the file that its directory lists first.
        late = (r"b\.cvn has no column 'day' \(date\), but a\.cvn has \(.* 400 Bad Request\); remove that file, or "
                r"replace it by one with the table's columns")
        early = r"there is no column day \(a\.cvn has a column 'day' \(date\), but b\.cvn has not\); the table has id"
        for args in (("query", "db/sc/t", "--columns", "day"),
                     ("query", "db/sc/t", "--columns", "id,day", "-o", "o.csv"),
                     ("get", "db/sc/t", "o.cvn", "--columns", "day")):
            self.assertRegex(self.cvn(*args, status=1).err, f"^cvn: db/sc/t: ({late}|{early})\n$")
        self.assertNotIn("o.csv", self.files())
        self.assertNotIn("o.cvn", self.files())
        # Conditions are read by the columns of the first file alone.
        for args in (("count", "db/sc/t", "--where", "day > 2020-01-01"),
                     ("query", "db/sc/t", "--columns", "id", "--where", "day is null")):
            self.assertRegex(self.cvn(*args, status=1).err,
                             f"^cvn: db/sc/t: ({late}|there is no column 'day'; the table has id)\n$")

    def test_what_all_files_have_can_be_read(self):
        self.assertEqual(["1", "2"], self.rows("db/sc/t", "--columns", "id"))

    def test_a_type_that_differs_is_named_with_both_files(self):
        self.create("id int64", "id\n2\n", "b.cvn")
        self.cvn("put", "--force", "b.cvn", "db/sc/t")
        self.assertRegex(self.cvn("query", "db/sc/t", "--columns", "id", status=1).err,
                         r"^cvn: db/sc/t: column 'id' is of type (int64 in b\.cvn, but of type int32 in a|int32 in "
                         r"a\.cvn, but of type int64 in b)\.cvn \(.*\); remove that file, or replace it by one with the "
                         r"table's columns\n$")


class PutProgress(CommandTest):
    def test_a_bar_is_drawn_on_a_terminal(self):
        self.build("big.cvn", [Column(b"a", cvnfile.BYTEA)], [[[os.urandom(3 << 20)]] for _ in range(6)])
        drawn = threading.Event()

        def serve(conn):
            method, _, rest = receive_head(conn)
            if method == "GET":
                conn.sendall(json_reply("[]"))
                return
            left = os.path.getsize(self.path("big.cvn")) - len(rest)
            drawn.wait(1)  # nothing sets it: the client has time to see that its buffers are full
            while left > 0:
                left -= len(conn.recv(1 << 20)) or left
            conn.sendall(b"HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n")

        server = FakeServer(serve, rcvbuf=65536)
        self.addCleanup(server.close)
        status, out, seen = self.on_terminal("put", "big.cvn", f"kelp://127.0.0.1:{server.port}/db/sc/t")
        self.assertEqual((0, 1), (status, out.count("\n")), (out, seen))
        self.assertRegex(seen, r"\[#+\.*\] +\d+%  [\d.]+ MB of 18\.9 MB, [\d.]+ [kM]?B/s")
        self.assertTrue(seen.endswith("\r\x1b[K"), seen[-80:])


class PutFile(CommandTest):
    def test_a_file_that_shrinks_while_it_is_sent_is_named(self):
        self.build("big.cvn", [Column(b"a", cvnfile.BYTEA)], [[[os.urandom(3 << 20)]] for _ in range(6)])

        def serve(conn):
            method, _, _ = receive_head(conn)
            if method == "GET":
                conn.sendall(json_reply("[]"))
                return
            os.truncate(self.path("big.cvn"), 100)
            while conn.recv(1 << 20):
                pass

        server = FakeServer(serve, rcvbuf=65536)
        self.addCleanup(server.close)
        err = self.fails("put", "big.cvn", f"kelp://127.0.0.1:{server.port}/db/sc/t")
        self.assertIn("cvn: big.cvn: cannot read the file to upload", err)


class Rm(DaemonTest):
    def setUp(self):
        super().setUp()
        self.create("id int32", "id\n1\n2\n")
        self.put("t.cvn", "db/sc/t")
        self.put("t.cvn", "db/sc/u")

    def test_every_depth_can_be_removed(self):
        self.assertEqual("removed the file 'db/sc/u/t.cvn'\n", self.out("rm", "--yes", "db/sc/u/t.cvn"))
        self.assertEqual("removed the table 'db/sc/t' with 1 file and 2 rows\n", self.out("rm", "-y", "db/sc/t"))
        self.assertEqual(["db/", "db/sc/", "db/sc/u/"], self.daemon.tree())
        self.assertEqual("removed the schema 'db/sc' with 1 table\n", self.out("rm", "-y", "db/sc"))
        self.assertEqual("removed the database 'db' with 0 schemas\n", self.out("rm", "-y", "db"))
        self.assertEqual([], self.daemon.tree())

    def test_without_a_terminal_it_wants_yes(self):
        self.assertIn("--yes", self.fails("rm", "db/sc/t", status=2))
        self.assertIn("db/sc/t/t.cvn", self.daemon.tree())

    def test_on_a_terminal_it_asks(self):
        for answer in (b"n\n", b"\n", b"yellow\n", b"\x04"):
            status, out, seen = self.on_terminal("rm", "db/sc/t", answer=answer)
            self.assertEqual((1, ""), (status, out))
            self.assertIn("remove the table 'db/sc/t' with 1 file and 2 rows? [y/N]", seen)
            self.assertIn("cvn: nothing was removed", seen)
            self.assertIn("db/sc/t/t.cvn", self.daemon.tree())
        for table, answer in (("t", b"y\n"), ("u", b"YES\n")):
            status, out, seen = self.on_terminal("rm", "db/sc/" + table, answer=answer)
            self.assertEqual((0, f"removed the table 'db/sc/{table}' with 1 file and 2 rows\n"), (status, out))
        self.assertEqual(["db/", "db/sc/"], self.daemon.tree())

    def test_a_file_that_the_server_cannot_read_is_removed_all_the_same(self):
        self.daemon.store("db/sc/t/bad.cvn", b"bad")
        self.cvn("rm", "--yes", "db/sc/t/bad.cvn")
        self.assertNotIn("db/sc/t/bad.cvn", self.daemon.tree())

    def test_what_the_server_cannot_list_in_json_is_removed_all_the_same(self):
        odd = cvnfile.build([Column(b'x": [', cvnfile.INT32)], [[[1]]])
        self.daemon.store("db/sc/t/odd.cvn", odd.data)
        self.assertIn("is no catalogue", self.fails("ls", "db/sc/t/odd.cvn"))
        self.assertEqual("removed the file 'db/sc/t/odd.cvn'\n", self.out("rm", "--yes", "db/sc/t/odd.cvn"))
        self.daemon.store('db/sc/t/a",.cvn', odd.data)
        self.assertIn("is no catalogue", self.fails("ls", "db/sc/t"))
        self.assertEqual("removed the table 'db/sc/t'\n", self.out("rm", "--yes", "db/sc/t"))
        self.assertEqual(["db/", "db/sc/", "db/sc/u/", "db/sc/u/t.cvn"], self.daemon.tree())

    def test_what_is_not_there_is_an_error(self):
        for place in ("no", "db/no", "db/sc/no", "db/sc/t/no.cvn"):
            self.assertIn("404 Not Found", self.fails("rm", "--yes", place))
        self.assertIn("is not anything that can be removed", self.fails("rm", "--yes", self.base, status=2))
        self.assertIn("db/sc/t/t.cvn", self.daemon.tree())


class Counts(CommandTest):
    def test_counts_beyond_64_bits_are_no_crash(self):
        huge = 2**63 - 1
        item = ('{"name": "%%s.cvn", "chksum": 1, "ncol": 1, "nrow": %d, "nrowgroup": %d, "nbyte": %d, "zbyte": %d}' %
                ((huge,) * 4))
        listing = "[ %s, %s ]" % (item % "a", item % "b")

        def serve(conn):
            method, path, _ = receive_head(conn)
            text = "" if method == "DELETE" else listing if path.endswith("/t") else "[]"
            conn.sendall(json_reply(text))

        server = FakeServer(serve)
        self.addCleanup(server.close)
        out = self.out("rm", "--yes", f"kelp://127.0.0.1:{server.port}/db/sc/t")
        self.assertEqual(f"removed the table 'db/sc/t' with 2 files and {huge:,} rows\n", out)


if __name__ == "__main__":
    unittest.main()
