// The vectors of tests/parser/vectors.jsonl: inputs of the parser and its decoders with what must
// come out.
#pragma once

#include "record.h"

#include <string>
#include <vector>

namespace parser_test {

struct Vector {
    std::string name;
    std::string kind; // "message", "base64" or "quoted-printable"
    std::string input;
    MessageRecord message; // of kind "message"
    std::string decoded;   // of a decoder
};

// Reads one JSON object a line. Throws std::runtime_error on a file that can't be read and on a
// line that is not of the form that README.md beside the file describes.
std::vector<Vector> read_vectors(const std::string& path);

} // namespace parser_test
