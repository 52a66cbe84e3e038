#pragma once

#include <exception>
#include <string>

namespace quarx::idn {

const char* idn_strerror(int code);

class IdnaError : public std::exception {
public:
    explicit IdnaError(int code);
    int code() const noexcept;
    const char* what() const noexcept override;

private:
    int code_;
};

std::string toAscii(const std::string& name);
std::string toUtf8(const std::string& name);
std::string emailToAscii(const std::string& address);

} // namespace quarx::idn
