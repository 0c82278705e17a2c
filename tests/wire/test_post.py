"""POST: how a request body is read, the grammar of the request, and where each request is sent."""
import concurrent.futures
import json
import os
import struct
import unittest

import cvnfile
import kelpd_proc
from cvnfile import Column
from wirecase import SILENCE, STREAM, STREAM_END, WireCase, error, post, request, small_file, stream

INVALID = "400 Bad Request - invalid content"
BAD_URL = "400 Bad Request - invalid url"
REFUSED = "400 Bad Request"
LIMIT = 32768
EMPTY = STREAM + STREAM_END


class PostCase(WireCase):
    """Requests to an entity without data files: whatever the grammar accepts is answered by an empty stream."""

    URL = "/v1/d/s/e"

    def setUp(self):
        super().setUp()
        os.makedirs(self.kelpd.path("base/d/s/e"))

    def accepted(self, *bodies):
        for body in bodies:
            with self.subTest(body=body[:200]):
                self.check_ok(post(self.URL, body), EMPTY)

    def refused(self, *bodies, status=INVALID):
        for body in bodies:
            with self.subTest(body=body[:200]):
                self.check_status(post(self.URL, body), status)

    def silent(self, *bodies):
        for body in bodies:
            with self.subTest(body=body[:200]):
                self.check_silence(post(self.URL, body))


class Targets(PostCase):
    def test_an_entity_is_scanned(self):
        self.check_ok(post("/v1/d/s/e"), EMPTY)
        self.check_ok(post("/v1/d/s/e/"), EMPTY)

    def test_a_partition_is_refused(self):
        self.check_status(post("/v1/d/s/e/p.cvn", "{}"), BAD_URL)

    def test_depths_above_the_entity_are_answered_by_silence(self):
        for url in ("/v1", "/v1/", "/v1/d", "/v1/d/s", "/v1/d/s/", "/v1/none"):
            with self.subTest(url=url):
                self.check_silence(post(url))
                self.check_silence(post(url, "no JSON"))

    def test_bad_urls_keep_their_status(self):
        self.check_status(post("/v2/d/s/e", "{}"), "400 Bad Request - invalid version")
        self.check_status(post("/v1/d/s/.e", "{}"), BAD_URL)
        self.check_status(post("/v1/d/s/e/p/q", "{}"), BAD_URL)

    def test_a_missing_entity_is_not_found(self):
        for body in ("", "{}", '{"column":["a"]}', '{"command":["meta"]}', '{"command":["sample","1"]}'):
            self.check_status(post("/v1/d/s/none", body), "404 Not Found")

    def test_the_grammar_outranks_a_missing_entity(self):
        self.check_status(post("/v1/d/s/none", "[]"), INVALID)

    def test_an_entity_that_is_a_file_is_not_found(self):
        self.kelpd.store("d/s/file", small_file().data)
        self.check_status(post("/v1/d/s/file", '{"column":["id"]}'), "404 Not Found")


