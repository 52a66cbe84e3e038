#include "corpus.h"

#include <fstream>
#include <sstream>
#include <stdexcept>

namespace parser_test {

std::string read_file(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    if (!file || !(text << file.rdbuf()))
        throw std::runtime_error("can't read " + path);
    return text.str();
}

std::vector<CorpusMessage> read_corpus(const std::string& folder) {
    std::istringstream index(read_file(folder + "/INDEX.tsv"));
    std::vector<CorpusMessage> messages;
    std::string line;
    std::getline(index, line); // the column names
    while (std::getline(index, line)) {
        const std::string name = line.substr(0, line.find('\t'));
        messages.push_back({name, read_file(folder + "/" + name)});
    }
    return messages;
}

} // namespace parser_test
