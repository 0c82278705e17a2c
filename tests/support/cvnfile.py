"""Data files built and read without the library.

`build` lays a file out byte by byte from Python values: chunks, null maps, LZ4 blocks, statistics, footer and trailer;
`build_split` does it for a split directory. `page` and `record` make what replies carry, with any field wrong that a
test wants wrong. `read` takes a file apart again and proves every size and hash on the way, `read_stream` does the same
for the records of a scan reply, and a Layout says where the parts of a file lie, for tests that damage one of them.

This is the only encoder of the format in Python, and the oracle of all tests: they compare what the library, the
daemon, the tools and the clients say with what it says, so nothing here calls the code under test; only LZ4 and xxHash
are shared, as the installed libraries.

All integers are little-endian. Offsets and sizes are in bytes.
"""
import ctypes
import ctypes.util
import decimal
import struct
from typing import NamedTuple

from replies import LAST_CHUNK, Unsound, chunk, dechunk, stream_head

HEAD_MAGIC = b"CVN1IX86"
TAIL_MAGIC = b"CVN1"
RECORD_MAGIC = 0x71727374
PAGE_MAGIC = 0x19293949

BOOL, INT16, INT32, INT64, INT128, FLOAT, DOUBLE, BYTEA, CSTR, DEC64, DEC128 = range(1, 12)
DATE, TIME_MILLIS, TIMESTAMP_MILLIS = 0x10003, 0x20003, 0x30004
NAMES = {
    BOOL: "bool", INT16: "int16", INT32: "int32", INT64: "int64", INT128: "int128", FLOAT: "float",
    DOUBLE: "double", BYTEA: "bytea", CSTR: "cstr", DEC64: "dec64", DEC128: "dec128", DATE: "date",
    TIME_MILLIS: "time_millis", TIMESTAMP_MILLIS: "timestamp_millis",
}
_INT_WIDTH = {INT16: 2, INT32: 4, INT64: 8, INT128: 16}
_WIDTH = {BOOL: 1, FLOAT: 4, DOUBLE: 8, DEC64: 8, DEC128: 16, **_INT_WIDTH}
# Decimal formats: width, bits of exponent continuation, digits, bias.
_DECIMAL = {DEC64: (8, 8, 16, 398), DEC128: (16, 12, 34, 6176)}


def _library(name, soname):
    try:
        return ctypes.CDLL(soname)
    except OSError:
        return ctypes.CDLL(ctypes.util.find_library(name))


_lz4 = _library("lz4", "liblz4.so.1")
_xxh = _library("xxhash", "libxxhash.so.0")
_xxh.XXH32.restype = ctypes.c_uint32
_xxh.XXH32.argtypes = (ctypes.c_char_p, ctypes.c_size_t, ctypes.c_uint32)
_lz4.LZ4_compress_default.argtypes = (ctypes.c_char_p, ctypes.c_char_p, ctypes.c_int, ctypes.c_int)
_lz4.LZ4_decompress_safe.argtypes = (ctypes.c_char_p, ctypes.c_char_p, ctypes.c_int, ctypes.c_int)


def xxh32(data):
    """The hash of `data` with seed 0 as files hold it, a signed 32-bit number."""
    return ctypes.c_int32(_xxh.XXH32(bytes(data), len(data), 0)).value


def lz4_block(data, room):
    """`data` as one LZ4 block of at most `room` bytes, or None when it does not fit."""
    out = ctypes.create_string_buffer(max(room, 1))
    size = _lz4.LZ4_compress_default(bytes(data), out, len(data), room)
    return out.raw[:size] if size > 0 else None


def lz4_unblock(block, nbyte):
    out = ctypes.create_string_buffer(max(nbyte, 1))
    size = _lz4.LZ4_decompress_safe(bytes(block), out, len(block), nbyte)
    if size != nbyte:
        raise Unsound(f"an LZ4 block of {len(block)} bytes gives {size} bytes instead of {nbyte}")
    return out.raw[:nbyte]


def align8(n):
    return (n + 7) // 8 * 8


