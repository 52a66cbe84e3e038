// The reply to any message by any responder: its header has the lines of the layout and none that a
// value of the message added, its body stands behind the first empty line, and GMime counts as many
// fields. The input: the message, a line "====", and lines with recipient, subject, Reply-To,
// charset, content type and attachment of the responder, the rest its text. The message alone has
// the defaults.
#include "autoresponder/attachments.h"
#include "autoresponder/reply.h"
#include "autoresponder/responder_row.h"
#include "autoresponder/response_file.h"
#include "fuzz.h"
#include "intake_input.h"
#include "lib/text/idn.h"
#include "tests/parser/corpus.h"
#include "tests/twins/text_outcome.h"
#include "tests/twins/text_twins.h"

#include <gmime/gmime.h>

#include <memory>
#include <optional>
#include <stdexcept>
#include <vector>

namespace {

constexpr char kBoundary[] = "--------=_abcdefghijklmnopqrstuvwxyzABC";

// The template variables point into the first record of a process for good, so this is the only
// one, and its texts stay where they are.
Mail_content& the_record() {
    static Mail_content record;
    for (std::string* text : {&record.sender, &record.subject})
        text->reserve(std::size_t{1} << 20);
    return record;
}

bool take_in(fuzz::Fields& input) {
    Mail_content content;
    const int result = fuzz::take_in(input.until("\n====\n"), &content);
    unlink(mail_file_name);
    Mail_content& record = the_record();
    record.sender = std::as_const(content.sender);
    record.subject = std::as_const(content.subject);
    return result == 0;
}

// The panel's own values are what a column of a table can be: texts without NUL, here of one line.
std::string column(fuzz::Fields& input, const char* fallback) {
    const std::string value = input.line().c_str();
    return value.empty() ? fallback : value;
}

Responder responder_of(fuzz::Fields& input) {
    Responder responder;
    responder.subject = column(input, "");
    responder.reply_to = column(input, "");
    responder.charset = column(input, "UTF-8");
    responder.content_type = column(input, "text/plain");
    return responder;
}

// A folder that isn't there: whatever the name is, nothing is opened.
Attachments attachments_of(fuzz::Fields& input) {
    const std::string name = column(input, "");
    return {"/dev/shm/qrx-no-folder", name.empty() ? std::vector<std::string>() : std::vector{name},
            ""};
}

// The reply, or nothing where it can't be composed.
std::optional<std::string> composed(const Responder& responder, const Attachments& attachments) {
    try {
        ResponseFile file;
        compose_reply(responder, the_record(), attachments, kBoundary, file);
    } catch (const std::runtime_error&) {
        unlink(resp_uu_file_name);
        return std::nullopt;
    } catch (const quarx::idn::IdnaError&) {
        unlink(resp_uu_file_name);
        return std::nullopt;
    }
    const std::string reply = parser_test::read_file(resp_uu_file_name);
    unlink(resp_uu_file_name);
    return reply;
}

// The header's lines but for the value of the subject, which its own line is compared without.
std::vector<std::string> header_lines(const Responder& responder, bool is_multipart) {
    std::vector<std::string> lines;
    if (!responder.reply_to.empty())
        lines.push_back("Reply-To: " + responder.reply_to);
    lines.push_back("From: " + quarx::idn::toAscii(the_record().recipient));
    lines.push_back("To: " + the_record().sender);
    lines.push_back("MIME-Version: 1.0");
    lines.push_back("Subject: ");
    if (is_multipart) {
        lines.push_back("Content-Type: multipart/mixed;");
        lines.push_back("\tboundary=\"" + std::string(kBoundary) + "\"");
        return lines;
    }
    lines.push_back("Content-Type: " + responder.content_type + "; charset=\"" + responder.charset +
                    "\"");
    lines.push_back("Content-Transfer-Encoding: 8bit");
    lines.push_back("Content-Disposition: inline");
    return lines;
}

void expect_header(const std::string& reply, const std::vector<std::string>& wanted) {
    std::vector<std::string> lines;
    for (std::size_t at = 0; at < reply.size() && reply[at] != '\n';) {
        const std::size_t end = std::min(reply.find('\n', at), reply.size());
        const std::string line = reply.substr(at, end - at);
        lines.push_back(line.starts_with("Subject: ") ? "Subject: " : line);
        at = std::min(end + 1, reply.size());
    }
    fuzz::expect_equal(lines, wanted, "header");
}

void expect_body(const std::string& reply, const Responder& responder, bool is_multipart) {
    const std::string body = reply.substr(reply.find("\n\n") + 2);
    const std::string text =
        twin::recode(responder.text, "UTF-8", responder.charset, true) + "\n\n\n";
    if (is_multipart)
        fuzz::expect(body.starts_with("--" + std::string(kBoundary) + "\nContent-Type: "), "parts",
                     body);
    else
        fuzz::expect_equal(body, text, "body");
}

struct Unref {
    void operator()(void* object) const { g_object_unref(object); }
};
template <class T> using Owned = std::unique_ptr<T, Unref>;

std::size_t field_count(GMimeObject* object) {
    return static_cast<std::size_t>(
        g_mime_header_list_get_count(g_mime_object_get_header_list(object)));
}

// GMime keeps the Content-... fields of a message with what it holds.
std::size_t fields_by_gmime(const std::string& mail) {
    g_mime_init();
    const Owned<GMimeStream> stream(g_mime_stream_mem_new_with_buffer(mail.data(), mail.size()));
    const Owned<GMimeParser> parser(g_mime_parser_new_with_stream(stream.get()));
    const Owned<GMimeMessage> message(g_mime_parser_construct_message(parser.get(), nullptr));
    if (!message)
        return 0;
    return field_count(GMIME_OBJECT(message.get())) +
           field_count(g_mime_message_get_mime_part(message.get()));
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Fields input(data, size);
    fuzz::name_temporary_files();
    if (!take_in(input))
        return 0;
    the_record().recipient = column(input, "info@example.com");
    Responder responder = responder_of(input);
    const Attachments attachments = attachments_of(input);
    responder.text = input.rest().c_str();
    const std::optional<std::string> reply = composed(responder, attachments);
    if (!reply)
        return 0;
    const bool is_multipart = !attachments.present.empty();
    const std::vector<std::string> lines = header_lines(responder, is_multipart);
    expect_header(*reply, lines);
    expect_body(*reply, responder, is_multipart);
    fuzz::expect_equal(fields_by_gmime(*reply), lines.size() - (is_multipart ? 1 : 0),
                       "fields by GMime");
    return 0;
}
