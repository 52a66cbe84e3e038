// Reads a mail on standard input and shows how GMime, an independent parser, takes its header
// block: a line "header NAME: VALUE" for each field and a line "warning CODE OFFSET" for each
// complaint of the parser, control characters in a value written as \xNN. Ends with status 1 when
// there was a complaint or no message at all.

#include <gmime/gmime.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <string>

namespace {

void show_warning(gint64 offset, GMimeParserWarning code, const gchar*, gpointer count) {
    std::printf("warning %d %lld\n", static_cast<int>(code), static_cast<long long>(offset));
    ++*static_cast<int*>(count);
}

std::string visible(const char* text) {
    std::string result;
    for (; text != nullptr && *text != '\0'; ++text) {
        const auto byte = static_cast<unsigned char>(*text);
        char escaped[8];
        std::snprintf(escaped, sizeof escaped, std::iscntrl(byte) != 0 ? "\\x%02x" : "%c", byte);
        result += escaped;
    }
    return result;
}

} // namespace

int main() {
    g_mime_init();
    int warnings = 0;
    GMimeParserOptions* options = g_mime_parser_options_new();
    g_mime_parser_options_set_warning_callback(options, show_warning, &warnings);
    GMimeStream* stream = g_mime_stream_pipe_new(dup(STDIN_FILENO));
    GMimeParser* parser = g_mime_parser_new_with_stream(stream);
    GMimeMessage* message = g_mime_parser_construct_message(parser, options);
    if (message == nullptr) {
        std::puts("no message");
        return 1;
    }
    GMimeHeaderList* headers = g_mime_object_get_header_list(GMIME_OBJECT(message));
    for (int i = 0; i < g_mime_header_list_get_count(headers); ++i) {
        GMimeHeader* header = g_mime_header_list_get_header_at(headers, i);
        std::printf("header %s: %s\n", g_mime_header_get_name(header),
                    visible(g_mime_header_get_value(header)).c_str());
    }
    g_object_unref(message);
    g_object_unref(parser);
    g_object_unref(stream);
    g_mime_parser_options_free(options);
    g_mime_shutdown();
    return warnings == 0 ? 0 : 1;
}
