"""The body of a message in UTF-8: charsets, bytes that are invalid in them, and the lines about failures."""

import base64

from intake_case import FROM, IntakeTest


def coded(body, charset, encoding=b"base64"):
    """A message whose body is these bytes exactly, declared to be in that charset."""
    data = base64.encodebytes(body) if encoding == b"base64" else body
    return (FROM + b'Content-Type: text/plain; charset="' + charset + b'"\n'
            b"Content-Transfer-Encoding: " + encoding + b"\n\n" + data)


def not_converted(charset):
    return b"Could not convert message body text from " + charset + b" to UTF-8.\n"


class Charsets(IntakeTest):
    TEXTS = (
        ("utf-8", "naïve 日本"), ("us-ascii", "naive"), ("iso-8859-1", "naïve"), ("ISO-8859-15", "5 €"),
        ("windows-1252", "“naïve” €"), ("windows-1251", "Привет"), ("koi8-r", "Привет"), ("iso-8859-7", "Γειά"),
        ("gb2312", "你好"), ("gbk", "你好"), ("gb18030", "你好"), ("big5", "你好"), ("shift_jis", "日本語"),
        ("euc-jp", "日本語"), ("iso-2022-jp", "日本語"), ("euc-kr", "안녕"), ("utf-16", "naïve"),
        ("utf-16be", "日本"), ("utf-32le", "naïve"), ("utf-7", "naïve"))

    def test_texts_are_recoded_to_utf8(self):
        for charset, text in self.TEXTS:
            with self.subTest(charset):
                message = coded((text + "\nsecond line").encode(charset), charset.encode())
                self.assert_keywords(message, [text, "second line"], ["third"])

    def test_line_feeds_are_found_behind_the_recoding(self):
        # U+0A0A holds two bytes like line feeds, but none in UTF-8.
        self.assert_keywords(coded("a\u0a0ab\nc".encode("utf-16-be"), b"utf-16be"), ["a\u0a0ab", "c"])

    def test_text_longer_than_one_block_of_output(self):
        text = "".join(f"é{number:05d}" for number in range(3000))
        output = text.encode()
        around = [output[place - 30:place + 30].decode(errors="ignore") for place in (4096, 8192, 12288)]
        self.assert_keywords(coded(text.encode("iso-8859-1"), b"iso-8859-1"),
                             ["é00000é", *around, "é02999"], ["é03000"])

    def test_a_large_body(self):
        text = "Zeile mit Umlaut ä\n" * 200000 + "Ende ß"
        self.assert_keywords(coded(text.encode("iso-8859-1"), b"iso-8859-1", b"8bit"), ["Umlaut ä", "Ende ß"])

    def test_a_large_body_of_invalid_bytes(self):
        self.assert_keywords(coded(b"\xff" * 2000000 + b"end", b"utf-8", b"8bit"), ["?" * 200 + "end"])


class InvalidBytes(IntakeTest):
    def test_each_becomes_a_question_mark(self):
        for charset, body, text in (
                (b"US-ASCII", b"[caf\xe9]", "[caf?]"), (b"US-ASCII", b"[caf\xc3\xa9]", "[caf??]"),
                (b"utf-8", b"[a\xffb]", "[a?b]"), (b"utf-8", b"[\xe2\x82x]", "[??x]"),
                (b"utf-8", b"[\xc0\xaf]", "[??]"), (b"utf-8", b"[\xed\xa0\x80]", "[???]"),
                (b"utf-8", b"[\x80\xfe]", "[??]"), (b"windows-1252", b"[\x81]", "[?]"),
                (b"euc-jp", b"[\xff]", "[?]")):
            with self.subTest((charset, body)):
                self.assert_keywords(coded(body, charset), [text])

    def test_us_ascii_is_what_an_undeclared_body_is_in(self):
        self.assert_keywords(FROM + b"\n[caf\xe9]\n", ["[caf?]"])

    def test_an_empty_charset_name_is_the_c_locales(self):
        self.assert_keywords(coded(b"[caf\xe9]", b""), ["[caf?]"])

    def test_an_incomplete_character_at_the_end_leaves_the_body_as_it_came(self):
        for charset, body in ((b"utf-8", b"[raw \xc3\xa9]\nand cut \xc3"), (b"utf-8", b"[raw \xc3\xa9] \xe2\x82"),
                              (b"utf-16be", "[raw é]".encode() + b"\nx" * 2 + b"y")):
            with self.subTest((charset, body)):
                self.assert_keywords(coded(body, charset), ["[raw é]"], stderr=not_converted(charset))

    def test_bytes_become_question_marks_only_where_the_whole_body_is_recoded(self):
        self.assert_keywords(coded(b"a\xffb [x] cut \xc3", b"utf-8"), ["[x]"], ["a?b"],
                             stderr=not_converted(b"utf-8"))


class UnknownCharset(IntakeTest):
    def test_the_body_stays_as_it_came(self):
        message = coded("[raw é]\nsecond".encode(), b"x-none")
        self.assert_keywords(message, ["[raw é]", "second", ""], ["é]\n"], stderr=not_converted(b"x-none"))

    def test_it_is_named_as_written(self):
        for charset in (b"X-None", b"%s%n%d", b"no such set", b"x/y//z", b"\xe9t\xe9", b"x" * 5000):
            with self.subTest(charset):
                message = FROM + b'Content-Type: text/plain; charset="' + charset + b'"\n\ntext\n'
                self.assert_keywords(message, ["text"], stderr=not_converted(charset))

    def test_an_empty_body_is_no_exception(self):
        message = FROM + b"Content-Type: text/plain; charset=x-none\n\n"
        self.assert_keywords(message, [""], ["a"], stderr=not_converted(b"x-none"))

    def test_the_raw_body_ends_at_its_first_nul_byte(self):
        self.assert_keywords(coded(b"one\nbefore\0behind\nlast", b"x-none"), ["one", "before"],
                             ["behind", "last"], stderr=not_converted(b"x-none"))

    def test_a_recoded_body_goes_on_behind_a_nul_byte(self):
        self.assert_keywords(coded(b"one\nbefore\0behind\nlast", b"utf-8"),
                             ["one", "before", "behind", "last"], ["beforebehind"])

    def test_a_raw_body_that_begins_with_a_nul_byte_is_empty(self):
        self.assert_keywords(coded(b"\0behind", b"x-none"), [""], ["behind"], stderr=not_converted(b"x-none"))

    def test_the_body_is_told_before_the_subject_and_both_are_answered(self):
        message = b"Subject: =?x-other?Q?a?=\n" + coded(b"text", b"x-none")
        self.assert_answered(self.run_program(message=message), stderr=(
            not_converted(b"x-none") + b"Could not convert message subject text from x-none to UTF-8.\n"))
