#pragma once

// What the program tells the log of the mail system: single lines on standard error.

#include <string>
#include <string_view>

// Writes `line` and a line feed to standard error in one write. Takes no memory. What doesn't
// go out with it is lost.
void report(std::string_view line);

// "TEXT (NUMBER)" for an errno value: strerror(3)'s text and the number.
std::string error_text(int error);

// Writes `line`, directly followed by `detail`, as report() does and ends the run through
// correct_exit().
[[noreturn]] void report_and_exit(std::string_view line, std::string_view detail = {});
