"""Whose address a message is answered to, and for whom."""

import address_rules
from harness import MESSAGE, RECIPIENT
from intake_case import FROM, NO_SENDER, SENDER, IntakeTest

NO_RECIPIENT = (b"Could not get recipient e-mail address from RESP_RECIPIENT environment variable\n"
                b"Abnormal exit.\n")


class Sender(IntakeTest):
    # The header block of each message, and whom it is answered to.
    USABLE = {
        "from": ("From: a@b.example\n", "a@b.example"),
        "from with a display name": ("From: J. Doe <a@b.example>\n", "a@b.example"),
        "from with an address for a name": ("From: u@x <a@b.example>\n", "a@b.example"),
        "from with an encoded name": ("From: =?utf-8?Q?J=C3=B6?= <a@b.example>\n", "a@b.example"),
        "field name in any case": ("fRoM: a@b.example\n", "a@b.example"),
        "blanks before the colon": ("From \t: a@b.example\n", "a@b.example"),
        "reply-to before from": ("From: a@b.example\nReply-To: c@d.example\n", "c@d.example"),
        "reply-to without from": ("Reply-To: c@d.example\n", "c@d.example"),
        "reply-to with only a group": (
            "Reply-To: Staff: x@y.example, z@y.example;\nFrom: a@b.example\n", "a@b.example"),
        "reply-to with an empty group": ("Reply-To: Undisclosed: ;\nFrom: a@b.example\n", "a@b.example"),
        "reply-to with a mailbox behind a group": (
            "Reply-To: Staff: x@y.example;, c@d.example\nFrom: a@b.example\n", "c@d.example"),
        "reply-to with an invalid address": ("Reply-To: bad\nFrom: a@b.example\n", "a@b.example"),
        "reply-to with an invalid address first": (
            "Reply-To: bad, c@d.example\nFrom: a@b.example\n", "c@d.example"),
        "reply-to that is empty": ("Reply-To:\nFrom: a@b.example\n", "a@b.example"),
        "reply-to of a comment": ("Reply-To: (none)\nFrom: a@b.example\n", "a@b.example"),
        "first of two reply-tos": (
            "Reply-To: c@d.example\nReply-To: e@f.example\nFrom: a@b.example\n", "c@d.example"),
        "first of two reply-tos though invalid": (
            "Reply-To: bad\nReply-To: e@f.example\nFrom: a@b.example\n", "a@b.example"),
        "first of several from": ("From: a@b.example, c@d.example\n", "a@b.example"),
        "first valid of several from": ("From: Doe, John <a@b.example>\n", "a@b.example"),
        "first of two from fields": ("From: a@b.example\nFrom: c@d.example\n", "a@b.example"),
        "folded": ("From: John\n\tDoe\n <a@b.example>\n", "a@b.example"),
        "folded behind crlf": ("From: John\r\n <a@b.example>\r\n", "a@b.example"),
        "comments and blanks": ("From: (x) a (y) . c (z) @ b (w) . example (v)\n", "a.c@b.example"),
        "nested comment with an address": ("From: (x (y@z.example) \\) <q@r>) a@b.example\n", "a@b.example"),
        "quoted local part": ('From: "q r"@b.example\n', '"q r"@b.example'),
        "quoted local part with an at sign": ('From: "q@r"@b.example\n', '"q@r"@b.example'),
        "domain literal": ("From: a@[192.0.2.1]\n", "a@[192.0.2.1]"),
        "route": ("From: <@x.example,@y.example:a@b.example>\n", "a@b.example"),
        "dots lead, end and double": ("From: .a..b.@b.example.\n", ".a..b.@b.example."),
        "case kept": ("From: John.DOE@B.Example\n", "John.DOE@B.Example"),
        "leading hyphen": ("From: -oQ/tmp@b.example\n", "-oQ/tmp@b.example"),
        "shell characters": ("From: `$id`|&{x}'*@b.example\n", "`$id`|&{x}'*@b.example"),
        "format characters": ("From: %s%n%d@b.example\n", "%s%n%d@b.example"),
        "nul in a quoted local part": ('From: "a\0b"@b.example\n', '"a@b.example'),
        "nul in a domain literal": ("From: a@[192\0.0.2.1]\n", "a@[192"),
        "bytes up to blank part words": ("From: \x01a@b.example\x7f\n", "a@b.example\x7f"),
        "sender and return path are not asked": (
            "Return-Path: <r@s.example>\nSender: s@t.example\nFrom: a@b.example\n", "a@b.example"),
        "other fields before": ("X-Odd\t: x\nReceived: y\n z\nFrom: a@b.example\n", "a@b.example"),
        "header without end": ("From: a@b.example", "a@b.example"),
        "header ended by a line that is no field": (
            "From: a@b.example\nno field\nReply-To: c@d.example\n", "a@b.example"),
    }
    UNUSABLE = {
        "no header at all": "just text\n",
        "header behind an empty line": "\nFrom: a@b.example\n",
        "header behind an mbox line": "From a@b.example Mon Jun 2\nFrom: a@b.example\n",
        "only other fields": "Sender: a@b.example\nTo: c@d.example\n\n",
        "invalid reply-to and no from": "Reply-To: bad\n\n",
        "group in reply-to and no from": "Reply-To: Staff: a@b.example;\n\n",
        "from in the body": "Subject: x\n\nFrom: a@b.example\n",
        "from in a part": "Content-Type: multipart/mixed; boundary=b\n\n--b\nFrom: a@b.example\n\nx\n--b--\n",
        "empty from": "From:\n\n",
        "bare word": "From: bad\n\n",
        "empty angle brackets": "From: <>\n\n",
        "no domain": "From: a@\n\n",
        "no local part": "From: @b.example\n\n",
        "two at signs": "From: a@b@c.example\n\n",
        "two words": "From: a b@c.example\n\n",
        "two words parted by a fold": "From: a\n b@c.example\n\n",
        "missing angle bracket": "From: John <a@b.example\n\n",
        "unterminated comment": "From: a@b.example (comment\n\n",
        "unterminated quoted string": 'From: "John <a@b.example>\n\n',
        "unterminated literal": "From: a@[192.0.2.1\n\n",
        "route without colon": "From: <@x.example a@b.example>\n\n",
        "group in from": "From: Staff: a@b.example;\n\n",
        "nul between words": "From: a\0b@c.example\n\n",
        "continuation without a field": " From: a@b.example\n\n",
    }

    def test_usable(self):
        for name, (header, sender) in self.USABLE.items():
            with self.subTest(name):
                message = header.encode() + (b"\nHello.\n" if header.endswith("\n") else b"")
                self.assertEqual(address_rules.sender_of(message), sender, "by the rules written once more")
                self.assert_answered(self.run_program(message=message), sender)

    def test_unusable(self):
        for name, message in self.UNUSABLE.items():
            with self.subTest(name):
                self.assertIsNone(address_rules.sender_of(message.encode()), "by the rules written once more")
                self.assert_silent(self.run_program(message=message.encode()), NO_SENDER)

    def test_many_addresses_without_a_valid_one(self):
        message = b"From: " + b"bad,\n " * 50000 + b"bad\n\n"
        self.assert_silent(self.run_program(message=message), NO_SENDER)

    def test_the_last_of_many_addresses(self):
        message = b"Reply-To: " + b"bad, g: x@y;,\n " * 20000 + SENDER.encode() + b"\n\n"
        self.assert_answered(self.run_program(message=message))

    def test_deep_nesting(self):
        message = b"From: " + b"(" * 200000 + b")" * 200000 + SENDER.encode() + b"\n\n"
        self.assert_answered(self.run_program(message=message))


