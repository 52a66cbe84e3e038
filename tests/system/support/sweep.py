"""SweepTest: the base of the tests that repeat one run, each time with one fault at another place of it.

The run has two responders, each with a forward, a notification because of a missing attachment, and a
reply with another attachment: six mails, one after the other. Nothing about an ending is recorded from
an earlier run: sweep_rules.py says what a fault may do, and judge() holds a run against that.
"""

import collections
import dataclasses
import itertools
import os
import re
import sys

import expected
import program_run
import spool
from database_test import DatabaseTest
from fault_case import SENDMAIL, SENDER, TEXT, FaultTest
from harness import MESSAGE, RECIPIENT
from panel import MAILNAMES

PATIENCE_SECONDS = 20
ATTACHMENT = b"an attachment " * 100
BOXES = "/var/qmail/boxes"  # not the default, so that a lost configuration would show
HOST = "panel.host.example"
CLIENT = "carla@panel.example"
SECOND_TEXT = "Gr\u00fc\u00dfe\n"
COPY = expected.message_copy(MESSAGE)
KINDS = ("forward", "notification", "reply")


@dataclasses.dataclass(frozen=True)
class Mail:
    """One call of sendmail as it must be."""
    kind: str
    responder: int  # 0 or 1
    argv: tuple
    text: bytes


@dataclasses.dataclass
class Outcome:
    """How a run must end: standard error and output as patterns, the mails, the files that stay."""
    stderr: bytes = b""
    stdout: bytes = b""
    status: int = 0           # None: ended by SIGABRT, from the run-time's termination handler
    mails: tuple = ()
    left: dict = dataclasses.field(default_factory=dict)  # "copy" and "response": bytes, None for any
    in_order: bool = True     # whether each child is waited for

    def ending(self):
        if self.status is None:
            return "aborted"
        if self.status == 1:
            return "status 1"
        return "reported" if self.stderr else "unnoticed"


def forward(responder, text=COPY):
    return Mail("forward", responder, (SENDMAIL, "-f", RECIPIENT, ("a@two.example", "b@three.example")[responder]), text)


def notification(responder, missing=None, sender=f"root@{HOST}", text=None):
    missing = missing or (["gone"], ["lost"])[responder]
    return Mail("notification", responder, (SENDMAIL, "-f", sender, CLIENT), expected.notification(
        sender, CLIENT, "Carla Client", "info", "example.com", missing) if text is None else text)


def reply(responder, attachments=(("here", ATTACHMENT),), text=None):
    how = ({"charset": "UTF-8"}, {"charset": "ISO-8859-1", "reply_to": "desk@example.com"})[responder]
    subject = ("Re: Opening hours", "About Opening hours")[responder]
    body = (TEXT, SECOND_TEXT.encode("latin-1"))[responder]
    return Mail("reply", responder, (SENDMAIL, "-f", RECIPIENT, SENDER), expected.reply(
        SENDER, RECIPIENT, subject, body, attachments=attachments, number=responder + 1, **how)
        if text is None else text)


# The second responder's Reply-To runs into the notification's From.
ALL = (forward(0), notification(0), reply(0), forward(1),
       notification(1, text=b"Reply-To: desk@example.com" + notification(1).text), reply(1))


def replaced(mail, mails=ALL):
    """The mails with this one in the place of its kind and responder."""
    return tuple(mail if (mail.kind, mail.responder) == (old.kind, old.responder) else old for old in mails)


def without(kind, responder, mails=ALL):
    return tuple(mail for mail in mails if (mail.kind, mail.responder) != (kind, responder))


def rows_of(statements):
    """The frequency rows that these statements make of an empty table, as (responder, sender, number)."""
    rows = []
    for statement in statements:
        if inserted := re.fullmatch(r"insert into resp_freq set rn_id=(\d+), email='([^']*)', num=1", statement):
            rows.append((int(inserted[1]), inserted[2], 1))
        elif re.match("(insert|update|replace)", statement) or re.match("delete(?!.*TO_DAYS)", statement):
            raise AssertionError(f"no statement of this run: {statement}")
    return rows


def started_before(statements, at):
    """How many of the six mails have been started when the statement at this place of all is sent."""
    responders = sum(text.startswith("delete from resp_freq") for text in statements[:at + 1])
    forwards = sum(text.startswith("select address") for text in statements[:at])
    done = max(responders - 1, 0)
    return 3 * done + forwards - done


