#pragma once

// Runs other programs as child processes: with chosen standard descriptors, with their output
// collected in memory, or through the shell. For single-threaded programs.
//
// - An argument vector is an array of strings ended by a null pointer; element 0 is the name that
//   the child sees as its own. It stays the caller's. Argument lists end with a null pointer.
// - path is the program's file; PATH is not searched. The environment is the caller's. Every child
//   starts with SIGPIPE and SIGXFSZ at their defaults, also where the caller ignores them.
// - "Exit code" is the child's exit status, 0 to 255, or -1 when a signal ended it. A program that
//   can't be executed is a child with exit status 255.
// - Waits and reads are resumed after EINTR. Messages go through messlog2 (messlog.h): the process
//   goes on after them except where a function is said to end it, which is always with status 1.
// - Texts handed over through a char** are NUL-terminated and freed by the caller with free(3).

#include <cstdarg>
#include <cstddef>

// Starts path with fd_in, fd_out and fd_err as its standard input, output and error, and returns
// its process id without waiting. -1 stands for /dev/null. The child has no other descriptor open;
// the caller's copies stay open in the caller. The descriptors are placed in this order by
// dup2_custom, which closes each source: one descriptor can't be given twice, except that 0, 1 and
// 2 given in their own place stay as they are. Ends the process when fork(2) fails. In the child a
// failure is a line on standard error, "fork_execv: dup() failed: ..." or "fork_execv:
// execv("PATH") failed: ...", and exit status 255.
int fork_execv_pipes(int fd_in, int fd_out, int fd_err, const char* path, char* const argv[]);

// The same with the child's arguments, argument 0 first, as a list. Ends the process with
// "malloc() failed: ..." when there is no memory for the vector.
[[gnu::sentinel]] int fork_execl_pipes(int fd_in, int fd_out, int fd_err, const char* path, ...);

// For the child: puts fd, or a newly opened /dev/null when fd is -1, on the number target and
// closes fd, also when it was the caller's. fd on its own number is left alone. Returns target, or
// -1 with errno of open(2) or dup2(2).
int dup2_custom(int fd, int target);

// Closes *fd and sets it to -1. Returns the result of close(2), with its errno.
int close_fd(int* fd);

// The exit code for a status of pclose(3): -1 for -1, else the exit status byte (bits 8 to 15), so
// that a shell ended by a signal counts as 0, which is meant.
int pclose_status_to_rc(int status);

// Runs path, as argument 0, with the listed arguments (those behind the 99th are left out) and
// /dev/null on its three standard descriptors, and waits for it. Returns its exit status, 1 when a
// signal ended it, -1 when it could not be forked or waited for (errno says why). No messages.
[[gnu::sentinel]] int fork_execv(const char* path, ...);

// Runs path with all inheritable descriptors of the caller and waits for it. Returns the raw wait
// status (wait(2)), or -1 with errno when the wait failed. Ends the process with "Unable to fork".
int do_exec(const char* path, char* const argv[]);

// Runs a shell command and collects its standard output. Returns pclose_status_to_rc of it; -1,
// with a message and *output null, when it was not started; -1 with the output when its end was not
// to be had (a caller that ignores SIGCHLD). When memory runs out while it is running, the output
// is dropped with a warning, and *output is an empty text.
int popen_exec_getoutput(const char* command, char** output);

// The same, with a message when the result is -1 or not 0 (which then shows the output or
// "error: none"); the output is freed.
int popen_exec(const char* command);

// Runs a shell command with input (not null) as its standard input. Returns pclose_status_to_rc of
// it; -1 with a message when it was not started or did not take all of the input (a command that
// ends early does not end the caller by SIGPIPE).
int popen_exec_with_input(const char* command, const char* input);

// Runs path with fd_in and fd_out (-1: /dev/null) as standard input and output, which stay open in
// the caller, and waits for it. What it writes to standard error is logged through messlog2 as it
// arrives, in pieces of up to 4095 bytes. Returns its exit status; -1 with a message when a signal
// killed or stopped it, when fd_in is 0 or fd_out is 1, or when it could not be started or waited
// for. A stopped child is left stopped and is not waited for again; it is noticed once nobody holds
// its standard error open.
int fork_execv_fd(int fd_in, int fd_out, const char* path, char* const argv[]);

// Runs path through fork_execv_pipes with the caller's standard input, collects standard output and
// standard error until both have ended, and waits for it. A child that has ended while others hold
// its outputs open is noticed when nothing came for a second. *out and *err are always set; a null
// out or err leaves that stream the caller's. Returns the exit code; -1 also when the wait failed
// (errno says why). Ends the process when a pipe can't be made or set up, or without memory.
int fork_execv_getouterr(const char* path, char* const argv[], char** out, char** err);
[[gnu::sentinel]] int fork_execl_getouterr(char** out, char** err, const char* path, ...);

// The same for standard output alone; standard error is the caller's.
int fork_execv_getout(const char* path, char* const argv[], char** out);
[[gnu::sentinel]] int fork_execl_getout(char** out, const char* path, ...);

// Reads once from *fd into the malloc'ed buffer *buf (null at first) of *size bytes with *used in
// use. With fewer than 2048 bytes free the buffer first grows: to twice its size when it is over
// 4096 bytes, else by 4096. At least one byte stays free behind *used, for a NUL.
// Returns the number of bytes read; 0 at the end of input, with *fd closed and set to -1; -1 on an
// error: EAGAIN leaves *fd open, any other is logged, and *fd closed and set to -1.
// Ends the process with "Cannot allocate memory" when the buffer can't grow.
int read_to_buf(int* fd, char** buf, size_t* size, size_t* used);

// Runs path with the caller's standard input, collects standard output and standard error together,
// in the order written, and waits for it. Returns the exit code; a message tells how a utility
// ended that did not end with 0. *output holds what was collected; it is null, and the result -1
// with a message, when the utility could not be started, its output not be read, or its end not be
// waited for.
int fork_execv_getoutput(const char* path, char* const argv[], char** output);

// fork_execv_getouterr with a report: when the exit code is not 0 and quiet is 0, the child's
// standard error is written to standard error and its output logged behind "PATH execution failed".
// Returns the exit code.
int fork_execv_log(int quiet, const char* path, char* const argv[]);
[[gnu::sentinel]] int fork_execl_log(int quiet, const char* path, ...);

// Runs path, as argument 0, with the listed arguments (those behind the 99th are left out) through
// fork_execv_log, not quiet. Returns the exit code. The caller of path_exec_raw ends args.
[[gnu::sentinel]] int path_exec(const char* path, ...);
int path_exec_raw(const char* path, va_list args);

// The same for the panel's utility of that name: "admin/bin/NAME" below the configured
// PRODUCT_ROOT_D; the path is cut to 4095 bytes. A name with a "/" is refused with a message and
// -1. util_exec_args takes a ready vector.
[[gnu::sentinel]] int util_exec(const char* name, ...);
int util_exec_args(const char* name, char* const argv[]);

// The same for a program in "/usr/lib/quarx-9.0"; the name is not checked.
[[gnu::sentinel]] int util_libexec(const char* name, ...);
