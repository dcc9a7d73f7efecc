#include "tests/examples/soft_token.h"

#include <sys/stat.h>

namespace kvotest {

const char kSoftHsmModule[] = "/usr/lib/softhsm/libsofthsm2.so";

SoftTokens::SoftTokens() {
    if (!FileExists(kSoftHsmModule) || !FileExists("/usr/bin/softhsm2-util")) SkipTest("SoftHSM2 is not installed");
    std::string tokens = m_dir.file("tokens");
    mkdir(tokens.c_str(), 0700);
    m_config = m_dir.file("softhsm2.conf");
    WriteFile(m_config, "directories.tokendir = " + tokens + "\nobjectstore.backend = file\nlog.level = ERROR\n");
}

std::string SoftTokens::Add(const std::string& label, const std::string& userPin) {
    std::string out;
    int status = RunProcess({"/usr/bin/softhsm2-util", "--init-token", "--free", "--label", label, "--pin", userPin,
                             "--so-pin", "12345678"},
                            {Env()}, 30000, &out);
    if (status != 0) return "";
    // "... is reassigned to slot N"; the serial comes from the slot listing.
    status = RunProcess({"/usr/bin/softhsm2-util", "--show-slots"}, {Env()}, 30000, &out);
    if (status != 0) return "";
    std::string serial;
    size_t at = 0;
    while ((at = out.find("Serial number:", at)) != std::string::npos) {
        at += 14;
        size_t begin = out.find_first_not_of(' ', at);
        size_t end = out.find('\n', at);
        std::string candidate = begin < end ? out.substr(begin, end - begin) : "";
        while (!candidate.empty() && candidate.back() == ' ') candidate.pop_back();
        size_t labelAt = out.find("Label:", at);
        size_t labelEnd = labelAt == std::string::npos ? labelAt : out.find('\n', labelAt);
        std::string found = labelAt == std::string::npos ? "" : out.substr(labelAt + 6, labelEnd - labelAt - 6);
        if (!candidate.empty() && found.find(" " + label + " ") != std::string::npos) serial = candidate;
    }
    return serial;
}

std::string SoftTokens::FlagsOf(const std::string& serial) const {
    std::string out;
    if (RunProcess({"/usr/bin/pkcs11-tool", "--module", kSoftHsmModule, "--list-token-slots"}, {Env()}, 30000, &out) !=
        0) {
        return "";
    }
    size_t serialAt = out.find("serial num         : " + serial);
    if (serialAt == std::string::npos) return "";
    size_t slotStart = out.rfind("Slot ", serialAt);
    size_t flags = out.find("token flags", slotStart);
    if (flags == std::string::npos || flags > serialAt) return "";
    return out.substr(flags, out.find('\n', flags) - flags);
}

std::vector<std::string> LinesWith(const std::string& path, const std::string& text) {
    std::vector<std::string> found;
    for (const std::string& line : ReadLines(path)) {
        if (line.find(text) != std::string::npos) found.push_back(line);
    }
    return found;
}

}  // namespace kvotest
