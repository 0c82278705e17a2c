"""The commands "sample" and "meta". The sampler is a program of the test's own, found through PATH."""
import errno
import json
import os
import resource
import shutil
import struct
import tempfile
import unittest

import cvnfile
import kelpd_proc
from cvnfile import Column
from kelpd_proc import until
from wirecase import STREAM, STREAM_END, WireCase, error, listed, post, put, small_file, stream, url_of

URL = "/v1/d/s/e"
INVALID = "400 Bad Request - invalid content"

# Notes its arguments, each with a NUL after it, then does what the file "act" says.
SAMPLER = """#!/bin/sh
printf '%s\\0' "$@" > "$SAMPLER_DIR/seen"
. "$SAMPLER_DIR/act"
"""


def command(*words, url=URL):
    return post(url, json.dumps({"command": list(words)}))


class SampleCase(WireCase):
    """A daemon whose PATH leads to the sampler. What the sampler does is set by `act`, in the shell's words."""

    @classmethod
    def setUpClass(cls):
        cls.home = tempfile.mkdtemp(prefix="kelpd-wire-")
        cls.addClassCleanup(shutil.rmtree, cls.home)
        with open(os.path.join(cls.home, "cvnsamp"), "w", encoding="ascii") as f:
            f.write(SAMPLER)
        os.chmod(os.path.join(cls.home, "cvnsamp"), 0o755)
        cls.daemon_arguments = {"env": {"PATH": cls.home + ":" + os.environ.get("PATH", "/usr/bin:/bin"),
                                        "SAMPLER_DIR": cls.home}}
        super().setUpClass()

    def setUp(self):
        super().setUp()
        self.seen_path = os.path.join(self.home, "seen")
        if os.path.exists(self.seen_path):
            os.unlink(self.seen_path)
        self.sample = small_file(first=5, ngroup=2)
        with open(os.path.join(self.home, "sample"), "wb") as f:
            f.write(self.sample.data)
        self.act('cat "$SAMPLER_DIR/sample"')

    def act(self, script):
        with open(os.path.join(self.home, "act"), "w", encoding="utf-8") as f:
            f.write(script + "\n")

    @staticmethod
    def open_gate(gate):
        """Lets the sampler go on that waits for a line from the named pipe `gate`, once it waits there."""
        def attempt():
            try:
                return os.fdopen(os.open(gate, os.O_WRONLY | os.O_NONBLOCK), "w", encoding="ascii")
            except OSError as problem:
                if problem.errno != errno.ENXIO:  # nobody reads yet
                    raise
                return None
        with until(attempt, "the sampler to wait at the gate") as f:
            f.write("\n")

    def seen(self):
        """The arguments that the sampler got, or None when it was not run."""
        try:
            with open(self.seen_path, "rb") as f:
                return [os.fsdecode(word) for word in f.read().split(b"\0")[:-1]]
        except FileNotFoundError:
            return None

    def store(self, *names):
        for name in names:
            self.kelpd.store("d/s/e/" + name, small_file().data)

    def sampled(self, whole=None):
        """The reply that carries every row group of a sample with all its columns."""
        whole = whole or self.sample
        names = [column.name for column in whole.columns]
        return stream(*(whole.record(k, *names) for k in range(len(whole.groups))))

    def check_failed(self, raw=None, *lines):
        """The reply stops after its head, as it does when there is no readable sample."""
        self.check(raw or command("sample", "5"), STREAM, *lines, f"POST {URL} -> 200 OK")


