"""The subject of a message, decoded: as the reply repeats it and as the keyword condition searches it."""

import base64

from intake_case import FROM, IntakeTest

NOT_DECODED = b"Could not convert message subject text from US-ASCII to UTF-8.\n"


def b_word(text, charset="utf-8"):
    return f"=?{charset}?B?{base64.b64encode(text.encode(charset)).decode()}?="


class Subject(IntakeTest):
    def assert_subjects(self, table):
        """table: name -> (Subject: field with its line end, decoded subject, lines on standard error)"""
        for name, (field, subject, stderr) in table.items():
            with self.subTest(name):
                message = field.encode(errors="surrogateescape") + FROM + b"\n"
                self.assert_answered(self.run_program(message=message), subject=subject, stderr=stderr)

    def test_plain_text(self):
        self.assert_subjects({
            "none": ("", "", b""),
            "empty": ("Subject:\n", "", b""),
            "blank": ("Subject:  \t \n", "", b""),
            "one word": ("Subject: Question\n", "Question", b""),
            "no blank behind the colon": ("Subject:Question\n", "Question", b""),
            "field name in any case": ("sUBJECT : Question\n", "Question", b""),
            "the first of two": ("Subject: one\nSubject: two\n", "one", b""),
            "blanks around it": ("Subject: \t Question \t\n", "Question", b""),
            "blanks inside it": ("Subject: plain  text\tof  words\n", "plain  text\tof  words", b""),
            "folded": ("Subject: a\n b\n\tc\n", "a b\tc", b""),
            "folded in crlf": ("Subject: a\r\n b\r\n", "a b", b""),
            "raw 8-bit text": ("Subject: caf\udce9 \udcc3\udca9\n", "caf\udce9 \udcc3\udca9", b""),
            "a nul byte": ("Subject: a\0b\n", "a\0b", b""),
            "control characters": ("Subject: a\x01\x7f\rb\n", "a\x01\x7f\rb", b""),
            "template variables": ("Subject: <request_from> %s%n\n", "<request_from> %s%n", b""),
            "another charset's body": (
                "Content-Type: text/plain; charset=koi8-r\nSubject: Question\n", "Question", b""),
        })

    def test_encoded_words(self):
        self.assert_subjects({
            "Q": ("Subject: =?utf-8?Q?a_b=41?=\n", "a bA", b""),
            "q": ("Subject: =?utf-8?q?=c3=A9?=\n", "\u00e9", b""),
            "B": ("Subject: =?utf-8?B?QUJD?=\n", "ABC", b""),
            "b": ("Subject: =?UTF-8?b?w6k=?=\n", "\u00e9", b""),
            "B of one byte": ("Subject: =?utf-8?B?QQ==?=\n", "A", b""),
            "B of two bytes": ("Subject: =?utf-8?B?QUI=?=\n", "AB", b""),
            "B without padding": ("Subject: =?utf-8?B?QUI?=\n", "AB", b""),
            "B behind its padding": ("Subject: =?utf-8?B?QQ==QUJD?=\n", "A", b""),
            "B with carriage returns, which count as symbols": ("Subject: =?utf-8?B?QQ\r\r==?=\n", "A\0\0", b""),
            "B with one behind a whole group": ("Subject: =?utf-8?B?QUJD\r?=\n", "ABC\0", b""),
            "any other encoding": ("Subject: =?utf-8?X?abc?=\n", "", b""),
            "no encoding": ("Subject: =?utf-8??abc?=\n", "", b""),
            "no data": ("Subject: =?utf-8?Q??=\n", "", b""),
            "latin-1": ("Subject: =?ISO-8859-1?Q?caf=E9?=\n", "caf\u00e9", b""),
            "beyond the basic plane": (f"Subject: {b_word('😀')}\n", "😀", b""),
            "koi8-r": (f"Subject: {b_word('Привет', 'koi8-r')}\n", "Привет", b""),
            "gb2312": (f"Subject: {b_word('你好', 'gb2312')}\n", "你好", b""),
            "iso-2022-jp": (f"Subject: {b_word('日本', 'iso-2022-jp')}\n", "日本", b""),
            "charset in any case": ("Subject: =?Windows-1252?Q?=80?=\n", "\u20ac", b""),
            "empty charset, which is the C locale's": ("Subject: =??Q?a?=\n", "a", b""),
            "two charsets": ("Subject: =?iso-8859-1?Q?=E9?= =?koi8-r?Q?=C1?=\n", "\u00e9\u0430", b""),
            "raw 8-bit data": ("Subject: =?iso-8859-1?Q?\udce9?=\n", "\u00e9", b""),
            "invalid bytes": ("Subject: =?utf-8?Q?a=FFb=C3x?=\n", "a?b?x", b""),
            "8-bit text in us-ascii": ("Subject: =?us-ascii?Q?caf=E9?=\n", "caf?", b""),
            "an equals sign at the end": ("Subject: =?utf-8?Q?a=?=\n", "a\0", b""),
            "one hexadecimal digit": ("Subject: =?utf-8?Q?a=4?=\n", "a\x04", b""),
            "a sign and a digit": ("Subject: =?utf-8?Q?=+4=-1?=\n", "\x04?", b""),
            "a hexadecimal prefix": ("Subject: =?utf-8?Q?a=0xb?=\n", "a\0b", b""),
            "half a number": ("Subject: =?utf-8?Q?=4Zx?=\n", "\x04x", b""),
            "longer than one block of output": (
                f"Subject: {b_word('é' * 9000, 'iso-8859-1')}\n", "é" * 9000, b""),
        })

    def test_blanks_around_encoded_words(self):
        self.assert_subjects({
            "between two": ("Subject: =?utf-8?Q?a?= =?utf-8?Q?b?=\n", "ab", b""),
            "several and tabs": ("Subject: =?utf-8?Q?a?= \t  =?utf-8?Q?b?=\n", "ab", b""),
            "folded": ("Subject: =?utf-8?Q?a?=\n =?utf-8?Q?b?=\n\t=?utf-8?Q?c?=\n", "abc", b""),
            "before text": ("Subject: =?utf-8?Q?a?= x\n", "a x", b""),
            "behind text": ("Subject: x \t=?utf-8?Q?a?=\n", "x \ta", b""),
            "text between": ("Subject: =?utf-8?Q?a?= x =?utf-8?Q?b?=\n", "a x b", b""),
            "at the end": ("Subject: =?utf-8?Q?a?= \t \n", "a", b""),
            "at the end, folded": ("Subject: =?utf-8?Q?a?=\n \n\t\n", "a", b""),
            "before what only begins like a word": (
                "Subject: =?utf-8?Q?a?= =?x\n", "a=?x", b"wrong rfc1522 sequence (no charset): =?x\n"),
            "behind what only ends like a word": ("Subject: x?= =?utf-8?Q?a?=\n", "x?=a", b""),
            "behind a text of two characters": ("Subject: ?= =?utf-8?Q?a?=\n", "?=a", b""),
            "before a single equals sign": ("Subject: =?utf-8?Q?a?= =\n", "a =", b""),
            "a word inside text": ("Subject: x=?utf-8?Q?a?=\n", "x=?utf-8?Q?a?=", b""),
        })

    def test_malformed_encoded_words_are_told_and_kept(self):
        wrong = b"wrong rfc1522 sequence "
        self.assert_subjects({
            "no charset": ("Subject: =?abc\n", "=?abc", wrong + b"(no charset): =?abc\n"),
            "nothing": ("Subject: x =? y\n", "x =? y", wrong + b"(no charset): =?\n"),
            "no encoding": ("Subject: =?utf-8?Q\n", "=?utf-8?Q", wrong + b"(no encoding): =?utf-8?Q\n"),
            "no data": ("Subject: =?utf-8?Q?abc?\n", "=?utf-8?Q?abc?", wrong + b"(no data): =?utf-8?Q?abc?\n"),
            "no end of its own": ("Subject: =?utf-8?Q?=\n", "=?utf-8?Q?=", wrong + b"(no data): =?utf-8?Q?=\n"),
            "blank in the data": (
                "Subject: =?utf-8?Q?a b?=\n", "=?utf-8?Q?a b?=", wrong + b"(no data): =?utf-8?Q?a\n"),
            "trailing text": (
                "Subject: =?utf-8?B?QUJD?=, x\n", "ABC, x",
                wrong + b"(trailing stuff): =?utf-8?B?QUJD?=,\n"),
            "trailing word": (
                "Subject: =?utf-8?Q?a?==?utf-8?Q?b?=\n", "a=?utf-8?Q?b?=",
                wrong + b"(trailing stuff): =?utf-8?Q?a?==?utf-8?Q?b?=\n"),
            "bad hexadecimal digits": (
                "Subject: =?utf-8?Q?=ZZ?=\n", "\0", b"Bad hex in quoted-printable string: ZZ\n"),
            "one bad digit at the end": (
                "Subject: =?utf-8?Q?a=G?=\n", "a\0", b"Bad hex in quoted-printable string: G\n"),
            "bad base64": ("Subject: =?utf-8?B?Q!UJD?=\n", "ABC", b"Bad base64 symbol: !\n"),
            "bad 8-bit base64": ("Subject: =?utf-8?B?QUJD\udce9?=\n", "ABC\0", b"Bad base64 symbol: \xe9\n"),
            "two in one subject": (
                "Subject: =?a =?b\n", "=?a =?b",
                wrong + b"(no charset): =?a\n" + wrong + b"(no charset): =?b\n"),
            "format characters": ("Subject: =?%s%n\n", "=?%s%n", wrong + b"(no charset): =?%s%n\n"),
        })

    def test_what_cannot_be_decoded_is_told_and_leaves_an_empty_subject(self):
        self.assert_subjects({
            "unknown charset": ("Subject: =?x-none?Q?a?=\n", "", NOT_DECODED),
            "unknown charset without data": ("Subject: =?x-none?Q??=\n", "", NOT_DECODED),
            "unknown charset and unknown encoding": ("Subject: =?x-none?X?a?=\n", "", NOT_DECODED),
            "one of several": ("Subject: Hello =?utf-8?Q?a?= =?x-none?Q?b?= c\n", "", NOT_DECODED),
            "incomplete character": ("Subject: =?utf-8?Q?caf=C3?=\n", "", NOT_DECODED),
            "character parted by two words": (
                "Subject: =?utf-8?B?w6?= =?utf-8?B?qQ==?=\n", "", NOT_DECODED),
            "behind a warning": (
                "Subject: =?abc =?x-none?Q?a?=\n", "",
                b"wrong rfc1522 sequence (no charset): =?abc\n" + NOT_DECODED),
        })

    def test_the_charset_told_is_the_bodys_as_written(self):
        for header, charset in (("Content-Type: text/plain; charset=Utf-8", b"Utf-8"),
                                ("Content-Type: text/plain", b"US-ASCII"),
                                ("Content-Type: image/png; charset=utf-8", b"US-ASCII")):
            with self.subTest(header):
                message = FROM + f"Subject: =?x-none?Q?a?=\n{header}\n\n".encode()
                self.assert_answered(self.run_program(message=message), stderr=(
                    b"Could not convert message subject text from " + charset + b" to UTF-8.\n"))


