"""Results: columns of values with masks, and tables of columns."""

import datetime

import numpy as np

from . import types
from .errors import KelpError
from .text import shown


class Column:
    """The values of one column.

    name, type   its name and kelp.types.Type
    mask         array of bool, True where the value is NULL, or None when there is no NULL
    values       array of the values: numpy's own types for numbers, dates and times (fixed widths share the memory
                 they were received in), objects for the rest: str, bytes, decimal.Decimal, and int for int128. Where
                 the mask is True, an object is None and anything else is a zero that means nothing.
    """

    __slots__ = ("name", "type", "mask", "_store", "_texts", "_length", "_values")

    def __init__(self, name, type_, store=None, texts=None, length=None, mask=None):
        # Exactly one of `store` (see types.Type.frombuffer; for bytea and cstr an array of bytes objects) and `texts`
        # (the texts of a cstr column, each with its NUL) is given.
        self.name = name
        self.type = type_
        self.mask = mask
        self._store = store
        self._texts = texts
        self._length = len(store) if store is not None else length
        self._values = None

    def __len__(self):
        return self._length

    def __repr__(self):
        return "<kelp.Column %s %s, %d rows, %d NULL>" % (shown(self.name), self.type.name, len(self), self.null_count)

    @property
    def null_count(self):
        return 0 if self.mask is None else int(np.count_nonzero(self.mask))

    @property
    def store(self):
        """The values as they are stored: the raw numbers, and bytes objects for bytea and cstr."""
        if self._store is None:
            self._store = np.empty(self._length, object)
            self._store[:] = self._texts.split(b"\0")[:-1]
        return self._store

    @property
    def values(self):
        if self._values is None:
            self._values = self._make_values()
        return self._values

    def _make_values(self):
        if self.type.storage == types.CSTR:
            out = np.empty(self._length, object)
            if self._texts is not None:  # one decoding of all texts: a NUL never lies inside a character
                out[:] = self._texts.decode("utf-8", "surrogateescape").split("\0")[:-1]
            else:
                out[:] = [text.decode("utf-8", "surrogateescape") for text in self._store]
        elif self.type.storage == types.BYTEA:
            out = self._store
        else:
            out = self.type.to_values(self.store)
        if self.mask is not None and out.dtype == object:
            if out is self._store:
                out = out.copy()
            out[self.mask] = None
        return out

    def to_numpy(self):
        """Returns a numpy.ma.MaskedArray over the values, NULLs masked."""
        return np.ma.MaskedArray(self.values, mask=np.ma.nomask if self.mask is None else self.mask)

    def to_list(self):
        """Returns the values as Python objects, None for NULL."""
        out = self.values.tolist() if self.values.dtype != object else list(self.values)
        if self.type.name == "timestamp_millis" or self.type.name == "date":
            # Beyond the years that datetime knows numpy answers with bare integers; the numpy scalar says more.
            if any(not isinstance(v, datetime.date) for v in out):
                out = [self.values[i] if not isinstance(v, datetime.date) else v for i, v in enumerate(out)]
        if self.mask is not None and self.values.dtype != object:
            for i in np.flatnonzero(self.mask):
                out[i] = None
        return out

    def take(self, keep):
        """Returns the rows that an array of bool, or a slice, selects."""
        mask = None if self.mask is None else self.mask[keep]
        if mask is not None and not mask.any():
            mask = None
        return Column(self.name, self.type, store=self.store[keep], mask=mask)

    def to_pandas(self):
        """Returns a pandas.Series: nullable types for numbers with NULLs, nanoseconds for dates where they fit."""
        import pandas
        values, mask = self.values, self.mask
        if values.dtype == object:
            data = values
        elif values.dtype.kind == "M" or values.dtype.kind == "m":
            if mask is not None:
                values = values.copy()
                values[mask] = np.timedelta64("NaT") if values.dtype.kind == "m" else np.datetime64("NaT")
            nanos = values.astype(values.dtype.kind + "8[ns]")
            # What nanoseconds cannot hold stays an object instead of wrapping around.
            if bool(((nanos.astype(values.dtype) == values) | np.isnat(values)).all()):
                data = nanos
            else:
                data = np.array(self.to_list(), object)
        elif mask is None:
            data = values
        elif values.dtype.kind == "b":
            data = pandas.arrays.BooleanArray(values.copy(), mask.copy())
        elif values.dtype.kind == "i":
            data = pandas.arrays.IntegerArray(values.copy(), mask.copy())
        else:
            data = pandas.arrays.FloatingArray(values.copy(), mask.copy())
        return pandas.Series(data, name=self.name, copy=False)

    @staticmethod
    def concat(columns):
        """Joins the parts of one column."""
        first = columns[0]
        if len(columns) == 1:
            return first
        mask = None
        if any(c.mask is not None for c in columns):
            mask = np.concatenate([np.zeros(len(c), np.bool_) if c.mask is None else c.mask for c in columns])
        if all(c._texts is not None for c in columns):
            return Column(first.name, first.type, texts=b"".join(c._texts for c in columns),
                          length=sum(len(c) for c in columns), mask=mask)
        return Column(first.name, first.type, store=np.concatenate([c.store for c in columns]), mask=mask)


class Table:
    """Rows as columns: a whole result, or one batch of it.

    columns    dict of name and Column, in the order asked for
    num_rows   rows, also when there are no columns
    """

    __slots__ = ("columns", "num_rows")

    def __init__(self, columns, num_rows=None):
        self.columns = {c.name: c for c in columns}
        self.num_rows = num_rows if num_rows is not None else (len(columns[0]) if columns else 0)

    def __len__(self):
        return self.num_rows

    def __getitem__(self, name):
        try:
            return self.columns[name]
        except KeyError:
            raise KelpError("the result has no column %s; it has %s" % (name, ", ".join(self.columns))) from None

    def __repr__(self):
        return "<kelp.Table %d rows: %s>" % (
            self.num_rows, ", ".join("%s %s" % (shown(c.name), c.type.name) for c in self.columns.values()))

    @property
    def schema(self):
        return [types.Field(c.name, c.type) for c in self.columns.values()]

    def to_numpy(self):
        """Returns a dict of name and numpy.ma.MaskedArray."""
        return {name: column.to_numpy() for name, column in self.columns.items()}

    def to_pandas(self):
        """Returns a pandas.DataFrame."""
        import pandas
        return pandas.DataFrame({name: column.to_pandas() for name, column in self.columns.items()},
                                index=pandas.RangeIndex(self.num_rows), copy=False)

    def rows(self):
        """Yields the rows as tuples of Python objects, None for NULL."""
        if not self.columns:
            return iter([()] * self.num_rows)
        return zip(*(column.to_list() for column in self.columns.values()))

    def take(self, keep):
        columns = [c.take(keep) for c in self.columns.values()]
        return Table(columns, int(np.count_nonzero(keep)) if not columns else None)

    def select(self, names):
        return Table([self[name] for name in names], self.num_rows)

    @staticmethod
    def concat(tables, schema):
        """Joins batches; `schema` (Fields) says what the columns are when there is no batch."""
        if not tables:
            return Table([Column(f.name, f.type, store=f.type.empty_store()) for f in schema], 0)
        names = list(tables[0].columns)
        return Table([Column.concat([t.columns[name] for t in tables]) for name in names],
                     sum(t.num_rows for t in tables))
