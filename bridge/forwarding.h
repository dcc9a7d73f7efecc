// The host's one path to the plug-in.  With a null ready handle they do
// nothing, give null, give null, give 6.  An empty answer counts as null.
#pragma once

#include <cstdint>

void PluginSetProperty(void* ready, const char* name, const char* value);
const char* PluginGetProperty(void* ready, const char* name);  // the plug-in's own text
const char* PluginEnumProperty(void* ready, const char* first, const char* second);
int32_t PluginInvoke(void* ready, const char* command);
// The answer as the plug-in returned it (writable, the plug-in's), or null.
char* PluginGetPropertyWritable(void* ready, const char* name);
