"""Which of a mailbox's responders answer a message: the switch, the keyword, and the defaults of NULL columns.

A case furnishes one mailbox with a responder for each row of a table; its text is the row's name, so
the replies of a single run tell which rows applied.
"""

import base64

import expected
from database_test import (DatabaseTest, attachment_query, count_senders, forget_earlier_days,
                           forward_query, insert_sender, look_sender_up)
from harness import MESSAGE, RECIPIENT, Sql

SENDER = "sam@sender.example"


def message(subject=None, body=b"", headers=b""):
    """A message of Sam's; subject: bytes, None for no such field."""
    field = b"" if subject is None else b"Subject: " + subject + b"\n"
    return b"From: sam@sender.example\n" + field + headers + b"\n" + body


class SelectionTest(DatabaseTest):
    def furnish_rows(self, rows):
        """A mailbox with a responder for each row, a dict of columns by the row's name."""
        self.mailbox = self.panel.mailbox(self.panel.domain())
        for name, columns in rows.items():
            self.panel.responder(self.mailbox, text=name, **columns)

    def assert_answers(self, rows, wanted, text=MESSAGE):
        """Of the responders in rows exactly the wanted ones answer the message, in their order."""
        self.panel.empty()
        self.furnish_rows(rows)
        result = self.run_program(message=text)
        self.assert_ended(result)
        self.assertEqual(self.mail_texts(result), wanted)

    def assert_keywords(self, text, *rows):
        """rows: name, key_where, keystr, whether the responder answers the message"""
        self.assert_answers({name: dict(key_where=where, keystr=key) for name, where, key, _ in rows},
                            [name for name, _, _, answers in rows if answers], text)


class Switch(SelectionTest):
    def test_only_the_exact_word_false_and_null_are_off(self):
        values = {"true": "true", "yes": "yes", "no": "no", "zero": "0", "one": "1", "empty": "",
                  "FALSE": "FALSE", "False": "False", "off": "off", "false": "false", "null": None,
                  "false and a blank": "false ", "blank and false": " false", "falsehood": "falsehood",
                  "fals": "fals"}
        self.assert_answers({name: dict(resp_on=value) for name, value in values.items()},
                            [name for name in values if name not in ("false", "null")])

    def test_a_responder_that_is_off_does_not_stop_the_others(self):
        self.assert_answers({"first": dict(resp_on="false"), "second": {},
                             "third": dict(resp_on=None), "fourth": {}}, ["second", "fourth"])


class SubjectKeyword(SelectionTest):
    def test_is_a_substring_of_the_subject(self):
        self.assert_keywords(
            message(b"Your opening hours", b"The holiday is near.\n"),
            ("at the start", "subj", "Your", True),
            ("within", "subj", "r open", True),
            ("at the end", "subj", "hours", True),
            ("the whole", "subj", "Your opening hours", True),
            ("one character", "subj", "g", True),
            ("empty", "subj", "", True),
            ("null", "subj", None, True),
            ("the whole and more", "subj", "Your opening hours?", False),
            ("in another order", "subj", "hours opening", False),
            ("a wildcard", "subj", "Your%hours", False),
            ("another pattern", "subj", "Your.*hours", False),
            ("a blank more", "subj", "hours ", False),
            ("in the body only", "subj", "holiday", False))

    def test_respects_the_letter_case(self):
        self.assert_keywords(
            message(b"your Opening hours"),
            ("capitalised", "subj", "Your", False),
            ("in lower case", "subj", "opening", False),
            ("in upper case", "subj", "HOURS", False),
            ("as it is written", "subj", "your Opening", True))

    def test_is_looked_for_in_the_decoded_subject(self):
        self.assert_keywords(
            message(b"=?ISO-8859-1?Q?Gr=FC=DFe_aus?= =?UTF-8?B?" + base64.b64encode("Köln".encode()) + b"?="),
            ("decoded", "subj", "Grüße", True),
            ("across the words", "subj", "ausKöln", True),
            ("as sent", "subj", "=?UTF-8?", False),
            ("without the marks", "subj", "Grusse", False),
            ("part of a character", "subj", "K\u00f6", True))

    def test_of_a_message_without_subject_is_found_when_it_is_empty(self):
        self.assert_keywords(
            message(None, b"Hello.\n"),
            ("empty", "subj", "", True),
            ("a blank", "subj", " ", False),
            ("a word", "subj", "Hello", False))


