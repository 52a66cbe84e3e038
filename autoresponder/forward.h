#pragma once

// Forwarding of the incoming message, unchanged, to a responder's forwarding addresses.

#include <mysql.h>
#include <string>

struct Mail_content;

// Hands the copy of the message to one sendmail with all addresses of `responder_id` in table
// resp_forward, NULL ones left out, and waits for it. Without addresses nothing is started. A
// failed query ends the run; a copy that can't be opened is reported and leaves the message
// unforwarded; a fork that fails ends the process with status 1 (fork_exec.h).
void forward_message(MYSQL* connection, const Mail_content& content,
                     const std::string& responder_id);
