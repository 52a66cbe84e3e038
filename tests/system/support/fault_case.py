"""FaultTest: the base of the tests of runs in which the system fails at a chosen point.

The run has all three children: the forward, the notification of a missing file, and the reply.
"""

import re

import expected
import spool
from harness import MESSAGE, RECIPIENT, SystemTest

SENDMAIL = "/usr/sbin/sendmail"
SENDER = "sam@sender.example"
TEXT = b"Hello\n"
FORWARD = ([SENDMAIL, "-f", RECIPIENT, "a@two.example"], expected.message_copy(MESSAGE))
NOTIFICATION = ([SENDMAIL, "-f", "root@localhost", "carla@panel.example"], expected.notification(
    "root@localhost", "carla@panel.example", "Carla Client", "info", "example.com", ["gone"]))
REPLY = ([SENDMAIL, "-f", RECIPIENT, SENDER], expected.reply(SENDER, RECIPIENT, "Re: Opening hours", TEXT))
ALL = (FORWARD, NOTIFICATION, REPLY)
COPY = "qrx-autoresponder-XXXXXX"
RESPONSE = "qrx-response-uu-XXXXXX"
FORKS = "/^(clone3?|v?fork)$"


class FaultTest(SystemTest):
    def setUp(self):
        super().setUp()
        self.responder = self.furnish(text=TEXT)
        self.panel.forward(self.responder, "a@two.example")
        self.panel.attachment(self.responder, "gone")

    def run_injected(self, calls, fault, follow=False, **how):
        """Runs with the fault, in the words of strace(1), injected into these system calls."""
        return self.run_program(strace=[*(["-f"] if follow else []), "-e", f"trace={calls}",
                                        "-e", f"inject={calls}:{fault}"], **how)

    def count_calls_to(self, call, pattern, nth=1, **how):
        """How many times the program does the system call up to the nth whose trace matches; nothing of the run stays.

        In the trace descriptors are shown with what they stand for. A sanitizer's own calls are counted too.
        """
        trace = self.run_program(strace=["-y", "-e", f"trace={call}", "-e", "signal=none"], **how).trace
        self.sql("delete from resp_freq")
        spool.empty()
        numbers = [number for number, line in enumerate(trace.splitlines(), 1) if re.search(pattern, line)]
        self.assertGreaterEqual(len(numbers), nth, f"calls like {pattern!r} in:\n{trace}")
        return numbers[nth - 1]

    def assert_calls(self, result, *wanted):
        """These calls of sendmail, and no others: pairs of arguments and standard input."""
        self.assertEqual([mail.argv for mail in result.mails], [argv for argv, _ in wanted], "calls of sendmail")
        for mail, (_, text) in zip(result.mails, wanted):
            self.assert_bytes(mail.stdin, text, "input of sendmail")

    def assert_counted(self, times=1):
        self.assertEqual(self.panel.frequency_rows(), [(self.responder, SENDER, times)])

    def assert_done(self, result, *wanted, stderr=b"", stdout=b""):
        """An ordinary end: these calls of sendmail, the sender counted, nothing left."""
        self.assert_ended(result, stderr=stderr, stdout=stdout)
        self.assert_calls(result, *wanted)
        self.assert_counted()
        self.assert_nothing_left(result)

    def assert_files_left(self, result, **content):
        """Just these files are left in /tmp: copy and response, with these bytes."""
        names = {"copy": COPY, "response": RESPONSE}
        self.assertEqual([(file.name, file.mode) for file in result.tmp],
                         [(names[kind], 0o600) for kind in sorted(content)])
        for file, kind in zip(result.tmp, sorted(content)):
            self.assert_bytes(file.content, content[kind], kind)
