#!/usr/bin/env python3
"""Makes the golden files, each with a map of its bytes, from the rules of the format and nothing else.

    make_golden.py          writes the files beside this script
    make_golden.py --check  compares them with what it would write; exit status 1 when one differs

LZ4 blocks and XXH32 hashes come from the system's liblz4 and libxxhash.
"""
import ctypes
import os
import struct
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
LZ4 = ctypes.CDLL("liblz4.so.1")
XXH = ctypes.CDLL("libxxhash.so.0")
XXH.XXH32.restype = ctypes.c_uint32
XXH.XXH32.argtypes = [ctypes.c_char_p, ctypes.c_size_t, ctypes.c_uint32]

BOOL, INT16, INT32, INT64, INT128, FLOAT, DOUBLE, BYTEA, CSTR, DEC64, DEC128 = range(1, 12)
DATE, TIME_MILLIS, TIMESTAMP_MILLIS = 0x10003, 0x20003, 0x30004
NAMES = {BOOL: "bool", INT16: "int16", INT32: "int32", INT64: "int64", INT128: "int128", FLOAT: "float",
         DOUBLE: "double", BYTEA: "bytea", CSTR: "cstr", DEC64: "dec64", DEC128: "dec128", DATE: "date",
         TIME_MILLIS: "time_millis", TIMESTAMP_MILLIS: "timestamp_millis"}


def xxh32(data):
    return XXH.XXH32(bytes(data), len(data), 0)


def align8(n):
    return (n + 7) // 8 * 8


def declet(n):
    """Packs three decimal digits into ten bits."""
    d2, d1, d0 = n // 100, n // 10 % 10, n % 10
    a, b, c, d = d2 >> 3, d2 >> 2 & 1, d2 >> 1 & 1, d2 & 1
    e, f, g, h = d1 >> 3, d1 >> 2 & 1, d1 >> 1 & 1, d1 & 1
    i, j, k, m = d0 >> 3, d0 >> 2 & 1, d0 >> 1 & 1, d0 & 1
    rows = {(0, 0, 0): (b, c, d, f, g, h, 0, j, k, m),
            (0, 0, 1): (b, c, d, f, g, h, 1, 0, 0, m),
            (0, 1, 0): (b, c, d, j, k, h, 1, 0, 1, m),
            (0, 1, 1): (b, c, d, 1, 0, h, 1, 1, 1, m),
            (1, 0, 0): (j, k, d, f, g, h, 1, 1, 0, m),
            (1, 0, 1): (f, g, d, 0, 1, h, 1, 1, 1, m),
            (1, 1, 0): (j, k, d, 0, 0, h, 1, 1, 1, m),
            (1, 1, 1): (0, 0, d, 1, 1, h, 1, 1, 1, m)}
    return int("".join(map(str, rows[a, e, i])), 2)


def decimal(wide, sign, digits, exponent):
    """The little-endian image of sign * digits * 10 ** exponent in decimal64, or decimal128 when wide."""
    ndeclet, nexp, bias, nbyte = (11, 12, 6176, 16) if wide else (5, 8, 398, 8)
    digits = digits.rjust(ndeclet * 3 + 1, "0")
    biased = exponent + bias
    top, rest = biased >> nexp, biased & ((1 << nexp) - 1)
    first = int(digits[0])
    comb = 0b11000 | top << 1 | first & 1 if first >= 8 else top << 3 | first
    bits = (sign < 0) << 5 | comb
    bits = bits << nexp | rest
    for n in range(ndeclet):
        bits = bits << 10 | declet(int(digits[1 + 3 * n:4 + 3 * n]))
    return bits.to_bytes(nbyte, "little")


def encode(typ, value):
    """One value as a chunk stores it."""
    storage = typ & 0xffff
    if storage == BOOL:
        return struct.pack("<B", value or 0)
    if storage in (INT16, INT32, INT64):
        return struct.pack({INT16: "<h", INT32: "<i", INT64: "<q"}[storage], value or 0)
    if storage == INT128:
        return (value or 0).to_bytes(16, "little", signed=True)
    if storage in (FLOAT, DOUBLE):
        return struct.pack("<f" if storage == FLOAT else "<d", value or 0.0)
    if storage in (DEC64, DEC128):
        return decimal(storage == DEC128, *(value or (1, "0", 0)))
    if storage == BYTEA:
        return struct.pack("<i", len(value or b"")) + (value or b"")
    return (value or b"") + b"\0"


