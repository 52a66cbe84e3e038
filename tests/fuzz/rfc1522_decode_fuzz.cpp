// Encoded words in a header text: results, exceptions and complaints are those of the twin.
#include "fuzz.h"
#include "lib/text/text_encoding.h"
#include "tests/twins/text_outcome.h"
#include "tests/twins/text_twins.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text = fuzz::text_of(data, size);
    fuzz::expect_equal(twin::outcome_of([&] { return quarx::rfc1522::decode(text); }),
                       twin::outcome_of([&] { return twin::decode(text); }), "decoded header text");
    return 0;
}
