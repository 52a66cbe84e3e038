#pragma once

// Messages of the panel library.
//
// messlog2 and its worker write one message to standard error and the same again to standard
// output, and end the process when they are given a status. quarx_log is a second, levelled channel
// that goes to the console or to syslog(3). Formats are those of printf(3). For single-threaded
// programs: nothing here takes a lock.

#include <cstdarg>

// The program's path, set by the program at start and owned by it. Messages begin with its last
// path component and ": "; null, or a path without a last component, means no prefix.
extern char* PROGNAME;

// Writes the formatted message and, when errno is not 0 at the call, a second line
// "System error N: TEXT" directly behind it; a line feed is added unless the text ends in one.
// A message of any length is written whole, but one that leaves no room for the second line within
// 4095 characters goes out without it; out of memory, a long message is cut to 4095 characters or
// replaced by "Can't allocate memory for error message".
// status: when not 0 the process ends by exit(status). flag: passed on and never read.
// errno is left as it was.
[[gnu::format(printf, 3, 4)]] void messlog2(int status, int flag, const char* format, ...);
[[gnu::format(printf, 3, 0)]] void vmesslog2(int status, int flag, const char* format,
                                             va_list args);

// Writes a finished text (not null) with the prefix to standard error and to standard output and
// flushes both; a line feed is added unless the text ends in one. Ends the process by exit(status)
// when status is not 0. flag: never read.
void ex_messlog(const char* text, int status, int flag);

// The state of the levelled channel, changed by quarx_log_init alone. The console back-end writes a
// message when LogEnabled is not 0 and its level is not above LogLevel; syslog(3) gets every one
// (see setlogmask(3)).
extern int LogFacility, LogLevel, LogEnabled;

// The channel's back-end: the console or syslog.
[[gnu::format(printf, 2, 3)]] extern void (*quarx_log)(int level, const char* format, ...);
[[gnu::format(printf, 2, 0)]] extern void (*quarx_logv)(int level, const char* format,
                                                        va_list args);

// The console back-end: the message and a line feed to standard error, then to standard output,
// each flushed.
[[gnu::format(printf, 2, 3)]] void _quarx_utility_log(int level, const char* format, ...);
[[gnu::format(printf, 2, 0)]] void _quarx_utility_logv(int level, const char* format, va_list args);

// Chooses the back-end. A level below 1 switches the console off. target null: syslog(3), opened
// anew with ident (kept by syslog, so it must stay valid), options and LOG_PID, and facility.
// Another target: the console, and a target that does not begin with "console" (in any case of
// letters) switches it off.
void quarx_log_init(const char* target, int level, int facility, int options, const char* ident);
