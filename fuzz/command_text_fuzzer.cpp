// The configured command text and start-URL prefix come from the plug-in:
// SplitCommandText, JoinArgumentVectors, RedirectCommandLine and
// ResolveStartUrl on any text.  Input: the configured text, NUL, the start
// URL, NUL, then the received arguments (NUL-separated).
#include <cstring>

#include "app/paths.h"
#include "app/start_url.h"
#include "bridge/forwarding.h"
#include "fuzz_check.h"

// The plug-in as start_url.cpp sees it: answers from the current input.
namespace {
std::string g_commandText;
std::string g_prefix;
int g_ready;
}  // namespace

void* GetReadyHandle() { return &g_ready; }
const char* PluginGetProperty(void*, const char* name) {
    if (strcmp(name, "ConfigGlobal:Command:App") == 0) return g_commandText.c_str();
    if (strcmp(name, "ConfigGlobal:Dialog:PathResource") == 0) return g_prefix.c_str();
    return nullptr;
}

namespace {

// The words as documented: blanks separate, a word that begins with a
// double quote runs to the next one (or the end) and may hold blanks;
// blanks alone give one empty word, the empty text none.
std::vector<std::string> ExpectedWords(const std::string& text) {
    std::vector<std::string> words;
    if (text.empty()) return words;
    size_t at = text.find_first_not_of(' ');
    if (at == std::string::npos) at = text.size();
    do {
        size_t end;
        if (at < text.size() && text[at] == '"') {
            end = text.find('"', at + 1);
            if (end == std::string::npos) end = text.size();
            words.push_back(text.substr(at + 1, end - at - 1));
            if (end < text.size()) ++end;
        } else {
            end = text.find(' ', at);
            if (end == std::string::npos) end = text.size();
            words.push_back(text.substr(at, end - at));
        }
        at = text.find_first_not_of(' ', end);
        if (at == std::string::npos) at = text.size();
    } while (at < text.size());
    return words;
}

size_t Length(char** vector) {
    size_t n = 0;
    while (vector[n]) ++n;
    return n;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<std::string> pieces = SplitAtNul(data, size);
    g_commandText = pieces[0];
    std::string url = pieces.size() > 1 ? pieces[1] : std::string();
    g_prefix = pieces.size() > 2 ? pieces[2] : std::string();
    std::vector<std::string> received(pieces.begin() + (pieces.size() > 3 ? 3 : pieces.size()), pieces.end());

    int32_t count = -1;
    char** words = SplitCommandText(g_commandText.c_str(), &count);
    std::vector<std::string> expected = ExpectedWords(g_commandText);
    FUZZ_CHECK(count == static_cast<int32_t>(expected.size()));
    FUZZ_CHECK(words[count] == nullptr);
    for (int32_t i = 0; i < count; ++i) FUZZ_CHECK(expected[static_cast<size_t>(i)] == words[i]);

    std::vector<char*> argv;
    for (std::string& r : received) argv.push_back(&r[0]);
    int32_t argc = static_cast<int32_t>(argv.size());
    char** joined = JoinArgumentVectors(argv.data(), argc, words, count);
    FUZZ_CHECK(Length(joined) == argv.size() + static_cast<size_t>(count));
    for (int32_t i = 0; i < argc; ++i) FUZZ_CHECK(received[static_cast<size_t>(i)] == joined[i]);
    for (int32_t i = 0; i < count; ++i) FUZZ_CHECK(expected[static_cast<size_t>(i)] == joined[argc + i]);
    FreeArgumentVector(joined);
    FreeArgumentVector(words);

    // The same through the host's own road, with the count it works with.
    int32_t redirectedCount = argc;
    char** redirected = RedirectCommandLine(argv.data(), &redirectedCount);
    if (g_commandText.empty()) {
        FUZZ_CHECK(redirected == nullptr && redirectedCount == argc);
    } else {
        FUZZ_CHECK(redirected != nullptr);
        FUZZ_CHECK(redirectedCount == argc + static_cast<int32_t>(expected.size()));
        FUZZ_CHECK(Length(redirected) == static_cast<size_t>(redirectedCount));
        FreeArgumentVector(redirected);
    }

    const char* resolved = ResolveStartUrl(url.c_str());
    if (url.find("://") != std::string::npos || g_prefix.empty()) {
        FUZZ_CHECK(resolved == url.c_str());
    } else {
        FUZZ_CHECK(g_prefix + url == resolved);
        delete[] resolved;  // the host keeps it for the run; here it would pile up
    }
    return 0;
}
