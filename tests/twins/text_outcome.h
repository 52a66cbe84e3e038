// What a call of a text codec comes to, as one value that tests compare and print.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <iostream>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <string>

namespace twin {

// What a call came to: its result or the exception it threw, and its lines on standard error.
struct Outcome {
    std::string text;
    std::string failure;
    std::string said;
    bool operator==(const Outcome&) const = default;
};

inline void PrintTo(const Outcome& outcome, std::ostream* stream) {
    *stream << "text " << testing::PrintToString(outcome.text) << ", failure "
            << testing::PrintToString(outcome.failure) << ", said "
            << testing::PrintToString(outcome.said);
}

inline Outcome text(const std::string& text, const std::string& said = "") {
    return {text, "", said};
}

inline Outcome runtime_error(const std::string& what, const std::string& said = "") {
    return {"", "runtime_error: " + what, said};
}

inline Outcome outcome_of(const std::function<std::string()>& call) {
    Outcome outcome;
    std::ostringstream said;
    std::streambuf* const before = std::cerr.rdbuf(said.rdbuf());
    try {
        outcome.text = call();
    } catch (const std::runtime_error& error) {
        outcome.failure = std::string("runtime_error: ") + error.what();
    } catch (const std::out_of_range& error) {
        outcome.failure = std::string("out_of_range: ") + error.what();
    }
    std::cerr.rdbuf(before);
    outcome.said = said.str();
    return outcome;
}

inline std::string repeated(const std::string& piece, size_t times) {
    std::string text;
    text.reserve(piece.size() * times);
    for (size_t i = 0; i < times; ++i)
        text += piece;
    return text;
}

} // namespace twin
