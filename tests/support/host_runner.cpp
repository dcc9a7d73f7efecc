#include "tests/support/host_runner.h"

#include <X11/Xlib.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "tests/support/support.h"

namespace kvotest {

namespace {

long long NowMs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000LL + ts.tv_nsec / 1000000;
}

std::string MakeScratchDir() {
    const char* base = getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/kvohost-XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (!mkdtemp(buffer.data())) return "";
    return buffer.data();
}

}  // namespace

XServer::XServer(const std::string& screen) {
    int fds[2];
    if (pipe(fds) != 0) return;
    m_pid = fork();
    if (m_pid == 0) {
        close(fds[0]);
        int devnull = open("/dev/null", O_RDWR);
        dup2(devnull, 0);
        dup2(devnull, 1);
        dup2(devnull, 2);
        std::string fd = std::to_string(fds[1]);
        execlp("Xvfb", "Xvfb", "-displayfd", fd.c_str(), "-screen", "0", screen.c_str(), "-nolisten", "tcp",
               "-noreset", static_cast<char*>(nullptr));
        _exit(127);
    }
    close(fds[1]);
    if (m_pid < 0) {
        close(fds[0]);
        return;
    }
    std::string number;
    long long deadline = NowMs() + 15000;
    while (NowMs() < deadline) {
        struct pollfd p = {fds[0], POLLIN, 0};
        if (poll(&p, 1, 200) <= 0) continue;
        char c;
        ssize_t n = read(fds[0], &c, 1);
        if (n <= 0) break;
        if (c == '\n') break;
        number += c;
    }
    close(fds[0]);
    if (!number.empty()) m_display = ":" + number;
}

XServer::~XServer() {
    if (m_pid > 0) {
        kill(m_pid, SIGTERM);
        int status;
        for (int i = 0; i < 100 && waitpid(m_pid, &status, WNOHANG) == 0; ++i) usleep(20000);
        kill(m_pid, SIGKILL);
        waitpid(m_pid, &status, WNOHANG);
    }
}

HostProcess::HostProcess(const XServer& x) : m_x(x) {
    m_dir = MakeScratchDir();
    mkdir(home().c_str(), 0700);
    m_outputPath = m_dir + "/output.txt";
}

