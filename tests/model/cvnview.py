"""What the model knows of a data file: its footer, what its statistics rule out, and its pages, read from plain bytes.

This is a reading of the format for the model alone. It shares nothing with the library, nor with the encoder of
tests/support, which makes the uploads: where the three differ, a run of the model says so.

A file may be anything, so each access is measured against the bytes that are there. Results are the library's codes:
0 done, -3 cannot be read, -6 cannot be compared, -7 no data file, -10 an invalid predicate.
"""
import ctypes
import decimal
import re
import struct

HEAD, TAIL = b"CVN1IX86", b"CVN1"
PAGE_MAGIC, RECORD_MAGIC = 0x19293949, 0x71727374
NAMESZ, COLDEFSZ, COLSTATSZ, COLMETASZ, GROUPSZ, SCHEMASZ = 128, 136, 112, 144, 16, 40
BOOL, INT16, INT32, INT64, INT128, FLOAT, DOUBLE, BYTEA, CSTR, DEC64, DEC128 = range(1, 12)
TYPE_NAMES = {1: b"bool", 2: b"int16", 3: b"int32", 4: b"int64", 5: b"int128", 6: b"float", 7: b"double", 8: b"bytea",
              9: b"cstr", 10: b"dec64", 11: b"dec128", 0x10003: b"date", 0x20003: b"time_millis",
              0x30004: b"timestamp_millis"}

# Pages that lie over each other so that a row group asks for far more than its file holds are refused, which a file
# that a writer made never meets: the one place where the daemon promises less than the format allows.
OVERLAP_FREE, OVERLAP_MAX = 65536, 4

_libc = ctypes.CDLL(None, use_errno=True)
for _name, _type in (("strtol", ctypes.c_long), ("strtoll", ctypes.c_longlong)):
    _function = getattr(_libc, _name)
    _function.restype, _function.argtypes = _type, (ctypes.c_char_p, ctypes.c_void_p, ctypes.c_int)
for _name, _type in (("strtof", ctypes.c_float), ("strtod", ctypes.c_double)):
    _function = getattr(_libc, _name)
    _function.restype, _function.argtypes = _type, (ctypes.c_char_p, ctypes.c_void_p)


def strtol(text):
    """The C library's number in base 0, and errno. Decimal, hexadecimal and octal: 0b is a zero and trailing text."""
    found = re.match(rb"[ \t\n\v\f\r]*[-+]?0[bB]", text)
    ctypes.set_errno(0)
    return _libc.strtol(found[0][:-1] if found else text, None, 0), ctypes.get_errno()


def strtofloat(text, single):
    ctypes.set_errno(0)
    return (_libc.strtof if single else _libc.strtod)(text, None), ctypes.get_errno()


def cut32(value):
    return (value + 0x80000000 & 0xFFFFFFFF) - 0x80000000


def cut64(value):
    return (value + (1 << 63) & (1 << 64) - 1) - (1 << 63)


# Decimals: digits, smallest and largest exponent of the number in scientific form, as IEEE 754 has them.

_CONTEXT = {DEC64: (16, -383, 384), DEC128: (34, -6143, 6144)}
_DECIMAL = re.compile(
    rb"[-+]?(?:(?:[0-9]+(?:\.[0-9]*)?|\.[0-9]+)(?:[eE][-+]?[0-9]+)?|inf(?:inity)?|s?nan([0-9]*))", re.I)


def decimal_from_text(text, storage):
    """The number, or None when it is none or would have to be rounded."""
    digits, low, high = _CONTEXT[storage]
    found = _DECIMAL.fullmatch(text)
    if not found:
        return None
    if found[1] is not None and len(found[1].lstrip(b"0")) > digits - 1:
        return None
    context = decimal.Context(prec=digits, Emin=low, Emax=high, clamp=1, rounding=decimal.ROUND_HALF_EVEN, traps=[])
    value = context.create_decimal(text.decode())
    flags = context.flags
    if flags[decimal.InvalidOperation] or flags[decimal.Inexact] or flags[decimal.Overflow] or \
            flags[decimal.Underflow]:
        return None
    return value


