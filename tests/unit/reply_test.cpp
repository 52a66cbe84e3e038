// Composition of a reply, byte for byte.

#include "autoresponder/reply.h"

#include "autoresponder/attachments.h"
#include "autoresponder/mail_content.h"
#include "autoresponder/responder_row.h"
#include "autoresponder/response_file.h"
#include "lib/text/idn.h"
#include "support/isolated.h"
#include "support/sandbox_test.h"

#include <filesystem>
#include <stdexcept>
#include <unistd.h>

namespace {

constexpr char kBoundary[] = "--------=_abcdefghijklmnopqrstuvwxyzABC";
constexpr char kDatabytes[] = "/var/qmail/control/databytes";
constexpr char kUmlauts[] = "Gr\xC3\xBC\xC3\x9F"
                            "e";

// The text part's own header in the single-part layout and in the multipart one.
constexpr char kTextHeader[] = "Content-Type: text/plain; charset=\"UTF-8\"\n"
                               "Content-Transfer-Encoding: 8bit\n"
                               "Content-Disposition: inline\n"
                               "\n";

class ComposeReply : public SandboxTest {
protected:
    void SetUp() override {
        SandboxTest::SetUp();
        std::filesystem::remove(kDatabytes);
        content.sender = "joe@example.org";
        content.recipient = "info@example.com";
        content.subject = "Prices";
        responder.text = "Hello";
        responder.charset = "UTF-8";
        responder.content_type = "text/plain";
        attachments.directory = "/tmp/@attachments";
    }

    std::string compose() {
        ResponseFile file;
        compose_reply(responder, content, attachments, kBoundary, file);
        return read_file(resp_uu_file_name);
    }

    void attach(const std::string& name, const std::string& bytes) {
        std::filesystem::create_directory(attachments.directory);
        write_file(attachments.directory + "/" + name, bytes);
        attachments.present.push_back(name);
    }

    // Composes and expects the error reply, or the ordinary one, for this limit.
    void expect_too_large(const std::string& databytes, bool too_large) {
        write_file(kDatabytes, databytes);
        const std::string text = compose();
        unlink(resp_uu_file_name);
        EXPECT_EQ(text.find("databytes limit") != std::string::npos, too_large)
            << "limit " << databytes << ": " << text;
    }

