#pragma once

// Delivery of the composed reply through sendmail.

struct Mail_content;

// Hands the file under resp_uu_file_name to sendmail: envelope sender is the recipient of `content`
// in ASCII form, the one envelope recipient is its sender. Waits for it and removes the file.
// A fork that fails ends the process with status 1 (fork_exec.h).
// Throws std::runtime_error after a line on standard error when the file can't be opened,
// quarx::idn::IdnaError when the recipient has no ASCII form.
void deliver_reply(const Mail_content& content);
