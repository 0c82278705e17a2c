#!/usr/bin/env python3
"""Makes the seed inputs of the fuzz targets, most out of tests/golden. Inputs that were found later stand beside them
under other names and are left alone."""
import os
import struct
import sys
from decimal import Decimal

HERE = os.path.dirname(os.path.abspath(__file__))
GOLDEN = os.path.join(HERE, "..", "tests", "golden")
sys.path.insert(0, os.path.join(HERE, "..", "tests", "support"))

import cvnfile  # noqa: E402
from cvnfile import (  # noqa: E402
    BOOL, BYTEA, CSTR, DEC64, DEC128, DOUBLE, END, INT32, INT64, TIME_MILLIS, Column, Layout, page, patched, record)
from replies import LAST_CHUNK, chunk  # noqa: E402


def read(name):
    with open(os.path.join(GOLDEN, name), "rb") as f:
        return f.read()


def put(entry, name, data):
    folder = os.path.join(HERE, "corpus", entry)
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, name), "wb") as f:
        f.write(data)


def hostile(data):
    """Variants with one number of the footer led astray."""
    at = Layout(data)
    yield "footer_long", patched(data, at.trailer, "<q", len(data))
    yield "footer_39", patched(data, at.trailer, "<q", 39)
    yield "version", patched(data, at.footer, "<i", 2)
    yield "ncol_negative", patched(data, at.footer + 4, "<i", -1)
    yield "nrowgroup_huge", patched(data, at.footer + 16, "<q", 1 << 60)
    yield "coldefsz_shifted", patched(data, at.footer + 24, "<2i", 136 * at.ncol + 1, 112 * at.ncol - 1)
    yield "coldefsz_negative", patched(data, at.footer + 24, "<2i", -40, 248 * at.ncol + 40)
    yield "name_unterminated", patched(data, at.coldef(0), "128s", b"n" * 128)
    if at.nrowgroup > 0:
        meta = at.colmeta(0, 0)
        yield "group_ncol", patched(data, at.rowgroup(0) + 8, "<i", 3)
        yield "offset_negative", patched(data, meta, "<q", -1)
        yield "offset_huge", patched(data, meta, "<q", (1 << 63) - 1)
        yield "nbyte_huge", patched(data, meta + 16, "<i", 0x7fffffff)
        yield "nbyte_255", patched(data, meta + 16, "<i", struct.unpack_from("<i", data, meta + 20)[0] * 255)
        yield "zbyte_negative", patched(data, meta + 20, "<i", -1)
        yield "zbyte_zero", patched(data, meta + 20, "<i", 0)


def main():
    names = ["empty", "types", "compressed", "text50", "groups"]
    for entry in ("scan", "scan_uncompress"):
        for name in names:
            put(entry, name, read(name + ".cvn"))
        for source in ("groups", "compressed") if entry == "scan_uncompress" else ("groups", "empty"):
            for name, data in hostile(read(source + ".cvn")):
                put(entry, source + "_" + name, data)
    for name in ("empty", "groups", "text50"):
        put("split", name, b"\0" + read(name + ".cvn"))
    for name, data in hostile(read("groups.cvn")):
        put("split", "groups_" + name, b"\0" + data)
    parts = [read("groups.split/" + n) for n in ("meta.cvnx", "0.cvnx", "1.cvnx")]
    put("split", "directory", b"\1" + b"\xff|\xff".join(parts))
    put("split", "directory_short", b"\1" + b"\xff|\xff".join([parts[0], parts[1][:10]]))
    for name, data in hostile(parts[0]):
        put("split", "directory_" + name, b"\1" + b"\xff|\xff".join([data] + parts[1:]))

    texts = ["id int64, name cstr -z", "a int32 -z -n", '"last, first" cstr, b bool', "a int32,", "lonely", ",a int32",
             'a int32 "," b bool', '"open', "a int32 -x", "", "n" * 127 + " bool", "n" * 128 + " bool",
             "a bool,b int16,c int32,d int64,e int128,f float,g double,h bytea,i cstr,j dec64,k dec128,l date,"
             "m time_millis,n timestamp_millis -n -z", 'a"b int32', '""""']
    for i, text in enumerate(texts):
        put("coldef", "text_%02d" % i, text.encode())

    values = ["0", "", "1", "-1", "0x1F", "017", "32767", "32768", "-32769", "4294967296", "99999999999999999999",
              "1e-50", "1e50", "nan", "-inf", "1.234567890123456", "1.2345678901234567", "1E-398", "9E+6144",
              "0x0123456789abcdeffedcba9876543210", "0x+00000000000001a+00000000000002b", "0x1", "1x", "abc"]
    for i, text in enumerate(values):
        for typ in (range(0, 13) if i < 2 else [(i % 11) + 1, 5, 10, 11][: 1 + (i > 14)]):
            put("datum", "type_%02d_text_%02d" % (typ, i), struct.pack("<H", typ) + text.encode())

    block = b"\x1fx\x01\x00\x09\x50zzzzz"
    put("lz4", "run", struct.pack("<i", 34) + block)
    put("lz4", "run_one_more", struct.pack("<i", 35) + block)
    put("lz4", "run_one_less", struct.pack("<i", 33) + block)
    put("lz4", "cut", struct.pack("<i", 34) + block[:-3])
    put("lz4", "offset_zero", struct.pack("<i", 34) + b"\x1fx\x00\x00\x09\x50zzzzz")
    put("lz4", "offset_far", struct.pack("<i", 34) + b"\x1fx\xff\xff\x09\x50zzzzz")
    put("lz4", "length_run", struct.pack("<i", 5000) + b"\xf0" + b"\xff" * 60)
    put("lz4", "match_run", struct.pack("<i", 5000) + b"\x1fx\x01\x00" + b"\xff" * 20)
    put("lz4", "zeros", struct.pack("<i", 300) + bytes(40))
    compressed = cvnfile.read(read("compressed.cvn")).groups[0][0]
    put("lz4", "page", struct.pack("<i", compressed.nbyte) + compressed.body)
    client()
    local_files()
    daemon()


