"""How results are written and counted: what the last line of a test run rests on."""

import pathlib
import subprocess

from harness import SystemTest

HERE = pathlib.Path(__file__).resolve().parent
FOLDER = pathlib.Path("/tmp/results")


def count(ctest, **programs):
    """Counts results made of the testcase elements of ctest.xml and of programs' files: the lines and the status."""
    FOLDER.mkdir(exist_ok=True)
    for name, cases in {"ctest": ctest, **programs}.items():
        (FOLDER / f"{name}.xml").write_text(f'<testsuites><testsuite name="Suite">{cases}</testsuite></testsuites>'
                                            if name != "ctest" else f"<testsuite>{cases}</testsuite>")
    result = subprocess.run([HERE / "support/count_results.py", FOLDER], capture_output=True, text=True, check=False)
    return result.stdout.splitlines(), result.returncode


def program(name, status="run"):
    return f'<testcase name="{name}" status="{status}"/>'


OK = '<testcase name="ok" status="run" result="completed"/>'
BAD = '<testcase name="bad" status="run" result="completed"><failure message="x"/></testcase>'
SKIPPED = '<testcase name="later" status="run" result="skipped"><skipped message="file:1&#10;no tool"/></testcase>'
DISABLED = '<testcase name="DISABLED_x" status="notrun" result="suppressed"/>'


class Counting(SystemTest):
    def test_cases_of_all_programs_are_counted(self):
        self.assertEqual(count(program("unit.a") + program("system.b"), a=OK + OK, b=OK),
                         (["3 passed, 0 failed"], 0))
        self.assertEqual((FOLDER / "counts").read_text(), "3 0 0\n")

    def test_a_failed_case_is_named_and_fails(self):
        self.assertEqual(count(program("unit.a", "fail"), a=OK + BAD),
                         (["failed: Suite.bad", "1 passed, 1 failed"], 1))

    def test_a_skip_is_counted_with_its_reason(self):
        self.assertEqual(count(program("unit.a"), a=OK + SKIPPED + DISABLED),
                         (["skipped: Suite.later: file:1 no tool", "skipped: Suite.DISABLED_x: disabled",
                           "1 passed, 0 failed, 2 skipped"], 0))

    def test_a_program_that_crashed_without_results_is_a_failure(self):
        self.assertEqual(count(program("unit.a", "fail") + program("unit.b"), b=OK),
                         (["failed: unit.a (the program itself)", "1 passed, 1 failed"], 1))

    def test_a_program_that_failed_after_its_cases_passed_is_a_failure(self):
        self.assertEqual(count(program("unit.a", "fail"), a=OK),
                         (["failed: unit.a (the program itself)", "1 passed, 1 failed"], 1))

    def test_a_program_that_was_not_found_is_a_failure(self):
        self.assertEqual(count(program("unit.a", "notrun") + program("unit.b"), b=OK)[1], 1)

    def test_a_program_without_cases_is_one_case(self):
        self.assertEqual(count(program("fuzz.a")), (["1 passed, 0 failed"], 0))

    def test_no_case_at_all_is_a_failure(self):
        self.assertEqual(count(""), (["no test has such a name", "0 passed, 0 failed"], 1))


class Writing(SystemTest):
    """The results that run_tests writes, counted again."""

    def run_file(self, body):
        """Runs a file of tests with that body of its class; returns its status and its counted results."""
        tools = pathlib.Path("/tmp/tools")
        (tools / "support").mkdir(parents=True)
        for name in ("run_tests", *(f"support/{name}.py" for name in ("results", "sandbox", "linux", "server"))):
            (tools / name).write_bytes((HERE / name).read_bytes())
        (tools / "run_tests").chmod(0o755)
        (tools / "test_x.py").write_text(f"import unittest, os, sys\nclass X(unittest.TestCase):\n{body}")
        ran = subprocess.run([tools / "run_tests", "test_x.py"], check=False, capture_output=True, text=True,
                             env={"PATH": "/usr/bin:/bin", "QRX_SANDBOX": "1", "GTEST_OUTPUT": f"xml:{FOLDER}/"})
        (FOLDER).mkdir(exist_ok=True)
        return ran, count(program("system.test_x", "run" if ran.returncode == 0 else "fail"))

    def test_passed_failed_erroneous_and_skipped_cases(self):
        ran, counted = self.run_file(
            "  def test_a(self): pass\n"
            "  def test_b(self): self.assertEqual('got\\0', 'wanted\\udcff')\n"
            "  def test_c(self): raise OSError('odd')\n"
            "  def test_d(self): self.skipTest('no tool')\n"
            "  def test_e(self):\n"
            "    for i in range(3):\n"
            "      with self.subTest(i=i): self.assertLess(i, 1)\n")
        self.assertEqual(ran.returncode, 1)
        self.assertIn("'got\\x00' != 'wanted\\udcff'", ran.stdout)
        self.assertEqual(counted, (["failed: test_x.X.test_b", "failed: test_x.X.test_c",
                                    "skipped: test_x.X.test_d: no tool", "failed: test_x.X.test_e",
                                    "1 passed, 3 failed, 1 skipped"], 1))

    def test_a_file_that_cannot_be_loaded_fails(self):
        ran, counted = self.run_file("  nonsense(\n")
        self.assertEqual((ran.returncode, counted[1]), (1, 1))
        self.assertEqual(counted[0][-1], "0 passed, 1 failed")

    def test_a_process_that_dies_fails(self):
        ran, counted = self.run_file("  def test_a(self): os._exit(3)\n")
        self.assertEqual((ran.returncode, counted[0][-1]), (3, "0 passed, 1 failed"))

    def test_a_failing_preparation_of_a_class_fails(self):
        _, counted = self.run_file("  @classmethod\n  def setUpClass(cls): raise OSError('none')\n"
                                   "  def test_a(self): pass\n")
        self.assertEqual(counted[1], 1)
