// An argument vector as a process receives it, owning its texts.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "app/host_state.h"
#include "app/start_url.h"
#include "tests/support/support.h"

namespace kvotest {

struct Argv {
    explicit Argv(std::vector<std::string> args) : text(std::move(args)) {
        for (std::string& word : text) pointers.push_back(&word[0]);
        pointers.push_back(nullptr);
    }
    Argv(std::initializer_list<std::string> args) : Argv(std::vector<std::string>(args)) {}
    Argv(const Argv&) = delete;  // the pointers refer to this object's texts
    int32_t argc() const { return static_cast<int32_t>(text.size()); }
    char** argv() { return pointers.data(); }
    std::vector<std::string> text;
    std::vector<char*> pointers;
};

// Makes args the saved command line, as the entry point does.
inline void SaveArgs(const std::vector<std::string>& args) {
    FreeArgumentVector(g_argv);
    Argv vector(args);
    SaveCommandLine(vector.argc(), vector.argv());
}

}  // namespace kvotest