# The client: what a server says, and what users type.

TYPES = tuple(cvnfile.NAMES)
PART = b"\xff|\xff"


def plain_page(cno, typ, nrow, values):
    """A page of values that are encoded already, none of them NULL, whose hash is not made."""
    return page(values + bytes((nrow + 7) // 8), cno, typ, nrow, nmapoff=len(values), hash=0)


def catalogue(columns):
    listed = ['{"cno": %d, "typ": "%s", "name": "%s"}' % (i, typ, name) for i, (name, typ) in enumerate(columns)]
    return ('{"column": [%s], "chksum": -5}' % ", ".join(listed)).encode()


def client_replies():
    files = (b'[{"name": "p.cvn", "chksum": -5, "ncol": 2, "nrow": 20, "nrowgroup": 2, "nbyte": 90, "zbyte": 80},\n'
             b' {"name": "q"u.cvn", "chksum": 7, "ncol": 2, "nrow": 1, "nrowgroup": 1, "nbyte": 9, "zbyte": 9}]')
    numbers = [struct.pack("<3i", 1, 2, 3), struct.pack("<2i", 0, -1)]
    rows = record(plain_page(0, INT32, 3, numbers[0]), plain_page(1, CSTR, 3, b"x\0\0001\0")) + record(
        plain_page(0, INT32, 2, numbers[1]), plain_page(1, CSTR, 2, b"0\0zz\0"))
    first = record(plain_page(0, INT32, 3, numbers[0])) + record(plain_page(0, INT32, 2, numbers[1]))
    two = catalogue([("a", "int32"), ("b", "cstr")])

    def scan(name, how, flags, *bodies):
        put("client_reply", name, bytes([6, how, flags]) + PART.join((files,) + bodies))
    put("client_reply", "list", bytes([0, 0, 0]) + b'["one", "tw"o", "three"]\n')
    put("client_reply", "list_empty", bytes([0, 0, 0]) + b"[]")
    put("client_reply", "files", bytes([1, 0, 0]) + files)
    put("client_reply", "columns", bytes([2, 0, 0]) + two)
    put("client_reply", "columns_unknown", bytes([2, 0, 0]) + catalogue([("a", "int256")]))
    put("client_reply", "table", bytes([3, 0, 0]) + files + PART + two)
    totals = record(*(plain_page(c, INT64, 1, struct.pack("<q", 20)) for c in (0, 1)))
    put("client_reply", "meta", bytes([4, 0, 0]) + totals + END)
    count = record(page(b"\0", -1, 0, 20, nmapoff=0, hash=0))
    put("client_reply", "count", bytes([5, 0, 0]) + count + count + END)
    for how in (0, 1, 8, 9, 25, 33, 41):
        scan("scan_%02d" % how, how, 1, two, rows + END)
    for how in (5, 73, 77):
        scan("scan_%02d" % how, how, 1, two, first + END)
    scan("scan_cut", 1, 3, two, rows + END)
    scan("scan_short", 1, 1, two, rows)
    put("client_reply", "sample", bytes([7, 0, 1]) + files + PART + two + PART + rows + END)
    for name in ("types", "groups", "compressed", "text50"):
        whole = cvnfile.read(read(name + ".cvn"))
        if len(whole.data) < 16000:
            listed = catalogue([(column.name.decode(), cvnfile.NAMES[column.typ]) for column in whole.columns])
            scan("scan_" + name, 1, 1, listed, whole.stream())


def client_pages():
    for name in ("types", "compressed"):
        whole = cvnfile.read(read(name + ".cvn"))
        for column, stored in zip(whole.columns, whole.groups[0]):
            for mode in (0, 3) if stored.nbyte == stored.zbyte else (0,):
                head = bytes([TYPES.index(column.typ), mode, column.typ % 5, column.typ % 9])
                head += struct.pack("<4i", stored.nrow, stored.nnull, stored.nmapoff, stored.nbyte)
                if stored.zbyte < 8192:
                    put("client_page", "%s_%s_%d" % (name, column.name.decode(), mode), head + stored.body)


def client_http():
    def reply(status, *lines):
        return b"HTTP/1.1 " + status + b"\r\n" + b"".join(line + b"\r\n" for line in lines) + b"\r\n"

    put("client_chunk", "plain", chunk(b"hello") + chunk(b"x" * 20) + LAST_CHUNK)
    put("client_chunk", "empty", LAST_CHUNK)
    put("client_chunk", "trailer", b"5;a=b\nhello\r\n0;last\r\nName: value\r\n\r\n")
    put("client_chunk", "error_text", chunk(b"hello") + b"500 Internal Server Error")
    put("client_chunk", "long_line", b"0" * 300 + b"5\r\nhello\r\n0\r\n\r\n")
    put("client_chunk", "huge", b"ffffffffffffffff\r\nhello")
    put("client_chunk", "behind", b"0\r\n\r\nmore")

    get, post, upload, length = b"\0", b"\1", b"\2", b"Content-Length: %d"
    chunked = b"Transfer-Encoding: chunked"
    for i, status in enumerate((b"200 OK", b"404 Not Found", b"401 Unauthorized", b"100 Continue", b"301 Moved")):
        put("client_http", "length_%d" % i, bytes([i % 4]) + reply(status, length % 3) + b"abc")
        put("client_http", "chunked_%d" % i, bytes([i % 4]) + reply(status, chunked) + chunk(b"abc") + LAST_CHUNK)
    put("client_http", "until_close", get + reply(b"200 OK") + b"abc")
    put("client_http", "cut", get + reply(b"200 OK", length % 30) + b"abc")
    put("client_http", "error_in_stream", post + reply(b"200 OK", chunked) + chunk(b"abc") + b"500 Internal Error")
    put("client_http", "interim", upload + reply(b"100 Continue") + reply(b"200 OK", length % 0))
    put("client_http", "upload_chunked", upload + reply(b"200 OK", chunked) + LAST_CHUNK)
    put("client_http", "both", get + reply(b"200 OK", chunked, length % 2) + chunk(b"abc") + LAST_CHUNK)
    put("client_http", "bare_return", get + reply(b"200 OK", b"Fol\rded: 0"))
    put("client_http", "unknown_coding", get + reply(b"200 OK", b"Transfer-Encoding: other") + LAST_CHUNK)
    put("client_http", "nothing", get)
    put("client_http", "no_http", get + b"SSH-2.0-x\r\n")


def client_texts():
    for i, text in enumerate((
            "kelp://localhost:8080/a/b/c", "http://h/v1/a%20b/c+d/%e4/p.cvn/", "https://user:pw@h:443/v1", "kelp://h/a",
            "http://[::1]:80/v1/a", "kelp://h:0", "kelp://h:65536", "http://h/v2/a", "http://h:1/v1/a?b",
            "kelp://h:1//a", "kelp://h:1/.a", "kelp://h:1/a%2fb", "kelp://h:1/a%00b", "kelp://u@v@h:1/a",
            "kelp://h:1/a%", "://", "")):
        put("client_text", "url_%02d" % i, bytes([14]) + text.encode())
    for i, text in enumerate((
            "a = 1", "a==1", "a <> 'it''s'", '"a ""b" >= "x"', "a is null", "a IS NOT NULL", "a isnull", "a isnotnull",
            "a in (1, 'b,c', \"d\")", "a in ()", "a in (1", "a", "a = ", "= 1", "a < 'open", "a in 1", "a is",
            "a = 1 and b = 2", " a\t>\n1 ", "a=='x' y")):
        put("client_text", "condition_%02d" % i, bytes([15]) + text.encode())
    for i, text in enumerate((
            "0", "-1", "0x7f", "32768", "9" * 41, "1.5", "1e400", "nan", "inf", "true", "2021-07-04", "12:34:56.789",
            "2021-07-04T12:34:56.789Z", "\\x00ff", "\\x0", "1.50E-3", "")):
        for typ in (i % 14, (i * 5 + 3) % 14):
            put("client_text", "value_%02d_%02d" % (i, typ), bytes([typ]) + text.encode())


def client():
    client_replies()
    client_pages()
    client_http()
    client_texts()


# Data files as each reader takes them, with the bytes that say what it is to do.


def data_files():
    """Files by name: the golden ones that are small, and some with what those lack."""
    for name in ("empty", "types", "compressed", "text50", "groups"):
        yield name, read(name + ".cvn")
    columns = [Column(b"day", TIME_MILLIS), Column(b"sum", DEC64), Column(b"big", DEC128, 1), Column(b"note", CSTR, 1),
               Column(b"raw", BYTEA)]
    groups = [[[1000 * k + g, None], [Decimal(k), Decimal("1.25")], [None, Decimal(g)], [b"n%d" % k, b"\xc3\xa4"],
               [None, b"\0\1"]] for g, k in ((0, 1), (1, 7), (2, 3))]
    yield "decimals", cvnfile.build(columns, groups).data
    columns, groups = [Column(b"a", BOOL), Column(b"b", DOUBLE)], [[[None] * 9, [None] * 9], [[True], [2.5]]]
    yield "nulls", cvnfile.build(columns, groups).data
    long = [b"x" * 300 + b"%04d" % k for k in range(40)]
    yield "long", cvnfile.build([Column(b"t", CSTR, 1), Column(b"n", INT32)], [[long, list(range(40))]] * 3).data


CONDITIONS = (b"", b"n >= 2 and t != 'b'", b"n is null", b"n in (1, 10, 99)", b"t == 'a'", b"t > 'aaaa'", b"n < -3",
              b"day >= 00:00:01 and sum = 1.25", b"a is not null and b <= 2.5", b"n in ()", b"nothing = 1", b"n = 'x'")


def local_files():
    files = list(data_files())
    for number, (name, data) in enumerate(files):
        # One condition of every operator over the columns; then with fragments, backwards, split, decompressed.
        for op in range(1, 10):
            put("rowgroups", "%s_op_%d" % (name, op), bytes([1, 0, 0, 0, op, op, op * 5 + number] + [0] * 9) + data)
        put("rowgroups", name + "_fragment", bytes([16 + 8, 1, 2, 0] + [0] * 12) + data)
        put("rowgroups", name + "_split", bytes([64 + 32, 0, 0, 0] + [0] * 12) + data)
        put("rowgroups", name + "_some", bytes([3, 0, 0, 1, 0, 4, 1, 1, 5, 0, 0, 9, 31, 0, 0, 0]) + data)
        for i, text in enumerate(CONDITIONS):
            if i < 2 or i % len(files) == number:
                put("rows_file", "%s_%02d" % (name, i), text.ljust(64, b"\0") + data)
        put("verify", name, data)
        for flags in (0, 3, 6):
            put("arrow", "%s_%d" % (name, flags), bytes([flags, 2, number, 2 + number]) + data)
            put("sampler", "%s_%d" % (name, flags), bytes([2 + number, 0, 7, flags]) + data)
    for name, data in hostile(read("groups.cvn")):
        put("rowgroups", "groups_" + name, bytes([1, 0, 0, 0, 0, 4, 0] + [0] * 9) + data)
        put("rows_file", "groups_" + name, b"n > 1".ljust(64, b"\0") + data)
        put("verify", "groups_" + name, data)
        put("arrow", "groups_" + name, bytes(4) + data)
        put("sampler", "groups_" + name, bytes([9, 0, 1, 1]) + data)

    for i, text in enumerate((b"", b"a,b,c\n1,2,3\n", b"a;b\r\n1;2\r\n", b'"a ""b""","c\nd"\n', b'"open', b'"a"b\n',
                              b"\xef\xbb\xbfx\n", b"1,2", b"\n\n,\n", b'a"b,c"\n', b"\0,\0\n",
                              b"2021-07-04,12:34:56,1.5,true\n",
                              b'"x"\r', b"x\r",
                              b",".join(b"%d" % k for k in range(100)) + b"\n")):
        for block in (1, 0, 70):
            put("csv", "text_%02d_%d" % (i, block), bytes([1 if b";" in text else 0, block]) + text)

    for i in range(8):
        kinds = bytes((i * 5 + k) % 14 + 16 * (k % 4) for k in range(1 + i))
        put("roundtrip", "small_%d" % i, bytes([i, i, 9 * i, i + 8 * i, i, i]) + kinds)
    put("roundtrip", "nothing", bytes([1, 0, 0, 0, 0, 0, 1, 2]))
    put("roundtrip", "many", bytes([1, 0x87, 1, 3, 5, 9, 3, 8]))
    put("roundtrip", "huge", bytes([0, 10, 250, 0x80 + 16, 1, 200, 8]))
    put("roundtrip", "huge_split", bytes([1, 6, 150, 0xc2, 1, 90, 8, 2]))


# Requests to the daemon, over a small tree of tables: db/s/t has files, db/s/u what is not only files.


def daemon():
    groups = read("groups.cvn")

    def request(method, path, body=None, *lines):
        head = b"%s %s HTTP/1.1\r\n" % (method, path) + b"".join(line + b"\r\n" for line in lines)
        if body is not None:
            head += b"Content-Length: %d\r\n" % len(body)
        return head + b"\r\n" + (body or b"")

    def save(name, sampled, *requests):
        put("request", name, bytes([sampled]) + PART.join(requests))

    for i, path in enumerate((b"/v1", b"/v1/", b"/v1/db", b"/v1/db/s", b"/v1/db/s/t", b"/v1/db/s/u",
                              b"/v1/db/s/t/types.cvn",
                              b"/v1/db/s/u/split.cvn", b"/v1/db/s/u/damaged.cvn.mismatch", b"/v1/no",
                              b"/v1/db/s/t/x.cvn",
                              b"/v2/db", b"/v1/.db", b"/v1/db/%2e%2e", b"/v1/a/b/c/d/e", b"http://h/v1/db?x#y")):
        save("get_%02d" % i, 4 * (i % 2), request(b"GET", path, None, b"Host: h"))
    bodies = [b"{}", b'{"column": ["n", "t"]}', b'{"column": ["n"], "condition": [["n", "==", "2"]]}',
              b'{"column": ["n", "t"], "condition": [["n", ">", "1"], ["t", "isnotnull"]]}',
              b'{"column": ["n"], "condition": [["n", "in", ["1", "2", "10"]]], "fragment": [0, 2]}',
              b'{"column": ["n"], "condition": [["n", "isnull"], ["n", "<", "5"], ["n", ">=", "0"]]}',
              b'{"column": ["n"], "condition": [["n", "!=", "3"]], "fragment": [1, 2]}', b'{"column": ["nothing"]}',
              b'{"command": ["meta"]}', b'{"command": ["sample", "3"]}', b'{"command": ["other"]}', b"[",
              b'{"column": []}',
              b'{"column": ["int32", "cstr", "dec128"]}', b'{"command": ["sample", "0x7fffffff"]}']
    for i, body in enumerate(bodies):
        for table in (b"t", b"u"):
            save("post_%02d_%s" % (i, table.decode()), i % 4,
                 request(b"POST", b"/v1/db/s/" + table, body, b"Content-Type: application/json"))
    upload = request(b"PUT", b"/v1/db/s/new/p.cvn", groups)
    save("put", 0, upload, request(b"POST", b"/v1/db/s/new", bodies[1]), request(b"GET", b"/v1/db/s/new"))
    save("put_then_sample", 3, upload, request(b"POST", b"/v1/db/s/new", bodies[9]))
    save("put_broken", 0, request(b"PUT", b"/v1/db/s/t/p.cvn", groups[:-1]))
    save("put_sql", 0, request(b"PUT", b"/v1/db/s/t/v.sql", b"select 1"), request(b"GET", b"/v1/db/s/t/v.sql"))
    save("put_cut", 0, upload[:-9])
    save("put_deep", 0, request(b"PUT", b"/v1/db/s/t", groups))
    save("put_no_length", 0, b"PUT /v1/db/s/t/p.cvn HTTP/1.1\r\n\r\n")
    for i, path in enumerate((b"/v1/db/s/t/types.cvn", b"/v1/db/s/t", b"/v1/db", b"/v1/no", b"/v1/db/s/u/split.cvn")):
        save("delete_%d" % i, 0, request(b"DELETE", path), request(b"GET", b"/v1/db/s/t"))
    save("old", 0, b"GET /v1 HTTP/1.0\r\n\r\n")
    save("nothing", 0, b"")
    save("bare", 0, b"GET /v1/db\n\n")
    for name, data in hostile(groups):
        save("put_" + name, 0, request(b"PUT", b"/v1/db/s/new/p.cvn", data),
             *(request(b"POST", b"/v1/db/s/new", body) for body in (bodies[3], b"{}", bodies[8])))


if __name__ == "__main__":
    main()
