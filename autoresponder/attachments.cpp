#include "autoresponder/attachments.h"

#include "autoresponder/panel_query.h"
#include "autoresponder/report.h"
#include "autoresponder/response_file.h"
#include "lib/text/base64.h"
#include "lib/text/text_encoding.h"
#include "lib/util/safe.h"
#include "lib/util/unique_fd.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <fcntl.h>
#include <memory>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr size_t kBytesPerLine = 45;
constexpr size_t kCharsPerLine = kBytesPerLine / 3 * 4;
// Enough for ResponseFile not to keep a copy of them.
constexpr size_t kLinesPerBlock = 1088;
static_assert(kLinesPerBlock * (kCharsPerLine + 1) >= ResponseFile::kBlockBytes);

bool exists(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0;
}

// Opened without waiting: a FIFO without a writer must not hold the run.
UniqueFd open_attachment(const std::string& path) {
    UniqueFd file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!file)
        report("autoresponder: Failed to read attachement file '" + path +
               "': " + error_text(errno));
    return file;
}

bool is_regular(int fd) {
    struct stat status {};
    return fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
}

// Reads until `block` is full or the file ends or fails; returns how many bytes came.
size_t read_full(int fd, unsigned char* block, size_t size) {
    size_t filled = 0;
    while (filled < size) {
        const ssize_t got = read(fd, block + filled, size - filled);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            break;
        filled += static_cast<size_t>(got);
    }
    return filled;
}

// Encodes `size` bytes as lines into `lines` and returns the text's length.
size_t encode_lines(const unsigned char* bytes, size_t size, char* lines) {
    char* end = lines;
    for (size_t offset = 0; offset < size; offset += kBytesPerLine) {
        const size_t count = std::min(kBytesPerLine, size - offset);
        end += base64Encode(bytes + offset, static_cast<unsigned>(count), end);
        *end++ = '\n';
    }
    return static_cast<size_t>(end - lines);
}

void write_contents(int fd, ResponseFile& file) {
    constexpr size_t kInputBytes = kLinesPerBlock * kBytesPerLine;
    // Not filled with zeros: of a small file only a little is touched.
    const std::unique_ptr<unsigned char[]> bytes(new unsigned char[kInputBytes]);
    const std::unique_ptr<char[]> lines(new char[kLinesPerBlock * (kCharsPerLine + 1) + 1]);
    size_t count;
    do {
        count = read_full(fd, bytes.get(), kInputBytes);
        file.write({lines.get(), encode_lines(bytes.get(), count, lines.get())});
    } while (count == kInputBytes);
}

void write_attachment(const std::string& directory, const std::string& name,
                      const std::string& boundary, ResponseFile& file) {
    file.write("--" + boundary +
               "\n"
               "Content-Type: application/octet-stream\n"
               "Content-Transfer-Encoding: base64\n"
               "Content-Disposition: attachment;\n"
               "\tfilename=\"" +
               quarx::rfc1522::encode(name) + "\"\n\n");
    const UniqueFd contents = open_attachment(directory + "/" + name);
    if (contents && is_regular(contents.get()))
        write_contents(contents.get(), file);
    file.write("\n");
}

} // namespace

Attachments list_attachments(MYSQL* connection, const std::string& responder_id,
                             const std::string& directory) {
    Attachments attachments{directory, {}, {}};
    const MysqlResult result =
        query_or_exit(connection, "select filename from resp_attach where rn_id=" + responder_id);
    while (const MYSQL_ROW row = mysql_fetch_row(result.get())) {
        if (row[0] == nullptr || row[0][0] == '\0')
            continue;
        const std::string name = quarx_trim(row[0]);
        if (exists(directory + "/" + name))
            attachments.present.push_back(name);
        else
            attachments.missing += name + "\n";
    }
    return attachments;
}

void write_attachments(const Attachments& attachments, const std::string& boundary,
                       ResponseFile& file) {
    if (attachments.present.empty())
        return;
    for (const std::string& name : attachments.present)
        write_attachment(attachments.directory, name, boundary, file);
    file.write("--" + boundary + "--\n");
}
