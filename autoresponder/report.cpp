#include "autoresponder/report.h"

#include "autoresponder/mail_content.h"

#include <cstdio>
#include <cstring>
#include <utility>

void report(std::string line) {
    line += '\n';
    std::fwrite(line.data(), 1, line.size(), stderr);
    std::fflush(stderr);
}

std::string error_text(int error) {
    return std::string(std::strerror(error)) + " (" + std::to_string(error) + ")";
}

void report_and_exit(std::string line) {
    report(std::move(line));
    correct_exit();
}
