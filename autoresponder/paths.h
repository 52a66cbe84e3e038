#pragma once

// The outside paths and names of the program's own steps. Its temporary files are named in
// mail_content.cpp; the panel's configuration and password files in lib/conf and lib/db.

namespace paths {

// The message transfer agent's submission program: sendmail(8).
inline constexpr char kSendmail[] = "/usr/sbin/sendmail";

// The mail system's message size limit in bytes: qmail-smtpd(8), "databytes".
inline constexpr char kDatabytes[] = "/var/qmail/control/databytes";

// The folder with a mailbox's attachment files, below the mailbox's own folder.
inline constexpr char kAttachmentsFolder[] = "@attachments";

// The environment variable with the receiving mailbox's address.
inline constexpr char kRecipientVariable[] = "RESP_RECIPIENT";

// The sender of a notification when the panel has no better one.
inline constexpr char kFallbackSender[] = "root@localhost";

} // namespace paths
