#pragma once

// The mailbox that a message was delivered to, as the panel knows it.

#include <mysql.h>
#include <string>

struct Mail_content;

// The real mailbox and its primary domain, also when the message came through an alias.
struct Mailbox {
    std::string id;
    std::string mail_name;
    std::string domain_name;
};

// Finds the mailbox of `content`'s recipient: by its own name, a mail alias, a domain alias that
// carries mail, or both aliases, in this order. `domain` and `mailname` are the recipient's halves
// escaped for SQL. A failed query, and a recipient that nothing fits, end the run with a line on
// standard error.
Mailbox find_mailbox(MYSQL* connection, const Mail_content& content, const char* domain,
                     const char* mailname);

// The folder with the mailbox's attachment files, without a slash at its end.
std::string attachments_directory(const Mailbox& mailbox);
