#include "bridge/extension/console_line.h"

#include <cstdio>

#include "bridge/origins.h"

namespace {

void AppendEscaped(std::string* out, const char* text) {
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(text ? text : ""); *p; ++p) {
        // C1 controls arrive as U+0080..U+009F, two bytes in UTF-8.
        bool c1 = p[0] == 0xC2 && p[1] >= 0x80 && p[1] <= 0x9F;
        if (*p >= 0x20 && *p != 0x7F && *p != '\\' && !c1) {
            *out += static_cast<char>(*p);
            continue;
        }
        if (*p == '\\') {
            *out += "\\\\";
            continue;
        }
        if (c1) ++p;
        char escaped[8];
        snprintf(escaped, sizeof escaped, "\\x%02x", *p);
        *out += escaped;
    }
}

}  // namespace

std::string ConsoleLine(const char* level, const char* source, uint32_t line, const char* text) {
    std::string origin = OriginOf(source);
    std::string out = std::string(level) + ": [";
    AppendEscaped(&out, origin.empty() ? "null" : origin.c_str());
    out += "] ";
    AppendEscaped(&out, source);
    out += ":" + std::to_string(line) + ": ";
    AppendEscaped(&out, text);
    return out + "\n";
}