class Recipient(IntakeTest):
    def test_unset(self):
        self.assert_silent(self.run_program(recipient=None), NO_RECIPIENT)

    def test_unset_and_no_sender_is_the_senders_failure(self):
        self.assert_silent(self.run_program(message=b"\n", recipient=None), NO_SENDER)

    def test_unset_is_found_before_the_text_is_looked_at(self):
        message = FROM + b"Subject: =?x-none?Q?a?=\nContent-Type: text/plain; charset=x-none\n\ntext\n"
        self.assert_silent(self.run_program(message=message, recipient=None), NO_RECIPIENT)

    def test_empty_is_accepted(self):
        self.assert_silent(self.run_program(recipient=""), b"autoresponder: Mailname not found: @\n")

    def test_without_an_at_sign_it_is_both_mailname_and_domain(self):
        self.assert_silent(self.run_program(recipient="postmaster"),
                           b"autoresponder: Mailname not found: postmaster@postmaster\n")
        mailbox = self.panel.mailbox(self.panel.domain("postmaster"), "postmaster")
        self.panel.responder(mailbox, text="Thank you.\n")
        self.assert_answered(self.run_program(message=FROM + b"\n", recipient="postmaster"),
                             recipient="postmaster")

    def test_two_at_signs_split_at_the_first(self):
        self.panel.responder(self.panel.mailbox(self.panel.domain("b@c.example"), "a"), text="Thank you.\n")
        self.panel.responder(self.panel.mailbox(self.panel.domain("c.example"), "a@b"), text="never")
        self.assert_answered(self.run_program(message=FROM + b"\n", recipient="a@b@c.example"),
                             recipient="a@b@c.example")

    def test_two_at_signs_are_both_shown(self):
        self.assert_silent(self.run_program(recipient="a@b@c.example"),
                           b"autoresponder: Mailname not found: a@b@c.example\n")

    def test_a_missing_half_is_empty(self):
        for recipient in ("@example.com", "info@", "@", "@@"):
            with self.subTest(recipient):
                self.assert_silent(self.run_program(recipient=recipient),
                                   f"autoresponder: Mailname not found: {recipient}\n".encode())

    def test_it_is_taken_as_it_stands(self):
        for recipient in (" info@example.com", "<info@example.com>", "'; drop table mail; --@x", "%s%n@%d",
                          "caf\xe9@example.com", "\udcff\udc80@\udcfe", "a\nb@c\td"):
            with self.subTest(recipient):
                self.assert_silent(
                    self.run_program(recipient=recipient),
                    f"autoresponder: Mailname not found: {recipient}\n".encode(errors="surrogateescape"))

    def test_a_very_long_one(self):
        recipient = "x" * 60000 + "@" + "y" * 60000
        self.assert_silent(self.run_program(recipient=recipient),
                           f"autoresponder: Mailname not found: {recipient}\n".encode())

    def test_the_messages_own_addressees_are_not_looked_at(self):
        message = FROM + b"To: other@example.com\nDelivered-To: third@example.com\n\n"
        self.assert_answered(self.run_program(message=message), recipient=RECIPIENT)


