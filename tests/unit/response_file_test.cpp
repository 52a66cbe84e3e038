// The file in which a reply is composed.

#include "autoresponder/response_file.h"

#include "autoresponder/mail_content.h"
#include "support/sandbox_test.h"

#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <initializer_list>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr char kTemplate[] = "/tmp/qrx-response-uu-XXXXXX";
constexpr char kVictim[] = "/tmp/victim";

std::string name() {
    return resp_uu_file_name;
}

std::string reply() {
    return read_file(name());
}

class ResponseFileTest : public SandboxTest {
protected:
    // The state in which delivery leaves the run: the name is made, the file is gone.
    static void end_first_reply() {
        ResponseFile().close();
        ASSERT_EQ(unlink(resp_uu_file_name), 0);
    }

    // The second reply's text is in a file of its own, and what the victim holds is as it was.
    static void expect_second_reply_in_fresh_file() {
        ResponseFile file;
        file.open();
        file.write("second");
        file.close();
        struct stat status {};
        ASSERT_EQ(lstat(resp_uu_file_name, &status), 0);
        EXPECT_TRUE(S_ISREG(status.st_mode));
        EXPECT_EQ(status.st_nlink, 1U);
        EXPECT_EQ(status.st_uid, geteuid());
        EXPECT_EQ(status.st_mode & 07777, 0600U);
        EXPECT_EQ(reply(), "second");
        if (std::filesystem::exists(kVictim)) {
            EXPECT_EQ(read_file(kVictim), "precious");
        }
    }
};

TEST_F(ResponseFileTest, CompletesTheNameAtTheFirstReply) {
    const ResponseFile file;
    EXPECT_NE(name(), kTemplate);
    EXPECT_EQ(name().substr(0, 21), "/tmp/qrx-response-uu-");
    EXPECT_EQ(name().size(), 27U);
    EXPECT_EQ("/tmp/" + files_in("/tmp").at(0), name());
}

TEST_F(ResponseFileTest, IsForItsOwnerAloneAtTheFirstReply) {
    const mode_t old_mask = umask(0);
    const ResponseFile file;
    umask(old_mask);
    EXPECT_EQ(mode_of(name()), 0600U);
}

TEST_F(ResponseFileTest, KeepsTheNameAtLaterReplies) {
    end_first_reply();
    const std::string first = name();
    ResponseFile file;
    EXPECT_EQ(name(), first);
    EXPECT_EQ(files_in("/tmp"), std::vector<std::string>{}) << "made before it is opened";
    file.open();
    EXPECT_EQ("/tmp/" + files_in("/tmp").at(0), first);
}

TEST_F(ResponseFileTest, IsForItsOwnerAloneAtLaterRepliesWhateverTheUmask) {
    end_first_reply();
    const mode_t old_mask = umask(0);
    expect_second_reply_in_fresh_file();
    umask(old_mask);
}

TEST_F(ResponseFileTest, FollowsNoSymbolicLinkPlantedUnderTheName) {
    end_first_reply();
    write_file(kVictim, "precious");
    ASSERT_EQ(symlink(kVictim, resp_uu_file_name), 0);
    expect_second_reply_in_fresh_file();
}

TEST_F(ResponseFileTest, WritesThroughNoHardLinkPlantedUnderTheName) {
    end_first_reply();
    write_file(kVictim, "precious");
    ASSERT_EQ(link(kVictim, resp_uu_file_name), 0);
    expect_second_reply_in_fresh_file();
}

TEST_F(ResponseFileTest, WaitsForNoReaderOfAFifoPlantedUnderTheName) {
    end_first_reply();
    ASSERT_EQ(mkfifo(resp_uu_file_name, 0666), 0);
    expect_second_reply_in_fresh_file();
}

TEST_F(ResponseFileTest, WritesIntoNoFileOfAnotherUser) {
    if (!has_other_users())
        GTEST_SKIP() << kNoOtherUsers;
    end_first_reply();
    write_file(name(), "theirs");
    ASSERT_EQ(chmod(resp_uu_file_name, 0666), 0);
    ASSERT_EQ(chown(resp_uu_file_name, kOtherUser, kOtherUser), 0);
    expect_second_reply_in_fresh_file();
}

TEST_F(ResponseFileTest, TakesAnotherNameWhereThatOneCantBeHadAgain) {
    end_first_reply();
    const std::string taken = name();
    ASSERT_EQ(mkdir(taken.c_str(), 0700), 0);
    ResponseFile file;
    file.open();
    file.write("second");
    file.close();
    EXPECT_NE(name(), taken);
    EXPECT_EQ(reply(), "second");
}

