#include "app/user_agent.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstring>

#include "native/system_places.h"

namespace {

constexpr char kProductToken[] = " Kavori/";

// Position i of the field, or 0 past its end: short fields never reach
// into the rest of the product information.
char FieldChar(const char* field, size_t length, size_t i) { return i < length ? field[i] : '\0'; }

bool IsDigit(char c, char lowest) { return c >= lowest && c <= '9'; }

bool IsTokenChar(unsigned char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
           (c != '\0' && strchr("!#$%&'*+-.^_`|~", c) != nullptr);
}

const char* SkipToken(const char* p) {
    while (IsTokenChar(static_cast<unsigned char>(*p))) ++p;
    return p;
}

// Past a comment that starts at p (nested comments and backslash pairs
// included), or null when it is not one.
const char* SkipComment(const char* p) {
    int depth = 0;
    for (; *p != '\0'; ++p) {
        unsigned char c = static_cast<unsigned char>(*p);
        if (c == '(') {
            ++depth;
        } else if (c == ')') {
            if (--depth == 0) return p + 1;
        } else if (c == '\\') {
            if (*++p == '\0') return nullptr;
        } else if (c != '\t' && (c < 0x20 || c == 0x7F)) {
            return nullptr;
        }
    }
    return nullptr;
}

}  // namespace

bool IsCarriedUserAgent(const char* text) {
    if (text == nullptr || text[0] == '\0') return false;
    const char* p = text;
    for (bool first = true;; first = false) {
        if (*p == '(' && !first) {
            p = SkipComment(p);
            if (p == nullptr) return false;
        } else {
            const char* end = SkipToken(p);
            if (end == p) return false;
            p = end;
            if (*p == '/') {
                end = SkipToken(p + 1);
                if (end == p + 1) return false;
                p = end;
            }
        }
        if (*p == '\0') return true;
        if (*p == '(') continue;  // WebKit lets a comment follow without a blank
        if (*p != ' ' && *p != '\t') return false;
        while (*p == ' ' || *p == '\t') ++p;
    }
}

void AppendVersionDigits(const char* field, size_t length, char* out) {
    if (out == nullptr) return;
    if (field == nullptr) length = 0;
    char* p = out + strlen(out);
    // Two digits per part: a leading 0 of either part is dropped.
    char c = FieldChar(field, length, 0);
    if (IsDigit(c, '1')) *p++ = c;
    c = FieldChar(field, length, 1);
    if (IsDigit(c, '0')) *p++ = c;
    *p++ = '.';
    c = FieldChar(field, length, 2);
    if (IsDigit(c, '1')) *p++ = c;
    c = FieldChar(field, length, 3);
    if (IsDigit(c, '0')) *p++ = c;
    *p = '\0';
}

bool ComposeUserAgentText(const char* defaultAgent, char* productInfo, char* buffer, uint32_t size) {
    if (defaultAgent == nullptr || productInfo == nullptr || buffer == nullptr) return false;
    size_t agentLength = strlen(defaultAgent);
    if (agentLength + 64 >= size) return false;

    // "name;field2;version,...", split in place; separators found before a
    // missing one stay overwritten.
    char* name = productInfo;
    char* separator = strchr(name, ';');
    if (separator == nullptr) return false;
    *separator = '\0';
    separator = strchr(separator + 1, ';');
    if (separator == nullptr) return false;
    *separator = '\0';
    char* version = separator + 1;
    separator = strchr(version, ',');
    if (separator == nullptr) return false;
    *separator = '\0';

    // The product name counts although it is not written.
    size_t versionLength = strlen(version);
    if (agentLength + strlen(name) + versionLength + 4 >= size) return false;

    // Fits: agentLength + 64 < size leaves room for the token and digits.
    memcpy(buffer, defaultAgent, agentLength);
    memcpy(buffer + agentLength, kProductToken, sizeof kProductToken);
    AppendVersionDigits(version, versionLength, buffer);

    size_t length = strlen(buffer);
    if (length + 32 >= size) return true;
    // The description goes one byte past the text; that byte, the text's
    // terminator, becomes the joining blank when there is a description.
    uint32_t room = size - 1 - static_cast<uint32_t>(length);
    if (ReadOsDescription(buffer + length + 1, room)) buffer[length] = ' ';
    return true;
}

bool ReadOsDescription(char* buffer, uint32_t size) {
    if (buffer == nullptr || size == 0) return false;
    const char* path = SystemPath(PLACE_OS_DESCRIPTION);
    buffer[0] = '\0';
    struct stat st;
    if (stat(path, &st) != 0) return false;
    FILE* file = fopen(path, "rb");
    if (file == nullptr) return false;
    size_t count = fread(buffer, 1, size - 1, file);
    buffer[count] = '\0';
    fclose(file);
    if (count == 0) return false;

    // "Ubuntu 16.04.7 LTS" -> "Ubuntu 16.04" -> "Ubuntu/16.04"; a line end
    // before the cut stays.
    char* dot = strchr(buffer, '.');
    if (dot != nullptr) {
        char* second = strchr(dot + 1, '.');
        if (second != nullptr) *second = '\0';
    }
    char* blank = strrchr(buffer, ' ');
    if (blank != nullptr) *blank = '/';
    return buffer[0] != '\0';
}
