"""The fourteen column types: how they are stored, what numpy makes of them, and what Python values they accept."""

import datetime
import decimal
import math
import re
from decimal import Decimal

import numpy as np

from . import dpd
from .errors import KelpError

BOOL, INT16, INT32, INT64, INT128, FLOAT, DOUBLE, BYTEA, CSTR, DEC64, DEC128 = range(1, 12)

_EPOCH_DATE = datetime.date(1970, 1, 1)
_EPOCH = datetime.datetime(1970, 1, 1)
_DAY_MS = 86400000

# One value in the storage of each fixed-width type. A 16-byte value is its low word, then its high word.
_STORE = {BOOL: "u1", INT16: "<i2", INT32: "<i4", INT64: "<i8", INT128: "<u8", FLOAT: "<f4", DOUBLE: "<f8",
          DEC64: "<u8", DEC128: "<u8"}
_WIDTH = {BOOL: 1, INT16: 2, INT32: 4, INT64: 8, INT128: 16, FLOAT: 4, DOUBLE: 8, BYTEA: -1, CSTR: -2, DEC64: 8,
          DEC128: 16}
_INT_BITS = {INT16: 16, INT32: 32, INT64: 64, INT128: 128}


class Type:
    """A column type. `code` is the number in files; its low 16 bits, `storage`, decide how values are kept."""

    __slots__ = ("name", "code", "storage", "width")

    def __init__(self, name, code):
        self.name = name
        self.code = code
        self.storage = code & 0xffff
        self.width = _WIDTH[self.storage]

    def __repr__(self):
        return "Type(%s)" % self.name

    def __reduce__(self):
        return by_name, (self.name,)

    @property
    def is_fixed(self):
        return self.width > 0

    @property
    def is_int(self):
        """Whether the values are stored as integers of 16 bits and more, dates and times among them."""
        return self.storage in _INT_BITS

    @property
    def is_decimal(self):
        return self.storage in (DEC64, DEC128)

    @property
    def is_float(self):
        return self.storage in (FLOAT, DOUBLE)

    @property
    def int_range(self):
        bits = _INT_BITS[self.storage]
        return -(1 << (bits - 1)), (1 << (bits - 1)) - 1

    def frombuffer(self, buffer, nrow):
        """Returns the stored values of a fixed-width column, sharing the buffer's memory."""
        words = 2 if self.width == 16 else 1
        array = np.frombuffer(buffer, _STORE[self.storage], nrow * words)
        return array.reshape(nrow, 2) if words == 2 else array

    def empty_store(self):
        return self.frombuffer(b"", 0) if self.is_fixed else np.empty(0, object)

    def to_values(self, store):
        """Turns stored fixed-width values into what callers see; shares memory wherever numpy has the type."""
        if self.name == "bool":
            return store.view(np.bool_) if not (store > 1).any() else store != 0
        if self.name == "date":
            return store.astype("<i8").view("<M8[D]")
        if self.name == "time_millis":
            return store.astype("<i8").view("<m8[ms]")
        if self.name == "timestamp_millis":
            return store.view("<M8[ms]")
        if self.storage == INT128:
            return _int128_values(store)
        if self.storage == DEC64:
            return dpd.decode64(store)
        if self.storage == DEC128:
            return dpd.decode128(store)
        return store

    def coerce(self, value, text=False):
        """Turns one Python value (never None) into its plain stored form: an int, float, Decimal or bytes.

        With `text`, a str is read as a condition writes it: 12, 1.5, true, 2026-01-31, 08:15:00.
        """
        try:
            if isinstance(value, np.generic) and not isinstance(value, (np.datetime64, np.timedelta64)):
                value = value.item()
            return _COERCE[self.storage](self, value, text)
        except KelpError:
            raise
        except (TypeError, ValueError, OverflowError, decimal.InvalidOperation):
            raise KelpError("%r is no value of type %s" % (value, self.name)) from None


def _int128_values(store):
    low, high = store[:, 0], store[:, 1].view("<i8")
    out = np.empty(len(store), object)
    if (high == low.view("<i8") >> 63).all():
        out[:] = low.view("<i8").tolist()
    else:
        out[:] = [(h << 64) | l for h, l in zip(high.tolist(), low.tolist())]
    return out


def _wrong(type_, value):
    return KelpError("%r is no value of type %s" % (value, type_.name))


def _coerce_bool(type_, value, text):
    if isinstance(value, str) and text:
        word = {"true": 1, "1": 1, "false": 0, "0": 0}.get(value.lower())
        if word is None:
            raise _wrong(type_, value)
        return word
    if isinstance(value, bool) or (isinstance(value, int) and value in (0, 1)):
        return int(value)
    raise _wrong(type_, value)


def _int_of_text(type_, text):
    if re.fullmatch(r"[+-]?(0|[1-9][0-9]*)", text):
        return int(text)
    if re.fullmatch(r"[+-]?0[xX][0-9a-fA-F]+", text):
        return int(text, 16)
    raise _wrong(type_, text)