TEST_F(ResponseFileTest, IsEmptiedFirstWhenSomebodyHasWrittenToIt) {
    ResponseFile file;
    write_file(name(), "theirs, and longer");
    file.open();
    file.write("ours");
    file.close();
    EXPECT_EQ(reply(), "ours");
}

TEST_F(ResponseFileTest, IsCreatedAgainWhenSomebodyHasRemovedIt) {
    ResponseFile file;
    ASSERT_EQ(unlink(resp_uu_file_name), 0);
    file.open();
    file.write("ours");
    file.close();
    EXPECT_EQ(reply(), "ours");
}

TEST_F(ResponseFileTest, IgnoresThatTheFirstOneCantBeMade) {
    std::strcpy(resp_uu_file_name, "/tmp/none/XXXXXX");
    ResponseFile file;
    EXPECT_EQ(standard_error_of([&] {
                  file.open();
                  file.write(std::string(100000, 'x'));
                  file.write("text");
                  file.flush();
                  EXPECT_FALSE(file.size().has_value());
                  file.restart();
                  file.write("more");
                  file.close();
              }),
              "");
    EXPECT_EQ(files_in("/tmp"), std::vector<std::string>{});
}

TEST_F(ResponseFileTest, IsClosedOnExec) {
    const ResponseFile file;
    int found = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        if (std::filesystem::read_symlink(entry.path(), gone) != name())
            continue;
        ++found;
        EXPECT_EQ(fcntl(std::stoi(entry.path().filename()), F_GETFD), FD_CLOEXEC);
    }
    EXPECT_EQ(found, 1);
}

TEST_F(ResponseFileTest, HoldsAllTextsInOrder) {
    ResponseFile file;
    file.open();
    file.write("one\n");
    file.write("");
    file.write(std::string_view("t\0o\n", 4));
    file.write("three");
    file.close();
    EXPECT_EQ(reply(), std::string("one\nt\0o\nthree", 13));
}

TEST_F(ResponseFileTest, HoldsTextsAroundTheBlockSize) {
    std::string all;
    ResponseFile file;
    file.open();
    for (const size_t size :
         std::initializer_list<size_t>{65535, 1, 65536, 7, 65537, 200000, 3, 65533, 5}) {
        const std::string text(size, static_cast<char>('a' + all.size() % 26));
        file.write(text);
        all += text;
    }
    file.close();
    EXPECT_EQ(reply().size(), all.size());
    EXPECT_TRUE(reply() == all);
}

TEST_F(ResponseFileTest, WritesNothingBeforeABlockIsFull) {
    ResponseFile file;
    file.open();
    file.write(std::string(65535, 'x'));
    EXPECT_EQ(file.size(), 0);
    file.write("x");
    EXPECT_EQ(file.size(), 65536);
}

TEST_F(ResponseFileTest, TellsItsSizeAfterAFlush) {
    ResponseFile file;
    file.open();
    file.write("12345");
    file.flush();
    EXPECT_EQ(file.size(), 5);
    file.write("67");
    file.flush();
    EXPECT_EQ(file.size(), 7);
}

TEST_F(ResponseFileTest, TellsNoSizeWhenClosed) {
    ResponseFile file;
    file.open();
    file.close();
    EXPECT_FALSE(file.size().has_value());
}

TEST_F(ResponseFileTest, HoldsOnlyTheSecondTextAfterARestart) {
    ResponseFile file;
    file.open();
    file.write(std::string(100000, 'x'));
    file.write("not flushed");
    file.restart();
    EXPECT_EQ(file.size(), 0);
    file.write("second");
    file.close();
    EXPECT_EQ(reply(), "second");
}

TEST_F(ResponseFileTest, StaysUnderItsNameWhenClosedAndWhenDestroyed) {
    {
        ResponseFile file;
        file.open();
        file.write("text");
        file.close();
    }
    EXPECT_EQ(reply(), "text");
}

TEST_F(ResponseFileTest, WritesNothingBehindTheFirstFailure) {
    const SmallTmp tmp(64);
    write_file("/tmp/filler", std::string(32 * 1024, 'f'));
    ResponseFile file;
    file.open();
    file.write(std::string(65536, 'x'));
    const std::optional<off_t> full = file.size();
    EXPECT_GT(full.value_or(0), 0);
    EXPECT_LT(full.value_or(0), 65536);
    ASSERT_EQ(unlink("/tmp/filler"), 0);
    file.write("behind the hole");
    file.close();
    EXPECT_EQ(reply(), std::string(static_cast<size_t>(full.value_or(0)), 'x'));
}

TEST_F(ResponseFileTest, CanBeWrittenAgainAfterARestart) {
    const SmallTmp tmp(64);
    ResponseFile file;
    file.open();
    file.write(std::string(100000, 'x'));
    file.restart();
    file.write("second");
    file.close();
    EXPECT_EQ(reply(), "second");
}

} // namespace