class Body(PostCase):
    def test_no_body_is_an_empty_request(self):
        self.check_ok(request("POST", self.URL), EMPTY)

    def test_a_length_of_zero_is_an_empty_request(self):
        self.check_ok(request("POST", self.URL, length=0), EMPTY)
        self.check_ok(request("POST", self.URL, b"no JSON", length=0), EMPTY)

    def test_a_negative_length_is_an_empty_request(self):
        self.check_ok(request("POST", self.URL, b"no JSON", length=-1), EMPTY)
        for length in (-(1 << 63), -(1 << 32), -(1 << 32) + 1, -(1 << 32) + 2, -(1 << 63) + 2):
            self.check_ok(request("POST", self.URL, b"[]", length=length), EMPTY)

    def test_a_body_of_32768_bytes_is_accepted(self):
        self.accepted("{}".ljust(LIMIT), "{}".rjust(LIMIT), '{"column":["%s"]}' % ("a" * (LIMIT - 15)))

    def test_a_body_of_32769_bytes_is_refused(self):
        self.check_status(post(self.URL, "{}".ljust(LIMIT + 1)), INVALID)

    def test_a_length_above_the_limit_is_refused_without_waiting_for_a_body(self):
        for length in (LIMIT + 1, 1 << 31, 1 << 32, (1 << 32) + 2, (1 << 63) - 1):
            self.check_status(request("POST", self.URL, length=length), INVALID)

    def test_bytes_after_the_length_are_dropped(self):
        self.check_ok(request("POST", self.URL, b"{}garbage", length=2), EMPTY)
        self.check_status(request("POST", self.URL, b"{}", length=1), INVALID)

    def test_a_body_cut_short_is_refused(self):
        for sent in (b"", b'{"column"'):
            self.check(request("POST", self.URL, sent, length=100), error(REFUSED),
                       f"POST {self.URL} -> {REFUSED}", half_close=True)

    def test_a_body_may_come_byte_by_byte(self):
        body = b'{"column": ["id"], "fragment": [0, 1]}'
        with self.kelpd.connect() as s:
            s.sendall(request("POST", self.URL, length=len(body)))
            for k in range(len(body)):
                s.sendall(body[k : k + 1])
            self.assert_reply(EMPTY, kelpd_proc.receive(s))
        self.assert_log(f"POST {self.URL} -> 200 OK")

    def test_a_body_may_follow_the_head_later(self):
        with self.kelpd.connect() as s:
            s.sendall(request("POST", self.URL, length=2))
            kelpd_proc.await_taken(s)
            s.sendall(b"{}")
            self.assert_reply(EMPTY, kelpd_proc.receive(s))
        self.assert_log(f"POST {self.URL} -> 200 OK")


