// take_in_message SHAPE MEGABYTES: has intake read a message of that shape and size, made on the
// way, and prints the size of the message, of what is left of it in the run record, and of the
// process's resident set at its largest, in KiB. take_in_message: lists the shapes.
#include "autoresponder/intake.h"
#include "autoresponder/mail_content.h"
#include "autoresponder/process.h"
#include "lib/util/unique_fd.h"
#include "lib/util/write_all.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr size_t kMegabyte = 1024 * 1024;

// A message: `head`, then `piece` until the size is reached, then `tail`.
struct Shape {
    const char* name;
    std::string head;
    std::string piece;
    std::string tail;
};

std::string text_header(const std::string& encoding, const std::string& charset = "utf-8") {
    return "From: a@b\nSubject: s\nContent-Type: text/plain; charset=" + charset +
           "\nContent-Transfer-Encoding: " + encoding + "\n\n";
}

constexpr const char* kMultipart =
    "From: a@b\nContent-Type: multipart/mixed; boundary=b\n\n--b\nContent-Type: text/plain\n\nHi\n";
const std::string kLine(76, 'x');

const Shape kShapes[] = {
    {"text", text_header("8bit"), kLine + "\n", ""},
    {"long-lines", text_header("8bit"), std::string(990, 'x') + "\r\n", ""},
    {"one-line", text_header("8bit"), kLine, ""},
    {"base64", text_header("base64"), // 57 bytes a line, the last of them a line feed
     "eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHgK\n", ""},
    {"quoted-printable", text_header("quoted-printable"),
     "Sch=C3=B6ne Gr=C3=BC=C3=9Fe aus K=C3=B6ln\n", ""},
    {"plain-quoted-printable", text_header("quoted-printable"), kLine + "\n", ""},
    {"cut-off", text_header("8bit"), kLine + "\n", "\xc3"}, // can't be recoded
    {"large-attachment", kMultipart + std::string("--b\nContent-Type: image/png\n\n"), kLine + "\n",
     "--b--\n"},
    {"many-parts", kMultipart, "--b\n\n" + kLine + "\n", "--b--\n"},
    {"boundary-lines", kMultipart, "--b\n", ""},
    {"boundary-lines-alone", "From: a@b\nContent-Type: multipart/x; boundary=b\n\n", "--b\n", ""},
    {"header-lines", "From: a@b\n", "X-Header: " + kLine + "\n", "\n"},
    {"from-invalid", "From: ", "a,", "a@b\n\n"},
    {"parameters", "From: a@b\nContent-Type: text/plain", ";a=b", "\n\n"},
    {"subject", "From: a@b\nSubject: ", kLine, "\n\n"},
    {"folded-subject", "From: a@b\nSubject: x", "\n " + kLine, "\n\n"},
    {"encoded-subject", "From: a@b\nSubject: =?utf-8?q?", kLine, "?=\n\n"},
    // Texts of which the lines, or UTF-8, take more room than the message.
    {"latin1-umlauts", text_header("8bit", "iso-8859-1"), std::string(76, '\xfc') + "\n", ""},
    {"lines-of-30", text_header("8bit"), std::string(30, 'x') + "\n", ""},
    {"lines-of-16", text_header("8bit"), std::string(16, 'x') + "\n", ""},
    {"lines-of-10", text_header("8bit"), std::string(10, 'x') + "\n", ""},
    {"line-feeds", text_header("8bit"), "\n", ""},
};

// The message, in a file without a name and never in memory.
UniqueFd write_message(const Shape& shape, size_t size) {
    char name[] = "/tmp/take_in_message-XXXXXX";
    UniqueFd file(mkostemp(name, O_CLOEXEC));
    unlink(name);
    std::string block = shape.piece;
    while (block.size() < 16384)
        block += shape.piece;
    write_all(file.get(), shape.head.data(), shape.head.size());
    for (size_t written = 0; written < size; written += block.size())
        if (write_all(file.get(), block.data(), block.size()) != block.size())
            std::abort();
    write_all(file.get(), shape.tail.data(), shape.tail.size());
    lseek(file.get(), 0, SEEK_SET);
    return file;
}

size_t size_of(int fd) {
    struct stat status {};
    fstat(fd, &status);
    return static_cast<size_t>(status.st_size);
}

// What malloc(3) takes for the text of `text`, besides the object.
size_t heap_bytes(const std::string& text) {
    constexpr size_t kInObject = 15;
    return text.capacity() <= kInObject ? 0 : (text.capacity() + 1 + 8 + 15) / 16 * 16;
}

size_t text_bytes(const Mail_content& content) {
    size_t bytes = 0;
    for (const std::string& line : content.body)
        bytes += line.size() + 1;
    return bytes;
}

size_t record_bytes(const Mail_content& content) {
    size_t bytes = heap_bytes(content.subject) + heap_bytes(content.date);
    for (const std::string& line : content.body)
        bytes += sizeof line + heap_bytes(line);
    return bytes;
}

// VmHWM of proc(5), which unlike getrusage(2) knows nothing of the time before execve(2).
size_t peak_kib() {
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;)
        if (word == "VmHWM:" && status >> word)
            return std::stoul(word);
    return 0;
}

int take_in(const Shape& shape, size_t megabytes) {
    const UniqueFd message = write_message(shape, megabytes * kMegabyte);
    const size_t size = size_of(message.get());
    dup2(message.get(), STDIN_FILENO);
    setenv("RESP_RECIPIENT", "info@example.com", 1);
    Mail_content content;
    const int result = parse_message(&content);
    const size_t peak = peak_kib();
    unlink(mail_file_name);
    if (result != 0)
        return 1;
    std::printf("%s %zu %zu %zu %zu\n", shape.name, size / 1024, text_bytes(content) / 1024,
                record_bytes(content) / 1024, peak);
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    prepare_process();
    if (argc == 3)
        for (const Shape& shape : kShapes)
            if (std::strcmp(argv[1], shape.name) == 0)
                return take_in(shape, std::strtoul(argv[2], nullptr, 10));
    for (const Shape& shape : kShapes)
        std::puts(shape.name);
    return argc == 1 ? 0 : 2;
}
