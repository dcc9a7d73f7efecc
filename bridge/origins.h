// Origins for the opt-in list of documents that may see the script object
// (KAVORI_TRUSTED_ORIGINS): "scheme://host[:port]", and "file://" for every
// file URL.  Used by the host and by the web extension alike.
#pragma once

#include <string>
#include <vector>

// The origin of a URL in the list's form; "" for URLs that have none
// (about:blank, data:, anything unparsable).
std::string OriginOf(const char* url);
// The space-separated list, each entry normalised; an entry that names no
// origin stays in as one that matches nothing.
std::vector<std::string> ParseTrustedOrigins(const char* text);
// True when the list is empty (no restriction) or holds the URL's origin.
bool OriginTrusted(const std::vector<std::string>& trusted, const char* url);
