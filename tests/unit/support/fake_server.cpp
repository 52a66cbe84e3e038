#include "fake_server.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

using namespace std::string_literals;

const std::string FakeServer::kOk = "\x00\x00\x00\x02\x00\x00\x00"s;
const std::string FakeServer::kEnd = "\xfe\x00\x00\x02\x00"s;

namespace {

int listen_at(const std::string& path) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(fd, 1) != 0)
        ADD_FAILURE() << path << ": " << strerror(errno);
    return fd;
}

} // namespace

FakeServer::FakeServer(std::function<void(FakeServer&)> conversation)
    : listener_{listen_at(panel::kSocket)}, thread_{[this, conversation] {
          client_ = accept(listener_, nullptr, nullptr);
          conversation(*this);
          close(client_);
      }} {}

FakeServer::~FakeServer() {
    thread_.join();
    close(listener_);
    unlink(panel::kSocket.c_str());
}

void FakeServer::greet() {
    send(0, "\x0a"s + "10.11.0-fake\0"s + "\x01\x00\x00\x00"s + "saltsalt\0"s + // thread, salt
                "\x89\xa2\x08\x02\x00"s + "\x08\x00\x15"s + // abilities, charset, state
                std::string(10, '\0') + "saltsaltsalt\0"s + "mysql_native_password\0"s);
}

void FakeServer::greet_and_welcome() {
    greet();
    receive();
    send(2, kOk);
}

std::string FakeServer::read_bytes(size_t count) {
    std::string bytes(count, '\0');
    for (size_t got = 0; got < count;) {
        const ssize_t step = read(client_, &bytes[got], count - got);
        if (step <= 0)
            return bytes.substr(0, got);
        got += static_cast<size_t>(step);
    }
    return bytes;
}

std::string FakeServer::receive() {
    const std::string header = read_bytes(4);
    if (header.size() < 4)
        return "(closed)";
    const auto byte = [&header](size_t i) { return size_t{static_cast<unsigned char>(header[i])}; };
    return read_bytes(byte(0) | byte(1) << 8 | byte(2) << 16);
}

void FakeServer::send(int sequence, const std::string& payload) {
    const std::string packet =
        std::string{static_cast<char>(payload.size()), static_cast<char>(payload.size() >> 8), '\0',
                    static_cast<char>(sequence)} +
        payload;
    if (::send(client_, packet.data(), packet.size(), MSG_NOSIGNAL) !=
        static_cast<ssize_t>(packet.size()))
        ADD_FAILURE() << "the client is gone: " << strerror(errno);
}

void FakeServer::wait_for_close() {
    char byte;
    while (read(client_, &byte, 1) > 0)
        continue;
}
