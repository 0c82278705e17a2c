"""The reply stream: any cut into chunks, and every way in which a server can break it or lie."""

import random
import socket
import struct
import time
import tracemalloc
import unittest

import numpy as np

from support import Case, int32_page, kelp, serve, stream_of, table_server
from cvnfile import END, STREAM_HEAD, page, record
from kelp.stream import RecordReader, read_counts, read_meta
from fake_server import FakeServer, receive_head
from replies import chunk, chunked, json_reply


class Body:
    """A body in memory, handed out in pieces of the given sizes."""

    def __init__(self, data, sizes=(1 << 20,)):
        self._data, self._at, self._sizes, self._turn = data, 0, sizes, 0

    def readinto(self, view):
        size = min(len(view), self._sizes[self._turn % len(self._sizes)])
        self._turn += 1
        piece = self._data[self._at:self._at + size]
        view[:len(piece)] = piece
        self._at += len(piece)
        return len(piece)


def records_of(data, sizes=(1 << 20,), npage=1):
    return list(RecordReader(Body(data, sizes), npage))


class Records(Case):
    def test_pieces_of_any_size_give_the_same_records(self):
        data = self.bytes_of({"a": list(range(300)), "b": ["x" * (i % 7) for i in range(300)]})
        stream = stream_of(data)
        want = list(kelp.read_table(data).rows())
        rng = random.Random(7)
        for sizes in [(1,), (2, 3), (7,), (40,), (1 << 20,)] + [
                tuple(rng.randint(1, 60) for _ in range(20)) for _ in range(20)]:
            pages, = records_of(stream, sizes, 2)
            fields = kelp.types.parse_schema("a int64, b cstr")
            columns = [p.column(f.name, f.type) for p, f in zip(pages, fields)]
            self.assertEqual(want, list(kelp.Table(columns).rows()), sizes)

    def test_an_empty_stream_is_one_end_record(self):
        self.assertEqual([], records_of(END))

    def test_every_truncation_is_an_error(self):
        stream = record(int32_page([1, 2])) + record(int32_page([3])) + END
        for size in range(len(stream)):
            with self.assertRaisesRegex(kelp.KelpError, "without its end mark", msg=size):
                records_of(stream[:size])

    def test_lying_sizes_and_magics_are_refused(self):
        good = int32_page([1, 2])
        for stream, pattern in (
                (b"HTML" + END, "no stream of kelpd's records"),
                (record(good, magic=0x71727375) + END, "no stream of kelpd's records"),
                (record(nbyte=-1), "negative length"),
                (record(good, nbyte=len(good) - 1) + END, "longer than its record"),
                (record(good, nbyte=len(good) + 1) + END, "more columns than were asked for"),
                (record(good, good) + END, "more columns than were asked for"),
                (record(good, nbyte=39) + END, "no room for its page"),
                (record(page(b"", zbyte=-1)) + END, "longer than its record"),
                (record(page(b"x" * 9, zbyte=2**31 - 1)) + END, "longer than its record"),
                (record(page(b"x" * 9, nrow=-1)) + END, "longer than its record"),
                (record(page(b"x" * 9, magic=1)) + END, "lacks its magic"),
                (END + b"x", "goes on after its end mark"), (END + END, "goes on after its end mark")):
            with self.assertRaisesRegex(kelp.KelpError, pattern, msg=stream):
                records_of(stream)
        for stream, pattern in ((record(good, int32_page([1])) + END, "differ in length"),
                                (record(good) + END, "fewer columns than were asked for"),
                                (record(good, nbyte=len(good) + 1) + END, "no room for its page")):
            with self.assertRaisesRegex(kelp.KelpError, pattern, msg=stream):
                records_of(stream, npage=2)

    def test_a_record_of_endless_pages_is_given_up_at_once(self):
        body = Body(record(page(b"", nrow=0, nmapoff=0), nbyte=2**30 - 40) + page(b"", nrow=0, nmapoff=0) * 100)
        with self.assertRaisesRegex(kelp.KelpError, "more columns"):
            list(RecordReader(body, 1))
        self.assertEqual(48, body._at)

    def test_a_record_above_the_limit_is_refused_before_it_is_read(self):
        raw = bytes(8000) + bytes(250)
        block = kelp.native.lz4_compress(np.frombuffer(raw, np.uint8), 9000).tobytes()
        texts = [page(b"a\0" * 100 + bytes(13), typ=9, nrow=100, nmapoff=200)]
        for pages, limit, why in (([int32_page([1, 2])], 49, 49), ([int32_page([1, 2])] * 2, 98, 98),
                                  ([page(block, nrow=2000, nmapoff=8000, nbyte=8250)], 8250, 8250),
                                  ([page(block, nrow=2000, nmapoff=8000, nbyte=8250)] * 2, 16500, 16500),
                                  (texts, 213 + 4 * 101, 213 + 4 * 101)):
            stream = record(*pages) + END
            self.assertEqual(1, len(list(RecordReader(Body(stream), len(pages), limit))))
            body = Body(stream)
            with self.assertRaisesRegex(kelp.KelpError, "of %d bytes, above the limit of %d;" % (why, limit - 1)):
                list(RecordReader(body, len(pages), limit - 1))
            self.assertLess(body._at, len(stream) - len(END))
        body = Body(struct.pack("<ii", 0x71727374, (1 << 30) + 1))
        with self.assertRaisesRegex(kelp.KelpError, "of 1073741825 bytes, above the limit of 1073741824; .*max_record"):
            list(RecordReader(body, 1))
        with self.assertRaisesRegex(kelp.KelpError, "without its end mark"):
            records_of(struct.pack("<ii", 0x71727374, 1 << 30))

    def column(self, type_name, *arguments, **fields):
        pages, = records_of(record(page(*arguments, **fields)) + END)
        return pages[0].column("c", kelp.types.by_name(type_name))

    def test_pages_whose_sizes_contradict_each_other_are_refused(self):
        body = bytes(9)
        for fields in ({"nmapoff": 7}, {"nmapoff": 9}, {"nmapoff": -1}, {"nrow": 3}, {"nrow": 1}, {"nrow": 2**31 - 1},
                       {"nrow": 1048577, "nmapoff": 4 * 1048577, "nbyte": 4 * 1048577 + 131073},
                       {"nnull": 3}, {"nnull": -1}, {"nbyte": 8}, {"nbyte": -1},
                       {"nrow": 17, "nmapoff": 6}, {"nmapoff": 2**31 - 1, "nbyte": 2**31 - 1}):
            with self.assertRaisesRegex(kelp.KelpError, "contradict|no room|more rows than|above the", msg=fields):
                self.column("int32", body, **fields)

    def test_a_wrong_hash_or_null_count_is_refused(self):
        with self.assertRaisesRegex(kelp.KelpError, "does not match its hash"):
            self.column("int32", bytes(9), hash=1)
        with self.assertRaisesRegex(kelp.KelpError, "does not match its hash"):
            self.column("int32", bytes(9), hash=0)
        with self.assertRaisesRegex(kelp.KelpError, "miscounts its NULLs"):
            self.column("int32", bytes(9), nnull=1)
        with self.assertRaisesRegex(kelp.KelpError, "miscounts its NULLs"):
            self.column("int32", bytes(8) + b"\xc0", nnull=1)
        self.assertEqual([None, None], self.column("int32", bytes(8) + b"\xc0", nnull=2).to_list())

    def test_compressed_pages_that_do_not_hold_what_they_claim_are_refused(self):
        raw = bytes(8000) + bytes(250)
        block = kelp.native.lz4_compress(np.frombuffer(raw, np.uint8), 9000).tobytes()
        good = {"nrow": 2000, "nmapoff": 8000, "nbyte": 8250}
        self.assertEqual([0] * 2000, self.column("int32", block, **good).to_list())
        for body, fields in ((block[:-1], good), (block + b"\0", good), (b"\xff" * len(block), good),
                             (block, {"nrow": 2008, "nmapoff": 8032, "nbyte": 8283}),
                             (block, {"nrow": 1992, "nmapoff": 7968, "nbyte": 8217})):
            with self.assertRaisesRegex(kelp.KelpError, "does not decompress to its size"):
                self.column("int32", body, **fields)

    def test_a_small_page_cannot_claim_a_large_size(self):
        size = 1_000_000_000
        pages, = records_of(record(page(b"\x1f" * 100, typ=9, nrow=8, nmapoff=size, nbyte=size + 1)) + END)
        tracemalloc.start()
        try:
            with self.assertRaisesRegex(kelp.KelpError, "does not decompress"):
                pages[0].column("c", kelp.types.by_name("cstr"))
            self.assertLess(tracemalloc.get_traced_memory()[1], 1 << 20)
        finally:
            tracemalloc.stop()

    def test_texts_and_byte_strings_that_leave_their_page_are_refused(self):
        for type_name, typ, values, pattern in (
                ("cstr", 9, b"ab\0c", "another number of texts"), ("cstr", 9, b"\0\0\0", "another number"),
                ("cstr", 9, b"a\0bc", "another number"), ("cstr", 9, b"\0", "no room"),
                ("bytea", 8, struct.pack("<i", 5) + b"ab" + struct.pack("<i", 0), "leads outside"),
                ("bytea", 8, struct.pack("<i", -1) + struct.pack("<i", 0), "leads outside"),
                ("bytea", 8, struct.pack("<i", 0) + struct.pack("<i", 0) + b"x", "after its last value"),
                ("bytea", 8, struct.pack("<i", 3) + b"abc" + b"\0\0", "leads outside"),
                ("bytea", 8, bytes(7), "no room")):
            with self.assertRaisesRegex(kelp.KelpError, pattern, msg=values):
                self.column(type_name, values + b"\0", typ=typ, nmapoff=len(values))

    def test_counts_and_meta_are_read_and_checked(self):
        counts = record(page(bytes(16384), -1, 0, 1048576, 0, 0, hash=0)) + record(
            page(bytes(6295), -1, 0, 402848, 0, 0, hash=0)) + END
        self.assertEqual([1048576, 402848], list(read_counts(Body(counts))))
        with self.assertRaisesRegex(kelp.KelpError, "no row count"):
            list(read_counts(Body(record(int32_page([1])) + END)))

        def value(cno, number, typ=4, nrow=1):
            return page(struct.pack("<q", number) + b"\0", cno, typ, nrow, 0, 8, hash=0)
        self.assertEqual((2500, 3), read_meta(Body(record(value(0, 2500), value(1, 3)) + END)))
        for stream in (END, record(value(0, 1), value(1, 1, typ=3)) + END,
                       record(value(0, 1), value(1, 1)) * 2 + END, record(value(0, 1)) + END):
            with self.assertRaisesRegex(kelp.KelpError, "another form|fewer columns"):
                read_meta(Body(stream))
        for rows, groups in ((-1, 1), (1, -1)):
            with self.assertRaisesRegex(kelp.KelpError, "counts -1 rows or row groups"):
                read_meta(Body(record(value(0, rows), value(1, groups)) + END))


