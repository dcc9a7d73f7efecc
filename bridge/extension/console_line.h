// Developer mode's line on stderr for one console message of a page.
#pragma once

#include <cstdint>
#include <string>

// "<level>: [<origin>] <source>:<line>: <text>\n".  The origin is the
// source's ("null" when it has none), so a framed page cannot pass its lines
// off as another's; control characters (C0, DEL, C1) and backslashes are
// escaped as \xNN and \\, so no line can move the cursor, colour the
// terminal or forge a line of its own.
std::string ConsoleLine(const char* level, const char* source, uint32_t line, const char* text);
