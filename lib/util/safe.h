#pragma once

// Small helpers over NUL-terminated text and malloc(3) memory whose only failure path is messlog2:
// the allocating ones end the process with status 1 instead of returning null. Character classes
// are those of the current locale (isspace(3), tolower(3)), byte by byte.

#include <cstdarg>
#include <cstddef>
#include <cstring>

// malloc(3) and realloc(3) that never return null: out of memory they end the process with status 1
// and the message "alloc(SIZE)". So does realloc_safe of a block to size 0, for which glibc's
// realloc frees the block and returns null. The caller frees.
void* malloc_safe(size_t size);
void* realloc_safe(void* ptr, size_t size);

// vasprintf(3) that never fails: it ends the process with status 1 and the message
// "Cannot allocate memory: TEXT". The caller frees the string.
[[gnu::format(printf, 1, 0)]] char* vasprintf_safe(const char* format, va_list args);
[[gnu::format(printf, 1, 2)]] char* asprintf_safe(const char* format, ...);

#if !__GLIBC_PREREQ(2, 38)
// As in the C libraries that have it: copies at most size - 1 bytes of src and terminates dst
// unless size is 0. Returns the length of src; a result of size or more means that the copy was
// cut.
size_t strlcpy(char* dst, const char* src, size_t size);
#endif

// Overwrites the white space at the end of str with NULs. quarx_trim returns a pointer to the first
// byte of str that is not white space (what leads is skipped, not moved), quarx_rtrim returns str.
// Null gives null.
char* quarx_trim(char* str);
char* quarx_rtrim(char* str);

// Lower-cases str in place and returns it; null is returned as it is.
char* strtolower(char* str);

// A lower-cased copy of str that the caller frees; null for null, and null with the message
// "System error: TEXT" when there is no memory (errno ENOMEM).
char* strtolower_dynamic(const char* str);

// Copies src (not null), with its NUL, to dst and puts `to` for every byte `from`; the NUL itself
// is never replaced. dst holds at least strlen(src) + 1 bytes; null means in place, and src must
// then be writable. Returns the text it wrote.
char* quarx_chch(const char* src, char* dst, char from, char to);

// Writes src (not null) into dst, of size bytes, with every occurrence of pattern replaced (a null
// replacement is an empty one), and returns dst; a null dst gives null. dst may be src.
// The text between two occurrences and the replacement are pieces: the first piece with which the
// length would reach size ends the text before it, so dst is always terminated (size 0: untouched).
// An empty or null pattern is strncpy(dst, src, size), which does not terminate a text that is cut.
// Out of memory, the message "strn_replace(): TEXT" is written and src copied as by strlcpy.
char* strn_replace(const char* src, char* dst, const char* pattern, const char* replacement,
                   size_t size);

// When required is not 0 and value is null or empty: ends the process with status 1 and
// "Missing parameter 'NAME' or previous parameter is empty."
void check_parameter(int required, const char* value, const char* name);

// When the two differ: ends the process with status 1 and
// "Some parameters in command string are left unprocessed. Check parameters please."
void check_unprocessed_parameters(int count, int used);
