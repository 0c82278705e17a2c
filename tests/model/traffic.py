"""Seeded random requests, and the files that they carry.

A Pool holds the uploads: sound files of several tables, and copies of them with one thing wrong. A Traffic makes one
step after the other out of a seed and the model's tree, never out of what the daemon answers, so a seed makes the
same steps again. A step is ("request", bytes, where to cut the sending or 0) or a change of the tree by hand.
"""
import math
import random
import struct

import cvnfile
from cvnfile import BOOL, BYTEA, CSTR, DEC64, DEC128, DOUBLE, FLOAT, INT16, INT32, INT64, INT128, Column
from cvnview import view
from daemon_model import Dir, Link

TYPES = (BOOL, INT16, INT32, INT64, INT128, FLOAT, DOUBLE, BYTEA, CSTR, DEC64, DEC128, cvnfile.DATE,
         cvnfile.TIME_MILLIS, cvnfile.TIMESTAMP_MILLIS)
MOST_ROWS = 3 << 20  # rows that a file in the tree may claim: a count sends 16 KiB per million
LONG = b"abcdefghijklmnopqrstuvwxyzabcdefghijklmnop"  # 42 characters
_EDGE = {INT16: 1 << 15, INT32: 1 << 31, INT64: 1 << 63, INT128: 1 << 127}


def random_value(chance, typ):
    storage = typ & 0xFFFF
    if storage == BOOL:
        return chance.random() < 0.5
    if storage in _EDGE:
        edge = _EDGE[storage]
        kind = chance.random()
        return (chance.choice((-edge, edge - 1, 0, -1)) if kind < 0.1 else
                chance.randrange(-300, 300) if kind < 0.9 else chance.randrange(-edge, edge))
    if storage in (FLOAT, DOUBLE):
        kind = chance.random()
        if kind < 0.12:
            return chance.choice((math.nan, math.inf, -math.inf, -0.0, 0.0, 1e-30))
        return chance.randrange(-1000, 1000) / 8
    if storage == BYTEA:
        return chance.randbytes(chance.randrange(0, 12))
    if storage == CSTR:
        kind = chance.random()
        if kind < 0.3:
            return LONG[: chance.randrange(36, 43)] + chance.choice((b"", b"a", b"z"))
        return bytes(chance.choices(b"abcxyz \xc3\xbc", k=chance.randrange(0, 9)))
    kind = chance.random()
    if kind < 0.06:
        return chance.choice(("Infinity", "-Infinity", "NaN"))
    digits = 16 if storage == DEC64 else 34
    if kind < 0.12:
        return "9" * digits + "E" + str(chance.choice((0, 5, -20)))
    return f"{chance.randrange(-9999, 9999)}E{chance.randrange(-3, 3)}"


class _Decimal(str):
    """A decimal's text that is ordered by its value, as the encoder's statistics want it."""

    def __lt__(self, other):
        return self.key() < other.key()

    def __gt__(self, other):
        return self.key() > other.key()

    def key(self):
        value = cvnfile.decimal.Decimal(self)
        return 0 if value.is_nan() else value


def column_values(chance, typ, nrow):
    nulls = chance.choice((0, 0, 0.2, 1)) if chance.random() < 0.5 else 0
    values = [None if chance.random() < nulls else random_value(chance, typ) for _ in range(nrow)]
    if typ & 0xFFFF in (DEC64, DEC128):
        values = [value if value is None else _Decimal(value) for value in values]
    return values