    Responder responder;
    Mail_content content;
    Attachments attachments;
};

TEST_F(ComposeReply, SinglePart) {
    EXPECT_EQ(compose(), "From: info@example.com\n"
                         "To: joe@example.org\n"
                         "MIME-Version: 1.0\n"
                         "Subject: Re: Prices\n"
                         "Content-Type: text/plain; charset=\"UTF-8\"\n"
                         "Content-Transfer-Encoding: 8bit\n"
                         "Content-Disposition: inline\n"
                         "\n"
                         "Hello\n\n\n");
}

TEST_F(ComposeReply, ReplyToComesFirstAsItIsStored) {
    responder.reply_to = kUmlauts + std::string(" <sales@example.com>, x");
    const std::string text = compose();
    EXPECT_EQ(text.substr(0, text.find("To: joe")), "Reply-To: " + responder.reply_to +
                                                        "\n"
                                                        "From: info@example.com\n");
}

TEST_F(ComposeReply, FromIsTheRecipientInAsciiAndToTheSenderAsItStands) {
    content.recipient = "info@b\xC3\xBC"
                        "cher.example";
    content.sender = "jo\xC3\xAB@b\xC3\xBC"
                     "cher.example";
    const std::string text = compose();
    EXPECT_EQ(text.substr(0, text.find("MIME")), "From: xn--info@bcher-feb.example\n"
                                                 "To: " +
                                                     content.sender + "\n");
}

TEST_F(ComposeReply, SubjectIsEncoded) {
    content.subject = kUmlauts;
    EXPECT_NE(compose().find("\nSubject: =?utf-8?Q?Re:_Gr=C3=BC=C3=9Fe?=\nContent-Type:"),
              std::string::npos);
}

TEST_F(ComposeReply, SubjectTemplateIsSubstitutedThenEncoded) {
    // The variables are set once per process.
    const isolated::Outcome outcome = isolated::run([&] {
        responder.subject = "<request_subject>: <request_from>!";
        const std::string text = compose();
        const size_t at = text.find("Subject:");
        return text.substr(at, text.find('\n', at) - at);
    });
    EXPECT_EQ(outcome.result, "Subject: =?utf-8?Q?Prices:_joe@example.org=21?=");
}

TEST_F(ComposeReply, TextIsNoTemplate) {
    responder.text = "From <request_from>";
    EXPECT_NE(compose().find("\n\nFrom <request_from>\n\n\n"), std::string::npos);
}

TEST_F(ComposeReply, TextKeepsItsOwnLineEndsBeforeTheThree) {
    for (const char* given : {"", "\n", "a\r\nb\n", "\n\n.\n"}) {
        responder.text = given;
        const std::string text = compose();
        unlink(resp_uu_file_name);
        EXPECT_EQ(text.substr(text.find("inline\n\n") + 8), std::string(given) + "\n\n\n");
    }
}

TEST_F(ComposeReply, TextIsRecodedToTheRespondersCharset) {
    responder.text = kUmlauts;
    responder.charset = "ISO-8859-1";
    responder.content_type = "text/html";
    const std::string text = compose();
    EXPECT_EQ(text.substr(text.find("Content-Type")),
              "Content-Type: text/html; charset=\"ISO-8859-1\"\n"
              "Content-Transfer-Encoding: 8bit\n"
              "Content-Disposition: inline\n"
              "\n"
              "Gr\xFC\xDF"
              "e\n\n\n");
}

TEST_F(ComposeReply, BytesWithoutAPlaceInTheCharsetBecomeQuestionMarks) {
    responder.text = "5 \xE2\x82\xAC, \xFF";
    responder.charset = "ISO-8859-1";
    EXPECT_NE(compose().find("\n\n5 ???, ?\n\n\n"), std::string::npos);
}

TEST_F(ComposeReply, CharsetAndContentTypeStandAsTheyAreStored) {
    responder.charset = "utf-8";
    responder.content_type = "";
    EXPECT_NE(compose().find("\nContent-Type: ; charset=\"utf-8\"\n"), std::string::npos);
}

TEST_F(ComposeReply, MultipartWithOneAttachment) {
    attach("file", "ABC");
    responder.reply_to = "sales@example.com";
    EXPECT_EQ(compose(), "Reply-To: sales@example.com\n"
                         "From: info@example.com\n"
                         "To: joe@example.org\n"
                         "MIME-Version: 1.0\n"
                         "Subject: Re: Prices\n"
                         "Content-Type: multipart/mixed;\n"
                         "\tboundary=\"" +
                             std::string(kBoundary) +
                             "\"\n"
                             "\n"
                             "--" +
                             kBoundary + "\n" + kTextHeader +
                             "Hello\n\n\n"
                             "--" +
                             kBoundary +
                             "\n"
                             "Content-Type: application/octet-stream\n"
                             "Content-Transfer-Encoding: base64\n"
                             "Content-Disposition: attachment;\n"
                             "\tfilename=\"file\"\n"
                             "\n"
                             "QUJD\n"
                             "\n"
                             "--" +
                             kBoundary + "--\n");
}

TEST_F(ComposeReply, MissingAttachmentsAloneAreASinglePart) {
    attachments.missing = "gone\n";
    const std::string text = compose();
    EXPECT_EQ(text.find(kBoundary), std::string::npos);
    EXPECT_NE(text.find("\nSubject: Re: Prices\nContent-Type: text/plain;"), std::string::npos);
}

TEST_F(ComposeReply, SecondReplyOfARunHoldsNothingOfTheFirst) {
    responder.text = std::string(5000, 'x');
    compose();
    ASSERT_EQ(unlink(resp_uu_file_name), 0);
    responder.text = "short";
    const std::string text = compose();
    EXPECT_EQ(text.substr(text.find("inline")), "inline\n\nshort\n\n\n");
}

// Failures

TEST_F(ComposeReply, UnknownCharsetIsThrownAndLeavesTheFileEmpty) {
    responder.charset = "no-such-charset";
    try {
        compose();
        ADD_FAILURE() << "nothing was thrown";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "Cannot convert from UTF-8 to no-such-charset");
    }
    EXPECT_EQ(read_file(resp_uu_file_name), "");
}

