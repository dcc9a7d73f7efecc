// Argument vectors for the option and path tests.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <initializer_list>
#include <string>
#include <vector>

#include "app/host_state.h"
#include "app/start_url.h"
#include "tests/support/support.h"

namespace kvotest {

// Owns the texts; argv() is null-terminated like a process's vector.
class Argv {
public:
    Argv(std::initializer_list<std::string> args) : m_text(args) {
        for (std::string& text : m_text) m_pointers.push_back(&text[0]);
        m_pointers.push_back(nullptr);
    }
    Argv(const Argv&) = delete;  // the pointers refer to this object's texts
    Argv& operator=(const Argv&) = delete;
    int32_t argc() const { return static_cast<int32_t>(m_text.size()); }
    char** argv() { return m_pointers.data(); }

private:
    std::vector<std::string> m_text;
    std::vector<char*> m_pointers;
};

// A HOME of its own for one test, and the working directory put back
// afterwards, so the tests also run one after another in one process.
class FreshHome {
public:
    FreshHome() {
        const char* home = getenv("HOME");
        m_hadHome = home != nullptr;
        if (m_hadHome) m_previousHome = home;
        if (getcwd(m_cwd, sizeof m_cwd) == nullptr) m_cwd[0] = '\0';
        setenv("HOME", m_home.path().c_str(), 1);
    }
    ~FreshHome() {
        if (m_hadHome) {
            setenv("HOME", m_previousHome.c_str(), 1);
        } else {
            unsetenv("HOME");
        }
        if (m_cwd[0] != '\0' && chdir(m_cwd) != 0) abort();
    }
    FreshHome(const FreshHome&) = delete;
    FreshHome& operator=(const FreshHome&) = delete;
    const std::string& path() const { return m_home.path(); }

private:
    TempDir m_home;
    std::string m_previousHome;
    bool m_hadHome = false;
    char m_cwd[4096];
};

// Makes args the saved command line, as the entry point does.  The host
// saves once and keeps it; a test saving again releases the one before.
inline void SaveArgs(std::initializer_list<std::string> args) {
    FreeArgumentVector(g_argv);
    g_argv = nullptr;
    g_argc = 0;
    Argv vector(args);
    SaveCommandLine(vector.argc(), vector.argv());
}

}  // namespace kvotest
