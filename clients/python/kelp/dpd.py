"""Decimals: the densely packed encoding of decimal64 and decimal128.

From the top of the word: a sign bit, five combination bits (the first digit, and the two high bits of the exponent, or
a mark for infinity and NaN), the rest of the biased exponent (8 or 12 bits), then 5 or 11 declets, each three digits in
ten bits. Words are little-endian; a decimal128 is its low word, then its high word.
"""

import decimal
from decimal import Decimal

import numpy as np

from .errors import KelpError

BIAS64, BIAS128 = 398, 6176
DIGITS64, DIGITS128 = 16, 34
EXPONENTS64, EXPONENTS128 = (-398, 369), (-6176, 6111)
ZERO64 = 0x2238000000000000
ZERO128 = 0x2208000000000000_0000000000000000

# Wide enough for any decimal128, so that nothing is ever rounded; no traps.
_CONTEXT = decimal.Context(prec=80, Emax=99999, Emin=-99999, traps=[])


def _declet(bits):
    p, q, r, s, t, u, v, w, x, y = ((bits >> k) & 1 for k in range(9, -1, -1))
    small = (4 * p + 2 * q + r, 4 * s + 2 * t + u, 4 * w + 2 * x + y)
    if not v:
        digits = small
    elif not w:
        digits = (small[0], 8 + u, 4 * s + 2 * t + y) if x else (small[0], small[1], 8 + y)
    elif not x:
        digits = (8 + r, small[1], 4 * p + 2 * q + y)
    else:
        digits = {(0, 0): (8 + r, 8 + u, 4 * p + 2 * q + y), (0, 1): (8 + r, 4 * p + 2 * q + u, 8 + y),
                  (1, 0): (small[0], 8 + u, 8 + y), (1, 1): (8 + r, 8 + u, 8 + y)}[s, t]
    return digits[0] * 100 + digits[1] * 10 + digits[2]


DECODE = np.array([_declet(bits) for bits in range(1024)], np.int64)
ENCODE = np.zeros(1000, np.uint64)
# Twenty-four declets are second spellings; going downwards leaves the smallest, which is the canonical one.
for _bits in range(1023, -1, -1):
    ENCODE[DECODE[_bits]] = _bits


def _u64(number):
    return np.uint64(number)


def _head(word, exponent_bits):
    """Splits the top of the words: sign, first digit, biased exponent, special mark."""
    sign = (word >> _u64(63)).astype(bool)
    combination = ((word >> _u64(58)) & _u64(31)).astype(np.int64)
    rest = ((word >> _u64(58 - exponent_bits)) & _u64((1 << exponent_bits) - 1)).astype(np.int64)
    large = combination >= 24
    first = np.where(large, 8 + (combination & 1), combination & 7)
    high = np.where(large, (combination >> 1) & 3, combination >> 3)
    return sign, first, (high << exponent_bits) | rest, combination >= 30


def split64(words):
    """Splits decimal64 words into (sign, coefficient, exponent, special) arrays; `special` marks infinity and NaN."""
    sign, coefficient, biased, special = _head(words, 8)
    for shift in (40, 30, 20, 10, 0):
        coefficient = coefficient * 1000 + DECODE[((words >> _u64(shift)) & _u64(1023)).astype(np.int64)]
    return sign, coefficient, biased - BIAS64, special


def _split128(words):
    low, high = words[:, 0], words[:, 1]
    sign, top, biased, special = _head(high, 12)

    def declet(bit):
        if bit >= 64:
            part = high >> _u64(bit - 64)
        elif bit == 60:  # the one declet that lies across both words
            part = (low >> _u64(60)) | (high << _u64(4))
        else:
            part = low >> _u64(bit)
        return DECODE[(part & _u64(1023)).astype(np.int64)]

    for bit in (100, 90, 80, 70, 60):
        top = top * 1000 + declet(bit)
    bottom = np.zeros(len(words), np.int64)
    for bit in (50, 40, 30, 20, 10, 0):
        bottom = bottom * 1000 + declet(bit)
    return sign, top, bottom, biased - BIAS128, special


def _special(sign, head, payload):
    combination = (head >> 58) & 31
    if combination == 30:
        return Decimal("-Infinity" if sign else "Infinity")
    kind = "sNaN" if (head >> 57) & 1 else "NaN"
    return Decimal(("-" if sign else "") + kind + (str(payload) if payload else ""))


def _assemble(sign, coefficients, exponent):
    """Makes Decimals that keep their exponents (1.50 stays 1.50) and the sign of a zero."""
    out = np.empty(len(coefficients), object)
    if len(set(exponent.tolist())) == 1:
        shift = Decimal(int(exponent[0]))
        context = _CONTEXT
        out[:] = [Decimal(c).scaleb(shift, context) for c in coefficients]
    else:
        context = _CONTEXT
        out[:] = [Decimal(c).scaleb(e, context) for c, e in zip(coefficients, exponent.tolist())]
    for i in np.flatnonzero(sign):
        out[i] = out[i].copy_negate()
    return out


