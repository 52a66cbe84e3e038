// A program of the panel as it builds against the installed library: one call into each archive.

#include <base64.h>
#include <cstdio>
#include <fork_exec.h>
#include <idn.h>
#include <messlog.h>
#include <mimelib.h>
#include <qrx_conf.h>
#include <quarx_db.h>
#include <safe.h>
#include <text_encoding.h>

int main(int, char* argv[]) {
    PROGNAME = argv[0];
    char encoded[5];
    base64Encode(reinterpret_cast<const unsigned char*>("ABC"), 3, encoded);
    const DwString word("Word");
    std::printf("%s %s %s %s %zu %s\n", encoded, quarx::rfc1522::encode("a-b").c_str(),
                quarx::idn::toAscii("b\xc3\xbc"
                                    "cher.example")
                    .c_str(),
                qrxConfGetDefaultByIndex(23), word.length(),
                escape_mysql_param(nullptr, nullptr) == nullptr ? "null" : "text");
    return pclose_status_to_rc(fork_execv("/bin/false", static_cast<char*>(nullptr)) << 8) - 1;
}
