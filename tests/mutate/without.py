#!/usr/bin/env python3
"""Runs the unittest cases of a script but for some, and stops at the first failure: without.py SCRIPT [NAME...]"""

import importlib
import os
import sys
import unittest


def cases(suite):
    for test in suite:
        if isinstance(test, unittest.TestSuite):
            yield from cases(test)
        else:
            yield test


def main():
    path, spared = os.path.abspath(sys.argv[1]), set(sys.argv[2:])
    sys.path.insert(0, os.path.dirname(path))
    sys.argv[1:] = []
    module = importlib.import_module(os.path.basename(path)[:-3])
    found = list(cases(unittest.defaultTestLoader.loadTestsFromModule(module)))
    kept = unittest.TestSuite(test for test in found if test.id().rpartition(".")[2] not in spared)
    result = unittest.TextTestRunner(failfast=True).run(kept)
    return 0 if found and result.wasSuccessful() else 1


if __name__ == "__main__":
    sys.exit(main())
