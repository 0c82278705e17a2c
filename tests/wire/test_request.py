"""The request reader: time-out, limits of the head, request line, header lines, and what each refusal logs."""
import errno
import select
import socket
import time
import unittest

import kelpd_proc
from kelpd_proc import Daemon, Fault
from wirecase import OK, SILENCE, WireCase, error, get, json_reply, mask_date, put, request

LISTING = json_reply("[]")
NOT_FOUND = error("404 Not Found")
BUFFER = 10239  # bytes of head, and of body after it, that one request may bring at first


def padded(first, size, end=b"\r\n\r\n"):
    """A head of exactly `size` bytes with its blank line: `first` and one long header line."""
    start = first + b"\r\nX: "
    return start + b"x" * (size - len(start) - len(end)) + end


class RequestCase(WireCase):
    def check_closed(self, raw, reason, half_close=False):
        """The reader gives up on the request: no reply, no access line, one line with the reason."""
        self.check(raw, SILENCE, f"htreq_readbuf failed: {reason}", half_close=half_close)

    def check_refused(self, raw, reason):
        """The request cannot be parsed: no reply, no access line, one line with the reason."""
        self.check(raw, SILENCE, f"htreq_parse failed: htreq_parse: {reason}")


class Reading(RequestCase):
    def test_a_client_that_sends_nothing_and_leaves_is_logged(self):
        self.check_closed(b"", "clnt closed without valid req", half_close=True)

    def test_a_client_that_leaves_inside_the_head_is_logged(self):
        whole = b"GET /v1 HTTP/1.1\r\nHost: x\r\n\r\n"
        for size in range(1, len(whole)):
            with self.subTest(size=size):
                self.check_closed(whole[:size], "clnt closed without valid req", half_close=True)

    def test_a_reset_is_read_as_the_end(self):
        for sent in (b"", b"G", b"GET /v1 HTTP/1.1\r\n"):
            with self.subTest(sent=sent):
                s = self.kelpd.connect()
                s.sendall(sent)
                kelpd_proc.reset(s)
                self.assert_log("htreq_readbuf failed: clnt closed without valid req")

    def test_a_reset_after_the_child_has_read_is_read_as_the_end(self):
        s = self.kelpd.connect()
        s.sendall(b"GET")
        kelpd_proc.await_taken(s)
        kelpd_proc.reset(s)
        self.assert_log("htreq_readbuf failed: clnt closed without valid req")

    def test_a_head_may_come_byte_by_byte(self):
        with self.kelpd.connect() as s:
            for byte in b"GET /v1 HTTP/1.1\r\nHost: x\r\n\r\n":
                s.sendall(bytes([byte]))
                kelpd_proc.await_taken(s, or_answered=True)  # after the last byte the child may be gone
            self.assert_reply(LISTING, kelpd_proc.receive(s))
        self.assert_log("GET /v1 -> 200 OK")

    def test_bare_line_feeds_end_the_head(self):
        self.check(b"GET /v1 HTTP/1.1\nHost: x\n\n", LISTING, "GET /v1 -> 200 OK")
        self.check(b"GET /v1 HTTP/1.1\r\nHost: x\n\n", LISTING, "GET /v1 -> 200 OK")

    def test_line_feeds_around_a_return_do_not_end_the_head(self):
        self.check_closed(b"GET /v1 HTTP/1.1\n\r\n", "clnt closed without valid req", half_close=True)

    def test_a_body_after_bare_line_feeds_is_found(self):
        self.check(b"PUT /v1/d/s/e/p HTTP/1.1\nContent-Length: 4\n\nbody", OK,
                   "PUT /v1/d/s/e/p -> 200 OK")
        self.assertEqual(b"body", self.kelpd.load("d/s/e/p"))

    def test_a_blank_line_with_returns_outranks_an_earlier_one_without(self):
        self.check(b"PUT /v1/d/s/e/p HTTP/1.1\nContent-Length: 4\n\nab\r\n\r\nbody", OK,
                   "PUT /v1/d/s/e/p -> 200 OK")
        self.assertEqual(b"body", self.kelpd.load("d/s/e/p"))

    def test_a_blank_line_with_bare_line_feeds_ends_the_head_when_it_comes_first_alone(self):
        with self.kelpd.connect() as s:
            s.sendall(b"PUT /v1/d/s/e/p HTTP/1.1\nContent-Length: 8\n\nab\r\n")
            kelpd_proc.until(lambda: any(".tmp" in name for name in self.kelpd.tree()), "the upload to begin")
            s.sendall(b"\r\ncd")
            self.assert_reply(OK, kelpd_proc.receive(s))
        self.assert_log("PUT /v1/d/s/e/p -> 200 OK")
        self.assertEqual(b"ab\r\n\r\ncd", self.kelpd.load("d/s/e/p"))

    def test_a_head_of_10239_bytes_is_accepted(self):
        self.check(padded(b"GET /v1 HTTP/1.1", BUFFER), LISTING, "GET /v1 -> 200 OK")
        self.check(padded(b"GET /v1 HTTP/1.1", BUFFER, b"\n\n"), LISTING, "GET /v1 -> 200 OK")

    def test_a_head_of_10240_bytes_overflows(self):
        self.check_closed(padded(b"GET /v1 HTTP/1.1", BUFFER + 1), "clnt overflowed request buffer")
        self.check_closed(padded(b"GET /v1 HTTP/1.1", BUFFER + 1, b"\n\n"), "clnt overflowed request buffer")

    def test_10239_bytes_without_a_blank_line_overflow_at_once(self):
        self.check_closed(b"x" * BUFFER, "clnt overflowed request buffer")

    def test_10238_bytes_without_a_blank_line_are_waited_on(self):
        with self.kelpd.connect() as s:
            s.sendall(b"x" * (BUFFER - 1))
            kelpd_proc.await_taken(s)
            self.kelpd.await_child(s)
            self.assertEqual("", self.kelpd.take_log())
            s.shutdown(socket.SHUT_WR)
            self.assertEqual(SILENCE, kelpd_proc.receive(s))
        self.assert_log("htreq_readbuf failed: clnt closed without valid req")

    def test_body_bytes_after_a_short_head_may_exceed_the_buffer(self):
        body = bytes(range(256)) * 60
        self.check_ok(put("/v1/d/s/e/p", body), OK)
        self.assertEqual(body, self.kelpd.load("d/s/e/p"))

    def test_body_bytes_after_a_head_that_fills_the_buffer_are_all_read(self):
        body = b"0123456789" * 10
        for size in (BUFFER - 1, BUFFER):
            raw = padded(b"PUT /v1/d/s/e/p HTTP/1.1\r\nContent-Length: 100", size) + body
            self.check(raw, OK, "PUT /v1/d/s/e/p -> 200 OK")
            self.assertEqual(body, self.kelpd.load("d/s/e/p"))

    def test_a_head_with_a_nul_byte_harms_nobody(self):
        with self.kelpd.connect() as s:
            s.sendall(b"GET /v1\0 HTTP/1.1\r\n\r\n")
            s.shutdown(socket.SHUT_WR)
            self.assertIn(mask_date(self, kelpd_proc.receive(s), self.since), (SILENCE, LISTING))
        self.assertIn(self.kelpd.await_log(1), ("htreq_readbuf failed: clnt closed without valid req\n",
                                                "GET /v1 -> 200 OK\n"))

    def test_a_second_request_on_the_connection_is_not_read(self):
        self.check(get("/v1") + get("/v1/x"), LISTING, "GET /v1 -> 200 OK")


