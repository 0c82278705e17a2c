"""The reply stream of a query: records of one row group each, up to the record that ends it.

A record is 8 bytes (magic, length) and its pages; a page is 40 bytes (magic, column, type, rows, NULLs, offset of the
null map, raw size, stored size, hash, zero) and the stored bytes. Reading never looks at how the body was cut into
chunks. A stream is whole only if it ends with the record of length 0 and nothing after it.
"""

import struct

import numpy as np

from . import types
from .errors import KelpError
from .page import decode_page

RECORD_MAGIC = 0x71727374
PAGE_MAGIC = 0x19293949
_RECORD = struct.Struct("<ii")
_PAGE = struct.Struct("<iiiiiiiiii")
_BLOCK = 1 << 24
# The largest row group to accept, stored as well as decompressed (with 4 bytes for each text in it), as in the C++
# client. A record may claim 2 GiB, and a compressed one become 255 times as much; kelpd's own writer ends a row group
# at 32 MiB, so that what is larger was made to fill the memory, or by somebody who knows.
MAX_RECORD = 1 << 30


class Page:
    """One page as it came: header fields and the stored bytes."""

    __slots__ = ("cno", "typ", "nrow", "nnull", "nmapoff", "nbyte", "zbyte", "hash", "body")

    def column(self, name, type_, hashed=True):
        return decode_page("the server's reply", name, type_, self.nrow, self.nnull, self.nmapoff, self.nbyte,
                           self.zbyte, self.hash, self.body, hashed)


class RecordReader:
    """Yields the records of a stream, each a list of Page.

    source   anything with readinto(memoryview) that returns 0 only at the end of the body
    npage    how many pages each record must have: one per column asked for
    limit    bytes of a record, stored as well as decompressed, that are not too many
    """

    def __init__(self, source, npage, limit=MAX_RECORD):
        self._source = source
        self._npage = npage
        self._limit = limit
        self._raw = 0  # bytes of the record under way, decompressed
        self.nbyte = 0  # received so far

    def _fill(self, view):
        at = 0
        while at < len(view):
            got = self._source.readinto(view[at:])
            if not got:
                raise KelpError("the server's reply ends without its end mark; it is not whole")
            at += got
        self.nbyte += len(view)

    def _exactly(self, size):
        # Memory is touched only as bytes arrive, so that a claimed size alone costs nothing.
        data = np.empty(size, np.uint8)
        view = memoryview(data)
        for at in range(0, size, _BLOCK):
            self._fill(view[at:at + _BLOCK])
        return data

    def __iter__(self):
        while True:
            magic, left = _RECORD.unpack(self._exactly(_RECORD.size))
            if magic != RECORD_MAGIC:
                raise KelpError("the reply is no stream of kelpd's records; check host and port")
            if left < 0:
                raise KelpError("the server's reply is damaged: a record has a negative length")
            if left == 0:
                if self._source.readinto(memoryview(bytearray(1))):
                    raise KelpError("the server's reply goes on after its end mark")
                return
            if left > self._limit:
                raise self._too_large(left)
            pages, self._raw = [], 0
            while left and len(pages) < self._npage:
                page, size = self._page(left)
                pages.append(page)
                left -= size
            if left or len(pages) < self._npage:
                raise KelpError("the server's reply has %s columns than were asked for" % ("more" if left else "fewer"))
            if any(page.nrow != pages[0].nrow for page in pages):
                raise KelpError("the server's reply is damaged: columns of one row group differ in length")
            yield pages

    def _too_large(self, size):
        return KelpError("the server's reply has a row group of %d bytes, above the limit of %d; connect with a larger "
                         "max_record if the table really has such rows" % (size, self._limit))

    def _page(self, left):
        if left < _PAGE.size:
            raise KelpError("the server's reply is damaged: a record has no room for its page")
        page = Page()
        (magic, page.cno, page.typ, page.nrow, page.nnull, page.nmapoff, page.nbyte, page.zbyte, page.hash,
         _) = _PAGE.unpack(self._exactly(_PAGE.size))
        if magic != PAGE_MAGIC:
            raise KelpError("the server's reply is damaged: a page lacks its magic number")
        if not 0 <= page.zbyte <= left - _PAGE.size or page.nrow < 0:
            raise KelpError("the server's reply is damaged: a page is longer than its record")
        self._raw += max(page.nbyte, 0)
        if page.typ & 0xffff in (types.BYTEA, types.CSTR):
            self._raw += 4 * (page.nrow + 1)
        if self._raw > self._limit:
            raise self._too_large(self._raw)
        page.body = self._exactly(page.zbyte)
        return page, _PAGE.size + page.zbyte


def read_counts(source):
    """Yields the row counts of a count reply, one a segment."""
    for pages in RecordReader(source, 1):
        if pages[0].cno != -1:
            raise KelpError("the server's reply is no row count")
        yield pages[0].nrow


def read_meta(source):
    """Returns (rows, row groups) of a meta reply."""
    records = []
    for pages in RecordReader(source, 2):
        records.append(pages)
        if len(records) > 1:
            break
    if len(records) != 1 or records[0][0].nrow != 1:
        raise KelpError("the server's reply to 'meta' has another form")
    int64 = types.by_name("int64")
    for page in records[0]:
        if page.typ != int64.code:
            raise KelpError("the server's reply to 'meta' has another form")
    # These two pages are made up by the server and carry no hash.
    totals = tuple(int(page.column(name, int64, hashed=False).values[0])
                   for name, page in zip(("nrow", "nrowgroup"), records[0]))
    for total in totals:
        if total < 0:  # the server's sum exceeded 64 bits
            raise KelpError("the server counts %d rows or row groups" % total)
    return totals
