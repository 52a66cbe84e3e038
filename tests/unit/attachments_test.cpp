// The attachments of a responder: which files there are, and the parts that carry them.

#include "autoresponder/attachments.h"

#include "autoresponder/mail_content.h"
#include "autoresponder/response_file.h"
#include "lib/db/quarx_db.h"
#include "support/fault.h"
#include "support/isolated.h"
#include "support/panel.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <initializer_list>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

using testing::Eq;
using testing::ExitedWithCode;
using Names = std::vector<std::string>;

constexpr char kFolder[] = "/tmp/@attachments";

std::string in_folder(const std::string& name) {
    return std::string(kFolder) + "/" + name;
}

// Listing

class ListAttachments : public PanelTest {
protected:
    void SetUp() override {
        PanelTest::SetUp();
        std::filesystem::create_directory(kFolder);
    }

    // `value` as SQL has it.
    static void have_row(const std::string& value, const std::string& responder = "7") {
        panel::run("insert into resp_attach set rn_id=" + responder + ", filename=" + value);
    }
    Attachments list() { return list_attachments(connection(), "7", kFolder); }
};

TEST_F(ListAttachments, PartsPresentAndMissingNamesInRowOrder) {
    write_file(in_folder("z.pdf"), "");
    write_file(in_folder("a.pdf"), "");
    for (const char* name : {"'z.pdf'", "'gone2'", "'a.pdf'", "'gone1'"})
        have_row(name);
    have_row("'of another responder'", "8");
    const Attachments attachments = list();
    EXPECT_EQ(attachments.directory, kFolder);
    EXPECT_EQ(attachments.present, (Names{"z.pdf", "a.pdf"}));
    EXPECT_EQ(attachments.missing, "gone2\ngone1\n");
    EXPECT_EQ(panel::statements(), Names{"select filename from resp_attach where rn_id=7"});
}

TEST_F(ListAttachments, NoRowsAreNoAttachments) {
    const Attachments attachments = list();
    EXPECT_EQ(attachments.present, Names{});
    EXPECT_EQ(attachments.missing, "");
}

TEST_F(ListAttachments, NullAndEmptyNamesAreLeftOut) {
    have_row("NULL");
    have_row("''");
    const Attachments attachments = list();
    EXPECT_EQ(attachments.present, Names{});
    EXPECT_EQ(attachments.missing, "");
}

TEST_F(ListAttachments, WhiteSpaceAroundNamesIsCut) {
    write_file(in_folder("price list.pdf"), "");
    have_row(R"(' \t\n\r price list.pdf \t\n\r ')");
    have_row("' gone for good '");
    const Attachments attachments = list();
    EXPECT_EQ(attachments.present, Names{"price list.pdf"});
    EXPECT_EQ(attachments.missing, "gone for good\n");
}

TEST_F(ListAttachments, BlankNameIsTheFolderItself) {
    have_row("'  '");
    EXPECT_EQ(list().present, Names{""});
}

TEST_F(ListAttachments, BlankNameIsMissingWithoutTheFolder) {
    std::filesystem::remove(kFolder);
    have_row("'  '");
    EXPECT_EQ(list().missing, "\n");
}

TEST_F(ListAttachments, FolderLinkAndFifoArePresentAndADanglingLinkIsMissing) {
    write_file("/tmp/elsewhere", "");
    std::filesystem::create_directory(in_folder("folder"));
    std::filesystem::create_symlink("/tmp/elsewhere", in_folder("link"));
    std::filesystem::create_symlink("/tmp/nowhere", in_folder("dangling"));
    ASSERT_EQ(mkfifo(in_folder("fifo").c_str(), 0600), 0);
    for (const char* name : {"'folder'", "'link'", "'dangling'", "'fifo'"})
        have_row(name);
    const Attachments attachments = list();
    EXPECT_EQ(attachments.present, (Names{"folder", "link", "fifo"}));
    EXPECT_EQ(attachments.missing, "dangling\n");
}

TEST_F(ListAttachments, NameEndsAtItsFirstNul) {
    write_file(in_folder("a"), "");
    have_row(R"('a\0b')");
    EXPECT_EQ(list().present, Names{"a"});
}

TEST_F(ListAttachments, FailedQueryEndsTheRun) {
    EXPECT_EXIT(
        {
            const MysqlConnection own(db_connect());
            panel::refuse_statement(1);
            list_attachments(own.get(), "7", kFolder);
        },
        ExitedWithCode(0),
        Eq(std::string("autoresponder: Unable to exec query :") + panel::kRefusal + "\n"));
}

// Writing

