// Composition of the host's own user agent: WebKit's default, " Kavori/"
// with the version digits of "ProductInfo", and the operating system's
// description from /etc/issue.net.  No toolkit needed; the 256-byte limits
// are taken against the size handed in.
#pragma once

#include <cstddef>
#include <cstdint>

// defaultAgent: WebKit's default; productInfo: the plug-in's writable answer,
// split in place.  Fills buffer (zeroed by the caller) and returns true when
// it holds a composed user agent.
bool ComposeUserAgentText(const char* defaultAgent, char* productInfo, char* buffer, uint32_t size);

// Appends the version digits of a version field of `length` bytes to out:
// at most four characters and a dot.  Positions past the field count as
// absent.
void AppendVersionDigits(const char* field, size_t length, char* out);

// The start of /etc/issue.net, cut before its second dot, last blank to '/'.
bool ReadOsDescription(char* buffer, uint32_t size);

// Whether WebKit takes text as its user agent: an HTTP User-Agent value of
// products (token ["/" token]) and comments, nothing else.  WebKit keeps its
// default for any other text.
bool IsCarriedUserAgent(const char* text);
