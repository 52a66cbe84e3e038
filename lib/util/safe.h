#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstring>

void* malloc_safe(size_t size);
void* realloc_safe(void* ptr, size_t size);
char* vasprintf_safe(const char* format, va_list args);
char* asprintf_safe(const char* format, ...);
#if !__GLIBC_PREREQ(2, 38)
size_t strlcpy(char* dst, const char* src, size_t size);
#endif
char* quarx_trim(char* str);
char* quarx_rtrim(char* str);
char* strtolower(char* str);
char* strtolower_dynamic(const char* str);
char* quarx_chch(const char* src, char* dst, char from, char to);
char* strn_replace(const char* src, char* dst, const char* pattern, const char* replacement,
                   size_t size);
void check_parameter(int required, const char* value, const char* name);
void check_unprocessed_parameters(int count, int used);