// RFC 4648 section 4, one group at a time.
std::string naive_base64(const std::string& bytes) {
    const char* alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    for (size_t at = 0; at < bytes.size(); at += 3) {
        unsigned group = 0;
        for (size_t i = at; i < at + 3; ++i)
            group = group * 256 + (i < bytes.size() ? static_cast<unsigned char>(bytes[i]) : 0);
        std::string symbols;
        for (int i = 0; i < 4; ++i, group /= 64)
            symbols.insert(symbols.begin(), alphabet[group % 64]);
        const size_t count = std::min<size_t>(bytes.size() - at, 3);
        text += symbols.replace(count + 1, 3 - count, 3 - count, '=');
    }
    return text;
}

std::string naive_lines(const std::string& bytes) {
    std::string text;
    for (size_t at = 0; at < bytes.size(); at += 45)
        text += naive_base64(bytes.substr(at, 45)) + "\n";
    return text;
}

std::string bytes_of_all_values(size_t size) {
    std::string bytes;
    for (size_t i = 0; i < size; ++i)
        bytes += static_cast<char>(i * 167 + i / 256);
    return bytes;
}

std::string part(const std::string& filename, const std::string& lines) {
    return "--BOUNDARY\n"
           "Content-Type: application/octet-stream\n"
           "Content-Transfer-Encoding: base64\n"
           "Content-Disposition: attachment;\n"
           "\tfilename=\"" +
           filename + "\"\n\n" + lines + "\n";
}

class WriteAttachments : public SandboxTest {
protected:
    void SetUp() override {
        SandboxTest::SetUp();
        std::filesystem::create_directory(kFolder);
    }

    // The text that is written for the names; what is reported goes to `reported`.
    std::string write(const Names& names) {
        ResponseFile file;
        reported = standard_error_of([&] {
            file.open();
            write_attachments({kFolder, names, {}}, "BOUNDARY", file);
            file.close();
        });
        std::string text = read_file(resp_uu_file_name);
        unlink(resp_uu_file_name);
        return text;
    }

    // The lines that carry a file of these bytes.
    void expect_lines(const std::string& bytes, const std::string& lines) {
        write_file(in_folder("file"), bytes);
        const std::string got = write({"file"});
        const std::string wanted = part("file", lines) + "--BOUNDARY--\n";
        const auto difference = std::mismatch(got.begin(), got.end(), wanted.begin(), wanted.end());
        EXPECT_TRUE(got == wanted)
            << bytes.size() << " bytes: first difference at " << difference.first - got.begin()
            << "\n got: " << std::string(difference.first, got.end()).substr(0, 200)
            << "\n wanted: " << std::string(difference.second, wanted.end()).substr(0, 200);
        EXPECT_EQ(reported, "");
    }

    std::string reported;
};

TEST_F(WriteAttachments, NothingIsWrittenWithoutPresentFiles) {
    EXPECT_EQ(write({}), "");
}

TEST_F(WriteAttachments, EmptyFileIsAnEmptyPart) {
    expect_lines("", "");
}

TEST_F(WriteAttachments, SmallFilesArePadded) {
    expect_lines("A", "QQ==\n");
    expect_lines("AB", "QUI=\n");
    expect_lines("ABC", "QUJD\n");
}

TEST_F(WriteAttachments, FullLineHasSixtyCharactersAndNoPadding) {
    expect_lines(std::string(45, 'A'),
                 "QUFBQUFBQUFBQUFBQUFBQUFBQUFBQUFBQUFBQUFBQUFBQUFBQUFBQUFBQUFB\n");
}

TEST_F(WriteAttachments, OneByteBehindAFullLineIsALineOfFour) {
    expect_lines(std::string(46, 'A'),
                 "QUFBQUFBQUFBQUFBQUFBQUFBQUFBQUFBQUFBQUFBQUFBQUFBQUFBQUFBQUFB\nQQ==\n");
}

TEST_F(WriteAttachments, LinesOfEverySizeUpToThree) {
    for (size_t size = 0; size <= 136; ++size)
        expect_lines(bytes_of_all_values(size), naive_lines(bytes_of_all_values(size)));
}

TEST_F(WriteAttachments, SizesAroundTheBlocksThatAreReadAtOnce) {
    for (const size_t size :
         std::initializer_list<size_t>{45 * 1088 - 1, 45 * 1088, 45 * 1088 + 1, 2 * 45 * 1088,
                                       2 * 45 * 1088 + 46, 65536, 300000})
        expect_lines(bytes_of_all_values(size), naive_lines(bytes_of_all_values(size)));
}

TEST_F(WriteAttachments, EachFileHasItsPartInOrder) {
    write_file(in_folder("b"), "B");
    write_file(in_folder("a"), "A");
    EXPECT_EQ(write({"b", "a"}), part("b", "Qg==\n") + part("a", "QQ==\n") + "--BOUNDARY--\n");
}

