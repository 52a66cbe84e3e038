#pragma once

// The mail that tells a domain's client which attachment files of a responder are missing.

#include <mysql.h>
#include <string>

struct Mail_content;

struct Notification {
    std::string reply_to; // the responder's, may be empty
    std::string sender;
    std::string client_address;
    std::string client_name;
    std::string missing; // file names, a line feed behind each
};

// The whole mail. A Reply-To runs into the From on one line; mail filters of the panel's customers
// know it so.
std::string notification_text(const Notification& notification, const Mail_content& content);

// Looks the client of the domain up and sends the notification through sendmail. `escaped_domain`
// is the recipient's domain escaped for SQL. A client without an address is passed over silently;
// a failure is reported on standard error and leaves the client untold,
// but for a fork that fails: it ends the process with status 1 (fork_exec.h).
void notify_missing_attachments(MYSQL* connection, const Mail_content& content,
                                const char* escaped_domain, const std::string& reply_to,
                                const std::string& missing);