class Sample(SampleCase):
    def test_the_sample_is_streamed_with_all_its_columns(self):
        self.store("p.cvn")
        self.check_ok(command("sample", "5"), self.sampled())
        self.assertEqual(["5", "base/d/s/e/p.cvn"], self.seen())

    def test_the_sampler_gets_every_data_file_in_the_order_of_the_directory(self):
        self.store(*(f"{k * 37 % 101}.cvn" for k in range(20)))
        self.check_ok(command("sample", "100"), self.sampled())
        names = listed(self.kelpd.path("base/d/s/e"))
        self.assertEqual(["100", *(f"base/d/s/e/{name}" for name in names)], self.seen())

    def test_the_sampler_gets_no_other_files(self):
        self.store("p.cvn", "p.cvn.mismatch", ".p.cvn", ".cvn", "p.sql", "p.cvn.1700000000.tmp", "p.CVN")
        self.check_ok(command("sample", "5"), self.sampled())
        self.assertEqual(["5", "base/d/s/e/p.cvn"], self.seen())

    def test_data_files_are_handed_over_unread(self):
        self.kelpd.store("d/s/e/p.cvn", b"no data file")
        os.makedirs(self.kelpd.path("base/d/s/e/folder.cvn"))
        self.check_ok(command("sample", "5"), self.sampled())
        self.assertEqual({"5", "base/d/s/e/p.cvn", "base/d/s/e/folder.cvn"}, set(self.seen()))

    def test_an_entity_without_data_files_gives_the_bare_count(self):
        self.store("p.sql")
        self.check_ok(command("sample", "7"), self.sampled())
        self.assertEqual(["7"], self.seen())

    def test_a_missing_entity_is_not_found_and_the_sampler_not_run(self):
        self.check_status(command("sample", "5"), "404 Not Found")
        self.assertIsNone(self.seen())

    def test_a_sample_without_rows_is_just_the_end_record(self):
        self.store("p.cvn")
        with open(os.path.join(self.home, "sample"), "wb") as f:
            f.write(cvnfile.build([Column(b"a", cvnfile.INT32)], []).data)
        self.check_ok(command("sample", "5"), STREAM + STREAM_END)

    def test_compressed_pages_are_sent_as_they_are_stored(self):
        self.store("p.cvn")
        whole = cvnfile.build([Column(b"a", cvnfile.INT64), Column(b"b", cvnfile.CSTR, 1)],
                              [[list(range(3000)), [b"text"] * 3000]] * 3)
        self.assertLess(whole.zbyte, whole.nbyte)
        with open(os.path.join(self.home, "sample"), "wb") as f:
            f.write(whole.data)
        self.check_ok(command("sample", "5"), self.sampled(whole))

    def test_the_samplers_exit_status_is_not_looked_at(self):
        self.store("p.cvn")
        self.act('cat "$SAMPLER_DIR/sample"; exit 3')
        self.check_ok(command("sample", "5"), self.sampled())
        self.act('cat "$SAMPLER_DIR/sample"; kill -9 $$')
        self.kelpd.take_log()
        self.assert_reply(self.sampled(), self.kelpd.ask(command("sample", "5")))
        # The shell may name the killed program on its standard error.
        self.assertTrue(self.kelpd.take_log().endswith(f"POST {URL} -> 200 OK\n"))

    def test_the_output_lies_in_tmp_under_the_childs_number_while_the_sampler_runs(self):
        self.store("p.cvn")
        gate = os.path.join(self.home, "gate")
        os.mkfifo(gate)
        self.addCleanup(os.unlink, gate)
        self.act('read x < "$SAMPLER_DIR/gate"; cat "$SAMPLER_DIR/sample"')
        with self.kelpd.connect() as s:
            s.sendall(command("sample", "5"))
            child = self.kelpd.await_child(s)
            (name,) = until(lambda: self.kelpd.tree("tmp"), "the output file")
            self.assertRegex(name, r"\A[0-9a-f]+-[0-9a-f]+-[0-9a-f]+\.tmp\Z")
            self.assertEqual(f"{child:x}", name.split("-")[0])
            self.open_gate(gate)
            self.assert_reply(self.sampled(), kelpd_proc.receive(s))
        self.assert_log(f"POST {URL} -> 200 OK")
        self.assertEqual([], self.kelpd.tree("tmp"))

    def test_samples_at_the_same_time_do_not_mix(self):
        self.store("p.cvn")
        gate = os.path.join(self.home, "gate")
        os.mkfifo(gate)
        self.addCleanup(os.unlink, gate)
        self.act('read x < "$SAMPLER_DIR/gate"; cat "$SAMPLER_DIR/sample$1"')
        wanted = {}
        for k in range(1, 9):
            wanted[k] = small_file(first=k * 1000)
            with open(os.path.join(self.home, f"sample{k}"), "wb") as f:
                f.write(wanted[k].data)
        sockets = {k: self.kelpd.connect() for k in wanted}
        for k, s in sockets.items():
            self.addCleanup(s.close)
            s.sendall(command("sample", str(k)))
        until(lambda: len(self.kelpd.tree("tmp")) == 8, "eight output files")
        with open(gate, "r+b", buffering=0) as both:  # opened to read as well, it waits for nobody
            both.write(b"\n" * 8)
            for k, s in sockets.items():
                self.assert_reply(self.sampled(wanted[k]), kelpd_proc.receive(s))
        self.assert_log(*[f"POST {URL} -> 200 OK"] * 8)


