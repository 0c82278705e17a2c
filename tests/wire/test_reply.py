"""Replies to the byte: heads, error bodies, JSON bodies, chunks, dispatch on the method, the end of the connection."""
import re
import socket
import struct
import unittest

import cvnfile
import kelpd_proc
from wirecase import (OK, STREAM, STREAM_END, WireCase, chunk, delete, error, get, head, json_reply, listed, post,
                      put, request, small_file)


class Heads(WireCase):
    def test_an_error_reply_is_this_to_the_byte(self):
        raw = self.kelpd.ask(get("/v1/none"))
        date = re.search(rb"Date: ([^\r]*)\r\n", raw)[1]
        self.assertEqual(
            b"HTTP/1.1 404 Not Found\r\nDate: " + date + b"\r\nConnection: close\r\nContent-length: 13\r\n"
            b"Content-type: application/plain\r\n\r\n404 Not Found", raw)
        self.assert_reply(error("404 Not Found"), raw)
        self.assert_log("GET /v1/none -> 404 Not Found")

    def test_a_status_line_carries_its_explanation(self):
        self.check(get("/v2"),
                   head("400 Bad Request - invalid version", "Content-length: 33", "Content-type: application/plain")
                   + b"400 Bad Request - invalid version", "GET /v2 -> 400 Bad Request - invalid version")

    def test_a_json_reply_is_this_to_the_byte(self):
        raw = self.kelpd.ask(get("/v1"))
        date = re.search(rb"Date: ([^\r]*)\r\n", raw)[1]
        self.assertEqual(
            b"HTTP/1.1 200 OK\r\nDate: " + date + b"\r\nConnection: close\r\nContent-length: 2\r\n"
            b"Content-type: application/json\r\n\r\n[]", raw)
        self.assert_reply(json_reply("[]"), raw)
        self.assert_log("GET /v1 -> 200 OK")

    def test_an_upload_and_a_removal_are_answered_by_a_bare_head(self):
        for raw in (put("/v1/d/s/e/p", b"x"), delete("/v1/d")):
            reply = self.kelpd.ask(raw)
            date = re.search(rb"Date: ([^\r]*)\r\n", reply)[1]
            self.assertEqual(b"HTTP/1.1 200 OK\r\nDate: " + date + b"\r\nConnection: close\r\n\r\n", reply)
            self.assert_reply(OK, reply)
        self.assert_log("PUT /v1/d/s/e/p -> 200 OK", "DELETE /v1/d -> 200 OK")

    def test_a_stream_is_this_to_the_byte(self):
        self.kelpd.store("d/s/e/p.cvn", cvnfile.build([cvnfile.Column(b"a", 1)], [], nrow=1).data)
        raw = self.kelpd.ask(post("/v1/d/s/e"))
        date = re.search(rb"Date: ([^\r]*)\r\n", raw)[1]
        self.assertEqual(
            b"HTTP/1.1 200 OK\r\nDate: " + date + b"\r\nConnection: close\r\nTransfer-encoding: chunked\r\n"
            b"Content-type: application/octet-stream\r\n\r\n"
            b"8; chunk\r\ntsrq\x29\0\0\0\r\n"
            b"29; chunk\r\n\x49\x39\x29\x19\xff\xff\xff\xff\0\0\0\0\1\0\0\0" + bytes(8)
            + b"\1\0\0\0\1\0\0\0" + bytes(8) + b"\0\r\n"
            b"8; chunk\r\ntsrq\0\0\0\0\r\n"
            b"0\r\n\r\n", raw)
        self.assert_log("POST /v1/d/s/e -> 200 OK")


class Methods(WireCase):
    def test_unknown_methods_are_not_found(self):
        for method in ("get", "Get", "HEAD", "OPTIONS", "PATCH", "PUTS", "POS", "-", "%s"):
            with self.subTest(method=method):
                self.check_status(request(method, "/v1"), "404 Not Found")

    def test_an_unknown_method_outranks_a_bad_url(self):
        self.check_status(request("HEAD", "/v2/../x"), "404 Not Found")

    def test_a_head_request_gets_a_body(self):
        raw = self.kelpd.ask(request("HEAD", "/v1"))
        self.assertTrue(raw.endswith(b"\r\n\r\n404 Not Found"))
        self.assert_log("HEAD /v1 -> 404 Not Found")

    def test_the_body_of_a_listing_or_a_removal_is_not_read(self):
        self.check_ok(request("GET", "/v1", length=1 << 40), json_reply("[]"))
        self.check_ok(request("DELETE", "/v1/none", length=1 << 40))

    def test_the_body_of_an_unknown_method_is_not_read(self):
        self.check_status(request("PATCH", "/v1", length=1 << 40), "404 Not Found")


