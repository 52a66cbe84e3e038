#pragma once

// Composition of a reply: its header, its text, the multipart layout (RFC 2046 section 5.1), and
// the error reply in place of one that is too large. Every line ends in a single line feed.

#include <string>

struct Attachments;
struct Mail_content;
struct Responder;
class ResponseFile;

// A new multipart boundary of 39 characters: "--------=_" and 29 letters from rand(3), which is
// never seeded, so that the n-th boundary of every run is the same.
std::string makeBoundaryStr();

// The reply's subject, not yet encoded: `subject_template` with its variables replaced and at most
// 999 bytes long, or "Re: " and the incoming subject when the template is empty. The variables are
// those of the first `content` of the process; a run has one.
std::string reply_subject(const std::string& subject_template, const Mail_content& content);

// Composes the reply of `responder` to `content` in `file` and closes it. Throws std::runtime_error
// when the text can't be recoded and quarx::idn::IdnaError when the recipient has no ASCII form;
// the file stays behind then.
void compose_reply(const Responder& responder, const Mail_content& content,
                   const Attachments& attachments, const std::string& boundary, ResponseFile& file);