class Counts(SampleCase):
    def setUp(self):
        super().setUp()
        self.store("p.cvn")

    def check_count(self, text, count):
        self.check_ok(command("sample", text), self.sampled())
        self.assertEqual([count, "base/d/s/e/p.cvn"], self.seen())

    def check_refused(self, *words):
        self.check_status(command(*words), INVALID)
        self.assertIsNone(self.seen())

    def test_a_count_that_is_not_positive_is_refused(self):
        for text in ("0", "-5", "abc", "", " ", "0x", "-1"):
            with self.subTest(text=text):
                self.check_refused("sample", text)

    def test_a_count_beyond_64_bits_is_refused(self):
        self.check_refused("sample", "9223372036854775808")
        self.check_refused("sample", "99999999999999999999999")
        self.check_refused("sample", "18446744073709551617")
        self.check_refused("sample", "-99999999999999999999999")

    def test_a_count_is_read_in_any_base(self):
        self.check_count("0x10", "16")
        self.check_count("010", "8")
        self.check_count(" 12 rows", "12")

    def test_a_count_is_cut_to_32_bits(self):
        self.check_count("99999999999", "1215752191")
        self.check_count("2147483647", "2147483647")
        self.check_refused_after("4294967296")

    def check_refused_after(self, text):
        os.unlink(self.seen_path)
        self.check_refused("sample", text)

    def test_a_count_whose_low_32_bits_are_negative_is_refused(self):
        self.check_refused("sample", "2147483648")
        self.check_refused("sample", "4294967295")

    def test_the_command_must_have_exactly_two_elements(self):
        self.check_refused("sample")
        self.check_refused("sample", "5", "6")
        self.check_refused("sample", "5", "")

    def test_the_shape_of_the_command_outranks_a_missing_entity(self):
        self.check_status(command("sample", "0", url="/v1/d/s/none"), INVALID)


