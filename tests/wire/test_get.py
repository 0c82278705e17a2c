"""GET: URLs and paths, the catalogue levels, an entity's files, a file's columns."""
import os
import struct
import unittest

import cvnfile
import kelpd_proc
from cvnfile import Column
from wirecase import WireCase, error, get, json_reply, listed, small_file, url_of

BAD_URL = "400 Bad Request - invalid url"
BAD_VERSION = "400 Bad Request - invalid version"
NOT_FOUND = "404 Not Found"


class GetCase(WireCase):
    def make(self, *names):
        for name in names:
            os.makedirs(self.kelpd.path("base", name), exist_ok=True)

    def check_names(self, url, *names):
        """The reply lists these names, in the order in which the system lists the directory."""
        folder = self.kelpd.path("base", *url.strip("/").split("/")[1:])
        order = [name for name in listed(folder) if name in names]
        self.assertEqual(sorted(order), sorted(names))
        self.check_ok(get(url), json_reply("[" + ",".join(f'"{name}"' for name in order) + "]"))

    def check_leads_to(self, url, *names):
        """The URL names the directory base/`names`, which alone holds a marker."""
        self.make(os.path.join(*names, "marker"))
        self.check_ok(get(url), json_reply('["marker"]'))


class Paths(GetCase):
    def test_the_root_may_end_in_a_slash(self):
        self.check_ok(get("/v1"), json_reply("[]"))
        self.check_ok(get("/v1/"), json_reply("[]"))

    def test_another_version_is_refused(self):
        for url in ("/v2", "/v2/db", "/V1", "/v11", "/v", "/v1x/db", "/x/v1"):
            with self.subTest(url=url):
                self.check_status(get(url), BAD_VERSION)

    def test_the_bare_slash_has_no_version(self):
        self.check_status(get("/"), BAD_VERSION)
        self.check_status(get("//"), BAD_VERSION)

    def test_an_empty_path_has_no_version(self):
        self.check_status(get(""), BAD_VERSION)
        self.check_status(get("?a"), BAD_VERSION)

    def test_a_path_without_a_slash_is_refused(self):
        self.check_status(get("abc"), BAD_URL)
        self.check_status(get("*"), BAD_URL)
        self.check_status(get("v1"), BAD_URL)

    def test_a_path_is_read_from_its_first_slash(self):
        self.check_status(get("v1/db"), BAD_VERSION)
        self.check_leads_to("anything/v1/db", "db")

    def test_anything_after_the_partition_is_refused(self):
        self.check_status(get("/v1/db/sc/en/p/x"), BAD_URL)
        self.check_status(get("/v1/db/sc/en/p/x/y/z"), BAD_URL)

    def test_too_many_segments_outrank_a_wrong_version(self):
        self.check_status(get("/v2/db/sc/en/p/x"), BAD_URL)

    def test_a_slash_after_the_partition_is_refused(self):
        self.check_status(get("/v1/db/sc/en/p/"), BAD_URL)

    def test_a_slash_after_the_other_depths_is_accepted(self):
        self.make("db/sc/en")
        self.check_names("/v1/db/", "sc")
        self.check_names("/v1/db/sc/", "en")
        self.check_ok(get("/v1/db/sc/en/"), json_reply("[]\n"))

    def test_an_empty_component_is_refused(self):
        self.check_status(get("/v1//x"), BAD_URL)

    def test_a_path_with_two_slashes_is_cut_after_them(self):
        self.check_status(get("/v1//x/y"), BAD_VERSION)
        self.check_leads_to("/v1/a//b/v1/c", "c")

    def test_a_component_that_begins_with_a_dot_is_refused(self):
        for url in ("/v1/.hidden", "/v1/.", "/v1/..", "/v1/db/..", "/v1/db/../x", "/v1/db/sc/.x", "/v1/db/sc/en/..",
                    "/v1/db/sc/en/.cvn", "/v1/db/..."):
            with self.subTest(url=url):
                self.check_status(get(url), BAD_URL)

    def test_encoded_dots_and_slashes_do_not_leave_the_tree(self):
        for url in ("/v1/%2e%2e", "/v1/%2E./x", "/v1/db%2f..", "/v1/db%2F..%2f..%2f..%2f..", "/v1/..%2fkelpd.conf",
                    "/v1/%2fetc"):
            with self.subTest(url=url):
                self.check_status(get(url), BAD_URL)

    def test_double_encoding_is_decoded_once(self):
        self.check_status(get("/v1/%252e%252e"), NOT_FOUND)
        self.check_leads_to("/v1/%252e%252e", "%2e%2e")

    def test_an_encoded_slash_separates_components(self):
        self.check_leads_to("/v1/a%2Fb", "a", "b")
        self.check_leads_to("/v1%2Fc", "c")

    def test_escapes_are_decoded_in_either_case(self):
        self.check_leads_to("/v1/my%20db", "my db")
        self.check_leads_to("/v1/%6a%6A%6b%6B", "jjkk")

    def test_a_plus_sign_is_a_space_and_an_encoded_one_stays(self):
        self.check_leads_to("/v1/a+b%41", "a bA")
        self.check_leads_to("/v1/c%2Bd", "c+d")

    def test_a_percent_sign_without_two_digits_stays(self):
        self.check_leads_to("/v1/a%zz", "a%zz")
        self.check_leads_to("/v1/b%4", "b%4")
        self.check_leads_to("/v1/c%", "c%")

    def test_an_encoded_nul_byte_ends_the_path(self):
        self.check_leads_to("/v1/db%00/../x", "db")

    def test_an_absolute_url_loses_its_scheme_and_host(self):
        self.check_leads_to("scheme://host:80/v1/q?x=1#f", "q")
        self.check_ok(get("http://h/v1"), json_reply('["q"]'))

    def test_an_absolute_url_without_a_path_is_read_from_its_beginning(self):
        self.check_status(get("http://host"), BAD_URL)

    def test_a_query_is_cut_off(self):
        self.check_leads_to("/v1/db?a=b/c", "db")
        self.check_leads_to("/v1/db2?x#y", "db2")

    def test_a_query_with_two_slashes_moves_the_start_past_the_end(self):
        self.check_status(get("/v1/db?x=//y/z"), BAD_VERSION)
        self.check_leads_to("/v1/db?x=//y", "db")
        self.check_leads_to("/v1/db?x=//y/v1/other", "other")

    def test_a_fragment_without_a_query_stays_in_the_path(self):
        self.check_leads_to("/v1/db#f", "db#f")

    def test_a_fragment_before_a_question_mark_is_cut_off(self):
        self.check_leads_to("/v1/db#f?x", "db")

    def test_a_name_too_long_for_the_file_system_is_not_found(self):
        self.check_status(get("/v1/" + "x" * 256), NOT_FOUND)
        self.check_status(get("/v1/" + "x" * 9000), NOT_FOUND)
        self.check_status(get("/v1/d/s/" + "x" * 5000), NOT_FOUND)


