"""PUT: where an upload lies, how much of a body is kept, what is validated, what a refused upload leaves behind."""
import os
import re
import stat
import struct
import time
import unittest

import cvnfile
import kelpd_proc
from cvnfile import Column
from wirecase import OK, SILENCE, WireCase, delete, error, get, put, request, small_file, url_of

FAILED = "500 Internal Server Error"
REFUSED = "400 Bad Request"
ENTITY = ("d/", "d/s/", "d/s/e/")


class PutCase(WireCase):
    def mode(self, *names):
        return stat.S_IMODE(os.stat(self.kelpd.path("base", *names)).st_mode)

    def begin(self, url, length, sent=b""):
        """Starts an upload and waits until its temporary file is there. Returns the socket and the file's path."""
        s = self.kelpd.connect()
        self.addCleanup(s.close)
        s.sendall(b"PUT %s HTTP/1.1\r\nContent-Length: %d\r\n\r\n" % (url.encode(), length) + sent)

        def find():
            return [name for name in self.kelpd.tree() if name.endswith(".tmp")]

        return s, kelpd_proc.until(find, "the temporary file")[0]


class Places(PutCase):
    def test_missing_directories_are_made_for_the_owner_only(self):
        self.check_ok(put("/v1/d/s/e/p", b"content"))
        self.assert_tree(*ENTITY, "d/s/e/p")
        self.assertEqual([0o700] * 3, [self.mode(name) for name in ENTITY])
        self.assertEqual(b"content", self.kelpd.load("d/s/e/p"))

    def test_the_file_is_the_owners_only(self):
        self.check_ok(put("/v1/d/s/e/p", b"content"))
        self.assertEqual(0o600, self.mode("d/s/e/p"))

    def test_existing_directories_are_used_as_they_are(self):
        os.makedirs(self.kelpd.path("base/d/s"))
        os.chmod(self.kelpd.path("base/d"), 0o755)
        self.check_ok(put("/v1/d/s/e/p", b"content"))
        self.assertEqual(0o755, self.mode("d"))
        self.assertEqual(0o700, self.mode("d/s/e"))

    def test_an_existing_file_is_replaced(self):
        self.kelpd.store("d/s/e/p", b"a longer content than the new one")
        self.check_ok(put("/v1/d/s/e/p", b"new"))
        self.assertEqual(b"new", self.kelpd.load("d/s/e/p"))
        self.assert_tree(*ENTITY, "d/s/e/p")

    def test_names_are_decoded(self):
        self.check_ok(put("/v1/my%20db/a%2Bb/c+d/p%C3%A4.bin", b"x"))
        self.assert_tree("my db/", "my db/a+b/", "my db/a+b/c d/", "my db/a+b/c d/p\u00e4.bin")

    def test_short_paths_are_answered_by_silence_and_store_nothing(self):
        for url in ("/v1", "/v1/", "/v1/d", "/v1/d/s", "/v1/d/s/e", "/v1/d/s/e/"):
            with self.subTest(url=url):
                self.check_silence(put(url, b"content"))
                self.check_silence(request("PUT", url))
        self.assert_tree()

    def test_bad_urls_are_refused_and_store_nothing(self):
        for url, status in (("/v2/d/s/e/p", "version"), ("/", "version"), ("/v1/d/s/e/p/", "url"),
                            ("/v1/d/s/e/p/q", "url"), ("/v1/d/s/e/.p", "url"), ("/v1/d/s/e/..", "url"),
                            ("/v1/../s/e/p", "url"), ("/v1/d/s/e%2f..%2f..%2f..%2fp", "url"), ("p", "url")):
            with self.subTest(url=url):
                self.check_status(put(url, b"content"), f"400 Bad Request - invalid {status}")
        self.assert_tree()
        self.assertEqual({"kelpd.conf", "base", "tmp", "log"}, set(os.listdir(self.kelpd.dir)))

    def test_an_encoded_slash_cannot_hide_a_deeper_path(self):
        self.check_status(put("/v1/d/s/e/p%2Fq", b"x"), "400 Bad Request - invalid url")
        self.assert_tree()

    def test_an_entity_that_is_a_file_fails_the_upload(self):
        self.kelpd.store("d/s/e", b"a file")
        self.check_status(put("/v1/d/s/e/p", b"x"), FAILED)
        self.assert_tree("d/", "d/s/", "d/s/e")
        self.assertEqual(b"a file", self.kelpd.load("d/s/e"))

    def test_a_missing_base_fails_the_upload(self):
        os.rmdir(self.kelpd.path("base"))
        self.check_status(put("/v1/d/s/e/p", b"x"), FAILED)
        self.assertFalse(os.path.exists(self.kelpd.path("base")))

    def test_a_directory_in_the_files_place_fails_the_rename(self):
        os.makedirs(self.kelpd.path("base/d/s/e/p/inside"))
        self.check_status(put("/v1/d/s/e/p", b"x"), FAILED)
        self.assert_tree(*ENTITY, "d/s/e/p/", "d/s/e/p/inside/")

    def test_a_name_with_room_for_the_temporary_suffix_is_stored(self):
        name = "x" * (255 - len(".1700000000.tmp"))
        self.check_ok(put("/v1/d/s/e/" + name, b"x"))
        self.assert_tree(*ENTITY, "d/s/e/" + name)

    def test_a_name_without_room_for_the_temporary_suffix_fails(self):
        self.check_status(put("/v1/d/s/e/" + "x" * (256 - len(".1700000000.tmp")), b"x"), FAILED)
        self.assert_tree(*ENTITY)

    def test_a_link_in_the_files_place_is_replaced_not_followed(self):
        self.kelpd.store("d/s/e/target", b"kept")
        os.symlink("target", self.kelpd.path("base/d/s/e/p"))
        self.check_ok(put("/v1/d/s/e/p", b"new"))
        self.assertEqual(b"kept", self.kelpd.load("d/s/e/target"))
        self.assertEqual(b"new", self.kelpd.load("d/s/e/p"))
        self.assertFalse(os.path.islink(self.kelpd.path("base/d/s/e/p")))


