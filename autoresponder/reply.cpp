#include "autoresponder/reply.h"

#include "autoresponder/attachments.h"
#include "autoresponder/mail_content.h"
#include "autoresponder/responder_row.h"
#include "autoresponder/response_file.h"
#include "autoresponder/size_limit.h"
#include "autoresponder/templates.h"
#include "lib/text/idn.h"
#include "lib/text/text_encoding.h"

#include <array>
#include <cstdlib>
#include <optional>

namespace {

// The template variables, by name as templ_found() wants them. Their values point into the run
// record and are set once per process.
constexpr unsigned kVariableCount = 5;

const par_templ* autoresp_templs(const Mail_content& content) {
    static const std::array<par_templ, kVariableCount> table = {{
        {"incoming_message_subject", content.subject.c_str()},
        {"orig_emails_sender_mailname", content.sender.c_str()},
        {"orig_emails_subj", content.subject.c_str()},
        {"request_from", content.sender.c_str()},
        {"request_subject", content.subject.c_str()},
    }};
    return table.data();
}

std::string reply_to_header(const Responder& responder) {
    return responder.reply_to.empty() ? std::string() : "Reply-To: " + responder.reply_to + "\n";
}

std::string multipart_header(const std::string& boundary) {
    return "Content-Type: multipart/mixed;\n"
           "\tboundary=\"" +
           boundary +
           "\"\n"
           "\n"
           "--" +
           boundary + "\n";
}

// The header of the whole message, and of the text part where that is a part of its own.
std::string reply_header(const Responder& responder, const Mail_content& content,
                         const Attachments& attachments, const std::string& boundary) {
    return reply_to_header(responder) + "From: " + quarx::idn::toAscii(content.recipient) +
           "\n"
           "To: " +
           content.sender +
           "\n"
           "MIME-Version: 1.0\n"
           "Subject: " +
           quarx::rfc1522::encode(reply_subject(responder.subject, content)) + "\n" +
           (attachments.present.empty() ? std::string() : multipart_header(boundary)) +
           "Content-Type: " + responder.content_type + "; charset=\"" + responder.charset +
           "\"\n"
           "Content-Transfer-Encoding: 8bit\n"
           "Content-Disposition: inline\n"
           "\n";
}

// Without To: and MIME fields, deliberately: the addressee stands on sendmail's command line.
std::string error_reply(const Responder& responder, const Mail_content& content) {
    return reply_to_header(responder) + "From: " + content.recipient +
           "\n"
           "CC: \n"
           "Subject: " +
           quarx::rfc1522::encode("Re: " + content.subject) +
           "\n"
           "\n"
           "An error occurred while responding on you request.\n"
           "\n"
           "Autoresponder message size exceeds databytes limit.\n"
           "\n"
           "\n"
           "\n";
}

} // namespace

std::string makeBoundaryStr() {
    constexpr int kLetters = 29;
    std::string boundary = "--------=_";
    for (int i = 0; i < kLetters; ++i) {
        const int v = std::rand() % 52;
        boundary += static_cast<char>(v < 26 ? 'A' + v : 'G' + v);
    }
    return boundary;
}

std::string reply_subject(const std::string& subject_template, const Mail_content& content) {
    if (subject_template.empty())
        return "Re: " + content.subject;
    constexpr unsigned kCapacity = 999;
    std::array<char, kCapacity + 1> subject{};
    repl_ctl control{0, 0, kKeepUnknown, 0};
    templ_replace('<', '>', autoresp_templs(content), kVariableCount, subject_template.c_str(),
                  subject.data(), kCapacity, &control);
    subject[control.written] = '\0';
    return subject.data();
}

void compose_reply(const Responder& responder, const Mail_content& content,
                   const Attachments& attachments, const std::string& boundary,
                   ResponseFile& file) {
    file.open();
    const std::string text = quarx::iconvRecode(responder.text, "UTF-8", responder.charset, true);
    file.write(reply_header(responder, content, attachments, boundary));
    file.write(text);
    file.write("\n\n\n");
    write_attachments(attachments, boundary, file);
    file.flush();
    const std::optional<off_t> size = file.size();
    if (size && exceeds_size_limit(*size)) {
        file.restart();
        file.write(error_reply(responder, content));
    }
    file.close();
}
