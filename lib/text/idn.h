// Internationalised domain names between UTF-8 and their ASCII ("xn--") form, by GNU libidn: IDNA
// of 2003, RFC 3490, without unassigned code points and without the STD3 rules for host names.
//
// Names are UTF-8 and end at their first NUL byte. All failures are exceptions. libidn's time grows
// with the square of a name's length: a hostile one of 128 KiB, the longest that an environment
// variable holds (execve(2)), takes it some seconds.
#pragma once

#include <exception>
#include <string>

namespace quarx::idn {

// What libidn's return code `code` (an Idna_rc) means; "Unknown error" for one that is not known.
// The text is static.
const char* idn_strerror(int code);

// libidn refused a name: holds its return code, what() is idn_strerror of it.
class IdnaError : public std::exception {
public:
    explicit IdnaError(int code);
    int code() const noexcept;
    const char* what() const noexcept override;

private:
    int code_;
};

// The ASCII form of domain `name`. Throws IdnaError with libidn's return code, and std::bad_alloc
// when libidn reports success without a name.
std::string toAscii(const std::string& name);

// The UTF-8 form of domain `name`. Throws as toAscii does.
std::string toUtf8(const std::string& name);

// `address` with all that follows its first "@" in ASCII form, the rest kept byte for byte;
// unchanged when it holds no "@". Throws as toAscii does.
std::string emailToAscii(const std::string& address);

} // namespace quarx::idn
