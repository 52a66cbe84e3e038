// A second opinion: GMime and the parser on the real messages, where the rules of both must give
// the same. Every message where they do not is listed with the reason; a listed message that agrees
// fails the test as well, so that the list stays true.
#include "lib/mime/mimelib.h"
#include "tests/parser/corpus.h"
#include "tests/parser/mimelib_record.h"

#include <gmime/gmime.h>
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <sstream>

namespace {

using namespace parser_test;

struct Unref {
    void operator()(void* object) const { g_object_unref(object); }
};
template <class T> using Owned = std::unique_ptr<T, Unref>;

// What is compared.
struct Opinion {
    std::map<std::string, std::string> fields; // first of each name that is asked for, string form
    std::string type = "none";                 // of the message, by GMime's defaults
    std::vector<std::string> part_types;       // of the direct parts

    bool operator==(const Opinion&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Opinion& opinion) {
    for (const auto& [name, value] : opinion.fields)
        out << name << ": " << printable(value) << "\n";
    out << "type " << opinion.type << ", parts";
    for (const std::string& type : opinion.part_types)
        out << " " << type;
    return out << "\n";
}

std::string unfolded(const char* raw) {
    std::string text;
    for (const char* c = raw; *c; ++c) {
        const bool line_end = *c == '\n' || (*c == '\r' && c[1] == '\n');
        if (!line_end)
            text += *c;
    }
    const size_t start = text.find_first_not_of(" \t");
    if (start == std::string::npos)
        return "";
    return text.substr(start, text.find_last_not_of(" \t\r\n\v\f") - start + 1);
}

std::string gmime_type(GMimeObject* object) {
    // GMime gives text/plain to an entity without Content-Type; the parser says that there is none.
    if (!g_mime_object_get_header(object, "Content-Type"))
        return "none";
    static const char* const known[] = {"text",  "multipart", "message", "application",
                                        "image", "audio",     "video"};
    GMimeContentType* type = g_mime_object_get_content_type(object);
    for (const char* name : known) {
        if (g_mime_content_type_is_type(type, name, "*"))
            return name;
    }
    return "other";
}

void add_fields(GMimeObject* object, Opinion& opinion) {
    GMimeHeaderList* headers = g_mime_object_get_header_list(object);
    for (int i = 0; i < g_mime_header_list_get_count(headers); ++i) {
        GMimeHeader* header = g_mime_header_list_get_header_at(headers, i);
        for (const char* name : {"Reply-To", "From", "Subject", "Date"}) {
            if (g_ascii_strcasecmp(g_mime_header_get_name(header), name) == 0)
                opinion.fields.emplace(name, unfolded(g_mime_header_get_raw_value(header)));
        }
    }
}

Opinion gmime_opinion(const std::string& text) {
    const Owned<GMimeStream> stream(g_mime_stream_mem_new_with_buffer(text.data(), text.size()));
    const Owned<GMimeParser> parser(g_mime_parser_new_with_stream(stream.get()));
    const Owned<GMimeMessage> message(g_mime_parser_construct_message(parser.get(), nullptr));
    Opinion opinion;
    if (!message)
        return opinion;
    add_fields(GMIME_OBJECT(message.get()), opinion);
    GMimeObject* top = g_mime_message_get_mime_part(message.get());
    if (!top)
        return opinion;
    opinion.type = gmime_type(top);
    if (!GMIME_IS_MULTIPART(top))
        return opinion;
    GMimeMultipart* multipart = GMIME_MULTIPART(top);
    for (int i = 0; i < g_mime_multipart_get_count(multipart); ++i)
        opinion.part_types.push_back(gmime_type(g_mime_multipart_get_part(multipart, i)));
    return opinion;
}

std::string own_type(const EntityRecord& entity) {
    static const std::map<std::string, std::string> names = {
        {"kTypeText", "text"},       {"kTypeMultipart", "multipart"},
        {"kTypeMessage", "message"}, {"kTypeApplication", "application"},
        {"kTypeImage", "image"},     {"kTypeAudio", "audio"},
        {"kTypeVideo", "video"},     {"kTypeUnknown", "other"}};
    const auto name = names.find(entity.type.value_or(""));
    return name == names.end() ? "none" : name->second;
}

Opinion own_opinion(const std::string& text) {
    const std::unique_ptr<DwMessage> message(
        DwMessage::NewMessage(DwString(text.data(), text.size()), nullptr));
    message->Parse();
    const DwHeaders& headers = message->Headers();
    const auto value = [](const DwFieldBody& field) {
        return std::string(field.AsString().data(), field.AsString().length());
    };
    Opinion opinion;
    if (headers.HasReplyTo())
        opinion.fields["Reply-To"] = value(headers.ReplyTo());
    if (headers.HasFrom())
        opinion.fields["From"] = value(headers.From());
    if (headers.HasSubject())
        opinion.fields["Subject"] = value(headers.Subject());
    if (headers.HasDate())
        opinion.fields["Date"] = value(headers.Date());
    const MessageRecord record = parse_with_mimelib(text);
    opinion.type = own_type(record.top);
    for (const EntityRecord& part : record.parts)
        opinion.part_types.push_back(own_type(part));
    return opinion;
}

// Where the two differ, and why that is right.
const std::map<std::string, std::string> kDifferences = {
    {"cpython-0008.eml", "`boundary*` (RFC 2231) is another parameter than `boundary`"},
    {"enmime-0004.eml", "a Content-Type without a type is none; GMime says application"},
    {"enmime-0006.eml", "a Content-Type without a type is none; GMime says application"},
    {"mailcore2-0010.eml", "an empty boundary makes no parts; GMime takes two hyphens for it"},
    {"mime4j-0006.eml", "an empty part counts; GMime drops it"},
    {"mime4j-0009.eml", "of a boundary of 7000 bytes with blanks at its end GMime finds no line"},
    {"mimeexplode-0006.eml", "an empty part counts; GMime drops it"},
    {"mimetools-0004.eml", "an empty part counts; GMime drops it"},
    {"mimetools-0009.eml", "of two Content-Type fields the first counts; GMime takes the last"},
    {"phpmimemail-0002.eml", "of two Content-Type fields the first counts; GMime takes the last"},
    {"rspamd-0003.eml", "headers end before a line without colon; GMime looks for an empty line"},
    {"spamscope-0006.eml", "an empty part counts; GMime drops it"},
    {"stalwart-0008.eml", "of two Content-Type fields the first counts; GMime takes the last"},
};

class MimeGmime : public testing::Test {
protected:
    static void SetUpTestSuite() { g_mime_init(); }
    static void TearDownTestSuite() { g_mime_shutdown(); }
};

TEST_F(MimeGmime, AgreesOnTheRealMessagesButForTheListedOnes) {
    size_t agreed = 0;
    for (const CorpusMessage& message : read_corpus(QRX_CORPUS)) {
        const Opinion own = own_opinion(message.text);
        const Opinion other = gmime_opinion(message.text);
        const auto listed = kDifferences.find(message.name);
        if (listed == kDifferences.end()) {
            EXPECT_EQ(own, other) << message.name;
            ++agreed;
        } else {
            EXPECT_FALSE(own == other)
                << message.name << " is listed (" << listed->second << "), but both agree";
        }
    }
    EXPECT_EQ(agreed + kDifferences.size(), 299u);
}

} // namespace
