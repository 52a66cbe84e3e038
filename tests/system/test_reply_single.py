"""The reply without attachments: its header lines, its text in the responder's charset, its subject."""

import expected
from harness import RECIPIENT, Sql, SystemTest

SENDER = "sam@sender.example"
SUBJECT = "Re: Opening hours"


class SinglePartReply(SystemTest):
    def reply(self, **columns):
        """The one mail that a responder with these columns sends."""
        self.furnish(**columns)
        result = self.run_program()
        self.assert_ended(result)
        self.assertEqual(len(result.mails), 1)
        return result.mails[0].stdin

    def assert_send_error(self, message, **columns):
        """The reply ends in the reporter: both streams, status 1, both temporary files left."""
        self.furnish(**columns)
        result = self.run_program(argv0="autoresponder")
        self.assertEqual(result.status, 1)
        for stream in (result.stderr, result.stdout):
            self.assertRegex(stream, rb"\Aautoresponder: " + message + rb"\n(System error \d+: .*\n)?\Z")
        self.assert_nothing_sent(result)
        self.assertEqual(len(result.tmp), 2)
        self.assertEqual([file.mode & 0o777 for file in result.tmp], [0o600, 0o600])

    def test_every_line_in_its_order(self):
        self.assert_bytes(self.reply(text="Hello\n"),
                          b"From: info@example.com\n"
                          b"To: sam@sender.example\n"
                          b"MIME-Version: 1.0\n"
                          b"Subject: Re: Opening hours\n"
                          b'Content-Type: text/plain; charset="UTF-8"\n'
                          b"Content-Transfer-Encoding: 8bit\n"
                          b"Content-Disposition: inline\n"
                          b"\n"
                          b"Hello\n"
                          b"\n\n\n")

    def test_reply_to_comes_first_as_it_is_stored(self):
        stored = '"Büro, 2nd floor" <büro@bücher.example>'
        self.assert_bytes(self.reply(text="Hello\n", reply_to=stored),
                          expected.reply(SENDER, RECIPIENT, SUBJECT, b"Hello\n", reply_to=stored))

    def test_three_line_feeds_follow_a_text_without_one(self):
        self.assertTrue(self.reply(text="last words").endswith(b"\n\nlast words\n\n\n"))

    def test_an_empty_text(self):
        self.assert_bytes(self.reply(text=""), expected.reply(SENDER, RECIPIENT, SUBJECT, b""))

    def test_carriage_returns_of_the_text_are_kept(self):
        self.assert_bytes(self.reply(text="a\r\nb\r\n"),
                          expected.reply(SENDER, RECIPIENT, SUBJECT, b"a\r\nb\r\n"))

    def writes_to(self, name, **columns):
        """How often a run with this responder writes to its temporary file of that name."""
        responder = self.furnish(**columns)
        self.panel.attachment(responder, "small.bin", b"x" * 1000)
        trace = self.run_program(strace=["-y", "-e", "trace=write,writev,pwrite64", "-e", "signal=none"]).trace
        return sum(f"/tmp/{name}" in line for line in trace.splitlines())

    def test_header_text_and_attachments_that_fit_a_block_are_one_write(self):
        self.assertEqual(self.writes_to("qrx-response-uu-", text="x" * 40000), 1)

    def test_the_copy_of_a_message_that_fits_a_block_is_one_write(self):
        self.assertEqual(self.writes_to("qrx-autoresponder-"), 1)

    def test_a_text_larger_than_any_block(self):
        text = "".join(f"line {number}\n" for number in range(60000))
        self.assert_bytes(self.reply(text=text),
                          expected.reply(SENDER, RECIPIENT, SUBJECT, text.encode()))

    def test_the_content_type_stands_as_stored(self):
        self.assert_bytes(self.reply(text="<p>x</p>", content_type="text/html; x=y"),
                          expected.reply(SENDER, RECIPIENT, SUBJECT, b"<p>x</p>",
                                         content_type="text/html; x=y"))

    def test_the_text_is_no_template(self):
        self.assert_bytes(self.reply(text="<request_from>"),
                          expected.reply(SENDER, RECIPIENT, SUBJECT, b"<request_from>"))

    def test_the_text_in_the_responders_charset(self):
        for charset in ("koi8-r", "KOI8-R", "windows-1251", "utf-16le"):
            with self.subTest(charset):
                self.setUp()
                text = "Здравствуйте!\n"
                self.assert_bytes(
                    self.reply(text=text, charset=charset),
                    expected.reply(SENDER, RECIPIENT, SUBJECT, text.encode(charset), charset=charset))

    def test_each_byte_that_the_charset_has_no_place_for_is_a_question_mark(self):
        self.assert_bytes(self.reply(text="5 € für Ж\n", charset="iso-8859-1"),
                          expected.reply(SENDER, RECIPIENT, SUBJECT, b"5 ??? f\xfcr ??\n",
                                         charset="iso-8859-1"))

    def test_an_unknown_charset_ends_the_run(self):
        self.assert_send_error(rb"Send error: Cannot convert from UTF-8 to no-such-charset",
                               charset="no-such-charset")

    def test_an_unfinished_character_ends_the_run(self):
        self.sql("alter table mail_resp modify text longblob")
        self.assert_send_error(rb"Send error: Conversion from UTF-8 to koi8-r",
                               text=Sql("unhex('63757420d0')"), charset="koi8-r")

    def test_a_recipient_in_an_internationalised_domain(self):
        domain = self.panel.domain("bücher.example")
        self.panel.responder(self.panel.mailbox(domain, "info"), text="x")
        result = self.run_program(recipient="info@bücher.example")
        self.assert_ended(result)
        # The whole address is converted, so that its first label is "info@bücher".
        ascii_form = "xn--info@bcher-feb.example"
        self.assert_bytes(result.mails[0].stdin, expected.reply(SENDER, ascii_form, SUBJECT, b"x"))
        self.assertEqual(result.mails[0].argv, ["/usr/sbin/sendmail", "-f", ascii_form, SENDER])

    def test_a_recipient_without_an_ascii_form_ends_the_run(self):
        label = "x" * 64
        domain = self.panel.domain(f"{label}.example")
        self.panel.responder(self.panel.mailbox(domain, "info"))
        result = self.run_program(recipient=f"info@{label}.example", argv0="autoresponder")
        self.assertEqual(result.status, 1)
        for stream in (result.stderr, result.stdout):
            self.assertRegex(stream, rb"\Aautoresponder: IDN conversion error: Invalid length\n"
                                     rb"(System error \d+: .*\n)?\Z")
        self.assert_nothing_sent(result)
        self.assertEqual(len(result.tmp), 2)


