"""A reply to a plain, a multipart and a base64 message, whose text the keyword is looked for in.

For a program with another message parser than the bundled one: script/check mimelib.
"""

import base64

from harness import SystemTest

SENDER = b"From: Sam <sam@sender.example>\nSubject: Opening hours\nMIME-Version: 1.0\n"
TEXT = b"Are you open on Sunday?\n"


class MimeAnswers(SystemTest):
    def assert_answered(self, message):
        self.furnish(key_where="body", keystr="on Sunday", text="We are open from nine to five.\n")
        result = self.run_program(message=message)
        self.assert_ended(result)
        self.assertEqual([mail.argv[-1] for mail in result.mails], ["sam@sender.example"])
        self.assertIn(b"We are open from nine to five.\n", result.mails[0].stdin)

    def test_plain(self):
        self.assert_answered(SENDER + b"Content-Type: text/plain; charset=us-ascii\n\n" + TEXT)

    def test_multipart(self):
        self.assert_answered(
            SENDER + b'Content-Type: multipart/mixed; boundary="b"\n\n--b\nContent-Type: image/png\n\nx\n'
            b"--b\nContent-Type: text/plain; charset=us-ascii\n\n" + TEXT + b"--b--\n")

    def test_base64(self):
        self.assert_answered(
            SENDER + b"Content-Type: text/plain; charset=utf-8\nContent-Transfer-Encoding: base64\n\n" +
            base64.encodebytes(TEXT))