class Json(PostCase):
    def test_an_empty_object_is_accepted(self):
        self.accepted("{}", " {\t\r\n} ")

    def test_a_body_without_any_token_is_refused(self):
        self.refused(" ", "\r\n\t", "\n")

    def test_a_body_that_is_no_object_is_refused(self):
        self.refused("[]", '""', "0", "null", "abc", '"a":"b"', '[{"column":[]}]')

    def test_json_cut_short_is_refused_at_every_length(self):
        whole = '{"column": ["id"], "condition": [["id", "==", ["1"]]], "fragment": [0, 1], "command": []}'
        self.accepted(whole)
        self.refused(*(whole[:size] for size in range(1, len(whole))))

    def test_wrong_brackets_are_refused(self):
        self.refused("{]", "}", '{"column":[}', '{"column":["a"}]', "{}}", "[}")

    def test_bad_escapes_are_refused(self):
        self.refused('{"column":["\\q"]}', '{"column":["\\u12x4"]}', '{"column":["\\"]}')

    def test_the_escapes_of_json_are_accepted(self):
        self.accepted('{"column":["\\"\\\\\\/\\b\\f\\n\\r\\t\\u00e9\\u0000"]}')

    def test_text_after_the_object_is_not_looked_at(self):
        self.accepted("{} garbage", '{} {"colums":[]}', "{}[1,2]", '{}""')

    def test_a_nul_byte_cuts_the_text(self):
        self.refused('{"column":["a\0b"]}', '{\0"column":[]}')
        self.accepted("{}\0{{{")

    def test_more_tokens_than_the_first_array_holds_are_accepted(self):
        for count in (190, 196, 197, 198, 199, 200, 296, 297, 298, 446, 447, 448, 671, 672, 673, 4000):
            self.accepted('{"column":[' + ",".join(f'"{k}"' for k in range(count)) + "]}")

    def test_the_densest_body_is_accepted(self):
        room = LIMIT - len('{"column":[]}')
        self.accepted('{"column":[' + ",".join(['""'] * (room // 3)) + "]}")
        self.accepted('{"condition":[' + ",".join(['["","",[]]'] * (room // 12)) + "]}")

    def test_deep_nesting_is_refused(self):
        self.refused('{"column":' + "[" * 2000 + "]" * 2000 + "}", "[" * LIMIT, '{"column":' * 3000,
                     '{"column":' * 2000 + "[]" + "}" * 2000)


class Keys(PostCase):
    def test_unknown_keys_are_refused(self):
        self.refused('{"colums":[]}', '{"":[]}', '{"column ":[]}', '{"columns":[]}', '{"x":1}', '{"column\\u0020":[]}')

    def test_keys_are_case_sensitive(self):
        self.refused('{"Column":[]}', '{"COMMAND":[]}', '{"Fragment":[0,1]}', '{"conditioN":[]}')

    def test_unquoted_keys_are_refused(self):
        self.refused("{column:[]}", "{column:[\"a\"]}", "{1:[]}")

    def test_a_key_without_a_value_is_refused(self):
        self.refused('{"column"}', '{"column":}', '{"column","command"}')

    def test_a_key_that_is_no_string_is_refused(self):
        self.refused('{["column"]:[]}', '{{"column":[]}:[]}')

    def test_members_may_come_in_any_order(self):
        self.accepted('{"fragment":[0,1],"command":[],"condition":[["a","isnull"]],"column":["a"]}',
                      '{"condition":[],"column":["a"],"fragment":[1,2]}')

    def test_a_second_column_list_is_refused_when_the_first_named_one(self):
        self.refused('{"column":["a"],"column":["b"]}', '{"column":["a"],"column":[]}')
        self.accepted('{"column":[],"column":["b"]}', '{"column":[],"column":[]}')

    def test_a_second_condition_list_is_refused_when_the_first_had_one(self):
        self.refused('{"condition":[["a","isnull"]],"condition":[]}',
                     '{"condition":[["a","isnull"]],"condition":[["b","isnull"]]}')
        self.accepted('{"condition":[],"condition":[["b","isnull"]]}')

    def test_a_second_command_is_refused_when_the_first_had_an_element(self):
        self.refused('{"command":["meta"],"command":[]}', '{"command":["meta"],"command":["meta"]}')
        self.accepted('{"command":[],"command":[]}')
        self.refused('{"command":[],"command":["other"]}', status=REFUSED)

    def test_a_second_fragment_is_refused_when_the_first_counts(self):
        self.refused('{"fragment":[0,1],"fragment":[0,1]}', '{"fragment":[0,-1],"fragment":[0,1]}')
        self.accepted('{"fragment":[1,0],"fragment":[0,2]}', '{"fragment":[1,0],"fragment":[7,0]}')


class Columns(PostCase):
    def test_an_array_of_strings_is_accepted(self):
        self.accepted('{"column":["a"]}', '{"column":["a","b","a"]}', '{"column":[""]}')

    def test_an_empty_array_is_accepted(self):
        self.accepted('{"column":[]}')

    def test_anything_but_an_array_is_refused(self):
        self.refused('{"column":"a"}', '{"column":1}', '{"column":null}', '{"column":{}}', '{"column":{"a":"b"}}',
                     '{"column":a}')

    def test_elements_that_are_no_strings_are_refused(self):
        self.refused('{"column":[1]}', '{"column":[a]}', '{"column":[null]}', '{"column":[["a"]]}',
                     '{"column":["a",{}]}', '{"column":["a",[]]}', '{"column":["a",true]}')

    def test_a_string_is_taken_byte_for_byte(self):
        names = [b'a\\"b', b"\\u0041", b"caf\xc3\xa9", b"a b", b"%s"]
        whole = cvnfile.build([Column(name, cvnfile.INT32) for name in names], [[[k] for k in range(len(names))]])
        self.kelpd.store("d/s/e/p.cvn", whole.data)
        for name in names:
            self.check_ok(post(self.URL, b'{"column":["' + name + b'"]}'), stream(whole.record(0, name)))
        for other in (b'a\\\\"b', b"A"):
            self.check_status(post(self.URL, b'{"column":["' + other + b'"]}'),
                              INVALID if other != b"A" else REFUSED)


class Conditions(PostCase):
    def test_two_elements_are_accepted(self):
        self.accepted('{"condition":[["a","isnull"]]}', '{"condition":[["",""]]}')

    def test_one_string_argument_is_accepted(self):
        self.accepted('{"condition":[["a","==","1"]]}')

    def test_an_array_of_arguments_is_accepted(self):
        self.accepted('{"condition":[["a","in",[]]]}', '{"condition":[["a","in",["1"]]]}',
                      '{"condition":[["a","in",["1","2","3"]],["b","in",["4"]]]}')

    def test_several_conditions_are_accepted(self):
        self.accepted('{"condition":[["a",">","1"],["a","<",["2"]],["b","isnotnull"]],"column":["a","b"]}')

    def test_an_empty_list_is_accepted(self):
        self.accepted('{"condition":[]}')

    def test_anything_but_an_array_of_arrays_is_refused(self):
        self.refused('{"condition":"a"}', '{"condition":{}}', '{"condition":1}', '{"condition":["a","==","1"]}',
                     '{"condition":[{"a":"b"}]}', '{"condition":[1]}', '{"condition":[["a","isnull"],"b"]}')

    def test_fewer_than_two_elements_are_refused(self):
        self.refused('{"condition":[[]]}', '{"condition":[["a"]]}', '{"condition":[["a"],["b","isnull"]]}',
                     '{"condition":[[]],"column":["a"]}')

    def test_more_than_three_elements_are_refused(self):
        self.refused('{"condition":[["a","in","1","2"]]}', '{"condition":[["a","in",["1"],"2"]]}',
                     '{"condition":[["a","in","1","2","3"]]}')

    def test_a_name_that_is_no_string_is_refused(self):
        self.refused('{"condition":[[1,"==","1"]]}', '{"condition":[[a,"isnull"]]}', '{"condition":[[[],"isnull"]]}',
                     '{"condition":[[{},"isnull"]]}')

    def test_an_operator_that_is_no_string_is_refused(self):
        self.refused('{"condition":[["a",1,"1"]]}', '{"condition":[["a",isnull]]}', '{"condition":[["a",["=="]]]}',
                     '{"condition":[["a",[],"1"]]}')

    def test_an_argument_in_an_array_that_is_no_string_is_refused(self):
        self.refused('{"condition":[["a","in",[1]]]}', '{"condition":[["a","in",["1",null]]]}',
                     '{"condition":[["a","in",[["1"]]]]}', '{"condition":[["a","in",["1",{}]]]}')

    def test_an_odd_third_element_is_read_as_the_next_item_and_refused(self):
        self.refused('{"condition":[["a","==",5],["b","isnull"]]}', '{"condition":[["a","==",{}],["b","isnull"]]}',
                     '{"condition":[["a","==",null]],"column":["a"]}', '{"condition":[["a","==",5]],"fragment":[0,1]}')

    def test_an_odd_third_element_of_the_very_last_condition_is_left_unread(self):
        self.accepted('{"condition":[["a","==",5]]}', '{"column":["a"],"condition":[["b","isnull"],["a","==",null]]}',
                      '{"condition":[["a","==",{}]]}')

    def test_an_unread_third_element_counts_as_no_argument(self):
        whole = small_file()
        self.kelpd.store("d/s/e/p.cvn", whole.data)
        self.check_ok(post(self.URL, '{"column":["id"],"condition":[["id","isnotnull",5]]}'),
                      stream(whole.record(0, b"id")))
        self.check_status(post(self.URL, '{"column":["id"],"condition":[["id","==",5]]}'), REFUSED)

    def test_operators_are_no_matter_of_the_grammar(self):
        self.accepted('{"condition":[["a","="]]}', '{"condition":[["a","nonsense","1"]]}')


class Commands(PostCase):
    def test_an_empty_command_is_none(self):
        self.accepted('{"command":[]}', '{"command":[],"column":["a"]}')

    def test_an_unknown_command_is_refused(self):
        self.refused('{"command":["nonsense"]}', '{"command":[""]}', '{"command":["Meta"]}',
                     '{"command":["SAMPLE","1"]}', '{"command":["meta "]}', status=REFUSED)

    def test_49_elements_are_a_command(self):
        self.refused(json.dumps({"command": ["x"] * 49}), status=REFUSED)

    def test_50_elements_are_refused(self):
        self.refused(json.dumps({"command": ["x"] * 50}), json.dumps({"command": ["x"] * 51}),
                     json.dumps({"command": ["x"] * 5000}))

    def test_anything_but_an_array_of_strings_is_refused(self):
        self.refused('{"command":"meta"}', '{"command":{}}', '{"command":meta}', '{"command":[meta]}',
                     '{"command":["sample",1]}', '{"command":[["meta"]]}', '{"command":["meta",[]]}')

    def test_a_command_with_columns_is_answered_by_silence(self):
        self.silent('{"command":["sample"],"column":["a"]}', '{"column":["a"],"command":["meta"]}')

    def test_a_command_with_conditions_is_answered_by_silence(self):
        self.silent('{"command":["meta"],"condition":[["a","isnull"]]}',
                    '{"condition":[["a","isnull"]],"command":["sample","1"]}')

    def test_even_an_unknown_command_with_columns_is_answered_by_silence(self):
        self.silent('{"command":["nonsense"],"column":["a"]}')

    def test_silence_outranks_a_missing_entity(self):
        self.check_silence(post("/v1/d/s/none", '{"command":["meta"],"column":["a"]}'))

    def test_a_command_with_empty_lists_is_run(self):
        self.refused('{"command":["nonsense"],"column":[],"condition":[]}', status=REFUSED)

    def test_a_fragment_does_not_disturb_a_command(self):
        self.refused('{"command":["nonsense"],"fragment":[5,2]}', status=REFUSED)


class Fragments(PostCase):
    """Which row groups of a file of ten come back shows what fragment was read."""

    def setUp(self):
        super().setUp()
        self.whole = small_file(ngroup=10)

    def store(self):
        self.kelpd.store("d/s/e/p.cvn", self.whole.data)

    def check_fragment(self, text, groups):
        self.check_ok(post(self.URL, '{"column":["id"],"fragment":%s}' % text),
                      stream(*(self.whole.record(k, b"id") for k in groups)))

    def test_two_numbers_are_an_id_and_a_count(self):
        self.store()
        self.check_fragment("[0, 4]", (0, 4, 8))
        self.check_fragment("[3,4]", (3, 7))
        self.check_fragment("[0,1]", range(10))

    def test_a_count_of_zero_is_no_fragment(self):
        self.store()
        self.check_fragment("[0,0]", range(10))
        self.check_fragment("[5,0]", range(10))

    def test_numbers_may_be_hexadecimal_or_octal(self):
        self.store()
        self.check_fragment("[0x3,0x4]", (3, 7))
        self.check_fragment("[010,011]", (8,))
        self.check_fragment("[0X1,0xA]", (1,))

    def test_words_are_numbers_too(self):
        self.store()
        self.check_fragment("[null,2]", (0, 2, 4, 6, 8))
        self.check_fragment("[true,false]", range(10))
        self.check_fragment("[3abc,4.7]", (3, 7))

    def test_a_colon_ends_a_number_and_a_number_after_the_second_is_left_unread(self):
        self.store()
        self.check_fragment("[0:1,2]", range(10))
        self.check_fragment("[1:3,2]", (1, 4, 7))

    def test_numbers_are_cut_to_32_bits(self):
        self.store()
        self.check_fragment("[4294967297,4294967300]", (1, 5, 9))
        self.check_fragment("[-4294967295,4]", (1, 5, 9))
        self.check_fragment("[1,0xF00000000]", range(10))

    def test_the_last_fragment_wins_when_the_first_counts_nothing(self):
        self.store()
        self.check_ok(post(self.URL, '{"fragment":[1,0],"column":["id"],"fragment":[1,5]}'),
                      stream(self.whole.record(1, b"id"), self.whole.record(6, b"id")))

    def test_a_number_of_19_characters_is_read(self):
        self.accepted('{"fragment":[0000000000000000000,0000000000000000001]}',
                      '{"fragment":[9223372036854775807,-922337203685477580]}')

    def test_a_number_of_20_characters_is_refused(self):
        self.refused('{"fragment":[00000000000000000000,1]}', '{"fragment":[0,00000000000000000001]}',
                     '{"fragment":[-9223372036854775808,1]}')

    def test_a_number_out_of_range_is_refused(self):
        self.refused('{"fragment":[9223372036854775808,1]}', '{"fragment":[0,9999999999999999999]}',
                     '{"fragment":[-999999999999999999999,1]}')

    def test_anything_but_two_numbers_is_refused(self):
        self.refused('{"fragment":[]}', '{"fragment":[1]}', '{"fragment":[0,1,2]}', '{"fragment":0}', '{"fragment":{}}',
                     '{"fragment":"0,1"}', '{"fragment":["0","1"]}', '{"fragment":[0,"1"]}', '{"fragment":[[0],1]}',
                     '{"fragment":[0,[1]]}')

    def test_a_fragment_outside_its_count_is_refused_once_there_is_a_file(self):
        self.accepted('{"column":["id"],"fragment":[2,2]}')
        self.store()
        for text in ("[2,2]", "[-1,2]", "[0,-1]", "[5,1]", "[2147483648,4]", "[0,2147483648]"):
            self.check_status(post(self.URL, '{"column":["id"],"fragment":%s}' % text), REFUSED)


class Verbose(PostCase):
    options = ("-v",)

    def check_logged(self, body, reply, *lines, url=PostCase.URL, status="200 OK", logged=None):
        logged = body if logged is None else logged
        self.check(post(url, body), reply, f"POST {url} HTTP/1.1", f"do_post {url}",
                   *([f"  post body: {logged}"] if logged else []), *lines, f"POST {url} -> {status}")

    def test_the_url_and_the_body_are_logged(self):
        self.check_logged('{"column":["a"]}', EMPTY)
        self.check_logged("", EMPTY, logged="{}")

    def test_the_longest_bodies_of_many_clients_are_logged_each_in_one_piece(self):
        start = '{"column":["a"]} "'  # what follows the object is not looked at
        bodies = [start + letter * (LIMIT - 2 - len(start)) + '"' for letter in "wxyz"]

        def ask(body):
            for _ in range(25):
                self.assert_reply(EMPTY, self.kelpd.ask(post(self.URL, body)))
        with concurrent.futures.ThreadPoolExecutor(len(bodies)) as pool:
            list(pool.map(ask, bodies))
        lines = self.kelpd.await_log(4 * 25 * len(bodies)).splitlines()
        for body in bodies:
            self.assertEqual(25, lines.count(f"  post body: {body}"))
        self.assertEqual(4 * 25 * len(bodies), len(lines))

    def test_the_status_is_logged(self):
        self.check_logged("[]", error(INVALID), f"POST returns error {INVALID}", status=INVALID)
        self.check_logged("", error("404 Not Found"), "POST returns error 404 Not Found", url="/v1/d/s/none",
                          status="404 Not Found", logged="{}")
        for url, status in (("/v2", "400 Bad Request - invalid version"), ("/v1/d/s/e/p", BAD_URL)):
            self.check(post(url), error(status), f"POST {url} HTTP/1.1", f"do_post {url}",
                       f"POST returns error {status}", f"POST {url} -> {status}")

    def test_a_silent_close_is_logged_without_a_status(self):
        self.check(post("/v1/d/s"), SILENCE, "POST /v1/d/s HTTP/1.1", "do_post /v1/d/s", "POST /v1/d/s -> 200 OK")
        self.check_logged('{"command":["meta"],"column":["a"]}', SILENCE)

    def test_a_command_is_logged_with_its_status(self):
        totals = struct.pack("<10i", cvnfile.PAGE_MAGIC, 0, 4, 1, 0, 8, 9, 9, 0, 0) + bytes(9)
        record = [struct.pack("<2i", cvnfile.RECORD_MAGIC, 98), totals, totals[:4] + b"\1" + totals[5:]]
        self.check_logged('{"command":["meta"]}', stream(record), "command: meta, status 200")
        self.check_logged('{"command":["nonsense"]}', error(REFUSED), f"command: nonsense, status {REFUSED}",
                          f"POST returns error {REFUSED}", status=REFUSED)
        self.check_logged('{"command":["meta","x"]}', error(INVALID), f"command: meta, status {INVALID}",
                          f"POST returns error {INVALID}", status=INVALID)


if __name__ == "__main__":
    unittest.main()
