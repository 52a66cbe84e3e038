"""Forwarding: the message as it came, to all addresses of the responder, before its reply."""

import pathlib

import expected
from harness import MESSAGE, NOBODY, RECIPIENT, SystemTest

SENDER = "sam@sender.example"
REPLY = expected.reply(SENDER, RECIPIENT, "Re: Opening hours", b"Hello\n")
REPLY_ARGUMENTS = ["/usr/sbin/sendmail", "-f", RECIPIENT, SENDER]


def forward_arguments(*addresses, sender=RECIPIENT):
    return ["/usr/sbin/sendmail", "-f", sender, *addresses]


class Forward(SystemTest):
    def setUp(self):
        super().setUp()
        self.responder = self.furnish(text="Hello\n")

    def forward_to(self, *addresses):
        for address in addresses:
            self.panel.forward(self.responder, address)

    def assert_calls(self, result, *arguments):
        self.assertEqual([mail.argv for mail in result.mails], list(arguments))

    def assert_only_replied(self, result):
        self.assert_calls(result, REPLY_ARGUMENTS)
        self.assert_bytes(result.mails[0].stdin, REPLY)

    def test_without_addresses_nothing_is_started(self):
        result = self.run_program()
        self.assert_ended(result)
        self.assert_only_replied(result)

    def test_one_child_for_all_addresses_in_the_databases_order(self):
        self.forward_to("b@one.example", "a@two.example", "c@three.example")
        result = self.run_program()
        self.assert_ended(result)
        self.assert_calls(result, forward_arguments("b@one.example", "a@two.example", "c@three.example"),
                          REPLY_ARGUMENTS)
        self.assert_bytes(result.mails[0].stdin, expected.message_copy(MESSAGE))
        self.assert_bytes(result.mails[1].stdin, REPLY)
        self.assert_nothing_left(result)

    def test_the_forward_has_ended_before_the_reply_begins(self):
        self.forward_to("a@two.example")
        self.sendmail("read; sleep 0.2", "read")
        forward, reply = self.run_program().mails
        self.assertLessEqual(forward.end, reply.start)

    def test_the_message_goes_out_byte_for_byte(self):
        self.forward_to("a@two.example")
        for message in (b"From: sam@sender.example\r\nSubject: Opening hours\r\n\r\nx\r\n",
                        b"From: sam@sender.example\nSubject: Opening hours\n\nno end",
                        b"From: sam@sender.example\nSubject: Opening hours\n\n\0\xff\r\r\n\n\n",
                        b"From: sam@sender.example\nSubject: Opening hours\n\n" + b"y" * 300000):
            with self.subTest(message[-20:]):
                result = self.run_program(message=message)
                self.assert_bytes(result.mails[0].stdin, message + b"\n")

    def test_null_is_left_out_and_an_empty_address_kept(self):
        self.forward_to(None, "", None, "a@two.example")
        self.assert_calls(self.run_program(), forward_arguments("", "a@two.example"), REPLY_ARGUMENTS)

    def test_only_nulls_are_no_addresses(self):
        self.forward_to(None, None)
        self.assert_only_replied(self.run_program())

    def test_an_address_that_begins_with_a_dash_stands_as_it_is(self):
        self.forward_to("-bv", "a@two.example")
        self.assert_calls(self.run_program(), forward_arguments("-bv", "a@two.example"), REPLY_ARGUMENTS)

    def test_an_address_is_one_argument_whatever_is_in_it(self):
        self.forward_to("a b; $(c) 'd' @two.example")
        self.assert_calls(self.run_program(), forward_arguments("a b; $(c) 'd' @two.example"),
                          REPLY_ARGUMENTS)

    def test_many_addresses(self):
        addresses = [f"a{number}@two.example" for number in range(2000)]
        self.forward_to(*addresses)
        self.assert_calls(self.run_program(), forward_arguments(*addresses), REPLY_ARGUMENTS)

    def test_the_recipient_is_not_converted(self):
        mailbox = self.panel.mailbox(self.panel.domain("bücher.example"))
        self.panel.forward(self.panel.responder(mailbox), "a@two.example")
        result = self.run_program(recipient="info@bücher.example")
        self.assertEqual(result.mails[0].argv,
                         forward_arguments("a@two.example", sender="info@bücher.example"))

    def test_each_responder_to_its_own_list(self):
        self.forward_to("a@two.example")
        second = self.panel.responder(self.mailbox, text="two")
        self.panel.forward(second, "b@three.example")
        result = self.run_program()
        self.assert_calls(result, forward_arguments("a@two.example"), REPLY_ARGUMENTS,
                          forward_arguments("b@three.example"), REPLY_ARGUMENTS)
        for number in (0, 2):
            self.assert_bytes(result.mails[number].stdin, expected.message_copy(MESSAGE))

    def test_who_does_not_answer_does_not_forward(self):
        for column, value in (("ans_freq", "0"), ("resp_on", "false"), ("key_where", "subj")):
            with self.subTest(column):
                self.setUp()
                self.forward_to("a@two.example")
                self.sql(f"update mail_resp set keystr='Opening Hours', {column}=%s", value)
                result = self.run_program()
                self.assert_ended(result)
                self.assert_nothing_sent(result)

    def test_a_used_up_limit_forwards_nothing(self):
        self.forward_to("a@two.example")
        self.panel.answered(self.responder, SENDER, num=10)
        result = self.run_program()
        self.assert_ended(result)
        self.assert_nothing_sent(result)

    def test_a_failed_query_ends_the_run(self):
        self.drop_table("resp_forward")
        result = self.run_program()
        self.assert_ended(result, stderr=b"autoresponder: Unable to exec query :"
                                         b"Table 'qrx.resp_forward' doesn't exist\n")
        self.assert_nothing_sent(result)
        self.assert_nothing_left(result)
        self.assertEqual(len(self.panel.frequency_rows()), 1)

    def test_a_sendmail_that_fails_does_not_stop_the_reply(self):
        self.forward_to("a@two.example")
        for behaviour in ("read; exit 75", "exit 1", "signal 9", "close; exit 0"):
            with self.subTest(behaviour):
                self.sendmail(behaviour, "read")
                result = self.run_program()
                self.assert_ended(result)
                self.assertEqual(len(result.mails), 2)
                self.assert_bytes(result.mails[1].stdin, REPLY)

    def test_a_stopped_sendmail_does_not_hold_the_run(self):
        self.forward_to("a@two.example")
        self.sendmail("stop", "read")
        result = self.run_program(allow_left=True, timeout=20)
        self.assert_ended(result)
        self.assert_bytes(result.mails[-1].stdin, REPLY)

    def test_the_child_has_no_other_descriptors(self):
        self.forward_to("a@two.example")
        mail = self.run_program().mails[0]
        self.assertEqual(sorted(mail.fds), [0, 1, 2])
        self.assertRegex(mail.fds[0], r"\A/tmp/qrx-autoresponder-\w{6}")
        self.assertEqual(mail.ignored, set())


