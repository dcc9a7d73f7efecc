#include "tests/support/support.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <climits>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

namespace kvotest {

TempDir::TempDir() {
    const char* base = getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/kvotest-XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (mkdtemp(buffer.data()) == nullptr) {
        perror("mkdtemp");
        abort();
    }
    m_path = buffer.data();
}

TempDir::~TempDir() {
    // Tests may leave read-only directories behind; make them writable first.
    std::string command = "chmod -R u+rwx '" + m_path + "' 2>/dev/null; rm -rf '" + m_path + "'";
    if (system(command.c_str()) != 0) {
        fprintf(stderr, "could not remove %s\n", m_path.c_str());
    }
}

bool WriteFile(const std::string& path, const std::string& content, int mode) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    if (fd < 0) return false;
    size_t done = 0;
    while (done < content.size()) {
        ssize_t n = write(fd, content.data() + done, content.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            close(fd);
            return false;
        }
        done += static_cast<size_t>(n);
    }
    fchmod(fd, static_cast<mode_t>(mode));
    return close(fd) == 0;
}

bool ReadFile(const std::string& path, std::string* content) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    std::ostringstream text;
    text << in.rdbuf();
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
    std::string line;
    while (std::getline(in, line)) lines.push_back(line);
    return lines;
}

long long MonotonicMs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000LL + ts.tv_nsec / 1000000;
}

bool PollUntil(const std::function<bool()>& done, int timeoutMs) {
    long long deadline = MonotonicMs() + timeoutMs;
    while (!done()) {
        if (MonotonicMs() > deadline) return false;
        usleep(50000);
    }
    return true;
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

// In a forked child: a process group of its own, output to outFd (when not
// -1), the environment entries applied, then argv.
[[noreturn]] void ExecChild(const std::vector<std::string>& argv, const std::vector<std::string>& env,
                                   int outFd) {
    setpgid(0, 0);
    if (outFd >= 0) {
        dup2(outFd, 1);
        dup2(outFd, 2);
    }
    for (const std::string& entry : env) {
        size_t eq = entry.find('=');
        if (eq == std::string::npos) {
            unsetenv(entry.c_str());
        } else {
            setenv(entry.substr(0, eq).c_str(), entry.substr(eq + 1).c_str(), 1);
        }
    }
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
}

pid_t StartProcess(const std::vector<std::string>& argv, const std::vector<std::string>& env,
                   const std::string& outputPath) {
    int out = outputPath.empty() ? -1 : open(outputPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    pid_t pid = fork();
    if (pid == 0) ExecChild(argv, env, out);
    if (out >= 0) close(out);
    return pid;
}

int WaitProcess(pid_t pid, int timeoutMs) {
    int status = 0;
    bool ended = pid > 0 && PollUntil([&] { return waitpid(pid, &status, WNOHANG) == pid; }, timeoutMs);
    return ended && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int RunProcess(const std::vector<std::string>& argv, const std::vector<std::string>& env, int timeoutMs,
               std::string* out) {
    int pipefd[2] = {-1, -1};
    if (out && pipe2(pipefd, O_CLOEXEC) != 0) return -1;
    pid_t pid = fork();
    if (pid < 0) return -1;
    if (pid == 0) ExecChild(argv, env, out ? pipefd[1] : -1);
    if (out) {
        close(pipefd[1]);
        fcntl(pipefd[0], F_SETFL, O_NONBLOCK);
    }
    long long deadline = MonotonicMs() + timeoutMs;
    int status = 0;
    bool finished = false;
    while (true) {
        if (out) {
            char buffer[4096];
            ssize_t n;
            while ((n = read(pipefd[0], buffer, sizeof buffer)) > 0) out->append(buffer, static_cast<size_t>(n));
        }
        pid_t r = waitpid(pid, &status, WNOHANG);
        if (r == pid) {
            finished = true;
            break;
        }
        if (MonotonicMs() > deadline) break;
        usleep(10000);
    }
    if (!finished) {
        kill(-pid, SIGKILL);
        waitpid(pid, &status, 0);
    }
    if (out) {
        char buffer[4096];
        ssize_t n;
        while ((n = read(pipefd[0], buffer, sizeof buffer)) > 0) out->append(buffer, static_cast<size_t>(n));
        close(pipefd[0]);
    }
    if (!finished || !WIFEXITED(status)) return -1;
    return WEXITSTATUS(status);
}

std::string BuildDir() { return KAVORI_BUILD_DIR; }
std::string SourceDir() { return KAVORI_SOURCE_DIR; }
std::string FixtureDir() { return KAVORI_FIXTURE_DIR; }

std::string MissingPart(const std::string& text, const std::vector<std::string>& parts) {
    for (const std::string& part : parts) {
        if (text.find(part) == std::string::npos) return part;
    }
    return "";
}

int IndexOf(const std::vector<std::string>& lines, const std::string& line) {
    auto it = std::find(lines.begin(), lines.end(), line);
    return it == lines.end() ? -1 : static_cast<int>(it - lines.begin());
}

int CountOf(const std::vector<std::string>& lines, const std::string& line) {
    return static_cast<int>(std::count(lines.begin(), lines.end(), line));
}

PrivateEtc::PrivateEtc(const std::string& scratch) : m_scratch(scratch) {
    MakeDirs(m_scratch + "/upper");
    MakeDirs(m_scratch + "/work");
}

std::string PrivateEtc::Upper(const std::string& path) const {
    std::string upper = m_scratch + "/upper" + path.substr(strlen("/etc"));
    MakeDirs(upper.substr(0, upper.rfind('/')));
    return upper;
}

std::vector<std::string> PrivateEtc::Wrap(const std::vector<std::string>& argv) const {
    char outer[PATH_MAX] = {0};
    ssize_t n = readlink("/proc/self/ns/mnt", outer, sizeof outer - 1);
    if (n > 0) outer[n] = '\0';
    // Mounts nothing unless it really is in a namespace of its own: the
    // real /etc is never touched.
    std::string script = "[ \"$(readlink /proc/self/ns/mnt)\" != '" + std::string(outer) +
                         "' ] || exit 77\nmount -t overlay overlay -o lowerdir=/etc,upperdir=" + m_scratch +
                         "/upper,workdir=" + m_scratch + "/work /etc || exit 77\nexec \"$@\"\n";
    std::vector<std::string> wrapped = {"/usr/bin/unshare", "-m", "--propagation", "private", "/bin/sh", "-c",
                                        script, "sh"};
    wrapped.insert(wrapped.end(), argv.begin(), argv.end());
    return wrapped;
}

void SkipWithoutPrivateEtc() {
    TempDir scratch;
    PrivateEtc etc(scratch.path());
    WriteFile(etc.Upper("/etc/kvo-overlay-probe"), "x");
    std::string out;
    int status = RunProcess(etc.Wrap({"/bin/sh", "-c", "test -f /etc/kvo-overlay-probe"}), {}, 10000, &out);
    if (status != 0) SkipTest("no private /etc here (status " + std::to_string(status) + "): " + out);
}

void SkipTest(const std::string& reason) {
    fprintf(stderr, "SKIPPED: %s\n", reason.c_str());
    fflush(nullptr);
    _exit(77);
}

}  // namespace kvotest
