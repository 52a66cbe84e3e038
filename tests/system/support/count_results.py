#!/usr/bin/python3 -B
"""count_results.py FOLDER: counts the cases of a ctest run, from the results that lie in the folder.

ctest.xml says how each test program ended, and NAME.xml, in GoogleTest's form, what became of its
cases; a program that failed without a failed case has crashed and counts as one. Prints failures and
skips by name, and at last one line "N passed, N failed"; ends with 0 when something passed and
nothing failed. The three numbers are left in the file FOLDER/counts.
"""

import pathlib
import sys
import xml.etree.ElementTree


def cases_of(path):
    """(name, "passed", "failed" or "skipped", reason) of each case that a program has reported."""
    if not path.exists():
        return
    for suite in xml.etree.ElementTree.parse(path).getroot().iter("testsuite"):
        for case in suite.iter("testcase"):
            name = f"{suite.get('name')}.{case.get('name')}"
            skip = case.find("skipped")
            if case.find("failure") is not None:
                yield name, "failed", ""
            elif skip is not None:
                yield name, "skipped", " ".join(skip.get("message", "no reason given").split())
            elif case.get("status") == "notrun":
                yield name, "skipped", "disabled"
            else:
                yield name, "passed", ""


def all_cases(folder):
    for program in xml.etree.ElementTree.parse(folder / "ctest.xml").getroot().iter("testcase"):
        name = program.get("name")
        cases = list(cases_of(folder / f"{name.partition('.')[2]}.xml"))
        if program.get("status") == "disabled":
            yield name, "skipped", "disabled"
        elif program.get("status") != "run" and all(outcome != "failed" for _, outcome, _ in cases):
            yield name, "failed", " (the program itself)"
        elif not cases and not (folder / f"{name.partition('.')[2]}.xml").exists():
            yield name, "passed", ""
        yield from cases


def main():
    folder = pathlib.Path(sys.argv[1])
    count = {"passed": 0, "failed": 0, "skipped": 0}
    for name, outcome, reason in all_cases(folder):
        count[outcome] += 1
        if outcome == "failed":
            print(f"failed: {name}{reason}")
        elif outcome == "skipped":
            print(f"skipped: {name}: {reason}")
    (folder / "counts").write_text("{passed} {failed} {skipped}\n".format(**count))
    if not any(count.values()):
        print("no test has such a name")
    print("{passed} passed, {failed} failed".format(**count)
          + (f", {count['skipped']} skipped" if count["skipped"] else ""))
    return 0 if count["passed"] and not count["failed"] else 1


sys.exit(main())