def one_of_the_wrong(chance, data):
    """A copy with one thing wrong, or strange."""
    kind = chance.randrange(23)
    layout = cvnfile.Layout(data)
    patched = cvnfile.patched
    if kind == 0:
        return data[: chance.randrange(len(data))]
    if kind == 1:
        return data + chance.randbytes(chance.randrange(1, 20))
    if kind == 2:
        at = chance.randrange(len(data))
        return patched(data, at, "B", chance.randrange(256))
    if kind == 3:
        at = chance.randrange(layout.footer, len(data))
        return patched(data, at, "B", chance.choice((0, 1, 0x7F, 0x80, 0xFF)))
    if kind == 4:
        return patched(data, layout.trailer, "<q", chance.choice((-1, 0, 7, 8, 39, 40, 1 << 31, 1 << 62, len(data))))
    if kind == 5:
        return patched(data, layout.footer, "<i", chance.choice((0, 2, -1)))
    if kind == 6:
        return patched(data, layout.footer + 4, "<i", chance.choice((-1, 0, layout.ncol + 1, 1 << 30)))
    if kind == 7:
        return patched(data, layout.footer + 8, "<q", chance.choice((-1, 0, 1, 1 << 20, (1 << 20) + 1, 2500000)))
    if kind == 8:
        return patched(data, layout.footer + 16, "<q", chance.choice((-1, 0, layout.nrowgroup + 1, 1 << 60)))
    if kind == 9:
        shift = chance.choice((8, -8, 112, -136, 1 << 30))
        return patched(data, layout.footer + 24, "<ii", 136 * layout.ncol + shift, 112 * layout.ncol - shift)
    if kind == 10:
        return patched(data, layout.footer + 24, "<i", chance.choice((0, -8, 136, 1 << 30)))
    if layout.ncol == 0:
        return data[:-1]
    cno = chance.randrange(layout.ncol)
    if kind == 11:
        typ = chance.choice((0, 12, 15, -1, 0x10000, 0x10004, 0x20008, 0x4000A, *TYPES))
        return patched(data, layout.coldef(cno) + 128, "<i", typ)
    if kind == 12:
        return patched(data, layout.coldef(cno), "128s", chance.choice((b"n" * 128, b"n" * 127, b"", b"c0", b'q"\\')))
    if kind == 13:
        return patched(data, layout.colstat(cno), "<qB", chance.choice((0, 1, layout.nrow, -1)), chance.randrange(3))
    if layout.nrowgroup == 0:
        return patched(data, layout.colstat(cno) + 16, "96s", chance.randbytes(96))
    group = chance.randrange(layout.nrowgroup)
    meta = layout.colmeta(group, cno)
    if kind == 14:
        return patched(data, layout.rowgroup(group) + 8, "<i",
                       chance.choice((0, -1, layout.ncol - 1, layout.ncol + 1, layout.ncol * 2, 1 << 30)))
    if kind == 15:
        return patched(data, meta, "<q", chance.choice((0, -1, 8, len(data), len(data) - 1, 1 << 62)))
    if kind == 16:
        return patched(data, meta + 20, "<i", chance.choice((0, 1, -1, len(data), len(data) + 1, 0x7FFFFFFF)))
    if kind == 17:
        return patched(data, meta + 8, "<i", chance.choice((0, -1, 5, 0x7FFFFFFF)))
    if kind == 18:
        return patched(data, meta + 15, "B", chance.randrange(3))
    if kind == 19:
        return patched(data, meta + 24, "<i", chance.choice((0, 1, -1, 1000)))
    if kind == 20:
        # Bounds that cannot be compared: of a type that has none, or of none at all.
        data = patched(data, layout.coldef(cno) + 128, "<i", chance.choice((BYTEA, 0x10000 + BYTEA)))
        return patched(data, chance.choice((layout.colstat(cno) + 8, meta + 15)), "B", 1)
    if kind == 21:
        image = chance.choice((chance.randbytes(96), bytes(96), b"m" * 96, b"\xff" * 96))
        return patched(data, chance.choice((meta + 48, layout.colstat(cno) + 16)), "96s", image)
    # Every page is the whole file: what one row group asks for is a multiple of it.
    for k in range(layout.ncol):
        data = patched(data, layout.colmeta(group, k), "<q", 0)
        data = patched(data, layout.colmeta(group, k) + 20, "<i", len(data))
    return data


class Table:
    """One table's columns, and sound files of it."""

    def __init__(self, chance, columns, nfile, maxrow):
        self.columns = columns
        self.files, self.splits = [], []
        self.strange = []  # wrong files that open all the same
        for _ in range(nfile):
            groups = []
            for _ in range(chance.choice((0, 1, 1, 2, 3, 6))):
                nrow = chance.randrange(1, maxrow)
                groups.append([column_values(chance, column.typ, nrow) for column in columns])
            built = cvnfile.build(columns, groups)
            self.files.append((built.data, groups))
            files, meta = cvnfile.build_split(columns, groups)
            self.splits.append((bytes(meta.data), files))


