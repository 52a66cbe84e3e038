#include "sandbox_test.h"

#include "autoresponder/mail_content.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

[[noreturn]] void give_up(const std::string& what) {
    std::perror(what.c_str());
    std::abort();
}

void empty_tmp() {
    for (const auto& entry : std::filesystem::directory_iterator("/tmp"))
        std::filesystem::remove_all(entry.path());
}

int running_in = 0; // the process that a case runs in, 0 between cases

void fail_in_a_case() {
    if (running_in != getpid())
        return;
    std::fputs("The code under test has ended the test program.\n", stderr);
    _exit(EXIT_FAILURE);
}

} // namespace

void SandboxTest::SetUp() {
    static const int registered = std::atexit(fail_in_a_case);
    ASSERT_EQ(registered, 0);
    running_in = getpid();
    const char* sandbox = std::getenv("QRX_SANDBOX");
    ASSERT_STREQ(sandbox == nullptr ? "" : sandbox, "1") << "run this by tests/system/in_sandbox";
    empty_tmp();
    std::strcpy(mail_file_name, "/tmp/qrx-autoresponder-XXXXXX");
    std::strcpy(resp_uu_file_name, "/tmp/qrx-response-uu-XXXXXX");
}

void SandboxTest::TearDown() {
    running_in = 0;
}

bool has_other_users() {
    std::ifstream map("/proc/self/uid_map");
    unsigned long first = 0, outside = 0, count = 0;
    map >> first >> outside >> count;
    return count > 1;
}

SmallTmp::SmallTmp(unsigned kib) {
    const std::string options = "size=" + std::to_string(kib) + "k";
    if (mount("small", "/tmp", "tmpfs", 0, options.c_str()) != 0)
        give_up("mount");
}

SmallTmp::~SmallTmp() {
    if (umount2("/tmp", MNT_DETACH) != 0)
        give_up("umount2");
}

std::string read_file(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file)
        give_up(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

void write_file(const std::string& path, const std::string& text) {
    std::ofstream file(path, std::ios::binary);
    file << text << std::flush;
    if (!file)
        give_up(path);
}

std::vector<std::string> files_in(const std::string& folder) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

unsigned mode_of(const std::string& path) {
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0)
        give_up(path);
    return status.st_mode & 07777;
}

std::string standard_error_of(const std::function<void()>& body) {
    std::fflush(stderr);
    const int original = dup(STDERR_FILENO);
    const int memory = memfd_create("standard error", MFD_CLOEXEC);
    if (original < 0 || memory < 0 || dup2(memory, STDERR_FILENO) < 0)
        give_up("redirecting standard error");
    body();
    std::fflush(stderr);
    dup2(original, STDERR_FILENO);
    close(original);
    std::string text(static_cast<size_t>(lseek(memory, 0, SEEK_END)), '\0');
    if (pread(memory, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size()))
        give_up("reading standard error");
    close(memory);
    return text;
}
