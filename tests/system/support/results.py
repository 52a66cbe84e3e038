"""Runs unittest cases and reports them as GoogleTest does: on failure in full, and as XML where asked for."""

import os
import pathlib
import sys
import time
import traceback
import unittest
import xml.etree.ElementTree


class _Collector(unittest.TestResult):
    """Keeps one record a case; a failed subtest fails its case."""

    def __init__(self):
        super().__init__()
        self.records = {}

    def startTest(self, test):
        super().startTest(test)
        self._record(test)["started"] = time.monotonic()

    def stopTest(self, test):
        super().stopTest(test)
        record = self._record(test)
        record["seconds"] = time.monotonic() - record["started"]

    def _record(self, test):
        """The case's record; the preparation of a class, which isn't a case, has one too when it fails."""
        return self.records.setdefault(test.id(), {"seconds": 0, "failures": [], "skipped": None})

    def _fail(self, test, error):
        text = "".join(traceback.format_exception(*error))
        self._record(test)["failures"].append(text)
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
        self._record(test)["skipped"] = reason
        print(f"SKIPPED {test.id()}: {reason}", flush=True)

    def addUnexpectedSuccess(self, test):
        super().addUnexpectedSuccess(test)
        self._record(test)["failures"].append("passed against expectation")


def run(name, suite):
    """Runs the suite and returns the exit status: 1 when a case failed, else 0."""
    sys.stdout.reconfigure(errors="backslashreplace")  # whatever bytes a failure shows
    collector = _Collector()
    suite.run(collector)
    records = collector.records
    failed = sum(bool(record["failures"]) for record in records.values())
    skipped = sum(record["skipped"] is not None for record in records.values())
    print(f"{name}: {len(records) - failed - skipped} passed, {failed} failed, {skipped} skipped")
    output = os.environ.get("GTEST_OUTPUT", "")
    if output.startswith("xml:"):
        _write_xml(pathlib.Path(output.removeprefix("xml:")), name, records)
    return 1 if failed else 0


def _write_xml(folder, name, records):
    root = xml.etree.ElementTree.Element("testsuites", tests=str(len(records)), name=name)
    suite = xml.etree.ElementTree.SubElement(root, "testsuite", name=name)
    for case, record in records.items():
        shown = xml.etree.ElementTree.SubElement(
            suite, "testcase", name=case.partition(".")[2], status="run", time=f"{record['seconds']:.3f}",
            result="completed" if record["skipped"] is None else "skipped")
        for text in record["failures"]:
            xml.etree.ElementTree.SubElement(shown, "failure", message=_printable(text))
        if record["skipped"] is not None:
            xml.etree.ElementTree.SubElement(shown, "skipped", message=_printable(record["skipped"]))
    folder.mkdir(parents=True, exist_ok=True)
    xml.etree.ElementTree.ElementTree(root).write(folder / f"{name}.xml", encoding="utf-8",
                                                  xml_declaration=True)


def _printable(text):
    """Without the control characters and lone surrogates that XML can't hold."""
    return "".join(c if c.isprintable() or c == "\n" else ascii(c)[1:-1] for c in text)
