// SplitCommandText, JoinArgumentVectors, RedirectCommandLine and
// ResolveStartUrl on the plug-in's configuration and the received arguments.
// Input, NUL-separated: command text, start URL, URL prefix, arguments.
#include "app/start_url.h"
#include "fuzz_check.h"
#include "native/plugin_session.h"

// The plug-in as start_url.cpp sees it: answers from the current input.
static std::string g_commandText, g_prefix;
void* GetReadyHandle() { return &g_commandText; }
const char* PluginGetProperty(void*, const char* name) {
    return strcmp(name, "ConfigGlobal:Command:App") == 0 ? g_commandText.c_str() : g_prefix.c_str();
}

// Blanks separate; a word that begins with '"' runs to the next '"' (or the
// end) and may hold blanks; blanks alone give one empty word.
static std::vector<std::string> ExpectedWords(const std::string& text) {
    size_t at = text.find_first_not_of(' ');
    std::vector<std::string> words(at == std::string::npos && !text.empty() ? 1 : 0);
    while (at != std::string::npos) {
        size_t quoted = text[at] == '"';
        size_t end = std::min(text.find(quoted ? '"' : ' ', at + quoted), text.size());
        words.push_back(text.substr(at + quoted, end - at - quoted));
        at = text.find_first_not_of(' ', end + quoted);
    }
    return words;
}

// The entries up to the null one; the vector is freed.
static std::vector<std::string> Take(char** vector) {
    std::vector<std::string> entries;
    for (char** entry = vector; entry && *entry; ++entry) entries.emplace_back(*entry);
    FreeArgumentVector(vector);
    return entries;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<std::string> pieces = SplitAtNul(data, size, 3);
    g_commandText = pieces[0];
    g_prefix = pieces[2];
    std::vector<char*> argv;
    for (size_t i = 3; i < pieces.size(); ++i) argv.push_back(&pieces[i][0]);
    int32_t argc = static_cast<int32_t>(argv.size()), count = -1;
    std::vector<std::string> words = ExpectedWords(g_commandText), all(pieces.begin() + 3, pieces.end());
    all.insert(all.end(), words.begin(), words.end());

    char** split = SplitCommandText(g_commandText.c_str(), &count);
    FUZZ_CHECK(Take(JoinArgumentVectors(argv.data(), argc, split, count)) == all);
    FUZZ_CHECK(count == static_cast<int32_t>(words.size()) && Take(split) == words);
    // Nothing configured: nothing added and the count unchanged.
    int32_t redirected = argc;
    FUZZ_CHECK(Take(RedirectCommandLine(argv.data(), &redirected)) == (words.empty() ? words : all));
    FUZZ_CHECK(redirected == (words.empty() ? argc : static_cast<int32_t>(all.size())));

    const std::string& url = pieces[1];
    bool kept = url.find("://") != std::string::npos || g_prefix.empty();
    const char* resolved = ResolveStartUrl(url.c_str());
    FUZZ_CHECK(kept ? resolved == url.c_str() : g_prefix + url == resolved);
    if (!kept) delete[] resolved;  // the host keeps it for the run; here it would pile up
    return 0;
}