TEST_F(ComposeReply, UnknownCharsetLeavesAnEmptyFileOfASecondReplyToo) {
    compose();
    ASSERT_EQ(unlink(resp_uu_file_name), 0);
    responder.charset = "no-such-charset";
    EXPECT_THROW(compose(), std::runtime_error);
    EXPECT_EQ(read_file(resp_uu_file_name), "");
}

TEST_F(ComposeReply, RecipientWithoutAsciiFormIsThrownAndLeavesTheFileEmpty) {
    content.recipient = std::string(64, 'a') + ".example";
    EXPECT_THROW(compose(), quarx::idn::IdnaError);
    EXPECT_EQ(read_file(resp_uu_file_name), "");
}

TEST_F(ComposeReply, TextIsRecodedBeforeTheRecipientIsConverted) {
    responder.charset = "no-such-charset";
    content.recipient = std::string(64, 'a') + ".example";
    EXPECT_THROW(compose(), std::runtime_error);
}

TEST_F(ComposeReply, FullDiskIsIgnored) {
    const SmallTmp tmp(16);
    responder.text = std::string(100000, 'x');
    std::string text;
    EXPECT_EQ(standard_error_of([&] { text = compose(); }), "");
    EXPECT_GT(text.size(), 0U);
    EXPECT_LT(text.size(), 100000U);
}

// The size limit

TEST_F(ComposeReply, ReplyOverTheLimitIsReplacedByTheErrorReply) {
    write_file(kDatabytes, "10");
    EXPECT_EQ(compose(), "From: info@example.com\n"
                         "CC: \n"
                         "Subject: Re: Prices\n"
                         "\n"
                         "An error occurred while responding on you request.\n"
                         "\n"
                         "Autoresponder message size exceeds databytes limit.\n"
                         "\n"
                         "\n"
                         "\n");
}

TEST_F(ComposeReply, ErrorReplyHasTheReplyToAndTheRecipientAsItStands) {
    write_file(kDatabytes, "10");
    responder.reply_to = "sales@example.com";
    responder.subject = "Fixed";
    content.recipient = "info@b\xC3\xBC"
                        "cher.example";
    content.subject = kUmlauts;
    const std::string text = compose();
    EXPECT_EQ(text.substr(0, text.find("\n\n")), "Reply-To: sales@example.com\n"
                                                 "From: info@b\xC3\xBC"
                                                 "cher.example\n"
                                                 "CC: \n"
                                                 "Subject: =?utf-8?Q?Re:_Gr=C3=BC=C3=9Fe?=");
}

TEST_F(ComposeReply, ErrorReplyHoldsNothingOfALargeOne) {
    write_file(kDatabytes, "1000");
    attach("file", std::string(200000, 'x'));
    EXPECT_EQ(compose().size(), std::string("From: info@example.com\n"
                                            "CC: \n"
                                            "Subject: Re: Prices\n"
                                            "\n"
                                            "An error occurred while responding on you request.\n"
                                            "\n"
                                            "Autoresponder message size exceeds databytes limit.\n"
                                            "\n\n\n")
                                    .size());
}

TEST_F(ComposeReply, LimitIsTheLargestSizeThatPasses) {
    const size_t without_text = compose().size() - responder.text.size();
    unlink(resp_uu_file_name);
    responder.text = std::string(1000 - without_text, 'x');
    expect_too_large("1000", false);
    expect_too_large("999", true);
    responder.text += "x";
    expect_too_large("1000", true);
}

TEST_F(ComposeReply, LimitCountsTheAttachments) {
    attach("file", std::string(1500, 'x'));
    expect_too_large("2000", true);
    expect_too_large("4000", false);
}

} // namespace