class StoredCopy(IntakeTest):
    HEAD = b"From: sam@sender.example\nSubject: copy\n"
    MESSAGES = {
        "ending in a line feed": HEAD + b"\none\ntwo\n",
        "ending without one": HEAD + b"\none\ntwo",
        "ending in empty lines": HEAD + b"\none\n\n\n",
        "empty body": HEAD + b"\n",
        "header alone": HEAD,
        "header without line end": HEAD.rstrip(),
        "crlf": (HEAD + b"\none\ntwo\n").replace(b"\n", b"\r\n"),
        "lone carriage returns": HEAD + b"\none\rtwo\r\rthree\r",
        "nul bytes": HEAD + b"X-Nul: \0\n\n\0one\0\n\0\0\n",
        "all bytes": HEAD + b"\n" + bytes(range(256)) * 3,
        "leading from lines": HEAD + b"\nFrom here\n>From there\n.\n..\n",
        "one very long line": HEAD + b"\n" + b"x" * (1 << 20),
        "64 KiB to the byte": HEAD + b"\n" + b"y" * ((1 << 16) - len(HEAD) - 1),
        "64 KiB and one line feed": HEAD + b"\n" + b"y" * ((1 << 16) - len(HEAD) - 1) + b"\n",
        "many short lines": HEAD + b"\n" + b"\n" * 300000,
        "large": HEAD + b"\n" + b"A line of a large message, with a little \xfftext.\n" * 100000,
    }

    def test_it_is_the_message_and_one_line_feed(self):
        self.forward()
        for name, message in self.MESSAGES.items():
            with self.subTest(name):
                result = self.run_program(message=message)
                self.assert_ended(result)
                self.assertEqual([mail.argv[3:] for mail in result.mails],
                                 [["archive@example.com"], [SENDER]])
                self.assert_forwarded(result, message)
                self.assert_nothing_left(result)

    def test_it_lies_in_tmp_under_a_name_of_its_own(self):
        self.forward()
        names = [self.run_program().mails[0].fds[0] for _ in range(2)]
        for name in names:
            self.assertRegex(name, r"\A/tmp/qrx-autoresponder-[A-Za-z0-9]{6}\Z")
        self.assertNotEqual(*names)


class OddInput(IntakeTest):
    def test_empty(self):
        self.assert_silent(self.run_program(message=b""), NO_SENDER)

    def test_line_ends_alone(self):
        for message in (b"\n", b"\r\n", b"\n\n\n", b"\r"):
            with self.subTest(message):
                self.assert_silent(self.run_program(message=message), NO_SENDER)

    def test_nul_bytes_alone(self):
        self.assert_silent(self.run_program(message=b"\0" * 100000), NO_SENDER)

    def test_a_header_of_many_fields(self):
        message = b"X-Filler: some text\n" * 200000 + FROM + b"Subject: behind them\n\n"
        self.assert_answered(self.run_program(message=message), subject="behind them")

    def test_a_header_of_one_endless_field(self):
        message = FROM + b"X-Filler: " + b"some text\n " * 400000 + b"\nSubject: behind it\n\n"
        self.assert_answered(self.run_program(message=message), subject="behind it")

    def test_a_crlf_message(self):
        message = MESSAGE.replace(b"\n", b"\r\n")
        self.assert_answered(self.run_program(message=message), subject="Opening hours")

    def test_a_message_of_control_characters(self):
        message = FROM + b"Subject: x\n" + bytes(range(1, 10)) * 1000 + b":\n\n" + bytes(range(32)) * 1000
        self.assert_answered(self.run_program(message=message), subject="x")