# Decimals in the densely packed encoding: three digits in ten bits.
def _declet(number):
    a, b, c = number // 100, number // 10 % 10, number % 10
    large = (a > 7, b > 7, c > 7)
    if large == (False, False, False):
        return a << 7 | b << 4 | c
    if large == (False, False, True):
        return a << 7 | b << 4 | 8 | c & 1
    if large == (False, True, False):
        return a << 7 | (c >> 1) << 5 | (b & 1) << 4 | 8 | 1 << 1 | c & 1
    if large == (True, False, False):
        return (c >> 1) << 8 | (a & 1) << 7 | b << 4 | 8 | 2 << 1 | c & 1
    low = 8 | 3 << 1 | c & 1
    if large == (False, True, True):
        return a << 7 | 2 << 5 | (b & 1) << 4 | low
    if large == (True, False, True):
        return (b >> 1) << 8 | (a & 1) << 7 | 1 << 5 | (b & 1) << 4 | low
    if large == (True, True, False):
        return (c >> 1) << 8 | (a & 1) << 7 | (b & 1) << 4 | low
    return (a & 1) << 7 | 3 << 5 | (b & 1) << 4 | low


_UNDECLET = {_declet(n): n for n in range(1000)}


def encode_decimal(value, storage):
    width, ebits, ndigit, bias = _DECIMAL[storage]
    sign, digits, exponent = decimal.Decimal(value).as_tuple()
    if exponent in ("F", "n"):  # infinity, and what is no number
        return ((sign << 5 | (30 if exponent == "F" else 31)) << width * 8 - 6).to_bytes(width, "little")
    number = int("".join(map(str, digits)))
    if number >= 10**ndigit:
        raise ValueError("too many digits")
    biased = exponent + bias
    first, number = divmod(number, 10 ** (ndigit - 1))
    high = biased >> ebits
    bits = sign << 5 | (high << 3 | first if first < 8 else 24 | high << 1 | first & 1)
    bits = bits << ebits | biased & (1 << ebits) - 1
    for k in range((ndigit - 1) // 3 - 1, -1, -1):
        bits = bits << 10 | _declet(number // 1000**k % 1000)
    return bits.to_bytes(width, "little")


def decode_decimal(data, storage):
    width, ebits, ndigit, bias = _DECIMAL[storage]
    bits = int.from_bytes(data, "little")
    nlow = (ndigit - 1) // 3 * 10
    number, low = 0, bits & (1 << nlow) - 1
    for k in range(nlow - 10, -1, -10):
        number = number * 1000 + _UNDECLET[low >> k & 1023]
    exponent = bits >> nlow & (1 << ebits) - 1
    comb = bits >> nlow + ebits & 31
    sign = bits >> width * 8 - 1
    if comb >= 30:
        return decimal.Decimal((sign, (), "F" if comb == 30 else "n"))
    first, high = (8 | comb & 1, comb >> 1 & 3) if comb >= 24 else (comb & 7, comb >> 3)
    number += first * 10 ** (ndigit - 1)
    return decimal.Decimal((sign, tuple(map(int, str(number))), (high << ebits | exponent) - bias))


def encode(value, typ):
    """One value as a chunk holds it; None is NULL."""
    storage = typ & 0xFFFF
    if storage == BOOL:
        return b"\1" if value else b"\0"
    if storage in _INT_WIDTH:
        return (value or 0).to_bytes(_INT_WIDTH[storage], "little", signed=True)
    if storage == FLOAT:
        return struct.pack("<f", 0.0 if value is None else value)
    if storage == DOUBLE:
        return struct.pack("<d", 0.0 if value is None else value)
    if storage == BYTEA:
        return struct.pack("<i", len(value or b"")) + (value or b"")
    if storage == CSTR:
        return (value or b"") + b"\0"
    if storage in _DECIMAL:
        return encode_decimal(value if value is not None else 0, storage)
    raise ValueError(f"no such type: {typ}")


def encode_chunk(values, typ):
    """The values and then the null map, uncompressed, and where the null map begins."""
    raw = b"".join(encode(value, typ) for value in values)
    nullmap = bytearray((len(values) + 7) // 8)
    for row, value in enumerate(values):
        if value is None:
            nullmap[row // 8] |= 0x80 >> row % 8
    return raw + nullmap, len(raw)


def decode_chunk(raw, typ, nrow, nmapoff):
    """The values of an uncompressed chunk, None for NULL. Every byte must be accounted for."""
    storage = typ & 0xFFFF
    nullmap = raw[nmapoff:]
    if len(nullmap) != (nrow + 7) // 8:
        raise Unsound("the null map has the wrong size")
    values, at = [], 0
    for row in range(nrow):
        isnull = nullmap[row // 8] & 0x80 >> row % 8
        if storage == BYTEA:
            (size,) = struct.unpack_from("<i", raw, at)
            item, at = raw[at + 4 : at + 4 + size], at + 4 + size
        elif storage == CSTR:
            end = raw.index(b"\0", at)
            item, at = raw[at:end], end + 1
        else:
            item, at = raw[at : at + _WIDTH[storage]], at + _WIDTH[storage]
        if isnull:
            if encode(None, typ)[4 if storage == BYTEA else 0 :].rstrip(b"\0") != item.rstrip(b"\0"):
                raise Unsound("a NULL hides a value")
            values.append(None)
        elif storage == BOOL:
            values.append(item != b"\0")
        elif storage in _INT_WIDTH:
            values.append(int.from_bytes(item, "little", signed=True))
        elif storage in (FLOAT, DOUBLE):
            values.append(struct.unpack("<f" if storage == FLOAT else "<d", item)[0])
        elif storage in _DECIMAL:
            values.append(decode_decimal(item, storage))
        else:
            values.append(item)
    if at != nmapoff:
        raise Unsound(f"the values take {at} bytes, the null map starts at {nmapoff}")
    return values


class Column(NamedTuple):
    name: bytes
    typ: int
    zflag: int = 0
    nflag: int = 0


def page(body, cno=0, typ=INT32, nrow=2, nnull=0, nmapoff=8, nbyte=None, zbyte=None, hash=None, magic=PAGE_MAGIC):
    """One page as replies carry it, every field open to a lie. Sizes and hash, when not given, are those of `body`."""
    nbyte, zbyte = (len(body) if size is None else size for size in (nbyte, zbyte))
    hash = xxh32(body) if hash is None else hash
    return struct.pack("<10i", magic, cno, typ, nrow, nnull, nmapoff, nbyte, zbyte, hash, 0) + body


def record(*pages, magic=RECORD_MAGIC, nbyte=None):
    """One record of a reply stream around these pages."""
    body = b"".join(pages)
    return struct.pack("<2i", magic, len(body) if nbyte is None else nbyte) + body


END = record()
STREAM_END = chunk(END) + LAST_CHUNK
STREAM_HEAD = stream_head()


class Page(NamedTuple):
    """A column chunk with its header, as files describe it and as replies carry it."""

    cno: int
    typ: int
    nrow: int
    nnull: int
    nmapoff: int
    nbyte: int
    zbyte: int
    hash: int
    body: bytes

    def bytes(self):
        return page(self.body, self.cno, self.typ, self.nrow, self.nnull, self.nmapoff, self.nbyte, self.zbyte,
                    self.hash)

    def values(self):
        """Decompresses, proves the hash and the null count, and decodes."""
        if xxh32(self.body) != self.hash:
            raise Unsound("the page hash is wrong")
        raw = self.body if self.zbyte == self.nbyte else lz4_unblock(self.body, self.nbyte)
        if len(raw) != self.nbyte:
            raise Unsound("the page body has the wrong size")
        values = decode_chunk(raw, self.typ, self.nrow, self.nmapoff)
        if values.count(None) != self.nnull:
            raise Unsound("the null count is wrong")
        return values


def page_of(values, cno=0, typ=INT32):
    """The uncompressed page of these values."""
    raw, nmapoff = encode_chunk(values, typ)
    return Page(cno, typ, len(values), values.count(None), nmapoff, len(raw), len(raw), xxh32(raw), raw)


class Layout:
    """Where the parts of a file lie that ends in a footer, going by the footer's size and column count alone."""

    def __init__(self, data):
        self.trailer = len(data) - 16
        self.footer = self.trailer - struct.unpack_from("<q", data, self.trailer)[0]
        self.ncol, self.nrow, self.nrowgroup = struct.unpack_from("<i2q", data, self.footer + 4)

    def coldef(self, column):
        return self.footer + 40 + 136 * column

    def colstat(self, column):
        return self.coldef(self.ncol) + 112 * column

    def rowgroup(self, group):
        return self.colstat(self.ncol) + (16 + 144 * self.ncol) * group

    def colmeta(self, group, column):
        return self.rowgroup(group) + 16 + 144 * column


def patched(data, offset, form, *values):
    """The bytes with numbers packed over those at `offset`."""
    return data[:offset] + struct.pack(form, *values) + data[offset + struct.calcsize(form) :]


def sealed(data):
    """The file with the hash of its footer made right again, so that only the change itself is wrong."""
    layout = Layout(data)
    return patched(data, layout.trailer + 8, "<i", xxh32(data[layout.footer : layout.trailer]))


class File(NamedTuple):
    """A data file: its bytes, and what they say."""

    data: bytes
    columns: tuple
    groups: tuple  # of tuples of Page, one per column
    nrow: int

    @property
    def chksum(self):
        return struct.unpack_from("<i", self.data, len(self.data) - 8)[0]

    @property
    def nbyte(self):
        return sum(page.nbyte for group in self.groups for page in group)

    @property
    def zbyte(self):
        return sum(page.zbyte for group in self.groups for page in group)

    @property
    def layout(self):
        return Layout(self.data)

    @property
    def trailer(self):
        return self.layout.trailer

    @property
    def footer(self):
        return self.layout.footer

    def coldef(self, column):
        return self.layout.coldef(column)

    def colmeta(self, group, column):
        return self.layout.colmeta(group, column)

    def patched(self, offset, new):
        """The bytes with `new` at `offset`; the trailer's hash is left as it was, since no server checks it."""
        return self.data[:offset] + new + self.data[offset + len(new) :]

    def record(self, group, *names):
        """The record that a scan of the columns `names` sends for a row group, as its chunks."""
        numbers = [[c.name for c in self.columns].index(name) for name in names]
        pages = [self.groups[group][k].bytes() for k in numbers]
        return [struct.pack("<2i", RECORD_MAGIC, sum(map(len, pages)))] + pages

    def stream(self, names=None):
        """All records that a scan of the columns `names`, or of all, sends, and the end record."""
        names = [column.name for column in self.columns] if names is None else names
        return b"".join(part for group in range(len(self.groups)) for part in self.record(group, *names)) + END

    def json(self, name):
        """The item of this file in the listing of its entity."""
        return (
            '{"name": "%s", "chksum": %d, "ncol": %d, "nrow": %d, "nrowgroup": %d,"nbyte": %d, "zbyte": %d}'
            % (name, self.chksum, len(self.columns), self.nrow, len(self.groups), self.nbyte, self.zbyte)
        )


class Bytes:
    """Bytes under construction, and for each part what it is, from which a listing of all of them can be made."""

    def __init__(self):
        self.data = bytearray()
        self._parts = []

    def put(self, data, what, *values):
        self._parts.append((len(self.data), len(data), what, values))
        self.data += data

    def title(self, what, *values):
        self._parts.append((None, 0, what, values))

    def listing(self):
        lines = []
        for offset, size, what, values in self._parts:
            text = what % values
            if offset is None:
                lines.append("\n" + text)
                continue
            data = self.data[offset : offset + size]
            shown = "00 ..." if size > 24 and not any(data) else data[:24].hex(" ") + (" ..." if size > 24 else "")
            lines.append("%6d %5d  %s\n              %s" % (offset, size, text, shown))
        return "\n".join(lines)


def _datum(value, typ):
    image = value[:40] if typ & 0xFFFF == CSTR else encode(value, typ)
    return image.ljust(48, b"\0")


def _bounds(values):
    """The smallest and the largest value, the first of equal ones; both None when there are none."""
    low = high = None
    for value in values:
        if value is None:
            continue
        if low is None:
            low = high = value
        elif value < low:
            low = value
        elif value > high:
            high = value
    return low, high


def _widened(bounds, low, high, typ):
    """The bounds of a column with those of one more row group."""
    if bounds[0] is None:
        return low, high
    if low is None:
        return bounds
    key = (lambda value: value[:40]) if typ & 0xFFFF == CSTR else (lambda value: value)
    return (low if key(low) < key(bounds[0]) else bounds[0], high if key(high) > key(bounds[1]) else bounds[1])


def _put_bounds(out, bounds, typ):
    for name, value in zip(("minval", "maxval"), bounds):
        if value is None:
            out.put(bytes(48), name + ", not valid")
        else:
            out.put(_datum(value, typ), name)


def _put_chunk(out, column, values, page):
    """The stored bytes of a chunk and what pads them."""
    if page.zbyte == page.nbyte:
        nshown = 12
        for value in values[:nshown]:
            out.put(encode(value, column.typ), "NULL" if value is None else "value %s",
                    *(() if value is None else (value,)))
        if len(values) > nshown:
            out.put(b"".join(encode(value, column.typ) for value in values[nshown:]), "%d more values",
                    len(values) - nshown)
        out.put(page.body[page.nmapoff :], "null bitmap")
    else:
        out.put(page.body, "one LZ4 block of %d values and their bitmap, %d bytes", len(values), page.nbyte)
    if len(out.data) % 8:
        out.put(bytes(align8(len(out.data)) - len(out.data)), "padding")


def _put_footer(out, columns, nrow, groups):
    """The footer; `groups` holds per row group its pages, each with its offset and its bounds."""
    ncol = len(columns)
    out.title("schema description")
    out.put(struct.pack("<i", 1), "version 1")
    out.put(struct.pack("<i", ncol), "ncol %d", ncol)
    out.put(struct.pack("<q", nrow), "nrow %d", nrow)
    out.put(struct.pack("<q", len(groups)), "nrowgroup %d", len(groups))
    out.put(struct.pack("<i", 136 * ncol), "coldefsz 136 * %d", ncol)
    out.put(struct.pack("<i", 112 * ncol), "colstatsz 112 * %d", ncol)
    out.put(struct.pack("<q", len(groups) * (16 + 144 * ncol)), "rowgroupsz %d * (16 + 144 * %d)", len(groups), ncol)
    for cno, column in enumerate(columns):
        out.title("definition of column %d", cno)
        out.put(struct.pack("<128s", column.name), "name %s", column.name.decode("latin-1"))
        out.put(struct.pack("<i", column.typ), "typ %s", NAMES.get(column.typ, column.typ))
        out.put(bytes([column.zflag]), "zflag")
        out.put(bytes([column.nflag]), "nflag")
        out.put(bytes(2), "padding")
    for cno, column in enumerate(columns):
        nnull, bounds = 0, (None, None)
        for group in groups:
            nnull += group[cno][0].nnull
            bounds = _widened(bounds, *group[cno][2], column.typ)
        out.title("statistics of column %d", cno)
        out.put(struct.pack("<q", nnull), "nnull %d", nnull)
        out.put(bytes([bounds[0] is not None]), "hasminmax %d", bounds[0] is not None)
        out.put(bytes(7), "unused")
        _put_bounds(out, bounds, column.typ)
    for number, group in enumerate(groups):
        nbyte = sum(align8(page.zbyte) for page, _, _ in group)
        nrow = group[0][0].nrow if group else 0
        out.title("row group %d", number)
        out.put(struct.pack("<i", nbyte), "nbyte %d", nbyte)
        out.put(struct.pack("<i", nrow), "nrow %d", nrow)
        out.put(struct.pack("<i", ncol), "ncol %d", ncol)
        out.put(bytes(4), "unused")
        for cno, (page, offset, bounds) in enumerate(group):
            out.title("row group %d, column %d", number, cno)
            out.put(struct.pack("<q", offset), "file_offset %d", offset)
            out.put(struct.pack("<i", page.nrow), "nrow %d", page.nrow)
            out.put(bytes([page.zbyte < page.nbyte]), "zflag")
            out.put(bytes([columns[cno].nflag]), "nflag")
            out.put(bytes(1), "unused1")
            out.put(bytes([bounds[0] is not None]), "hasminmax")
            out.put(struct.pack("<i", page.nbyte), "nbyte %d", page.nbyte)
            out.put(struct.pack("<i", page.zbyte), "zbyte %d", page.zbyte)
            out.put(struct.pack("<i", page.nnull), "nnull %d", page.nnull)
            out.put(struct.pack("<i", page.nmapoff), "nmapoff %d", page.nmapoff)
            out.put(struct.pack("<i", page.hash), "hash of the stored bytes")
            out.put(bytes(12), "unused2, padding")
            _put_bounds(out, bounds, page.typ)


def _put_trailer(out, begin, hash=None):
    size = len(out.data) - begin
    what = "footer hash" if hash is None else "footer hash of the data file, copied"
    hash = xxh32(out.data[begin:]) if hash is None else hash
    out.title("trailer")
    out.put(struct.pack("<q", size), "footer size %d", size)
    out.put(struct.pack("<i", hash), what)
    out.put(TAIL_MAGIC, "tail magic")


def _page_to_store(column, values, cno):
    """The page of a column's values as a writer stores it: compressed where that pays."""
    raw, nmapoff = encode_chunk(values, column.typ)
    share = 0.8 if column.zflag else 0.5
    block = lz4_block(raw, align8(int(share * len(raw)))) if len(raw) >= 4096 else None
    stored = block or raw
    return Page(cno, column.typ, len(values), values.count(None), nmapoff, len(raw), len(stored), xxh32(stored), stored)


def build(columns, groups, nrow=None):
    """A file of `columns`, each a Column, and row groups, each a list with one list of values per column.

    `nrow` overrides the row count that the footer states for the file.
    """
    return build_listed(columns, groups, nrow)[0]


def build_listed(columns, groups, nrow=None):
    """The file, and its Bytes, which can list what each of them is."""
    columns = tuple(columns)
    out = Bytes()
    out.title("head")
    out.put(HEAD_MAGIC, "head magic")
    placed = []
    for number, group in enumerate(groups):
        placed.append([])
        for cno, (column, values) in enumerate(zip(columns, group, strict=True)):
            page = _page_to_store(column, values, cno)
            bounded = not column.nflag and column.typ & 0xFFFF != BYTEA
            placed[-1].append((page, len(out.data), _bounds(values) if bounded else (None, None)))
            out.title("row group %d, column %d (%s)", number, cno, column.name.decode("latin-1"))
            _put_chunk(out, column, values, page)
    if nrow is None:
        nrow = sum(group[0][0].nrow if group else 0 for group in placed)
    begin = len(out.data)
    _put_footer(out, columns, nrow, placed)
    _put_trailer(out, begin)
    return File(bytes(out.data), columns, tuple(tuple(page for page, _, _ in group) for group in placed), nrow), out


def claim(columns, stored, groups):
    """The bytes of a file with the bytes `stored` after its head and a footer that claims `groups`, true or not: per
    row group one Page and its offset per column. Only the numbers of a page are used, not its body."""
    out = Bytes()
    out.put(HEAD_MAGIC, "head magic")
    out.put(stored + bytes(align8(len(stored)) - len(stored)), "stored bytes")
    begin = len(out.data)
    placed = [[(page, offset, (None, None)) for page, offset in group] for group in groups]
    _put_footer(out, columns, sum(group[0][0].nrow for group in groups), placed)
    _put_trailer(out, begin)
    return bytes(out.data)


def build_split(columns, groups):
    """The split directory of the same file: the bytes of each column's file, and the Bytes of its metadata file, in
    which a chunk's offset is the one in its column's file and the footer's hash is the data file's."""
    columns = tuple(columns)
    whole = build(columns, groups)
    files, placed = [b""] * len(columns), []
    for group, pages in zip(groups, whole.groups):
        placed.append([])
        for cno, (column, values, page) in enumerate(zip(columns, group, pages)):
            bounded = not column.nflag and column.typ & 0xFFFF != BYTEA
            placed[-1].append((page, len(files[cno]), _bounds(values) if bounded else (None, None)))
            files[cno] += page.body
    out = Bytes()
    out.title("head")
    out.put(HEAD_MAGIC, "head magic")
    _put_footer(out, columns, whole.nrow, placed)
    _put_trailer(out, len(HEAD_MAGIC), whole.chksum)
    return files, out


def read(data):
    """Takes a file apart, proving all of it: sizes, offsets, padding, hashes, blocks. Returns the File."""
    if data[:8] != HEAD_MAGIC or data[-4:] != TAIL_MAGIC:
        raise Unsound("a magic is wrong")
    size, footer_hash = struct.unpack_from("<qi", data, len(data) - 16)
    footer = data[len(data) - 16 - size : len(data) - 16]
    if len(footer) != size or xxh32(footer) != footer_hash:
        raise Unsound("the footer is damaged")
    version, ncol, nrow, nrowgroup, coldefsz, colstatsz, rowgroupsz = struct.unpack_from("<2i2q2iq", footer)
    if (version, coldefsz, colstatsz) != (1, 136 * ncol, 112 * ncol):
        raise Unsound("the schema is wrong")
    if rowgroupsz != nrowgroup * (16 + 144 * ncol) or size != 40 + 248 * ncol + rowgroupsz:
        raise Unsound("the footer's sizes do not add up")
    columns = []
    for cno in range(ncol):
        name, typ, zflag, nflag = struct.unpack_from("<128si2B2x", footer, 40 + 136 * cno)
        columns.append(Column(name[: name.index(b"\0")], typ, zflag, nflag))
    groups, at, where = [], 40 + 248 * ncol, 8
    for _ in range(nrowgroup):
        nbyte, rows, gcol, _ = struct.unpack_from("<4i", footer, at)
        at, start, pages = at + 16, where, []
        for cno in range(gcol):
            offset, crows, _, _, _, _, raw, stored, nulls, nmapoff, hash_, _ = struct.unpack_from(
                "<qi4B6i", footer, at)
            if offset != where or crows != rows:
                raise Unsound("a chunk lies in the wrong place or has the wrong row count")
            page = Page(cno, columns[cno].typ, rows, nulls, nmapoff, raw, stored, hash_,
                        data[offset : offset + stored])
            page.values()
            pages.append(page)
            where = align8(offset + stored)
            if data[offset + stored : where].strip(b"\0"):
                raise Unsound("padding is not zero")
            at += 144
        if nbyte != where - start:
            raise Unsound("a row group has the wrong size")
        groups.append(tuple(pages))
    if where != len(data) - 16 - size:
        raise Unsound("the footer does not follow the row groups")
    return File(bytes(data), tuple(columns), tuple(groups), nrow)


def read_pages(data):
    """The pages of one record."""
    pages, at = [], 0
    while at < len(data):
        magic, cno, typ, nrow, nnull, nmapoff, nbyte, zbyte, hash_, unused = struct.unpack_from("<10i", data, at)
        if (magic, unused) != (PAGE_MAGIC, 0) or zbyte < 0 or len(data) - at - 40 < zbyte:
            raise Unsound("a page header is wrong")
        pages.append(Page(cno, typ, nrow, nnull, nmapoff, nbyte, zbyte, hash_, data[at + 40 : at + 40 + zbyte]))
        at += 40 + zbyte
    return pages


def read_stream(body):
    """The records of a complete chunked reply, each a list of Page. Raises Unsound unless it is whole and exact."""
    chunks, rest = dechunk(body)
    if rest or not body.endswith(b"\r\n0\r\n\r\n"):
        raise Unsound("the stream stops early")
    data, at, records = b"".join(chunks), 0, []
    while True:
        magic, nbyte = struct.unpack_from("<2i", data, at)
        at += 8
        if magic != RECORD_MAGIC:
            raise Unsound("a record's magic is wrong")
        if nbyte == 0:
            break
        if len(data) - at < nbyte:
            raise Unsound("a record is cut short")
        records.append(read_pages(data[at : at + nbyte]))
        at += nbyte
    if at != len(data):
        raise Unsound("something follows the end record")
    return records
