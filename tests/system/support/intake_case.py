"""IntakeTest: the base of the cases about what the program takes from a message, seen in what it answers."""

import expected
from harness import RECIPIENT, SystemTest

SENDER = "sam@sender.example"
FROM = b"From: " + SENDER.encode() + b"\n"
NO_SENDER = (b"Could not get sender's e-mail address from Reply-To: or From: headers.\n"
             b"Abnormal exit.\n")
TEXT = "Thank you.\n"


def message_from(sender, body=b"Hello.\n"):
    """A plain message with these bytes behind From:."""
    return b"From: " + sender + b"\n\n" + body


class IntakeTest(SystemTest):
    """A mailbox that answers everything, and comparisons of what came of a message."""

    def setUp(self):
        super().setUp()
        self.responder = self.furnish(text=TEXT, ans_freq="1000")

    def forward(self, address="archive@example.com"):
        """Has each message sent on, so that its stored copy shows."""
        self.panel.forward(self.responder, address)

    def assert_answered(self, result, sender=SENDER, subject="", stderr=b"", recipient=RECIPIENT):
        """The run ended well, and all it did was one reply to the sender, with that (decoded) subject."""
        self.assert_ended(result, stderr=stderr)
        self.assertEqual([mail.argv for mail in result.mails],
                         [["/usr/sbin/sendmail", "-f", recipient, sender]], "calls of sendmail")
        self.assert_bytes(result.mails[0].stdin,
                          expected.reply(sender, recipient, "Re: " + subject, TEXT.encode()), "reply")
        self.assert_nothing_left(result)

    def assert_silent(self, result, stderr, stdout=b""):
        """The run ended with status 0 and these lines; it sent, stored and left nothing."""
        self.assert_ended(result, stderr=stderr, stdout=stdout)
        self.assert_nothing_sent(result)
        self.assertEqual(self.panel.frequency_rows(), [], "frequency rows")
        self.assert_nothing_left(result)

    def assert_forwarded(self, result, message):
        """The first mail of the run is the message as it is stored."""
        self.assert_bytes(result.mails[0].stdin, expected.message_copy(message), "stored copy")

    def assert_keywords(self, message, present, absent=(), stderr=b"", key_where="body"):
        """Of responders with these keywords just those answer whose keyword is present."""
        self.sql("delete from mail_resp")
        for keyword in (*present, *absent):
            self.panel.responder(self.mailbox, keystr=keyword, key_where=key_where, text=keyword)
        result = self.run_program(message=message)
        self.assert_ended(result, stderr=stderr)
        self.assertEqual([mail.stdin.split(b"\n\n", 1)[1] for mail in result.mails],
                         [keyword.encode() + b"\n\n\n" for keyword in present], "keywords found")
        self.assert_nothing_left(result)