TEST_F(WriteAttachments, NameIsWrittenAsAnEncodedWordWhereItNeedsOne) {
    for (const auto& [name, encoded] :
         {std::pair<std::string, std::string>{"Preise f\xC3\xBCr 2026.pdf",
                                              "=?utf-8?Q?Preise_f=C3=BCr_2026.pdf?="},
          {"a-b.txt", "=?utf-8?Q?a=2Db.txt?="},
          {"say \"hi\"", "=?utf-8?Q?say_=22hi=22?="},
          {"two words.pdf", "two words.pdf"}}) {
        write_file(in_folder(name), "A");
        EXPECT_EQ(write({name}), part(encoded, "QQ==\n") + "--BOUNDARY--\n");
    }
}

TEST_F(WriteAttachments, FolderIsAnEmptyPart) {
    std::filesystem::create_directory(in_folder("folder"));
    EXPECT_EQ(write({"folder"}), part("folder", "") + "--BOUNDARY--\n");
    EXPECT_EQ(reported, "");
}

TEST_F(WriteAttachments, BlankNameIsTheFolderItselfAndAnEmptyPart) {
    EXPECT_EQ(write({""}), part("", "") + "--BOUNDARY--\n");
    EXPECT_EQ(reported, "");
}

TEST_F(WriteAttachments, FifoWithoutAWriterIsAnEmptyPartAtOnce) {
    ASSERT_EQ(mkfifo(in_folder("fifo").c_str(), 0600), 0);
    EXPECT_EQ(write({"fifo"}), part("fifo", "") + "--BOUNDARY--\n");
    EXPECT_EQ(reported, "");
}

TEST_F(WriteAttachments, FifoWithAWriterIsAnEmptyPartToo) {
    ASSERT_EQ(mkfifo(in_folder("fifo").c_str(), 0600), 0);
    const UniqueFd writer(open(in_folder("fifo").c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_EQ(::write(writer.get(), "text", 4), 4);
    EXPECT_EQ(write({"fifo"}), part("fifo", "") + "--BOUNDARY--\n");
}

TEST_F(WriteAttachments, FileBehindALinkIsCarried) {
    write_file("/tmp/elsewhere", "A");
    std::filesystem::create_symlink("/tmp/elsewhere", in_folder("link"));
    EXPECT_EQ(write({"link"}), part("link", "QQ==\n") + "--BOUNDARY--\n");
}

TEST_F(WriteAttachments, FileThatCantBeReadIsAnEmptyPart) {
    // A regular file of which every read fails: the first page of a process is never mapped.
    std::filesystem::create_symlink("/proc/self/mem", in_folder("unreadable"));
    EXPECT_EQ(write({"unreadable"}), part("unreadable", "") + "--BOUNDARY--\n");
    EXPECT_EQ(reported, "");
}

TEST_F(WriteAttachments, FileThatIsGoneMeanwhileIsReportedAndAnEmptyPart) {
    write_file(in_folder("next"), "A");
    EXPECT_EQ(write({"gone", "next"}),
              part("gone", "") + part("next", "QQ==\n") + "--BOUNDARY--\n");
    EXPECT_EQ(reported, "autoresponder: Failed to read attachement file "
                        "'/tmp/@attachments/gone': No such file or directory (2)\n");
}

TEST_F(WriteAttachments, FileThatCantBeOpenedIsReportedAndAnEmptyPart) {
    const UniqueFd listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{AF_UNIX, "/tmp/@attachments/socket"};
    ASSERT_EQ(bind(listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(write({"socket"}), part("socket", "") + "--BOUNDARY--\n");
    EXPECT_EQ(reported, "autoresponder: Failed to read attachement file "
                        "'/tmp/@attachments/socket': No such device or address (6)\n");
}

TEST_F(WriteAttachments, SignalsDoNotEndAFile) {
    const std::string bytes = bytes_of_all_values(100000);
    write_file(in_folder("file"), bytes);
    const isolated::Outcome outcome = isolated::run([&] {
        fault::arm(fault::Call::read, 2, EINTR);
        return write({"file"});
    });
    EXPECT_TRUE(outcome.result == part("file", naive_lines(bytes)) + "--BOUNDARY--\n");
}

TEST_F(WriteAttachments, NoDescriptorIsLeft) {
    write_file(in_folder("a"), "A");
    write({"a"});
    const size_t before = files_in("/proc/self/fd").size();
    write({"a", "gone", ""});
    EXPECT_EQ(files_in("/proc/self/fd").size(), before);
}

} // namespace
