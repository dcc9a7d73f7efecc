// A plug-in that answers the dialogs from a JSON file instead of a token, so
// that dialogs can be written and shown on any machine.  Every call is one
// line on stderr (and to the host's trace sink, when it gives one).
#include <dlfcn.h>
#include <glib.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "examples/scripted/answers.h"
#include "kavori/plugin.h"

namespace {

using kvo_scripted::Answers;

struct Instance {
    Answers answers;
    std::map<std::string, std::string> set;  // what the page wrote; wins over the file
    std::vector<char> result;                // the one string handed out, writable by the host
};

TraceCallback s_trace = nullptr;

void Log(const std::string& text) {
    std::string line = "kvo-scripted: " + text;
    if (s_trace) s_trace(line.c_str(), static_cast<int32_t>(line.size()));
    line += '\n';
    // One write per line, so that lines from the host and from us do not mix.
    size_t done = 0;
    while (done < line.size()) {
        ssize_t n = write(STDERR_FILENO, line.data() + done, line.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += static_cast<size_t>(n);
    }
}

// Keeps each call on one line whatever the strings hold.
std::string Quote(const char* text) {
    if (text == nullptr) return "null";
    std::string out = "\"";
    for (const char* p = text; *p; ++p) {
        unsigned char c = static_cast<unsigned char>(*p);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += *p;
        } else if (c == '\n') {
            out += "\\n";
        } else if (c < 0x20 || c == 0x7f) {
            char hex[8];
            snprintf(hex, sizeof hex, "\\x%02x", c);
            out += hex;
        } else {
            out += *p;
        }
    }
    return out + "\"";
}

// Dialogs pass the key and the PIN through SetProperty; those never reach a log.
bool IsSecret(const char* name) {
    return name && (g_ascii_strcasecmp(name, "Key") == 0 || g_ascii_strcasecmp(name, "PIN") == 0);
}

std::string Shown(const char* name, const char* value) {
    return value && IsSecret(name) ? "<hidden>" : Quote(value);
}

char* Hand(Instance* instance, const std::string* value) {
    if (value == nullptr) return nullptr;
    instance->result.assign(value->begin(), value->end());
    instance->result.push_back('\0');
    return instance->result.data();
}

// $KAVORI_ANSWERS, else answers.json next to this library.
std::string AnswersPath() {
    const char* chosen = getenv("KAVORI_ANSWERS");
    if (chosen && *chosen) {
        g_autofree gchar* path = g_canonicalize_filename(chosen, nullptr);
        return path;
    }
    Dl_info info = {};
    g_autofree gchar* directory = nullptr;
    if (dladdr(reinterpret_cast<void*>(&PlgInitialize), &info) && info.dli_fname) {
        directory = g_path_get_dirname(info.dli_fname);
    }
    g_autofree gchar* path = g_canonicalize_filename("answers.json", directory);
    return path;
}

}  // namespace

extern "C" {

KVO_PLUGIN_EXPORT intptr_t PlgSetTraceCallback(TraceCallback callback) {
    s_trace = callback;
    Log(std::string("PlgSetTraceCallback ") + (callback ? "(a sink)" : "null"));
    return 1;
}

KVO_PLUGIN_EXPORT intptr_t PlgInitialize(void*, void*, void*, void*, PlgInstance* handle) {
    if (handle == nullptr) {
        Log("PlgInitialize -> failed: nowhere to store the instance");
        return 0;
    }
    std::string path = AnswersPath();
    std::vector<std::string> problems;
    Instance* instance = new Instance{kvo_scripted::LoadAnswers(path, &problems), {}, {}};
    for (const std::string& problem : problems) Log(problem);
    *handle = instance;
    const Answers& a = instance->answers;
    Log("PlgInitialize -> answers from " + Quote(path.c_str()) + ": " + std::to_string(a.properties.size()) +
        " properties, " + std::to_string(a.enumerations.size()) + " enumerations, " +
        std::to_string(a.commands.size()) + " commands");
    return 1;
}

KVO_PLUGIN_EXPORT intptr_t PlgFinalize(PlgInstance handle) {
    delete static_cast<Instance*>(handle);
    Log("PlgFinalize");
    return 1;
}

// A null value forgets what the page set, so the file answers again.
KVO_PLUGIN_EXPORT intptr_t PlgSetProperty(PlgInstance handle, const char* name, const char* value) {
    Instance* instance = static_cast<Instance*>(handle);
    Log("SetProperty " + Quote(name) + " = " + Shown(name, value) +
        (instance ? "" : " (no instance, dropped)"));
    if (instance == nullptr || name == nullptr) return 0;
    if (value) {
        instance->set[name] = value;
    } else {
        instance->set.erase(name);
    }
    return 1;
}

KVO_PLUGIN_EXPORT char* PlgGetProperty(PlgInstance handle, const char* name) {
    Instance* instance = static_cast<Instance*>(handle);
    const std::string* value = nullptr;
    if (instance && name) {
        auto set = instance->set.find(name);
        auto file = instance->answers.properties.find(name);
        if (set != instance->set.end()) {
            value = &set->second;
        } else if (file != instance->answers.properties.end()) {
            value = &file->second;
        }
    }
    char* result = instance ? Hand(instance, value) : nullptr;
    Log("GetProperty " + Quote(name) + " -> " + Shown(name, result) + (instance ? "" : " (no instance)"));
    return result;
}

KVO_PLUGIN_EXPORT char* PlgEnumProperty(PlgInstance handle, const char* first, const char* second) {
    Instance* instance = static_cast<Instance*>(handle);
    const std::string* value = nullptr;
    if (instance && first && second) {
        auto table = instance->answers.enumerations.find(first);
        if (table != instance->answers.enumerations.end()) {
            auto entry = table->second.find(second);
            if (entry != table->second.end()) value = &entry->second;
        }
    }
    char* result = instance ? Hand(instance, value) : nullptr;
    Log("EnumProperty " + Quote(first) + " " + Quote(second) + " -> " + Quote(result) +
        (instance ? "" : " (no instance)"));
    return result;
}

// Only a command's first word is logged, and whether a key answered: the
// rest may be a PIN ("login 1234"), and stderr often ends up in a log file.
KVO_PLUGIN_EXPORT int32_t PlgInvoke(PlgInstance handle, const char* command) {
    Instance* instance = static_cast<Instance*>(handle);
    const std::string* key = nullptr;
    int32_t code = instance ? kvo_scripted::MatchCommand(instance->answers, command ? command : "", &key) : 0;
    std::string shown = command ? std::string(command, strcspn(command, " ")) : std::string();
    Log("Invoke " +
        (command ? Quote(shown.c_str()) + (shown.size() < strlen(command) ? " ..." : "") : "null") + " -> " +
        std::to_string(code) +
        (!instance                                    ? " (no instance)"
         : key && !key->empty() && key->back() == '*' ? " by " + Quote(key->c_str())
         : key                                        ? " (exact key)"
                                                      : std::string(" (no key matched)")));
    return code;
}

}  // extern "C"