class SweepTest(FaultTest, DatabaseTest):
    behaviour = "read"  # of sendmail

    def setUp(self):
        super().setUp()
        self.panel.param("admin_email", "")
        self.panel.param("FullHostName", HOST)
        self.panel.databytes("1000000")
        self.panel.configuration(f"QUARX_MAILNAMES_D {BOXES}\n")
        os.symlink(MAILNAMES, BOXES)
        self.addCleanup(os.unlink, BOXES)
        self.panel.attachment(self.responder, "here", ATTACHMENT)
        self.second = self.panel.responder(self.mailbox, text=SECOND_TEXT, charset="ISO-8859-1",
                                           subject="About <request_subject>", reply_to="desk@example.com")
        self.panel.forward(self.second, "b@three.example")
        self.panel.attachment(self.second, "here", ATTACHMENT)
        self.panel.attachment(self.second, "lost")
        self.panel.sql("set global log_output='TABLE'")
        self.panel.sql("set global general_log=1")
        self.addCleanup(self.panel.sql, "set global general_log=0")
        self.table = collections.defaultdict(collections.Counter)
        self.addCleanup(self.print_table)

    def need_plain_program(self):
        """For faults within the program's process."""
        self.skip_if_watched("it has calls and a malloc of its own")
        self.skip_if_sanitized("strace and preloaded libraries don't get along with the sanitizers")
        if program_run.COVERAGE:
            self.skipTest("the counters of a coverage build are written by calls that would fail too")

    def run_once(self, **how):
        """Runs from the same start every time; returns the Result and the statements that the server was sent."""
        program_run.empty_tmp()
        spool.empty()
        self.sendmail(self.behaviour)
        self.panel.sql("delete from resp_freq")
        self.panel.sql("truncate table mysql.general_log")
        result = self.run_program(timeout=PATIENCE_SECONDS, **how)
        result.mails = self.mails()  # by now also of a child that outlived the program for a moment
        self._await_end_of_connections()
        statements = self.panel.sql("select argument from mysql.general_log where command_type='Query'"
                                    " and thread_id <> connection_id()")
        return result, [text.decode() for text, in statements]

    def judge(self, result, statements, outcome):
        """The run has ended as it must; run_program() has seen to it that no process is left."""
        aborted = outcome.status is None
        self.assertEqual((result.status, result.signal), (outcome.status, 6 if aborted else None), result.stderr)
        self.assertRegex(result.stderr, rb"\A" + outcome.stderr + rb"\Z", "standard error")
        self.assertRegex(result.stdout, rb"\A" + outcome.stdout + rb"\Z", "standard output")
        self.judge_mails(result, outcome)
        self.judge_files(result, outcome)
        self.assertEqual(self.panel.frequency_rows(), rows_of(statements), "frequency rows")

    def judge_mails(self, result, outcome):
        got = [(tuple(mail.argv), mail.stdin) for mail in result.mails]
        wanted = [(mail.argv, mail.text) for mail in outcome.mails]
        if not outcome.in_order:
            got, wanted = sorted(got), sorted(wanted)
        self.assertEqual([argv for argv, _ in got], [argv for argv, _ in wanted], "calls of sendmail")
        for (argv, text), (_, right) in zip(got, wanted):
            self.assert_bytes(text, right, f"input of {argv}")
        self.assertTrue(all(mail.complete for mail in result.mails), "every sendmail has come to its end")
        if outcome.in_order:
            for mail, following in itertools.pairwise(result.mails):
                self.assertLessEqual(mail.end, following.start, f"{mail.argv} was waited for")

    def judge_files(self, result, outcome):
        kinds = {"qrx-autoresponder-XXXXXX": "copy", "qrx-response-uu-XXXXXX": "response"}
        self.assertEqual(sorted(kinds.get(file.name, file.name) for file in result.tmp), sorted(outcome.left),
                         "files in /tmp")
        for file in result.tmp:
            self.assertEqual(file.mode, 0o600)
            content = outcome.left[kinds[file.name]]
            if content is not None:
                self.assert_bytes(file.content, content, file.name)

    def assert_undisturbed(self, **how):
        """Without a fault the run does all that it is to do; returns its Result and statements."""
        result, statements = self.run_once(**how)
        self.judge(result, statements, Outcome(mails=ALL))
        self.assertEqual(len(rows_of(statements)), 2)
        return result, statements

    def count(self, name, ending):
        self.table[name][ending] += 1

    def print_table(self):
        if not self.table:
            return
        endings = sorted({ending for row in self.table.values() for ending in row})
        lines = [["fault", "runs", *endings]]
        lines += [[name, sum(row.values()), *(row[ending] or "-" for ending in endings)]
                  for name, row in sorted(self.table.items())]
        lines.append(["all", *(sum(line[i] for line in lines[1:] if line[i] != "-")
                               for i in range(1, len(lines[0])))])
        print(self.id())
        for line in lines:
            print(f"  {line[0]:<34}" + "".join(f"{cell:>14}" for cell in line[1:]))
        sys.stdout.flush()