HostProcess::~HostProcess() {
    if (m_pid > 0) {
        kill(-m_pid, SIGKILL);
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    if (!m_dir.empty()) {
        std::string command = "chmod -R u+rwx '" + m_dir + "' 2>/dev/null; rm -rf '" + m_dir + "'";
        if (system(command.c_str()) != 0) fprintf(stderr, "could not remove %s\n", m_dir.c_str());
    }
}

bool HostProcess::Start(const std::vector<std::string>& arguments) {
    std::vector<std::string> argv = {HostBinary()};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    return StartArgv(argv);
}

bool HostProcess::StartArgv(const std::vector<std::string>& argv) {
    m_pid = fork();
    if (m_pid < 0) return false;
    if (m_pid == 0) {
        setenv("DISPLAY", m_x.display().c_str(), 1);
        setenv("HOME", home().c_str(), 1);
        setenv("LC_ALL", "C", 1);
        setenv("KVO_TEST_RECORD", recordPath().c_str(), 1);
        setenv("KVO_TEST_ANSWERS", answersPath().c_str(), 1);
        setenv("XDG_RUNTIME_DIR", m_dir.c_str(), 1);
        unsetenv("WAYLAND_DISPLAY");
        ExecChild(argv, m_env, open(m_outputPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644));
    }
    return true;
}

std::string HostProcess::Result(int timeoutMs) {
    int status = Wait(timeoutMs);
    if (status != 0) return "<status " + std::to_string(status) + "> " + output();
    return ReadFileOr(storePath(), "<no result>");
}

int HostProcess::Wait(int timeoutMs) {
    if (m_pid <= 0) return -1;
    long long deadline = NowMs() + timeoutMs;
    int status = 0;
    while (NowMs() < deadline) {
        pid_t r = waitpid(m_pid, &status, WNOHANG);
        if (r == m_pid) {
            m_pid = -1;
            return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        }
        usleep(20000);
    }
    return -1;
}

bool HostProcess::Running() { return m_pid > 0 && waitpid(m_pid, nullptr, WNOHANG) == 0; }

std::string HostProcess::output() const { return ReadFileOr(m_outputPath); }

std::vector<std::string> HostProcess::Record() const { return ReadLines(recordPath()); }

bool HostProcess::WaitForRecord(const std::string& line, int timeoutMs) const {
    return PollUntil([&] {
        std::vector<std::string> record = Record();
        return std::find(record.begin(), record.end(), line) != record.end();
    }, timeoutMs);
}

std::string HostProcess::LastSet(const std::string& name) const {
    std::string head = "SetProperty " + name + "=", value = "<none>";
    for (const std::string& line : Record()) {
        if (line.compare(0, head.size(), head) == 0) value = line.substr(head.size());
    }
    return value;
}

unsigned long HostProcess::WaitForWindow(const std::string& title, int timeoutMs) {
    long long deadline = NowMs() + timeoutMs;
    while (NowMs() < deadline) {
        std::string out = XQuery(m_x, {"xdotool", "search", "--onlyvisible", "--name", "^" + title + "$"}, 3000);
        if (!out.empty()) return strtoul(out.c_str(), nullptr, 10);
        usleep(100000);
    }
    return 0;
}

unsigned long HostProcess::WaitForOwnWindow(int timeoutMs) {
    long long deadline = NowMs() + timeoutMs;
    std::string pid = std::to_string(m_pid);
    while (NowMs() < deadline) {
        std::string out = XQuery(m_x, {"xdotool", "search", "--onlyvisible", "--pid", pid}, 3000);
        if (!out.empty()) return strtoul(out.c_str(), nullptr, 10);
        usleep(100000);
    }
    return 0;
}

std::string HostBinary() { return BuildDir() + "/bin/kavori-host"; }
std::string RecordingPluginDir() { return PluginDir("recording"); }
std::string PluginDir(const std::string& variant) { return FixtureDir() + "/plugins/" + variant; }
std::string PageUrl(const std::string& name) { return "file://" + SourceDir() + "/tests/fixtures/pages/" + name; }

std::string XQuery(const XServer& x, const std::vector<std::string>& argv, int timeoutMs) {
    std::vector<std::string> full = {"/usr/bin/env"};
    full.insert(full.end(), argv.begin(), argv.end());
    std::string out;
    int status = RunProcess(full, {"DISPLAY=" + x.display()}, timeoutMs, &out);
    return status == 0 ? out : "";
}

std::string RunPage(const XServer& x, const std::string& page, const std::vector<std::string>& extraArguments,
                    const std::vector<std::string>& extraEnv, std::vector<std::string>* record) {
    HostProcess host(x);
    for (const std::string& entry : extraEnv) host.AddEnv(entry);
    std::vector<std::string> arguments = {"-url", PageUrl(page), "-root", RecordingPluginDir(), "-store",
                                          host.storePath()};
    arguments.insert(arguments.end(), extraArguments.begin(), extraArguments.end());
    if (!host.Start(arguments)) return "<not started>";
    std::string result = host.Result();
    if (record) *record = host.Record();
    return result;
}

std::string PageUrlWithQuery(const std::string& name, const std::string& query) {
    std::string encoded;
    for (unsigned char c : query) {
        if (isalnum(c) || strchr("-_.~/", c)) {
            encoded += static_cast<char>(c);
        } else {
            char hex[4];
            snprintf(hex, sizeof hex, "%%%02X", c);
            encoded += hex;
        }
    }
    return PageUrl(name) + "?" + encoded;
}

std::string Finding(const std::string& json, const std::string& name) {
    std::string head = "\"" + name + "\":\"";
    size_t at = json.find(head);
    if (at == std::string::npos) return "<missing>";
    std::string text;
    for (size_t i = at + head.size(); i < json.size(); ++i) {
        char c = json[i];
        if (c == '"') return text;
        if (c != '\\' || i + 1 >= json.size()) {
            text += c;
            continue;
        }
        char e = json[++i];
        if (e == 'u' && i + 4 < json.size()) {  // the pages escape control characters only
            text += static_cast<char>(strtol(json.substr(i + 1, 4).c_str(), nullptr, 16));
            i += 4;
        } else {
            text += e == 'n' ? '\n' : e == 'r' ? '\r' : e == 't' ? '\t' : e;
        }
    }
    return "<unterminated>";
}

bool SendDeleteWindow(const XServer& x, unsigned long window) {
    Display* display = XOpenDisplay(x.display().c_str());
    if (display == nullptr) return false;
    XEvent event;
    memset(&event, 0, sizeof event);
    event.xclient.type = ClientMessage;
    event.xclient.window = window;
    event.xclient.message_type = XInternAtom(display, "WM_PROTOCOLS", False);
    event.xclient.format = 32;
    event.xclient.data.l[0] = static_cast<long>(XInternAtom(display, "WM_DELETE_WINDOW", False));
    event.xclient.data.l[1] = CurrentTime;
    Status sent = XSendEvent(display, window, False, NoEventMask, &event);
    XSync(display, False);
    XCloseDisplay(display);
    return sent != 0;
}

MapCounter::MapCounter(const XServer& x) {
    Display* display = XOpenDisplay(x.display().c_str());
    if (display == nullptr) return;
    XSelectInput(display, DefaultRootWindow(display), SubstructureNotifyMask);
    XSync(display, False);  // selected before anything that follows maps
    m_display = display;
}

MapCounter::~MapCounter() {
    if (m_display != nullptr) XCloseDisplay(static_cast<Display*>(m_display));
}

int MapCounter::Maps() {
    Display* display = static_cast<Display*>(m_display);
    if (display == nullptr) return -1;
    XSync(display, False);
    while (XPending(display) > 0) {
        XEvent event;
        XNextEvent(display, &event);
        if (event.type == MapNotify && !event.xmap.override_redirect) ++m_maps;
    }
    return m_maps;
}

}  // namespace kvotest
