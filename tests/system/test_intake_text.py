"""Which part of a message is its text, and how it is transfer-decoded.

Every message carries a subject that can't be decoded, because the line about it names the charset
that goes with the chosen text.
"""

import base64

from intake_case import FROM, IntakeTest

UNDECODABLE = b"Subject: =?x-none?Q?a?=\n"


def named(charset):
    """The line about the subject."""
    return b"Could not convert message subject text from " + charset + b" to UTF-8.\n"


def multipart(*parts, header=b'Content-Type: multipart/mixed; boundary="b"\n', before=b"", behind=b"--b--\n"):
    """A multipart message of the parts, each with its header."""
    body = before + b"".join(b"--b\n" + part + b"\n" for part in parts) + behind
    return FROM + UNDECODABLE + header + b"\n" + body


def whole(header, body):
    return FROM + UNDECODABLE + header + b"\n" + body


class IntakeText(IntakeTest):
    def assert_texts(self, table):
        """table: name -> (message, keywords that its body holds, some that it doesn't, its charset)"""
        for name, (message, present, absent, charset) in table.items():
            with self.subTest(name):
                self.assert_keywords(message, present, absent, stderr=named(charset))


class ChosenPart(IntakeText):
    def test_of_a_message_of_one_part(self):
        text, empty = ["Hello there", ""], [""]
        table = {
            "no content type": (b"", text),
            "text/plain": (b"Content-Type: text/plain\n", text),
            "text/html": (b"Content-Type: text/html\n", text),
            "any case": (b"CONTENT-TYPE: TexT/PLAIN\n", text),
            "no subtype": (b"Content-Type: text\n", text),
            "a slash and no subtype": (b"Content-Type: text/\n", text),
            "an unknown subtype": (b"Content-Type: text/x-odd\n", text),
            "a comment before": (b"Content-Type: (c) text (d) / plain\n", text),
            "folded": (b"Content-Type:\n text/plain\n", text),
            "the first of two": (b"Content-Type: text/plain\nContent-Type: image/png\n", text),
            "the first of two, not text": (b"Content-Type: image/png\nContent-Type: text/plain\n", empty),
            "application/pdf": (b"Content-Type: application/pdf\n", empty),
            "message/rfc822": (b"Content-Type: message/rfc822\n", empty),
            "image": (b"Content-Type: image/png\n", empty),
            "audio": (b"Content-Type: audio/basic\n", empty),
            "video": (b"Content-Type: video/mpeg\n", empty),
            "unknown type": (b"Content-Type: x-odd/plain\n", empty),
            "only text-like": (b"Content-Type: textual/plain\n", empty),
            "empty content type": (b"Content-Type:\n", empty),
        }
        self.assert_texts({
            name: (whole(header, b"Hello there\n"), present,
                   ["hello", "Content"] if present is text else ["Hello", "e"], b"US-ASCII")
            for name, (header, present) in table.items()})

    def test_an_empty_body_is_one_empty_line(self):
        self.assert_texts({
            "header alone": (FROM + UNDECODABLE.rstrip(), [""], ["a", " "], b"US-ASCII"),
            "no line": (whole(b"", b""), [""], ["a"], b"US-ASCII"),
            "not text": (whole(b"Content-Type: application/pdf; charset=utf-8\n", b"%PDF\n"), [""],
                         ["%PDF", "P"], b"US-ASCII")})

    def test_of_a_multipart_message(self):
        html = b"Content-Type: text/html; charset=utf-8\n\n<p>of html</p>"
        plain = b"Content-Type: text/plain; charset=iso-8859-1\n\nof plain"
        untyped = b"X-Odd: yes\n\nof untyped"
        image = b"Content-Type: image/png\n\nof image"
        nested = b"Content-Type: multipart/mixed; boundary=c\n\n--c\n" + plain + b"\n--c--"
        mail = b"Content-Type: message/rfc822\n\nSubject: of mail\n\nof mail"
        attached = b"Content-Disposition: attachment; filename=x\nContent-Type: text/csv\n\nof csv"
        everything = ["of html", "of plain", "of untyped", "of image", "of mail", "of csv"]
        alternative = b"Content-Type: multipart/alternative; boundary=b\n"
        for name, (message, found, charset) in {
            "html first": (multipart(html, plain, header=alternative), "of html", b"utf-8"),
            "plain first": (multipart(plain, html), "of plain", b"iso-8859-1"),
            "untyped part first": (multipart(untyped, plain), "of plain", b"iso-8859-1"),
            "part without a header first": (multipart(b"\nof untyped", plain), "of plain", b"iso-8859-1"),
            "image first": (multipart(image, plain), "of plain", b"iso-8859-1"),
            "nested part first": (multipart(nested, html), "of html", b"utf-8"),
            "nested part alone": (multipart(nested), None, b"US-ASCII"),
            "enclosed message first": (multipart(mail, html), "of html", b"utf-8"),
            "enclosed message alone": (multipart(mail), None, b"US-ASCII"),
            "attached text": (multipart(attached, plain), "of csv", b"US-ASCII"),
            "untyped parts alone": (multipart(untyped, untyped), None, b"US-ASCII"),
            "digest of untyped parts": (multipart(
                untyped, header=b"Content-Type: multipart/digest; boundary=b\n"), None, b"US-ASCII"),
            "no part": (multipart(), None, b"US-ASCII"),
            "text before and behind the parts": (multipart(
                before=b"Content-Type: text/plain\n\nof plain\n",
                behind=b"--b--\nContent-Type: text/plain\n\nof plain\n"), None, b"US-ASCII"),
            "a part behind the closing delimiter": (multipart(
                untyped, behind=b"--b--\n--b\n" + plain + b"\n--b--\n"), None, b"US-ASCII"),
            "no closing delimiter": (multipart(image, plain, behind=b""), "of plain", b"iso-8859-1"),
            "the charset of the whole counts not": (multipart(
                b"Content-Type: text/plain\n\nof plain",
                header=b"Content-Type: multipart/mixed; boundary=b; charset=koi8-r\n"),
                "of plain", b"US-ASCII"),
            "unknown subtype in capitals": (multipart(
                plain, header=b"Content-Type: MULTIPART/x-ODD; BOUNDARY=b\n"), "of plain", b"iso-8859-1"),
            "no boundary": (multipart(plain, header=b"Content-Type: multipart/mixed\n"), None, b"US-ASCII"),
            "empty boundary": (multipart(
                plain, header=b'Content-Type: multipart/mixed; boundary=""\n'), None, b"US-ASCII"),
            "another boundary": (multipart(
                plain, header=b"Content-Type: multipart/mixed; boundary=bb\n"), None, b"US-ASCII"),
            "boundary that only begins alike": (multipart(
                b"Content-Type: text/plain; charset=koi8-r\n\nof plain\n--bc\n--b-\n--b--c"),
                "of plain", b"koi8-r"),
            "boundary with specials": (multipart(
                plain, header=b'Content-Type: multipart/mixed; boundary="=_(a/b): c"\n').replace(
                    b"--b", b"--=_(a/b): c"), "of plain", b"iso-8859-1"),
            "unquoted boundary with specials": (multipart(
                plain, header=b"Content-Type: multipart/mixed; boundary=--=_a/b\n").replace(
                    b"--b\n", b"----=_a/b\n"), "of plain", b"iso-8859-1"),
            "blanks behind a delimiter": (multipart(image, plain).replace(
                b"--b\n", b"--b \t\r\n"), "of plain", b"iso-8859-1"),
            "text behind a delimiter": (multipart(plain).replace(b"--b\n", b"--b x\n"), None, b"US-ASCII"),
            "crlf": (multipart(image, plain).replace(b"\n", b"\r\n"), "of plain", b"iso-8859-1"),
        }.items():
            with self.subTest(name):
                self.assert_keywords(message, ["", found] if found else [""],
                                     [text for text in everything if text != found],
                                     stderr=named(charset))

    def test_the_line_end_before_a_delimiter_is_not_the_parts(self):
        # An incomplete character can be kept only as the body's very last byte, where it is reported.
        message = multipart(b"Content-Type: text/plain; charset=utf-8\n\nlast\xc3")
        self.assert_keywords(message, ["last"], stderr=(
            b"Could not convert message body text from utf-8 to UTF-8.\n" + named(b"utf-8")))

    def test_many_parts(self):
        message = multipart(*[b"Content-Type: image/png\n\nx"] * 50000, b"Content-Type: text/plain\n\nlast one")
        self.assert_keywords(message, ["last one"], ["x"], stderr=named(b"US-ASCII"))

    def test_deeply_nested_multiparts(self):
        nested = b"".join(b"Content-Type: multipart/mixed; boundary=b%d\n\n--b%d\n" % (i, i) for i in range(50000))
        message = FROM + UNDECODABLE + nested + b"Content-Type: text/plain\n\ninnermost\n"
        self.assert_keywords(message, [""], ["innermost"], stderr=named(b"US-ASCII"))


