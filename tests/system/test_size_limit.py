"""The mail system's size limit, qmail's control file databytes, and the error reply in place of a larger one."""

import expected
from harness import RECIPIENT, SystemTest
from panel import DATABYTES

SENDER = "sam@sender.example"
TEXT = b"x" * 600 + b"\n"
REPLY = expected.reply(SENDER, RECIPIENT, "Re: Opening hours", TEXT)
ERROR = expected.size_error_reply(RECIPIENT, "Opening hours")


class SizeLimit(SystemTest):
    def run_with(self, databytes, **columns):
        responder = self.furnish(text=TEXT.decode(), **columns)
        if databytes is not None:
            self.panel.databytes(databytes)
        return responder

    def sent(self, databytes, **columns):
        self.run_with(databytes, **columns)
        return self.sent_mail()

    def sent_mail(self, **how):
        result = self.run_program(**how)
        self.assert_ended(result)
        self.assertEqual([mail.argv for mail in result.mails],
                         [["/usr/sbin/sendmail", "-f", how.get("recipient", RECIPIENT), SENDER]])
        self.assert_nothing_left(result)
        return result.mails[0].stdin

    def test_what_passes(self):
        size = len(REPLY)
        for databytes in (None, "", " \n", "0", "0\n", "-1", "-5000000000", "text", "x100", str(size),
                          f"{size}\n", f" \n\t{size}", f"{size + 1}", f"{size}0", "4294967296",
                          "9223372036854775807", "99999999999999999999999", f"{size} 1", "0x1", "+0"):
            with self.subTest(databytes=databytes):
                self.setUp()
                self.assert_bytes(self.sent(databytes), REPLY)

    def test_what_is_too_large(self):
        size = len(REPLY)
        for databytes in (str(size - 1), f"{size - 1}\n", f"\n\n  {size - 1}", "1", "1 100000", "+1", "1x",
                          "00001", "4294967297"):
            with self.subTest(databytes=databytes):
                self.setUp()
                self.assert_bytes(self.sent(databytes), ERROR)

    def test_the_error_reply_to_the_byte(self):
        self.assert_bytes(self.sent("1", reply_to="sales@example.com"),
                          b"Reply-To: sales@example.com\n"
                          b"From: info@example.com\n"
                          b"CC: \n"
                          b"Subject: Re: Opening hours\n"
                          b"\n"
                          b"An error occurred while responding on you request.\n"
                          b"\n"
                          b"Autoresponder message size exceeds databytes limit.\n"
                          b"\n"
                          b"\n"
                          b"\n")

    def test_the_error_replys_subject_is_the_incoming_one_whatever_the_template(self):
        self.assert_bytes(self.sent("1", subject="My <request_from>"), ERROR)

    def test_the_error_replys_sender_is_not_converted(self):
        self.panel.responder(self.panel.mailbox(self.panel.domain("bücher.example")))
        self.panel.databytes("1")
        result = self.run_program(recipient="info@bücher.example")
        self.assert_ended(result)
        self.assert_bytes(result.mails[0].stdin,
                          expected.size_error_reply("info@bücher.example", "Opening hours"))

    def test_attachments_count_and_do_not_go_out(self):
        responder = self.run_with("5000")
        self.panel.attachment(responder, "a", b"x" * 5000)
        self.assert_bytes(self.sent_mail(), ERROR)

    def test_a_limit_file_that_is_a_folder_is_no_limit(self):
        self.run_with(None)
        DATABYTES.mkdir()
        self.assert_bytes(self.sent_mail(), REPLY)

    def test_a_limit_file_that_cannot_be_read_is_no_limit(self):
        self.skip_if_sanitized("leaks can't be looked for under strace")
        self.run_with("1")
        self.assert_bytes(
            self.sent_mail(strace=["-P", str(DATABYTES), "-e", "trace=read", "-e", "inject=read:error=EIO"]),
            REPLY)

    def test_each_reply_of_a_run_is_held_to_it(self):
        self.run_with("700")
        self.panel.responder(self.mailbox, text="y" * 900)
        self.panel.responder(self.mailbox, text="short")
        result = self.run_program()
        self.assert_ended(result)
        self.assertEqual([mail.stdin for mail in result.mails],
                         [ERROR, ERROR,
                          expected.reply(SENDER, RECIPIENT, "Re: Opening hours", b"short")])
