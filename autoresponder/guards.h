#pragma once

// The guards that keep the program from answering itself or a bounce daemon.

struct Mail_content;

// The line to report when `content`'s sender must not be answered, or null when it may be.
const char* refusal_of_sender(const Mail_content& content);
