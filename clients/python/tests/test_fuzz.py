"""The package's parsers under random changes of sound inputs.

Whatever comes in, nothing but KelpError leaves them; a data file that the tests' own reader proves is read, with the
same values; what a condition keeps is a part of the rows, and keeps all of itself when it is applied again.

    test_fuzz.py                        a short run, the same every time
    test_fuzz.py --seed S --runs N      N inputs from the seed S; a failure names the input that it needs
    test_fuzz.py --guided DIR [...]     with atheris, if this Python has it: coverage decides what is kept in DIR;
                                        what follows is libFuzzer's
"""

import argparse
import os
import random
import socket
import struct
import sys
import unittest
from unittest import mock

from support import HERE, cvnfile, kelp
from cvnfile import Layout, sealed
from kelp import KelpError
from kelp.files import DataFile
from kelp.types import parse_schema
from kelp.where import parse_where
from replies import LAST_CHUNK, chunk

GOLDEN = os.path.join(HERE, "..", "..", "..", "tests", "golden")
RUNS = int(os.environ.get("KELP_FUZZ_RUNS", "6000"))
EDGES = (0, 1, -1, 2, 8, 40, 255, 4096, 65536, 1 << 20, (1 << 31) - 1, -(1 << 31), (1 << 63) - 1, -(1 << 63))


def golden(name):
    with open(os.path.join(GOLDEN, name), "rb") as file:
        return file.read()


FILES = [golden(name + ".cvn") for name in ("empty", "types", "compressed", "text50", "groups")]
WHERES = [b"n > 1", b"n is null and t == 'b'", b"n in (1, 2)", b"int32 != 3 and cstr >= 'x'",
          b"bool = true", b"date < 2030-01-01 and timestamp_millis is not null", b"dec64 <= 12.5",
          b"dec128 in ('1', '2e3')", b"float = nan",
          b"bytea is null", b"time_millis >= '12:00'", b"\"int64\" <> '-5'", b""]
URLS = [b"kelp://host:8642/db/s/t", b"http://u:p@h/v1/a%20b", b"https://[::1]:443", b"host:1", b"kelp://h",
        b"http://h/v2"]
SCHEMAS = [b"id int64, name cstr -z", b'"last, first" cstr -z -n, b bool', b"a int32,", b'"open', b""]


def head(length=None):
    line = b"Transfer-Encoding: chunked" if length is None else b"Content-Length: %d" % length
    return b"HTTP/1.1 200 OK\r\n" + line + b"\r\n\r\n"


def catalogue(data):
    file = cvnfile.read(data)
    listed = "[%s]" % file.json("p.cvn")
    columns = ",".join('{"cno": %d, "typ": "%s", "name": "%s"}' % (i, cvnfile.NAMES[c.typ], c.name.decode())
                       for i, c in enumerate(file.columns))
    return [head(len(text)) + text for text in (listed.encode(), ('{"column": [%s], "chksum": 1}' % columns).encode())]


PART = b"\xff|\xff"


def replies(data):
    """All that a server says to a scan of the file, its replies parted by PART."""
    stream = cvnfile.read(data).stream()
    body = b"".join(chunk(stream[at:at + 700]) for at in range(0, len(stream), 700))
    return PART.join(catalogue(data) + [head() + body + LAST_CHUNK])


# What an input is, by its first byte.
ENTRIES = ("file", "reply", "where", "url", "schema", "count")


def seeds():
    for data in FILES:
        yield b"\0" + data
        yield b"\1" + replies(data)
        for where in WHERES:
            yield b"\2" + where + b"\0" + data
    for kind, texts in ((b"\3", URLS), (b"\4", SCHEMAS)):
        for text in texts:
            yield kind + text
    page = cvnfile.page(b"\0", cno=-1, typ=0, nrow=9, nmapoff=0, hash=0)
    body = cvnfile.record(page) + cvnfile.END
    yield b"\5" + head() + chunk(body) + LAST_CHUNK
    yield b"\5" + head(len(body)) + body


