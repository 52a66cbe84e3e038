// What the fuzz targets share. A target gives any bytes whatever to one public function and
// compares what comes out with a naive twin, or with what must always hold; it ends the process by
// abort(3) where that fails, as the sanitizers do. https://llvm.org/docs/LibFuzzer.html
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <string>
#include <string_view>

// The one function of a target. Returns 0.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace fuzz {

inline std::string text_of(const std::uint8_t* data, std::size_t size) {
    return std::string(reinterpret_cast<const char*>(data), size);
}

// An input of several fields, taken from its beginning on. A field that is missing is empty.
class Fields {
public:
    Fields(const std::uint8_t* data, std::size_t size) : text_(text_of(data, size)) {}

    // What stands before the next `end`, which is passed over; all that is left without one.
    std::string until(std::string_view end) {
        const std::size_t length = text_.find(end, at_) - at_;
        const std::string field = text_.substr(at_, length);
        at_ = std::min(at_ + field.size() + end.size(), text_.size());
        return field;
    }

    std::string line() { return until("\n"); }

    // A line as a number, 0 for what is none.
    unsigned number() { return static_cast<unsigned>(std::strtoul(line().c_str(), nullptr, 10)); }

    std::string rest() const { return text_.substr(at_); }

private:
    std::string text_;
    std::size_t at_ = 0;
};

// Ends the process unless `got` is `wanted`.
template <class T> void expect_equal(const T& got, const T& wanted, const char* what) {
    if (got == wanted)
        return;
    std::cerr << what << "\ngot:    " << testing::PrintToString(got)
              << "\nwanted: " << testing::PrintToString(wanted) << std::endl;
    std::abort();
}

// Ends the process unless `holds`; prints `value`, of which it doesn't hold.
inline void expect(bool holds, const char* what, const std::string& value) {
    if (holds)
        return;
    std::cerr << what << "\ngot:    " << testing::PrintToString(value) << std::endl;
    std::abort();
}

} // namespace fuzz
