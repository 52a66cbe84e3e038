#pragma once

// The process's own state, set before anything is read or opened.

// Opens /dev/null on every standard descriptor that came closed, so that no file of ours ever takes
// its number. Ignores SIGPIPE and SIGXFSZ, so that neither a sendmail that stops reading nor a
// limit on file sizes ends the run (children get both back at their defaults). In a process with
// more rights than its caller it drops from the environment what would turn the database client.
// Freed blocks of 128 KiB and more go back to the system.
void prepare_process();

// Takes user and group 0, in that order. Where that is not allowed the run goes on as it is.
void take_root_identity();