class Pool:
    def __init__(self, seed=1):
        chance = random.Random(seed)
        self.tables, self.rows = [], {}
        for number in range(14):
            # Two tables hold every type, with at most a few rows each; the names repeat, so that queries fit many.
            typs = TYPES if number < 2 else [chance.choice(TYPES) for _ in range(chance.randrange(0, 6))]
            columns = [Column(b"c%d" % k, typ, chance.randrange(2), int(chance.random() < 0.15))
                       for k, typ in enumerate(typs)]
            if number == 3:
                columns = [Column(b"long " + b"n" * 121 + b"%d" % k, INT32) for k in range(3)]
            if number == 5:
                columns = [Column(b"c0", INT32), Column(b"c0", INT64), Column(b"", CSTR)]
            maxrow = 12 if number < 2 else 1500 if number == 4 else 40
            if number == 6:  # few rows, so that a bound is far from the other values
                columns, maxrow = [Column(b"c0", INT16), Column(b"c1", BOOL), Column(b"c2", INT16)], 3
            if number == 4:
                columns = [Column(b"c0", INT32, 1), Column(b"c1", CSTR)]
            self.tables.append(Table(chance, columns, 8, maxrow))
        # Many columns: their pages together can ask for far more than their file holds.
        self.tables.append(Table(chance, [Column(b"c%d" % k, INT16) for k in range(40)], 3, 9))
        for table in self.tables:
            for data, groups in table.files:
                self.rows[data] = groups
        self.sound = [data for table in self.tables for data, _ in table.files]
        self.wrong = []
        for table in self.tables:
            for _ in range(120):
                self.spoil(chance, table)
        self.other = [b"", b"CVN1IX86", b"select 1;\n", bytes(5000), chance.randbytes(30000)]


    def spoil(self, chance, table):
        """One more copy of a file with one thing wrong, or two."""
        data = chance.choice(table.files)[0]
        for _ in range(1 + (chance.random() < 0.15)):
            try:
                data = one_of_the_wrong(chance, data)
            except (struct.error, IndexError, ValueError):  # there is no second thing to spoil
                pass
        seen = view(data)
        if seen.code == 0 and seen.nrow <= MOST_ROWS:
            table.strange.append(data)
        if seen.code != 0 or seen.nrow <= MOST_ROWS:
            self.wrong.append(data)


DATABASES = (b"d0", b"d1", b"my db")
SCHEMAS = (b"s0", b"s1")
ENTITIES = (b"e0", b"e1", b"e2", b"\xc3\xbc")
PARTITIONS = (b"p0.cvn", b"p1.cvn", b"p2.cvn", b"p3.cvn", b"m.cvn.mismatch", b"q.sql", b"u.tmp", b"x.cvn.tmp", b"plain",
              b'quo"te.cvn', b"P.CVN")
ODD_NAMES = (b".hidden", b"..", b".", b"", b"a\\b", b"n" * 240, b"n" * 241, b"n" * 255, b"n" * 256, b"n" * 300,
             b"long" * 60 + b".cvn", b"%", b"a:b", b"new\nline", b".cvn", b"none")
METHODS = (b"get", b"HEAD", b"OPTIONS", b"PATCH", b"", b"GETX", b"post", b"\xff", b"TRACE", b"Put")
OPERATORS = (b"==", b"!=", b">", b">=", b"<", b"<=", b"isnull", b"isnotnull", b"in", b"IN", b"IsNull", b"ISNOTNULL")
ODD_OPERATORS = (b"=", b"<>", b"", b"in ", b"like", b"ISNUL", b"===", b"\xc3\xb6")
# Constants, by what they are edges of.
NUMBERS = (b"", b"0", b"1", b"-1", b"abc", b"0x10", b"010", b"0b101", b" 7", b"7 x", b"+5", b"true", b"99999999999",
           b"4294967296",
           b"4294967295", b"2147483647", b"2147483648", b"-2147483648", b"9223372036854775807", b"9223372036854775808",
           b"-9223372036854775809", b"18446744073709551616")
SHORTS = (b"32767", b"32768", b"-32768", b"-32769", b"65536", b"255", b"256", b"257", b"300", b"-300", b"-256",
          b"511", b"0x7fff")
FLOATS = (b"nan", b"NaN", b"-nan", b"inf", b"-Infinity", b"1e400", b"1e-50", b"1e-400", b"-1e-500", b"1e-999",
          b"-1e-46", b"0x1p-3", b"1e38", b"-0", b"0.0",
          b"0.5", b"1e", b".5", b"5.", b"0.1", b"nan(7)", b"-1000", b"1000")
DECIMALS = (b"sNaN", b"NaN123", b"-NaN", b"NaN" + b"1" * 16, b"Infinity", b"-inf", b"Inf", b"1.234567890123456",
            b"1.2345678901234567", b"1.0000000000000000", b"1E+384", b"1E+385", b"1E-398", b"1E-399", b"1E-383",
            b"9.999999999999999E384", b"9.99E369", b"1.00", b"-0", b"0E-500", b"0E+999", b"1E+6144", b"1E+6145",
            b"1E-6176", b"1E-6177",
            b"12345678901234567890123456789012345", b"1234567890123456789012345678901234", b"1_0", b" 1", b"1 ",
            b"1e", b"+.5e3", b"5.",
            b"10E383", b"0.1", b"-9999E2", b"9999E2", b"1E99999999999", b"0x1")
