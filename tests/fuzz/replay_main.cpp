// Replays inputs of a fuzz target, each as a case of its own: PROGRAM [GoogleTest options] FILE...
// What the target finds ends the program.
#include "fuzz.h"

#include <filesystem>
#include <fstream>
#include <iterator>

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

} // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    for (int i = 1; i < argc; ++i) {
        const std::string path = argv[i];
        testing::RegisterTest("Replay", std::filesystem::path(path).filename().c_str(), nullptr,
                              nullptr, __FILE__, __LINE__, [path] { return new Replay(path); });
    }
    if (argc < 2) {
        std::cerr << "no input is given" << std::endl;
        return 2;
    }
    return RUN_ALL_TESTS();
}
