"""Real messages, one after the other: each is answered once, to its sender, or refused with a line."""

import os
import subprocess

import address_rules
import expected
import sandbox
import spool
from harness import RECIPIENT, SystemTest
from intake_case import NO_SENDER

CORPUS = sandbox.CHECKOUT / "tests/corpus"
TEXT = "We are on holiday until Monday.\n"
DAEMON_NAMES = ("MAILER-DAEMON", "mailer-daemon", "DrWEB-DAEMON")
REFUSED = b"Field From: contains MAILER-DAEMON\n"
# What intake may have to say of a message that is answered all the same.
REMARKS = rb"\A(?:Could not convert message (?:body|subject) text from [^\n]* to UTF-8\.\n" \
          rb"|wrong rfc1522 sequence \([a-z ]+\): [^\n]*\n" \
          rb"|Bad hex in quoted-printable string: [^\n]*\n|Bad base64 symbol: .\n)*"


class Corpus(SystemTest):
    @classmethod
    def setUpClass(cls):
        cls.messages = {path.name: path.read_bytes() for path in sorted(CORPUS.glob("*.eml"))}
        cls.senders = {name: address_rules.sender_of(message) for name, message in cls.messages.items()}

    def setUp(self):
        super().setUp()
        self.responder = self.furnish(text=TEXT, ans_freq="1000000", mem_limit="1000000")

    def results(self, wanted):
        """(name, sender, result) of a run on each message whose sender is wanted, each a subtest."""
        for name, sender in self.senders.items():
            if wanted(sender):
                with self.subTest(name):
                    spool.empty()
                    result = self.run_program(message=self.messages[name])
                    self.assertEqual((result.status, result.signal, result.stdout), (0, None, b""))
                    self.assert_nothing_left(result)
                    yield sender, result

    def test_the_messages_are_all_there(self):
        self.assertEqual(len(self.messages), 300)
        self.assertEqual(len([name for name in self.senders if self.senders[name] is None]), 57)
        self.assertEqual(len(list(filter(is_daemon, self.senders.values()))), 15)

    def test_a_message_with_a_usable_sender_gets_one_reply(self):
        for sender, result in self.results(lambda sender: sender and not is_daemon(sender)):
            self.assertRegex(result.stderr, REMARKS + rb"\Z")
            self.assertEqual([mail.argv for mail in result.mails],
                             [["/usr/sbin/sendmail", "-f", RECIPIENT, sender]])
            self.assert_reply(result.mails[0].stdin, sender)
            self.assertEqual(self.panel.sql("select rn_id from resp_freq group by rn_id"),
                             [(str(self.responder).encode(),)])

    def test_a_message_without_one_is_reported(self):
        for _, result in self.results(lambda sender: sender is None):
            self.assertEqual(result.stderr, NO_SENDER)
            self.assert_nothing_sent(result)
        self.assertEqual(self.panel.frequency_rows(), [])

    def test_a_message_from_a_mailer_daemon_is_refused(self):
        for _, result in self.results(is_daemon):
            self.assertRegex(result.stderr, REMARKS + REFUSED + rb"\Z")
            self.assert_nothing_sent(result)
        self.assertEqual(self.panel.frequency_rows(), [])

    def assert_reply(self, mail, sender):
        header, _, body = mail.partition(b"\n\n")
        self.assert_bytes(body, TEXT.encode() + b"\n\n\n", "body")
        subject = header.split(b"\n")[3]
        self.assertRegex(subject, rb"\ASubject: [ -~]+\Z")
        wanted = expected.reply(sender, RECIPIENT, "", TEXT.encode()).partition(b"\n\n")[0]
        self.assert_bytes(header.replace(subject, b"Subject: "), wanted, "header")
        parsed = subprocess.run([sandbox.GMIME_HEADERS], input=mail, capture_output=True)
        self.assertEqual((parsed.returncode, parsed.stderr), (0, b""), parsed.stdout)


def is_daemon(sender):
    return sender is not None and any(name in sender for name in DAEMON_NAMES)
