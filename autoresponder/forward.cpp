#include "autoresponder/forward.h"

#include "autoresponder/child.h"
#include "autoresponder/mail_content.h"
#include "autoresponder/panel_query.h"
#include "autoresponder/paths.h"
#include "autoresponder/report.h"
#include "autoresponder/temporary_file.h"
#include "lib/util/fork_exec.h"

#include <cerrno>
#include <unistd.h>
#include <vector>

namespace {

std::vector<std::string> forwarding_addresses(MYSQL* connection, const std::string& responder_id) {
    std::vector<std::string> addresses;
    const MysqlResult result =
        query_or_exit(connection, "select address from resp_forward where rn_id=" + responder_id);
    while (const MYSQL_ROW row = mysql_fetch_row(result.get()))
        if (row[0] != nullptr)
            addresses.emplace_back(row[0]);
    return addresses;
}

// sendmail's arguments, null at the end, pointing into what is given. An address that begins with
// "-" is an option to sendmail, and the panel's business.
std::vector<char*> sendmail_arguments(const std::string& sender,
                                      const std::vector<std::string>& addresses) {
    std::vector<char*> arguments;
    arguments.reserve(addresses.size() + 4);
    // execv(3) takes pointers to characters that may change, and changes none.
    const auto add = [&](const char* argument) {
        arguments.push_back(const_cast<char*>(argument));
    };
    add(paths::kSendmail);
    add("-f");
    add(sender.c_str());
    for (const std::string& address : addresses)
        add(address.c_str());
    add(nullptr);
    return arguments;
}

} // namespace

void forward_message(MYSQL* connection, const Mail_content& content,
                     const std::string& responder_id) {
    const std::vector<std::string> addresses = forwarding_addresses(connection, responder_id);
    if (addresses.empty())
        return;
    UniqueFd message = open_temporary(mail_file_name);
    if (!message) {
        report("autoresponder: Failed to open temporary file with forward mail contents '" +
               std::string(mail_file_name) + "': " + error_text(errno));
        return;
    }
    const std::vector<char*> arguments = sendmail_arguments(content.recipient, addresses);
    const int child = fork_execv_pipes(message.get(), STDOUT_FILENO, STDERR_FILENO,
                                       paths::kSendmail, arguments.data());
    const int start_error = errno;
    message.reset();
    // Never with this library's functions, which end the process where they can't fork.
    if (child < 0) {
        report("autoresponder: Failed to spawn sendmail for forwarding: " +
               error_text(start_error));
        return;
    }
    wait_for_child(child);
}