def answers(raw):
    """Puts the replies, one a connection, in the place of the network."""
    left = raw.split(PART)

    def connect(*_, **__):
        ours, theirs = socket.socketpair()
        ours.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, 1 << 20)
        with ours:
            ours.settimeout(0)
            try:
                ours.sendall(left.pop(0) if left else b"")
            except BlockingIOError:
                pass  # the rest is cut off, as on a bad line
        theirs.settimeout(5)
        return Plain(theirs)

    return mock.patch("kelp.http._open", connect)


class Plain:
    """A local socket that takes the options of a network's."""

    def __init__(self, real):
        self._real = real

    def setsockopt(self, *_):
        pass

    def __getattr__(self, name):
        return getattr(self._real, name)


def demand(good, promise):
    if not good:
        raise AssertionError(promise)


def read_file(data):
    try:
        whole = cvnfile.read(data)
    except Exception:  # the tests' reader is not what is tested here
        whole = None
    proved = False
    if whole is not None:
        names = {c.name for c in whole.columns}
        nrow = sum(group[0].nrow for group in whole.groups if group)
        proved = len(names) == len(whole.columns) and nrow == whole.nrow and all(
            c.typ in cvnfile.NAMES for c in whole.columns)
    try:
        with DataFile(data) as file:
            table = file.read()
            file.info()
    except KelpError as error:
        demand(str(error), "a refusal without words")
        demand(not proved, "a file is refused that is good: %s" % error)
        return
    if proved:
        demand(len(table) == whole.nrow or not whole.columns, "another number of rows")


def read_replies(raw):
    with answers(raw):
        table = kelp.connect("kelp://h:1").table("d.s.t")
        with table.scan() as scan:
            for batch in scan:
                demand(len(batch) >= 0, "a batch of less than nothing")


def read_count(raw):
    with answers(raw):
        demand(kelp.connect("kelp://h:1").table("d.s.t").count() >= 0, "fewer rows than none")


def read_where(text, data):
    conditions = parse_where(text)
    with DataFile(data) as file:
        every, kept = file.read(), file.read(where=conditions)
        demand(len(kept) <= len(every), "a condition adds rows")
        again = sum(len(batch) for batch in file.batches(where=conditions))
        demand(again == len(kept), "a condition keeps other rows the second time")


def one_input(data):
    """Runs one input. Raises anything but KelpError when a promise is broken."""
    if not data:
        return
    kind, rest = ENTRIES[data[0] % len(ENTRIES)], bytes(data[1:])
    try:
        if kind == "file":
            read_file(rest)
        elif kind == "reply":
            read_replies(rest)
        elif kind == "count":
            read_count(rest)
        elif kind == "where":
            text, _, file = rest.partition(b"\0")
            read_where(text.decode("utf-8", "surrogateescape"), file)
        elif kind == "url":
            kelp.connect(rest.decode("utf-8", "surrogateescape"))
        else:
            for field in parse_schema(rest.decode("utf-8", "surrogateescape")):
                demand(isinstance(field.name, str), "a column without a name")
    except KelpError as error:
        demand(str(error), "a refusal without words")


def mutate_file(rng, data):
    """Changes a number of the footer or some bytes, and mostly puts the footer's hash right."""
    data = bytearray(data)
    try:
        at = Layout(bytes(data))
        if rng.random() < 0.7 and 0 <= at.footer < at.trailer:
            form = rng.choice("iiiq")
            place = rng.randrange(at.footer, at.trailer - 8) // 4 * 4
            old = struct.unpack_from("<" + form, data, place)[0]
            value = rng.choice((rng.choice(EDGES), old + 1, old - 1, old ^ 1 << rng.randrange(31)))
            bits = 8 * struct.calcsize(form)
            value = (value + (1 << bits - 1)) % (1 << bits) - (1 << bits - 1)
            struct.pack_into("<" + form, data, place, value)
        else:
            data = mutate_bytes(rng, data)
        if rng.random() < 0.9:
            data = bytearray(sealed(bytes(data)))
    except (struct.error, ValueError, IndexError):
        data = mutate_bytes(rng, data)
    return bytes(data)


