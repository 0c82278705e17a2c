#!/usr/bin/env python3
"""Reports which lines of the files that parse bytes from outside no test reaches.

  report.py LINES.lcov UNREACHED.txt

The second file explains lines: one that begins with '#' is a reason, and holds for those after it until the next one;
the others are a file, a colon and the text of a line, so that an explanation stays when lines move. The status is 1 when
a line is neither reached nor explained, when an explained one is gone, or when fewer than 95% are reached.
"""
import collections
import os
import sys

# What reads requests, files, pages, replies, conditions, values and CSV.
PARSERS = (
    "http/htreq.cpp", "http/htreply.cpp", "http/hturl.cpp",
    "store/util.cpp", "store/dir.cpp",
    "handlers/do_get.cpp", "handlers/do_put.cpp", "handlers/do_delete.cpp", "handlers/do_post.cpp",
    "handlers/do_scan.cpp", "handlers/do_command.cpp",
    "server/conf.cpp",
    "colvane/cvn_file.cpp", "colvane/cvn_scan.cpp", "colvane/cvn_lens.cpp", "colvane/cvn_stat.cpp",
    "colvane/cvn_prove.cpp", "colvane/cvn_split.cpp", "colvane/cvn_lz4.cpp", "colvane/cvn_coldef.cpp",
    "colvane/cvn_type.cpp", "colvane/dec.cpp",
    "rows/value.cpp", "rows/cond.cpp", "rows/page.cpp", "rows/file.cpp",
    "clients/cpp/url.cpp", "clients/cpp/http.cpp", "clients/cpp/stream.cpp", "clients/cpp/catalog.cpp",
    "clients/cpp/query.cpp", "clients/cpp/scan.cpp", "clients/cpp/arrow.cpp", "clients/cpp/arrow_convert.cpp",
    "sampler/sample.cpp", "sampler/choose.cpp",
    "tools/csv.cpp", "tools/schema.cpp", "tools/verify.cpp", "tools/verify_footer.cpp", "tools/verify_values.cpp",
    "tools/verify_page.cpp",
)
LEAST = 0.95


def read_lcov(path):
    """Maps each file, relative to the project, to its lines and how often each was reached."""
    lines = collections.defaultdict(dict)
    name = None
    with open(path, encoding="utf-8") as f:
        for text in f:
            if text.startswith("SF:"):
                name = os.path.relpath(text[3:].rstrip("\n"))
            elif text.startswith("DA:"):
                number, count = text[3:].split(",")[:2]
                old = lines[name].get(int(number), 0)
                lines[name][int(number)] = max(old, int(count))
    return lines


def read_explained(path):
    """The lines that are explained, as pairs of file and text."""
    explained, reason = {}, None
    with open(path, encoding="utf-8") as f:
        for number, text in enumerate(f, 1):
            text = text.strip()
            if text.startswith("#"):
                reason = text[1:].strip()
            elif text:
                name, colon, code = text.partition(": ")
                if not colon or not reason:
                    sys.exit("%s:%d: neither a reason nor a line" % (path, number))
                explained[name, code] = reason
    return explained


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    lines = read_lcov(sys.argv[1])
    explained = read_explained(sys.argv[2])
    bad, nall, nreached = 0, 0, 0
    for name in PARSERS:
        if name not in lines:
            print("%s: nothing was counted" % name)
            bad += 1
            continue
        with open(name, encoding="utf-8") as f:
            text = f.read().split("\n")
        missing = [n for n, count in sorted(lines[name].items()) if count == 0]
        nall += len(lines[name])
        nreached += len(lines[name]) - len(missing)
        print("%-32s %5d lines, %5.1f%% reached, %d not" % (
            name, len(lines[name]), 100 - 100 * len(missing) / max(1, len(lines[name])), len(missing)))
        for n in missing:
            code = text[n - 1].strip()
            if code.strip("{};() ") and (name, code) not in explained:
                print("%s:%d: not reached, and not explained: %s" % (name, n, code))
                bad += 1
        there = {line.strip() for line in text}
        for other, code in explained:
            if other == name and code not in there:
                print("%s: a line that is explained is gone: %s" % (name, code))
                bad += 1
    share = nreached / max(1, nall)
    print("%d of %d lines, %.2f%%" % (nreached, nall, 100 * share))
    sys.exit(1 if bad or share < LEAST else 0)


if __name__ == "__main__":
    main()
