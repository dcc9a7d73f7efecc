#include "app/start_url.h"

#include <glib.h>
#include <sys/stat.h>

#include <cstring>

#include "app/host_state.h"
#include "native/plugin_session.h"

namespace {

const char* SkipBlanks(const char* p) {
    while (*p == ' ') ++p;
    return p;
}

// Reads the word at p: sets its start and length and returns where the
// next word may begin (past the closing quote and the blanks after it).
const char* ReadWord(const char* p, const char** start, size_t* length) {
    const char* end;
    if (*p == '"') {
        // No escapes: the word ends at the next quote or with the text.
        *start = p + 1;
        end = strchr(*start, '"');
        if (end == nullptr) end = *start + strlen(*start);
        *length = static_cast<size_t>(end - *start);
        if (*end == '"') ++end;
    } else {
        *start = p;
        end = strchr(p, ' ');
        if (end == nullptr) end = p + strlen(p);
        *length = static_cast<size_t>(end - p);
    }
    return SkipBlanks(end);
}

// Visits every word of text; gives the number of words.  The first word is
// read even at the end of the text, so blanks alone give one empty word.
template <typename Visit>
int32_t ForEachWord(const char* text, Visit visit) {
    if (text == nullptr || text[0] == '\0') return 0;
    int32_t count = 0;
    const char* p = SkipBlanks(text);
    do {
        const char* start;
        size_t length;
        p = ReadWord(p, &start, &length);
        visit(count, start, length);
        ++count;
    } while (*p != '\0');
    return count;
}

}  // namespace

const char* ResolveStartUrl(const char* url) {
    if (url == nullptr || strstr(url, "://") != nullptr) return url;
    const char* prefix = PluginGetProperty(GetReadyHandle(), "ConfigGlobal:Dialog:PathResource");
    if (prefix == nullptr || prefix[0] == '\0') return url;
    // Joined as they are: the configuration decides whether a '/' is between.
    size_t prefixLength = strlen(prefix);
    size_t urlLength = strlen(url);
    char* resolved = new char[prefixLength + urlLength + 1];
    memcpy(resolved, prefix, prefixLength);
    memcpy(resolved + prefixLength, url, urlLength + 1);
    return resolved;  // the start URL for the whole run, never freed
}

const char* FileUrlForLocalPath(const char* url) {
    if (!url || !url[0] || strstr(url, "://")) return url;
    struct stat st;
    if (stat(url, &st) != 0 || !S_ISREG(st.st_mode)) return url;
    // Absolute but not resolved: a page reached through a symlink finds its
    // relative resources beside the link.
    gchar* absolute = g_canonicalize_filename(url, nullptr);
    gchar* uri = g_filename_to_uri(absolute, nullptr, nullptr);
    g_free(absolute);
    if (!uri) return url;
    char* copy = CopyText(uri, strlen(uri));  // lives as long as the start URL: never freed
    g_free(uri);
    return copy;
}

char** RedirectCommandLine(char** argv, int32_t* argc) {
    if (argc == nullptr) return nullptr;
    const char* command = PluginGetProperty(GetReadyHandle(), "ConfigGlobal:Command:App");
    if (command == nullptr || command[0] == '\0') return nullptr;
    int32_t wordCount = 0;
    char** words = SplitCommandText(command, &wordCount);
    // The received arguments come first, so the real command line wins
    // over the configured one in every lookup.
    char** joined = JoinArgumentVectors(argv, *argc, words, wordCount);
    *argc += wordCount;
    FreeArgumentVector(words);
    return joined;
}

char** SplitCommandText(const char* text, int32_t* count) {
    int32_t words = ForEachWord(text, [](int32_t, const char*, size_t) {});
    char** vector = new char*[static_cast<size_t>(words) + 1];
    ForEachWord(text, [vector](int32_t index, const char* start, size_t length) {
        vector[index] = CopyText(start, length);
    });
    vector[words] = nullptr;
    if (count != nullptr) *count = words;
    return vector;
}

char** JoinArgumentVectors(char** first, int32_t firstCount, char** second, int32_t secondCount) {
    if (first == nullptr || firstCount < 0) firstCount = 0;
    if (second == nullptr || secondCount < 0) secondCount = 0;
    char** vector = new char*[static_cast<size_t>(firstCount) + static_cast<size_t>(secondCount) + 1];
    size_t next = 0;
    // A null entry inside a count becomes "": the vector ends at its first null.
    for (int32_t i = 0; i < firstCount; ++i) {
        const char* text = first[i] != nullptr ? first[i] : "";
        vector[next++] = CopyText(text, strlen(text));
    }
    for (int32_t i = 0; i < secondCount; ++i) {
        const char* text = second[i] != nullptr ? second[i] : "";
        vector[next++] = CopyText(text, strlen(text));
    }
    vector[next] = nullptr;
    return vector;
}

void FreeArgumentVector(char** vector) {
    if (vector == nullptr) return;
    for (char** entry = vector; *entry != nullptr; ++entry) delete[] * entry;
    delete[] vector;
}
