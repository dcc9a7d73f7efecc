#include "tests/support/host_runner.h"

#include <X11/Xlib.h>
#include <glob.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace kvotest {

std::vector<std::string> Glob(const std::string& pattern) {
    glob_t found;
    std::vector<std::string> paths;
    if (glob(pattern.c_str(), 0, nullptr, &found) == 0)
        paths.assign(found.gl_pathv, found.gl_pathv + found.gl_pathc);
    globfree(&found);
    return paths;
}

namespace {

int NumberAfter(const std::string& text, const std::string& label) {
    size_t at = text.find(label);
    return at == std::string::npos ? -1 : atoi(text.c_str() + at + label.size());
}

}  // namespace

XServer::XServer(const std::string& screen) {
    int fds[2];
    if (pipe(fds) != 0) return;
    std::string fd = std::to_string(fds[1]);
    m_pid = StartProcess(
        {"/usr/bin/Xvfb", "-displayfd", fd, "-screen", "0", screen, "-nolisten", "tcp", "-noreset"},
        {},
        "/dev/null");
    close(fds[1]);
    std::string number;
    char c = 0;
    struct pollfd p = {fds[0], POLLIN, 0};
    while (poll(&p, 1, 15000) > 0 && read(fds[0], &c, 1) == 1 && c != '\n') number += c;
    close(fds[0]);
    if (!number.empty()) m_display = ":" + number;
}

XServer::~XServer() {
    if (m_pid <= 0) return;
    kill(m_pid, SIGTERM);
    if (WaitProcess(m_pid, 2000) < 0 && kill(m_pid, SIGKILL) == 0) waitpid(m_pid, nullptr, 0);
}

std::string XServer::Query(const std::vector<std::string>& argv, int timeoutMs) const {
    std::vector<std::string> full = {"/usr/bin/env"};
    full.insert(full.end(), argv.begin(), argv.end());
    std::string out;
    return RunProcess(full, {"DISPLAY=" + m_display}, timeoutMs, &out) == 0 ? out : "";
}

unsigned long XServer::WindowOf(pid_t pid, int timeoutMs) const {
    std::string out;
    PollUntil(
        [&] {
            return !(out = Query({"xdotool", "search", "--onlyvisible", "--pid", std::to_string(pid)}))
                        .empty();
        },
        timeoutMs);
    return strtoul(out.c_str(), nullptr, 10);
}

std::string XServer::Shape(unsigned long window) const {
    std::string out = Query({"xwininfo", "-id", std::to_string(window)});
    if (out.empty()) return "";
    return std::to_string(NumberAfter(out, "Width:")) + "x" + std::to_string(NumberAfter(out, "Height:")) +
           "+" + std::to_string(NumberAfter(out, "Absolute upper-left X:")) + "+" +
           std::to_string(NumberAfter(out, "Absolute upper-left Y:"));
}

std::string XServer::Property(unsigned long window, const std::string& name) const {
    return Query({"xprop", "-id", std::to_string(window), name});
}

bool XServer::SendDeleteWindow(unsigned long window) const {
    Display* display = XOpenDisplay(m_display.c_str());
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
    XCloseDisplay(display);  // flushes the event
    return sent != 0;
}

std::string HostBinary() { return BuildDir() + "/bin/kavori-host"; }
std::string PluginDir(const std::string& variant) { return FixtureDir() + "/plugins/" + variant; }
std::string PageUrl(const std::string& name) {
    return "file://" + SourceDir() + "/tests/fixtures/pages/" + name;
}

HostProcess::HostProcess(const XServer& x) : m_x(x) { mkdir(home().c_str(), 0700); }

HostProcess::~HostProcess() {
    if (m_pid > 0 && kill(-m_pid, SIGKILL) == 0) waitpid(m_pid, nullptr, 0);
}

bool HostProcess::Open(const std::string& page, const std::vector<std::string>& extra) {
    std::vector<std::string> argv = {
        binary, "-url", page.find("://") == std::string::npos ? PageUrl(page) : page};
    argv.insert(argv.end(), extra.begin(), extra.end());
    argv.insert(argv.end(), {"-root", PluginDir("recording"), "-store", storePath()});
    argv.insert(argv.begin(), wrapper.begin(), wrapper.end());
    return StartArgv(argv);
}