class Subject(SystemTest):
    """The subject: from the incoming message, or from the responder's template."""

    def subject(self, template, incoming=b"Subject: Opening hours\n"):
        self.furnish(subject=template, text="x")
        result = self.run_program(message=b"From: sam@sender.example\n" + incoming + b"\nHello\n")
        self.assert_ended(result)
        headers = result.mails[0].stdin.split(b"\n\n")[0].split(b"\n")
        found = [line for line in headers if line.startswith(b"Subject: ")]
        self.assertEqual(len(found), 1)
        return found[0].removeprefix(b"Subject: ").decode()

    def test_without_a_template_re_and_the_incoming_subject(self):
        self.assertEqual(self.subject(""), "Re: Opening hours")

    def test_without_either(self):
        self.assertEqual(self.subject("", incoming=b""), "Re: ")

    def test_an_encoded_incoming_subject_is_decoded_and_encoded_anew(self):
        self.assertEqual(self.subject("", b"Subject: =?iso-8859-1?Q?Gr=FC=DFe?=\n"),
                         "=?utf-8?Q?Re:_Gr=C3=BC=C3=9Fe?=")

    def test_each_variable(self):
        for variable, value in (("incoming_message_subject", "Opening hours"),
                                ("orig_emails_sender_mailname", "sam@sender.example"),
                                ("orig_emails_subj", "Opening hours"),
                                ("request_from", "sam@sender.example"),
                                ("request_subject", "Opening hours")):
            with self.subTest(variable):
                self.setUp()
                self.assertEqual(self.subject(f"About <{variable}>."), f"About {value}.")

    def test_an_unknown_variable_stays(self):
        self.assertEqual(self.subject("a <nobody> b <request_from>"), "a <nobody> b sam@sender.example")

    def test_a_second_opening_mark_spoils_the_name(self):
        self.assertEqual(self.subject("<<request_from>"), "=?utf-8?Q?<<request=5Ffrom>?=")

    def test_marks_without_a_name_stay(self):
        self.assertEqual(self.subject("a <> b < c"), "a <> b < c")

    def test_at_most_999_characters(self):
        for template, wanted in (("x" * 998, "x" * 998), ("x" * 999, "x" * 999), ("x" * 1000, "x" * 999),
                                 ("x" * 990 + "<request_from>", "x" * 990 + "sam@sende"),
                                 ("x" * 999 + "<request_from>", "x" * 999)):
            with self.subTest(length=len(template)):
                self.setUp()
                self.assertEqual(self.subject(template), wanted)

    def test_a_value_ends_at_its_nul_byte_while_re_keeps_it(self):
        incoming = b"Subject: =?utf-8?Q?a=00b?=\n"
        self.assertEqual(self.subject("<request_subject>", incoming), "a")
        self.setUp()
        self.assertEqual(self.subject("", incoming), "=?utf-8?Q?Re:_a=00b?=")

    def test_line_feeds_in_a_subject_never_reach_the_header(self):
        self.assertEqual(self.subject("<request_subject>", b"Subject: =?utf-8?Q?a=0ABcc:_x?=\n"),
                         "=?utf-8?Q?a=0ABcc:_x?=")
