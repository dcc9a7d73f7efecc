// Throwaway SoftHSM2 tokens for the demo's tests: a configuration and token
// directory of their own, named in SOFTHSM2_CONF for the test and its children.
#pragma once

#include <sys/stat.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "tests/support/support.h"

namespace kvotest {

const char kSoftHsmModule[] = "/usr/lib/softhsm/libsofthsm2.so";

class SoftTokens {
public:
    SoftTokens() {
        for (const char* file : {kSoftHsmModule, "/usr/bin/softhsm2-util", "/usr/bin/pkcs11-tool"}) {
            if (!FileExists(file)) SkipTest(std::string(file) + " is not installed");
        }
        mkdir(m_dir.file("tokens").c_str(), 0700);
        WriteFile(m_dir.file("conf"), "directories.tokendir = " + m_dir.file("tokens") + "\nlog.level = ERROR\n");
        setenv("SOFTHSM2_CONF", m_dir.file("conf").c_str(), 1);
    }
    // A token with this label and user PIN (SO PIN "12345678"); its serial number.
    std::string Add(const std::string& label, const std::string& userPin) {
        RunProcess({"/usr/bin/softhsm2-util", "--init-token", "--free", "--label", label, "--pin", userPin, "--so-pin",
                    "12345678"},
                   {}, 30000);
        return Field("token label", label, "serial num");
    }
    // A field of the token whose field key is value, as pkcs11-tool lists it
    // from a process of its own: what the token itself holds.
    std::string Field(const std::string& key, const std::string& value, const std::string& wanted) const {
        std::string out;
        RunProcess({"/usr/bin/pkcs11-tool", "--module", kSoftHsmModule, "--list-token-slots"}, {}, 30000, &out);
        auto label = [](const std::string& name) { return "  " + name + std::string(19 - name.size(), ' ') + ": "; };
        size_t at = out.find(label(key) + value + "\n");
        if (at == std::string::npos) return "";
        std::string slot = out.substr(out.rfind("Slot ", at), out.find("\nSlot ", at) - out.rfind("Slot ", at)) + "\n";
        size_t field = slot.find(label(wanted));
        if (field == std::string::npos) return "";
        field += label(wanted).size();
        return slot.substr(field, slot.find('\n', field) - field);
    }

private:
    TempDir m_dir;
};

// The lines of a file that contain the text.
inline std::vector<std::string> LinesWith(const std::string& path, const std::string& text) {
    std::vector<std::string> found;
    for (const std::string& line : ReadLines(path)) {
        if (line.find(text) != std::string::npos) found.push_back(line);
    }
    return found;
}

}  // namespace kvotest
