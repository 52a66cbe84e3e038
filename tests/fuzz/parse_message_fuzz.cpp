// Intake of a whole message from standard input: the run record is the twin's, the copy is the
// message and a line feed.
#include "fuzz.h"
#include "intake_input.h"
#include "tests/parser/corpus.h"
#include "tests/twins/intake_twin.h"

namespace {

void expect_record(const Mail_content& got, const Mail_content& wanted) {
    fuzz::expect_equal(got.sender, wanted.sender, "sender");
    fuzz::expect_equal(got.recipient, wanted.recipient, "recipient");
    fuzz::expect_equal(got.mailname, wanted.mailname, "mailname");
    fuzz::expect_equal(got.domain, wanted.domain, "domain");
    fuzz::expect_equal(got.subject, wanted.subject, "subject");
    fuzz::expect_equal(got.date, wanted.date, "date");
    fuzz::expect_equal(got.charset, wanted.charset, "charset");
    fuzz::expect_equal(got.body, wanted.body, "body");
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string message = fuzz::text_of(data, size);
    Mail_content content;
    fuzz::name_temporary_files();
    const int result = fuzz::take_in(message, &content);
    const std::string copy = parser_test::read_file(mail_file_name);
    unlink(mail_file_name);
    fuzz::expect_equal(copy, message + "\n", "copy of the message");

    const std::optional<Mail_content> wanted = twin::take_in(message, "info@example.com");
    fuzz::expect_equal(result, wanted ? 0 : 1, "result");
    expect_record(content, wanted.value_or(Mail_content{}));
    return 0;
}