def mutate_bytes(rng, data):
    data = bytearray(data)
    for _ in range(rng.choice((1, 1, 2, 5))):
        at = rng.randrange(len(data) + 1)
        kind = rng.randrange(4)
        if kind == 0:
            data[at:at] = rng.choice((b"\0", b"\xff", b"'", b'"', b"\r\n", b",", b"-", rng.randbytes(3)))
        elif kind == 1:
            del data[at:at + rng.choice((1, 1, 2, 16))]
        elif at < len(data):
            data[at] = data[at] ^ 1 << rng.randrange(8) if kind == 2 else rng.randrange(256)
    return data


def mutate(rng, data):
    kind, rest = data[:1], data[1:]
    entry = ENTRIES[kind[0] % len(ENTRIES)]
    if entry == "file":
        rest = mutate_file(rng, rest)
    elif entry == "where":
        text, _, file = rest.partition(b"\0")
        if rng.random() < 0.7:
            text = bytes(mutate_bytes(rng, text)).replace(b"\0", b"")
        else:
            file = mutate_file(rng, file)
        rest = text + b"\0" + file
    else:
        rest = mutate_bytes(rng, rest)
    return kind + bytes(rest)


def run(seed, runs, stop_at=None):
    """Runs so many inputs. Each is made from a seed of its own, so that a failure can be had again by itself."""
    known = list(seeds())
    for data in known:
        one_input(data)
    for number in range(runs) if stop_at is None else (stop_at,):
        rng = random.Random("%d/%d" % (seed, number))
        data = rng.choice(known)
        for _ in range(rng.choice((1, 1, 1, 2, 3))):
            data = mutate(rng, data)
        try:
            one_input(data)
        except BaseException as error:
            raise AssertionError("seed %d, input %d: %r: %r" % (seed, number, error, data[:2000])) from error


class Fuzz(unittest.TestCase):
    def test_every_seed_is_read_as_it_is(self):
        for data in FILES:
            with DataFile(data) as file:
                self.assertEqual(cvnfile.read(data).nrow, len(file.read()))
            with answers(replies(data)):
                table = kelp.connect("kelp://h:1").table("d.s.t")
                self.assertEqual(cvnfile.read(data).nrow, len(table.scan().read()))

    def test_nothing_but_its_own_error_leaves_the_package(self):
        run(1, RUNS)


def main():
    options = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    options.add_argument("--seed", type=int, default=1)
    options.add_argument("--runs", type=int)
    options.add_argument("--input", type=int, help="this input of the seed alone")
    options.add_argument("--guided", metavar="DIR")
    known, rest = options.parse_known_args()
    if known.guided:
        import atheris  # no part of Debian
        atheris.instrument_all()
        os.makedirs(known.guided, exist_ok=True)
        for number, data in enumerate(seeds()):
            with open(os.path.join(known.guided, "seed-%03d" % number), "wb") as file:
                file.write(data)

        def mutator(data, max_size, seed):
            if data and seed % 4:
                data = mutate(random.Random(seed), bytes(data))[:max_size]
                return data
            return atheris.Mutate(data, max_size)

        atheris.Setup([sys.argv[0], known.guided, *rest], one_input, custom_mutator=mutator)
        atheris.Fuzz()
    elif known.runs is not None or known.input is not None:
        run(known.seed, known.runs or 0, known.input)
        print("stat::number_of_executed_units: %d" % ((known.runs or 1) + len(list(seeds()))))
    else:
        unittest.main()


if __name__ == "__main__":
    main()
