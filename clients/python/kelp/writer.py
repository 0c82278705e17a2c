"""Writing data files.

Rows are cut into row groups where the library's own writer cuts them, chunks are compressed when its budgets allow, and
statistics keep what its comparisons keep, so that the same rows give the same bytes.
"""

import datetime
import itertools
import os
import struct
from decimal import Decimal

import numpy as np

from . import dpd, types
from .errors import KelpError
from .files import HEAD_MAGIC, TAIL_MAGIC, path_text
from .native import as_bytes, lz4_compress, xxh32
from .page import MAX_ROWS
from .table import Column, Table

MAX_RESERVED = 33554432      # value bytes of a row group
MAX_VALUE = 512 << 20        # one value; keeps every size of a chunk within 32 bits
COMPRESS_FROM = 4096         # bytes; smaller chunks are stored as they are
EXACT = {types.FLOAT: 1 << 24, types.DOUBLE: 1 << 53}  # up to here every integer is such a number
_WRITES = itertools.count()
_STRUCT_COLDEF = struct.Struct("<128siBB2x")
_STRUCT_COLSTAT = struct.Struct("<qB7x48s48s")
_STRUCT_ROWGROUP = struct.Struct("<iiii")
_STRUCT_COLMETA = struct.Struct("<qiBBBBiiiiIi8x48s48s")
_STRUCT_SCHEMA = struct.Struct("<iiqqiiq")


def _align8(size):
    return (size + 7) & ~7


def _is_missing(value):
    return value is None or type(value).__name__ in ("NAType", "NaTType")


def _unpack(values):
    """Returns (array or list, mask or None) of any kind of column that callers pass."""
    if isinstance(values, np.ma.MaskedArray):
        mask = np.ma.getmaskarray(values)
        if values.dtype == object:  # which may hold None as well
            return _unpack([None if null else value for value, null in zip(values.data, mask)])
        return values.data, mask if mask.any() else None
    if hasattr(values, "isna") and hasattr(values, "to_numpy"):  # a pandas Series
        mask = np.asarray(values.isna(), np.bool_)
        if not mask.any():
            return values.to_numpy(), None
        if values.dtype.kind in "fMm" and isinstance(values.dtype, np.dtype):
            return values.to_numpy(), mask
        return values.to_numpy(dtype=object), mask
    if isinstance(values, np.ndarray):
        if values.ndim != 1:
            raise KelpError("a column must have one dimension, not %d" % values.ndim)
        if values.dtype != object:
            return values, None
    values = list(values)
    missing = np.fromiter(map(_is_missing, values), np.bool_, len(values))
    return values, missing if missing.any() else None


def infer_type(name, values):
    """Returns the type that fits a column: numpy's types as they are, Python's by all values that are not None."""
    if isinstance(values, Column):
        return values.type
    data, mask = _unpack(values)
    if isinstance(data, np.ndarray) and data.dtype != object:
        kind, size = data.dtype.kind, data.dtype.itemsize
        if kind == "M":
            return types.by_name("date" if np.datetime_data(data.dtype)[0] == "D" else "timestamp_millis")
        found = {"b": "bool", "S": "bytea", "U": "cstr", "m": "time_millis",
                 "i": {1: "int16", 2: "int16", 4: "int32", 8: "int64"}.get(size),
                 "u": {1: "int16", 2: "int32", 4: "int64", 8: "int128"}.get(size),
                 "f": {2: "float", 4: "float", 8: "double"}.get(size)}.get(kind)
        if found is None:
            raise KelpError("column %s: numpy's %s has no column type" % (name, data.dtype))
        return types.by_name(found)
    present = [v for i, v in enumerate(data) if mask is None or not mask[i]]
    kinds = {type(v.item() if isinstance(v, np.generic) else v) for v in present}
    if not kinds:
        raise KelpError("column %s holds only NULLs: name its type in the schema" % name)
    if kinds <= {bool}:
        return types.by_name("bool")
    if kinds <= {int}:
        low, high = min(present), max(present)
        return types.by_name("int64" if -2**63 <= low and high < 2**63 else "int128")
    if kinds <= {int, float}:
        return types.by_name("double")
    if kinds <= {str}:
        return types.by_name("cstr")
    if kinds <= {bytes, bytearray}:
        return types.by_name("bytea")
    if kinds <= {Decimal, int}:
        fits = all(not isinstance(v, Decimal) or not v.is_finite() or
                   (len(v.as_tuple().digits) <= dpd.DIGITS64 and
                    dpd.EXPONENTS64[0] <= v.as_tuple().exponent <= dpd.EXPONENTS64[1]) for v in present)
        return types.by_name("dec64" if fits and all(abs(v) < 10**16 for v in present if isinstance(v, int))
                             else "dec128")
    if kinds <= {datetime.date}:
        return types.by_name("date")
    if kinds <= {datetime.time} or kinds <= {datetime.timedelta}:
        return types.by_name("time_millis")
    if all(issubclass(k, (datetime.datetime, np.datetime64)) for k in kinds):
        return types.by_name("timestamp_millis")
    raise KelpError("column %s mixes %s: name its type in the schema"
                    % (name, ", ".join(sorted(k.__name__ for k in kinds))))