class BodyKeyword(SelectionTest):
    def test_is_a_substring_of_one_line(self):
        self.assert_keywords(
            message(b"holiday", b"When are you\nopen? And where?\n\nYours, Sam"),
            ("in the first line", "body", "When", True),
            ("in a middle line", "body", "? And", True),
            ("in the last line", "body", "Sam", True),
            ("a whole line", "body", "open? And where?", True),
            ("empty", "body", "", True),
            ("null", "body", None, True),
            ("in the subject only", "body", "holiday", False),
            ("in other letter case", "body", "when", False),
            ("across two lines", "body", "you\nopen", False),
            ("across two lines with a blank", "body", "you open", False),
            ("across two lines without", "body", "youopen", False),
            ("a line feed", "body", "\n", False),
            ("a header", "body", "From:", False))

    def test_keeps_the_carriage_returns_of_the_lines(self):
        self.assert_keywords(
            message(b"x", b"first\r\nsecond\r\n"),
            ("with its carriage return", "body", "first\r", True),
            ("without", "body", "second", True),
            ("with the line feed", "body", "first\r\n", False))

    def test_is_looked_for_in_the_decoded_and_recoded_body(self):
        for name, headers, body in [
                ("quoted-printable", b"Content-Transfer-Encoding: quoted-printable\n", b"Gr=FC=DFe a=\nus K=F6ln\n"),
                ("base64", b"Content-Transfer-Encoding: base64\n",
                 base64.b64encode("Grüße aus Köln\n".encode("latin-1")) + b"\n"),
                ("8bit", b"Content-Transfer-Encoding: 8bit\n", "Grüße aus Köln\n".encode("latin-1"))]:
            with self.subTest(name):
                self.assert_keywords(
                    message(b"x", body, b"Content-Type: text/plain; charset=ISO-8859-1\n" + headers),
                    ("decoded", "body", "Grüße aus Köln", True),
                    ("as sent", "body", "=FC", False))

    def test_of_an_empty_body_is_found_when_it_is_empty(self):
        self.assert_keywords(message(b"x"), ("empty", "body", "", True), ("a word", "body", "x", False))

    def test_of_a_message_without_text_is_found_when_it_is_empty(self):
        self.assert_keywords(
            message(b"x", b"%PDF word\n", b"Content-Type: application/pdf\n"),
            ("empty", "body", "", True), ("a word", "body", "word", False))


class NoCondition(SelectionTest):
    def test_any_other_place_than_subj_and_body_means_none(self):
        places = ["no", "", "Subj", "SUBJ", "Body", "BODY", "subject", "sub", " subj", "subj ", "body ",
                  "both", None]
        self.assert_keywords(MESSAGE, *((f"key_where {place!r}", place, "certainly not in it", True)
                                        for place in places))


class Order(SelectionTest):
    def test_replies_come_in_the_databases_row_order(self):
        """A table without keys gives its rows in the order in which they were written."""
        self.sql("alter table mail_resp engine=MyISAM, modify id int unsigned null, drop primary key,"
                 " drop key mn_id")
        mailbox = self.panel.mailbox(self.panel.domain())
        for number in 7, 3, 9, 5:
            self.panel.responder(mailbox, id=number, text=f"responder {number}")
        result = self.run_program()
        self.assert_ended(result)
        self.assertEqual(self.mail_texts(result),
                         ["responder 7", "responder 3", "responder 9", "responder 5"])
        self.assertEqual([row[0] for row in self.panel.frequency_rows()], [7, 3, 9, 5])

    def test_a_responder_that_is_passed_over_for_any_reason_does_not_stop_the_others(self):
        rows = {"off": dict(resp_on="false"), "first": {}, "no keyword in the subject":
                dict(key_where="subj", keystr="nothing like it"), "second": {}, "no keyword in the body":
                dict(key_where="body", keystr="nothing like it"), "third": {}, "limited":
                dict(ans_freq="0"), "fourth": {}}
        self.assert_answers(rows, ["first", "second", "third", "fourth"])

    def test_every_one_of_a_hundred_responders_answers(self):
        names = [f"responder {number}" for number in range(100)]
        self.assert_answers({name: {} for name in names}, names)

    def test_each_forwards_before_it_answers(self):
        first = self.furnish(text="first")
        second = self.panel.responder(self.mailbox, text="second")
        for responder in (first, second):
            self.panel.forward(responder, f"{responder}@forward.example")
        result = self.run_program()
        self.assert_ended(result)
        self.assertEqual([mail.argv[3:] for mail in result.mails],
                         [[f"{first}@forward.example"], [SENDER], [f"{second}@forward.example"], [SENDER]])

    def test_one_that_is_passed_over_neither_forwards_nor_touches_its_counts(self):
        rows = {"off": dict(resp_on="false"), "null": dict(resp_on=None),
                "subject": dict(key_where="subj", keystr="holiday"),
                "body": dict(key_where="body", keystr="holiday")}
        self.furnish_rows(rows)
        responders = [int(row[0]) for row in self.panel.sql("select id from mail_resp order by id")]
        for responder in responders:
            self.panel.forward(responder, "all@forward.example")
            self.panel.answered(responder, SENDER, time_resp=Sql("now() - interval 3 day"))
        result = self.run_program()
        self.assert_ended(result)
        self.assert_nothing_sent(result)
        self.assertEqual(self.panel.frequency_rows(), [(responder, SENDER, 1) for responder in responders])

    def test_one_that_is_limited_does_not_forward(self):
        responder = self.furnish(ans_freq="1")
        self.panel.forward(responder, "all@forward.example")
        self.panel.answered(responder, SENDER)
        result = self.run_program()
        self.assert_ended(result)
        self.assert_nothing_sent(result)

    def test_the_rows_are_those_of_the_query_whatever_happens_to_the_table_meanwhile(self):
        self.furnish_rows({"first": {}, "second": {}, "third": {}})
        self.sendmail("read; run mariadb --no-defaults -uadmin -psandbox-admin qrx -e 'delete from mail_resp'")
        result = self.run_program()
        self.assert_ended(result)
        self.assertEqual(self.mail_texts(result), ["first", "second", "third"])
        self.assertEqual(self.panel.sql("select count(*) from mail_resp"), [(b"0",)], "the rows are gone")