class DeclaredCharset(IntakeText):
    def test_it_is_taken_as_written(self):
        declarations = {
            "none": (b"text/plain", b"US-ASCII"),
            "other parameters": (b"text/plain; format=flowed; delsp=yes", b"US-ASCII"),
            "attribute in capitals": (b"text/plain; CHARSET=ISO-8859-1", b"ISO-8859-1"),
            "value's case kept": (b"text/plain; Charset=uTf-8", b"uTf-8"),
            "quoted": (b'text/plain; charset="utf-8"', b"utf-8"),
            "quoted with a backslash": (b'text/plain; charset="ut\\f-8"', b"utf-8"),
            "unterminated quotes": (b'text/plain; charset="utf-8', b"utf-8"),
            "blanks around": (b"text/plain ; charset = utf-8 ; x=y", b"utf-8"),
            "behind others": (b'text/plain; x="charset=koi8-r"; charset=utf-8', b"utf-8"),
            "the first of two": (b"text/plain; charset=utf-8; charset=koi8-r", b"utf-8"),
            "comments": (b"text/plain; (charset=koi8-r) charset=utf-8 (c)", b"utf-8"),
            "folded": (b"text/plain;\n\tcharset=utf-8", b"utf-8"),
            "longer attribute": (b"text/plain; charsets=koi8-r; xcharset=koi8-r", b"US-ASCII"),
            "extended attribute": (b"text/plain; charset*=us-ascii''koi8-r", b"US-ASCII"),
            "no value sign": (b"text/plain; charset; charset=utf-8", b"utf-8"),
            "empty, which is the C locale's": (b'text/plain; charset=""', b""),
        }
        self.assert_texts({
            name: (whole(b"Content-Type: " + value + b"\n", b"text\n"), ["text"], [], charset)
            for name, (value, charset) in declarations.items()})