class FailedRead(RequestCase):
    """The read that would fill the buffer after the first eight bytes fails, again and again if it is tried again."""

    FIRST = b"GET /v1X"
    daemon_arguments = {"fail": [Fault("read", errno.EIO, {2: BUFFER - len(FIRST)})]}

    def test_an_error_takes_back_the_last_byte(self):
        with self.kelpd.connect() as s:
            s.sendall(self.FIRST)
            kelpd_proc.await_taken(s)
            s.sendall(b" HTTP/1.1\r\n\r\n")
            self.assert_reply(LISTING, kelpd_proc.receive(s))
        self.assert_log("GET /v1 -> 200 OK")


class InterruptedWait(RequestCase):
    # Either call may be what select() makes.
    daemon_arguments = {"fail": [Fault("pselect6", errno.EINTR), Fault("select", errno.EINTR)]}

    def test_an_interrupted_wait_for_the_head_is_given_up(self):
        self.check_closed(get("/v1"), "select failed")


class TimeOut(RequestCase):
    def test_a_head_that_is_not_complete_in_five_seconds_is_given_up(self):
        foreground = Daemon(nofork=True)
        self.addCleanup(foreground.stop)
        foreground.start()
        # The five seconds are for the whole head: steady drops do not extend them.
        firsts = {"silent": b"", "partial": b"GET /v1 HTTP/1.1\r\n", "slow": b"GET /v1 HTTP/1.1\r\nX: ", "direct": b""}
        opened, began, took = {}, {}, {}
        for name, first in firsts.items():
            began[name] = time.monotonic()
            opened[name] = (foreground if name == "direct" else self.kelpd).connect()
            self.addCleanup(opened[name].close)
            opened[name].sendall(first)
        while opened and time.monotonic() < min(began.values()) + kelpd_proc.WAIT:
            ready, _, _ = select.select(opened.values(), (), (), 0.25)
            for name in [name for name, s in opened.items() if s in ready]:
                took[name] = time.monotonic() - began[name]
                self.assertEqual(SILENCE, kelpd_proc.receive(opened.pop(name)))
            if "slow" in opened:
                kelpd_proc.send(opened["slow"], b"x")
        self.assertEqual({}, opened, "never closed")
        for name, seconds in took.items():
            # No bound above but that of the wait: the machine may be busy with other things.
            self.assertLessEqual(5.0, seconds, f"the {name} client was closed early")
        self.assert_log(*["htreq_readbuf failed: clnt timed out"] * 3)
        self.assertEqual("htreq_readbuf failed: clnt timed out\nERROR: clnt timed out\n", foreground.await_log(2))