def _exact_units(value, unit):
    """Converts a numpy date or time to whole units, refusing to drop a remainder."""
    if np.isnat(value):
        raise ValueError
    whole = value.astype("%s[%s]" % (value.dtype.str[1:3], unit))
    if whole != value:
        raise ValueError
    return int(whole.astype("i8"))


def _exact_ms(delta):
    if delta.microseconds % 1000 or getattr(delta, "nanoseconds", 0):  # pandas counts further down
        raise ValueError
    return delta.days * _DAY_MS + delta.seconds * 1000 + delta.microseconds // 1000


# Dates and times as text: one form each, beside the number that is stored.
_NUMBER = re.compile(r"[+-]?[0-9]+")
_DATE = re.compile(r"-?[0-9]{4}-[0-9]{2}-[0-9]{2}")
_TIME = re.compile(r"([0-9]{2}):([0-9]{2})(?::([0-9]{2})(?:\.([0-9]{1,3}))?)?")
_TIMESTAMP = re.compile(r"(-?[0-9]{4}-[0-9]{2}-[0-9]{2})(?:[ T](%s)Z?)?" % _TIME.pattern)
# What float and Decimal read, without their blanks, underscores and digits of other scripts.
_REAL = re.compile(r"[+-]?(?:(?:[0-9]+\.?[0-9]*|\.[0-9]+)(?:[eE][+-]?[0-9]+)?|(?i:inf|infinity|s?nan[0-9]*))")


def _date_of_text(type_, text):
    if not _DATE.fullmatch(text):
        raise _wrong(type_, text)
    return int(np.datetime64(text, "D").astype("i8"))


def _time_of_text(type_, text):
    found = _TIME.fullmatch(text)
    if not found:
        raise _wrong(type_, text)
    hour, minute, second, part = found.groups("0")
    if int(hour) > 23 or int(minute) > 59 or int(second) > 59:
        raise _wrong(type_, text)
    return ((int(hour) * 60 + int(minute)) * 60 + int(second)) * 1000 + int(part.ljust(3, "0"))


def _coerce_date(type_, value, text):
    if isinstance(value, str) and text:
        return int(value) if _NUMBER.fullmatch(value) else _date_of_text(type_, value)
    if isinstance(value, np.datetime64):
        return _exact_units(value, "D")
    if isinstance(value, datetime.datetime):
        if value.time() != datetime.time():
            raise ValueError
        value = value.date()
    if isinstance(value, datetime.date):
        return (value - _EPOCH_DATE).days
    if isinstance(value, int) and not isinstance(value, bool):
        return value
    raise _wrong(type_, value)


def _coerce_time(type_, value, text):
    if isinstance(value, str) and text:
        return int(value) if _NUMBER.fullmatch(value) else _time_of_text(type_, value)
    if isinstance(value, np.timedelta64):
        return _exact_units(value, "ms")
    if isinstance(value, datetime.time):
        if value.tzinfo is not None:
            raise ValueError
        value = datetime.datetime.combine(_EPOCH_DATE, value) - _EPOCH
    if isinstance(value, datetime.timedelta):
        return _exact_ms(value)
    if isinstance(value, int) and not isinstance(value, bool):
        return value
    raise _wrong(type_, value)


def _coerce_timestamp(type_, value, text):
    if isinstance(value, str) and text:
        if _NUMBER.fullmatch(value):
            return int(value)
        found = _TIMESTAMP.fullmatch(value)
        if not found:
            raise _wrong(type_, value)
        day, clock = _date_of_text(type_, found.group(1)), found.group(2)
        return day * _DAY_MS + (_time_of_text(type_, clock) if clock else 0)
    if isinstance(value, np.datetime64):
        return _exact_units(value, "ms")
    if isinstance(value, datetime.datetime):
        if value.tzinfo is not None:
            value = value.astimezone(datetime.timezone.utc).replace(tzinfo=None)
        return _exact_ms(value - _EPOCH)
    if isinstance(value, datetime.date):
        return (value - _EPOCH_DATE).days * _DAY_MS
    if isinstance(value, int) and not isinstance(value, bool):
        return value
    raise _wrong(type_, value)


_LOGICAL = {"date": _coerce_date, "time_millis": _coerce_time, "timestamp_millis": _coerce_timestamp}


def _coerce_int(type_, value, text):
    logical = _LOGICAL.get(type_.name)
    if logical:
        return logical(type_, value, text)
    if isinstance(value, str) and text:
        return _int_of_text(type_, value)
    if isinstance(value, bool) or not isinstance(value, (int, float, Decimal)):
        raise _wrong(type_, value)
    if int(value) != value:
        raise _wrong(type_, value)
    return int(value)


def _coerce_float(type_, value, text):
    if isinstance(value, bool) or not isinstance(value, (int, float, Decimal, str) if text else (int, float, Decimal)):
        raise _wrong(type_, value)
    if isinstance(value, str) and not _REAL.fullmatch(value):
        raise _wrong(type_, value)
    near = float(value)
    if type_.storage == FLOAT and math.isfinite(near):
        with np.errstate(over="ignore"):
            near = float(np.float32(near))
    if math.isinf(near) and "inf" not in str(value).lower():
        raise KelpError("%s is out of range for %s" % (value, type_.name))
    if isinstance(value, int) and near != value:
        raise KelpError("%d has more digits than %s holds" % (value, type_.name))
    return near


