#include "examples/scripted/answers.h"

#include <json-glib/json-glib.h>

#include <cstdio>
#include <cstring>

namespace kvo_scripted {

namespace {

// "line:column" of a byte offset, both counted from 1, columns in bytes as
// json-glib counts them, so every position we print reads the same way.
std::string PositionOf(const std::string& text, size_t offset) {
    size_t line = 1, lineStart = 0;
    for (size_t i = 0; i < offset && i < text.size(); ++i) {
        if (text[i] == '\n') {
            ++line;
            lineStart = i + 1;
        }
    }
    return std::to_string(line) + ":" + std::to_string(offset - lineStart + 1);
}

// json-glib says "<data>:LINE:COLUMN: what"; we put the file name in front
// instead of "<data>" so that editors can jump to it.
std::string ParseProblem(const std::string& path, const char* message) {
    unsigned line = 0, column = 0;
    int consumed = 0;
    if (sscanf(message, "<data>:%u:%u: %n", &line, &column, &consumed) == 2 && consumed > 0) {
        return path + ":" + std::to_string(line) + ":" + std::to_string(column) + ": " + (message + consumed);
    }
    return path + ": " + message;
}

std::string Quoted(const std::string& text) { return "\"" + text + "\""; }

// Strings answer as they are.  Numbers and booleans answer their JSON text
// ("42", "true"), so a file can say 3 where the page reads "3"; null is the
// same as a missing entry.  Objects and arrays cannot be one answer.
bool TextOf(JsonNode* node, std::string* text, const std::string& where, std::vector<std::string>* problems) {
    if (JSON_NODE_HOLDS_NULL(node)) return false;
    if (!JSON_NODE_HOLDS_VALUE(node)) {
        problems->push_back(where + ": an object or array is no answer, ignored");
        return false;
    }
    if (json_node_get_value_type(node) == G_TYPE_STRING) {
        *text = json_node_get_string(node);
    } else {
        g_autofree gchar* json = json_to_string(node, FALSE);
        *text = json;
    }
    return true;
}

JsonObject* TableOf(JsonNode* node, const std::string& where, std::vector<std::string>* problems) {
    if (JSON_NODE_HOLDS_OBJECT(node)) return json_node_get_object(node);
    problems->push_back(where + ": not an object, ignored");
    return nullptr;
}

void ReadProperties(JsonObject* table, const std::string& where, std::map<std::string, std::string>* out,
                    std::vector<std::string>* problems) {
    JsonObjectIter iter;
    const gchar* name;
    JsonNode* node;
    json_object_iter_init(&iter, table);
    while (json_object_iter_next(&iter, &name, &node)) {
        std::string text;
        if (TextOf(node, &text, where + "." + Quoted(name), problems)) (*out)[name] = text;
    }
}

void ReadEnumerations(JsonObject* table, const std::string& where,
                      std::map<std::string, std::map<std::string, std::string>>* out,
                      std::vector<std::string>* problems) {
    JsonObjectIter iter;
    const gchar* first;
    JsonNode* node;
    json_object_iter_init(&iter, table);
    while (json_object_iter_next(&iter, &first, &node)) {
        std::string at = where + "." + Quoted(first);
        if (JsonObject* second = TableOf(node, at, problems))
            ReadProperties(second, at, &(*out)[first], problems);
    }
}

void ReadCommands(JsonObject* table, const std::string& where, std::map<std::string, int32_t>* out,
                  std::vector<std::string>* problems) {
    JsonObjectIter iter;
    const gchar* command;
    JsonNode* node;
    json_object_iter_init(&iter, table);
    while (json_object_iter_next(&iter, &command, &node)) {
        // The page receives a signed 32-bit code; anything else would reach it
        // changed, so it is refused here where the author can see why.
        bool integer = JSON_NODE_HOLDS_VALUE(node) && json_node_get_value_type(node) == G_TYPE_INT64;
        gint64 code = integer ? json_node_get_int(node) : 0;
        if (!integer || code < INT32_MIN || code > INT32_MAX) {
            problems->push_back(where + "." + Quoted(command) + ": not a 32-bit integer, ignored");
            continue;
        }
        (*out)[command] = static_cast<int32_t>(code);
    }
}

}  // namespace

Answers LoadAnswers(const std::string& path, std::vector<std::string>* problems) {
    Answers answers;
    const std::string empty = "; answering as if every table were empty";
    g_autofree gchar* contents = nullptr;
    gsize length = 0;
    g_autoptr(GError) error = nullptr;
    if (!g_file_get_contents(path.c_str(), &contents, &length, &error)) {
        problems->push_back(path + ": cannot read the answers: " + error->message + empty);
        return answers;
    }
    std::string text(contents, length);
    // json-glib names no position for bad UTF-8 (nor for a NUL byte, which it
    // would silently end the text at), so find it here.
    const gchar* bad = nullptr;
    if (!g_utf8_validate(contents, static_cast<gssize>(length), &bad)) {
        problems->push_back(path + ":" + PositionOf(text, static_cast<size_t>(bad - contents)) +
                            ": not valid UTF-8" + empty);
        return answers;
    }
    g_autoptr(JsonParser) parser = json_parser_new();
    if (!json_parser_load_from_data(parser, contents, static_cast<gssize>(length), &error)) {
        problems->push_back(ParseProblem(path, error->message) + empty);
        return answers;
    }
    JsonNode* root = json_parser_get_root(parser);
    if (root == nullptr || !JSON_NODE_HOLDS_OBJECT(root)) {
        size_t start = text.compare(0, 3, "\xEF\xBB\xBF") == 0 ? 3 : 0;
        start = text.find_first_not_of(" \t\r\n", start);
        if (start == std::string::npos) start = text.size();
        problems->push_back(path + ":" + PositionOf(text, start) + ": " +
                            (root ? "the top level is not an object" : "no JSON value in the file") + empty);
        return answers;
    }

    JsonObjectIter iter;
    const gchar* name;
    JsonNode* node;
    json_object_iter_init(&iter, json_node_get_object(root));
    while (json_object_iter_next(&iter, &name, &node)) {
        std::string where = path + ": " + Quoted(name);
        if (strcmp(name, "GetProperty") == 0) {
            if (JsonObject* table = TableOf(node, where, problems)) {
                ReadProperties(table, where, &answers.properties, problems);
            }
        } else if (strcmp(name, "EnumProperty") == 0) {
            if (JsonObject* table = TableOf(node, where, problems)) {
                ReadEnumerations(table, where, &answers.enumerations, problems);
            }
        } else if (strcmp(name, "Invoke") == 0) {
            if (JsonObject* table = TableOf(node, where, problems)) {
                ReadCommands(table, where, &answers.commands, problems);
            }
        } else {
            // Most likely a misspelt table name; silence would hide every answer in it.
            problems->push_back(where + ": unknown table, ignored");
        }
    }
    return answers;
}

int32_t MatchCommand(const Answers& answers, const std::string& command, const std::string** key) {
    *key = nullptr;
    auto exact = answers.commands.find(command);
    if (exact != answers.commands.end()) {
        *key = &exact->first;
        return exact->second;
    }
    for (const auto& entry : answers.commands) {
        const std::string& pattern = entry.first;
        if (pattern.empty() || pattern.back() != '*') continue;
        if (*key && (*key)->size() >= pattern.size()) continue;
        if (command.compare(0, pattern.size() - 1, pattern, 0, pattern.size() - 1) == 0) *key = &pattern;
    }
    return *key ? answers.commands.at(**key) : 0;
}

}  // namespace kvo_scripted
