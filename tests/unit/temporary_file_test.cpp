// Files under names in a folder that everybody may write to.

#include "autoresponder/temporary_file.h"

#include "support/sandbox_test.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr char kName[] = "/tmp/name";
constexpr char kOther[] = "/tmp/other";

class CreateTemporary : public SandboxTest {};
class OpenTemporary : public SandboxTest {};

// What was under the name before is gone: an empty file of ours is there, with its one name.
void expect_fresh_file(const UniqueFd& file) {
    ASSERT_TRUE(file) << std::strerror(errno);
    struct stat opened {
    }, named{};
    ASSERT_EQ(fstat(file.get(), &opened), 0);
    ASSERT_EQ(lstat(kName, &named), 0);
    EXPECT_EQ(opened.st_ino, named.st_ino);
    EXPECT_TRUE(S_ISREG(opened.st_mode));
    EXPECT_EQ(opened.st_mode & 07777, 0600U);
    EXPECT_EQ(opened.st_uid, geteuid());
    EXPECT_EQ(opened.st_nlink, 1U);
    EXPECT_EQ(opened.st_size, 0);
}

TEST_F(CreateTemporary, IsForItsOwnerAloneWhateverTheUmask) {
    const mode_t old_mask = umask(0);
    const UniqueFd file = create_temporary(kName);
    umask(old_mask);
    expect_fresh_file(file);
}

TEST_F(CreateTemporary, IsReadableWritableAndClosedOnExec) {
    const UniqueFd file = create_temporary(kName);
    ASSERT_TRUE(file);
    EXPECT_EQ(fcntl(file.get(), F_GETFL) & O_ACCMODE, O_RDWR);
    EXPECT_EQ(fcntl(file.get(), F_GETFD), FD_CLOEXEC);
}

TEST_F(CreateTemporary, ReplacesAFile) {
    write_file(kName, "old");
    expect_fresh_file(create_temporary(kName));
}

TEST_F(CreateTemporary, ReplacesASymbolicLinkAndLeavesItsTarget) {
    write_file(kOther, "precious");
    ASSERT_EQ(symlink(kOther, kName), 0);
    expect_fresh_file(create_temporary(kName));
    EXPECT_EQ(read_file(kOther), "precious");
}

TEST_F(CreateTemporary, ReplacesADanglingSymbolicLinkAndMakesNoTarget) {
    ASSERT_EQ(symlink(kOther, kName), 0);
    expect_fresh_file(create_temporary(kName));
    EXPECT_EQ(files_in("/tmp"), std::vector<std::string>{"name"});
}

TEST_F(CreateTemporary, ReplacesAHardLinkAndLeavesTheFile) {
    write_file(kOther, "precious");
    ASSERT_EQ(link(kOther, kName), 0);
    expect_fresh_file(create_temporary(kName));
    EXPECT_EQ(read_file(kOther), "precious");
}

TEST_F(CreateTemporary, ReplacesAFifo) {
    ASSERT_EQ(mkfifo(kName, 0666), 0);
    expect_fresh_file(create_temporary(kName));
}

TEST_F(CreateTemporary, ReplacesAFileOfAnotherUser) {
    if (!has_other_users())
        GTEST_SKIP() << kNoOtherUsers;
    write_file(kName, "theirs");
    ASSERT_EQ(chown(kName, kOtherUser, kOtherUser), 0);
    expect_fresh_file(create_temporary(kName));
}

TEST_F(CreateTemporary, FailsWhereTheNameCantBeFreed) {
    ASSERT_EQ(mkdir(kName, 0700), 0);
    EXPECT_FALSE(create_temporary(kName));
    EXPECT_EQ(errno, EISDIR);
    EXPECT_EQ(files_in(kName), std::vector<std::string>{});
}

TEST_F(CreateTemporary, FailsWithoutItsFolder) {
    EXPECT_FALSE(create_temporary("/tmp/none/name"));
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(OpenTemporary, ReadsAFileOfOurs) {
    write_file(kName, "text");
    const UniqueFd file = open_temporary(kName);
    ASSERT_TRUE(file);
    char text[8];
    EXPECT_EQ(read(file.get(), text, sizeof text), 4);
    EXPECT_EQ(std::string(text, 4), "text");
    EXPECT_EQ(fcntl(file.get(), F_GETFL) & O_ACCMODE, O_RDONLY);
    EXPECT_EQ(fcntl(file.get(), F_GETFD), FD_CLOEXEC);
}

TEST_F(OpenTemporary, FailsForAMissingFile) {
    EXPECT_FALSE(open_temporary(kName));
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(OpenTemporary, FollowsNoSymbolicLink) {
    write_file(kOther, "precious");
    ASSERT_EQ(symlink(kOther, kName), 0);
    EXPECT_FALSE(open_temporary(kName));
    EXPECT_EQ(errno, ELOOP);
}

TEST_F(OpenTemporary, RefusesAFifoWithoutWaitingForAWriter) {
    ASSERT_EQ(mkfifo(kName, 0666), 0);
    EXPECT_FALSE(open_temporary(kName));
    EXPECT_EQ(errno, EACCES);
}

TEST_F(OpenTemporary, RefusesAFolder) {
    ASSERT_EQ(mkdir(kName, 0700), 0);
    EXPECT_FALSE(open_temporary(kName));
    EXPECT_EQ(errno, EACCES);
}

TEST_F(OpenTemporary, RefusesAFileOfAnotherUser) {
    if (!has_other_users())
        GTEST_SKIP() << kNoOtherUsers;
    write_file(kName, "theirs");
    ASSERT_EQ(chown(kName, kOtherUser, kOtherUser), 0);
    EXPECT_FALSE(open_temporary(kName));
    EXPECT_EQ(errno, EACCES);
}

TEST_F(OpenTemporary, LeavesNoDescriptorOfARefusedFile) {
    ASSERT_EQ(mkdir(kName, 0700), 0);
    const int before = open("/dev/null", O_RDONLY);
    close(before);
    EXPECT_FALSE(open_temporary(kName));
    const int after = open("/dev/null", O_RDONLY);
    close(after);
    EXPECT_EQ(before, after);
}

} // namespace