def _exact(array, dtype):
    """Converts dates or times to the unit stored, refusing to lose anything."""
    with np.errstate(all="ignore"):
        out = array.astype(dtype)
    if not ((out == array) | np.isnat(array)).all():
        raise KelpError("a value is finer or larger than the type can hold")
    return out


class _Fixed:
    """A column of fixed width: its stored values, NULL rows holding their zero."""

    def __init__(self, field, values):
        self.field = field
        type_ = field.type
        if isinstance(values, Column):
            store, mask = values.store, values.mask
        else:
            data, mask = _unpack(values)
            store, mask = self._store(type_, data, mask)
        if mask is not None:
            store = store.copy()
            zero = {types.DEC64: dpd.ZERO64, types.DEC128: (0, dpd.ZERO128 >> 64)}.get(type_.storage, 0)
            store[mask] = np.array(zero, store.dtype)
        if type_.storage == types.BOOL:
            store = (store != 0).view(np.uint8)
        self.store = np.ascontiguousarray(store)
        self.mask = mask
        self.need = type_.width

    def __len__(self):
        return len(self.store)

    @staticmethod
    def _store(type_, data, mask):
        if isinstance(data, np.ndarray):
            kind = data.dtype.kind
            if kind in "Mm" and type_.name in ("date", "time_millis", "timestamp_millis"):
                if (kind == "m") != (type_.name == "time_millis"):
                    raise KelpError("%s is no value of type %s" % (data.dtype, type_.name))
                nat = np.isnat(data)
                if nat.any():
                    mask = nat if mask is None else mask | nat
                data = _exact(data, {"date": "<M8[D]", "time_millis": "<m8[ms]"}.get(type_.name, "<M8[ms]"))
                data = data.view("<i8")
                if mask is not None:
                    data = np.where(mask, 0, data)
                kind = "i"
            if type_.storage == types.BOOL and kind == "b":
                return data.view(np.uint8), mask
            if type_.is_float and kind in "fiu":
                return _Fixed._reals(type_, data if mask is None else np.where(mask, data.dtype.type(0), data)), mask
            if type_.is_int and kind in "iu":
                return _Fixed._ints(type_, data if mask is None else np.where(mask, data.dtype.type(0), data)), mask
            data = data.tolist()
        rows = [None if mask is not None and mask[i] else v for i, v in enumerate(data)] if mask is not None else data
        kinds = set(map(type, rows)) - {type(None)}
        if type_.is_int and type_.storage != types.INT128 and kinds <= {int}:
            numbers = [0 if v is None else v for v in rows]
            low, high = type_.int_range
            for value in (min(numbers, default=0), max(numbers, default=0)):
                if not low <= value <= high:
                    raise KelpError("%d is out of range for %s" % (value, type_.name))
            return np.array(numbers, "<i%d" % type_.width), mask
        if type_.storage == types.DOUBLE and kinds <= {int, float} and not any(
                type(v) is int and abs(v) > EXACT[types.DOUBLE] for v in rows):
            return np.array([0.0 if v is None else v for v in rows], "<f8"), mask
        plain = [None if v is None else type_.coerce(v) for v in rows]
        if type_.storage == types.DEC64:
            return dpd.encode64(plain), mask
        if type_.storage == types.DEC128:
            return dpd.encode128(plain), mask
        plain = [0 if v is None else v for v in plain]
        if type_.is_int:
            low, high = type_.int_range
            for value in plain:
                if not low <= value <= high:
                    raise KelpError("%d is out of range for %s" % (value, type_.name))
        if type_.storage == types.INT128:
            blob = b"".join(v.to_bytes(16, "little", signed=True) for v in plain)
            return np.frombuffer(blob, "<u8").reshape(-1, 2), mask
        return np.array(plain, {types.BOOL: "u1", types.FLOAT: "<f4", types.DOUBLE: "<f8"}.get(
            type_.storage, "<i%d" % type_.width)), mask

    @staticmethod
    def _reals(type_, data):
        with np.errstate(over="ignore"):
            out = data.astype("<f4" if type_.storage == types.FLOAT else "<f8")
        if data.dtype.kind == "f":
            lost = np.isinf(out) & ~np.isinf(data)
            if lost.any():
                raise KelpError("%s is out of range for %s" % (data[lost][0], type_.name))
            return out
        exact = EXACT[type_.storage]
        for i in np.flatnonzero((data > exact) | (data < -exact) if data.dtype.kind == "i" else data > exact):
            if int(out[i]) != int(data[i]):
                raise KelpError("%d has more digits than %s holds" % (data[i], type_.name))
        return out

    @staticmethod
    def _ints(type_, data):
        if type_.storage == types.INT128:
            words = np.zeros((len(data), 2), "<u8")
            words[:, 0] = data.astype("<u8") if data.dtype.kind == "u" else data.astype("<i8").view("<u8")
            if data.dtype.kind == "i":
                words[:, 1] = (data.astype("<i8") >> 63).view("<u8")
            return words
        low, high = type_.int_range
        if len(data) and (int(data.min()) < low or int(data.max()) > high):
            raise KelpError("%d is out of range for %s" % (
                int(data.min()) if int(data.min()) < low else int(data.max()), type_.name))
        return data.astype("<i%d" % type_.width)

    def encode(self, start, end):
        return as_bytes(self.store[start:end])

    def bounds(self, start, end):
        """Returns ((key, image) of the minimum, the same of the maximum), or None without values."""
        store = self.store[start:end]
        if self.mask is not None:
            store = store[~self.mask[start:end]]
        if len(store) == 0:
            return None
        low, high, key = self._extremes(store)
        return (key(low), store[low].tobytes()), (key(high), store[high].tobytes())

    def _extremes(self, store):
        """Returns the positions of the first minimum and the first maximum, and the function from position to key."""
        type_ = self.field.type
        if type_.is_float:
            def key(at):
                return float(store[at])
            if np.isnan(store[0]):  # a NaN that comes first is never displaced
                return 0, 0, key
            real = np.flatnonzero(~np.isnan(store))
            return real[store[real].argmin()], real[store[real].argmax()], key
        if type_.storage == types.INT128:
            low, high = store[:, 0], store[:, 1].view("<i8")

            def key(at):
                return (int(high[at]) << 64) | int(low[at])
            least, most = np.flatnonzero(high == high.min()), np.flatnonzero(high == high.max())
            return least[low[least].argmin()], most[low[most].argmax()], key
        if type_.is_decimal:
            return self._decimal_extremes(store)
        return store.argmin(), store.argmax(), lambda at: int(store[at])

    def _decimal_extremes(self, store):
        decode = dpd.decode64 if self.field.type.storage == types.DEC64 else dpd.decode128

        def key(at):
            return decode(store[at:at + 1])[0]
        if self.field.type.storage == types.DEC64:
            sign, coefficient, exponent, special = dpd.split64(store)
            if not special.any() and (exponent == exponent[0]).all():
                coefficient = np.where(sign, -coefficient, coefficient)
                return coefficient.argmin(), coefficient.argmax(), key
        values = decode(store)
        if values[0].is_nan():  # compares equal to everything, so it stays
            return 0, 0, key
        real = [at for at, value in enumerate(values) if not value.is_nan()]
        return min(real, key=values.__getitem__), max(real, key=values.__getitem__), key


