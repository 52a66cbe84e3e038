#include "autoresponder/delivery.h"

#include "autoresponder/child.h"
#include "autoresponder/mail_content.h"
#include "autoresponder/paths.h"
#include "autoresponder/report.h"
#include "autoresponder/temporary_file.h"
#include "lib/text/idn.h"
#include "lib/util/fork_exec.h"

#include <cerrno>
#include <stdexcept>
#include <string>
#include <unistd.h>

namespace {

UniqueFd open_response() {
    UniqueFd response = open_temporary(resp_uu_file_name);
    if (!response) {
        report("autoresponder: Failed to open temporary file with response mail contents '" +
               std::string(resp_uu_file_name) + "': " + error_text(errno));
        throw std::runtime_error("Failed to generate response mail contents");
    }
    return response;
}

} // namespace

void deliver_reply(const Mail_content& content) {
    UniqueFd response = open_response();
    const std::string envelope_sender = quarx::idn::toAscii(content.recipient);
    const int child = fork_execl_pipes(
        response.get(), STDOUT_FILENO, STDERR_FILENO, paths::kSendmail, paths::kSendmail, "-f",
        envelope_sender.c_str(), content.sender.c_str(), static_cast<char*>(nullptr));
    const int start_error = errno;
    response.reset();
    // Never with this library's functions, which end the process where they can't fork.
    if (child < 0) {
        report("autoresponder: Failed to spawn sendmail for response: " + error_text(start_error));
        throw std::runtime_error("Failed to spawn sendmail to send response mail");
    }
    wait_for_child(child);
    unlink(resp_uu_file_name);
}
