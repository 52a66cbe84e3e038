"""Every allocation of a run, from the start of main to its end, fails once: alone, and together with all later ones.

What may follow depends on where the run was, which its statements and its mails tell:

  unnoticed     what the memory was for can be done without: the libraries' own preparations, mostly
  reported      the client library lacked the memory, and the failed statement is reported as any other
  status 1      in the responder loop, where exhausted memory is caught
  aborted       elsewhere an exception that nothing catches
  client crash  in the client library's log-in, two allocations of which (10.11) aren't checked: the copy of the
                server's version and that of the schema's name; a third meets all allocations failing from one on. The
                program sees to it that there is memory before it connects, so that only faults like these meet them.
"""

import dataclasses
import os
import pathlib
import re
import signal

import sandbox
import sweep_rules
from sweep import ALL, COPY, Outcome, SweepTest, started_before
from sweep_rules import logged

RECORD = pathlib.Path("/sandbox/allocations")
NOT_RECODED = rb"Could not convert message body text from US-ASCII to UTF-8\.\n"
NOT_CONFIGURED = logged(rb"Not enough memory to allocate Quarx runtime configuration structure\n?")
# Without memory the name of the exception can't be put into readable form.
ABORTED = rb"terminate called after throwing an instance of '(std::|St9)bad_alloc'\n  what\(\):  std::bad_alloc\n"
SPEECHLESS = rb"(autoresponder: Can't allocate memory for error message\n)"
NO_ROOM = rb"autoresponder: Unable to alloc memory\n"
UNCONNECTED = (rb"Unable to (open admin password file|read admin password file|initialize MySQL connection structure"
               rb"|connect to Quarx Database): [^\n]*")
UNUSABLE_STREAM = rb"Unable to send mail with notify of not exist attachment\.\n"
FATAL = (rb"(Program failed due to exhausted memory|malloc\(\) failed: Cannot allocate memory|alloc\(\d+\)"
         rb"|Send error: Cannot convert from UTF-8 to (UTF-8|ISO-8859-1)"
         rb"|IDN conversion error: (Iconv error|Cannot allocate buffer))")
# Whether the reply's file may be there when so many mails have been started.
RESPONSE = {0: {False}, 1: {False, True}, 2: {True}, 3: {False}, 4: {False}, 5: {False, True}}
MOST_CLIENT_CRASHES = 2
FEWEST_ALLOCATIONS = 100
ARCHIVED = os.environ.get("QRX_ARCHIVED", "1") == "1"


class AllocationsFail(SweepTest):
    def setUp(self):
        super().setUp()
        self.need_plain_program()
        if not ARCHIVED:
            self.skipTest("a shared client library asks the name service, which doesn't survive exhausted memory")
        self.crashes = 0

    def run_failing(self, which=None):
        """which: as QRX_FAIL_MALLOC has it; without it all allocations are recorded."""
        RECORD.unlink(missing_ok=True)
        wish = {} if which is None else {"QRX_FAIL_MALLOC": which}
        return self.run_once(env={"LD_PRELOAD": sandbox.FAIL_MALLOC, "QRX_MALLOC_RECORD": str(RECORD), **wish})

    def sweep(self, suffix, name):
        """suffix: "" for one allocation alone, "+" for all later ones too."""
        result, self.statements = self.run_failing()
        self.judge(result, self.statements, Outcome(mails=ALL))
        made = RECORD.read_text().count("made")
        self.assertGreater(made, FEWEST_ALLOCATIONS)
        for number in range(1, made + 1):
            with self.subTest(name, number=number):
                result, statements = self.run_failing(f"{number}{suffix}")
                self.assertIn("failed", RECORD.read_text())
                self.count(name, self.judge_by_place(result, statements, all_later=suffix == "+"))

    def judge_by_place(self, result, statements, all_later):
        """Judges the run by the outcome that fits what it says, if there may be one where it was; returns its ending."""
        if result.signal == signal.SIGSEGV and not statements:
            self.crashes += 1
            self.assertLessEqual(self.crashes, MOST_CLIENT_CRASHES + all_later, "crashes without a statement")
            self.assert_nothing_sent(result)
            return "client crash"
        fitting = [outcome for outcome in self.possible(result, statements, all_later)
                   if outcome.status == result.status
                   and re.fullmatch(outcome.stderr, result.stderr)]
        self.assertTrue(fitting, f"{result.status}, {result.signal}, {result.stderr} after {statements[-1:]},"
                                 f" {len(result.mails)} mails")
        self.judge(result, statements, fitting[0])
        return fitting[0].ending()

    def possible(self, result, statements, all_later):
        """The outcomes that a lack of memory may have where the run was."""
        if not all_later or not result.stderr:
            yield from unnoticed()
        yield from self.reported(statements) if statements else self.unconnected()
        if all_later and len(statements) <= 1:
            yield Outcome(stderr=SPEECHLESS + sweep_rules.NO_CONNECTION, stdout=SPEECHLESS)
        in_loop = any(text.startswith("select id, keystr") for text in statements)
        looped = any(text.startswith("delete from resp_freq") for text in statements)
        for responder in 0, 1:  # the stream into the notification's sendmail can't be made
            place = 3 * responder + 1
            if [mail.stdin for mail in result.mails[place:place + 1]] == [b""]:
                yield sweep_rules.alters(dataclasses.replace(ALL[place], text=b""), UNUSABLE_STREAM)
        if result.status == 1 and in_loop:
            yield self.fatal(result, statements, all_later)
        if result.status is None and not looped:
            yield self.aborted(result, all_later)

    @staticmethod
    def unconnected():
        yield sweep_rules.ends(NO_ROOM, 0)
        yield sweep_rules.no_connection(UNCONNECTED)

    def reported(self, statements):
        at = len(statements) - 1
        yield sweep_rules.failed_statement(statements[at], started_before(self.statements, at), lost=True,
                                           error=rb"[^\n]*")

    def fatal(self, result, statements, all_later):
        at = len(statements) - 1
        started = len(result.mails)
        self.assertGreaterEqual(started, started_before(self.statements, at))
        if len(statements) < len(self.statements):
            self.assertLessEqual(started, started_before(self.statements, at + 1))
        files = {file.name for file in result.tmp}
        response = "qrx-response-uu-XXXXXX" in files
        self.assertIn(response, RESPONSE[started], f"the reply's file, with {started} mails started")
        text = SPEECHLESS + rb"{1,3}" if all_later else logged(FATAL)
        return Outcome(status=1, stderr=text, stdout=text, mails=ALL[:started],
                       left={"copy": COPY} | ({"response": None} if response else {}))

    def aborted(self, result, all_later):
        for file in result.tmp:
            self.assertTrue(COPY.startswith(file.content), "a part of the message")
        said = rb"(" + SPEECHLESS + rb")?" if all_later else rb"(" + NOT_RECODED + rb")?"
        return Outcome(status=None, stderr=said + ABORTED, stdout=rb"(" + SPEECHLESS + rb")?", left={"copy": None})

    def test_alone(self):
        self.sweep("", "one allocation")

    def test_and_all_later_ones(self):
        self.sweep("+", "all from one allocation on")


def unnoticed():
    """All that the run is for is done."""
    yield Outcome(mails=ALL)
    yield Outcome(stderr=NOT_RECODED, mails=ALL)
    yield Outcome(stderr=NOT_CONFIGURED, stdout=NOT_CONFIGURED, mails=ALL)