def decode64(words):
    """Returns the Decimals of an array of decimal64 words."""
    if len(words) == 0:
        return np.empty(0, object)
    sign, coefficient, exponent, special = split64(words)
    out = _assemble(sign, coefficient.tolist(), exponent)
    for i in np.flatnonzero(special):
        out[i] = _special(sign[i], int(words[i]), int(coefficient[i] % 10**15))
    return out


def decode128(words):
    """Returns the Decimals of an array of decimal128 words, each a row (low, high)."""
    if len(words) == 0:
        return np.empty(0, object)
    sign, top, bottom, exponent, special = _split128(words)
    if top.any():
        coefficients = [t * 10**18 + b for t, b in zip(top.tolist(), bottom.tolist())]
    else:
        coefficients = bottom.tolist()
    out = _assemble(sign, coefficients, exponent)
    for i in np.flatnonzero(special):
        out[i] = _special(sign[i], int(words[i, 1]), int(top[i] % 10**15) * 10**18 + int(bottom[i]))
    return out


def _encode(value, digits, exponents, bias, exponent_bits):
    """Encodes one Decimal as one integer; the slow way, for values of every kind."""
    name = "decimal%d" % (64 if digits == DIGITS64 else 128)
    sign, figures, exponent = value.as_tuple()
    continuation = 10 * ((digits - 1) // 3)  # bits of the declets
    if exponent == "F":
        head, coefficient, rest = 30, 0, 0
    elif exponent in ("n", "N"):
        head, coefficient = 31, int("".join(map(str, figures)) or "0")
        rest = (1 << (exponent_bits - 1)) if exponent == "N" else 0
        if coefficient >= 10 ** (digits - 1):
            raise KelpError("the payload of %s has too many digits for %s" % (value, name))
    else:
        coefficient = int("".join(map(str, figures)))
        if coefficient >= 10**digits:
            raise KelpError("%s has more than the %d digits of %s" % (value, digits, name))
        if not exponents[0] <= exponent <= exponents[1]:
            raise KelpError("the exponent of %s is out of range for %s" % (value, name))
        biased = exponent + bias
        first = coefficient // 10 ** (digits - 1)
        coefficient %= 10 ** (digits - 1)
        high, rest = biased >> exponent_bits, biased & ((1 << exponent_bits) - 1)
        head = (high << 3 | first) if first < 8 else (24 | high << 1 | (first & 1))
    word = ((sign << 5 | head) << exponent_bits | rest) << continuation
    for shift in range(0, continuation, 10):
        coefficient, three = divmod(coefficient, 1000)
        word |= int(ENCODE[three]) << shift
    return word


def encode_one64(value):
    return _encode(value, DIGITS64, EXPONENTS64, BIAS64, 8)


def encode_one128(value):
    return _encode(value, DIGITS128, EXPONENTS128, BIAS128, 12)


def encode64(values):
    """Encodes a list of Decimals (None for NULL) as decimal64 words."""
    out = np.full(len(values), ZERO64, np.uint64)
    plain, coefficients, exponents, signs = [], [], [], []
    for i, value in enumerate(values):
        if value is None:
            continue
        exponent = value.as_tuple().exponent if value.is_finite() else None
        if exponent is None or value.adjusted() - exponent >= DIGITS64 or not \
                EXPONENTS64[0] <= exponent <= EXPONENTS64[1]:
            out[i] = encode_one64(value)  # raises for what does not fit
            continue
        plain.append(i)
        coefficients.append(int(value.scaleb(-exponent, _CONTEXT)))
        exponents.append(exponent)
        signs.append(value.is_signed())
    if plain:
        coefficient = np.abs(np.array(coefficients, np.int64))
        biased = np.array(exponents, np.int64) + BIAS64
        first = coefficient // 10**15
        high = biased >> 8
        head = np.where(first < 8, high << 3 | first, 24 | high << 1 | (first & 1))
        word = (np.array(signs, np.int64) << 5 | head).astype(np.uint64) << _u64(58)
        word |= (biased & 255).astype(np.uint64) << _u64(50)
        for shift in (0, 10, 20, 30, 40):
            coefficient, three = np.divmod(coefficient, 1000)
            word |= ENCODE[three] << _u64(shift)
        out[plain] = word
    return out


def encode128(values):
    """Encodes a list of Decimals (None for NULL) as decimal128 words, each a row (low, high)."""
    blob = b"".join((ZERO128 if value is None else encode_one128(value)).to_bytes(16, "little") for value in values)
    return np.frombuffer(blob, "<u8").reshape(-1, 2)
