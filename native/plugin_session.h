// The host's one plug-in session: the lazy start of the plug-in library
// with the host's defaults, the ready handle, the key hand-over and its
// clearing, and the forwarding of every request to the plug-in.  Nothing
// loads a library until something first needs the plug-in; a start that
// fails is tried again at the next need.  Main thread only.
#pragma once

#include <cstdint>

// Where a lazy start loads from, given once by the entry point before the
// first need: the root ("" or null: the default library directory) and the
// global configuration ("" or null: the default file).  Copied; a path of
// 256 bytes or more counts as not given.
void ConfigurePluginSession(const char* root, const char* configPath);

// Null until a start-up of the plug-in returned 0, then the plug-in wrapper
// itself, for good.
extern void* g_readyHandle;
// The ready handle, starting the plug-in library (alone) while it is null.
void* GetReadyHandle();

// The forwarding operations.  With a null ready handle they do nothing,
// give null, give null, give 6.  An empty answer counts as null; a text
// answer stays the plug-in's.
void PluginSetProperty(void* ready, const char* name, const char* value);
const char* PluginGetProperty(void* ready, const char* name);
const char* PluginEnumProperty(void* ready, const char* first, const char* second);
int32_t PluginInvoke(void* ready, const char* command);

// Before the main loop: with a root (not null), a start from that root and
// the given configuration unless the plug-in runs already, then
// "WorkingDirectory" = root as given; then "Key" = key when key is not null.
void HandOverKey(const char* rootDirectory, const char* configPath, const char* key);
// After the window: "Key" = "", so the key is not left in the plug-in.
void ClearKey();
