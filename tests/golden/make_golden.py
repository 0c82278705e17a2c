#!/usr/bin/env python3
"""Makes the golden files, each with a map of its bytes, from the tests' own encoder and nothing else.

    make_golden.py          writes the files beside this script
    make_golden.py --check  compares them with what it would write; exit status 1 when one differs

LZ4 blocks and XXH32 hashes come from the system's liblz4 and libxxhash.
"""
import os
import sys
from decimal import Decimal

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "support"))

import cvnfile  # noqa: E402
from cvnfile import CSTR, INT16, INT32, INT64, NAMES, Column  # noqa: E402


def make():
    files = {}

    def add(name, columns, groups, intro):
        made = cvnfile.build_listed(columns, groups)[1]
        files[name] = bytes(made.data)
        text = "%s: %s\n\noffset  size  what, and its bytes\n%s\n" % (name, intro, made.listing())
        files[name + ".txt"] = text.encode()

    add("empty.cvn", [Column(b"id", INT64), Column(b"name", CSTR, 1, 1)], [],
        "two columns and no rows.")

    # Two values for each type; a NULL comes between them.
    values = [(1, 0), (-32768, 32767), (-2 ** 31, 2 ** 31 - 1), (2 ** 63 - 1, -2 ** 63), ((1 << 64) + 2, -2),
              (1.5, -0.25), (-2.5, 1e300), (b"\x00\x01\xfe\xff", b""), ("caf\u00e9".encode(), b""),
              (Decimal("12.34"), Decimal("-9999999999999999E+369")),
              (Decimal("-0.000001"), Decimal("1234567890123456789012345678901234")),
              (20778, -1), (86399999, 0), (1795219200000, -1)]
    add("types.cvn", [Column(name.encode(), typ) for typ, name in NAMES.items()], [[[a, None, b] for a, b in values]],
        "one column of each of the 14 types; three rows, the second all NULL.")

    zeros, ramp = [0] * 2048, list(range(2048))
    add("compressed.cvn",
        [Column(b"plain", INT32), Column(b"eager", INT32, 1), Column(b"ramp", INT16, 1)], [[zeros, zeros, ramp]],
        "2048 zeros with and without the z flag, both compressed, and a ramp that compresses too little.")

    add("text50.cvn", [Column(b"t", CSTR)], [[[b"b" * 49 + b"c", b"a" * 50, None, b"z" * 40, b"z" * 39]]],
        "texts of 50 bytes, whose bounds keep 40 without a NUL.")

    columns = [Column(b"n", INT32), Column(b"t", CSTR, 0, 1)]
    groups = [[[1, 2, 3], [b"a", b"b", b"c"]], [[None, None], [b"d", None]], [[10], [b"e"]], [[-4], [b""]]]
    add("groups.cvn", columns, groups, "four small row groups of two columns, the second without bounds.")

    bodies, made = cvnfile.build_split(columns, groups)
    for number, body in enumerate(bodies):
        files["groups.split/%d.cvnx" % number] = body
    files["groups.split/meta.cvnx"] = bytes(made.data)
    files["groups.split.txt"] = (
        "groups.split: groups.cvn as a directory.\n\n"
        "0.cvnx: the stored chunks of column 0, back to back from offset 0\n"
        "%s\n1.cvnx: those of column 1\n%s\n\nmeta.cvnx:\noffset  size  what, and its bytes\n%s\n"
        % (bodies[0].hex(" "), bodies[1].hex(" "), made.listing())).encode()
    return files


def main():
    check = sys.argv[1:] == ["--check"]
    if sys.argv[1:] and not check:
        sys.exit(__doc__)
    bad = 0
    files = make()
    for name, data in sorted(files.items()):
        path = os.path.join(HERE, name)
        if not check:
            os.makedirs(os.path.dirname(path), exist_ok=True)
            with open(path, "wb") as f:
                f.write(data)
            continue
        with open(path, "rb") as f:
            if f.read() != data:
                print("%s differs from what the rules give" % name)
                bad = 1
    stored = {os.path.relpath(os.path.join(d, f), HERE) for d, _, fs in os.walk(HERE) for f in fs}
    for extra in sorted(stored - set(files) - {os.path.basename(__file__)}):
        if "__pycache__" not in extra:
            print("%s is not made by the script" % extra)
            bad = 1
    sys.exit(bad)


if __name__ == "__main__":
    main()
