#include "native/library_file.h"

#include <dlfcn.h>

#include <cstdint>
#include <cstring>

void AppendBounded(char* buffer, size_t size, const char* text) {
    if (buffer == nullptr || text == nullptr || size == 0) return;
    const char* end = static_cast<const char*>(memchr(buffer, 0, size));
    if (end == nullptr) return;
    size_t used = static_cast<size_t>(end - buffer);
    size_t count = strnlen(text, size - used - 1);
    memcpy(buffer + used, text, count);
    buffer[used + count] = '\0';
}

void CloseLibrary(void* handle) {
    void* const invalid = reinterpret_cast<void*>(~static_cast<uintptr_t>(0));
    if (handle != nullptr && handle != invalid) dlclose(handle);
}
