#include "converter.h"

#include <cctype>
#include <cstring>
#include <string_view>

namespace quarx {
namespace {

// iconv_open(3), which takes time that grows with the square of a name's suffixes
// ("...//IGNORE,IGNORE,..."), for names of up to a length that no charset's comes near.
iconv_t open_converter(const std::string& to, const std::string& from) {
    constexpr size_t kLongestName = 256;
    for (const std::string* name : {&to, &from}) {
        if (strnlen(name->c_str(), kLongestName + 1) > kLongestName) {
            errno = EINVAL;
            return reinterpret_cast<iconv_t>(-1);
        }
    }
    return iconv_open(to.c_str(), from.c_str());
}

bool is_utf8(const std::string& charset) {
    return strcasecmp(charset.c_str(), "utf-8") == 0;
}

// Whether the C library takes the name for one with `known` in it: it leaves case and most marks
// out of account.
bool is_named(const std::string& charset, std::string_view known) {
    std::string name;
    for (const char c : charset)
        if (std::isalnum(static_cast<unsigned char>(c)) != 0)
            name += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return name.find(known) != name.npos;
}

// Whether the charset holds back a letter for the mark behind it and loses it between two calls.
bool loses_letters(const std::string& charset) {
    return is_named(charset, "1390") || is_named(charset, "1399");
}

} // namespace

Converter::Converter(const std::string& to, const std::string& from)
    : may_cut_((is_utf8(to) || is_utf8(from)) && to.find('/') == to.npos && !loses_letters(to)),
      is_from_utf7_(is_named(from, "UTF7")), cd_(open_converter(to, from)) {}

Converter::~Converter() {
    const int saved_errno = errno;
    if (is_open())
        iconv_close(cd_);
    errno = saved_errno;
}

} // namespace quarx
