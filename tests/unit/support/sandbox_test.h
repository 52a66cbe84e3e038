#pragma once

// The base of driver tests that need /tmp, or another fixed place of the program, to themselves.
// They run in a sandbox (qrx_sandbox_unit_test) and fail outside of one.

#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <vector>

// Each case begins with an empty /tmp and with both name buffers of the run holding templates. Code
// that ends the process during a case, if only with status 0, fails the test program; cases expect
// such an end in a child process.
class SandboxTest : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
};

// The sandbox of an ordinary user knows no second user: files can't be given away there.
bool has_other_users();
constexpr unsigned kOtherUser = 65534;
constexpr char kNoOtherUsers[] =
    "a sandbox of an ordinary user has no second user: run this as root";

// A small file system in the place of /tmp, as long as the object lives.
class SmallTmp {
public:
    explicit SmallTmp(unsigned kib);
    SmallTmp(const SmallTmp&) = delete;
    ~SmallTmp();
};

// Files. What can't be done ends the test program.
std::string read_file(const std::string& path);
void write_file(const std::string& path, const std::string& text);
std::vector<std::string> files_in(const std::string& folder); // names, sorted
unsigned mode_of(const std::string& path);                    // the permission bits

// What `body` writes to standard error.
std::string standard_error_of(const std::function<void()>& body);
