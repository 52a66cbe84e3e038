#pragma once

#include <cstdarg>

extern char* PROGNAME;

void messlog2(int status, int flag, const char* format, ...);
void vmesslog2(int status, int flag, const char* format, va_list args);
void ex_messlog(const char* text, int status, int flag);

extern int LogFacility, LogLevel, LogEnabled;
extern void (*quarx_log)(int level, const char* format, ...);
extern void (*quarx_logv)(int level, const char* format, va_list args);
void _quarx_utility_log(int level, const char* format, ...);
void _quarx_utility_logv(int level, const char* format, va_list args);
void quarx_log_init(const char* target, int level, int facility, int options, const char* ident);
