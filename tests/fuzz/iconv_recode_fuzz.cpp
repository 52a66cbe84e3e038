// Recoding between any two charsets: the input's first two lines name them, the rest is the text.
#include "fuzz.h"
#include "lib/text/text_encoding.h"
#include "tests/twins/text_outcome.h"
#include "tests/twins/text_twins.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Fields input(data, size);
    const std::string from = input.line();
    const std::string to = input.line();
    const std::string text = input.rest();
    for (const bool skip_invalid : {true, false}) {
        const twin::Outcome got =
            twin::outcome_of([&] { return quarx::iconvRecode(text, from, to, skip_invalid); });
        const twin::Outcome wanted =
            twin::outcome_of([&] { return twin::recode(text, from, to, skip_invalid); });
        fuzz::expect_equal(got, wanted, "recoded text");
        fuzz::expect(got.text.size() <= 16 * text.size() + 64, "at most 16 times as long",
                     got.text);
    }
    return 0;
}