class TransferEncoding(IntakeText):
    def assert_decoded(self, table, header=b"Content-Type: text/plain; charset=utf-8\n"):
        """table: name -> (Content-Transfer-Encoding, body, keywords present, keywords absent)"""
        self.assert_texts({
            name: (whole(header + b"Content-Transfer-Encoding: " + encoding + b"\n", body),
                   present, absent, b"utf-8")
            for name, (encoding, body, present, absent) in table.items()})

    def test_base64(self):
        coded = base64.encodebytes("first line\nсловo\r\nlast\n".encode())
        lines = ["first line", "словo", "словo\r", "last", ""]
        self.assert_decoded({
            "as usual": (b"base64", coded, lines, ["line\nс", "Zmlyc3"]),
            "in capitals": (b"BASE64", coded, lines, ["Zmlyc3"]),
            "with a comment": (b"(x) base64 (y)", coded, lines, ["Zmlyc3"]),
            "crlf": (b"base64", coded.replace(b"\n", b"\r\n"), lines, ["Zmlyc3"]),
            "in one line": (b"base64", coded.replace(b"\n", b""), lines, ["Zmlyc3"]),
            "foreign characters": (b"base64", coded.replace(b"x", b"!x-").replace(b"\n", b"\0 *\n"), lines, []),
            "without padding": (b"base64", b"SGVsbG8\n", ["Hello"], ["SGVs"]),
            "text behind the padding": (b"base64", b"SGk=SGVsbG8=\n", ["Hi"], ["Hello", "H\n"]),
            "no base64 at all": (b"base64", b"\xff\xfe !!! \n", [""], ["!", "?"]),
            "empty": (b"base64", b"", [""], ["A"]),
        })

    def test_quoted_printable(self):
        self.assert_decoded({
            "escapes": (b"quoted-printable", b"caf=C3=A9 a=3Db =c3=a9\n", ["café a=b é"], ["=C3"]),
            "in capitals": (b"QUOTED-PRINTABLE", b"a=3Db\n", ["a=b"], ["=3D"]),
            "joined lines": (b"quoted-printable", b"one=\ntwo= \t\nthree\n", ["onetwothree"], ["="]),
            "crlf": (b"quoted-printable", b"one=\r\ntwo\r\nthree\r\n", ["onetwo", "three"], ["=", "\r"]),
            "blanks at a line's end": (b"quoted-printable", b"one \t \ntwo\n", ["one"], ["one "]),
            "a line feed escaped": (b"quoted-printable", b"one=0Atwo\n", ["one", "two"], ["onetwo"]),
            "escapes that are none": (b"quoted-printable", b"a=GG b=4 =\x01 c=\n", ["a=GG b=4 =\x01 c"], ["c="]),
            "8-bit text": (b"quoted-printable", "café =41\n".encode(), ["café A"], []),
            "nul": (b"quoted-printable", b"a=00b\n", ["a", "b"], ["ab"]),
        })

    def test_the_others_leave_the_body_as_it_is(self):
        body = "Q2Fm6Q== =41 café\r\n".encode()
        self.assert_decoded({
            encoding.decode(): (encoding, body, ["Q2Fm6Q== =41 café\r"], ["A"])
            for encoding in (b"7bit", b"8bit", b"BINARY", b"x-uuencode", b"unknown", b"", b"base 64",
                             b"base64x", b"quotedprintable")})

    def test_the_first_field_counts(self):
        header = b"Content-Transfer-Encoding: 8bit\nContent-Type: text/plain; charset=utf-8\n"
        self.assert_decoded({"8bit, then base64": (b"base64", b"SGk=\n", ["SGk="], ["Hi"])}, header)

    def test_a_parts_own_counts_and_not_the_messages(self):
        header = b"Content-Type: multipart/mixed; boundary=b\nContent-Transfer-Encoding: base64\n"
        self.assert_texts({
            "none of its own": (multipart(b"Content-Type: text/plain; charset=utf-8\n\nSGk=", header=header),
                                ["SGk="], ["Hi"], b"utf-8"),
            "its own": (multipart(b"Content-Transfer-Encoding: quoted-printable\n"
                                  b"Content-Type: text/plain; charset=utf-8\n\na=3Db", header=header),
                        ["a=b"], ["=3D"], b"utf-8")})

    def test_a_message_without_content_type_has_one_too(self):
        self.assert_texts({"base64": (whole(b"Content-Transfer-Encoding: base64\n", b"SGVsbG8=\n"),
                                      ["Hello"], ["SGVs"], b"US-ASCII")})

    def test_large_bodies(self):
        text = b"A line of text, and a little more of it.\n" * 50000 + b"the last line"
        self.assert_decoded({
            "base64": (b"base64", base64.encodebytes(text), ["the last line"], ["dGhl"]),
            "quoted-printable": (b"quoted-printable", b"=\n".join(text[i:i + 70] for i in range(0, len(text), 70)),
                                 ["the last line"], ["="]),
        })


class Lines(IntakeText):
    def test_a_keyword_never_spans_a_line_feed(self):
        self.assert_texts({
            "line feeds": (whole(b"", b"one two\nthree\n"), ["one two", "three"], ["two three", "twothree"],
                           b"US-ASCII"),
            "crlf": (whole(b"", b"one\r\ntwo\r\n"), ["one\r", "two\r"], ["one two"], b"US-ASCII"),
            "lone carriage returns": (whole(b"", b"one\rtwo\n"), ["one\rtwo"], [], b"US-ASCII"),
            "no final line feed": (whole(b"", b"one\ntwo"), ["one", "two"], [], b"US-ASCII"),
            "empty lines first": (whole(b"", b"\n\n\none\n"), ["one"], [], b"US-ASCII"),
        })

    def test_letter_case_counts(self):
        self.assert_texts({"capitals": (whole(b"", b"Holiday\n"), ["Holiday", "oli"], ["holiday", "HOLIDAY"],
                                        b"US-ASCII")})
