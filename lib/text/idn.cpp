#include "idn.h"

#include <idna.h>

#include <cstdlib>
#include <memory>
#include <new>

namespace quarx::idn {
namespace {

struct Free {
    void operator()(char* text) const { std::free(text); }
};

// What libidn left behind a call: its return code, and the text in a buffer of ours to free.
std::string take_result(int code, char* text) {
    const std::unique_ptr<char, Free> owned(text);
    if (code != IDNA_SUCCESS)
        throw IdnaError(code);
    if (owned == nullptr)
        throw std::bad_alloc();
    return owned.get();
}

} // namespace

const char* idn_strerror(int code) {
    switch (code) {
    case IDNA_SUCCESS:
        return "Success";
    case IDNA_STRINGPREP_ERROR:
        return "Stringprep error";
    case IDNA_PUNYCODE_ERROR:
        return "Punycode error";
    case IDNA_CONTAINS_NON_LDH:
        return "Contains non-LDH characters";
    case IDNA_CONTAINS_MINUS:
        return "Contains minus";
    case IDNA_INVALID_LENGTH:
        return "Invalid length";
    case IDNA_NO_ACE_PREFIX:
        return "ACE prefix not found";
    case IDNA_ROUNDTRIP_VERIFY_ERROR:
        return "Verify error";
    case IDNA_CONTAINS_ACE_PREFIX:
        return "ACE prefix found";
    case IDNA_ICONV_ERROR:
        return "Iconv error";
    case IDNA_MALLOC_ERROR:
        return "Cannot allocate buffer";
    default:
        return "Unknown error";
    }
}

IdnaError::IdnaError(int code) : code_(code) {}

int IdnaError::code() const noexcept {
    return code_;
}

const char* IdnaError::what() const noexcept {
    return idn_strerror(code_);
}

std::string toAscii(const std::string& name) {
    char* ascii = nullptr;
    const int code = idna_to_ascii_8z(name.c_str(), &ascii, 0);
    return take_result(code, ascii);
}

std::string toUtf8(const std::string& name) {
    char* utf8 = nullptr;
    const int code = idna_to_unicode_8z8z(name.c_str(), &utf8, 0);
    return take_result(code, utf8);
}

std::string emailToAscii(const std::string& address) {
    const std::string::size_type at = address.find('@');
    if (at == std::string::npos)
        return address;
    return address.substr(0, at + 1) + toAscii(address.substr(at + 1));
}

} // namespace quarx::idn
