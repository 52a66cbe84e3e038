// The real messages of tests/corpus.
#pragma once

#include <string>
#include <vector>

namespace parser_test {

struct CorpusMessage {
    std::string name; // of the file
    std::string text;
};

// All messages that INDEX.tsv in `folder` lists, in its order. Throws std::runtime_error where a
// file can't be read.
std::vector<CorpusMessage> read_corpus(const std::string& folder);

std::string read_file(const std::string& path);

} // namespace parser_test
