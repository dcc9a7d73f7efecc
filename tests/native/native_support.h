// Shared pieces of the native-library tests: fixture locations, a directory
// that stands in for the library root, SoftHSM2 set up in a temp directory,
// and a trace sink that keeps what it receives.
#pragma once

#include <dlfcn.h>
#include <p11-kit/pkcs11.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "tests/support/support.h"

namespace kvotest {

inline std::string PluginDir(const std::string& variant) { return FixtureDir() + "/plugins/" + variant + "/"; }
inline std::string ModuleDir(const std::string& variant) { return FixtureDir() + "/modules/" + variant + "/"; }
inline std::string PluginFile(const std::string& variant) { return PluginDir(variant) + "libkvo.so"; }
inline std::string ModuleFile(const std::string& variant) { return ModuleDir(variant) + "libkvop11.so"; }

constexpr const char* kSoftHsmModule = "/usr/lib/softhsm/libsofthsm2.so";

// A library directory assembled from symlinks; path() ends in "/".
class LibraryRoot {
public:
    std::string path() const { return m_dir.path() + "/"; }
    void Module(const std::string& target) { Link(target, "libkvop11.so"); }
    void Plugin(const std::string& target) { Link(target, "libkvo.so"); }
    void Link(const std::string& target, const std::string& name) {
        if (symlink(target.c_str(), m_dir.file(name).c_str()) != 0) abort();
    }

private:
    TempDir m_dir;
};

// SoftHSM2 reached as libkvop11.so, with its tokens in a temp directory.
// Skips the test when SoftHSM2 is not installed.
class SoftHsm : public LibraryRoot {
public:
    SoftHsm() {
        if (access(kSoftHsmModule, R_OK) != 0) SkipTest("SoftHSM2 is not installed");
        std::string tokens = m_state.file("tokens");
        std::string conf = m_state.file("softhsm2.conf");
        mkdir(tokens.c_str(), 0700);
        WriteFile(conf, "directories.tokendir = " + tokens + "\nobjectstore.backend = file\nlog.level = ERROR\n");
        setenv("SOFTHSM2_CONF", conf.c_str(), 1);
        Module(kSoftHsmModule);
    }
    // Asks the module itself, past the wrapper, whether it is initialised:
    // CKR_OK when it is, CKR_CRYPTOKI_NOT_INITIALIZED when not.
    static CK_RV ModuleState() {
        CK_FUNCTION_LIST_PTR list = DirectList();
        CK_INFO info;
        return list->C_GetInfo(&info);
    }
    static CK_FUNCTION_LIST_PTR DirectList() {
        void* handle = dlopen(kSoftHsmModule, RTLD_NOW);
        auto get = reinterpret_cast<CK_C_GetFunctionList>(dlsym(handle, "C_GetFunctionList"));
        CK_FUNCTION_LIST_PTR list = nullptr;
        get(&list);
        return list;
    }

private:
    TempDir m_state;
};

// Points the test libraries' call records at a file of this test.
class CallRecord {
public:
    CallRecord() { setenv("KVO_TEST_RECORD", m_dir.file("record").c_str(), 1); }
    ~CallRecord() { unsetenv("KVO_TEST_RECORD"); }
    std::string file() const { return m_dir.file("record"); }
    std::vector<std::string> Lines() const { return ReadLines(file()); }

private:
    TempDir m_dir;
};

// The lines that reached the trace sink, with the lengths given.
inline std::vector<std::string>& SinkLines() {
    static std::vector<std::string> lines;
    return lines;
}
inline void CaptureSink(const char* text, int32_t length) {
    SinkLines().push_back(std::string(text, static_cast<size_t>(length)));
}

}  // namespace kvotest
