// Intake: the text part of a message, its charset and its lines, and the functions that choose.

#include "autoresponder/intake.h"

#include "support/taken_in.h"

#include <memory>

namespace {

using namespace std::string_literals;
using Lines = std::vector<std::string>;

// A multipart message of these parts, each with its own header.
std::string multipart(const std::string& type, const std::vector<std::string>& parts) {
    std::string text = "Content-Type: multipart/" + type + "; boundary=b\n\npreamble\n";
    for (const std::string& part : parts)
        text += "--b\n" + part + "\n";
    return text + "--b--\nepilogue\n";
}

class IntakeBody : public SandboxTest {
protected:
    // Takes in a message of these header lines, an empty line and a body.
    static TakenIn take(const std::string& header_and_body) {
        TakenIn taken = take_in("From: a@b.example\n" + header_and_body);
        EXPECT_EQ(taken.result, 0);
        return taken;
    }

    // The lines of a message about which nothing is to be reported.
    static Lines lines(const std::string& header_and_body) {
        const TakenIn taken = take(header_and_body);
        EXPECT_EQ(taken.reported, "");
        return taken.content.body;
    }

    static std::string charset(const std::string& content_type) {
        return take("Content-Type: " + content_type + "\n\n\n").content.charset;
    }
};

// Lines

TEST_F(IntakeBody, HasOneMoreEmptyLineBehindALineFeed) {
    EXPECT_EQ(lines("\none\ntwo"), (Lines{"one", "two", ""}));
    EXPECT_EQ(lines("\none\ntwo\n"), (Lines{"one", "two", "", ""}));
}

TEST_F(IntakeBody, EndsAtTheLastByteWhereThatIsNoLineFeed) {
    const std::string header = "Content-Transfer-Encoding: base64\n\n";
    EXPECT_EQ(lines(header + "b25lCnR3bw=="), (Lines{"one", "two"}));
    EXPECT_EQ(lines(header + "b25lCnR3bwo="), (Lines{"one", "two", ""}));
}

TEST_F(IntakeBody, HasOneEmptyLineWhereItIsEmpty) {
    EXPECT_EQ(lines("Content-Transfer-Encoding: base64\n\n"), Lines{""});
}

TEST_F(IntakeBody, KeepsCarriageReturnsAndNuls) {
    EXPECT_EQ(lines("\r\none\r\n\0two\r"s), (Lines{"one\r", "\0two\r"s, ""}));
}

// Which part

TEST_F(IntakeBody, IsTheMessagesOwnWithoutAContentType) {
    const TakenIn taken = take("\ntext");
    EXPECT_EQ(taken.content.body, (Lines{"text", ""}));
    EXPECT_EQ(taken.content.charset, "US-ASCII");
}

TEST_F(IntakeBody, IsTheMessagesOwnForAnyTextType) {
    for (const char* type : {"text/plain", "text/html", "TEXT/X-anything", "text"})
        EXPECT_EQ(lines("Content-Type: "s + type + "\n\n<p>text"), (Lines{"<p>text", ""})) << type;
}

TEST_F(IntakeBody, IsEmptyForOtherTypes) {
    for (const char* type : {"application/pdf", "image/png", "audio/x", "video/x", "message/rfc822",
                             "x-unknown/plain", "", "/plain"}) {
        const TakenIn taken = take("Content-Type: "s + type + "; charset=utf-8\n\ntext\n");
        EXPECT_EQ(taken.content.body, Lines{""}) << type;
        EXPECT_EQ(taken.content.charset, "US-ASCII") << type;
        EXPECT_EQ(taken.reported, "") << type;
    }
}

TEST_F(IntakeBody, IsTheFirstTextPartOfAMultipart) {
    EXPECT_EQ(lines(multipart("alternative", {"Content-Type: text/html\n\n<p>one",
                                              "Content-Type: text/plain\n\ntwo"})),
              Lines{"<p>one"});
    EXPECT_EQ(lines(multipart("mixed", {"Content-Type: image/png\n\none",
                                        "Content-Type: text/plain\n\ntwo\nmore"})),
              (Lines{"two", "more"}));
}

TEST_F(IntakeBody, PassesOverPartsWithoutAContentType) {
    EXPECT_EQ(lines(multipart("mixed", {"X: y\n\none", "\ntwo", "Content-Type: text/plain\n\n3"})),
              Lines{"3"});
}

TEST_F(IntakeBody, IsNotLookedForInNestedParts) {
    EXPECT_EQ(lines(multipart("mixed", {"Content-Type: multipart/alternative; boundary=c\n\n"
                                        "--c\nContent-Type: text/plain\n\ninner\n--c--",
                                        "Content-Type: text/plain\n\nouter"})),
              Lines{"outer"});
}

TEST_F(IntakeBody, IsEmptyForAMultipartWithoutATextPart) {
    for (const std::string& message :
         {multipart("mixed", {"\none", "Content-Type: application/pdf\n\ntwo"}),
          multipart("mixed", {}), "Content-Type: multipart/mixed\n\n--\n\ntext\n"s,
          "Content-Type: multipart/mixed; boundary=b\n\nno delimiter\n"s}) {
        const TakenIn taken = take(message);
        EXPECT_EQ(taken.content.body, Lines{""}) << message;
        EXPECT_EQ(taken.content.charset, "US-ASCII") << message;
    }
}

TEST_F(IntakeBody, IsDecodedAsItsOwnPartSays) {
    const TakenIn taken =
        take("Content-Transfer-Encoding: base64\n" +
             multipart("mixed; charset=koi8-r",
                       {"Content-Type: text/plain; charset=iso-8859-1\n"
                        "Content-Transfer-Encoding: quoted-printable\n\nGr=FC=DFe"}));
    EXPECT_EQ(taken.content.body, Lines{"Gr\xC3\xBC\xC3\x9F"
                                        "e"});
    EXPECT_EQ(taken.content.charset, "iso-8859-1");
}

// Transfer encodings

TEST_F(IntakeBody, IsDecodedFromBase64AndQuotedPrintable) {
    EXPECT_EQ(lines("Content-Transfer-Encoding: BASE64\n\ndGV4\n dA\n"), Lines{"text"});
    EXPECT_EQ(lines("Content-Transfer-Encoding: Quoted-Printable\n\nte=78=\nt\n"),
              (Lines{"text", "", ""}));
}

TEST_F(IntakeBody, IsKeptInEveryOtherEncoding) {
    for (const char* encoding : {"7bit", "8bit", "binary", "x-uuencode", "", "base 64"})
        EXPECT_EQ(lines("Content-Transfer-Encoding: "s + encoding + "\n\nte=78t dGV4dA=="),
                  (Lines{"te=78t dGV4dA==", ""}))
            << encoding;
}

TEST_F(IntakeBody, TakesWhatMalformedEncodingsGive) {
    EXPECT_EQ(lines("Content-Transfer-Encoding: base64\n\ndGV4*dA"), Lines{"text"});
    EXPECT_EQ(lines("Content-Transfer-Encoding: quoted-printable\n\nte=xxt="), Lines{"te=xxt"});
}

// Charsets

TEST_F(IntakeBody, CharsetIsTheParametersValueAsWritten) {
    EXPECT_EQ(charset("text/plain; charset=ISO-8859-1"), "ISO-8859-1");
    EXPECT_EQ(charset("text/plain; CHARSET=ISO-8859-1"), "ISO-8859-1");
    EXPECT_EQ(charset("text/plain; ChArSeT=\"Utf-8\""), "Utf-8");
    EXPECT_EQ(charset("text/plain; format=flowed; charset=utf-8; x=y"), "utf-8");
    EXPECT_EQ(charset("text/plain; charset=utf-8; charset=koi8-r"), "utf-8");
}

TEST_F(IntakeBody, CharsetIsAsciiWhereNoneIsDeclared) {
    EXPECT_EQ(charset("text/plain"), "US-ASCII");
    EXPECT_EQ(charset("text/plain; charset"), "US-ASCII");
    EXPECT_EQ(charset("text/plain; x-charset=utf-8"), "US-ASCII");
    EXPECT_EQ(charset("text/plain; charset2=utf-8"), "US-ASCII");
}

TEST_F(IntakeBody, IsRecodedFromItsCharset) {
    EXPECT_EQ(lines("Content-Type: text/plain; charset=koi8-r\n\n\xC4\xC1"),
              (Lines{"\xD0\xB4\xD0\xB0", ""}));
}

TEST_F(IntakeBody, HasAQuestionMarkForEachByteThatItsCharsetHasNot) {
    EXPECT_EQ(lines("\nGr\xC3\xBC"
                    "n"),
              (Lines{"Gr??n", ""}));
    EXPECT_EQ(lines("Content-Type: text/plain; charset=utf-8\n\nGr\xFCn"), (Lines{"Gr?n", ""}));
}

TEST_F(IntakeBody, IsKeptUpToItsFirstNulInAnUnknownCharset) {
    const TakenIn taken =
        take("Content-Type: text/plain; charset=None-Such\n\n\xFF one\ntwo\0three\nfour"s);
    EXPECT_EQ(taken.content.body, (Lines{"\xFF one", "two"}));
    EXPECT_EQ(taken.content.charset, "None-Such");
    EXPECT_EQ(taken.reported, "Could not convert message body text from None-Such to UTF-8.\n");
}

TEST_F(IntakeBody, IsKeptWhereItEndsInsideACharacter) {
    const TakenIn taken = take("Content-Type: text/plain; charset=utf-8\n"
                               "Content-Transfer-Encoding: base64\n\nYcM=");
    EXPECT_EQ(taken.content.body, Lines{"a\xC3"});
    EXPECT_EQ(taken.reported, "Could not convert message body text from utf-8 to UTF-8.\n");
}

// The functions by themselves

struct Parsed {
    std::unique_ptr<DwMessage> message;
    explicit Parsed(const std::string& text)
        : message(DwMessage::NewMessage(DwString(text.data(), text.size()), nullptr)) {
        message->Parse();
    }
};

std::string to_string(const DwString& text) {
    return {text.data(), text.length()};
}

TEST(DecodeBody, ReturnsItsOutput) {
    const Parsed parsed("Content-Transfer-Encoding: base64\n\ndGV4dA==");
    DwString out("old");
    EXPECT_EQ(&DecodeBody(*parsed.message, out), &out);
    EXPECT_EQ(to_string(out), "text");
}

TEST(DecodeBody, ReplacesWhatItsOutputHeldAlsoByNothing) {
    const Parsed parsed("X: y\n\n");
    DwString out("old");
    EXPECT_EQ(to_string(DecodeBody(*parsed.message, out)), "");
}

TEST(GetCharset, LooksAtAnyType) {
    EXPECT_EQ(to_string(GetCharset(*Parsed("Content-Type: image/png; charset=x\n\n").message)),
              "x");
    EXPECT_EQ(to_string(GetCharset(*Parsed("X: y\n\n").message)), "US-ASCII");
}

TEST(GetMailbox, IsNullInAListWithoutOne) {
    const Parsed parsed("From: bad, worse\nReply-To: bad, team: a@b;\n\n");
    EXPECT_EQ(GetMailboxFromMailboxList(parsed.message->Headers().From()), nullptr);
    EXPECT_EQ(GetMailboxFromAddressList(parsed.message->Headers().ReplyTo()), nullptr);
    const Parsed empty("From:\nReply-To:\n\n");
    EXPECT_EQ(GetMailboxFromMailboxList(empty.message->Headers().From()), nullptr);
    EXPECT_EQ(GetMailboxFromAddressList(empty.message->Headers().ReplyTo()), nullptr);
}

TEST(GetMailbox, IsTheFirstValidOne) {
    const Parsed parsed("From: bad, a@b, c@d\nReply-To: x@y: e@f;, g@h, i@j\n\n");
    const DwMailbox* from = GetMailboxFromMailboxList(parsed.message->Headers().From());
    ASSERT_NE(from, nullptr);
    EXPECT_EQ(to_string(from->LocalPart()) + " " + to_string(from->Domain()), "a b");
    const DwMailbox* reply_to = GetMailboxFromAddressList(parsed.message->Headers().ReplyTo());
    ASSERT_NE(reply_to, nullptr);
    EXPECT_EQ(to_string(reply_to->LocalPart()) + " " + to_string(reply_to->Domain()), "g h");
}

} // namespace
