"""junit_totals.py FILE DIRECTORY

Prints "PASSED FAILED SKIPPED" for a JUnit file that ctest wrote. A test of it that left a file of its own, NAME.xml in
DIRECTORY, counts with the tests in there; one that failed counts as one failure at least. No tests at all are one failure.
"""

import sys
import xml.etree.ElementTree
from pathlib import Path


def state_of(case):
    if case.find("failure") is not None or case.find("error") is not None or case.get("status") == "fail":
        return "failed"
    if case.find("skipped") is not None or case.get("status") in ("notrun", "disabled"):
        return "skipped"
    return "passed"


def states(path):
    return [(case.get("name"), state_of(case)) for case in xml.etree.ElementTree.parse(path).iter("testcase")]


def main(path, directory):
    found = []
    for name, state in states(path):
        own_file = Path(directory) / f"{name}.xml"
        inner = [state for _, state in states(own_file)] if own_file.exists() else []
        if not inner or (state == "failed" and "failed" not in inner):
            inner.append(state)
        found += inner
    if not found:
        found = ["failed"]
    print(*(found.count(state) for state in ("passed", "failed", "skipped")))


if __name__ == "__main__":
    main(*sys.argv[1:])
