// The message parser over whole messages: every list, parameter and part walked, against its twin.
#include "fuzz.h"
#include "tests/parser/mimelib_record.h"
#include "tests/parser/naive_parser.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string message = fuzz::text_of(data, size);
    fuzz::expect_equal(parser_test::parse_with_mimelib(message),
                       parser_test::parse_naively(message), "record of the message");
    return 0;
}