def _undeclet(bits):
    """Three digits out of ten bits, any of the 1024."""
    p, q, r, s, t, u, v, w, x, y = (bits >> k & 1 for k in range(9, -1, -1))
    if not v:
        return 100 * (4 * p + 2 * q + r) + 10 * (4 * s + 2 * t + u) + 4 * w + 2 * x + y
    if (w, x) == (0, 0):
        return 100 * (4 * p + 2 * q + r) + 10 * (4 * s + 2 * t + u) + 8 + y
    if (w, x) == (0, 1):
        return 100 * (4 * p + 2 * q + r) + 10 * (8 + u) + 4 * s + 2 * t + y
    if (w, x) == (1, 0):
        return 100 * (8 + r) + 10 * (4 * s + 2 * t + u) + 4 * p + 2 * q + y
    if (s, t) == (0, 0):
        return 100 * (8 + r) + 10 * (8 + u) + 4 * p + 2 * q + y
    if (s, t) == (0, 1):
        return 100 * (8 + r) + 10 * (4 * p + 2 * q + u) + 8 + y
    if (s, t) == (1, 0):
        return 100 * (4 * p + 2 * q + r) + 10 * (8 + u) + 8 + y
    return 100 * (8 + r) + 10 * (8 + u) + 8 + y


_DECLETS = [_undeclet(bits) for bits in range(1024)]


def decimal_from_image(image, storage):
    """The number that 8 or 16 bytes hold; what is no number is None."""
    width, ebits, digits, bias = (8, 8, 16, 398) if storage == DEC64 else (16, 12, 34, 6176)
    bits = int.from_bytes(image[:width], "little")
    sign, kind = bits >> width * 8 - 1, bits >> width * 8 - 6 & 31
    if kind >= 30:
        return None if kind == 31 else decimal.Decimal((sign, (0,), "F"))
    top, exponent = (8 | kind & 1, kind >> 1 & 3) if kind >= 24 else (kind & 7, kind >> 3)
    low = width * 8 - 6 - ebits
    exponent = exponent << ebits | bits >> low & (1 << ebits) - 1
    number = top
    for at in range(low - 10, -1, -10):
        number = number * 1000 + _DECLETS[bits >> at & 1023]
    return decimal.Decimal((sign, tuple(map(int, str(number))), exponent - bias))


def decimal_compare(a, b):
    """-1, 0 or 1; what is no number equals everything."""
    if a is None or b is None or a.is_nan() or b.is_nan():
        return 0
    return (a > b) - (a < b)


# Constants.


def datum_from_text(text, typ):
    """(0, the value) or (a code, None). Floats are as wide as a double, texts and byte strings are bytes."""
    storage = typ & 0xFFFF
    if storage in (BOOL, INT16, INT32):
        value, errno = strtol(text)
        value = cut32(value)
        if value == 0 and errno:
            return -6, None
        if storage == BOOL:
            return 0, int(value != 0)
        if storage == INT16 and not -32768 <= value <= 32767:
            return -6, None
        return 0, value
    if storage == INT64:
        value, errno = strtol(text)
        return (-6, None) if value == 0 and errno else (0, value)
    if storage == INT128:
        if text[:2] not in (b"0x", b"0X"):
            return -1, None
        halves = []
        for at in (2, 18):
            field = text[at : at + 16]
            if len(field) < 16:
                return -1, None
            # What strtoull takes for a number in base 16, if it takes all of it.
            found = re.fullmatch(rb"[ \t\n\v\f\r]*([-+]?)(?:0[xX](?=[0-9a-fA-F]))?([0-9a-fA-F]+)", field)
            if not found:
                return -1, None
            number = int(found[2], 16)
            halves.append(-number & (1 << 64) - 1 if found[1] == b"-" else number)
        value = halves[0] << 64 | halves[1]
        return 0, value - (1 << 128) if value >> 127 else value
    if storage in (FLOAT, DOUBLE):
        value, errno = strtofloat(text, storage == FLOAT)
        return (-6, None) if value == 0 and errno else (0, value)
    if storage == BYTEA:
        return 0, text + b"\0"
    if storage == CSTR:
        return 0, text
    if storage in (DEC64, DEC128):
        value = decimal_from_text(text, storage)
        return (-1, None) if value is None else (0, value)
    return -6, None


EQ, NE, GT, GE, LT, LE, ISNULL, ISNOTNULL, IN = range(1, 10)
_SIGNS = {b"==": EQ, b"!=": NE, b">": GT, b">=": GE, b"<": LT, b"<=": LE}
_WORDS = {b"isnull": ISNULL, b"isnotnull": ISNOTNULL, b"in": IN}
TEXTMAX = 39  # characters of a constant that count


def operator(text):
    """The predicate's code, or 0."""
    return _SIGNS.get(text) or _WORDS.get(text.lower(), 0)


