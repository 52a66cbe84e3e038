#pragma once

// Intake: standard input becomes a copy on disk and the run record.

#include "mime_parser.h"

struct Mail_content;

// Reads the message from standard input, keeps a copy under mail_file_name (RFC 5322 text as it
// came, and one line feed behind it) and fills `content`. Returns 0, or 1 after a line on standard
// error that says why there is nobody to answer or nothing to answer with. A standard input that
// can't be read ends the run.
int parse_message(Mail_content* content);

// Puts the transfer-decoded (RFC 2045 section 6) body of `entity` into `out` and returns `out`.
// What a decoder could make of a malformed body counts; an unknown encoding leaves it as it is.
DwString& DecodeBody(const DwEntity& entity, DwString& out);

// The charset parameter of `entity`'s Content-Type as written, or "US-ASCII".
DwString GetCharset(const DwEntity& entity);

// The first valid mailbox of the list, null when there is none; the list owns it. Mailboxes inside
// a group are never taken.
const DwMailbox* GetMailboxFromAddressList(const DwAddressList& list);
const DwMailbox* GetMailboxFromMailboxList(const DwMailboxList& list);
