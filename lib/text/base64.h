// Base64 over the caller's buffers: the standard alphabet and padding of RFC 4648 section 4,
// without line breaks. Nothing is allocated, nothing fails. The decoders take what base64Encode
// wrote; for text from outside use quarx::base64_decode.
#pragma once

// Writes the base64 of the `len` bytes at `in` and a NUL to `out`, which holds at least
// 4 * ceil(len / 3) + 1 bytes and may be `in` itself. Returns the number of characters without the
// NUL; `len` is at most 1610612733, so that it fits an int.
int base64Encode(const unsigned char* in, unsigned len, char* out);

// Writes the bytes of the `len` characters at `in` to `out`, which holds at least 3 * len / 4 bytes
// and gets no NUL. Returns the number of bytes. A `len` that is 0 or no multiple of 4 is refused: 0
// is returned, nothing written. A character outside the alphabet spoils the bytes of its group.
unsigned base64ArrayDecode(const char* in, unsigned len, unsigned char* out);

// base64ArrayDecode over the NUL-terminated text at `in`.
unsigned base64Decode(const char* in, unsigned char* out);