class _Variable:
    """A column of byte strings or texts: a list of bytes, empty where NULL."""

    def __init__(self, field, values):
        self.field = field
        self.is_text = field.type.storage == types.CSTR
        if isinstance(values, Column):
            data, mask = values.store, values.mask
            items = data.tolist()
        else:
            data, mask = _unpack(values)
            if isinstance(data, np.ndarray):
                data = data.tolist()
            coerce = field.type.coerce
            items = [b"" if mask is not None and mask[i] else coerce(v) for i, v in enumerate(data)]
        if mask is not None:
            for i in np.flatnonzero(mask):
                items[i] = b""
        self.items = items
        self.mask = mask
        sizes = np.fromiter(map(len, items), np.int64, len(items))
        if len(sizes) and int(sizes.max()) > MAX_VALUE:
            raise KelpError("a value of column %s has more than %d MiB" % (field.name, MAX_VALUE >> 20))
        self.need = sizes + (1 if self.is_text else 4)

    def __len__(self):
        return len(self.items)

    def encode(self, start, end):
        items = self.items[start:end]
        if self.is_text:
            return as_bytes(b"\0".join(items) + b"\0")
        parts = [b""] * (2 * len(items))
        parts[0::2] = [len(item).to_bytes(4, "little") for item in items]
        parts[1::2] = items
        return as_bytes(b"".join(parts))

    def bounds(self, start, end):
        if not self.is_text:
            return None
        items = self.items[start:end]
        if self.mask is not None:
            items = [item for item, null in zip(items, self.mask[start:end]) if not null]
        if not items:
            return None
        # The whole text decides within a chunk; what is kept, and compared between chunks, is its first 40 bytes.
        low, high = min(items)[:40], max(items)[:40]
        return (low, low), (high, high)