def order(typ, value):
    """A key for comparing values that are not NULL."""
    if typ & 0xffff in (DEC64, DEC128):
        sign, digits, exponent = value
        return sign * int(digits) * 10 ** (exponent + 400)
    return value


def bounds(typ, values):
    """hasminmax and two 48-byte images."""
    present = [v for v in values if v is not None]
    if not present or typ & 0xffff == BYTEA:
        return 0, bytes(48), bytes(48)
    low = min(present, key=lambda v: order(typ, v))  # the first of equal ones, as max() does too
    high = max(present, key=lambda v: order(typ, v))
    if typ & 0xffff == CSTR:
        return 1, low[:40].ljust(48, b"\0"), high[:40].ljust(48, b"\0")
    return 1, encode(typ, low).ljust(48, b"\0"), encode(typ, high).ljust(48, b"\0")


class Bytes:
    """Bytes under construction and the map of what they are."""

    def __init__(self):
        self.data = bytearray()
        self.map = []

    def put(self, data, what):
        if len(data) > 24 and not any(data):
            shown = "00 ..."
        else:
            shown = data[:24].hex(" ") + (" ..." if len(data) > 24 else "")
        self.map.append("%6d %5d  %s\n              %s" % (len(self.data), len(data), what, shown))
        self.data += data

    def title(self, text):
        self.map.append("\n" + text)


class Column:
    def __init__(self, name, typ, zflag=0, nflag=0):
        self.name, self.typ, self.zflag, self.nflag = name.encode(), typ, zflag, nflag


def put_schema(out, columns, nrow, ngroup):
    ncol = len(columns)
    out.title("schema description")
    out.put(struct.pack("<i", 1), "version 1")
    out.put(struct.pack("<i", ncol), "ncol %d" % ncol)
    out.put(struct.pack("<q", nrow), "nrow %d" % nrow)
    out.put(struct.pack("<q", ngroup), "nrowgroup %d" % ngroup)
    out.put(struct.pack("<i", 136 * ncol), "coldefsz 136 * %d" % ncol)
    out.put(struct.pack("<i", 112 * ncol), "colstatsz 112 * %d" % ncol)
    out.put(struct.pack("<q", ngroup * (16 + 144 * ncol)), "rowgroupsz %d * (16 + 144 * %d)" % (ngroup, ncol))


def put_bounds(out, b):
    out.put(b[1], "minval" if b[0] else "minval, not valid")
    out.put(b[2], "maxval" if b[0] else "maxval, not valid")


