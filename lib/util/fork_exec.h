#pragma once

#include <cstdarg>
#include <cstddef>

int fork_execv_pipes(int fd_in, int fd_out, int fd_err, const char* path, char* const argv[]);
int fork_execl_pipes(int fd_in, int fd_out, int fd_err, const char* path, ...);
int dup2_custom(int fd, int target);
int close_fd(int* fd);
int pclose_status_to_rc(int status);
int fork_execv(const char* path, ...);
int do_exec(const char* path, char* const argv[]);
int popen_exec_getoutput(const char* command, char** output);
int popen_exec(const char* command);
int popen_exec_with_input(const char* command, const char* input);
int fork_execv_fd(int fd_in, int fd_out, const char* path, char* const argv[]);
int fork_execv_getouterr(const char* path, char* const argv[], char** out, char** err);
int fork_execl_getouterr(char** out, char** err, const char* path, ...);
int fork_execv_getout(const char* path, char* const argv[], char** out);
int fork_execl_getout(char** out, const char* path, ...);
int read_to_buf(int* fd, char** buf, size_t* size, size_t* used);
int fork_execv_getoutput(const char* path, char* const argv[], char** output);
int fork_execv_log(int quiet, const char* path, char* const argv[]);
int fork_execl_log(int quiet, const char* path, ...);
int path_exec(const char* path, ...);
int path_exec_raw(const char* path, va_list args);
int util_exec(const char* name, ...);
int util_exec_args(const char* name, char* const argv[]);
int util_libexec(const char* name, ...);
