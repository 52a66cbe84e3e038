// A header text made safe: one line of ASCII without control characters, and back to what it was.
#include "fuzz.h"
#include "lib/text/text_encoding.h"
#include "tests/twins/text_outcome.h"
#include "tests/twins/text_twins.h"

#include <algorithm>

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text = fuzz::text_of(data, size);
    const std::string encoded = quarx::rfc1522::encode(text);
    fuzz::expect_equal(encoded, twin::encode(text), "encoded header text");
    // DEL is let through, as it has always been.
    const bool is_safe = std::all_of(encoded.begin(), encoded.end(),
                                     [](unsigned char c) { return c >= ' ' && c < 128; });
    fuzz::expect(is_safe, "a header line of ASCII", encoded);
    // What is no UTF-8 doesn't come back.
    const auto recoded =
        twin::outcome_of([&] { return twin::recode(text, "utf-8", "utf-8", true); });
    if (recoded == twin::text(text))
        fuzz::expect_equal(quarx::rfc1522::decode(encoded), text, "decoded again");
    return 0;
}
