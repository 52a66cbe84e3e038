#include "autoresponder/response_file.h"

#include "autoresponder/mail_content.h"
#include "autoresponder/temporary_file.h"
#include "lib/util/write_all.h"

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// For a name that is taken by what can't be removed, such as the last reply on a disk that has
// become read-only: that must not be sent in place of this one.
UniqueFd take_another_name() {
    constexpr size_t kMarks = 6;
    std::memset(resp_uu_file_name + sizeof resp_uu_file_name - 1 - kMarks, 'X', kMarks);
    return UniqueFd(mkostemp(resp_uu_file_name, O_CLOEXEC));
}

} // namespace

ResponseFile::ResponseFile() : file_(mkostemp(resp_uu_file_name, O_CLOEXEC)) {}

void ResponseFile::open() {
    struct stat status {};
    if (file_ && fstat(file_.get(), &status) == 0 && status.st_nlink == 0)
        file_.reset(); // somebody has removed it from its folder
    if (!file_)
        file_ = create_temporary(resp_uu_file_name);
    if (!file_)
        file_ = take_another_name();
    failed_ = !file_;
    if (status.st_size > 0) // somebody has written to it since it was made
        restart();
}

void ResponseFile::write(std::string_view text) {
    if (text.size() >= kBlockBytes) {
        flush();
        put(text);
        return;
    }
    pending_ += text;
    if (pending_.size() >= kBlockBytes)
        flush();
}

// After the first failure nothing more is written, so that the file never has a hole in its text.
void ResponseFile::put(std::string_view text) {
    failed_ = failed_ || write_all(file_.get(), text.data(), text.size()) != text.size();
}

void ResponseFile::flush() {
    put(pending_);
    pending_.clear();
}

std::optional<off_t> ResponseFile::size() const {
    struct stat status {};
    if (fstat(file_.get(), &status) != 0)
        return std::nullopt;
    return status.st_size;
}

void ResponseFile::restart() {
    pending_.clear();
    failed_ = !file_ || ftruncate(file_.get(), 0) != 0 || lseek(file_.get(), 0, SEEK_SET) != 0;
}

void ResponseFile::close() {
    flush();
    file_.reset();
}
