// Replays inputs of a fuzz target, each as a case of its own: PROGRAM [GoogleTest options]
// FILE|FOLDER... A folder stands for the files in it. What the target finds ends the program.
#include "fuzz.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

namespace {

class Replay : public testing::Test {
public:
    explicit Replay(std::string path) : path_(std::move(path)) {}

    void TestBody() override {
        std::ifstream file(path_, std::ios::binary);
        ASSERT_TRUE(file) << path_ << " can't be read";
        const std::string input{std::istreambuf_iterator<char>(file), {}};
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
    }

private:
    std::string path_;
};

// The file itself, or those of a folder in the order of their names.
std::vector<std::string> files_of(const std::string& path) {
    if (!std::filesystem::is_directory(path)) {
        return {path};
    }
    std::vector<std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator(path)) {
        files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    return files;
}

} // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (argc < 2) {
        std::cerr << "no input is given" << std::endl;
        return 2;
    }
    for (int i = 1; i < argc; ++i) {
        const std::vector<std::string> files = files_of(argv[i]);
        if (files.empty()) {
            std::cerr << argv[i] << " is empty" << std::endl;
            return 2;
        }
        for (const std::string& path : files) {
            testing::RegisterTest("Replay", std::filesystem::path(path).filename().c_str(), nullptr,
                                  nullptr, __FILE__, __LINE__, [path] { return new Replay(path); });
        }
    }
    return RUN_ALL_TESTS();
}