class Lengths(PutCase):
    def test_a_missing_length_is_refused(self):
        self.check_status(request("PUT", "/v1/d/s/e/p"), "400 Bad Request - no content")
        self.assert_tree()

    def test_a_negative_length_is_refused(self):
        self.check_status(put("/v1/d/s/e/p", b"x", length=-5), "400 Bad Request - no content")
        self.assert_tree()

    def test_a_length_of_zero_stores_an_empty_file(self):
        self.check_ok(put("/v1/d/s/e/p", b""))
        self.assertEqual(b"", self.kelpd.load("d/s/e/p"))

    def test_a_length_of_zero_is_no_data_file(self):
        self.check_status(put("/v1/d/s/e/p.cvn", b""), REFUSED)
        self.assert_tree(*ENTITY)

    def test_a_length_of_zero_with_bytes_after_the_head_fails(self):
        self.check_status(put("/v1/d/s/e/p", b"x", length=0), FAILED)
        self.assert_tree(*ENTITY)

    def test_a_longer_body_is_cut_to_its_length(self):
        self.check_ok(put("/v1/d/s/e/p", b"0123456789", length=4))
        self.assertEqual(b"0123", self.kelpd.load("d/s/e/p"))

    def test_a_longer_body_that_comes_in_pieces_is_cut_to_its_length(self):
        s, _ = self.begin("/v1/d/s/e/p", 20000, b"a" * 100)
        kelpd_proc.send(s, b"b" * 30000)
        self.assert_reply(OK, kelpd_proc.receive(s))
        self.assert_log("PUT /v1/d/s/e/p -> 200 OK")
        self.assertEqual(b"a" * 100 + b"b" * 19900, self.kelpd.load("d/s/e/p"))

    def test_a_shorter_body_is_refused(self):
        for size in (0, 1, 9999):
            with self.subTest(size=size):
                self.check(put("/v1/d/s/e/p", b"x" * size, length=10000), error(REFUSED),
                           f"PUT /v1/d/s/e/p -> {REFUSED}", half_close=True)
                self.assert_tree(*ENTITY)

    def test_a_body_arrives_whole_at_every_size_around_the_buffers(self):
        for size in (1, 8191, 8192, 8193, 10000, 10239, 10240, 16384, 100001):
            with self.subTest(size=size):
                body = bytes(k * 31 + k // 251 & 255 for k in range(size))
                self.check_ok(put("/v1/d/s/e/p", body))
                self.assertEqual(body, self.kelpd.load("d/s/e/p"))

    def test_a_body_may_come_byte_by_byte(self):
        body = bytes(range(256))
        s, _ = self.begin("/v1/d/s/e/p", len(body))
        for k in range(len(body)):
            s.sendall(body[k : k + 1])
        self.assert_reply(OK, kelpd_proc.receive(s))
        self.assert_log("PUT /v1/d/s/e/p -> 200 OK")
        self.assertEqual(body, self.kelpd.load("d/s/e/p"))

    def test_a_body_may_pause_for_longer_than_a_head_may_take(self):
        s, name = self.begin("/v1/d/s/e/p", 6, b"abc")
        time.sleep(6.5)  # a head has 5 seconds, a body as long as it likes
        self.assert_tree(*ENTITY, name)
        s.sendall(b"def")
        self.assert_reply(OK, kelpd_proc.receive(s))
        self.assert_log("PUT /v1/d/s/e/p -> 200 OK")
        self.assertEqual(b"abcdef", self.kelpd.load("d/s/e/p"))

    def test_a_body_of_many_megabytes_arrives_whole(self):
        body = os.urandom(1 << 20) * 24
        self.check_ok(put("/v1/d/s/e/p", body))
        self.assertEqual(body, self.kelpd.load("d/s/e/p"))


class Temporary(PutCase):
    def test_the_upload_is_written_beside_its_place(self):
        before = int(time.time() - 0.1)
        s, name = self.begin("/v1/d/s/e/p1.bin", 10, b"01234")
        found = re.fullmatch(r"d/s/e/p1\.bin\.(\d+)\.tmp", name)
        self.assertTrue(found, name)
        self.assertTrue(before <= int(found[1]) <= time.time(), name)
        self.assertEqual(0o600, self.mode(name))
        self.assert_tree(*ENTITY, name)
        s.sendall(b"56789")
        self.assert_reply(OK, kelpd_proc.receive(s))
        self.assert_tree(*ENTITY, "d/s/e/p1.bin")
        self.assert_log("PUT /v1/d/s/e/p1.bin -> 200 OK")

    def test_the_old_file_stays_until_the_new_one_is_complete(self):
        self.kelpd.store("d/s/e/p.bin", b"old")
        s, _ = self.begin("/v1/d/s/e/p.bin", 3, b"ne")
        self.assertEqual(b"old", self.kelpd.load("d/s/e/p.bin"))
        s.sendall(b"w")
        self.assert_reply(OK, kelpd_proc.receive(s))
        self.assertEqual(b"new", self.kelpd.load("d/s/e/p.bin"))
        self.assert_log("PUT /v1/d/s/e/p.bin -> 200 OK")

    def test_an_unfinished_upload_leaves_the_old_file_and_nothing_else(self):
        self.kelpd.store("d/s/e/p.bin", b"old")
        s, _ = self.begin("/v1/d/s/e/p.bin", 3, b"ne")
        s.close()
        self.assert_log(f"PUT /v1/d/s/e/p.bin -> {REFUSED}")
        self.kelpd.await_idle()
        self.assert_tree(*ENTITY, "d/s/e/p.bin")
        self.assertEqual(b"old", self.kelpd.load("d/s/e/p.bin"))

    def test_a_temporary_name_left_over_is_written_over(self):
        now = int(time.time() - 0.1)
        for second in range(now, now + 60):
            self.kelpd.store(f"d/s/e/p.{second}.tmp", b"left over, and longer than the upload")
        self.check_ok(put("/v1/d/s/e/p", b"new"))
        self.assertEqual(b"new", self.kelpd.load("d/s/e/p"))
        self.assertEqual(59, sum(name.endswith(".tmp") for name in self.kelpd.tree()))

    def test_removing_the_entity_under_an_upload_fails_it(self):
        s, _ = self.begin("/v1/d/s/e/p", 3, b"ne")
        self.check_ok(delete("/v1/d"))
        s.sendall(b"w")
        self.assert_reply(error(FAILED), kelpd_proc.receive(s))
        self.assert_log(f"PUT /v1/d/s/e/p -> {FAILED}")
        self.assert_tree()


class Validation(PutCase):
    def check_kept_out(self, data, name="p.cvn"):
        """The upload is refused, the old file stays as it was, no temporary file is left."""
        old = small_file(first=77).data
        self.kelpd.store("d/s/e/" + name, old)
        self.check_status(put("/v1/d/s/e/" + name, data), REFUSED)
        self.assertEqual(old, self.kelpd.load("d/s/e/" + name))
        self.assert_tree(*ENTITY, "d/s/e/" + name)

    def check_taken(self, data, name="p.cvn"):
        self.check_ok(put(url_of("d", "s", "e", name), data))
        self.assertEqual(data, self.kelpd.load("d/s/e/" + name))
        self.assert_tree(*ENTITY, "d/s/e/" + name)

    def test_a_data_file_is_stored(self):
        self.check_taken(small_file(ngroup=3).data)

    def test_a_data_file_without_rows_or_columns_is_stored(self):
        self.check_taken(cvnfile.build([], []).data)
        self.check_taken(cvnfile.build([Column(b"a", cvnfile.CSTR)], []).data)

    def test_text_is_no_data_file(self):
        self.check_kept_out(b"no data file")

    def test_a_truncated_data_file_is_refused_at_every_length(self):
        whole = cvnfile.build([Column(b"a", cvnfile.BOOL)], [[[True]]]).data
        lengths = [*range(0, 40), *range(40, len(whole) - 20, 37), *range(len(whole) - 20, len(whole))]
        old = small_file(first=77).data
        self.kelpd.store("d/s/e/p.cvn", old)
        for size in lengths:
            with self.subTest(size=size):
                self.check_status(put("/v1/d/s/e/p.cvn", whole[:size]), REFUSED)
        self.assertEqual(old, self.kelpd.load("d/s/e/p.cvn"))
        self.assert_tree(*ENTITY, "d/s/e/p.cvn")

    def test_a_wrong_magic_is_refused(self):
        whole = small_file()
        self.check_kept_out(whole.patched(7, b"7"))
        self.check_kept_out(whole.patched(len(whole.data) - 1, b"2"))

    def test_a_wrong_version_is_refused(self):
        whole = small_file()
        for version in (0, 2, -1, 0x01000000):
            self.check_kept_out(whole.patched(whole.footer, struct.pack("<i", version)))

    def test_a_footer_length_that_cannot_be_is_refused(self):
        whole = small_file()
        right = whole.trailer - whole.footer
        for size in (*range(8), -1, -(1 << 63), right - 8, right + 8, right - 1, len(whole.data), 1 << 31, 1 << 32,
                     (1 << 32) + right, (1 << 63) - 1):
            with self.subTest(size=size):
                self.check_kept_out(whole.patched(whole.trailer, struct.pack("<q", size)))

    def test_footer_sizes_that_do_not_add_up_are_refused(self):
        whole = small_file()
        for offset, form, value in ((4, "<i", 2), (4, "<i", 4), (4, "<i", -1), (4, "<i", 0x7FFFFFFF), (16, "<q", 0),
                                    (16, "<q", 2), (16, "<q", -1), (16, "<q", 1 << 40), (16, "<q", (1 << 63) - 1),
                                    (24, "<i", 0), (24, "<i", -1), (24, "<i", 0x7FFFFFFF), (24, "<i", -(1 << 31)),
                                    (28, "<i", 0), (28, "<i", 0x7FFFFFFF), (28, "<i", -(1 << 31))):
            with self.subTest(offset=offset, value=value):
                self.check_kept_out(whole.patched(whole.footer + offset, struct.pack(form, value)))

    def test_hashes_and_pages_are_not_looked_at(self):
        whole = small_file()
        self.check_taken(whole.patched(whole.trailer + 8, b"\0\0\0\0"))
        self.check_taken(whole.patched(8, b"\xff" * 16))
        self.check_taken(whole.patched(whole.colmeta(0, 0), struct.pack("<q", 1 << 50)))

    def test_the_stated_size_of_the_row_groups_is_not_looked_at(self):
        whole = small_file()
        self.check_taken(whole.patched(whole.footer + 32, struct.pack("<q", -5)))

    def test_a_mismatch_file_is_validated_too(self):
        self.check_kept_out(b"no data file", "p.cvn.mismatch")
        self.check_taken(small_file().data, "p.cvn.mismatch")

    def test_other_names_are_stored_without_a_check(self):
        for name in ("p.sql", "p", "p.CVN", "p.cvnx", "cvn", "p.cvn.sql", "p.cvn.mismatch.bin", "pcvn"):
            with self.subTest(name=name):
                self.check_taken(b"no data file", name)
                os.unlink(self.kelpd.path("base/d/s/e", name))

    def test_a_name_that_looks_temporary_is_stored_and_hidden(self):
        self.check_taken(small_file().data, "p.tmp")
        self.assertTrue(self.kelpd.ask(get("/v1/d/s/e")).endswith(b"\r\n\r\n[]\n"))
        self.assert_log("GET /v1/d/s/e -> 200 OK")

    def test_directories_made_for_a_refused_upload_remain(self):
        self.check_status(put("/v1/d/s/e/p.cvn", b"x"), REFUSED)
        self.assert_tree(*ENTITY)

    def test_an_upload_is_served_back_at_once(self):
        whole = small_file()
        self.check_taken(whole.data)
        self.assertTrue(self.kelpd.ask(get("/v1/d/s/e")).endswith(b"[ " + whole.json("p.cvn").encode() + b"]\n"))
        self.assert_log("GET /v1/d/s/e -> 200 OK")
        self.assertEqual(whole, cvnfile.read(self.kelpd.load("d/s/e/p.cvn")))


class Verbose(PutCase):
    options = ("-vv",)

    def test_the_handler_itself_logs_nothing(self):
        self.check(put("/v1/d/s/e/p.cvn", small_file().data), OK, "PUT /v1/d/s/e/p.cvn HTTP/1.1",
                   "PUT /v1/d/s/e/p.cvn -> 200 OK")
        self.check(put("/v1/d/s/e/p.cvn", b"x"), error(REFUSED), "PUT /v1/d/s/e/p.cvn HTTP/1.1",
                   f"PUT /v1/d/s/e/p.cvn -> {REFUSED}")
        self.check(put("/v1/d", b"x"), SILENCE, "PUT /v1/d HTTP/1.1", "PUT /v1/d -> 200 OK")


if __name__ == "__main__":
    unittest.main()
