#pragma once

int base64Encode(const unsigned char* in, unsigned len, char* out);
unsigned base64ArrayDecode(const char* in, unsigned len, unsigned char* out);
unsigned base64Decode(const char* in, unsigned char* out);