class Catalogue(GetCase):
    def test_an_empty_catalogue_is_an_empty_list(self):
        self.check_ok(get("/v1"), json_reply("[]"))

    def test_each_level_lists_its_directories(self):
        self.make("db1/s1/e1", "db1/s1/e2", "db1/s2", "db2")
        self.check_names("/v1", "db1", "db2")
        self.check_names("/v1/db1", "s1", "s2")
        self.check_names("/v1/db1/s1", "e1", "e2")
        self.check_names("/v1/db2")

    def test_a_missing_level_is_not_found(self):
        for url in ("/v1/x", "/v1/x/y", "/v1/x/y/z"):
            self.check_status(get(url), NOT_FOUND)

    def test_a_missing_base_is_not_found(self):
        os.rmdir(self.kelpd.path("base"))
        self.check_status(get("/v1"), NOT_FOUND)

    def test_files_are_not_listed(self):
        self.make("db/sc")
        self.kelpd.store("file", b"")
        self.kelpd.store("db/file.cvn", small_file().data)
        self.check_names("/v1", "db")
        self.check_names("/v1/db", "sc")

    def test_a_file_is_no_level(self):
        self.kelpd.store("file", b"")
        self.check_status(get("/v1/file"), NOT_FOUND)
        self.check_status(get("/v1/file/x"), NOT_FOUND)

    def test_hidden_and_temporary_names_are_skipped(self):
        self.make(".hidden", "up.tmp", ".tmp", "a.tmpx", "a.TMP", "tmp", "a.tm")
        self.check_names("/v1", "a.tmpx", "a.TMP", "tmp", "a.tm")

    def test_a_name_that_is_hidden_can_still_be_asked_for(self):
        self.make("up.tmp/s")
        self.check_names("/v1/up.tmp", "s")

    def test_links_to_directories_are_listed(self):
        self.make("db")
        os.symlink("db", self.kelpd.path("base/link"))
        os.symlink("nowhere", self.kelpd.path("base/broken"))
        self.check_names("/v1", "db", "link")

    def test_names_are_written_unescaped(self):
        names = ['quo"te', "back\\slash", "new\nline", "caf\u00e9", "100%s", " "]
        self.make(*names)
        self.check_names("/v1", *names)

    def test_thousands_of_names_are_listed_in_the_order_of_the_directory(self):
        names = [f"db{k * 7919 % 10007}" for k in range(1500)]
        for name in names:
            os.mkdir(self.kelpd.path("base", name))
        self.check_names("/v1", *names)


