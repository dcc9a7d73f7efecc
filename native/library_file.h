// What both library wrappers do with a library file: build its path in a
// fixed buffer and close it.
#pragma once

#include <cstddef>

// Appends as much of text as fits in a buffer of size bytes, terminator
// included; an over-long path is cut and then simply fails to open.  A
// buffer without a terminator inside size bytes is not extended.
void AppendBounded(char* buffer, size_t size, const char* text);
// dlclose, unless the handle is null or the invalid handle (all bits set).
void CloseLibrary(void* handle);