class RequestLine(RequestCase):
    def test_three_words_are_accepted(self):
        self.check(b"GET /v1 HTTP/1.1\r\n\r\n", LISTING, "GET /v1 -> 200 OK")

    def test_two_words_are_accepted(self):
        self.check(b"GET /v1\r\n\r\n", LISTING, "GET /v1 -> 200 OK")
        self.check(b"GET /v1\n\n", LISTING, "GET /v1 -> 200 OK")

    def test_one_word_is_refused(self):
        self.check_refused(b"GET\r\n\r\n", "invalid req line")

    def test_four_words_are_refused(self):
        self.check_refused(b"GET /v1 HTTP/1.1 x\r\n\r\n", "invalid req line")

    def test_two_spaces_before_the_url_make_a_fourth_word(self):
        self.check_refused(b"GET  /v1 HTTP/1.1\r\n\r\n", "invalid req line")

    def test_a_trailing_space_makes_a_fourth_word(self):
        self.check_refused(b"GET /v1 HTTP/1.1 \r\n\r\n", "invalid req line")

    def test_a_trailing_space_after_two_words_is_an_empty_protocol(self):
        self.check(b"GET /v1 \r\n\r\n", LISTING, "GET /v1 -> 200 OK")

    def test_two_spaces_without_a_protocol_make_an_empty_url(self):
        self.check(b"GET  /v1\r\n\r\n", error("400 Bad Request - invalid version"),
                   "GET  -> 400 Bad Request - invalid version")

    def test_a_leading_space_makes_an_empty_method(self):
        self.check(b" GET /v1\r\n\r\n", NOT_FOUND, " GET -> 404 Not Found")

    def test_an_empty_line_is_refused(self):
        self.check_refused(b"\r\n\r\n", "invalid req line")
        self.check_refused(b"\n\n", "invalid req line")
        self.check_refused(b"\r\nGET /v1 HTTP/1.1\r\n\r\n", "invalid req line")

    def test_tabs_do_not_separate_words(self):
        self.check_refused(b"GET\t/v1\tHTTP/1.1\r\n\r\n", "invalid req line")

    def test_http_1_0_is_refused_in_any_case(self):
        self.check_refused(b"GET /v1 HTTP/1.0\r\n\r\n", "HTTP/1.0 not supported")
        self.check_refused(b"GET /v1 http/1.0\r\n\r\n", "HTTP/1.0 not supported")
        self.check_refused(b"GET /v1 HtTp/1.0\r\n\r\n", "HTTP/1.0 not supported")

    def test_any_other_protocol_is_accepted(self):
        for proto in (b"HTTP/1.1", b"HTTP/0.9", b"HTTP/2", b"HTTP/1.00", b"x"):
            with self.subTest(proto=proto):
                self.check(b"GET /v1 " + proto + b"\r\n\r\n", LISTING, "GET /v1 -> 200 OK")

    def test_a_return_cuts_a_line_wherever_it_stands(self):
        self.check(b"GET /v1\rjunk and more junk\r\n\r\n", LISTING, "GET /v1 -> 200 OK")

    def test_the_url_is_logged_as_it_was_sent(self):
        self.check(b"GET /v1/%41+b?q=%20#f HTTP/1.1\r\n\r\n", NOT_FOUND, "GET /v1/%41+b?q=%20#f -> 404 Not Found")
        self.check(b"GET /v1/\xe9%s%n HTTP/1.1\r\n\r\n", NOT_FOUND, "GET /v1/\xe9%s%n -> 404 Not Found")


