#include "autoresponder/notify.h"

#include "autoresponder/child.h"
#include "autoresponder/mail_content.h"
#include "autoresponder/panel_query.h"
#include "autoresponder/paths.h"
#include "autoresponder/pipestream.h"
#include "autoresponder/report.h"
#include "lib/db/quarx_db.h"
#include "lib/util/fork_exec.h"
#include "lib/util/unique_fd.h"

#include <cerrno>
#include <fcntl.h>
#include <optional>
#include <unistd.h>

namespace {

struct Client {
    std::string address;
    std::string name;
};

// The client who owns the domain, when there is one to be told.
std::optional<Client> find_client(MYSQL* connection, const char* escaped_domain) {
    const MysqlResult result = store_query(
        connection, std::string("select c.email, c.pname, c.login from clients c, domains d "
                                "where d.cl_id=c.id and d.name='") +
                        escaped_domain + "'");
    if (!result) {
        report(std::string("Unable to define client email and personal name :") +
               mysql_error(connection));
        return std::nullopt;
    }
    const MYSQL_ROW row = mysql_fetch_row(result.get());
    if (row == nullptr) {
        report(std::string("This client does not exist :") + mysql_error(connection));
        return std::nullopt;
    }
    Client client{column_or(row[0], ""), column_or(row[1], "")};
    if (client.address.empty())
        return std::nullopt;
    if (client.name.empty())
        client.name = column_or(row[2], "");
    return client;
}

std::string panel_parameter(const char* name, MYSQL* connection) {
    return column_or(get_param(name, connection), "");
}

std::string notification_sender(MYSQL* connection) {
    std::string admin = panel_parameter("admin_email", connection);
    if (!admin.empty())
        return admin;
    const std::string host = panel_parameter("FullHostName", connection);
    return host.empty() ? paths::kFallbackSender : "root@" + host;
}

void send(const Notification& notification, const Mail_content& content) {
    const std::string text = notification_text(notification, content);
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        report("autoresponder: Failed to create pipe to sendmail to notify about missing "
               "attachment files: " +
               error_text(errno));
        return;
    }
    UniqueFd read_end(ends[0]);
    // There before the child is: when memory runs out, no empty mail goes out.
    std::optional<ofd_pipestream> stream(std::in_place, ends[1]);
    const int child =
        fork_execl_pipes(read_end.get(), STDOUT_FILENO, STDERR_FILENO, paths::kSendmail,
                         paths::kSendmail, "-f", notification.sender.c_str(),
                         notification.client_address.c_str(), static_cast<char*>(nullptr));
    const int start_error = errno;
    read_end.reset();
    // Never with this library's functions, which end the process where they can't fork.
    if (child < 0) {
        report(
            "autoresponder: Failed to spawn sendmail to notify about missing attachment files: " +
            error_text(start_error));
        return;
    }
    if (*stream)
        *stream << text; // a child that stops reading early is no failure
    else
        report("Unable to send mail with notify of not exist attachment.");
    stream.reset();
    wait_for_child(child);
}

} // namespace

std::string notification_text(const Notification& notification, const Mail_content& content) {
    std::string text;
    if (!notification.reply_to.empty())
        text = "Reply-To: " + notification.reply_to;
    return text + "From: " + notification.sender +
           "\n"
           "To: " +
           notification.client_address +
           "\n"
           "CC: \n"
           "Subject: qrx notification (files missing in attachments repository). \n"
           "Content-Type: text/plain; charset=utf-8\n"
           "Content-Disposition: inline\n"
           "Content-Transfer-Encoding: 8bit\n"
           "\n"
           "\n"
           "Notification for qrx client '" +
           notification.client_name +
           "'.\n"
           "\n"
           "The following files are missing in the attachment repository\n"
           "for the mailname '" +
           content.mailname + "' on domain '" + content.domain + "':\n" + notification.missing +
           "\n";
}

void notify_missing_attachments(MYSQL* connection, const Mail_content& content,
                                const char* escaped_domain, const std::string& reply_to,
                                const std::string& missing) {
    const std::optional<Client> client = find_client(connection, escaped_domain);
    if (!client)
        return;
    send({reply_to, notification_sender(connection), client->address, client->name, missing},
         content);
}
