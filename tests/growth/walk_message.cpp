// walk_message SHAPE MEGABYTES: builds a hostile message of that shape and size, parses it, asks
// for everything that intake may ask for, and frees it. What it costs is counted by check_growth.
// walk_message: lists the shapes.
#include "lib/mime/mimelib.h"

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>

namespace {

constexpr const char* kMultipart = "Content-Type: multipart/mixed; boundary=b\n\n";

// Cheap to build, so that the parser is what counts: the text is doubled before it is repeated.
std::string repeated(const std::string& head, std::string text, size_t size) {
    while (text.size() < 4096)
        text += text;
    std::string message = head;
    message.reserve(size + head.size() + text.size() + 2);
    while (message.size() < size)
        message += text;
    return message + "\n\n";
}

std::string nested_multiparts(size_t size) {
    std::string message = "Content-Type: multipart/mixed; boundary=b0\n\n";
    for (int depth = 0; message.size() < size; ++depth) {
        const std::string inner = "b" + std::to_string(depth + 1);
        message += "--b" + std::to_string(depth) +
                   "\nContent-Type: multipart/mixed; boundary=" + inner + "\n\n";
    }
    return message;
}

std::string nested_comments(size_t size) {
    return "From: " + std::string(size / 2, '(') + std::string(size / 2, ')') + "a@b\n\n";
}

struct Shape {
    const char* name;
    std::function<std::string(size_t)> build;
};

Shape repeating(const char* name, const std::string& head, const std::string& text) {
    return {name, [=](size_t size) { return repeated(head, text, size); }};
}

const std::string kLongBoundary(69, 'b');

const Shape kShapes[] = {
    repeating("boundary-lines", kMultipart, "--b\n"),
    repeating("empty-parts", kMultipart, "--b\n\n\n"),
    repeating("parts-with-fields", kMultipart, "--b\nContent-Type: a; b=c\n\nx\n"),
    repeating("almost-boundaries",
              "Content-Type: multipart/mixed; boundary=" + kLongBoundary + "b\n\n",
              "--" + kLongBoundary + "x\n"),
    {"nested-multiparts", nested_multiparts},
    repeating("header-lines", "", "X-Header: value\n"),
    repeating("sender-lines", "", "From: a@b\nReply-To: c@d\nSubject: s\n"),
    repeating("folded-header", "Subject: a\n", " b\n"),
    repeating("endless-header", "Subject: ", "abcdefgh"),
    repeating("endless-line", "", "abcdefgh"),
    repeating("endless-body-line", "Subject: s\n\n", "abcdefgh"),
    repeating("empty-lines", kMultipart, "\n"),
    repeating("from-addresses", "From: ", "a@b,"),
    repeating("from-invalid", "From: ", "a,"),
    repeating("from-angles", "From: ", "x <a@b>,"),
    repeating("from-open-angles", "From: ", "<a,"),
    repeating("from-comments", "From: ", "(c)a.b(d)@c(e),"),
    {"from-nested-comments", nested_comments},
    repeating("from-one-address", "From: ", "a . "),
    repeating("from-quoted", "From: ", "\"\\q,\"@b,"),
    repeating("reply-to-addresses", "Reply-To: ", "a@b,"),
    repeating("reply-to-groups", "Reply-To: ", "g:a@b;,"),
    repeating("reply-to-one-group", "Reply-To: g:", "a@b,"),
    repeating("reply-to-comments", "Reply-To: ", "(c(d))a@b,"),
    repeating("reply-to-route", "Reply-To: <", "@r,"),
    repeating("parameters", "Content-Type: text/plain", ";a=b"),
    repeating("quoted-parameters", "Content-Type: text/plain", ";a=\"\\b\""),
    repeating("no-parameters", "Content-Type: text/plain", ";\"a\"(b)"),
    repeating("quoted-printable", "Content-Transfer-Encoding: quoted-printable\n\n", "=3D=41b=\n"),
    repeating("quoted-printable-blanks", "Content-Transfer-Encoding: quoted-printable\n\n",
              "a       \t\r\n"),
    repeating("base64", "Content-Transfer-Encoding: base64\n\n", "QUJDREVGR0hJSktM\n"),
    repeating("base64-broken", "Content-Transfer-Encoding: base64\n\n", "Q!U J*D-"),
};

size_t walk_entity(const DwEntity& entity) {
    size_t seen = 0;
    const DwHeaders& headers = entity.Headers();
    if (headers.HasContentType()) {
        const DwMediaType& type = headers.ContentType();
        seen += static_cast<size_t>(type.Type());
        for (DwParameter* parameter = type.FirstParameter(); parameter;
             parameter = parameter->Next()) {
            DwString attribute = parameter->Attribute();
            attribute.ConvertToLowerCase();
            seen += attribute == "charset" ? parameter->Value().length() : 0;
        }
    }
    const DwString& body = entity.Body().AsString();
    DwString decoded;
    if (headers.ContentTransferEncoding().AsEnum() == DwMime::kCteBase64)
        DwDecodeBase64(body, decoded);
    if (headers.ContentTransferEncoding().AsEnum() == DwMime::kCteQuotedPrintable)
        DwDecodeQuotedPrintable(body, decoded);
    return seen + decoded.length();
}

size_t walk_addresses(DwAddress* address) {
    size_t seen = 0;
    for (; address; address = address->Next()) {
        if (address->IsValid() && address->IsMailbox())
            seen += static_cast<DwMailbox*>(address)->LocalPart().length() +
                    static_cast<DwMailbox*>(address)->Domain().length();
    }
    return seen;
}

size_t walk_message(const std::string& bytes) {
    const DwString text(bytes.data(), bytes.size());
    const std::unique_ptr<DwMessage> message(DwMessage::NewMessage(text, nullptr));
    message->Parse();
    const DwHeaders& headers = message->Headers();
    size_t seen = walk_addresses(headers.ReplyTo().FirstAddress());
    seen += walk_addresses(headers.From().FirstMailbox());
    seen += headers.Subject().AsString().length() + headers.Date().AsString().length();
    seen += walk_entity(*message);
    for (DwBodyPart* part = message->Body().FirstBodyPart(); part; part = part->Next())
        seen += walk_entity(*part);
    return seen;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        for (const Shape& shape : kShapes)
            std::puts(shape.name);
        return argc == 1 ? 0 : 2;
    }
    for (const Shape& shape : kShapes) {
        if (std::string(argv[1]) != shape.name)
            continue;
        const std::string message = shape.build(std::strtoul(argv[2], nullptr, 10) * 1024 * 1024);
        std::printf("%s: %zu bytes, %zu seen\n", shape.name, message.size(), walk_message(message));
        return 0;
    }
    std::fprintf(stderr, "no such shape: %s\n", argv[1]);
    return 2;
}
