"""Conditions: reading them, deciding them exactly row by row, and telling the server what it may skip.

All conditions of a list must hold. A NULL satisfies only "is null"; a NaN satisfies only "!=".

The server never looks at rows. It compares a condition with the smallest and largest value that a row group's
statistics name and leaves the group out when no row can match. What it is told here must therefore hold whatever the
statistics look like:

  float, double, dec64, dec128
           a group that begins with a NaN names NaN as both bounds, which says nothing about its other rows, yet the
           server would skip it; so would it skip a file whose later groups begin with NaN. Their comparisons stay
           with the client, unless the caller vouches (prune="all") that no value is NaN.
  bytea    has no bounds; nothing is gained by sending.
  in       the server's own reduction of a list to a range goes wrong for int16 and the decimals; the range is
           computed here and sent as >= and <=.
  text     of more than 39 bytes is compared by its first 39, which can only keep too much. A quote or a backslash
           cannot be sent, since the server takes a string's bytes as they stand between its quotes.
  int16 to int64
           a number beyond the column's range would be refused or wrapped around by the server; such a condition is
           always or never true and is settled here.
"""

import math
import re
from fractions import Fraction

import numpy as np

from . import dpd, types
from .errors import KelpError

OPERATORS = ("==", "!=", ">", ">=", "<", "<=", "isnull", "isnotnull", "in")
_ALIASES = {"=": "==", "<>": "!=", "is null": "isnull", "is not null": "isnotnull"}

_TOKEN = re.compile(r"""\s*(?:
    "(?P<double>(?:[^"]|"")*)" | '(?P<single>(?:[^']|'')*)' |
    (?P<op>==|!=|<>|>=|<=|=|>|<) | (?P<mark>[(),]) | (?P<word>[^\s,()=<>!"']+))""", re.VERBOSE)
_USAGE = "write for example: qty > 10 and note is null and state in ('open', 'held')"


class _Word(str):
    """A bare word of a condition text, which may be a keyword."""


def _tokens(text):
    out, at, text = [], 0, text.rstrip()
    while at < len(text):
        found = _TOKEN.match(text, at)
        if not found:
            raise KelpError("cannot read the condition at %r; %s" % (text[at:].strip()[:40], _USAGE))
        at = found.end()
        kind = found.lastgroup
        value = found.group(kind)
        if kind in ("single", "double"):  # inside quotes the quote itself is doubled
            quote = "'" if kind == "single" else '"'
            value = value.replace(2 * quote, quote)
        out.append((kind, _Word(value) if kind == "word" else value))
    return out


def _parse_text(text):
    tokens, at, out = _tokens(text), 0, []

    def fail():
        near = repr(" ".join(value for _, value in tokens[at:at + 4])) if at < len(tokens) else "its end"
        raise KelpError("cannot read the condition near %s; %s" % (near, _USAGE))

    def keyword(word):
        nonlocal at
        if at < len(tokens) and tokens[at][0] == "word" and tokens[at][1].lower() == word:
            at += 1
            return True
        return False

    def operand(kinds):
        nonlocal at
        if at >= len(tokens) or tokens[at][0] not in kinds:
            fail()
        at += 1
        return str(tokens[at - 1][1])

    while True:
        column = operand(("double", "word"))
        if keyword("is"):
            op = "isnotnull" if keyword("not") else "isnull"
            if not keyword("null"):
                fail()
            out.append((column, op))
        elif keyword("isnull"):
            out.append((column, "isnull"))
        elif keyword("isnotnull"):
            out.append((column, "isnotnull"))
        elif keyword("in"):
            if operand(("mark",)) != "(":
                fail()
            values = []
            if at < len(tokens) and tokens[at] == ("mark", ")"):
                at += 1
            else:
                while True:
                    values.append(operand(("double", "single", "word")))
                    mark = operand(("mark",))
                    if mark == ")":
                        break
                    if mark != ",":
                        fail()
            out.append((column, "in", values))
        else:
            op = operand(("op",))
            out.append((column, _ALIASES.get(op, op), operand(("double", "single", "word"))))
        if at == len(tokens):
            return out
        if not keyword("and"):
            fail()