class Streams(WireCase):
    def test_chunk_sizes_are_lower_case_hexadecimal_without_leading_zeros(self):
        wanted = cvnfile.build([cvnfile.Column(b"a", cvnfile.BYTEA)], [[[bytes(range(200)) * 13]]])
        self.kelpd.store("d/s/e/p.cvn", wanted.data)
        raw = self.kelpd.ask(post("/v1/d/s/e", '{"column":["a"]}'))
        size = 40 + 4 + 2600 + 1
        self.assertIn(b"\r\n%x; chunk\r\n" % size, raw)
        self.assertEqual(b"a55", b"%x" % size)
        self.assert_log("POST /v1/d/s/e -> 200 OK")

    def test_a_failure_inside_a_stream_appends_the_bare_status(self):
        whole = small_file(ngroup=2)
        self.kelpd.store("d/s/e/p.cvn", whole.patched(whole.colmeta(1, 0), (1 << 40).to_bytes(8, "little")))
        self.check(post("/v1/d/s/e", '{"column":["id"]}'),
                   STREAM + b"".join(map(chunk, whole.record(0, b"id"))) + b"400 Bad Request",
                   "POST /v1/d/s/e -> 400 Bad Request")

    def test_a_failure_in_a_later_file_appends_the_bare_status(self):
        whole = small_file()
        for name in ("a.cvn", "b.cvn"):
            self.kelpd.store("d/s/e/" + name, whole.data)
        first, second = listed(self.kelpd.path("base/d/s/e"))
        self.kelpd.store("d/s/e/" + second, b"no data file")
        self.check(post("/v1/d/s/e", '{"column":["id"]}'),
                   STREAM + b"".join(map(chunk, whole.record(0, b"id"))) + b"500 Internal Server Error",
                   "POST /v1/d/s/e -> 500 Internal Server Error")

    def test_a_failure_before_the_first_record_is_an_ordinary_error(self):
        whole = small_file()
        self.kelpd.store("d/s/e/p.cvn", whole.patched(whole.colmeta(0, 0), (1 << 40).to_bytes(8, "little")))
        self.check_status(post("/v1/d/s/e", '{"column":["id"]}'), "400 Bad Request")

    def test_an_empty_stream_is_the_end_record_alone(self):
        self.kelpd.store("d/s/e/other", b"")
        self.check_ok(post("/v1/d/s/e"), STREAM + STREAM_END)


class Delivery(WireCase):
    def test_a_reply_reaches_a_client_that_has_closed_its_sending_side(self):
        self.check(get("/v1"), json_reply("[]"), "GET /v1 -> 200 OK", half_close=True)

    def test_a_large_json_body_reaches_a_slow_reader_whole(self):
        # A list of columns that the sockets do not hold: more than 150 bytes for each.
        ncol = kelpd_proc.held_by_sockets(4096) // 150 + 10000
        names = [b"%0127d" % k for k in range(ncol)]
        footer = b"".join((struct.pack("<2i2q2iq", 1, ncol, 0, 0, 136 * ncol, 112 * ncol, 0),
                           *(struct.pack("<127sxi4x", name, cvnfile.INT32) for name in names), bytes(112 * ncol)))
        self.kelpd.store("d/s/wide/p.cvn", cvnfile.HEAD_MAGIC + footer + struct.pack("<qi", len(footer), 0)
                         + cvnfile.TAIL_MAGIC)
        columns = ",".join(f'{{"cno": {k}, "typ": "int32", "name": "{name.decode()}"}}' for k, name in enumerate(names))
        with self.kelpd.connect(rcvbuf=4096) as s:
            s.sendall(get("/v1/d/s/wide/p.cvn"))
            kelpd_proc.await_stalled(s)
            parts = []
            while True:
                part = s.recv(60000)
                if not part:
                    break
                parts.append(part)
        self.assert_reply(json_reply('{"column":[' + columns + '], "chksum": 0}'), b"".join(parts))
        self.assert_log("GET /v1/d/s/wide/p.cvn -> 200 OK")

    def test_a_reply_is_whole_though_bytes_of_the_request_are_left_unread(self):
        entry = small_file().data
        for n in range(300):
            self.kelpd.store(f"d/s/e/{n:03}.cvn", entry)
        listing = self.kelpd.ask(get("/v1/d/s/e"))
        stream = self.kelpd.ask(post("/v1/d/s/e"))
        self.assertGreater(len(listing), 30000)
        for raw, reply in ((get("/v1/d/s/e"), listing), (post("/v1/d/s/e"), stream)):
            got = self.kelpd.ask(raw + bytes(30000))
            self.assertEqual(reply.split(b"\r\n\r\n", 1)[1], got.split(b"\r\n\r\n", 1)[1])
        self.assert_log(*["GET /v1/d/s/e -> 200 OK", "POST /v1/d/s/e -> 200 OK"] * 2)

    def test_nothing_follows_the_reply(self):
        with self.kelpd.connect() as s:
            s.sendall(get("/v1"))
            raw = kelpd_proc.receive(s)
            self.assertEqual(b"", s.recv(1))
        self.assert_reply(json_reply("[]"), raw)
        self.assert_log("GET /v1 -> 200 OK")


if __name__ == "__main__":
    unittest.main()
