#include "safe.h"

#include "messlog.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace {

bool is_space(char c) {
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

void* allocated(void* block, size_t size) {
    if (!block)
        messlog2(1, 1, "alloc(%d)", static_cast<int>(size));
    return block;
}

// A text that grows by whole pieces and stays below the size of its buffer.
struct Piecewise {
    char* text;
    size_t size;
    size_t length = 0;

    bool add(const char* piece, size_t piece_length) {
        if (piece_length >= size - length)
            return false;
        std::memcpy(text + length, piece, piece_length);
        length += piece_length;
        return true;
    }
};

void replace_pieces(Piecewise* result, const char* src, const char* pattern,
                    const char* replacement) {
    const size_t pattern_length = std::strlen(pattern);
    const size_t replacement_length = std::strlen(replacement);
    while (const char* found = std::strstr(src, pattern)) {
        if (!result->add(src, static_cast<size_t>(found - src)) ||
            !result->add(replacement, replacement_length))
            return;
        src = found + pattern_length;
    }
    result->add(src, std::strlen(src));
}

} // namespace

void* malloc_safe(size_t size) {
    return allocated(std::malloc(size), size);
}

void* realloc_safe(void* ptr, size_t size) {
    return allocated(std::realloc(ptr, size), size);
}

char* vasprintf_safe(const char* format, va_list args) {
    char* text = nullptr;
    if (vasprintf(&text, format, args) == -1)
        messlog2(1, 1, "Cannot allocate memory: %s", std::strerror(errno));
    return text;
}

char* asprintf_safe(const char* format, ...) {
    va_list args;
    va_start(args, format);
    char* text = vasprintf_safe(format, args);
    va_end(args);
    return text;
}

#if !__GLIBC_PREREQ(2, 38)
size_t strlcpy(char* dst, const char* src, size_t size) {
    const size_t length = std::strlen(src);
    if (size > 0) {
        const size_t copied = length < size ? length : size - 1;
        std::memmove(dst, src, copied);
        dst[copied] = '\0';
    }
    return length;
}
#endif

char* quarx_trim(char* str) {
    quarx_rtrim(str);
    while (str && is_space(*str))
        ++str;
    return str;
}

char* quarx_rtrim(char* str) {
    size_t length = str ? std::strlen(str) : 0;
    while (length > 0 && is_space(str[length - 1]))
        str[--length] = '\0';
    return str;
}

char* strtolower(char* str) {
    for (char* c = str; c && *c; ++c)
        *c = static_cast<char>(std::tolower(static_cast<unsigned char>(*c)));
    return str;
}

char* strtolower_dynamic(const char* str) {
    if (!str)
        return nullptr;
    char* copy = strdup(str);
    if (!copy)
        messlog2(0, 0, "System error: %s\n", std::strerror(errno));
    return strtolower(copy);
}

char* quarx_chch(const char* src, char* dst, char from, char to) {
    char* const target = dst ? dst : const_cast<char*>(src);
    char* out = target;
    for (; *src; ++src)
        *out++ = *src == from ? to : *src;
    *out = '\0';
    return target;
}

char* strn_replace(const char* src, char* dst, const char* pattern, const char* replacement,
                   size_t size) {
    if (!dst || size == 0)
        return dst;
    if (!pattern || !*pattern)
        return dst == src ? dst : std::strncpy(dst, src, size);
    Piecewise result{static_cast<char*>(std::malloc(size)), size};
    if (!result.text) {
        messlog2(0, 0, "strn_replace(): %s\n", std::strerror(errno));
        strlcpy(dst, src, size);
        return dst;
    }
    replace_pieces(&result, src, pattern, replacement ? replacement : "");
    std::memcpy(dst, result.text, result.length);
    dst[result.length] = '\0';
    std::free(result.text);
    return dst;
}

void check_parameter(int required, const char* value, const char* name) {
    if (required && (!value || !*value))
        messlog2(1, 1, "Missing parameter '%s' or previous parameter is empty.\n", name);
}

void check_unprocessed_parameters(int count, int used) {
    if (count != used)
        messlog2(1, 1,
                 "Some parameters in command string are left unprocessed. Check parameters "
                 "please.");
}