def bound_from_image(image, storage):
    """A bound out of the 48 bytes of a datum, comparable with a constant of that type."""
    if storage == BOOL:
        return image[0]
    if storage == INT16:
        return struct.unpack_from("<h", image)[0]
    if storage == INT32:
        return struct.unpack_from("<i", image)[0]
    if storage == INT64:
        return struct.unpack_from("<q", image)[0]
    if storage == INT128:
        return int.from_bytes(image[:16], "little", signed=True)
    if storage == FLOAT:
        return struct.unpack_from("<f", image)[0]
    if storage == DOUBLE:
        return struct.unpack_from("<d", image)[0]
    if storage == CSTR:
        return image.partition(b"\0")[0]
    return decimal_from_image(image, storage)


def _text_qualifies(op, low, high, value):
    if len(value) > TEXTMAX:
        if op == NE:
            return 1
        low, high, value = low[:TEXTMAX], high[:TEXTMAX], value[:TEXTMAX]
        op = {GT: GE, LT: LE}.get(op, op)
    if op == EQ:
        return int(low <= value <= high)
    if op == NE:
        return int(low != value or high != value)
    return int({GT: value < high, GE: value <= high, LT: low < value, LE: low <= value}[op])


def qualify(op, value, typ, nrow, nnull, bounds):
    """1 when the rows may match, 0 when none can, -6 when they cannot be compared. `bounds` is None without any."""
    if op == ISNULL:
        return int(nnull != 0)
    if op == ISNOTNULL:
        return int(nnull != nrow)
    if bounds is None:
        return 1
    storage = typ & 0xFFFF
    if storage in (0, BYTEA) or storage > DEC128:
        return -6
    low, high = (bound_from_image(image, storage) for image in bounds)
    if storage == CSTR:
        return _text_qualifies(op, low, high, value)
    if storage in (DEC64, DEC128):
        lower, upper = decimal_compare(low, value), decimal_compare(high, value)
        return int({EQ: lower <= 0 <= upper, NE: not (lower == 0 and upper == 0), GT: upper > 0, GE: upper >= 0,
                    LT: lower < 0, LE: lower <= 0}[op])
    # A comparison with a NaN does not hold, so only the negated one of NE is true of it.
    return int({EQ: low <= value <= high, NE: not (low == value and high == value), GT: high > value, GE: high >= value,
                LT: low < value, LE: low <= value}[op])


def in_range(values, storage):
    """The two elements of an IN list that stand for it: the bounds of a range. None when the list filters nothing."""
    if storage == BYTEA:
        return None
    low = high = values[0]
    for value in values[1:]:
        if storage in (DEC64, DEC128):
            # The largest is looked for with the wrong sign, and kept so.
            if decimal_compare(value, low) < 0:
                low = value
            elif decimal_compare(value, high) < 0:
                high = value
        elif value < low:
            low = value
        elif value > (high & 0xFF if storage == INT16 else high):  # the low byte alone, and kept so
            high = value
    return low, high