class FailingSampler(SampleCase):
    def setUp(self):
        super().setUp()
        self.store("p.cvn")

    def test_a_sampler_that_writes_nothing(self):
        self.act("exit 1")
        self.check_failed()

    def test_a_sampler_that_writes_garbage(self):
        self.act("echo no data file")
        self.check_failed()

    def test_a_sampler_that_writes_half_a_file(self):
        self.act('head -c 300 "$SAMPLER_DIR/sample"')
        self.check_failed()

    def test_a_sampler_that_writes_twice_the_same_column(self):
        column = Column(b"a", cvnfile.INT32)
        with open(os.path.join(self.home, "sample"), "wb") as f:
            f.write(cvnfile.build([column, column], [[[1], [2]]]).data)
        self.check_failed()

    def test_a_sampler_that_writes_an_unreadable_page(self):
        whole = self.sample
        with open(os.path.join(self.home, "sample"), "wb") as f:
            f.write(whole.patched(whole.colmeta(1, 0), struct.pack("<q", 1 << 40)))
        names = [column.name for column in whole.columns]
        self.check_ok(command("sample", "5"), stream(whole.record(0, *names)))

    def test_a_sampler_that_complains(self):
        self.act("echo I cannot >&2; exit 1")
        self.assert_reply(STREAM, self.kelpd.ask(command("sample", "5")))
        log = self.kelpd.take_log()
        self.assertIn(log, (f"I cannot\nPOST {URL} -> 200 OK\n", f"POST {URL} -> 200 OK\n"))

    def test_a_sampler_that_closes_its_output_early(self):
        self.act('cat "$SAMPLER_DIR/sample"; exec >&-; exit 0')
        self.check_ok(command("sample", "5"), self.sampled())

    def test_a_sampler_may_be_a_script_of_an_interpreter_that_the_search_path_names(self):
        self.act('exec python3 -c "import sys; sys.stdout.buffer.write(open(sys.argv[1], \'rb\').read())" '
                 '"$SAMPLER_DIR/sample"')
        self.check_ok(command("sample", "5"), self.sampled())

    def test_a_client_that_leaves_before_the_head_leaves_the_output_in_tmp(self):
        gate = os.path.join(self.home, "gate")
        os.mkfifo(gate)
        self.addCleanup(os.unlink, gate)
        self.act('read x < "$SAMPLER_DIR/gate"; cat "$SAMPLER_DIR/sample"')
        s = self.kelpd.connect()
        s.sendall(command("sample", "5"))
        (name,) = until(lambda: self.kelpd.tree("tmp"), "the output file")
        kelpd_proc.reset(s)
        self.open_gate(gate)
        self.assert_log(f"POST {URL} -> 200 OK")
        self.kelpd.await_idle()
        self.assertEqual([name], self.kelpd.tree("tmp"))
        with open(self.kelpd.path("tmp", name), "rb") as f:
            self.assertEqual(self.sample.data, f.read())
        os.unlink(self.kelpd.path("tmp", name))

    def test_a_client_that_leaves_during_the_stream_leaves_nothing(self):
        ngroup = (kelpd_proc.held_by_sockets(8192) >> 20) + 12
        whole = cvnfile.build([Column(b"a", cvnfile.BYTEA)], [[[os.urandom(1 << 20)]] for _ in range(ngroup)])
        with open(os.path.join(self.home, "sample"), "wb") as f:
            f.write(whole.data)
        s = self.kelpd.connect(rcvbuf=8192)
        s.sendall(command("sample", "5"))
        s.recv(500)
        kelpd_proc.reset(s)
        self.assert_log(f"POST {URL} -> 200 OK")


class MissingSampler(WireCase):
    daemon_arguments = {"env": {"PATH": "/nonexistent"}}

    def test_a_sampler_that_is_not_installed(self):
        self.kelpd.store("d/s/e/p.cvn", small_file().data)
        self.assert_reply(STREAM, self.kelpd.ask(command("sample", "5")))
        *complaints, last = self.kelpd.take_log().splitlines()
        self.assertEqual(f"POST {URL} -> 200 OK", last)
        for line in complaints:
            self.assertRegex(line, r"\Ash: .*cvnsamp: not found\Z")