bool HostProcess::StartArgv(const std::vector<std::string>& argv) {
    std::vector<std::string> all = {"DISPLAY=" + m_x.display(),
                                    "HOME=" + home(),
                                    "LC_ALL=C",
                                    "XDG_RUNTIME_DIR=" + dir(),
                                    "KVO_TEST_RECORD=" + recordPath(),
                                    "KVO_TEST_ANSWERS=" + answersPath(),
                                    "DBUS_SESSION_BUS_ADDRESS=disabled:",
                                    "WAYLAND_DISPLAY"};
    all.insert(all.end(), env.begin(), env.end());
    m_pid = StartProcess(argv, all, dir() + "/output.txt");
    return m_pid > 0;
}

int HostProcess::Wait(int timeoutMs) {
    int status = WaitProcess(m_pid, timeoutMs);
    if (!Running()) m_pid = -1;
    return status;
}

std::string HostProcess::Result(int timeoutMs) {
    int status = Wait(timeoutMs);
    if (status != 0) return "<status " + std::to_string(status) + "> " + output();
    return ReadFileOr(storePath(), "<no file>");
}

bool HostProcess::Running() {
    return m_pid > 0 && kill(m_pid, 0) == 0 && waitpid(m_pid, nullptr, WNOHANG) == 0;
}

bool HostProcess::WaitForRecord(const std::string& line, int count, int timeoutMs) const {
    return PollUntil([&] { return CountOf(Record(), line) >= count; }, timeoutMs);
}

std::string HostProcess::LastSet(const std::string& name) const {
    std::string head = "SetProperty " + name + "=", value = "<none>";
    for (const std::string& line : Record()) {
        if (line.compare(0, head.size(), head) == 0) value = line.substr(head.size());
    }
    return value;
}

std::vector<std::string> HostProcess::SocketDirectories() const {
    return Glob(dir() + "/kavori-??????");  // mkdtemp's six characters
}

std::string HostProcess::Leftovers(int timeoutMs) const {
    std::string left;
    PollUntil(
        [&] {
            left.clear();
            for (const char* pattern : {"/kavori-*", "/.flatpak/*", "/webkitgtk/*"}) {
                for (const std::string& d : Glob(dir() + pattern)) left += d + " ";
            }
            for (pid_t pid : ProcessesWithEnv("KVO_TEST_RECORD=" + recordPath()))
                left += ProgramOf(pid) + " ";
            return left.empty();
        },
        timeoutMs);
    return left;
}

std::vector<pid_t> ProcessesWithEnv(const std::string& entry) {
    std::vector<pid_t> found;
    for (const std::string& process : Glob("/proc/[0-9]*")) {
        std::string environ = '\0' + ReadFileOr(process + "/environ");
        if (environ.find('\0' + entry + '\0') != std::string::npos)
            found.push_back(atoi(process.c_str() + 6));
    }
    return found;
}

std::string ProgramOf(pid_t pid) {
    std::string cmdline = ReadFileOr("/proc/" + std::to_string(pid) + "/cmdline");
    std::string first = cmdline.substr(0, cmdline.find('\0'));
    return first.substr(first.rfind('/') + 1);  // npos + 1 is 0
}

std::vector<pid_t> WebProcessesOf(pid_t host) {
    // In WebKit's sandbox a web process is bubblewrap's child, not the host's: it is known by the
    // environment it has from the host (its own KVO_TEST_RECORD).
    std::string environ = ReadFileOr("/proc/" + std::to_string(host) + "/environ");
    size_t at = environ.find("KVO_TEST_RECORD=");
    std::vector<pid_t> found;
    if (at == std::string::npos) return found;
    for (pid_t pid : ProcessesWithEnv(environ.substr(at, environ.find('\0', at) - at))) {
        if (ProgramOf(pid) == "WebKitWebProcess") found.push_back(pid);
    }
    return found;
}

}  // namespace kvotest