WIDE = (b"0x" + b"f" * 32, b"0x" + b"0" * 32, b"0x7" + b"f" * 31, b"0x8" + b"0" * 31, b"0x1", b"1x" + b"0" * 32,
        b"0X" + b"0" * 30 + b"1Fz", b"0x+" + b"0" * 15 + b"0" * 14 + b"10", b"0x" + b"g" * 32,
        b"0x0x" + b"1" * 14 + b"2" * 16,
        b"0x" + b"0" * 15 + b" " + b"0" * 16, b"0x" + b"0" * 16 + b" " * 15 + b"7",
        b"0x" + b"0" * 17 + b"-" + b"0" * 13 + b"1", b"5")
TEXTS = (b"", b"a", b"zz", b"\xff", b" ", LONG[:36], LONG[:37], *(LONG[:n] + end for n in range(38,
                                                                                                43) for end in (b"",
                                                                                                                b"a",
                                                                                                                b"z",
                                                                                                                b"~")))
CONSTANTS = {BOOL: NUMBERS, INT16: NUMBERS + SHORTS * 3, INT32: NUMBERS, INT64: NUMBERS, INT128: WIDE, FLOAT: FLOATS,
             DOUBLE: FLOATS,
             BYTEA: TEXTS, CSTR: TEXTS, DEC64: DECIMALS, DEC128: DECIMALS}
ANYTHING = NUMBERS + SHORTS + FLOATS + DECIMALS + WIDE + TEXTS


