// Argument vectors, HOME and the saved command line for the unit tests of
// the application shell.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "app/host_state.h"
#include "app/start_url.h"
#include "tests/support/support.h"

namespace kvotest {

// Owns the texts; argv() is null-terminated like a process's vector.
class Argv {
public:
    Argv(std::initializer_list<std::string> args) : Argv(std::vector<std::string>(args)) {}
    explicit Argv(std::vector<std::string> args) : m_text(std::move(args)) {
        for (std::string& text : m_text) m_pointers.push_back(&text[0]);
        m_pointers.push_back(nullptr);
    }
    Argv(const Argv&) = delete;  // the pointers refer to this object's texts
    int32_t argc() const { return static_cast<int32_t>(m_text.size()); }
    char** argv() { return m_pointers.data(); }

private:
    std::vector<std::string> m_text;
    std::vector<char*> m_pointers;
};

// HOME (a directory of the test process's own) and a path below it.
inline std::string Home(const std::string& below = "") { return getenv("HOME") + below; }

// Makes args the saved command line, as the entry point does.
inline void SaveArgs(std::initializer_list<std::string> args) {
    FreeArgumentVector(g_argv);
    Argv vector(args);
    SaveCommandLine(vector.argc(), vector.argv());
}

}  // namespace kvotest
