#pragma once

// Delivery of the composed reply through sendmail.

struct Mail_content;

// Hands the file under resp_uu_file_name to sendmail: envelope sender is the recipient of `content`
// in ASCII form, the one envelope recipient is its sender. Waits for it and removes the file.
// Throws std::runtime_error after a line on standard error when the file can't be opened or
// sendmail can't be started, quarx::idn::IdnaError when the recipient has no ASCII form.
void deliver_reply(const Mail_content& content);
