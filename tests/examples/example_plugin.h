// An example plug-in driven as the host drives it: loaded with dlopen, its
// seven exports bound, one instance; answers as text, "<null>" for null.
#pragma once

#include <dlfcn.h>

#include <string>

#include "kavori/plugin.h"

namespace kvotest {

class ExamplePlugin {
public:
    explicit ExamplePlugin(const char* file) : m_library(dlopen(file, RTLD_NOW | RTLD_LOCAL)) {}
    ~ExamplePlugin() {
        Stop();
        if (m_library) dlclose(m_library);
    }
    bool loaded() const { return initialize && finalize && set && get && enumerate && invoke && trace; }
    bool Start() {
        Stop();
        return initialize(nullptr, nullptr, nullptr, nullptr, &instance) != 0;
    }
    void Stop() {
        if (instance) finalize(instance);
        instance = nullptr;
    }
    void Set(const std::string& name, const char* value) { set(instance, name.c_str(), value); }
    std::string Get(const std::string& name) { return Text(get(instance, name.c_str())); }
    std::string Enum(const std::string& first, const std::string& second) {
        return Text(enumerate(instance, first.c_str(), second.c_str()));
    }
    int32_t Invoke(const std::string& command) { return invoke(instance, command.c_str()); }

private:
    void* m_library;
    template <typename F>
    F Bound(const char* name) const {
        return m_library ? reinterpret_cast<F>(dlsym(m_library, name)) : nullptr;
    }
    static std::string Text(const char* answer) { return answer ? answer : "<null>"; }

public:
    PlgInstance instance = nullptr;
    PFN_PlgInitialize initialize = Bound<PFN_PlgInitialize>("PlgInitialize");
    PFN_PlgFinalize finalize = Bound<PFN_PlgFinalize>("PlgFinalize");
    PFN_PlgSetProperty set = Bound<PFN_PlgSetProperty>("PlgSetProperty");
    PFN_PlgGetProperty get = Bound<PFN_PlgGetProperty>("PlgGetProperty");
    PFN_PlgEnumProperty enumerate = Bound<PFN_PlgEnumProperty>("PlgEnumProperty");
    PFN_PlgInvoke invoke = Bound<PFN_PlgInvoke>("PlgInvoke");
    PFN_PlgSetTraceCallback trace = Bound<PFN_PlgSetTraceCallback>("PlgSetTraceCallback");
};

}  // namespace kvotest