class Lines(RequestCase):
    def test_99_lines_are_accepted(self):
        self.check(b"GET /v1 HTTP/1.1\r\n" + b"X: y\r\n" * 98 + b"\r\n", LISTING, "GET /v1 -> 200 OK")
        self.check(b"GET /v1 HTTP/1.1\n" + b"X\n" * 98 + b"\n", LISTING, "GET /v1 -> 200 OK")

    def test_100_lines_are_refused(self):
        self.check_refused(b"GET /v1 HTTP/1.1\r\n" + b"X: y\r\n" * 99 + b"\r\n", "too many lines in req")
        self.check_refused(b"GET /v1 HTTP/1.1\n" + b"X\n" * 99 + b"\n", "too many lines in req")

    def test_thousands_of_lines_are_refused(self):
        self.check_refused(b"G /\n" + b"a\n" * 5000 + b"\r\n\r\n", "too many lines in req")

    def test_the_line_limit_outranks_a_bad_request_line(self):
        self.check_refused(b"bad\r\n" + b"X: y\r\n" * 99 + b"\r\n", "too many lines in req")

    def test_lines_without_a_colon_are_ignored(self):
        self.check(b"GET /v1 HTTP/1.1\r\nnonsense\r\n \r\nHost\r\n\r\n", LISTING, "GET /v1 -> 200 OK")

    def test_unknown_names_are_ignored(self):
        self.check(b"GET /v1 HTTP/1.1\r\nX-Y: z\r\n: v\r\nReferer: /\r\nReferrer:\r\nContent-Type: a/b\r\n\r\n",
                   LISTING, "GET /v1 -> 200 OK")


