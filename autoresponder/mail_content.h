#pragma once

// The run record of one incoming message, the names of the run's temporary files, and the common
// end of a run.

#include <string>
#include <vector>

// The parsed message. Intake fills it once; after that nobody changes it (the template variables of
// the reply subject point into `sender` and `subject`).
struct Mail_content {
    std::string sender; // local part "@" domain of the first usable Reply-To:, else From: mailbox
    std::string recipient;         // RESP_RECIPIENT as it stands
    std::string mailname;          // recipient before its first "@", the whole of it without one
    std::string domain;            // recipient after its first "@", the whole of it without one
    std::string subject;           // decoded, UTF-8; empty without Subject:
    std::string date;              // the Date: field's text, not parsed; empty without one
    std::string charset;           // as declared for the chosen text part; "US-ASCII" when none is
    std::vector<std::string> body; // the chosen text part in UTF-8, by lines; never empty
};

// Templates until mkstemp(3) turns them into the names of the copy of the incoming message and of
// the composed reply.
extern char mail_file_name[30];
extern char resp_uu_file_name[28];

// Removes the temporary files and ends the process with status 0. Failures to remove are ignored:
// the mail system must not see a failure of ours.
[[noreturn]] void correct_exit();