class Http(Case):
    """The same stream through a socket, chunked at will."""

    def scan(self, post, fields=(("c", "int32"),), **arguments):
        server = table_server(self, fields, post)
        self.server = server
        return server.table.scan(**arguments)

    def test_chunks_of_any_size_give_the_same_rows(self):
        stream = record(int32_page(list(range(100)))) + record(int32_page([5, 6])) + END
        want = list(range(100)) + [5, 6]
        for sizes in ((8, 40, 1), (1,), (3, 5), (1 << 20,), (1000, 1)):
            table = self.scan(lambda body: STREAM_HEAD + chunked(stream, sizes)).read()
            self.assertEqual(want, table["c"].to_list(), sizes)

    def test_a_reply_that_trickles_in_gives_the_same_rows(self):
        stream = record(int32_page([1, 2])) + END
        reply = STREAM_HEAD + chunked(stream, (30,))
        self.assertEqual([1, 2], self.scan(lambda body: [reply[i:i + 1] for i in range(len(reply))]).read()
                         ["c"].to_list())

    def test_other_framings_of_a_proxy_are_read_too(self):
        stream = record(int32_page([1, 2])) + END
        plain = b"HTTP/1.1 200 OK\r\nConnection: close\r\n"
        for reply in (plain + b"Content-Length: %d\r\n\r\n" % len(stream) + stream, plain + b"\r\n" + stream,
                      STREAM_HEAD + b"%X\r\n" % len(stream) + stream + b"\r\n0\r\nSome-Trailer: 1\r\n\r\n"):
            self.assertEqual([1, 2], self.scan(lambda body: reply).read()["c"].to_list())

    def test_an_error_text_in_the_stream_is_reported_with_its_words(self):
        for text in ("400 Bad Request", "500 Internal Server Error", "500 Internal Server Error - out of memory"):
            for whole in (0, 1, 2):
                before = b"".join(chunk(record(int32_page([i]))) for i in range(whole))
                scan = self.scan(lambda body: STREAM_HEAD + before + text.encode())
                got = []
                with self.assertRaisesRegex(kelp.KelpError, "in the middle of the reply: " + text) as caught:
                    for batch in scan:
                        got += batch["c"].to_list()
                self.assertEqual(text, caught.exception.status)
                self.assertEqual(list(range(whole)), got)
                with self.assertRaises(kelp.KelpError):
                    scan.read()

    def test_an_error_text_that_begins_like_a_size_is_not_a_size(self):
        # "400" is also the size of a chunk of 1024 bytes; what follows it must be an extension or the line's end.
        with self.assertRaisesRegex(kelp.KelpError, "damaged|in the middle"):
            self.scan(lambda body: STREAM_HEAD + b"400 Bad Request\r\n" + bytes(2000)).read()

    def test_every_truncation_of_the_reply_is_an_error(self):
        reply = STREAM_HEAD + chunked(record(int32_page([1, 2])) + END, (8, 49))
        sizes = list(range(0, len(reply)))
        server = table_server(self, [("c", "int32")], lambda body: reply[:sizes[0]])
        scan = server.table.scan()
        while sizes:
            with self.assertRaises(kelp.KelpError, msg=sizes[0]):
                scan.read()
            del sizes[0]

    def test_chunks_that_are_no_chunks_are_refused(self):
        good = record(int32_page([1, 2])) + END
        for body, pattern in ((b"zz\r\n", "does not begin with its size"), (b"\r\n", "does not begin with its size"),
                              (b"-5\r\n", "does not begin"), (b"fffffffff\r\n", "does not begin"),
                              (b"5 5\r\n", "does not begin"), (b"8; chunk\r\n" + good[:8] + b"XX", "damaged|early"),
                              (chunked(good, last=b""), "early"), (chunked(good, last=b"0\r\n"), "early"),
                              (chunked(good + good), "goes on after"),
                              (chunked(good[:-8]), "without its end mark")):
            with self.assertRaisesRegex(kelp.KelpError, pattern, msg=body):
                self.scan(lambda _: STREAM_HEAD + body).read()

    def test_pages_of_another_type_or_number_than_asked_for_are_refused(self):
        with self.assertRaisesRegex(kelp.KelpError, "int32 in one file of the table and int64 in another"):
            self.scan(lambda body: STREAM_HEAD + chunked(record(int32_page([1], typ=4)) + END)).read()
        with self.assertRaisesRegex(kelp.KelpError, "unknown type"):
            self.scan(lambda body: STREAM_HEAD + chunked(record(int32_page([1], typ=77)) + END)).read()
        with self.assertRaisesRegex(kelp.KelpError, "more columns than were asked for"):
            self.scan(lambda body: STREAM_HEAD + chunked(record(int32_page([1]), int32_page([1])) + END)).read()

    def test_refusals_say_what_the_server_said(self):
        for status, pattern in ((b"400 Bad Request", "the server refused the query: 400 Bad Request; "),
                                (b"404 Not Found", "no table d.s.e"), (b"500 Internal Server Error", "500 Internal")):
            scan = self.scan(lambda body: json_reply(status, status))
            with self.assertRaisesRegex(kelp.KelpError, pattern) as caught:
                scan.read()
            self.assertEqual(status.decode(), caught.exception.status)

    def test_what_is_no_kelpd_is_called_so(self):
        for reply, pattern in ((b"SSH-2.0-x\r\n", "is no kelpd"), (b"HTTP/2 200\r\n\r\n", "is no kelpd"),
                               (b"", "without a reply"), (json_reply(b"<html>"), "not JSON"),
                               (json_reply(b"[" * 200000), "not JSON"),
                               (json_reply(b'{"a": 1}'), "is no kelpd"), (json_reply(b"[1, 2]"), "is no kelpd"),
                               (b"HTTP/1.1 200 OK\r\nContent-Length: x\r\n\r\n", "is no kelpd"),
                               (b"HTTP/1.1 200 OK\r\n" + b"a: b\r\n" * 200, "is no kelpd"),
                               (b"HTTP/1.1 200 OK\r\n" + b"a" * 20000, "is no kelpd"),
                               (b"HTTP/1.1 200 OK\r\nContent-Length: 50\r\n\r\n[]", "early")):
            server = serve(self, lambda *_: reply)
            with self.assertRaisesRegex(kelp.KelpError, pattern, msg=reply):
                kelp.connect(server.url, timeout=10).databases()

    def test_an_unreachable_server_is_named(self):
        with socket.create_server(("127.0.0.1", 0)) as probe:
            port = probe.getsockname()[1]
        with self.assertRaisesRegex(kelp.KelpError, "cannot reach 127.0.0.1:%d: Connection refused" % port):
            kelp.connect("kelp://127.0.0.1:%d" % port).databases()

    def test_a_silent_server_ends_in_a_time_out(self):
        with socket.create_server(("127.0.0.1", 0)) as silent:
            connection = kelp.connect("http://127.0.0.1:%d" % silent.getsockname()[1], timeout=0.2)
            with self.assertRaisesRegex(kelp.KelpError, "did not answer in time"):
                connection.databases()

    def test_a_server_that_trickles_for_ever_ends_in_the_total_time_out(self):
        def trickle(head):
            def serve_it(conn):
                receive_head(conn)
                conn.sendall(head)
                for _ in range(6000):  # until the client has left
                    conn.sendall(b"x")
                    time.sleep(0.02)
            server = FakeServer(serve_it)
            self.addCleanup(server.close)
            return kelp.connect(server.url, timeout=30, total_timeout=0.3)

        for head in (b"", b"HTTP/1.1 200 OK\r\n", b"HTTP/1.1 200 OK\r\n\r\n", STREAM_HEAD,
                     b"HTTP/1.1 200 OK\r\nContent-length: 100000\r\n\r\n"):
            with self.assertRaisesRegex(kelp.KelpError, "^127.0.0.1:[0-9]+ did not finish in 0.3 seconds$", msg=head):
                trickle(head).databases()

    def test_the_total_time_out_counts_all_requests_of_a_scan_a_sample_and_a_count(self):
        def post(body):
            yield STREAM_HEAD
            for _ in range(6000):
                yield chunk(record(int32_page([1])))
                time.sleep(0.02)
        server = table_server(self, [("c", "int32")], post)
        table = kelp.connect(server.url, timeout=30, total_timeout=0.5).table("d.s.e")
        for work in (lambda: table.scan().read(), lambda: table.scan(jobs=2).read(), lambda: table.sample(1 << 30)):
            with self.assertRaisesRegex(kelp.KelpError, "did not finish in 0.5 seconds"):
                work()

    def test_an_upload_that_is_not_taken_ends_in_the_total_time_out(self):
        with socket.create_server(("127.0.0.1", 0)) as silent:
            connection = kelp.connect("kelp://127.0.0.1:%d" % silent.getsockname()[1], timeout=30, total_timeout=0.3)
            with self.assertRaisesRegex(kelp.KelpError, "did not finish in 0.3 seconds"):
                connection.table("d.s.e").upload(bytes(64 << 20), name="x", verify=False)

    def test_catalogues_that_are_too_large_are_not_believed(self):
        body = [""]
        server = serve(self, lambda *_: json_reply(body[0]))
        connection = kelp.connect(server.url, timeout=30)
        body[0] = '["' + "x" * ((32 << 20) - 4) + '"]'
        self.assertEqual(1, len(connection.databases()))
        for big in ('["' + "x" * ((32 << 20) - 3) + '"]', "[" + ",".join(['""'] * ((1 << 20) + 1)) + "]",
                    "[" + "[]," * (7 << 20) + "[]]"):
            body[0] = big
            with self.assertRaisesRegex(kelp.KelpError, "is no kelpd|larger than any catalogue"):
                connection.databases()
        body[0] = "[" + ",".join(['""'] * (1 << 20)) + "]"
        self.assertEqual(1 << 20, len(connection.databases()))

    def test_nothing_that_a_server_says_steers_a_terminal(self):
        evil = "a\x1b[31m b\u009b2J \u202ec\x7f\u2066 Z\u00fcrich"
        said = "a\\x1b[31m b\\u009b2J \\u202ec\\x7f\\u2066 Z\u00fcrich"
        latin = lambda text: text.encode().decode("latin-1")  # noqa: E731, as a head is read
        server = serve(self, lambda *_: json_reply("{}", status="500 " + evil))
        with self.assertRaises(kelp.KelpError) as caught:
            kelp.connect(server.url).databases()
        for text in (str(caught.exception), caught.exception.status):
            self.assertTrue(text.isprintable(), text)
            self.assertIn("a\\x1b[31m b", text)
            self.assertNotIn(latin("\u009b"), text)
        server = table_server(self, [(evil, "int32"), ("b", "int32")],
                              lambda body: STREAM_HEAD + chunked(record(int32_page([1]), int32_page([2])) + END))
        with self.assertRaises(kelp.KelpError) as caught:
            server.table.scan("nope")
        self.assertEqual("there is no column nope; the columns are %s, b" % said, str(caught.exception))
        result = kelp.Table([kelp.Column(evil, kelp.types.by_name("int32"), store=np.zeros(1, np.int32))])
        self.assertEqual("<kelp.Table 1 rows: %s int32>" % said, repr(result))
        self.assertEqual("<kelp.Column %s int32, 1 rows, 0 NULL>" % said, repr(result[evil]))
        self.assertEqual([evil], list(result.columns))  # as data it stays as it is
        self.assertIn(said, repr(server.table.connection.table(("d", "s", evil))))
        self.assertEqual("raw \\x9b and half \\ud800", str(kelp.KelpError("raw \udc9b and half \ud800")))
        self.assertTrue(repr(server.table.schema()).isprintable())


if __name__ == "__main__":
    unittest.main()
