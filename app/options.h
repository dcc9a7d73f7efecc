// Option lookups on an argument vector.  The command line is never parsed
// into a structure: each caller looks up one option by its exact name.
// Index 0 is never searched; the first occurrence wins; a value is the next
// argument unless it begins with '-'.
#pragma once

#include <cstdint>

// 1 when present.  *value is set to null on entry, then to the value or "".
int FindOptionValue(int32_t argc, char** argv, const char* name, const char** value);
// 1 when present.  When present and number is not null: 0, then ParseNumber
// of the value if there is one.  Absent: *number is left alone.
int FindOptionNumber(int32_t argc, char** argv, const char* name, uint32_t* number);
int HasOption(int32_t argc, char** argv, const char* name);

// "0x" + uppercase hex digits, else decimal as strtol (low 32 bits kept).
uint32_t ParseNumber(const char* text);
// Digits '0'-'9' and 'A'-'F', most significant first, 32-bit arithmetic.
uint32_t ParseHexDigits(const char* text);