def build(columns, groups, offsets=None):
    """The file of these columns; `groups` holds per row group one list of values per column. With `offsets` (per row
    group and column) the metadata file of a split directory: no chunks, those offsets, and the hash of the data file."""
    out = Bytes()
    out.title("head")
    out.put(b"CVN1IX86", "head magic")
    position = 8
    metas = []
    for g, group in enumerate(groups):
        start = position
        metas.append([])
        for c, column in enumerate(columns):
            values = group[c]
            body = b"".join(encode(column.typ, v) for v in values)
            bitmap = bytearray((len(values) + 7) // 8)
            for r, v in enumerate(values):
                if v is None:
                    bitmap[r // 8] |= 0x80 >> r % 8
            raw = body + bytes(bitmap)
            stored = raw
            if len(raw) >= 4096:
                budget = align8(int((0.8 if column.zflag else 0.5) * len(raw)))
                room = ctypes.create_string_buffer(budget)
                n = LZ4.LZ4_compress_default(raw, room, len(raw), budget)
                if n > 0:
                    stored = room.raw[:n]
            metas[g].append((position, raw, stored, len(body), values))
            position = align8(position + len(stored))
            if offsets is None:
                out.title("row group %d, column %d (%s)" % (g, c, column.name.decode()))
                if stored is raw:
                    at = 0
                    for v in values[:12]:
                        image = encode(column.typ, v)
                        out.put(image, "NULL" if v is None else "value %r" % (v,))
                        at += len(image)
                    if len(body) > at:
                        out.put(body[at:], "%d more values" % (len(values) - 12))
                    out.put(bytes(bitmap), "null bitmap")
                else:
                    out.put(stored, "one LZ4 block of %d values and their bitmap, %d bytes" % (len(values), len(raw)))
                pad = align8(len(out.data)) - len(out.data)
                if pad:
                    out.put(bytes(pad), "padding")
        metas[g] = (position - start, metas[g])
    foot, begin = out, len(out.data)
    put_schema(foot, columns, sum(len(g[0]) for g in groups), len(groups))
    for c, column in enumerate(columns):
        foot.title("definition of column %d" % c)
        foot.put(column.name.ljust(128, b"\0"), "name %s" % column.name.decode())
        foot.put(struct.pack("<i", column.typ), "typ %s" % NAMES[column.typ])
        foot.put(bytes([column.zflag]), "zflag")
        foot.put(bytes([column.nflag]), "nflag")
        foot.put(bytes(2), "padding")
    for c, column in enumerate(columns):
        values = [v for g in groups for v in g[c]]
        b = bounds(column.typ, [] if column.nflag else values)
        foot.title("statistics of column %d" % c)
        foot.put(struct.pack("<q", values.count(None)), "nnull %d" % values.count(None))
        foot.put(bytes([b[0]]), "hasminmax %d" % b[0])
        foot.put(bytes(7), "unused")
        put_bounds(foot, b)
    for g, (nbyte, chunks) in enumerate(metas):
        foot.title("row group %d" % g)
        nrow = len(groups[g][0])
        foot.put(struct.pack("<i", nbyte), "nbyte %d" % nbyte)
        foot.put(struct.pack("<i", nrow), "nrow %d" % nrow)
        foot.put(struct.pack("<i", len(columns)), "ncol %d" % len(columns))
        foot.put(bytes(4), "unused")
        for c, (offset, raw, stored, nmapoff, values) in enumerate(chunks):
            column = columns[c]
            if offsets is not None:
                offset = offsets[g][c]
            b = bounds(column.typ, [] if column.nflag else values)
            foot.title("row group %d, column %d" % (g, c))
            foot.put(struct.pack("<q", offset), "file_offset %d" % offset)
            foot.put(struct.pack("<i", nrow), "nrow %d" % nrow)
            foot.put(bytes([len(stored) < len(raw)]), "zflag")
            foot.put(bytes([column.nflag]), "nflag")
            foot.put(bytes(1), "unused1")
            foot.put(bytes([b[0]]), "hasminmax")
            foot.put(struct.pack("<i", len(raw)), "nbyte %d" % len(raw))
            foot.put(struct.pack("<i", len(stored)), "zbyte %d" % len(stored))
            foot.put(struct.pack("<i", values.count(None)), "nnull %d" % values.count(None))
            foot.put(struct.pack("<i", nmapoff), "nmapoff %d" % nmapoff)
            foot.put(struct.pack("<I", xxh32(stored)), "hash of the stored bytes")
            foot.put(bytes(12), "unused2, padding")
            put_bounds(foot, b)
    footer = bytes(foot.data[begin:])
    if offsets is None:
        footer_hash = xxh32(footer)
    else:
        whole = build(columns, groups).data
        footer_hash = struct.unpack("<I", whole[-8:-4])[0]
    foot.title("trailer")
    foot.put(struct.pack("<q", len(footer)), "footer size %d" % len(footer))
    foot.put(struct.pack("<I", footer_hash),
             "footer hash" if offsets is None else "footer hash of the data file, copied")
    foot.put(b"CVN1", "tail magic")
    return foot


def make():
    files = {}

    def add(name, made, intro):
        files[name] = bytes(made.data)
        text = "%s: %s\n\noffset  size  what, and its bytes\n%s\n" % (name, intro, "\n".join(made.map))
        files[name + ".txt"] = text.encode()

    add("empty.cvn", build([Column("id", INT64), Column("name", CSTR, 1, 1)], []),
        "two columns and no rows.")

    typed = [(BOOL, 1, 0), (INT16, -32768, 32767), (INT32, -2 ** 31, 2 ** 31 - 1), (INT64, 2 ** 63 - 1, -2 ** 63),
             (INT128, (1 << 64) + 2, -2), (FLOAT, 1.5, -0.25), (DOUBLE, -2.5, 1e300),
             (BYTEA, b"\x00\x01\xfe\xff", b""), (CSTR, "caf\u00e9".encode(), b""),
             (DEC64, (1, "1234", -2), (-1, "9999999999999999", 369)),
             (DEC128, (-1, "1", -6), (1, "1234567890123456789012345678901234", 0)),
             (DATE, 20778, -1), (TIME_MILLIS, 86399999, 0), (TIMESTAMP_MILLIS, 1795219200000, -1)]
    add("types.cvn", build([Column(NAMES[t], t) for t, _, _ in typed], [[[a, None, b] for _, a, b in typed]]),
        "one column of each of the 14 types; three rows, the second all NULL.")

    zeros, ramp = [0] * 2048, list(range(2048))
    add("compressed.cvn",
        build([Column("plain", INT32), Column("eager", INT32, 1), Column("ramp", INT16, 1)], [[zeros, zeros, ramp]]),
        "2048 zeros with and without the z flag, both compressed, and a ramp that compresses too little.")

    add("text50.cvn", build([Column("t", CSTR)], [[[b"b" * 49 + b"c", b"a" * 50, None, b"z" * 40, b"z" * 39]]]),
        "texts of 50 bytes, whose bounds keep 40 without a NUL.")

    columns = [Column("n", INT32), Column("t", CSTR, 0, 1)]
    groups = [[[1, 2, 3], [b"a", b"b", b"c"]], [[None, None], [b"d", None]], [[10], [b"e"]], [[-4], [b""]]]
    add("groups.cvn", build(columns, groups), "four small row groups of two columns, the second without bounds.")

    offsets, bodies, at = [], [b"", b""], [0, 0]
    for group in groups:
        offsets.append(list(at))
        for c, column in enumerate(columns):
            body = b"".join(encode(column.typ, v) for v in group[c])
            body += bytes([sum(0x80 >> r for r, v in enumerate(group[c]) if v is None)])
            bodies[c] += body
            at[c] += len(body)
    for c in range(2):
        files["groups.split/%d.cvnx" % c] = bodies[c]
    made = build(columns, groups, offsets)
    files["groups.split/meta.cvnx"] = bytes(made.data)
    files["groups.split.txt"] = (
        "groups.split: groups.cvn as a directory.\n\n0.cvnx: the stored chunks of column 0, back to back from offset 0\n"
        "%s\n1.cvnx: those of column 1\n%s\n\nmeta.cvnx:\noffset  size  what, and its bytes\n%s\n"
        % (bodies[0].hex(" "), bodies[1].hex(" "), "\n".join(made.map))).encode()
    return files


def main():
    check = sys.argv[1:] == ["--check"]
    if sys.argv[1:] and not check:
        sys.exit(__doc__)
    bad = 0
    files = make()
    for name, data in sorted(files.items()):
        path = os.path.join(HERE, name)
        if not check:
            os.makedirs(os.path.dirname(path), exist_ok=True)
            with open(path, "wb") as f:
                f.write(data)
            continue
        with open(path, "rb") as f:
            if f.read() != data:
                print("%s differs from what the rules give" % name)
                bad = 1
    stored = {os.path.relpath(os.path.join(d, f), HERE) for d, _, fs in os.walk(HERE) for f in fs}
    for extra in sorted(stored - set(files) - {os.path.basename(__file__)}):
        if "__pycache__" not in extra:
            print("%s is not made by the script" % extra)
            bad = 1
    sys.exit(bad)


if __name__ == "__main__":
    main()
