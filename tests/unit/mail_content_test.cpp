// The run's end and the names of its files.

#include "autoresponder/mail_content.h"

#include "support/sandbox_test.h"

#include <cstring>
#include <sys/stat.h>
#include <type_traits>
#include <unistd.h>

namespace {

using testing::Eq;
using testing::ExitedWithCode;
using Names = std::vector<std::string>;

static_assert(sizeof mail_file_name == 30);
static_assert(sizeof resp_uu_file_name == 28);
static_assert(std::is_aggregate_v<Mail_content>);

// Before any case has touched them.
const std::string initial_mail_file_name(mail_file_name, sizeof mail_file_name);
const std::string initial_resp_uu_file_name(resp_uu_file_name, sizeof resp_uu_file_name);

TEST(MailContent, HasItsMembersInOrder) {
    const Mail_content content{"sender",  "recipient", "mailname", "domain",
                               "subject", "date",      "charset",  {"body"}};
    EXPECT_EQ(content.sender, "sender");
    EXPECT_EQ(content.recipient, "recipient");
    EXPECT_EQ(content.mailname, "mailname");
    EXPECT_EQ(content.domain, "domain");
    EXPECT_EQ(content.subject, "subject");
    EXPECT_EQ(content.date, "date");
    EXPECT_EQ(content.charset, "charset");
    EXPECT_EQ(content.body, Names{"body"});
}

TEST(NameBuffers, BeginAsTemplates) {
    EXPECT_EQ(initial_mail_file_name, std::string("/tmp/qrx-autoresponder-XXXXXX\0", 30));
    EXPECT_EQ(initial_resp_uu_file_name, std::string("/tmp/qrx-response-uu-XXXXXX\0", 28));
}

class CorrectExit : public SandboxTest {};

TEST_F(CorrectExit, RemovesBothFilesAndEndsWithStatusZeroInSilence) {
    write_file(mail_file_name, "message");
    write_file(resp_uu_file_name, "reply");
    write_file("/tmp/other", "");
    EXPECT_EXIT(correct_exit(), ExitedWithCode(0), Eq(""));
    EXPECT_EQ(files_in("/tmp"), Names{"other"});
}

TEST_F(CorrectExit, RemovesEachFileWithoutTheOther) {
    write_file(mail_file_name, "message");
    EXPECT_EXIT(correct_exit(), ExitedWithCode(0), Eq(""));
    EXPECT_EQ(files_in("/tmp"), Names{});
    write_file(resp_uu_file_name, "reply");
    EXPECT_EXIT(correct_exit(), ExitedWithCode(0), Eq(""));
    EXPECT_EQ(files_in("/tmp"), Names{});
}

TEST_F(CorrectExit, IgnoresThatThereIsNothingToRemove) {
    EXPECT_EXIT(correct_exit(), ExitedWithCode(0), Eq(""));
}

TEST_F(CorrectExit, IgnoresThatAFileCantBeRemoved) {
    ASSERT_EQ(mkdir(mail_file_name, 0700), 0);
    write_file(resp_uu_file_name, "reply");
    EXPECT_EXIT(correct_exit(), ExitedWithCode(0), Eq(""));
    EXPECT_EQ("/tmp/" + files_in("/tmp").at(0), mail_file_name);
    EXPECT_EQ(files_in("/tmp").size(), 1U);
}

TEST_F(CorrectExit, PassesOverAnEmptyName) {
    write_file(resp_uu_file_name, "reply");
    mail_file_name[0] = '\0';
    EXPECT_EXIT(correct_exit(), ExitedWithCode(0), Eq(""));
    EXPECT_EQ(files_in("/tmp"), Names{});
}

TEST_F(CorrectExit, RemovesLinksAndNotTheirTargets) {
    write_file("/tmp/target", "precious");
    ASSERT_EQ(symlink("/tmp/target", mail_file_name), 0);
    EXPECT_EXIT(correct_exit(), ExitedWithCode(0), Eq(""));
    EXPECT_EQ(files_in("/tmp"), Names{"target"});
}

} // namespace