def parse_where(where):
    """Returns a list of (column, operator, argument values) from None, a text, one tuple or a list of tuples."""
    if where is None:
        return []
    if isinstance(where, str):
        where = _parse_text(where) if where.strip() else []
    elif isinstance(where, tuple) and len(where) in (2, 3) and isinstance(where[0], str) and \
            isinstance(where[1], str):
        where = [where]
    out = []
    for condition in where:
        if isinstance(condition, str):
            out.extend(parse_where(condition))
            continue
        if not isinstance(condition, (tuple, list)) or len(condition) not in (2, 3) or not all(
                isinstance(part, str) for part in condition[:2]):
            raise KelpError("%r is no condition: give (column, operator[, value])" % (condition,))
        op = " ".join(condition[1].lower().split())
        op = _ALIASES.get(op, op)
        if op not in OPERATORS:
            raise KelpError("%r is no operator; the operators are ==, !=, >, >=, <, <=, is null, is not null, in"
                            % condition[1])
        if op in ("isnull", "isnotnull"):
            if len(condition) == 3:
                raise KelpError("%r takes no value" % condition[1])
            arguments = []
        elif len(condition) == 2:
            raise KelpError("the condition on %s lacks its value" % condition[0])
        elif op == "in":
            if isinstance(condition[2], (str, bytes)) or not hasattr(condition[2], "__iter__"):
                raise KelpError("'in' takes a list of values, as in (%r, 'in', [...])" % condition[0])
            arguments = list(condition[2])
        else:
            arguments = [condition[2]]
        if any(argument is None for argument in arguments):
            raise KelpError("NULL cannot be compared with; use (%r, 'is null')" % condition[0])
        out.append((condition[0], op, arguments))
    return out


def bind(conditions, fields):
    """Gives each parsed condition its column's type; unknown columns and values of the wrong type raise KelpError."""
    by_name = {f.name: f for f in fields}
    out = []
    for name, op, arguments in conditions:
        if name not in by_name:
            raise KelpError("there is no column %s; the columns are %s" % (name, ", ".join(by_name)))
        type_ = by_name[name].type
        try:
            values = [type_.coerce(argument, text=True) for argument in arguments]
        except KelpError as error:
            raise KelpError("condition on %s: %s" % (name, error)) from None
        out.append(Condition(name, type_, op, values))
    return out


class Condition:
    """A condition on a column of known type. `values` are in plain stored form (types.Type.coerce)."""

    __slots__ = ("name", "type", "op", "values", "constant")

    def __init__(self, name, type_, op, values):
        self.name = name
        self.type = type_
        self.op = op
        self.values = values
        self.constant = None  # True or False when the answer is the same for every value that is not NULL
        if type_.is_int and op not in ("isnull", "isnotnull"):
            self._settle(*type_.int_range)
        elif op == "in" and not values:
            self.constant = False

    def _settle(self, low, high):
        if self.op == "in":
            self.values = [v for v in self.values if low <= v <= high]
            if not self.values:
                self.constant = False
            return
        value = self.values[0]
        if value > high:
            self.constant = self.op in ("!=", "<", "<=")
        elif value < low:
            self.constant = self.op in ("!=", ">", ">=")

    def match(self, column):
        """Returns an array of bool: the rows that satisfy the condition."""
        null = column.mask
        if self.op == "isnull":
            return np.zeros(len(column), np.bool_) if null is None else null.copy()
        if self.op == "isnotnull":
            found = np.ones(len(column), np.bool_)
        elif self.constant is not None:
            found = np.full(len(column), self.constant, np.bool_)
        elif self.op == "in":
            found = _match_any(self.type, column.store, self.values)
        else:
            found = _match(self.type, column.store, self.op, self.values[0])
        return found if null is None else found & ~null

    def push(self, prune="safe"):
        """Returns the conditions to send in this one's stead, each [column, operator, argument or list]."""
        if prune == "none" or not sendable(self.name):
            return []
        if self.op in ("isnull", "isnotnull"):
            return [[self.name, self.op]]
        if self.constant is not None:
            return [[self.name, "isnotnull"]] if self.constant else [[self.name, "in", []]]
        if self.type.storage == types.BYTEA or (prune != "all" and (self.type.is_float or self.type.is_decimal)):
            return []
        values = self.values
        if self.op == "in":
            values = [v for v in values if v == v]  # no NaN, which equals nothing
            if not values:
                return [[self.name, "in", []]]
            pairs = [(">=", min(values)), ("<=", max(values))]
        else:
            pairs = [(self.op, values[0])]
        texts = [(op, _argument(self.type, value)) for op, value in pairs]
        return [[self.name, op, text] for op, text in texts if text is not None]


def sendable(text):
    """Whether a string reaches the server unchanged inside a JSON string."""
    return not any(c in text for c in '"\\\0')