class View:
    """One file's bytes as a reader finds them. `code` is what opening them gives; the rest holds when that is 0."""

    def __init__(self, data):
        self.data = data
        self.code = self._open()
        self._sums = ()
        self._pages = {}

    def _open(self):
        data = self.data
        if len(data) < 8:
            return -3
        if data[:8] != HEAD:
            return -7
        if len(data) < 16:
            return -3
        size, self.chksum, magic = struct.unpack_from("<qi4s", data, len(data) - 16)
        if magic != TAIL or size < 8:
            return -7
        begin = len(data) - 16 - size
        if begin < 0:
            return -3
        self.footer = footer = data[begin : len(data) - 16]
        if size < SCHEMASZ:
            return -7
        version, ncol, nrow, nrowgroup, coldefsz, colstatsz = struct.unpack_from("<iiqqii", footer)
        if version != 1 or ncol < 0 or nrowgroup < 0:
            return -7
        # Definitions and statistics of all columns must be there. Their sizes may be stranger than a writer makes
        # them, as long as the row groups end where the footer does.
        self.colstat_at = SCHEMASZ + coldefsz
        self.group_at = self.colstat_at + colstatsz
        self.groupsz = GROUPSZ + COLMETASZ * ncol
        if SCHEMASZ + COLDEFSZ * ncol > size or not 0 <= self.colstat_at <= size or \
                self.colstat_at + COLSTATSZ * ncol > size or not 0 <= self.group_at <= size:
            return -7
        if self.group_at + nrowgroup * self.groupsz != size:
            return -7
        self.ncol, self.nrow, self.nrowgroup = ncol, nrow, nrowgroup
        self.names, self.typs = [], []
        for cno in range(ncol):
            field, typ = struct.unpack_from("<128si", footer, SCHEMASZ + COLDEFSZ * cno)
            self.names.append(field)
            self.typs.append(typ)
        return 0

    def find(self, name):
        """The first column of that name, or -1. A name that fills its field has no end, and equals nothing."""
        if len(name) >= NAMESZ:
            return -1
        wanted = name + b"\0"
        for cno, field in enumerate(self.names):
            if field.startswith(wanted):
                return cno
        return -1

    def shown(self, cno):
        """The name as listings have it."""
        return self.names[cno].partition(b"\0")[0][: NAMESZ - 1]

    def sums(self):
        """The bytes of all chunks, uncompressed and stored, or None when they cannot be added up.

        A row group tells its own number of columns; one that leads out of the footer makes the file unreadable.
        """
        if self._sums == ():
            self._sums = self._add_up()
        return self._sums

    def _add_up(self):
        nbyte = zbyte = 0
        for group in range(self.nrowgroup):
            at = self.group_at + group * self.groupsz
            ncol = struct.unpack_from("<i", self.footer, at + 8)[0]
            if ncol > 0 and at + GROUPSZ + ncol * COLMETASZ > len(self.footer):
                return None
            for cno in range(ncol):
                raw, stored = struct.unpack_from("<ii", self.footer, at + GROUPSZ + cno * COLMETASZ + 16)
                nbyte += raw
                zbyte += stored
        return nbyte, zbyte

    def figures(self, cno, group=None):
        """(nrow, nnull, bounds) of a column in the whole file or in a row group."""
        if group is None:
            at = self.colstat_at + COLSTATSZ * cno
            nnull, has = struct.unpack_from("<q?", self.footer, at)
            nrow, at = self.nrow, at + 16
        else:
            at = self.group_at + group * self.groupsz + GROUPSZ + COLMETASZ * cno
            nrow, has, nnull = struct.unpack_from("<8xi3x?8xi", self.footer, at)
            at += 48
        return nrow, nnull, (self.footer[at : at + 48], self.footer[at + 48 : at + 96]) if has else None

    def page(self, group, cno, source):
        """(its length, its chunk on the wire) as it is sent, or None when `source` does not hold it."""
        key = group, cno
        if source is self.data and key in self._pages:
            return self._pages[key]
        at = self.group_at + group * self.groupsz + GROUPSZ + COLMETASZ * cno
        offset, nrow, nbyte, zbyte, nnull, nmapoff, hash_ = struct.unpack_from("<qi4xiiiii", self.footer, at)
        result = None
        if offset >= 0 and zbyte >= 0 and (zbyte == 0 or offset + zbyte <= len(source)):
            body = source[offset : offset + zbyte]
            head = struct.pack("<10i", PAGE_MAGIC, cno, self.typs[cno], nrow, nnull, nmapoff, nbyte, zbyte, hash_, 0)
            result = 40 + zbyte, b"%x; chunk\r\n%b%b\r\n" % (40 + zbyte, head, body)
        if source is self.data:
            self._pages[key] = result
        return result


_views = {}


def view(data):
    """The View of these bytes, made once."""
    found = _views.get(data)
    if found is None:
        if len(_views) > 4000:
            _views.clear()
        found = _views[data] = View(data)
    return found


class Scan:
    """A scan of one file being set up: the columns wanted, the predicates, and what they leave."""

    def __init__(self, seen):
        self.view = seen
        self.wanted = []
        self.lenses = []
        self.is_empty = False

    def require(self, name):
        cno = self.view.find(name)
        if cno < 0 or cno in self.wanted:
            return -6
        self.wanted.append(cno)
        return 0

    def add(self, cno, op, values):
        """A predicate on a column that the file is known to have."""
        storage = self.view.typs[cno] & 0xFFFF
        if op == IN:
            if not values:
                self.is_empty = True
                return 0
            ends = (values[0], values[0]) if len(values) == 1 else in_range(values, storage)
            if ends is None:
                return 0
            return self.add(cno, GE, ends[:1]) or self.add(cno, LE, ends[1:])
        if cno not in self.wanted or len(values) != (op <= LE):
            return -10
        if storage == 0 or storage > DEC128:
            return -6
        self.lenses.append((cno, op, values[0] if values else None))
        return 0

    def qualifies(self, group=None):
        for cno, op, value in self.lenses:
            result = qualify(op, value, self.view.typs[cno], *self.view.figures(cno, group))
            if result <= 0:
                return result
        return 1