class Defaults(SelectionTest):
    """A responder row that is NULL but for what the case gives."""

    NULLS = dict.fromkeys(("keystr", "key_where", "text", "resp_on", "ans_freq", "mem_limit", "subject",
                           "reply_to", "charset", "content_type"))

    def furnish_nulls(self, **columns):
        return self.furnish(**{**self.NULLS, "resp_on": "true", **columns})

    def test_the_reply_has_those_of_its_columns(self):
        self.furnish_nulls()
        result = self.run_program()
        self.assert_ended(result)
        self.assertEqual(len(result.mails), 1)
        self.assert_bytes(result.mails[0].stdin,
                          b"From: info@example.com\n"
                          b"To: sam@sender.example\n"
                          b"MIME-Version: 1.0\n"
                          b"Subject: Re: Opening hours\n"
                          b'Content-Type: text/plain; charset="UTF-8"\n'
                          b"Content-Transfer-Encoding: 8bit\n"
                          b"Content-Disposition: inline\n"
                          b"\n"
                          b"\n\n\n")

    def test_empty_columns_are_kept_empty(self):
        self.furnish_nulls(content_type="", key_where="", ans_freq="10")
        result = self.run_program()
        self.assert_ended(result)
        self.assert_bytes(result.mails[0].stdin,
                          expected.reply(SENDER, RECIPIENT, "Re: Opening hours", b"", content_type=""))

    def test_of_the_switch_is_off(self):
        self.furnish_nulls(resp_on=None)
        result = self.run_program()
        self.assert_ended(result)
        self.assert_nothing_sent(result)

    def test_of_the_place_is_no_condition(self):
        self.assert_keywords(MESSAGE, ("no place", None, "certainly not in it", True))

    def test_of_the_keyword_is_empty(self):
        self.assert_keywords(MESSAGE, ("subject", "subj", None, True), ("body", "body", None, True))

    def test_of_the_frequency_is_10(self):
        responder = self.furnish_nulls()
        for num, replies in ((8, 1), (9, 1), (10, 0), (11, 0)):
            with self.subTest(answered_before=num):
                self.panel.sql("delete from resp_freq")
                self.panel.answered(responder, SENDER, num=num)
                self.assertEqual(len(self.run_program().mails), replies)

    def test_of_the_memory_is_1000_senders(self):
        responder = self.furnish_nulls()
        for remembered, left in ((998, 999), (999, 1000), (1000, 2), (1001, 2)):
            with self.subTest(remembered=remembered):
                self.panel.sql("delete from resp_freq")
                self.panel.answered(responder, "young@sender.example", time_resp=Sql("now() + interval 1 second"))
                rows = ", ".join([f"({responder}, 'x@sender.example', 1, curdate())"] * (remembered - 1))
                self.panel.sql(f"insert into resp_freq (rn_id, email, num, time_resp) values {rows}")
                self.assertEqual(len(self.run_program().mails), 1)
                self.assertEqual(len(self.panel.frequency_rows()), left)

    def test_of_the_id_is_0(self):
        self.sql("alter table mail_resp modify id int unsigned null, drop primary key")
        mailbox = self.panel.mailbox(self.panel.domain())
        self.panel.responder(mailbox, **self.NULLS | {"resp_on": "true"}, id=None)
        result, statements = self.run_recorded()
        self.assert_ended(result)
        self.assertEqual(len(result.mails), 1)
        self.assertEqual(statements[3:], [
            forget_earlier_days(0), count_senders(0), look_sender_up(0), insert_sender(0),
            forward_query(0), attachment_query(0)])
