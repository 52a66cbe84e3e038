"""The reply with attachments: layout, boundary, base64 lines, and files that are not as they should be."""

import os
import socket

import expected
from harness import NOBODY, RECIPIENT, SystemTest

SENDER = "sam@sender.example"
SUBJECT = "Re: Opening hours"
FIRST_BOUNDARY = "--------=_nWlrBbmQBhCDarzOwKkYHIDdqSCDX"


class MultipartReply(SystemTest):
    def run_with(self, *attachments, **columns):
        """Runs the program for a responder with these (name, content) rows; the Result."""
        self.responder = self.furnish(text="Hello\n", **columns)
        for name, content in attachments:
            self.panel.attachment(self.responder, name, content)
        return self.run_program()

    def assert_reply(self, result, *attachments, **columns):
        self.assert_ended(result)
        self.assertEqual(len(result.mails), 1)
        self.assert_bytes(result.mails[0].stdin,
                          expected.reply(SENDER, RECIPIENT, SUBJECT, b"Hello\n",
                                         attachments=attachments, **columns))
        self.assert_nothing_left(result)

    def test_every_line_in_its_order(self):
        result = self.run_with(("note.txt", b"ABC"), reply_to="sales@example.com")
        self.assert_ended(result)
        self.assert_bytes(result.mails[0].stdin,
                          b"Reply-To: sales@example.com\n"
                          b"From: info@example.com\n"
                          b"To: sam@sender.example\n"
                          b"MIME-Version: 1.0\n"
                          b"Subject: Re: Opening hours\n"
                          b"Content-Type: multipart/mixed;\n"
                          b'\tboundary="' + FIRST_BOUNDARY.encode() + b'"\n'
                          b"\n"
                          b"--" + FIRST_BOUNDARY.encode() + b"\n"
                          b'Content-Type: text/plain; charset="UTF-8"\n'
                          b"Content-Transfer-Encoding: 8bit\n"
                          b"Content-Disposition: inline\n"
                          b"\n"
                          b"Hello\n"
                          b"\n\n\n"
                          b"--" + FIRST_BOUNDARY.encode() + b"\n"
                          b"Content-Type: application/octet-stream\n"
                          b"Content-Transfer-Encoding: base64\n"
                          b"Content-Disposition: attachment;\n"
                          b'\tfilename="note.txt"\n'
                          b"\n"
                          b"QUJD\n"
                          b"\n"
                          b"--" + FIRST_BOUNDARY.encode() + b"--\n")

    def test_files_of_every_size_about_a_line_and_a_block(self):
        sizes = [0, 1, 44, 45, 46, 89, 90, 91, 1024 * 45 - 1, 1024 * 45, 1024 * 45 + 1, 65535, 65536,
                 65537, 3000000]
        files = [(f"{size}.bin", os.urandom(size)) for size in sizes]
        self.assert_reply(self.run_with(*files), *files)

    def test_attachments_in_the_databases_order(self):
        files = [("b", b"1"), ("a", b"2"), ("c", b"3")]
        self.assert_reply(self.run_with(*files), *files)

    def test_null_and_empty_names_are_left_out(self):
        responder = self.furnish(text="Hello\n")
        self.panel.attachment(responder, None)
        self.panel.attachment(responder, "")
        self.assert_reply(self.run_program())

    def test_white_space_around_a_name_is_cut(self):
        responder = self.furnish(text="Hello\n")
        self.panel.attachment(responder, "two words", b"x")
        self.sql("update resp_attach set filename=%s", " \t two words \n")
        self.assert_reply(self.run_program(), ("two words", b"x"))

    def test_a_blank_name_is_the_folder_itself_and_an_empty_part(self):
        responder = self.furnish(text="Hello\n")
        self.panel.attachment(responder, "x", b"x")
        self.sql("update resp_attach set filename='  '")
        self.assert_reply(self.run_program(), ("", b""))

    def test_a_folder_is_an_empty_part(self):
        result = self.run_with(("folder/file", b"x"))
        self.assert_reply(result, ("folder/file", b"x"))
        self.setUp()
        responder = self.furnish(text="Hello\n")
        self.panel.attachment(responder, "folder/file", b"x")
        self.sql("update resp_attach set filename='folder'")
        self.assert_reply(self.run_program(), ("folder", b""))

    def test_a_name_beyond_ascii_is_an_encoded_word_in_the_parameter(self):
        result = self.run_with(("Grüße.txt", b"x"))
        self.assert_reply(result, ("Grüße.txt", b"x"))
        self.assertIn(b'\tfilename="=?utf-8?Q?Gr=C3=BC=C3=9Fe.txt?="\n', result.mails[0].stdin)

    def test_a_quote_in_a_name_is_encoded(self):
        self.assert_reply(self.run_with(('a"b', b"x")), ('a"b', b"x"))

    def test_missing_files_are_left_out(self):
        result = self.run_with(("here", b"x"), ("gone", None), ("there", b"y"))
        self.assert_ended(result)
        self.assert_bytes(result.mails[1].stdin,
                          expected.reply(SENDER, RECIPIENT, SUBJECT, b"Hello\n",
                                         attachments=[("here", b"x"), ("there", b"y")]))

    def test_without_any_file_the_reply_has_a_single_part(self):
        result = self.run_with(("gone", None), ("lost", None))
        self.assert_ended(result)
        self.assertEqual(len(result.mails), 2)  # the notification comes first
        self.assert_bytes(result.mails[1].stdin,
                          expected.reply(SENDER, RECIPIENT, SUBJECT, b"Hello\n"))

    def test_a_file_that_cannot_be_opened_is_reported_and_an_empty_part(self):
        responder = self.furnish(text="Hello\n")
        self.panel.attachment(responder, "a", b"x")
        path = self.panel.attachment_folder(responder) / "socket"
        listener = socket.socket(socket.AF_UNIX)
        self.addCleanup(listener.close)
        listener.bind(str(path))
        self.panel.attachment(responder, "socket")
        result = self.run_program()
        self.assert_ended(result, stderr=b"autoresponder: Failed to read attachement file '"
                          + bytes(path) + b"': No such device or address (6)\n")
        self.assert_bytes(result.mails[0].stdin,
                          expected.reply(SENDER, RECIPIENT, SUBJECT, b"Hello\n",
                                         attachments=[("a", b"x"), ("socket", b"")]))
        self.assert_nothing_left(result)

    def test_a_file_that_the_programs_user_may_not_read(self):
        responder = self.furnish(text="Hello\n")
        self.panel.attachment(responder, "secret", b"x")
        path = self.panel.attachment_folder(responder) / "secret"
        path.chmod(0)
        os.chmod("/etc/qrx/.qrx.shadow", 0o644)
        result = self.run_program(user=NOBODY)
        self.assert_ended(result, stderr=b"autoresponder: Failed to read attachement file '"
                          + bytes(path) + b"': Permission denied (13)\n")
        self.assert_bytes(result.mails[0].stdin,
                          expected.reply(SENDER, RECIPIENT, SUBJECT, b"Hello\n",
                                         attachments=[("secret", b"")]))

    def test_a_fifo_without_a_writer_does_not_hold_the_run(self):
        responder = self.furnish(text="Hello\n")
        self.panel.attachment(responder, "x", b"x")
        os.mkfifo(self.panel.attachment_folder(responder) / "fifo")
        self.panel.attachment(responder, "fifo")
        self.assert_reply(self.run_program(timeout=20), ("x", b"x"), ("fifo", b""))

    def test_a_device_is_an_empty_part(self):
        responder = self.furnish(text="Hello\n")
        self.panel.attachment(responder, "x", b"x")
        (self.panel.attachment_folder(responder) / "zero").symlink_to("/dev/zero")
        self.panel.attachment(responder, "zero")
        self.assert_reply(self.run_program(timeout=20), ("x", b"x"), ("zero", b""))

    def test_a_dangling_link_counts_as_missing(self):
        responder = self.furnish(text="Hello\n")
        self.panel.attachment(responder, "x", b"x")
        (self.panel.attachment_folder(responder) / "link").symlink_to("nowhere")
        self.panel.attachment(responder, "link")
        result = self.run_program()
        self.assert_ended(result)
        self.assertIn(b"\nlink\n", result.mails[0].stdin)
        self.assert_bytes(result.mails[1].stdin,
                          expected.reply(SENDER, RECIPIENT, SUBJECT, b"Hello\n", attachments=[("x", b"x")]))

    def test_a_file_that_fails_while_it_is_read_ends_there(self):
        self.skip_if_sanitized("the sanitizers' own reads would be hit")
        responder = self.furnish(text="Hello\n")
        content = os.urandom(100000)
        self.panel.attachment(responder, "x", content)
        path = self.panel.attachment_folder(responder) / "x"
        result = self.run_program(strace=["-P", str(path), "-e", "trace=read",
                                          "-e", "inject=read:error=EIO:when=2+"])
        self.assert_ended(result)
        block = content[:1088 * 45]
        self.assert_bytes(result.mails[0].stdin,
                          expected.reply(SENDER, RECIPIENT, SUBJECT, b"Hello\n", attachments=[("x", block)]))

    def test_a_failed_query_ends_the_run(self):
        self.furnish()
        self.drop_table("resp_attach")
        result = self.run_program()
        self.assert_ended(result, stderr=b"autoresponder: Unable to exec query :"
                                         b"Table 'qrx.resp_attach' doesn't exist\n")
        self.assert_nothing_sent(result)
        self.assert_nothing_left(result)
