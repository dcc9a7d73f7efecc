#include "native/plugin_session.h"

#include <cstring>

#include "native/library_manager.h"
#include "native/system_places.h"
#include "native/wrapper_plugin.h"

void* g_readyHandle = nullptr;

namespace {

char g_lazyRoot[256];
char g_lazyConfig[256];

bool IsEmpty(const char* text) { return text == nullptr || text[0] == '\0'; }

void CopyPath(char* out, const char* path) {
    out[0] = '\0';
    if (path != nullptr && strlen(path) < 256) memcpy(out, path, strlen(path) + 1);
}

void Start(const char* root, const char* configPath) {
    if (StartLibraries(nullptr,
                       IsEmpty(root) ? SystemPath(PLACE_LIBRARY_DIR) : root,
                       IsEmpty(configPath) ? SystemPath(PLACE_GLOBAL_CONFIG) : configPath,
                       nullptr,
                       0,
                       LOAD_PLUGIN) == KVO_OK) {
        g_readyHandle = &g_wrapperPlugin;
    }
}

CWrapperPlugin* Plugin(void* ready) { return static_cast<CWrapperPlugin*>(ready); }

const char* NullWhenEmpty(const char* answer) { return IsEmpty(answer) ? nullptr : answer; }

}  // namespace

void ConfigurePluginSession(const char* root, const char* configPath) {
    CopyPath(g_lazyRoot, root);
    CopyPath(g_lazyConfig, configPath);
}

void* GetReadyHandle() {
    if (g_readyHandle == nullptr) Start(g_lazyRoot, g_lazyConfig);
    return g_readyHandle;
}

void PluginSetProperty(void* ready, const char* name, const char* value) {
    if (ready != nullptr) Plugin(ready)->SetProperty(name, value);
}

const char* PluginGetProperty(void* ready, const char* name) {
    return ready != nullptr ? NullWhenEmpty(Plugin(ready)->GetProperty(name)) : nullptr;
}

const char* PluginEnumProperty(void* ready, const char* first, const char* second) {
    return ready != nullptr ? NullWhenEmpty(Plugin(ready)->EnumProperty(first, second)) : nullptr;
}

int32_t PluginInvoke(void* ready, const char* command) {
    return ready != nullptr ? Plugin(ready)->Invoke(command) : KVO_FUNCTION_FAILED;
}

void HandOverKey(const char* rootDirectory, const char* configPath, const char* key) {
    if (rootDirectory != nullptr) {
        // The entry point's root may differ from the lazy start's.
        if (g_readyHandle == nullptr) Start(rootDirectory, configPath);
        // The root as given: an empty one stays empty here.
        PluginSetProperty(g_readyHandle, "WorkingDirectory", rootDirectory);
    }
    if (key != nullptr) PluginSetProperty(GetReadyHandle(), "Key", key);
}

void ClearKey() { PluginSetProperty(GetReadyHandle(), "Key", ""); }
