#include "taken_in.h"

#include "autoresponder/intake.h"
#include "lib/util/unique_fd.h"

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

TakenIn take_in(const std::string& message, const char* recipient) {
    unlink(mail_file_name);
    std::strcpy(mail_file_name, "/tmp/qrx-autoresponder-XXXXXX");
    if (recipient == nullptr)
        unsetenv("RESP_RECIPIENT");
    else
        setenv("RESP_RECIPIENT", recipient, 1);
    write_file("/tmp/input", message);
    const UniqueFd own_input(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3));
    {
        const UniqueFd input(open("/tmp/input", O_RDONLY | O_CLOEXEC));
        dup2(input.get(), STDIN_FILENO);
    }
    TakenIn taken{};
    taken.reported = standard_error_of([&] { taken.result = parse_message(&taken.content); });
    dup2(own_input.get(), STDIN_FILENO);
    unlink("/tmp/input");
    return taken;
}
