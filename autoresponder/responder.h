#pragma once

// The responder logic: the mailbox of a message, its autoresponders, and what each of them sends.

struct Mail_content;

// Finds the mailbox of `content`'s recipient in the panel database and lets each of its responders
// that is on, matches and is within its limit forward the message and answer it. Returns 0.
// A failure on the way to the responders, or of a query for them, their limits, forwarding
// addresses or attachments, ends the run through correct_exit(); std::bad_alloc, std::runtime_error
// and quarx::idn::IdnaError, thrown while a responder is handled, end it through messlog2() with
// status 1.
int db_mail_act(Mail_content* content);
