// Random input for comparing the text codecs with their naive twins.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <random>
#include <string>
#include <vector>

namespace twin {

// A source of random numbers. The seed is fresh in each run and printed; QRX_TEST_SEED in the
// environment repeats a run.
class Random {
public:
    explicit Random(const char* test) : engine_(seed(test)) {}

    // A number from 0 to `limit` - 1.
    size_t below(size_t limit) { return engine_() % limit; }

    char byte() { return static_cast<char>(engine_()); }

    std::string bytes(size_t count) {
        std::string text(count, '\0');
        for (char& c : text)
            c = byte();
        return text;
    }

    const std::string& pick(const std::vector<std::string>& pieces) {
        return pieces[below(pieces.size())];
    }

    // Up to `limit` - 1 of the `pieces`, now and then a random byte between them.
    std::string mix(const std::vector<std::string>& pieces, size_t limit) {
        std::string text;
        for (size_t count = below(limit); count > 0; --count)
            text += below(16) == 0 ? std::string(1, byte()) : pick(pieces);
        return text;
    }

private:
    static std::uint64_t seed(const char* test) {
        const char* given = std::getenv("QRX_TEST_SEED");
        const std::uint64_t value =
            given != nullptr ? std::strtoull(given, nullptr, 10) : std::random_device{}();
        std::cout << test << ": QRX_TEST_SEED=" << value << std::endl;
        return value;
    }

    std::mt19937_64 engine_;
};

} // namespace twin