def _less(a, b):
    if isinstance(a, Decimal) and (a.is_nan() or b.is_nan()):
        return False
    return a < b


def row_groups(needs, nrow):
    """Yields (start, end) of the row groups.

    needs   per column the bytes that its values reserve: one number, or an array with one a row

    A row group ends before the row that would be its 1,048,577th, and before a row whose reservation takes the sum
    beyond 32 MiB. The columns of a row are reserved one by one, and the cut sets the sum to zero in the middle of the
    row: what the earlier columns of that row had reserved, and the column that caused the cut, are not counted again.
    With no row to write there is no cut, and the sum stands.
    """
    total = np.zeros(nrow, np.int64)
    for need in needs:
        total += need
    reached = np.concatenate([np.zeros(1, np.int64), np.cumsum(total)])
    start, counted = 0, None
    while start < nrow:
        first = int(total[start]) if counted is None else counted
        base = first - int(reached[start + 1])
        cut = max(int(np.searchsorted(reached, MAX_RESERVED - base, side="right")) - 1, start + 1)
        if min(cut, start + MAX_ROWS) >= nrow:
            yield start, nrow
            return
        if start + MAX_ROWS <= cut:
            yield start, start + MAX_ROWS
            start, counted = start + MAX_ROWS, None
            continue
        yield start, cut
        row = [int(need if np.isscalar(need) else need[cut]) for need in needs]
        running, column = base + int(reached[cut]), 0
        for column, size in enumerate(row):
            running += size
            if running > MAX_RESERVED:
                break
        start, counted = cut, sum(row[column + 1:])


