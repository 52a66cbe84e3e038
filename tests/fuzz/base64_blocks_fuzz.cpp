// Base64 blocks: encoded apart and in place, decoded again; and the decoder over what is no base64.
// The buffers are exactly as large as the functions ask for.
#include "fuzz.h"
#include "lib/text/base64.h"
#include "tests/twins/text_twins.h"

#include <algorithm>
#include <vector>

namespace {

const unsigned char* bytes_of(const std::vector<char>& buffer) {
    return reinterpret_cast<const unsigned char*>(buffer.data());
}

std::string encoded(const std::vector<char>& input, std::vector<char>& output) {
    const int length =
        base64Encode(bytes_of(input), static_cast<unsigned>(input.size()), output.data());
    fuzz::expect_equal(static_cast<std::size_t>(length) + 1, output.size(), "characters");
    return output.data();
}

std::string decoded(const std::string& text) {
    const std::vector<char> input(text.begin(), text.end());
    std::vector<unsigned char> output(3 * input.size() / 4);
    const unsigned length =
        base64ArrayDecode(input.data(), static_cast<unsigned>(input.size()), output.data());
    return std::string(output.begin(), output.begin() + length);
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string bytes = fuzz::text_of(data, size);
    const std::vector<char> input(bytes.begin(), bytes.end());
    std::vector<char> apart(4 * ((size + 2) / 3) + 1);
    const std::string text = encoded(input, apart);
    fuzz::expect_equal(text, twin::base64_encode(bytes), "base64");
    fuzz::expect_equal(decoded(text), bytes, "decoded again");

    std::vector<char> in_place(apart.size());
    std::copy(input.begin(), input.end(), in_place.begin());
    base64Encode(bytes_of(in_place), static_cast<unsigned>(size), in_place.data());
    fuzz::expect_equal(std::string(in_place.data()), text, "encoded in place");

    fuzz::expect_equal(decoded(bytes), twin::base64_array_decode(bytes), "decoded rubbish");
    return 0;
}