class Entity(GetCase):
    def check_files(self, files, url="/v1/d/s/e"):
        folder = self.kelpd.path("base", *url.split("/")[2:])
        text = ",".join(" " + files[name].json(name) for name in listed(folder) if name in files)
        self.check_ok(get(url), json_reply("[" + text + "]\n"))

    def test_an_empty_entity_is_an_empty_list_and_a_line_feed(self):
        self.make("d/s/e")
        self.check_ok(get("/v1/d/s/e"), json_reply("[]\n"))

    def test_one_file_is_listed_to_the_byte(self):
        whole = cvnfile.build([Column(b"a", cvnfile.INT32)], [[[1, 2, 3]], [[4]]])
        self.kelpd.store("d/s/e/p.cvn", whole.data)
        self.check_ok(get("/v1/d/s/e"), json_reply(
            '[ {"name": "p.cvn", "chksum": %d, "ncol": 1, "nrow": 4, "nrowgroup": 2,"nbyte": 18, "zbyte": 18}]\n'
            % whole.chksum))

    def test_files_are_listed_in_the_order_of_the_directory(self):
        files = {f"p{k * 37 % 101}.cvn": small_file(first=k, nrow=1 + k) for k in range(30)}
        for name, whole in files.items():
            self.kelpd.store("d/s/e/" + name, whole.data)
        self.check_files(files)

    def test_the_checksum_is_signed(self):
        files = {"p.cvn": small_file()}
        for seed in range(100):
            files["p.cvn"] = small_file(first=seed)
            if files["p.cvn"].chksum < 0:
                break
        self.assertLess(files["p.cvn"].chksum, 0)
        self.kelpd.store("d/s/e/p.cvn", files["p.cvn"].data)
        self.check_files(files)

    def test_the_sizes_tell_raw_from_stored_bytes(self):
        whole = cvnfile.build([Column(b"a", cvnfile.INT64)], [[[0] * 5000], [list(range(10))]])
        self.assertLess(whole.zbyte, whole.nbyte)
        self.kelpd.store("d/s/e/p.cvn", whole.data)
        self.check_files({"p.cvn": whole})

    def test_a_file_without_rows_or_columns_is_listed(self):
        files = {"rows.cvn": cvnfile.build([Column(b"a", cvnfile.CSTR)], []), "none.cvn": cvnfile.build([], [])}
        for name, whole in files.items():
            self.kelpd.store("d/s/e/" + name, whole.data)
        self.check_files(files)

    def test_row_counts_need_more_than_32_bits(self):
        whole = cvnfile.build([Column(b"a", cvnfile.INT64)], [], nrow=1 << 40)
        self.kelpd.store("d/s/e/p.cvn", whole.data)
        self.check_files({"p.cvn": whole})

    def test_what_is_no_data_file_is_skipped(self):
        self.make("d/s/e/folder", "d/s/e/folder.cvn")
        whole = small_file()
        self.kelpd.store("d/s/e/good.cvn", whole.data)
        self.kelpd.store("d/s/e/query.sql", b"select 1")
        self.kelpd.store("d/s/e/empty.cvn", b"")
        self.kelpd.store("d/s/e/short.cvn", whole.data[:-1])
        self.kelpd.store("d/s/e/head.cvn", whole.patched(0, b"X"))
        os.symlink("nowhere", self.kelpd.path("base/d/s/e/broken.cvn"))
        self.check_files({"good.cvn": whole})

    def test_data_files_are_listed_whatever_their_name_ends_in(self):
        files = {name: small_file() for name in ("a.cvn", "a.cvn.mismatch", "a.bin", "a")}
        for name, whole in files.items():
            self.kelpd.store("d/s/e/" + name, whole.data)
        self.check_files(files)

    def test_hidden_and_temporary_files_are_skipped(self):
        whole = small_file()
        for name in ("p1.cvn", "p1.cvn.1700000000.tmp", ".tmp", ".cvn", ".p.cvn", "tmp"):
            self.kelpd.store("d/s/e/" + name, whole.data)
        self.check_files({"p1.cvn": whole, "tmp": whole})

    def test_an_upload_in_progress_is_not_listed(self):
        whole = small_file()
        with self.kelpd.connect() as s:
            head = b"PUT /v1/d/s/e/p1.cvn HTTP/1.1\r\nContent-Length: %d\r\n\r\n" % len(whole.data)
            s.sendall(head + whole.data[:-1])
            kelpd_proc.until(lambda: any(name.endswith(".tmp") for name in self.kelpd.tree()), "the temporary file")
            self.check_ok(get("/v1/d/s/e"), json_reply("[]\n"))
            s.sendall(whole.data[-1:])
            kelpd_proc.receive(s)
        self.assert_log("PUT /v1/d/s/e/p1.cvn -> 200 OK")
        self.check_files({"p1.cvn": whole})

    def test_file_names_are_written_unescaped(self):
        files = {name: small_file() for name in ('a"b.cvn', "a\\b.cvn", "a%sb.cvn", "\u00fc.cvn")}
        for name, whole in files.items():
            self.kelpd.store("d/s/e/" + name, whole.data)
        self.check_files(files)

    def test_thousands_of_files_are_listed(self):
        whole = small_file(nrow=1)
        files = {f"part-{k:05d}.cvn": whole for k in range(1500)}
        self.make("d/s/e")
        for name in files:
            self.kelpd.store("d/s/e/" + name, whole.data)
        self.check_files(files)


