#pragma once

// A database server that does as a test tells it, in the place of the sandbox's own. It speaks the
// client/server protocol of MySQL 4.1 and later (MariaDB knowledge base, "Client/Server Protocol")
// as far as a connection and a first answer need it.

#include "panel_database.h"

#include <functional>
#include <string>
#include <thread>

class FakeServer {
public:
    // The conversation runs on the one connection that is accepted, which is closed at its end.
    explicit FakeServer(std::function<void(FakeServer&)> conversation);
    FakeServer(const FakeServer&) = delete;
    FakeServer& operator=(const FakeServer&) = delete;
    ~FakeServer(); // waits for the conversation to end

    void greet();
    void greet_and_welcome(); // lets the client in, whatever its password
    std::string receive();    // a packet's payload; "(closed)" at the end
    void send(int sequence, const std::string& payload);
    void accept_statement() { receive(), send(1, kOk); }
    void wait_for_close(); // says nothing more

    static const std::string kOk;
    static const std::string kEnd;

private:
    std::string read_bytes(size_t count);

    panel::ServerAway away_;
    int listener_;
    int client_ = -1;
    std::thread thread_;
};
