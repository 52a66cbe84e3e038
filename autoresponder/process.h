#pragma once

// The process's own state, set before anything is read or opened.

// Opens /dev/null on every standard descriptor that came closed, so that no file of ours ever takes
// its number, and ignores SIGPIPE, so that a sendmail that stops reading can't end the run.
void prepare_process();

// Takes user and group 0, in that order. Where that is not allowed the run goes on as it is.
void take_root_identity();
