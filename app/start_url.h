// Configured start URL prefix and command-line redirection, both read from
// the plug-in's configuration properties.
#pragma once

#include <cstdint>

// Unchanged when the text holds "://" or no prefix is configured; else a new
// text (never freed): "ConfigGlobal:Dialog:PathResource" + url.
const char* ResolveStartUrl(const char* url);

// A start URL without a scheme that names an existing file becomes its
// file:// URL (WebKit2 does not guess schemes); else the text unchanged.
const char* FileUrlForLocalPath(const char* url);

// The received vector plus the words of "ConfigGlobal:Command:App", with
// *argc raised; null (and *argc unchanged) when nothing is configured.
char** RedirectCommandLine(char** argv, int32_t* argc);

// Blank-separated words, double-quoted words without escapes; never fails.
// The vector ends with a null entry; free with FreeArgumentVector.
char** SplitCommandText(const char* text, int32_t* count);
// Copies of first's entries, then second's; a count <= 0 adds nothing.
char** JoinArgumentVectors(char** first, int32_t firstCount, char** second, int32_t secondCount);
// Frees every word up to the first null entry, then the array.
void FreeArgumentVector(char** vector);
