"""One column chunk: proving its sizes and turning its bytes into values and a mask.

A chunk is its values, then one bit a row, the most significant first, set where the value is NULL. It is stored as it
is, or as one LZ4 block. Whoever sent it may be lying, so every size is checked against the others before it is used.
"""

import numpy as np

from . import types
from .errors import KelpError
from .native import lz4_decompress, xxh32
from .table import Column


MAX_ROWS = 1048576  # of a row group; what a page's null bitmap was made for


def decode_page(where, name, type_, nrow, nnull, nmapoff, nbyte, zbyte, stored_hash, body, hashed=True):
    """Returns the Column of a page, or raises KelpError whose text begins with `where`.

    body     the stored bytes, an array of zbyte bytes; the column's values may share its memory
    hashed   False for the pages that the server makes up itself, which carry no hash
    """
    nbitmap = (nrow + 7) // 8
    if min(nrow, nnull, nmapoff, nbyte, zbyte) < 0 or nmapoff + nbitmap != nbyte or zbyte > nbyte or nnull > nrow:
        raise KelpError("%s: the sizes of a page of column %s contradict each other" % (where, name))
    if nrow > MAX_ROWS:
        raise KelpError("%s: a page of column %s has more rows than a row group can have" % (where, name))
    least = {types.BYTEA: 4, types.CSTR: 1}.get(type_.storage)
    if nmapoff < nrow * least if least else nmapoff != nrow * type_.width:
        raise KelpError("%s: a page of column %s has no room for its rows" % (where, name))
    if len(body) != zbyte:
        raise KelpError("%s: a page of column %s is cut short" % (where, name))
    if hashed and xxh32(body) != stored_hash & 0xffffffff:
        raise KelpError("%s: a page of column %s does not match its hash; the data are damaged" % (where, name))
    raw = body if zbyte == nbyte else lz4_decompress(body, nbyte)
    if raw is None:
        raise KelpError("%s: a page of column %s does not decompress to its size" % (where, name))

    bitmap = raw[nmapoff:]
    mask = None
    if bitmap.any():
        mask = np.unpackbits(bitmap, count=nrow).view(np.bool_)
    if nnull != (0 if mask is None else int(np.count_nonzero(mask))):
        raise KelpError("%s: a page of column %s miscounts its NULLs" % (where, name))
    if nnull == 0:
        mask = None
    if type_.is_fixed:
        return Column(name, type_, store=type_.frombuffer(raw, nrow), mask=mask)
    values = raw[:nmapoff].tobytes()
    if type_.storage == types.CSTR:
        if values.count(0) != nrow or (nrow and values[-1] != 0):
            raise KelpError("%s: a page of column %s holds another number of texts than rows" % (where, name))
        return Column(name, type_, texts=values, length=nrow, mask=mask)
    return Column(name, type_, store=_split_bytea(where, name, values, nrow), mask=mask)


def _split_bytea(where, name, values, nrow):
    out = np.empty(nrow, object)
    end = len(values)
    number = int.from_bytes
    at = 0
    for row in range(nrow):
        start = at + 4
        size = number(values[at:start], "little")
        at = start + size
        if at > end:  # a negative length, read unsigned, ends here too
            raise KelpError("%s: a byte string of column %s leads outside its page" % (where, name))
        out[row] = values[start:at]
    if at != end:
        raise KelpError("%s: a page of column %s holds bytes after its last value" % (where, name))
    return out
