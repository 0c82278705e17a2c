"""Data files and split directories: footers proved before use, and row groups as tables.

A file is the 8 bytes CVN1IX86, the row groups (one chunk per column, each at a multiple of 8), the footer, and a
trailer of 16 bytes: the footer's size, its XXH32, and CVN1. The footer is the schema description, the column
definitions, the file's statistics per column, and one record per row group.

A split directory keeps the chunks of column N in N.cvnx and the rest in meta.cvnx, where the offsets count from the
start of the column's file and the hash is still that of the original footer.
"""

import mmap
import os
import stat

import numpy as np

from . import types
from .errors import KelpError
from .native import as_bytes, xxh32
from .page import decode_page
from .table import Column, Table
from .text import shown, without_passwords
from .where import apply, bind, parse_where

HEAD_MAGIC = b"CVN1IX86"
TAIL_MAGIC = b"CVN1"
TRAILER_SIZE = 16

SCHEMA = np.dtype([("version", "<i4"), ("ncol", "<i4"), ("nrow", "<i8"), ("nrowgroup", "<i8"), ("coldefsz", "<i4"),
                   ("colstatsz", "<i4"), ("rowgroupsz", "<i8")])
COLDEF = np.dtype([("name", "V128"), ("typ", "<i4"), ("zflag", "u1"), ("nflag", "u1"), ("padding", "V2")])
COLSTAT = np.dtype([("nnull", "<i8"), ("hasminmax", "u1"), ("unused1", "V7"), ("minval", "V48"), ("maxval", "V48")])
ROWGROUP = np.dtype([("nbyte", "<i4"), ("nrow", "<i4"), ("ncol", "<i4"), ("unused", "<i4")])
COLMETA = np.dtype([("file_offset", "<i8"), ("nrow", "<i4"), ("zflag", "u1"), ("nflag", "u1"), ("unused1", "u1"),
                    ("hasminmax", "u1"), ("nbyte", "<i4"), ("zbyte", "<i4"), ("nnull", "<i4"), ("nmapoff", "<i4"),
                    ("hash", "<u4"), ("unused2", "<i4"), ("unused3", "V8"), ("minval", "V48"), ("maxval", "V48")])
assert (SCHEMA.itemsize, COLDEF.itemsize, COLSTAT.itemsize, ROWGROUP.itemsize, COLMETA.itemsize) == (
    40, 136, 112, 16, 144)


def datum_value(type_, image):
    """Returns the Python value of a 48-byte datum image; of a text, the first 40 bytes."""
    if type_.storage == types.CSTR:
        return image[:40].split(b"\0")[0].decode("utf-8", "surrogateescape")
    if not type_.is_fixed:
        return None
    column = Column("", type_, store=type_.frombuffer(image, 1))
    return column.to_list()[0]


class Chunk:
    """What the footer says of one column in one row group. `min` and `max` are None when it keeps no bounds."""

    __slots__ = ("offset", "nrow", "nbyte", "zbyte", "nnull", "nmapoff", "hash", "compressed", "min", "max")

    def __repr__(self):
        return "Chunk(%s)" % ", ".join("%s=%r" % (name, getattr(self, name)) for name in self.__slots__)


class ColumnInfo:
    """A column of a file: its Field, and NULLs and bounds over the whole file."""

    __slots__ = ("field", "nnull", "min", "max")

    def __repr__(self):
        return "ColumnInfo(%r, nnull=%d, min=%r, max=%r)" % (self.field, self.nnull, self.min, self.max)


class FileInfo:
    """What `inspect` found.

    path, split            the path, and whether it is a split directory
    nrow, checksum         rows; the footer's hash as the catalogue prints it (signed)
    nbyte, zbyte           bytes of all chunks, uncompressed and as stored
    columns                list of ColumnInfo
    rowgroups              list of lists of Chunk, one per column
    """

    __slots__ = ("path", "split", "nrow", "checksum", "nbyte", "zbyte", "columns", "rowgroups")

    def __repr__(self):
        return "<kelp.FileInfo %s: %d rows, %d row groups, %d columns>" % (
            shown(without_passwords(self.path)), self.nrow, len(self.rowgroups), len(self.columns))


def _plain(number):
    return number.item()


def path_text(path):
    """Returns a path as a str; raises KelpError for what is none."""
    try:
        text = os.fsdecode(path)
    except TypeError:
        raise KelpError("%r is no path" % (path,)) from None
    if "\0" in text:
        raise KelpError("%r is no path: it holds a NUL" % text)
    return text


def open_regular(path):
    """Opens a file to read its bytes; raises KelpError when it cannot be, also for what is no regular file."""
    path = path_text(path)
    try:
        # A FIFO without a writer must not be waited for, only to be refused.
        fd = os.open(path, os.O_RDONLY | os.O_NONBLOCK | os.O_CLOEXEC)
        file = os.fdopen(fd, "rb")
    except IsADirectoryError:
        raise KelpError("cannot read %s: it is a directory" % path) from None
    except OSError as error:
        raise KelpError("cannot read %s: %s" % (path, error.strerror)) from None
    if not stat.S_ISREG(os.fstat(file.fileno()).st_mode):
        file.close()
        raise KelpError("cannot read %s: it is no regular file" % path)
    return file


