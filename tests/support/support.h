// Helpers of every test: temporary directories, files, processes, bounded waits.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace kvotest {

// A fresh directory under TMPDIR (or /tmp), removed with its content.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return m_path; }
    std::string file(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

bool WriteFile(const std::string& path, const std::string& content, int mode = 0644);
bool MakeDirs(const std::string& path);                                              // mkdir -p
bool PutFile(const std::string& path, const std::string& content, int mode = 0644);  // MakeDirs, WriteFile
bool ReadFile(const std::string& path, std::string* content);                        // the whole file
std::string ReadFileOr(const std::string& path, const std::string& fallback = std::string());
bool FileExists(const std::string& path);  // lstat: a dangling link exists
std::vector<std::string> ReadLines(const std::string& path);
int CountOf(const std::vector<std::string>& lines, const std::string& line);  // how often line occurs

long long MonotonicMs();
// Asks done every 50 ms until it holds or timeoutMs has passed; its last answer.
bool PollUntil(const std::function<bool()>& done, int timeoutMs = 15000);

// Processes run argv[0] (a path) in a process group of their own, with the
// extra environment entries ("NAME=value"; "NAME" alone unsets).
// StartProcess appends stdout and stderr to outputPath (when not empty);
// the pid, or -1.
pid_t StartProcess(const std::vector<std::string>& argv, const std::vector<std::string>& env,
                   const std::string& outputPath);
// A started child's exit status; -1 on a signal, or after timeoutMs (then
// it is still running).
int WaitProcess(pid_t pid, int timeoutMs);
// Start and wait; the group is killed after timeoutMs (then -1).  Output
// (stdout and stderr together) goes to *out when not null.
int RunProcess(const std::vector<std::string>& argv, const std::vector<std::string>& env, int timeoutMs,
               std::string* out = nullptr);

std::string BuildDir();
std::string SourceDir();
std::string FixtureDir();  // built test plug-ins and modules live below it

// Ends the test process with exit code 77 (a skip) after saying why.
[[noreturn]] void SkipTest(const std::string& reason);

}  // namespace kvotest
