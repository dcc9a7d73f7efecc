#include "bridge/forwarding.h"

#include "native/wrapper_plugin.h"

namespace {

const char* NullWhenEmpty(const char* answer) { return answer && answer[0] ? answer : nullptr; }

}  // namespace

void PluginSetProperty(void* ready, const char* name, const char* value) {
    if (ready) g_wrapperPlugin.SetProperty(name, value);
}

const char* PluginGetProperty(void* ready, const char* name) { return PluginGetPropertyWritable(ready, name); }

char* PluginGetPropertyWritable(void* ready, const char* name) {
    if (!ready) return nullptr;
    char* answer = g_wrapperPlugin.GetProperty(name);
    return answer && answer[0] ? answer : nullptr;
}

const char* PluginEnumProperty(void* ready, const char* first, const char* second) {
    return ready ? NullWhenEmpty(g_wrapperPlugin.EnumProperty(first, second)) : nullptr;
}

int32_t PluginInvoke(void* ready, const char* command) { return ready ? g_wrapperPlugin.Invoke(command) : 6; }
