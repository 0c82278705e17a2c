"""Data files built and read without the library.

`build` lays a file out byte by byte from Python values: chunks, null maps, LZ4 blocks, statistics, footer and trailer.
`read` takes one apart again and proves every size and hash on the way. `read_stream` does the same for the records of
a scan reply. The tests compare what the daemon sends with what these say, so nothing here calls the code under test;
only LZ4 and xxHash are shared, as the installed libraries.

All integers are little-endian. Offsets and sizes are in bytes.
"""
import ctypes
import ctypes.util
import decimal
import struct
from typing import NamedTuple

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


class Unsound(Exception):
    """Bytes that are not what their format says."""


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
    first, high = (8 | comb & 1, comb >> 1 & 3) if comb >= 24 else (comb & 7, comb >> 3)
    number += first * 10 ** (ndigit - 1)
    sign = bits >> width * 8 - 1
    return decimal.Decimal((sign, tuple(map(int, str(number))), (high << ebits | exponent) - bias))


def encode(value, typ):
    """One value as a chunk holds it; None is NULL."""
    storage = typ & 0xFFFF
    if storage == BOOL:
        return b"\1" if value else b"\0"
    if storage in _INT_WIDTH:
        return (value or 0).to_bytes(_INT_WIDTH[storage], "little", signed=True)
    if storage == FLOAT:
        return struct.pack("<f", value or 0.0)
    if storage == DOUBLE:
        return struct.pack("<d", value or 0.0)
    if storage == BYTEA:
        return struct.pack("<i", len(value or b"")) + (value or b"")
    if storage == CSTR:
        return (value or b"") + b"\0"
    if storage in _DECIMAL:
        return encode_decimal(value if value is not None else 0, storage)
    raise ValueError(f"no such type: {typ}")


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
        return struct.pack(
            "<10i", PAGE_MAGIC, self.cno, self.typ, self.nrow, self.nnull, self.nmapoff, self.nbyte, self.zbyte,
            self.hash, 0) + self.body

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

    # Where the parts lie, for tests that damage one of them.
    @property
    def trailer(self):
        return len(self.data) - 16

    @property
    def footer(self):
        return self.trailer - struct.unpack_from("<q", self.data, self.trailer)[0]

    def coldef(self, column):
        return self.footer + 40 + 136 * column

    def colmeta(self, group, column):
        ncol = len(self.columns)
        return self.footer + 40 + 248 * ncol + group * (16 + 144 * ncol) + 16 + 144 * column

    def patched(self, offset, new):
        """The bytes with `new` at `offset`; the trailer's hash is left as it was, since no reader checks it."""
        return self.data[:offset] + new + self.data[offset + len(new) :]

    def record(self, group, *names):
        """The record that a scan of the columns `names` sends for a row group, as its chunks."""
        numbers = [[c.name for c in self.columns].index(name) for name in names]
        pages = [self.groups[group][k].bytes() for k in numbers]
        return [struct.pack("<2i", RECORD_MAGIC, sum(map(len, pages)))] + pages

    def json(self, name):
        """The item of this file in the listing of its entity."""
        return (
            '{"name": "%s", "chksum": %d, "ncol": %d, "nrow": %d, "nrowgroup": %d,"nbyte": %d, "zbyte": %d}'
            % (name, self.chksum, len(self.columns), self.nrow, len(self.groups), self.nbyte, self.zbyte)
        )


def _datum(value, typ):
    image = value[:40] if typ & 0xFFFF == CSTR else encode(value, typ)
    return image.ljust(48, b"\0")


def _bounds(values):
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


