// Lenient base64: results and complaints are those of the twin.
#include "fuzz.h"
#include "lib/text/text_encoding.h"
#include "tests/twins/text_outcome.h"
#include "tests/twins/text_twins.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text = fuzz::text_of(data, size);
    fuzz::expect_equal(twin::outcome_of([&] { return quarx::base64_decode(text); }),
                       twin::outcome_of([&] { return twin::base64_decode(text); }),
                       "decoded base64");
    return 0;
}