class Partition(GetCase):
    def check_columns(self, whole, url="/v1/d/s/e/p.cvn"):
        text = ",".join(
            '{"cno": %d, "typ": "%s", "name": "%s"}'
            % (k, cvnfile.NAMES.get(column.typ, "unknown"), column.name.decode())
            for k, column in enumerate(whole.columns))
        self.check_ok(get(url), json_reply('{"column":[' + text + '], "chksum": %d}' % whole.chksum))

    def test_the_columns_are_listed_to_the_byte(self):
        whole = cvnfile.build([Column(b"id", cvnfile.INT32), Column(b"note", cvnfile.CSTR)], [[[1], [b"x"]]])
        self.kelpd.store("d/s/e/p.cvn", whole.data)
        self.check_ok(get("/v1/d/s/e/p.cvn"), json_reply(
            '{"column":[{"cno": 0, "typ": "int32", "name": "id"},{"cno": 1, "typ": "cstr", "name": "note"}], '
            '"chksum": %d}' % whole.chksum))

    def test_all_types_have_their_names(self):
        whole = cvnfile.build([Column(b"c%d" % k, typ) for k, typ in enumerate(cvnfile.NAMES)], [])
        self.kelpd.store("d/s/e/p.cvn", whole.data)
        self.check_columns(whole)

    def test_other_types_are_unknown(self):
        types = (0, 12, 0xFFFF, 0x10004, 0x40003, -1)
        whole = cvnfile.build([Column(b"c", typ) for typ in types], [])
        self.kelpd.store("d/s/e/p.cvn", whole.data)
        self.check_columns(whole)

    def test_a_file_without_columns_has_an_empty_list(self):
        whole = cvnfile.build([], [])
        self.kelpd.store("d/s/e/p.cvn", whole.data)
        self.check_ok(get("/v1/d/s/e/p.cvn"), json_reply('{"column":[], "chksum": %d}' % whole.chksum))

    def test_names_may_have_127_bytes_and_are_written_unescaped(self):
        whole = cvnfile.build([Column(b"n" * 127, 1), Column(b'q"\\', 1), Column(b"", 1), Column(b"%s%n", 1)], [])
        self.kelpd.store("d/s/e/p.cvn", whole.data)
        self.check_columns(whole)

    def test_any_data_file_of_the_entity_can_be_asked_for(self):
        whole = small_file()
        for name in ("p.cvn.mismatch", "plain", "up.tmp"):
            self.kelpd.store("d/s/e/" + name, whole.data)
            self.check_columns(whole, "/v1/d/s/e/" + name)

    def test_a_missing_file_is_not_found(self):
        self.make("d/s/e")
        self.check_status(get("/v1/d/s/e/p.cvn"), NOT_FOUND)
        self.check_status(get("/v1/d/s/x/p.cvn"), NOT_FOUND)

    def test_a_folder_without_split_files_is_not_found(self):
        self.make("d/s/e/folder")
        self.check_status(get("/v1/d/s/e/folder"), NOT_FOUND)

    def test_a_file_below_a_file_is_an_error(self):
        self.kelpd.store("d/s/e", b"")
        self.check_status(get("/v1/d/s/e/p.cvn"), "500 Internal Server Error")

    def test_a_file_name_too_long_for_the_file_system_is_an_error(self):
        self.make("d/s/e")
        self.check_status(get("/v1/d/s/e/" + "x" * 255), NOT_FOUND)
        self.check_status(get("/v1/d/s/e/" + "x" * 256), "500 Internal Server Error")

    def test_a_damaged_file_is_an_error(self):
        whole = small_file()
        size = len(whole.data)
        for damaged in (b"", b"C", whole.data[:8], whole.data[:23], whole.data[:-1], whole.patched(0, b"X"),
                        whole.patched(size - 1, b"2"), whole.patched(whole.trailer, struct.pack("<q", 7)),
                        whole.patched(whole.trailer, struct.pack("<q", -1)),
                        whole.patched(whole.trailer, struct.pack("<q", size)),
                        whole.patched(whole.trailer, struct.pack("<q", 1 << 62)),
                        whole.patched(whole.footer, struct.pack("<i", 2)),
                        whole.patched(whole.footer + 4, struct.pack("<i", 2)),
                        whole.patched(whole.footer + 4, struct.pack("<i", -1)),
                        whole.patched(whole.footer + 4, struct.pack("<i", 0x7FFFFFFF)),
                        whole.patched(whole.footer + 16, struct.pack("<q", 2)),
                        whole.patched(whole.footer + 16, struct.pack("<q", 1 << 62)),
                        whole.patched(whole.footer + 24, struct.pack("<i", -8)),
                        whole.patched(whole.footer + 28, struct.pack("<i", 0x7FFFFFF0))):
            with self.subTest(damaged=len(damaged)):
                self.kelpd.store("d/s/e/p.cvn", damaged)
                self.check_status(get("/v1/d/s/e/p.cvn"), "500 Internal Server Error")

    def test_a_damaged_page_or_hash_is_not_looked_at(self):
        whole = small_file()
        self.kelpd.store("d/s/e/p.cvn", whole.patched(8, b"\xff" * 8))
        self.check_columns(whole)
        other = whole.patched(whole.trailer + 8, struct.pack("<i", 5678))
        self.kelpd.store("d/s/e/p.cvn", other)
        raw = self.kelpd.ask(get(url_of("d", "s", "e", "p.cvn")))
        self.assertTrue(raw.endswith(b'], "chksum": 5678}'))
        self.assert_log("GET /v1/d/s/e/p.cvn -> 200 OK")


class Verbose(GetCase):
    options = ("-v",)

    def test_the_path_is_logged(self):
        self.make("d/s e")
        for url, path, reply in (("/v1", "base/", json_reply('["d"]')), ("/v1/d", "base/d", json_reply('["s e"]')),
                                 ("/v1/d/s%20e", "base/d/s e", json_reply("[]")),
                                 ("/v1/d/s/e/p", "base/d/s/e/p", error(NOT_FOUND))):
            status = "404 Not Found" if reply == error(NOT_FOUND) else "200 OK"
            self.check(get(url), reply, f"GET {url} HTTP/1.1", f"  do_get: {path}", f"GET {url} -> {status}")

    def test_no_path_is_logged_for_a_bad_url(self):
        self.check(get("/v2"), error(BAD_VERSION), "GET /v2 HTTP/1.1", f"GET /v2 -> {BAD_VERSION}")


if __name__ == "__main__":
    unittest.main()
