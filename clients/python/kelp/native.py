"""LZ4 and XXH32 out of the system's shared libraries, through ctypes.

ctypes releases the interpreter lock during a call, so pages of several connections are decompressed and hashed at the
same time.
"""

import ctypes
import ctypes.util

import numpy as np

from .errors import KelpError

# A block of LZ4 cannot hold more than 255 bytes per stored byte, whatever it claims.
LZ4_MAX_RATIO = 255


def _load(soname, name, package):
    for candidate in (soname, ctypes.util.find_library(name), "lib%s.so" % name):
        if not candidate:
            continue
        try:
            return ctypes.CDLL(candidate)
        except OSError:
            pass
    raise KelpError("%s was not found: install the package %s" % (soname, package))


class _Library:
    """Loads on first use, so that importing the package needs neither library."""

    def __init__(self):
        self._lz4 = None
        self._xxh = None

    @property
    def lz4(self):
        if self._lz4 is None:
            lib = _load("liblz4.so.1", "lz4", "liblz4-1")
            for function in (lib.LZ4_decompress_safe, lib.LZ4_compress_default):
                function.restype = ctypes.c_int
                function.argtypes = [ctypes.c_void_p, ctypes.c_void_p, ctypes.c_int, ctypes.c_int]
            self._lz4 = lib
        return self._lz4

    @property
    def xxh(self):
        if self._xxh is None:
            lib = _load("libxxhash.so.0", "xxhash", "libxxhash0")
            lib.XXH32.restype = ctypes.c_uint32
            lib.XXH32.argtypes = [ctypes.c_void_p, ctypes.c_size_t, ctypes.c_uint32]
            self._xxh = lib
        return self._xxh


_LIBRARY = _Library()


def as_bytes(buffer):
    """Returns any buffer as an array of bytes that shares its memory."""
    if isinstance(buffer, np.ndarray):
        return np.ascontiguousarray(buffer).reshape(-1).view(np.uint8)
    return np.frombuffer(buffer, np.uint8)


def xxh32(buffer):
    """Returns XXH32 with seed 0, as the unsigned number."""
    data = as_bytes(buffer)
    return _LIBRARY.xxh.XXH32(data.ctypes.data, data.size, 0)


def lz4_compress(data, budget):
    """Compresses into at most `budget` bytes; returns the block, or None when it does not fit."""
    out = np.empty(max(budget, 1), np.uint8)
    size = _LIBRARY.lz4.LZ4_compress_default(data.ctypes.data, out.ctypes.data, data.size, budget)
    return out[:size] if size > 0 else None


def lz4_decompress(data, size):
    """Decompresses one block to exactly `size` bytes; returns None when it does not hold them."""
    # Judged before the memory is taken: a small page cannot make the reader allocate a large one.
    if size > data.size * LZ4_MAX_RATIO:
        return None
    out = np.empty(max(size, 1), np.uint8)
    got = _LIBRARY.lz4.LZ4_decompress_safe(data.ctypes.data, out.ctypes.data, data.size, size)
    return out[:size] if got == size else None