class Quoting(SampleCase):
    def check_handed_over(self, *names):
        """Files of these names, uploaded, reach the sampler under these very names."""
        for name in names:
            self.check_ok(put(url_of("d", "s", "e", name), small_file().data))
        self.check_ok(command("sample", "5"), self.sampled())
        self.assertEqual({"5", *(f"base/d/s/e/{name}" for name in names)}, set(self.seen()))
        self.assertEqual({"base", "kelpd.conf", "log", "tmp"}, set(os.listdir(self.kelpd.dir)))

    def test_blanks_and_shell_signs_are_ordinary_characters(self):
        self.check_handed_over("a b.cvn", "$HOME.cvn", "$(touch pwned).cvn", "`touch pwned`.cvn", "a;touch pwned;.cvn",
                               "a|b&c.cvn", "*.cvn", "?.cvn", '"quoted".cvn', "back\\slash.cvn", "-n.cvn", "~.cvn",
                               "new\nline.cvn", "#x.cvn", "a>b<c.cvn", "%d%s.cvn", "{a,b}.cvn", "\u00fc.cvn", "!.cvn")

    def check_not_started(self, url=URL):
        self.check(command("sample", "5", url=url), STREAM, f"POST {url} -> 200 OK")
        self.assertIsNone(self.seen())
        self.assertEqual({"base", "kelpd.conf", "log", "tmp"}, set(os.listdir(self.kelpd.dir)))

    def test_a_file_name_with_a_single_quote_never_reaches_a_shell(self):
        for name in ("it's.cvn", "';touch pwned;'.cvn", "'$(touch pwned)'.cvn", "'.cvn"):
            with self.subTest(name=name):
                self.store("plain.cvn", name)
                self.check_not_started()
                os.unlink(self.kelpd.path("base/d/s/e", name))

    def test_an_entity_path_with_a_single_quote_never_reaches_a_shell(self):
        for names in (("d", "s", "';touch pwned;'"), ("';touch pwned;'", "s", "e"), ("d", "'", "e")):
            with self.subTest(names=names):
                self.kelpd.store("/".join(names) + "/p.cvn", small_file().data)
                self.check_not_started("/v1/" + "/".join(names).replace(" ", "%20"))

    def test_a_quote_in_a_name_that_is_not_sampled_does_no_harm(self):
        self.store("p.cvn", "it's.sql", "it's.cvn.mismatch", ".it's.cvn")
        self.check_ok(command("sample", "5"), self.sampled())
        self.assertEqual(["5", "base/d/s/e/p.cvn"], self.seen())

    def test_an_entity_path_with_a_single_quote_starts_nothing_even_without_data_files(self):
        os.makedirs(self.kelpd.path("base/d/s/it's"))
        self.check_not_started("/v1/d/s/it's")


class NoPipe(SampleCase):
    def test_a_pipe_that_cannot_be_made_fails_the_request(self):
        self.store("p.cvn")
        with self.kelpd.connect() as s:
            s.sendall(b"POST " + URL.encode())
            child = self.kelpd.await_child(s)
            # One more descriptor may be open, for the listing; a pipe takes two.
            self.kelpd.limit(resource.RLIMIT_NOFILE, self.kelpd.free_descriptor(child) + 1, child)
            s.sendall(command("sample", "5").removeprefix(b"POST " + URL.encode()))
            self.assert_reply(error("500 Internal Server Error"), kelpd_proc.receive(s))
        self.assert_log("popen failed", f"POST {URL} -> 500 Internal Server Error")
        self.assertIsNone(self.seen())


