// Domain names and addresses in ASCII form.
#include "fuzz.h"
#include "lib/text/idn.h"

#include <algorithm>
#include <functional>
#include <utility>

namespace {

using Outcome = std::pair<int, std::string>; // libidn's return code, and the result

Outcome outcome_of(const std::function<std::string()>& call) {
    try {
        return {0, call()};
    } catch (const quarx::idn::IdnaError& error) {
        return {error.code(), ""};
    }
}

bool is_ascii(const std::string& text) {
    return std::all_of(text.begin(), text.end(), [](unsigned char c) { return c < 128; });
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string address = fuzz::text_of(data, size);
    const std::string local = address.substr(0, address.find('@') + 1);
    const std::string domain = address.substr(local.size());
    const Outcome ascii = outcome_of([&] { return quarx::idn::toAscii(domain); });
    fuzz::expect(is_ascii(ascii.second), "a domain name of ASCII", ascii.second);

    Outcome wanted = ascii;
    if (local.empty())
        wanted = {0, address};
    else if (ascii.first == 0)
        wanted.second.insert(0, local);
    fuzz::expect_equal(outcome_of([&] { return quarx::idn::emailToAscii(address); }), wanted,
                       "address");
    outcome_of([&] { return quarx::idn::toUtf8(domain); });
    return 0;
}
