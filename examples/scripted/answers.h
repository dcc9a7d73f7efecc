// The answers of the scripted plug-in: three tables read from a JSON file.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace kvo_scripted {

struct Answers {
    std::map<std::string, std::string> properties;                           // "GetProperty"
    std::map<std::string, std::map<std::string, std::string>> enumerations;  // "EnumProperty"
    std::map<std::string, int32_t> commands;                                 // "Invoke"
};

// Reads the file at path.  Every problem found is one line in *problems,
// naming the file; what could not be used is left out, and a file that is
// missing or not JSON at all gives empty tables.
Answers LoadAnswers(const std::string& path, std::vector<std::string>* problems);

// The code for a command: the exact key, else the longest key ending in "*"
// whose text before the "*" begins the command, else 0.  *key tells which
// key answered (null when none did).
int32_t MatchCommand(const Answers& answers, const std::string& command, const std::string** key);

}  // namespace kvo_scripted