class Meta(WireCase):
    def reply(self, nrow, nrowgroup):
        def page(cno, value):
            return struct.pack("<10iqB", cvnfile.PAGE_MAGIC, cno, 4, 1, 0, 8, 9, 9, 0, 0, value, 0)
        return stream([struct.pack("<2i", cvnfile.RECORD_MAGIC, 98), page(0, nrow), page(1, nrowgroup)])

    def check_totals(self, nrow, nrowgroup):
        self.check_ok(command("meta"), self.reply(nrow, nrowgroup))

    def store(self, name, whole):
        self.kelpd.store("d/s/e/" + name, whole.data)

    def test_an_entity_without_data_files_has_totals_of_zero(self):
        os.makedirs(self.kelpd.path("base/d/s/e"))
        self.check_totals(0, 0)

    def test_2500_rows_in_3_row_groups_are_this_to_the_byte(self):
        whole = cvnfile.build([Column(b"a", cvnfile.BOOL)], [[[True] * 1000], [[False] * 1000], [[None] * 500]])
        self.store("p.cvn", whole)
        head = b"\x49\x39\x29\x19%s\4\0\0\0\1\0\0\0\0\0\0\0\x08\0\0\0\x09\0\0\0\x09\0\0\0\0\0\0\0\0\0\0\0"
        self.check_ok(
            command("meta"),
            STREAM + b"8; chunk\r\ntsrq\x62\0\0\0\r\n"
            + b"31; chunk\r\n" + head % b"\0\0\0\0" + b"\xc4\x09\0\0\0\0\0\0\0\r\n"
            + b"31; chunk\r\n" + head % b"\1\0\0\0" + b"\3\0\0\0\0\0\0\0\0\r\n"
            + b"8; chunk\r\ntsrq\0\0\0\0\r\n0\r\n\r\n")

    def test_the_reply_decodes_as_one_row_of_two_numbers(self):
        self.store("p.cvn", small_file(nrow=4, ngroup=3))
        raw = self.kelpd.ask(command("meta"))
        (record,) = cvnfile.read_stream(raw[raw.index(b"\r\n\r\n") + 4 :])
        self.assertEqual([(0, 12), (1, 3)], [(page.cno, *struct.unpack_from("<q", page.body)) for page in record])
        self.assert_log(f"POST {URL} -> 200 OK")

    def test_files_add_up(self):
        for k in range(1, 20):
            self.store(f"{k}.cvn", small_file(nrow=k, ngroup=k))
        self.check_totals(sum(k * k for k in range(1, 20)), sum(range(1, 20)))

    def test_mismatch_files_count(self):
        self.store("a.cvn", small_file(nrow=5))
        self.store("b.cvn.mismatch", small_file(nrow=7, ngroup=2))
        self.check_totals(19, 3)

    def test_other_files_do_not_count(self):
        self.store("a.cvn", small_file(nrow=5))
        for name in (".b.cvn", ".cvn", "b.sql", "b", "b.cvn.1700000000.tmp", "b.CVN", ".cvn.mismatch", "b.mismatch"):
            self.store(name, small_file())
        self.check_totals(5, 1)

    def test_unreadable_files_are_skipped(self):
        self.store("a.cvn", small_file(nrow=5))
        self.kelpd.store("d/s/e/b.cvn", b"no data file")
        self.kelpd.store("d/s/e/c.cvn", small_file().data[:-1])
        os.makedirs(self.kelpd.path("base/d/s/e/folder.cvn"))
        self.check_totals(5, 1)

    def test_totals_have_64_bits(self):
        columns = [Column(b"a", cvnfile.INT32)]
        self.store("a.cvn", cvnfile.build(columns, [], nrow=1 << 40))
        self.store("b.cvn", cvnfile.build(columns, [], nrow=1 << 41))
        self.check_totals(3 << 40, 0)

    def test_totals_that_overflow_harm_nobody(self):
        columns = [Column(b"a", cvnfile.INT32)]
        self.store("a.cvn", cvnfile.build(columns, [], nrow=(1 << 63) - 1))
        self.store("b.cvn", cvnfile.build(columns, [], nrow=(1 << 63) - 1))
        raw = self.kelpd.ask(command("meta"))
        self.assertTrue(raw.endswith(STREAM_END), raw)
        self.assert_log(f"POST {URL} -> 200 OK")

    def test_arguments_are_refused(self):
        os.makedirs(self.kelpd.path("base/d/s/e"))
        self.check_status(command("meta", "x"), INVALID)
        self.check_status(command("meta", ""), INVALID)
        self.check_status(command("meta", *["x"] * 48), INVALID)

    def test_a_missing_entity_is_not_found(self):
        self.check_status(command("meta"), "404 Not Found")

    def test_arguments_outrank_a_missing_entity(self):
        self.check_status(command("meta", "x"), INVALID)


class Verbose(SampleCase):
    options = ("-vv",)

    def test_the_whole_command_line_and_each_page_are_logged(self):
        self.store("p q.cvn")
        raw = command("sample", "0x10")
        self.assert_reply(self.sampled(), self.kelpd.ask(raw))
        lines = self.kelpd.take_log().splitlines()
        self.assertEqual([f"POST {URL} HTTP/1.1", f"do_post {URL}",
                          '  post body: {"command": ["sample", "0x10"]}'], lines[:3])
        self.assertRegex(lines[3], r"\Ado_sample: cvnsamp 16 'base/d/s/e/p q\.cvn' > "
                                   r"tmp/[0-9a-f]+-[0-9a-f]+-[0-9a-f]+\.tmp\Z")
        pages = [f"  page[{k}]: {page.zbyte}" for group in self.sample.groups for k, page in enumerate(group, 1)]
        self.assertEqual([*pages, "command: sample, status 200", f"POST {URL} -> 200 OK"], lines[4:])


if __name__ == "__main__":
    unittest.main()
