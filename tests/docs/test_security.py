#!/usr/bin/env python3
"""docs/security.md names tests: each is there, and no claim is without one."""

import os
import re
import unittest

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
DOCUMENT = os.path.join(ROOT, "docs", "security.md")
REFERENCE = re.compile(r"\[([\w./]+\.(?:py|cpp|cmake)): ([\w.]+)\]")
# The parts of the document whose every entry is a claim that a test can hold.
CLAIMS = ("What he can do, by design", "What he cannot do", "What is bounded")


def read(path):
    with open(path, encoding="utf-8") as file:
        return file.read()


def is_there(path, name):
    """Whether the file has a test of that name: a method, a gtest case given as Suite.Name, or one that ctest runs."""
    full = os.path.join(ROOT, "tests", path)
    if path.startswith("python/"):
        full = os.path.join(ROOT, "clients/python/tests", path.removeprefix("python/"))
    if not os.path.exists(full):
        return False
    if path.endswith(".py"):
        return re.search(rf"^ +def {re.escape(name)}\(self", read(full), re.MULTILINE) is not None
    if path.endswith(".cmake"):
        return re.search(rf"add_test\(NAME {re.escape(name)}\s", read(full)) is not None
    suite, _, case = name.partition(".")
    return re.search(rf"^TEST(_F|_P)?\({re.escape(suite)}, {re.escape(case)}\)", read(full), re.MULTILINE) is not None


def claims(text):
    """The entries of the parts that claim something."""
    for part in re.split(r"^## ", text, flags=re.MULTILINE)[1:]:
        heading, _, body = part.partition("\n")
        if heading not in CLAIMS:
            continue
        yield from re.findall(r"^- .*(?:\n  .*)*", body, re.MULTILINE)


class Security(unittest.TestCase):
    def test_every_test_that_the_document_names_is_there(self):
        named = REFERENCE.findall(read(DOCUMENT))
        self.assertGreater(len(named), 30)
        self.assertEqual([], [reference for reference in named if not is_there(*reference)])

    def test_every_claim_of_the_document_names_a_test(self):
        found = list(claims(read(DOCUMENT)))
        self.assertGreater(len(found), 25)
        self.assertEqual([], [claim for claim in found if not REFERENCE.search(claim)])

    def test_all_parts_that_claim_something_are_looked_at(self):
        text = read(DOCUMENT)
        for heading in CLAIMS:
            self.assertIn(f"\n## {heading}\n", text)

    def test_a_name_that_is_not_there_and_a_claim_without_a_test_are_noticed(self):
        self.assertTrue(is_there("wire/test_get.py", "test_a_missing_level_is_not_found"))
        self.assertFalse(is_there("wire/test_get.py", "test_a_missing_level"))
        self.assertFalse(is_there("wire/test_none.py", "test_a_missing_level_is_not_found"))
        self.assertTrue(is_there("unit/mpool_test.cpp", "Mpool.StartsEmptyWithItsMagic"))
        self.assertFalse(is_there("unit/mpool_test.cpp", "Mpool.StartsEmpty"))
        self.assertTrue(is_there("server.cmake", "layers.no_include_points_up"))
        self.assertFalse(is_there("server.cmake", "layers.no_include"))
        found = list(claims("## What is bounded\n\n- a\n  b\n- c\n\n## Other\n\n- d\n"))
        self.assertEqual(["- a\n  b", "- c"], found)


if __name__ == "__main__":
    unittest.main()
