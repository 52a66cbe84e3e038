"""Real messages, one after the other: each is answered once, to its sender, or refused with a line."""

import os
import re
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
NO_SUBJECT = b"Could not convert message subject text"
REFUSED = b"Field From: contains MAILER-DAEMON\n"
# What intake may have to say of a message that is answered all the same.
REMARKS = rb"\A(?:Could not convert message (?:body|subject) text from [^\n]* to UTF-8\.\n" \
          rb"|wrong rfc1522 sequence \([a-z ]+\): [^\n]*\n" \
          rb"|Bad hex in quoted-printable string: [^\n]*\n|Bad base64 symbol: .\n)*"
# Subjects that GMime reads otherwise, and why.
READ_OTHERWISE = {
    "flanker-0001.eml": "GMime loses an encoded word behind one with padding",
    "mailgem-0001.eml": "GMime loses an encoded word behind one with padding",
    "spamscope-0005.eml": "GMime takes gb2312 for its superset",
    "phpimap-0003.eml": "no UTF-8: GMime says one question mark less for the cut end",
}


class Corpus(SystemTest):
    @classmethod
    def setUpClass(cls):
        cls.messages = {path.name: path.read_bytes() for path in sorted(CORPUS.glob("*.eml"))}
        cls.senders = {name: address_rules.sender_of(message) for name, message in cls.messages.items()}

    def setUp(self):
        super().setUp()
        self.responder = self.furnish(text=TEXT, ans_freq="1000000", mem_limit="1000000")

    def for_each(self, wanted, check):
        """Runs the program on each message whose sender is wanted and has check(name, result, sender) look at it."""
        for name, sender in self.senders.items():
            if wanted(sender):
                with self.subTest(name):
                    spool.empty()
                    result = self.run_program(message=self.messages[name])
                    self.assertEqual((result.status, result.signal, result.stdout), (0, None, b""))
                    self.assert_nothing_left(result)
                    check(name, result, sender)

    def test_the_messages_are_all_there(self):
        self.assertEqual(len(self.messages), 299)
        self.assertEqual(sum(sender is None for sender in self.senders.values()), 57)
        self.assertEqual(sum(map(is_daemon, self.senders.values())), 18)

    def test_a_message_with_a_usable_sender_gets_one_reply(self):
        # One sender's name isn't UTF-8. A strict server refuses to count the replies to it.
        self.sql("set global sql_mode=''")
        self.for_each(lambda sender: sender and not is_daemon(sender), self.check_reply)
        self.assertEqual({row[0] for row in self.panel.frequency_rows()}, {self.responder})

    def test_a_message_without_one_is_reported(self):
        def check(_, result, __):
            self.assertEqual(result.stderr, NO_SENDER)
            self.assert_nothing_sent(result)
        self.for_each(lambda sender: sender is None, check)
        self.assertEqual(self.panel.frequency_rows(), [])

    def test_a_message_from_a_mailer_daemon_is_refused(self):
        def check(_, result, __):
            self.assertRegex(result.stderr, REMARKS + REFUSED + rb"\Z")
            self.assert_nothing_sent(result)
        self.for_each(is_daemon, check)
        self.assertEqual(self.panel.frequency_rows(), [])

    def check_reply(self, name, result, sender):
        self.assertRegex(result.stderr, REMARKS + rb"\Z")
        self.assertEqual([mail.argv for mail in result.mails],
                         [["/usr/sbin/sendmail", "-f", RECIPIENT, sender]])
        mail = result.mails[0].stdin
        subject = address_rules.first_field(self.messages[name], "subject") or ""
        if NO_SUBJECT in result.stderr:
            self.assert_reply(mail, sender, b"Subject: Re: ")
        elif "=?" not in subject:
            self.assert_reply(mail, sender, f"Subject: {expected.encoded_word('Re: ' + subject)}".encode())
        else:
            self.assert_reply(mail, sender, mail.split(b"\n")[3])
            if name not in READ_OTHERWISE:
                incoming = b"Re: " + gmime(self.messages[name])[1]
                self.assertEqual(gmime(mail)[1].rstrip(), incoming.rstrip())

    def assert_reply(self, mail, sender, subject_line):
        """The mail is the reply to the sender with that line for its subject, and GMime finds no fault with it."""
        wanted = expected.reply(sender, RECIPIENT, "", TEXT.encode())
        self.assert_bytes(mail, wanted.replace(b"Subject: ", subject_line), "reply")
        self.assertRegex(subject_line, rb"\ASubject: [ -~]+\Z")
        if not sender.isascii():  # it stands in To: as it came, which GMime can but complain of
            mail = mail.replace(os.fsencode(sender), b"sender@x.example")
        self.assertTrue(gmime(mail)[0], mail)


def gmime(mail):
    """Whether GMime finds no fault with a mail's header, and the subject that it reads (b"" for none)."""
    run = subprocess.run([sandbox.GMIME_HEADERS], input=mail, capture_output=True)
    subject = re.search(rb"^header subject: (.*)$", run.stdout, re.MULTILINE | re.IGNORECASE)
    return (run.returncode, run.stderr) == (0, b""), subject[1] if subject else b""


def is_daemon(sender):
    return sender is not None and any(name in sender for name in DAEMON_NAMES)