class CopyGone(SystemTest):
    """The copy of the message is gone or another's when the second responder comes to forward it."""

    def run_with(self, deed):
        first = self.furnish(text="Hello\n")
        second = self.panel.responder(self.mailbox, text="Hello\n")
        for responder in (first, second):
            self.panel.forward(responder, "a@two.example")
        self.sendmail(f"read; run f=$(ls /tmp/qrx-autoresponder-*) && {deed}", "read")
        return self.run_program()

    def assert_not_forwarded_again(self, result, reason):
        self.assertEqual((result.status, result.stdout), (0, b""))
        self.assertRegex(result.stderr,
                         rb"\Aautoresponder: Failed to open temporary file with forward mail contents "
                         rb"'/tmp/qrx-autoresponder-\w{6}': " + reason + rb"\n\Z")
        self.assertEqual([mail.argv for mail in result.mails],
                         [forward_arguments("a@two.example"), REPLY_ARGUMENTS, REPLY_ARGUMENTS])
        self.assert_nothing_left(result)

    def test_removed(self):
        self.assert_not_forwarded_again(self.run_with("rm $f"), rb"No such file or directory \(2\)")

    def test_replaced_by_a_link(self):
        secret = pathlib.Path("/sandbox/secret")
        secret.write_text("secret\n")
        self.assert_not_forwarded_again(self.run_with("rm $f && ln -s /sandbox/secret $f"),
                                        rb"Too many levels of symbolic links \(40\)")
        self.assertEqual(secret.read_text(), "secret\n")

    def test_replaced_by_another_users_file(self):
        self.need_other_users()
        self.assert_not_forwarded_again(self.run_with(f"rm $f && echo x > $f && chown {NOBODY} $f"),
                                        rb"Permission denied \(13\)")