class Traffic:
    """Steps out of a seed and the model's tree."""

    def __init__(self, seed, pool, tree):
        self.chance = random.Random(seed)
        self.pool, self.tree = pool, tree

    def step(self):
        random_ = self.chance.random()
        if self.tree.root is None and random_ < 0.1:
            return ("base",)
        if random_ < 0.025:
            found = self.by_hand()
            if found:
                return found
        raw = self.request()
        cut = self.chance.randrange(1, len(raw)) if self.chance.random() < 0.01 and len(raw) > 1 else 0
        # In two pieces only where it makes no difference what the first of them ends in.
        return "request", raw, cut if b"\n\n" not in raw and b"\r\n\r\n" in raw[:10000] else 0

    # Where.

    def existing(self, depth):
        """A path of the tree, as deep as it goes up to `depth`."""
        path, node = [], self.tree.root
        while isinstance(node, Dir) and node.kids and len(path) < depth:
            name = self.chance.choice(list(node.kids))
            path.append(name)
            node = node.kids[name]
        return path

    def place(self, depth):
        pick = self.chance.random()
        if pick < 0.65:
            return self.existing(depth)
        path = [self.chance.choice(names) for names in (DATABASES, SCHEMAS, ENTITIES, PARTITIONS)[:depth]]
        if pick > 0.94 and path:
            path[self.chance.randrange(len(path))] = self.chance.choice(ODD_NAMES)
        return path

    def url(self, path):
        chance = self.chance
        special = b"%+?# \n\r\0"
        out = b"/v1"
        for name in path:
            out += b"/" if chance.random() < 0.995 else b"%2F"
            for c in name:
                if c in special or c == 47 or chance.random() < 0.02:
                    if c == 32 and chance.random() >= 0.5:
                        out += b"+"
                    else:
                        out += (b"%%%02x" if chance.random() < 0.5 else b"%%%02X") % c
                else:
                    out += bytes((c,))
        kind = chance.random()
        if kind < 0.80:
            return out
        if kind < 0.83:
            return out + b"/"
        if kind < 0.85:
            return out + b"?x=1&y=//z/" + chance.choice((b"", b"#f"))
        if kind < 0.87:
            return b"http://host:80" + out + chance.choice((b"", b"?q", b"?q#f", b"#f?q"))
        if kind < 0.88:
            return out + b"#frag" + chance.choice((b"", b"?q"))
        if kind < 0.90:
            return out.replace(b"/v1", chance.choice((b"/v2", b"/V1", b"v1", b"", b"/v1/", b"/%76%31", b"//v1")), 1)
        if kind < 0.92:
            return out + chance.choice((b"/x/y/z", b"/p/", b"//", b"/a/b", b"%2Fx", b"/%2e", b"/.x", b"%00zz", b"%",
                                        b"%zz", b"%4"))
        if kind < 0.94:
            return chance.choice((b"/", b"", b"abc", b"v1/db", b"?", b"#", b"?/v1", b"//", b"/v1//", b"/v1", b"*",
                                  b"/v1?/", b"//a",
                                  b"//a/v1", b"a//b", b"/v1#/d0", b"/v1/%00", b"%2Fv1", b"/v1" + b"/d" * 7, b"/+v1"))
        if kind < 0.945:
            return out + b"/" + b"y" * chance.choice((250, 4000, 9000, 10150 - len(out), 10300))
        return out

    # Heads.

    def framed(self, method, url, body=None, length=None):
        """A request; `length` is what it declares, the body's own length when None."""
        chance = self.chance
        lines = []
        kind = chance.random()
        plain = kind < 0.85
        end, proto = b"\r\n", b" HTTP/1.1"
        if not plain:
            pick = chance.randrange(11)
            if pick == 0:
                proto = chance.choice((b"", b" HTTP/1.0", b" http/1.0", b" HTTP/2", b" x", b" HTTP/1.0 ",
                                       b"  HTTP/1.1", b" "))
            elif pick == 1:
                end = b"\n"
            elif pick == 2:
                lines += [b"X-%d: y" % k for k in range(chance.choice((10, 94, 95, 96, 97, 98, 99, 120)))]
            elif pick == 3:
                lines.append(b"Host: " + chance.choice((b"h:80", b"a/b", b".x", b"x:/", b"", b" :/.", b"a:b:c", b"x.",
                                                        b"a\r/")))
            elif pick == 4:
                lines += [b"no colon", b": empty", b"Content-Length : 3", b"x\r\ry: Content-Length: 9"]
            elif pick == 5:
                lines.append(b"X: " + b"z" * chance.choice((100, 5000, 10000, 10239, 12000)))
            elif pick == 6:
                lines.append(b"Content-Length: " + chance.choice((b"3", b"-1", b"-7", b"0", b"x", b"0x5",
                                                                  b"99999999999999999999", b"")))
            elif pick == 7:
                method = chance.choice((method + b" ", b" " + method, method + b"\t"))
            elif pick == 8:
                lines += [b"Referer: a", b"Referrer: b", b"Content-Type: c", b"hOsT: d\t"]
            elif pick == 9:
                end = chance.choice((b"\r\r\n", b"\n"))
            else:
                lines.append(bytes(chance.choices(b"abc:\r \xff\t", k=30)))
        else:
            lines.append(b"Host: x")
        if body is not None:
            n = len(body) if length is None else length
            name = b"Content-Length" if kind < 0.7 else chance.choice((b"content-length", b"CONTENT-LENGTH"))
            form = b"%d" if kind < 0.75 else chance.choice((b"0x%x", b"0%o", b" \t%d", b"+%d", b"%d x", b"%d\t"))
            line = name + b": " + form % n
            if kind > 0.8:
                lines.insert(0, line)
            else:
                lines.append(line)
        out = end.join((method + b" " + url + proto, *lines)) + end * 2
        return out + body if body else out

    def request(self):
        chance = self.chance
        kind = chance.random()
        if kind < 0.24:
            path = self.place(chance.choice((0, 1, 2, 3, 3, 3, 4, 4, 4)))
            return self.framed(b"GET", self.url(path))
        if kind < 0.68:
            return self.query()
        if kind < 0.87:
            return self.upload()
        if kind < 0.93:
            depth = chance.choices((0, 1, 2, 3, 4), (0.3, 1, 2, 8, 40))[0]
            return self.framed(b"DELETE", self.url(self.place(depth)))
        if kind < 0.96:
            body = chance.choice((None, None, b"", b"body"))
            return self.framed(chance.choice(METHODS), self.url(self.place(chance.randrange(5))), body)
        return self.no_request()

    def no_request(self):
        """What is hardly a request."""
        chance = self.chance
        kind = chance.randrange(7)
        if kind == 0:
            return chance.choice((b"", b"GET", b"GET /v1 HTTP/1.1\r\n", b"\r\n", b"\n",
                                  b"GET /v1 HTTP/1.1\r\nHost: x\r\n\r"))
        if kind == 1:
            return chance.choice((b"\r\n\r\n", b"\n\n", b"GET\r\n\r\n", b"GET /v1 a b\r\n\r\n", b" \r\n\r\n",
                                  b"GET  /v1 HTTP/1.1\r\n\r\n",
                                  b"\xff\xfe\r\n\r\n", b"GET /v1\0 HTTP/1.1\r\n\r\n", b"\rGET /v1\r\n\r\n",
                                  b"GET  /v1\r\n\r\n", b" /v1\r\n\r\n"))
        if kind == 2:
            return bytes(b % 255 + 1 for b in chance.randbytes(chance.randrange(1, 400)))
        if kind == 3:
            return b"GET /v1 HTTP/1.1\r\nX: " + b"y" * chance.choice((10216, 10217, 10212, 10213, 10214, 10211,
                                                                      20000)) + b"\r\n\r\n"
        if kind == 4:
            return b"GET /v1\r\n" + b"a:b\n" * chance.choice((97, 98, 99)) + b"\r\n"
        if kind == 5:  # two requests at once: the second is never looked at
            return b"GET /v1\n\nGET /v1 HTTP/1.1\r\n\r\n"
        good = bytearray(self.query())
        at = chance.randrange(min(len(good), 60))
        good[at] = chance.randrange(256)
        return bytes(good)

    # Uploads.

    def table_of(self, path):
        """The table that most files of an entity are of: by its names, so that tables last."""
        tables = self.pool.tables
        tables = tables + [tables[0], tables[1], tables[6]] * 3
        return tables[self.home(path) % len(tables)]

    @staticmethod
    def home(path):
        """A number for each entity of a usual name: together they have every table, and the fullest ones often."""
        numbers = [names.index(name) if name in names else 0
                   for names, name in zip((DATABASES, SCHEMAS, ENTITIES), path)]
        numbers += [0] * (3 - len(numbers))
        return numbers[0] * 8 + numbers[1] * 4 + numbers[2]

    def data_for(self, path):
        chance, pool = self.chance, self.pool
        kind = chance.random()
        table = self.table_of(path)
        if kind < 0.66:
            return chance.choice(table.files)[0]
        if kind < 0.68:
            return chance.choice(pool.sound)
        if kind < 0.76:
            return chance.choice(pool.wrong)
        if kind < 0.90:
            return chance.choice(table.strange)
        if kind < 0.93:
            data = chance.choice(pool.sound)
            at = chance.randrange(len(data))
            data = data[:at] + bytes((chance.randrange(256),)) + data[at + 1 :]
            return data if view(data).code != 0 or view(data).nrow <= MOST_ROWS else b""
        return chance.choice(pool.other)

    def upload(self):
        chance = self.chance
        path = self.place(4)
        if len(path) < 4 and chance.random() < 0.9:
            path = [chance.choice(names) for names in (DATABASES, SCHEMAS, ENTITIES, PARTITIONS)]
        if len(path) == 4 and chance.random() < 0.6:
            path[3] = chance.choice(PARTITIONS[:4])
        data = self.data_for(path)
        kind = chance.random()
        length = None
        if kind < 0.03:
            length = len(data) + chance.choice((1, 100, 100000, 1 << 40))
        elif kind < 0.06:
            length = max(0, len(data) - chance.choice((1, 16, 100)))
        elif kind < 0.07:
            length = 0
        elif kind < 0.08:
            return self.framed(b"PUT", self.url(path)) + data
        if length is not None and length < len(data) and view(data[:length]).code == 0 and \
                view(data[:length]).nrow > MOST_ROWS:
            length = None
        return self.framed(b"PUT", self.url(path), data, length)

    # Queries.

    def constant(self, values, storage):
        chance = self.chance
        kind = chance.random()
        value = chance.choice(values) if values and kind < 0.6 else None
        if value is None or value == b"":
            return chance.choice(CONSTANTS[storage] if chance.random() < 0.9 else ANYTHING)
        if isinstance(value, bool):
            return b"%d" % value
        if isinstance(value, int):
            value += chance.choice((0, 0, -1, 1))
            return b"%d" % value if -(1 << 63) <= value < 1 << 63 and chance.random() < 0.7 else \
                b"0x%032x" % (value & (1 << 128) - 1)
        if isinstance(value, float):
            return repr(value).encode()
        if isinstance(value, bytes):
            value = bytes(c for c in value if c not in b'"\\\0')
            return value[:-1] if chance.random() < 0.2 else value + b"a" if chance.random() < 0.2 else value
        return value.encode()

    def condition(self, columns, files):
        chance = self.chance
        cno = chance.randrange(len(columns)) if columns else 0
        name = columns[cno].name if columns and chance.random() < 0.97 else chance.choice((b"none", b"", b"C0", b"c1"))
        values = []
        if files and columns:
            groups = chance.choice(files)[1]
            if groups:
                group = chance.choice(groups)
                values = [min, max][chance.randrange(2)]([v for v in group[cno] if v is not None], default=None) \
                    if chance.random() < 0.5 else chance.choice(group[cno])
                values = [values] + group[cno][:3]
        op = chance.choice(OPERATORS if chance.random() < 0.98 else ODD_OPERATORS)
        parts = [b'"%b"' % name, b'"%b"' % op]
        count = 0 if op.lower() in (b"isnull", b"isnotnull") else 1
        if op.lower() == b"in":
            count = chance.choice((0, 1, 2, 3, 3, 5))
        if chance.random() < 0.02:
            count = chance.randrange(3)
        if op.lower() == b"in" and columns and columns[cno].typ == INT16 and chance.random() < 0.6:
            values, count = [300, 255, 50, 200, 299, -1], 3
        texts = [b'"%b"' % self.constant(values, columns[cno].typ & 0xFFFF if columns else INT32) for _ in range(count)]
        if count == 1 and chance.random() < 0.7:
            parts += texts
        elif count or op.lower() == b"in":
            parts.append(b"[" + b",".join(texts) + b"]")
        return b"[" + b", ".join(parts) + b"]"

    def body(self, path):
        chance = self.chance
        table = self.table_of(path)
        if chance.random() < 0.05:
            table = chance.choice(self.pool.tables)
        columns = list(table.columns)
        kind = chance.random()
        if kind < 0.06:
            return chance.choice((b"", b"{}", b" {} ", b'{"column":[]}', b'{"condition":[]}', b'{"command":[]}'))
        if kind < 0.12:
            return chance.choice((b'{"command":["meta"]}', b'{"command":["meta"]}', b'{"command":["meta","x"]}',
                                  b'{"command":["Meta"]}',
                                  b'{"command":["none"]}', b'{"command":["meta"],"column":["c0"]}',
                                  b'{"command":["meta"],"column":[]}',
                                  b'{"command":["sample"]}', b'{"command":["sample","0"]}',
                                  b'{"command":["sample","-5"]}',
                                  b'{"command":["sample","abc"]}', b'{"command":["sample","4294967296"]}',
                                  b'{"command":["sample","99999999999999999999"]}', b'{"command":["sample","1","2"]}',
                                  b'{"command":["sample","2"],"condition":[["c0","isnull"]]}'))
        if kind < 0.125:
            return b'{"command":["sample","%b"]}' % chance.choice((b"1", b"5", b"0x10", b"1000000", b"99999999999",
                                                                   b"7 rows"))
        members = []
        named = chance.sample(columns, chance.randrange(1, len(columns) + 1)) if columns else []
        names = [column.name for column in named]
        if chance.random() < 0.03:
            names.append(chance.choice((b"none", names[0] if names else b"c0", b"C0", b"n" * 127, b"n" * 128)))
        if names and chance.random() < 0.98:
            members.append(b'"column":[' + b",".join(b'"%b"' % name for name in names) + b"]")
        if chance.random() < 0.7:
            usable = named if chance.random() < 0.97 else columns
            files = [(data, [[group[columns.index(column)] for column in usable] for group in groups])
                     for data, groups in table.files[:3]] if usable else []
            conditions = [self.condition(usable, files) for _ in range(chance.choice((1, 1, 1, 2, 3)))]
            members.append(b'"condition":[' + b",".join(conditions) + b"]")
        if chance.random() < 0.2:
            members.append(b'"fragment":' + chance.choice((b"[0,1]", b"[0,2]", b"[1,2]", b"[2,3]", b"[0x1,03]",
                                                           b"[5,100]", b"[0,0]", b"[7,0]",
                                                            b"[1,1]", b"[-1,2]", b"[0,-1]", b"[0,4294967298]",
                                                            b"[4294967296,2]",
                                                            b"[0,99999999999999999999]", b"[0,1234567890123456789]",
                                                            b"[a,b]", b"[0]",
                                                            b"[0,1,2]", b"[0,0000000000000000001]",
                                                            b"[0,00000000000000000001]", b'["0","1"]', b"[0.5,2]",
                                                            b"[0,12345678901234567890]")))
        if chance.random() < 0.05:
            members.append(chance.choice((b'"column":[]', b'"column":["c0"]', b'"condition":[]', b'"fragment":[0,0]',
                                          b'"fragment":[0,1]',
                                          b'"command":[]', b'"colums":[]', b'"column":"c0"', b'"column":[1]',
                                          b'"condition":[[]]',
                                          b'"condition":[["c0"]]', b'"condition":[["c0","==",1]]',
                                          b'"condition":[["c0","isnull",{}]]',
                                          b'"condition":[["c0","==","1","2"]]', b'"condition":[["c0","in",["1",2]]]',
                                          b'"condition":{}',
                                          b'"command":[' + b",".join([b'"x"'] * chance.choice((49, 50))) + b"]",
                                          b"column:[]", b'"column"',
                                          b'"column":[["a"]]', b'"condition":[["c0",7]]', b'"Column":[]',
                                          b'"column":["a":"b"]')))
        if chance.random() < 0.2:
            chance.shuffle(members)
        glue = b"," if chance.random() < 0.98 else chance.choice((b" ", b",,", b":", b";", b"\n,\t"))
        body = b"{" + glue.join(members) + b"}"
        kind = chance.random()
        if kind < 0.02:
            return body + chance.choice((b" tail", b"}", b"]", b"\0 zz {", b"{}", b"{", b'"', b",", b"\x01", b"\x7f",
                                         b"[]"))
        if kind < 0.05:
            return self.mangled(body)
        if kind < 0.055:
            size = chance.choice((32766, 32767, 32768, 32769, 40000))
            return body + b" " * (size - len(body))
        if kind < 0.06:
            return b'{"column":[' + b",".join(b'"c%d"' % k for k in range(chance.choice((150, 199, 200, 450,
                                                                                         1000)))) + b"]}"
        if kind < 0.065:
            n = chance.choice((1, 3, 99, 600))
            return chance.choice((b"[" * n, b"[" * n + b"]" * n, b'{"a":' * n + b"}" * n,
                                  b'{"column":' + b"[" * n + b"]" * n + b"}"))
        return body

    def mangled(self, body):
        chance = self.chance
        at = chance.randrange(len(body))
        kind = chance.randrange(4)
        if kind == 0:
            return body[:at]
        if kind == 1:
            return body[:at] + body[at + 1 :]
        if kind == 2:
            return body[:at] + chance.choice((b"\\", b'\\"', b"\\u00e9", b"\\u12", b"\\x", b'"', b"[", b"]", b"{",
                                              b"}", b",", b":", b"\0",
                                              b"\xff", b"a", b"\\/", b"\\\\")) + body[at:]
        return body[:at] + bytes((chance.randrange(256),)) + body[at + 1 :]

    def query(self):
        chance = self.chance
        path = self.place(chance.choices((0, 2, 3, 4), (1, 1, 60, 2))[0])
        body = self.body(path)
        kind = chance.random()
        length = None
        if kind < 0.01:
            length = len(body) + chance.choice((1, 7, 32768))
        elif kind < 0.02:
            length = max(0, len(body) - chance.choice((1, 5)))
        if not body and chance.random() < 0.5:
            return self.framed(b"POST", self.url(path))
        return self.framed(b"POST", self.url(path), body, length)

    # By hand.

    def by_hand(self):
        chance = self.chance
        kind = chance.random()
        path = self.place(3)
        here = self.tree.root
        for name in path:  # not through links, so that a link's ".." end at base/
            here = here.kids.get(name) if isinstance(here, Dir) else None
        if not isinstance(here, Dir):
            return None
        if kind < 0.3 and len(path) == 3:
            name = chance.choice(PARTITIONS[:4] + (b"hand.cvn", b".hid.cvn", b"late.tmp", b"meta.cvnx"))
            if isinstance(here.kids.get(name), (Dir, Link)):
                return None
            data = chance.choice(self.pool.wrong) if chance.random() < 0.4 else self.data_for(path)
            return "store", path + [name], data
        if kind < 0.4:
            name = chance.choice((b"stray", b"stray.cvn", b"sub", b"sub.tmp", b".sub"))
            if name in here.kids:
                return None
            return ("store", path + [name], b"stray") if len(path) < 3 else ("mkdir", path + [name])
        if kind < 0.65 and len(path) == 3:
            name = chance.choice((b"split", b"split.cvn", b"s2.cvn"))
            if name in here.kids:
                return None
            meta, files = chance.choice(self.table_of(path).splits)
            files = list(enumerate(files))
            if chance.random() < 0.3:
                files = files[1:] if chance.random() < 0.5 else [(cno, data[:-1]) for cno, data in files]
            if chance.random() < 0.2:
                meta = meta[:-1] if chance.random() < 0.5 else None
            return "split", path + [name], meta, files
        if kind < 0.85:
            name = chance.choice((b"link", b"link.cvn", b"l2.cvn"))
            if name in here.kids:
                return None
            target = self.existing(chance.randrange(1, 5))
            up = [b".."] * len(path)
            return "link", path + [name], b"/".join(up + target) if target and chance.random() < 0.85 else \
                chance.choice((b"nowhere", name, b"gone/x"))
        victim = self.existing(4)
        return ("remove", victim) if victim and chance.random() < 0.5 else None
