// Throwaway SoftHSM2 tokens for the demo's tests: a configuration and a
// token directory of their own, removed with the object.
#pragma once

#include <string>
#include <vector>

#include "tests/support/support.h"

namespace kvotest {

extern const char kSoftHsmModule[];

class SoftTokens {
public:
    SoftTokens();  // skips the test when SoftHSM2 is not installed
    // Initialises a token with the given label and user PIN (SO PIN
    // "12345678"); its serial number, or "" on failure.
    std::string Add(const std::string& label, const std::string& userPin);
    const std::string& config() const { return m_config; }
    // "SOFTHSM2_CONF=..." for processes that use the tokens.
    std::string Env() const { return "SOFTHSM2_CONF=" + m_config; }
    // The token flags as pkcs11-tool prints them, read by a process of its
    // own: what the token itself has stored.
    std::string FlagsOf(const std::string& serial) const;

private:
    TempDir m_dir;
    std::string m_config;
};

// Lines of a file that contain the text.
std::vector<std::string> LinesWith(const std::string& path, const std::string& text);

}  // namespace kvotest
