#!/usr/bin/env python3
"""Makes the seed inputs of the columnar library's fuzz targets out of tests/golden. Inputs that were found later stand
beside them under other names and are left alone."""
import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))
GOLDEN = os.path.join(HERE, "..", "tests", "golden")


def read(name):
    with open(os.path.join(GOLDEN, name), "rb") as f:
        return f.read()


def put(entry, name, data):
    folder = os.path.join(HERE, "corpus", entry)
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, name), "wb") as f:
        f.write(data)


def patched(data, at, fmt, value):
    return data[:at] + struct.pack(fmt, value) + data[at + struct.calcsize(fmt):]


def hostile(data):
    """Variants with one number of the footer led astray."""
    size = struct.unpack("<q", data[-16:-8])[0]
    foot = len(data) - 16 - size
    ncol = struct.unpack_from("<i", data, foot + 4)[0]
    group = foot + 40 + 248 * ncol
    meta = group + 16
    yield "footer_long", patched(data, len(data) - 16, "<q", len(data))
    yield "footer_39", patched(data, len(data) - 16, "<q", 39)
    yield "version", patched(data, foot, "<i", 2)
    yield "ncol_negative", patched(data, foot + 4, "<i", -1)
    yield "nrowgroup_huge", patched(data, foot + 16, "<q", 1 << 60)
    yield "coldefsz_shifted", patched(patched(data, foot + 24, "<i", 136 * ncol + 1), foot + 28, "<i", 112 * ncol - 1)
    yield "coldefsz_negative", patched(patched(data, foot + 24, "<i", -40), foot + 28, "<i", 248 * ncol + 40)
    yield "name_unterminated", data[:foot + 40] + b"n" * 128 + data[foot + 168:]
    if group + 16 < len(data) - 16:
        yield "group_ncol", patched(data, group + 8, "<i", 3)
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
    data = read("compressed.cvn")
    size = struct.unpack("<q", data[-16:-8])[0]
    meta = len(data) - 16 - size + 40 + 248 * 3 + 16
    nbyte, zbyte = struct.unpack_from("<ii", data, meta + 16)
    put("lz4", "page", struct.pack("<i", nbyte) + data[8:8 + zbyte])


if __name__ == "__main__":
    main()