def _coerce_decimal(type_, value, text):
    if isinstance(value, bool) or not isinstance(value, (int, Decimal, str)):
        # A float is refused: the decimal that was meant is not the one that it holds.
        raise _wrong(type_, value)
    if isinstance(value, str) and not _REAL.fullmatch(value):
        raise _wrong(type_, value)
    return value if isinstance(value, Decimal) else Decimal(value)


def _coerce_bytes(type_, value, text):
    if isinstance(value, str) and text:
        return value.encode("utf-8", "surrogateescape")
    if isinstance(value, (bytes, bytearray, memoryview)):
        return bytes(value)
    raise _wrong(type_, value)


def _coerce_text(type_, value, text):
    if isinstance(value, str):
        value = value.encode("utf-8", "surrogateescape")
    if not isinstance(value, bytes):
        raise _wrong(type_, value)
    if b"\0" in value:
        raise KelpError("a text of type cstr cannot hold a NUL character")
    return value


_COERCE = {BOOL: _coerce_bool, INT16: _coerce_int, INT32: _coerce_int, INT64: _coerce_int, INT128: _coerce_int,
           FLOAT: _coerce_float, DOUBLE: _coerce_float, BYTEA: _coerce_bytes, CSTR: _coerce_text,
           DEC64: _coerce_decimal, DEC128: _coerce_decimal}

TYPES = tuple(Type(name, code) for name, code in (
    ("bool", 1), ("int16", 2), ("int32", 3), ("int64", 4), ("int128", 5), ("float", 6), ("double", 7), ("bytea", 8),
    ("cstr", 9), ("dec64", 10), ("dec128", 11), ("date", 0x10003), ("time_millis", 0x20003),
    ("timestamp_millis", 0x30004)))
_BY_CODE = {t.code: t for t in TYPES}
_BY_NAME = {t.name: t for t in TYPES}


def by_code(code):
    """Returns the type with this number, or None."""
    return _BY_CODE.get(code)


def by_name(name):
    """Returns the type of this name."""
    try:
        return _BY_NAME[name]
    except KeyError:
        raise KelpError("there is no column type %r; the types are %s" % (name, ", ".join(_BY_NAME))) from None


class Field:
    """One column of a schema: its name, its type and the two writer's flags.

    zflag   store a chunk compressed when that saves a fifth, not only when it saves half
    nflag   keep no minimum and maximum
    """

    __slots__ = ("name", "type", "zflag", "nflag")

    def __init__(self, name, type, zflag=False, nflag=False):
        self.name = name
        self.type = by_name(type) if isinstance(type, str) else type
        self.zflag = bool(zflag)
        self.nflag = bool(nflag)

    def __repr__(self):
        return "Field(%r, %r%s%s)" % (self.name, self.type.name, ", zflag=True" if self.zflag else "",
                                      ", nflag=True" if self.nflag else "")

    def __eq__(self, other):
        return isinstance(other, Field) and (self.name, self.type, self.zflag, self.nflag) == (
            other.name, other.type, other.zflag, other.nflag)

    __hash__ = None


_WORD = re.compile(r'\s*(?:(,)|"([^"]*)"|(")|([^\s,"][^\s,]*))')


def parse_schema(schema):
    """Reads a schema: 'id int64, "the note" cstr -z', or Fields, or tuples (name, type[, flags]), or a dict."""
    if isinstance(schema, dict):
        return [Field(name, type_) for name, type_ in schema.items()]
    if not isinstance(schema, str):
        try:
            return [f if isinstance(f, Field) else
                    Field(f[0], f[1], zflag="-z" in "".join(f[2:]), nflag="-n" in "".join(f[2:])) for f in schema]
        except (TypeError, IndexError):
            raise KelpError("%r is no schema: give a text, or Fields, or tuples (name, type)" % (schema,)) from None
    words, at = [[]], 0
    schema = schema.rstrip()
    while at < len(schema):
        found = _WORD.match(schema, at)
        if found.group(3):
            raise KelpError("a double quote in the schema is not closed")
        at = found.end()
        if found.group(1):
            words.append([])
        else:
            words[-1].append(found.group(2) if found.group(2) is not None else found.group(4))
    if words == [[]]:
        return []
    fields = []
    for definition in words:
        if len(definition) < 2:
            raise KelpError("a column of the schema lacks its %s: write NAME TYPE [-z] [-n], with commas between"
                            % ("type" if definition else "name and type"))
        for flag in definition[2:]:
            if flag not in ("-z", "-n"):
                raise KelpError("%r is no column flag; the flags are -z and -n" % flag)
        fields.append(Field(definition[0], definition[1], "-z" in definition[2:], "-n" in definition[2:]))
    return fields
