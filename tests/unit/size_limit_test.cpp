// The mail system's limit on the size of a message.

#include "autoresponder/size_limit.h"

#include "support/sandbox_test.h"

#include <filesystem>

namespace {

constexpr char kDatabytes[] = "/var/qmail/control/databytes";

class SizeLimit : public SandboxTest {
protected:
    void SetUp() override {
        SandboxTest::SetUp();
        std::filesystem::remove_all(kDatabytes);
    }

    static void expect_limit(const std::string& databytes, off_t limit) {
        write_file(kDatabytes, databytes);
        EXPECT_FALSE(exceeds_size_limit(limit)) << "'" << databytes << "'";
        EXPECT_TRUE(exceeds_size_limit(limit + 1)) << "'" << databytes << "'";
    }

    static void expect_no_limit(const std::string& databytes) {
        write_file(kDatabytes, databytes);
        for (const off_t size : {off_t{0}, off_t{1}, off_t{1} << 31, off_t{1} << 40})
            EXPECT_FALSE(exceeds_size_limit(size)) << "'" << databytes << "', size " << size;
    }
};

TEST_F(SizeLimit, IsNoneWithoutTheFile) {
    EXPECT_FALSE(exceeds_size_limit(off_t{1} << 40));
}

TEST_F(SizeLimit, IsNoneWithoutTheFolder) {
    std::filesystem::rename("/var/qmail/control", "/var/qmail/elsewhere");
    EXPECT_FALSE(exceeds_size_limit(off_t{1} << 40));
    std::filesystem::rename("/var/qmail/elsewhere", "/var/qmail/control");
}

TEST_F(SizeLimit, IsTheLargestSizeThatPasses) {
    expect_limit("1000\n", 1000);
    expect_limit("1", 1);
    expect_limit("2147483647", 2147483647);
}

TEST_F(SizeLimit, IsTheFirstWord) {
    expect_limit("  \n\t1000 2000\n3000\n", 1000);
    expect_limit("1000bytes", 1000);
    expect_limit("+1000", 1000);
    expect_limit("0001000", 1000);
}

TEST_F(SizeLimit, IsNoneForWhatIsNoPositiveNumber) {
    for (const char* databytes : {"", "\n", "0", "-1000", "many 1000", "0x1000", "0 1000"})
        expect_no_limit(databytes);
}

TEST_F(SizeLimit, CountsAsThirtyTwoBits) {
    expect_no_limit("2147483648");
    expect_no_limit("4294967296");
    expect_limit("4294968296", 1000);
}

TEST_F(SizeLimit, IsComparedWithTheWholeSize) {
    write_file(kDatabytes, "1000");
    EXPECT_TRUE(exceeds_size_limit(off_t{1} << 32));
    EXPECT_TRUE(exceeds_size_limit((off_t{1} << 32) + 1));
}

TEST_F(SizeLimit, IsNoneForAFileThatCantBeRead) {
    std::filesystem::create_directory(kDatabytes);
    EXPECT_FALSE(exceeds_size_limit(off_t{1} << 40));
}

TEST_F(SizeLimit, IsReadAnewEachTime) {
    write_file(kDatabytes, "10");
    EXPECT_TRUE(exceeds_size_limit(11));
    write_file(kDatabytes, "20");
    EXPECT_FALSE(exceeds_size_limit(11));
}

} // namespace
