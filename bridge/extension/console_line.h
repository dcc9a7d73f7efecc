// Developer mode's line on stderr for one console message of a page, and
// how a line learns the frame that wrote it: the page's console reports
// no frame, and eval'd code has no source to tell one.
#pragma once

#include <JavaScriptCore/JavaScript.h>

#include <cstdint>
#include <string>

// "<level>: [<origin>] <source>:<line>: <text>\n".  The origin is the given
// one (the frame's), or when that is empty the source's, or "null", so a
// framed page cannot pass its lines off as another's; control characters
// (C0, DEL, C1) and backslashes are escaped as \xNN and \\, so no line can
// move the cursor, colour the terminal or forge a line of its own.
std::string ConsoleLine(const char* level, const std::string& origin, const char* source, uint32_t line,
                        const char* text);

// Makes the console functions of a document's realm (the page's world), and
// the realm's uncaught errors, name `origin` to ConsoleOrigin while they
// report.  Call before the document's script runs; a realm named already
// (handed on to the next document of its origin) keeps its name.
void NameConsoleOrigin(JSGlobalContextRef context, const std::string& origin);
// The origin of the frame whose console message is being reported: the
// named realm whose console function is running, or whose uncaught error
// has this text; "" when none is (the engine's own messages).
std::string ConsoleOrigin(bool error, const char* text);