class SubjectKeyword(IntakeTest):
    def test_it_is_searched_as_decoded(self):
        message = FROM + b"Subject: =?iso-8859-1?Q?Caf=E9?= =?utf-8?Q?teria?=\n opening   hours\n\nbody\n"
        self.assert_keywords(message, ["Café", "Caféteria opening   hours", "", "s"],
                             ["café", "opening hours", "iso-8859-1", "=E9", "body", "Subject"],
                             key_where="subj")

    def test_an_undecodable_one_is_empty(self):
        message = FROM + b"Subject: Hello =?x-none?Q?a?=\n\nbody\n"
        self.assert_keywords(message, [""], ["Hello", "a", "x-none"], stderr=NOT_DECODED, key_where="subj")

    def test_it_is_searched_behind_a_nul_byte(self):
        message = FROM + b"Subject: =?utf-8?Q?before=00behind?=\n\n"
        self.assert_keywords(message, ["before", "behind"], ["beforebehind"], key_where="subj")


class HugeSubject(IntakeTest):
    def test_one_long_line(self):
        message = FROM + b"Subject: " + b"x" * 3000000 + b"\n\n"
        self.assert_answered(self.run_program(message=message), subject="x" * 3000000)

    def test_many_folds(self):
        message = FROM + b"Subject: a" + b"\n word" * 200000 + b"\n\n"
        self.assert_answered(self.run_program(message=message), subject="a" + " word" * 200000)

    def test_many_encoded_words(self):
        message = FROM + b"Subject: x" + b"\n =?utf-8?Q?=C3=A9?=" * 50000 + b"\n\n"
        self.assert_answered(self.run_program(message=message), subject="x " + "é" * 50000)