class DataFile:
    """An open data file, split directory, or bytes-like object that holds a file. Use as a context manager.

    Files are mapped into memory. Replace one by renaming another over it, as write_table does: a process that still
    reads a file which is cut short under it is ended by SIGBUS.
    """

    def __init__(self, source):
        self._maps = []
        self.split = False
        if isinstance(source, (bytes, bytearray, memoryview)):
            self.path = "the given bytes"
            self._data = as_bytes(source)
        else:
            self.path = path_text(source)
            self.split = os.path.isdir(self.path)
            self._data = self._map(os.path.join(self.path, "meta.cvnx") if self.split else self.path)
        self._column_data = {}
        self._read_footer()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        """Lets go of the file; what was read from it stays valid, because arrays keep their memory alive."""
        self._maps = []
        self._data = None
        self._column_data = {}

    def _map(self, path):
        with open_regular(path) as file:
            if os.fstat(file.fileno()).st_size == 0:
                return np.empty(0, np.uint8)
            try:
                mapped = mmap.mmap(file.fileno(), 0, access=mmap.ACCESS_READ)
            except (OSError, ValueError) as error:  # ValueError: it has become empty meanwhile
                raise KelpError("cannot read %s: %s" % (path, getattr(error, "strerror", None) or error)) from None
        self._maps.append(mapped)
        return np.frombuffer(mapped, np.uint8)

    def _bad(self, what):
        return KelpError("%s is no colvane file: %s" % (self.path, what))

    def _read_footer(self):
        data = self._data
        if len(data) < len(HEAD_MAGIC) + TRAILER_SIZE or data[:8].tobytes() != HEAD_MAGIC:
            raise self._bad("it does not begin with CVN1IX86")
        trailer = data[-TRAILER_SIZE:].tobytes()
        if trailer[12:] != TAIL_MAGIC:
            raise self._bad("it does not end with CVN1; it may be cut short")
        size = int.from_bytes(trailer[:8], "little", signed=True)
        start = len(data) - TRAILER_SIZE - size
        if size < SCHEMA.itemsize or start < len(HEAD_MAGIC):
            raise self._bad("the size of its footer is wrong")
        footer = data[start:start + size]
        stored = int.from_bytes(trailer[8:12], "little")
        if not self.split and xxh32(footer) != stored:
            raise self._bad("its footer does not match its hash; the file is damaged")
        self.checksum = stored - (1 << 32) if stored >> 31 else stored
        self._limit = start

        schema = footer[:SCHEMA.itemsize].view(SCHEMA)[0]
        if schema["version"] != 1:
            raise self._bad("its version is %d" % schema["version"])
        ncol, ngroup = _plain(schema["ncol"]), _plain(schema["nrowgroup"])
        self.nrow = _plain(schema["nrow"])
        if min(ncol, ngroup, self.nrow) < 0 or schema["coldefsz"] != COLDEF.itemsize * ncol or \
                schema["colstatsz"] != COLSTAT.itemsize * ncol:
            raise self._bad("its footer contradicts itself")
        group_size = ROWGROUP.itemsize + COLMETA.itemsize * ncol
        if size != SCHEMA.itemsize + (COLDEF.itemsize + COLSTAT.itemsize) * ncol + ngroup * group_size:
            raise self._bad("the parts of its footer do not add up")

        at = SCHEMA.itemsize
        self._coldef = footer[at:at + COLDEF.itemsize * ncol].view(COLDEF)
        at += COLDEF.itemsize * ncol
        self._colstat = footer[at:at + COLSTAT.itemsize * ncol].view(COLSTAT)
        at += COLSTAT.itemsize * ncol
        groups = footer[at:].reshape(ngroup, group_size)
        self._heads = np.ascontiguousarray(groups[:, :ROWGROUP.itemsize]).view(ROWGROUP)[:, 0]
        self._meta = np.ascontiguousarray(groups[:, ROWGROUP.itemsize:]).view(COLMETA) \
            if ncol and ngroup else np.empty((ngroup, ncol), COLMETA)

        self.schema = []
        for definition in self._coldef:
            raw = definition["name"].tobytes()
            if b"\0" not in raw:
                raise self._bad("a column name has no end")
            type_ = types.by_code(_plain(definition["typ"]))
            if type_ is None:
                raise self._bad("a column has the unknown type %d" % definition["typ"])
            self.schema.append(types.Field(raw[:raw.index(0)].decode("utf-8", "surrogateescape"), type_,
                                           definition["zflag"], definition["nflag"]))
        meta = self._meta
        if (self._heads["ncol"] != ncol).any() or (meta["nrow"] != self._heads["nrow"][:, None]).any() or \
                (self._heads["nrow"] < 0).any() or int(self._heads["nrow"].sum(dtype=np.int64)) != self.nrow:
            raise self._bad("its row groups do not add up")
        if (meta["zbyte"] < 0).any() or (meta["nbyte"] < meta["zbyte"]).any() or (meta["file_offset"] < 0).any():
            raise self._bad("the sizes of a chunk are wrong")
        if not self.split:
            room = self._limit - meta["zbyte"].astype(np.int64)
            if (meta["file_offset"] < len(HEAD_MAGIC)).any() or (meta["file_offset"] > room).any():
                raise self._bad("a chunk lies outside the file")

    def _source(self, cno):
        if not self.split:
            return self._data
        if cno not in self._column_data:
            self._column_data[cno] = self._map(os.path.join(self.path, "%d.cvnx" % cno))
        return self._column_data[cno]

    def read_chunk(self, group, cno):
        """Returns one Column of a row group, its hash checked."""
        meta = self._meta[group, cno]
        field = self.schema[cno]
        offset, zbyte = _plain(meta["file_offset"]), _plain(meta["zbyte"])
        source = self._source(cno)
        if offset > len(source) - zbyte:
            raise KelpError("%s: the file of column %s is cut short" % (self.path, field.name))
        return decode_page("%s, row group %d" % (self.path, group), field.name, field.type, _plain(meta["nrow"]),
                           _plain(meta["nnull"]), _plain(meta["nmapoff"]), _plain(meta["nbyte"]), zbyte,
                           _plain(meta["hash"]), source[offset:offset + zbyte])

    def batches(self, columns=None, where=None):
        """Yields one Table per row group that has rows left after `where`."""
        names = [f.name for f in self.schema]
        if len(set(names)) != len(names):
            raise KelpError("%s has two columns of one name" % self.path)
        columns = names if columns is None else check_columns(columns, names)
        conditions = bind(parse_where(where), self.schema)
        for group in range(len(self._heads)):
            nrow = _plain(self._heads["nrow"][group])
            tested = {c.name: None for c in conditions}
            for name in tested:
                tested[name] = self.read_chunk(group, names.index(name))
            keep = apply(conditions, tested, nrow)
            if keep is not None and not keep.any():
                continue
            got = [tested[name] if name in tested else self.read_chunk(group, names.index(name)) for name in columns]
            table = Table(got, nrow)
            yield table if keep is None else table.take(keep)

    def read(self, columns=None, where=None):
        """Returns the whole result as one Table."""
        by_name = {f.name: f for f in self.schema}
        wanted = list(by_name) if columns is None else check_columns(columns, list(by_name))
        found = list(self.batches(wanted, where))
        return Table.concat(found, [by_name[name] for name in wanted])

    def info(self):
        out = FileInfo()
        out.path, out.split, out.nrow, out.checksum = self.path, self.split, self.nrow, self.checksum
        out.nbyte = int(self._meta["nbyte"].sum(dtype=np.int64))
        out.zbyte = int(self._meta["zbyte"].sum(dtype=np.int64))
        out.columns = []
        for field, stat in zip(self.schema, self._colstat):
            column = ColumnInfo()
            column.field, column.nnull = field, _plain(stat["nnull"])
            column.min, column.max = self._bounds(field, stat)
            out.columns.append(column)
        out.rowgroups = [[self._chunk(field, meta) for field, meta in zip(self.schema, group)]
                         for group in self._meta]
        return out

    @staticmethod
    def _bounds(field, record):
        if not record["hasminmax"]:
            return None, None
        return tuple(datum_value(field.type, record[name].tobytes()) for name in ("minval", "maxval"))

    def _chunk(self, field, meta):
        chunk = Chunk()
        chunk.offset, chunk.compressed = _plain(meta["file_offset"]), bool(meta["zflag"])
        for name in ("nrow", "nbyte", "zbyte", "nnull", "nmapoff", "hash"):
            setattr(chunk, name, _plain(meta[name]))
        chunk.min, chunk.max = self._bounds(field, meta)
        return chunk


def check_columns(columns, names):
    """Returns the wanted columns as a list; raises KelpError for one that is unknown or named twice."""
    if isinstance(columns, str):
        columns = [part.strip() for part in columns.split(",")]
    try:
        columns = list(columns)
    except TypeError:
        raise KelpError("%r names no columns; give a list of names, or a text with commas" % (columns,)) from None
    for name in columns:
        if name not in names:
            raise KelpError("there is no column %s; the columns are %s" % (name, ", ".join(names)))
        if columns.count(name) > 1:
            raise KelpError("column %s is asked for twice" % name)
    return columns


def read_table(path, columns=None, where=None):
    """Reads a data file, a split directory or bytes into a Table: `columns` of the rows that satisfy `where`."""
    with DataFile(path) as file:
        return file.read(None if columns is None else check_columns(columns, [f.name for f in file.schema]), where)


def inspect(path):
    """Returns the FileInfo of a data file, a split directory or bytes: everything its footer says."""
    with DataFile(path) as file:
        return file.info()
