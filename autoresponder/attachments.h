#pragma once

// The attachment files of a responder: which there are, and how a reply carries them.

#include <mysql.h>
#include <string>
#include <vector>

class ResponseFile;

struct Attachments {
    std::string directory;
    std::vector<std::string> present; // names, in the database's order
    std::string missing;              // names without a file, a line feed behind each
};

// Reads the names of `responder_id` from table resp_attach, white space around them cut, NULL and
// empty ones left out, and looks for each in `directory`. A failed query ends the run.
Attachments list_attachments(MYSQL* connection, const std::string& responder_id,
                             const std::string& directory);

// Writes one MIME part for each present file, base64 (RFC 2045 section 6.8) in lines of 60
// characters, and the closing delimiter line; nothing when no file is present. A file that can't be
// opened is reported and leaves an empty part, as does anything that is no regular file.
void write_attachments(const Attachments& attachments, const std::string& boundary,
                       ResponseFile& file);
