// Helpers shared by the tests: temporary directories, files and processes.
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
// The whole file; false when it cannot be read.
bool ReadFile(const std::string& path, std::string* content);
std::string ReadFileOr(const std::string& path, const std::string& fallback = std::string());
bool FileExists(const std::string& path);
std::vector<std::string> ReadLines(const std::string& path);

// Runs argv[0] (a path) with the given extra environment ("NAME=value"
// entries; "NAME" alone unsets), waits at most timeoutMs, kills it after
// that.  Returns the exit status, or -1 on a timeout or a signal.  Output
// goes to *out when not null (stdout and stderr together).
int RunProcess(const std::vector<std::string>& argv, const std::vector<std::string>& env, int timeoutMs,
               std::string* out = nullptr);

// Starts argv as RunProcess does, without waiting; output appended to
// outputPath (when not empty).  The pid, or -1.
pid_t StartProcess(const std::vector<std::string>& argv, const std::vector<std::string>& env,
                   const std::string& outputPath);
// A started child's exit status; -1 on a signal or after timeoutMs (then still running).
int WaitProcess(pid_t pid, int timeoutMs);

// mkdir -p; false when a directory cannot be made.
bool MakeDirs(const std::string& path);
// WriteFile after making the directories that lead to path.
bool PutFile(const std::string& path, const std::string& content, int mode = 0644);
long long MonotonicMs();
// Asks done every 50 ms until it holds or timeoutMs has passed; its last answer.
bool PollUntil(const std::function<bool()>& done, int timeoutMs = 10000);

// Built-tree locations.
std::string BuildDir();
std::string SourceDir();
std::string FixtureDir();  // built test plug-ins and modules live below it

// The first of parts that text does not hold; "" when it holds them all.
std::string MissingPart(const std::string& text, const std::vector<std::string>& parts);
// Where line first occurs in lines (-1: nowhere), and how often.
int IndexOf(const std::vector<std::string>& lines, const std::string& line);
int CountOf(const std::vector<std::string>& lines, const std::string& line);

// /etc with an overlay of its own for one command, in a private mount
// namespace: files put below Upper("/etc/...") are seen there only.
class PrivateEtc {
public:
    explicit PrivateEtc(const std::string& scratch);
    std::string Upper(const std::string& path) const;  // path below /etc; makes its directories
    // The command that runs argv there; it ends with 77 before running argv
    // when no namespace or no overlay can be had.
    std::vector<std::string> Wrap(const std::vector<std::string>& argv) const;

private:
    std::string m_scratch;
};
// Skips the test when this machine gives no private /etc.
void SkipWithoutPrivateEtc();

// In a forked child: a process group of its own, output to outFd (when not
// -1), the environment entries applied ("NAME" alone unsets), then argv.
[[noreturn]] void ExecChild(const std::vector<std::string>& argv, const std::vector<std::string>& env, int outFd);

// Ends the test process with exit code 77 (a skip) after saying why.
[[noreturn]] void SkipTest(const std::string& reason);

}  // namespace kvotest