class Host(RequestCase):
    def check_host(self, line):
        self.check(b"GET /v1 HTTP/1.1\r\n" + line + b"\r\n\r\n", LISTING, "GET /v1 -> 200 OK")

    def check_bad_host(self, line):
        self.check_refused(b"GET /v1 HTTP/1.1\r\n" + line + b"\r\n\r\n", "invalid Host header")

    def test_no_host_line_is_needed(self):
        self.check(b"GET /v1 HTTP/1.1\r\n\r\n", LISTING, "GET /v1 -> 200 OK")

    def test_a_host_with_a_port_is_accepted(self):
        self.check_host(b"Host: example:8080")

    def test_an_empty_host_is_accepted(self):
        self.check_host(b"Host:")
        self.check_host(b"Host: :80")

    def test_a_host_with_a_slash_is_refused(self):
        self.check_bad_host(b"Host: a/b")

    def test_a_host_that_begins_with_a_dot_is_refused(self):
        self.check_bad_host(b"Host: .x")
        self.check_bad_host(b"Host:.")

    def test_blanks_before_the_host_do_not_count(self):
        self.check_bad_host(b"Host: \t .x")

    def test_what_follows_the_port_colon_is_not_looked_at(self):
        self.check_host(b"Host: a:/../.")

    def test_the_name_is_compared_ignoring_case(self):
        self.check_bad_host(b"hOST: a/b")

    def test_a_space_before_the_colon_makes_the_name_unknown(self):
        self.check_host(b"Host : a/b")
        self.check_host(b" Host: a/b")

    def test_a_later_good_host_does_not_save_a_bad_one(self):
        self.check_bad_host(b"Host: a/b\r\nHost: good")
        self.check_bad_host(b"Host: good\r\nHost: a/b")


class ContentLength(RequestCase):
    """The stored length shows in how much of a body an upload keeps."""

    BODY = b"0123456789abcdefghijklmnop"

    def check_length(self, stored, *lines):
        raw = request("PUT", "/v1/d/s/e/p", lines=lines) + self.BODY
        self.check(raw, OK, "PUT /v1/d/s/e/p -> 200 OK")
        self.assertEqual(self.BODY[:stored], self.kelpd.load("d/s/e/p"))

    def check_none(self, *lines):
        self.check(request("PUT", "/v1/d/s/e/p", lines=lines), error("400 Bad Request - no content"),
                   "PUT /v1/d/s/e/p -> 400 Bad Request - no content")
        self.assert_tree()

    def check_zero(self, *lines):
        self.check(request("PUT", "/v1/d/s/e/p", lines=lines), OK, "PUT /v1/d/s/e/p -> 200 OK")
        self.assertEqual(b"", self.kelpd.load("d/s/e/p"))

    def test_a_decimal_length_is_read(self):
        self.check_length(12, "Content-Length: 12")

    def test_a_leading_zero_means_octal(self):
        self.check_length(8, "Content-Length: 010")

    def test_a_leading_0x_means_hexadecimal(self):
        self.check_length(16, "Content-Length: 0x10")

    def test_a_leading_0b_is_zero_with_text_after_it(self):
        self.check_zero("Content-Length: 0b11")

    def test_text_after_the_number_is_ignored(self):
        self.check_length(12, "Content-Length: 12abc")
        self.check_length(12, "Content-Length: 12, 13")

    def test_blanks_and_a_plus_sign_are_accepted(self):
        self.check_length(12, "Content-Length:\t  +12 ")

    def test_the_name_is_compared_ignoring_case(self):
        self.check_length(5, "cONTENT-lENGTH: 5")

    def test_the_last_line_wins(self):
        self.check_length(3, "Content-Length: 5", "Content-Length: 3")

    def test_text_is_zero_without_error(self):
        self.check_zero("Content-Length: abc")
        self.check_zero("Content-Length:")

    def test_a_negative_length_is_no_length_for_an_upload(self):
        self.check_none("Content-Length: -1")
        self.check_none("Content-Length: -99999999999999999999")

    def test_a_missing_line_is_no_length(self):
        self.check_none()

    def test_a_space_before_the_colon_makes_the_name_unknown(self):
        self.check_none("Content-Length : 5")

    def test_a_length_beyond_64_bits_is_the_largest_number(self):
        raw = request("PUT", "/v1/d/s/e/p", lines=["Content-Length: 99999999999999999999"]) + self.BODY
        self.check(raw, error("400 Bad Request"), "PUT /v1/d/s/e/p -> 400 Bad Request", half_close=True)
        self.assert_tree("d/", "d/s/", "d/s/e/")
        raw = request("POST", "/v1/d/s/e", lines=["Content-Length: 99999999999999999999"])
        self.check(raw, error("400 Bad Request - invalid content"),
                   "POST /v1/d/s/e -> 400 Bad Request - invalid content")


if __name__ == "__main__":
    unittest.main()