def _argument(type_, value):
    """Returns the text that the server turns into exactly this value, or None."""
    if type_.storage == types.CSTR:
        text = value.decode("utf-8", "surrogateescape")
        return text if sendable(text) else None
    if type_.storage == types.INT128:
        return "0x%032x" % (value & ((1 << 128) - 1))
    if type_.is_float:
        return None if math.isnan(value) else repr(value)
    if type_.is_decimal:
        digits, least = (dpd.DIGITS64, -383) if type_.storage == types.DEC64 else (dpd.DIGITS128, -6143)
        most = (dpd.EXPONENTS64 if type_.storage == types.DEC64 else dpd.EXPONENTS128)[1]
        if not value.is_finite():
            return None
        fits = len(value.as_tuple().digits) <= digits and value.adjusted() >= least and \
            value.as_tuple().exponent <= most
        return str(value) if fits else None
    return str(int(value))


def _compare(op, low, equal):
    """Combines "below the value" and "equal to it" (for whole orders) into the operator's answer."""
    return {"==": lambda: equal, "!=": lambda: ~equal, "<": lambda: low, "<=": lambda: low | equal,
            ">": lambda: ~(low | equal), ">=": lambda: ~low}[op]()


def _numeric(array, op, value):
    with np.errstate(invalid="ignore"):
        return {"==": np.equal, "!=": np.not_equal, "<": np.less, "<=": np.less_equal, ">": np.greater,
                ">=": np.greater_equal}[op](array, value)


_PYTHON = {"==": lambda a, b: a == b, "!=": lambda a, b: a != b, "<": lambda a, b: a < b, "<=": lambda a, b: a <= b,
           ">": lambda a, b: a > b, ">=": lambda a, b: a >= b}


def _match(type_, store, op, value):
    if type_.storage == types.BOOL:
        return _numeric((store != 0).view(np.uint8), op, value)
    if type_.storage == types.FLOAT:
        return _numeric(store, op, np.float32(value))
    if type_.storage == types.INT128:
        low, high = store[:, 0], store[:, 1].view("<i8")
        value_high, value_low = value >> 64, np.uint64(value & ((1 << 64) - 1))
        same = high == value_high
        return _compare(op, (high < value_high) | (same & (low < value_low)), same & (low == value_low))
    if type_.storage == types.DEC64:
        return _match_dec64(store, op, value)
    if type_.storage == types.DEC128:
        return _match_decimals(dpd.decode128(store), op, value)
    if type_.is_fixed:
        return _numeric(store, op, value)
    test = _PYTHON[op]
    return np.fromiter((test(item, value) for item in store), np.bool_, len(store))


def _match_decimals(decimals, op, value):
    if value.is_nan():
        return np.full(len(decimals), op == "!=", np.bool_)
    test = _PYTHON[op]
    return np.fromiter(((op == "!=") if d.is_nan() else test(d, value) for d in decimals), np.bool_, len(decimals))


def _match_dec64(store, op, value):
    if not value.is_finite():
        return _match_decimals(dpd.decode64(store), op, value)
    sign, coefficient, exponent, special = dpd.split64(store)
    coefficient = np.where(sign, -coefficient, coefficient)
    out = np.empty(len(store), np.bool_)
    wanted = Fraction(value)
    # With one exponent at a time, decimals compare as integers.
    for e in np.unique(exponent[~special]).tolist():
        rows = np.flatnonzero((exponent == e) & ~special)
        limit = wanted / Fraction(10) ** e
        floor = min(max(math.floor(limit), -10**17), 10**17)
        part = coefficient[rows]
        below = (part < floor) if floor == limit else (part <= floor)
        equal = (part == floor) if floor == limit else np.zeros(len(part), np.bool_)
        out[rows] = _compare(op, below, equal)
    rows = np.flatnonzero(special)
    out[rows] = _match_decimals(dpd.decode64(store[rows]), op, value)
    return out


def _match_any(type_, store, values):
    if type_.storage in (types.CSTR, types.BYTEA):
        wanted = set(values)
        return np.fromiter((item in wanted for item in store), np.bool_, len(store))
    if type_.storage in (types.INT16, types.INT32, types.INT64):
        return np.isin(store, np.array(values, np.int64))
    found = np.zeros(len(store), np.bool_)
    for value in values:
        found |= _match(type_, store, "==", value)
    return found


def apply(conditions, columns, num_rows):
    """Returns the rows of a batch that satisfy all conditions, or None when all do."""
    keep = None
    for condition in conditions:
        found = condition.match(columns[condition.name])
        keep = found if keep is None else keep & found
        if not keep.any():
            break
    return None if keep is None or keep.all() else keep
