#include "tests/support/support.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace kvotest {

TempDir::TempDir() {
    const char* base = getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/kvotest-XXXXXX";
    if (mkdtemp(&pattern[0]) == nullptr) abort();
    m_path = pattern;
}

TempDir::~TempDir() {
    // Tests may leave read-only directories behind; make them writable first.
    std::string command = "chmod -R u+rwx '" + m_path + "' 2>/dev/null; rm -rf '" + m_path + "'";
    if (system(command.c_str()) != 0) fprintf(stderr, "could not remove %s\n", m_path.c_str());
}

bool WriteFile(const std::string& path, const std::string& content, int mode) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    out.close();
    return out.good() && chmod(path.c_str(), static_cast<mode_t>(mode)) == 0;
}

bool MakeDirs(const std::string& path) {
    for (size_t at = 1; at <= path.size(); ++at) {
        if (at < path.size() && path[at] != '/') continue;
        if (mkdir(path.substr(0, at).c_str(), 0755) != 0 && errno != EEXIST) return false;
    }
    return true;
}

bool PutFile(const std::string& path, const std::string& content, int mode) {
    return MakeDirs(path.substr(0, path.rfind('/'))) && WriteFile(path, content, mode);
}

bool ReadFile(const std::string& path, std::string* content) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    std::ostringstream text;
    text << in.rdbuf();  // an empty file sets text's failbit, nothing else
    *content = text.str();
    return true;
}

std::string ReadFileOr(const std::string& path, const std::string& fallback) {
    std::string content;
    return ReadFile(path, &content) ? content : fallback;
}

bool FileExists(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

std::vector<std::string> ReadLines(const std::string& path) {
    std::vector<std::string> lines;
    std::ifstream in(path, std::ios::binary);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

int CountOf(const std::vector<std::string>& lines, const std::string& line) {
    return static_cast<int>(std::count(lines.begin(), lines.end(), line));
}

long long MonotonicMs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000LL + ts.tv_nsec / 1000000;
}

bool PollUntil(const std::function<bool()>& done, int timeoutMs) {
    for (long long deadline = MonotonicMs() + timeoutMs; !done(); usleep(50000)) {
        if (MonotonicMs() > deadline) return false;
    }
    return true;
}

pid_t StartProcess(const std::vector<std::string>& argv, const std::vector<std::string>& env,
                   const std::string& outputPath) {
    pid_t pid = fork();
    if (pid != 0) return pid;
    setpgid(0, 0);
    int out = outputPath.empty() ? -1 : open(outputPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (out >= 0) {
        dup2(out, 1);
        dup2(out, 2);
        close(out);
    }
    for (const std::string& entry : env) {
        size_t eq = entry.find('=');
        if (eq == std::string::npos)
            unsetenv(entry.c_str());
        else
            setenv(entry.substr(0, eq).c_str(), entry.c_str() + eq + 1, 1);
    }
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execvp(args[0], args.data());  // a bare name along the PATH given in env
    _exit(127);
}

int WaitProcess(pid_t pid, int timeoutMs) {
    int status = 0;
    bool ended = pid > 0 && PollUntil([&] { return waitpid(pid, &status, WNOHANG) == pid; }, timeoutMs);
    return ended && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int RunProcess(const std::vector<std::string>& argv, const std::vector<std::string>& env, int timeoutMs,
               std::string* out) {
    TempDir scratch;
    pid_t pid = StartProcess(argv, env, out ? scratch.file("out") : "");
    int status = WaitProcess(pid, timeoutMs);
    if (status < 0 && pid > 0) {  // a timeout (or a signal): the group goes
        kill(-pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    if (out) *out = ReadFileOr(scratch.file("out"));
    return status;
}

std::string BuildDir() { return KAVORI_BUILD_DIR; }
std::string SourceDir() { return KAVORI_SOURCE_DIR; }
std::string FixtureDir() { return KAVORI_FIXTURE_DIR; }

void SkipTest(const std::string& reason) {
    fprintf(stderr, "SKIPPED: %s\n", reason.c_str());
    fflush(nullptr);
    _exit(77);
}

}  // namespace kvotest
