#include "chars.h"
#include "mimelib.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <sys/mman.h>

namespace {

// Asks for huge pages (madvise(2)) under a large buffer: half of the time that filling one takes
// goes into its 4096-byte pages. Where there are none, nothing changes.
void prefer_huge_pages(void* bytes, size_t size) {
    constexpr uintptr_t kHugePage = uintptr_t{2} << 20;
    const auto address = reinterpret_cast<uintptr_t>(bytes);
    const uintptr_t begin = (address + kHugePage - 1) & ~(kHugePage - 1);
    const uintptr_t end = (address + size) & ~(kHugePage - 1);
    if (begin >= end)
        return;
    const int kept_errno = errno;
    madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
    errno = kept_errno;
}

} // namespace

// Bytes from malloc, so that growing may move pages instead of copying them (realloc(3)).
struct DwString::Buffer {
    Buffer() = default;
    Buffer(const Buffer&) = delete;
    Buffer& operator=(const Buffer&) = delete;
    ~Buffer() { std::free(bytes); }

    void set_capacity(size_t wanted) {
        void* moved = std::realloc(bytes, wanted);
        if (!moved)
            throw std::bad_alloc();
        if (!bytes) // growing may move them, which huge pages make slow
            prefer_huge_pages(moved, wanted);
        bytes = static_cast<char*>(moved);
        capacity = wanted;
    }

    char* bytes = nullptr;
    size_t capacity = 0;
};

DwString::DwString(const char* bytes, size_t length) {
    append(bytes, length);
}

DwString::DwString(const char* text) : DwString(text, std::strlen(text)) {}

DwString::DwString(const DwString& other, size_t start, size_t length) {
    start = std::min(start, other.length_);
    length_ = std::min(length, other.length_ - start);
    if (length_ == 0)
        return;
    buffer_ = other.buffer_;
    start_ = other.start_ + start;
}

const char* DwString::data() const {
    return buffer_ ? buffer_->bytes + start_ : "";
}

bool DwString::owns_alone() const {
    return buffer_ && buffer_.use_count() == 1;
}

void DwString::reserve(size_t capacity) {
    if (owns_alone()) {
        if (buffer_->capacity < start_ + capacity)
            buffer_->set_capacity(start_ + capacity);
        return;
    }
    const DwString shared = *this;
    char* own = start_over(std::max(capacity, shared.length_));
    std::memcpy(own, shared.data(), shared.length_);
    length_ = shared.length_;
}

void DwString::append(const char* bytes, size_t length) {
    if (length == 0)
        return;
    const size_t wanted = length_ + length;
    if (!owns_alone())
        reserve(wanted);
    else if (buffer_->capacity - start_ < wanted)
        reserve(std::max(wanted, 2 * length_));
    std::memcpy(buffer_->bytes + start_ + length_, bytes, length);
    length_ = wanted;
}

void DwString::ConvertToLowerCase() {
    if (length_ == 0)
        return;
    if (!owns_alone())
        reserve(length_);
    char* bytes = buffer_->bytes + start_;
    std::transform(bytes, bytes + length_, bytes, mime::to_lower);
}

// Leaves the old buffer to its other owners; returns the start of a new, empty one.
char* DwString::start_over(size_t capacity) {
    auto fresh = std::make_shared<Buffer>();
    fresh->set_capacity(std::max<size_t>(capacity, 1));
    buffer_ = std::move(fresh);
    start_ = 0;
    length_ = 0;
    return buffer_->bytes;
}

// Everything from the buffer's start up to `end` has been written.
void DwString::finish(const char* end) {
    length_ = static_cast<size_t>(end - buffer_->bytes);
}

bool operator==(const DwString& left, const char* right) {
    const size_t length = std::strlen(right);
    return left.length() == length && std::memcmp(left.data(), right, length) == 0;
}
