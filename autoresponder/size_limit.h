#pragma once

// The mail system's limit on the size of a message: qmail's control file "databytes".

#include <sys/types.h>

// Whether a message of `size` bytes is larger than the limit. There is no limit when the file can't
// be opened, or when atoi(3) reads its first word as 0 or less; the value counts as 32 bits.
bool exceeds_size_limit(off_t size);
