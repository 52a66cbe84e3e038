// The database client's archive without a TLS library, as the program is linked with it.

#include "support/fake_server.h"

#include <errmsg.h>
#include <gtest/gtest.h>

using namespace std::string_literals;

namespace {

// A client that insists on TLS.
MysqlConnection insisting_client() {
    MysqlConnection client{mysql_init(nullptr)};
    const my_bool on = 1;
    mysql_options(client.get(), MYSQL_OPT_SSL_ENFORCE, &on);
    return client;
}

bool connect(MYSQL* client) {
    return mysql_real_connect(client, "localhost", "admin", panel::kPassword.c_str(), "qrx", 0,
                              nullptr, 0) != nullptr;
}

TEST(NoTls, AConnectionWithoutItWorks) {
    EXPECT_EQ(panel::run(panel::connect().get(), "show status like 'Ssl_cipher'"), "Ssl_cipher|;");
}

TEST(NoTls, ADemandForItFailsTheConnectionWithAReason) {
    const FakeServer server([](FakeServer& fake) {
        fake.send(0, "\x0a"s + "10.11.0-fake\0"s + "\x01\x00\x00\x00"s + "saltsalt\0"s +
                         "\x89\xaa\x08\x02\x00"s + "\x08\x00\x15"s + // 0x0800: TLS
                         std::string(10, '\0') + "saltsaltsalt\0"s + "mysql_native_password\0"s);
        fake.wait_for_close();
    });
    const MysqlConnection client = insisting_client();
    EXPECT_FALSE(connect(client.get()));
    EXPECT_EQ(mysql_errno(client.get()), static_cast<unsigned>(CR_SSL_CONNECTION_ERROR));
    EXPECT_STREQ(mysql_error(client.get()), "TLS is not part of this program");
}

TEST(NoTls, TheClientNamesNoTlsLibrary) {
    const char* library = "unset";
    ASSERT_EQ(mariadb_get_infov(nullptr, MARIADB_TLS_LIBRARY, &library), 0);
    EXPECT_STREQ(library, "none");
}

TEST(NoTls, AConnectionHasNoCipher) {
    const MysqlConnection client = panel::connect();
    EXPECT_EQ(mysql_get_ssl_cipher(client.get()), nullptr);
}

} // namespace
