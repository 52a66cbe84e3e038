"""Runs that may have too few descriptors: each goes as far as it can, says what it lacked, and ends by itself."""

import os
import re
import resource
import time

import expected
from fault_case import ALL, FORWARD, NOTIFICATION, REPLY, SENDER, TEXT, FaultTest
from harness import MESSAGE, RECIPIENT

TOO_MANY = b"Too many open files (24)\n"
NO_FORWARD = (rb"autoresponder: Failed to open temporary file with forward mail contents"
              rb" '/tmp/qrx-autoresponder-\w{6}': " + re.escape(TOO_MANY))
NO_PIPE = b"autoresponder: Failed to create pipe to sendmail to notify about missing attachment files: " + TOO_MANY
NO_ATTACHMENT = (b"autoresponder: Failed to read attachement file"
                 b" '/var/qmail/mailnames/example.com/info/@attachments/here': " + TOO_MANY)
NO_REPLY = (rb"autoresponder: Failed to open temporary file with response mail contents"
            rb" '/tmp/qrx-response-uu-\w{6}': " + re.escape(TOO_MANY))
SEND_ERROR = (b"autoresponder: Send error: Failed to generate response mail contents\n"
              b"System error 24: Too many open files\n")
NO_PASSWORD = (b"autoresponder: Unable to open admin password file: Too many open files\n"
               b"System error 24: Too many open files\n")


def reply_with(content):
    return (REPLY[0], expected.reply(SENDER, RECIPIENT, "Re: Opening hours", TEXT, attachments=[("here", content)]))


class FewDescriptors(FaultTest):
    """The limit N allows the descriptors below N, of which 0 to 2 are taken."""

    def setUp(self):
        super().setUp()
        self.skip_if_sanitized("the sanitizers take descriptors of their own")
        self.panel.attachment(self.responder, "here", b"an attachment")

    def run_limited_on_the_way(self, limit):
        """A run whose limit is lowered once it waits for its message, with the copy open as 3."""
        reading, writing = os.pipe()
        run = self.start(stdin=reading)
        os.close(reading)
        while not self.temporary_files() and run.process.poll() is None:
            time.sleep(0.001)
        resource.prlimit(run.process.pid, resource.RLIMIT_NOFILE, (limit, limit))
        os.write(writing, MESSAGE)
        os.close(writing)
        return run.finish()

    def test_none_for_the_connection(self):
        for limit in range(4):
            with self.subTest(limit=limit):
                result = self.run_limited_on_the_way(limit)
                self.assert_ended(result, stdout=NO_PASSWORD, stderr=NO_PASSWORD
                                  + b"autoresponder: Unable to connect to the mysql database \n")
                self.assert_nothing_sent(result)
                self.assert_nothing_left(result)
                self.assertEqual(self.panel.frequency_rows(), [])

    def test_one_for_the_connection_but_none_for_a_file(self):
        result = self.run_program(rlimits={"nofile": 4})
        self.assertEqual((result.status, result.signal), (1, None))
        self.assertRegex(result.stderr, b"".join([
            rb"\A", NO_FORWARD, re.escape(NO_PIPE), re.escape(NO_ATTACHMENT), NO_REPLY, SEND_ERROR, rb"\Z"]))
        self.assert_bytes(result.stdout, SEND_ERROR, "standard output")
        self.assert_nothing_sent(result)
        self.assert_counted()
        self.assert_files_left(result, copy=expected.message_copy(MESSAGE))

    def test_one_for_a_file_but_none_beside_the_reply(self):
        """The size limit can't be read either, so there is none."""
        self.panel.databytes("10")
        self.assert_done(self.run_program(rlimits={"nofile": 5}), FORWARD, reply_with(b""),
                         stderr=NO_PIPE + NO_ATTACHMENT)

    def test_one_beside_the_reply_but_none_for_a_pipe(self):
        self.assert_done(self.run_program(rlimits={"nofile": 6}), FORWARD, reply_with(b"an attachment"),
                         stderr=NO_PIPE)

    def test_all_that_a_run_needs(self):
        self.assert_done(self.run_program(rlimits={"nofile": 7}), FORWARD, NOTIFICATION,
                         reply_with(b"an attachment"))

    def test_many_replies_need_no_more(self):
        """What a reply takes it gives back."""
        for _ in range(5):
            responder = self.panel.responder(self.mailbox, text=TEXT)
            self.panel.forward(responder, "a@two.example")
            self.panel.attachment(responder, "gone")
        self.sql("delete from resp_attach where filename='here'")
        result = self.run_program(rlimits={"nofile": 7})
        self.assert_ended(result)
        self.assert_calls(result, *6 * ALL)
        self.assert_nothing_left(result)