def build(columns, groups, nrow=None):
    """A file of `columns`, each a Column, and row groups, each a list with one list of values per column.

    `nrow` overrides the row count that the footer states for the file.
    """
    columns = tuple(columns)
    out = bytearray(HEAD_MAGIC)
    pages, records = [], []
    nnull = [0] * len(columns)
    bounds = [None] * len(columns)
    for group in groups:
        start, metas, group_pages = len(out), [], []
        for cno, (column, values) in enumerate(zip(columns, group, strict=True)):
            raw = b"".join(encode(value, column.typ) for value in values)
            nmapoff = len(raw)
            nullmap = bytearray((len(values) + 7) // 8)
            for row, value in enumerate(values):
                if value is None:
                    nullmap[row // 8] |= 0x80 >> row % 8
            raw += nullmap
            share = 0.8 if column.zflag else 0.5
            block = lz4_block(raw, align8(int(share * len(raw)))) if len(raw) >= 4096 else None
            zflag, stored = (1, block) if block else (0, raw)
            low, high = (None, None) if column.nflag or column.typ & 0xFFFF == BYTEA else _bounds(values)
            if low is not None:
                if bounds[cno] is None:
                    bounds[cno] = [low, high]
                else:
                    cut = slice(40) if column.typ & 0xFFFF == CSTR else None
                    key = (lambda v: v[cut]) if cut else (lambda v: v)
                    if key(low) < key(bounds[cno][0]):
                        bounds[cno][0] = low
                    if key(high) > key(bounds[cno][1]):
                        bounds[cno][1] = high
            nulls = values.count(None)
            nnull[cno] += nulls
            page = Page(cno, column.typ, len(values), nulls, nmapoff, len(raw), len(stored), xxh32(stored), stored)
            group_pages.append(page)
            meta = struct.pack(
                "<qi4B6i8x", len(out), len(values), zflag, column.nflag, 0, int(low is not None), len(raw),
                len(stored), nulls, nmapoff, page.hash, 0)
            if low is not None:
                meta += _datum(low, column.typ) + _datum(high, column.typ)
            metas.append(meta.ljust(144, b"\0"))
            out += stored
            out += bytes(align8(len(out)) - len(out))
        rows = len(group[0]) if group else 0
        records.append(struct.pack("<4i", len(out) - start, rows, len(columns), 0) + b"".join(metas))
        pages.append(tuple(group_pages))
    if nrow is None:
        nrow = sum(len(group[0]) if group else 0 for group in groups)
    ncol = len(columns)
    footer = struct.pack(
        "<2i2q2iq", 1, ncol, nrow, len(records), 136 * ncol, 112 * ncol, len(records) * (16 + 144 * ncol))
    for column in columns:
        footer += struct.pack("<128si2B2x", column.name, column.typ, column.zflag, column.nflag)
    for cno, column in enumerate(columns):
        stat = struct.pack("<qB7x", nnull[cno], int(bounds[cno] is not None))
        if bounds[cno] is not None:
            stat += _datum(bounds[cno][0], column.typ) + _datum(bounds[cno][1], column.typ)
        footer += stat.ljust(112, b"\0")
    footer += b"".join(records)
    data = bytes(out) + footer + struct.pack("<qi", len(footer), xxh32(footer)) + TAIL_MAGIC
    return File(data, columns, tuple(pages), nrow)


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


def dechunk(body):
    """Cuts a chunked body. Returns its chunks and what follows the last whole one.

    The rest is b"" behind the closing chunk, and anything else when the body stopped before it.
    """
    chunks, at = [], 0
    while True:
        end = body.find(b"\r\n", at)
        if end < 0:
            return chunks, body[at:]
        line = body[at:end]
        if line == b"0" and body[end : end + 4] == b"\r\n\r\n":
            if body[end + 4 :]:
                raise Unsound("something follows the closing chunk")
            return chunks, b""
        text, separator, extension = line.partition(b"; ")
        if separator + extension != b"; chunk" or b"%x" % int(text, 16) != text or text == b"0":
            raise Unsound(f"a chunk's size line is wrong: {line!r}")
        size = int(text, 16)
        if len(body) < end + 2 + size + 2:
            return chunks, body[at:]
        if body[end + 2 + size : end + 4 + size] != b"\r\n":
            raise Unsound("a chunk does not end where it says")
        chunks.append(body[end + 2 : end + 2 + size])
        at = end + 4 + size


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