class _Output:
    def __init__(self, file, fields, sources):
        self.file = file
        self.fields = fields
        self.sources = sources
        self.offset = 0
        self.records = []
        self.nnull = [0] * len(fields)
        self.stats = [None] * len(fields)

    def write(self, data):
        self.file.write(data)
        self.offset += len(data)

    def write_group(self, start, end):
        nrow, begin, metas = end - start, self.offset, []
        for i, (field, source) in enumerate(zip(self.fields, self.sources)):
            metas.append(self._write_chunk(i, field, source, start, end))
        head = _STRUCT_ROWGROUP.pack(self.offset - begin, nrow, len(self.fields), 0)
        self.records.append(head + b"".join(metas))

    def _write_chunk(self, i, field, source, start, end):
        nrow = end - start
        null = None if source.mask is None else source.mask[start:end]
        nnull = 0 if null is None else int(np.count_nonzero(null))
        self.nnull[i] += nnull
        values = source.encode(start, end)
        bitmap = np.zeros((nrow + 7) // 8, np.uint8) if null is None else np.packbits(null)
        chunk = np.concatenate([values, bitmap])
        if chunk.size >= 1 << 31:
            raise KelpError("a row group of column %s does not fit a chunk" % field.name)

        bounds = None if field.nflag else source.bounds(start, end)
        images = (b"", b"")
        if bounds is not None:
            images = (bounds[0][1], bounds[1][1])
            self._merge(i, bounds)

        stored = None
        if chunk.size >= COMPRESS_FROM:
            stored = lz4_compress(chunk, _align8(int((0.8 if field.zflag else 0.5) * chunk.size)))
        compressed = stored is not None
        if not compressed:
            stored = chunk
        offset = self.offset
        self.write(stored)
        self.write(b"\0" * (_align8(self.offset) - self.offset))
        return _STRUCT_COLMETA.pack(offset, nrow, compressed, field.nflag, 0, bounds is not None, chunk.size,
                                    len(stored), nnull, values.size, xxh32(stored), 0, *images)

    def _merge(self, i, bounds):
        low, high = bounds
        if self.stats[i] is None:
            self.stats[i] = [low, high]
            return
        if _less(low[0], self.stats[i][0][0]):
            self.stats[i][0] = low
        if _less(self.stats[i][1][0], high[0]):
            self.stats[i][1] = high

    def footer(self, nrow):
        ncol = len(self.fields)
        out = [_STRUCT_SCHEMA.pack(1, ncol, nrow, len(self.records), 136 * ncol, 112 * ncol,
                                   len(self.records) * (16 + 144 * ncol))]
        for field in self.fields:
            out.append(_STRUCT_COLDEF.pack(_name(field.name), field.type.code, field.zflag, field.nflag))
        for nnull, stat in zip(self.nnull, self.stats):
            out.append(_STRUCT_COLSTAT.pack(nnull, stat is not None, *(
                (b"", b"") if stat is None else (stat[0][1], stat[1][1]))))
        return b"".join(out + self.records)


def _name(name):
    raw = name.encode("utf-8", "surrogateescape")
    if len(raw) > 127 or b"\0" in raw:
        raise KelpError("column name %r is longer than 127 bytes or holds a NUL" % name)
    return raw


def _sources(columns, schema):
    if isinstance(columns, Table):
        columns = columns.columns
    elif not isinstance(columns, dict):
        if not (hasattr(columns, "columns") and hasattr(columns, "__getitem__")):
            raise KelpError("columns must be a dict of name and values, a Table or a DataFrame")
        columns = {str(name): columns[name] for name in columns.columns}
    if schema is None:
        fields = [types.Field(name, infer_type(name, values)) for name, values in columns.items()]
    else:
        fields = types.parse_schema(schema)
        names = [field.name for field in fields]
        if len(set(names)) != len(names):
            raise KelpError("the schema names a column twice")
        if set(names) != set(columns):
            raise KelpError("the schema has %s, the data have %s" % (", ".join(names), ", ".join(columns)))
    if not fields:
        raise KelpError("a table needs at least one column")
    sources = []
    for field in fields:
        _name(field.name)
        values = columns[field.name]
        if isinstance(values, Column) and values.type.code != field.type.code:
            values = values.to_list()
        try:
            sources.append((_Fixed if field.type.is_fixed else _Variable)(field, values))
        except KelpError as error:
            raise KelpError("column %s: %s" % (field.name, error)) from None
    for field, source in zip(fields, sources):
        if len(source) != len(sources[0]):
            raise KelpError("column %s has %d rows, column %s has %d" % (
                field.name, len(source), fields[0].name, len(sources[0])))
    return fields, sources


def write_table(path, columns, schema=None):
    """Writes a data file. It is written beside `path` and renamed, so that no reader sees a part of it.

    columns   dict of name and values: a numpy array, a numpy.ma.MaskedArray, a list with None for NULL, a
              kelp.Column; or a kelp.Table, or a pandas.DataFrame. NaT and pandas.NA are NULL, NaN is a value
              except in a pandas column, where it is NULL too.
    schema    as text, 'id int64, "the note" cstr -z, price dec64 -n', or a list of kelp.Field or tuples, or a dict
              of name and type; -z and zflag compress eagerly, -n and nflag keep no bounds. Without it the types
              follow from the values.
    """
    fields, sources = _sources(columns, schema)
    nrow = len(sources[0])
    path = path_text(path)
    temporary = "%s.%d.%d.tmp" % (path, os.getpid(), next(_WRITES))  # another thread may write the same file
    try:
        with open(temporary, "wb") as file:
            output = _Output(file, fields, sources)
            output.write(HEAD_MAGIC)
            for start, end in row_groups([source.need for source in sources], nrow):
                output.write_group(start, end)
            footer = output.footer(nrow)
            output.write(footer)
            output.write(struct.pack("<qI4s", len(footer), xxh32(footer), TAIL_MAGIC))
        os.replace(temporary, path)
    except OSError as error:
        _discard(temporary)
        raise KelpError("cannot write %s: %s" % (path, error.strerror)) from None
    except BaseException:
        _discard(temporary)
        raise


def _discard(path):
    try:
        os.unlink(path)
    except OSError:
        pass
