"""Runs unittest cases and reports them as GoogleTest does: on failure in full, and as JSON where asked for."""

import json
import os
import pathlib
import time
import traceback
import unittest


class _Collector(unittest.TestResult):
    """Keeps one record a case; a failed subtest fails its case."""

    def __init__(self):
        super().__init__()
        self.records = {}

    def startTest(self, test):
        super().startTest(test)
        self.records[test.id()] = {"started": time.monotonic(), "failures": [], "skipped": None}

    def stopTest(self, test):
        super().stopTest(test)
        record = self.records[test.id()]
        record["seconds"] = time.monotonic() - record["started"]

    def _fail(self, test, error):
        text = "".join(traceback.format_exception(*error))
        record = self.records.setdefault(test.id(), {"seconds": 0, "failures": [], "skipped": None})
        record["failures"].append(text)
        print(f"FAILED {test.id()}\n{text}", flush=True)

    def addFailure(self, test, error):
        super().addFailure(test, error)
        self._fail(test, error)

    def addError(self, test, error):
        super().addError(test, error)
        self._fail(test, error)

    def addSubTest(self, test, subtest, error):
        super().addSubTest(test, subtest, error)
        if error is not None:
            print(subtest)
            self._fail(test, error)

    def addSkip(self, test, reason):
        super().addSkip(test, reason)
        self.records[test.id()]["skipped"] = reason
        print(f"SKIPPED {test.id()}: {reason}", flush=True)

    def addUnexpectedSuccess(self, test):
        super().addUnexpectedSuccess(test)
        self.records[test.id()]["failures"].append("passed against expectation")


def run(name, suite):
    """Runs the suite and returns the exit status: 0 when at least one case was run and none failed."""
    collector = _Collector()
    suite.run(collector)
    records = collector.records
    failed = sum(bool(record["failures"]) for record in records.values())
    skipped = sum(record["skipped"] is not None for record in records.values())
    print(f"{name}: {len(records) - failed - skipped} passed, {failed} failed, {skipped} skipped")
    _write_json(name, records)
    if not records:
        print(f"{name}: no such case")
    return 0 if records and not failed else 1


def _write_json(name, records):
    output = os.environ.get("GTEST_OUTPUT", "")
    if not output.startswith("json:"):
        return
    folder = pathlib.Path(output.removeprefix("json:"))
    folder.mkdir(parents=True, exist_ok=True)
    cases = [_as_googletest(case, record) for case, record in records.items()]
    document = {"tests": len(cases), "name": name, "testsuites": [{"name": name, "testsuite": cases}]}
    (folder / f"{name}.json").write_text(json.dumps(document, indent=1))


def _as_googletest(case, record):
    shown = {"name": case, "status": "RUN", "time": f"{record['seconds']:.3f}s",
             "result": "COMPLETED" if record["skipped"] is None else "SKIPPED"}
    if record["failures"]:
        shown["failures"] = [{"failure": text} for text in record["failures"]]
    if record["skipped"] is not None:
        shown["skipped"] = [{"message": record["skipped"]}]
    return shown
