#include "tests/bridge/dialog_support.h"

#include <X11/Xlib.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tests/support/support.h"

namespace kvotest {

bool CloseWindow(const XServer& x, unsigned long window) {
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

std::string PropertyOf(const XServer& x, unsigned long window, const std::string& property) {
    return XQuery(x, {"xprop", "-id", std::to_string(window), property});
}

std::string PageUrlWithQuery(const std::string& name, const std::string& query) {
    std::string encoded;
    for (unsigned char c : query) {
        if ((c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || strchr("-_.~/", c)) {
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
        if (e == 'n') {
            text += '\n';
        } else if (e == 'r') {
            text += '\r';
        } else if (e == 't') {
            text += '\t';
        } else if (e == 'u' && i + 4 < json.size()) {
            // Only what the tests' pages produce: control characters.
            text += static_cast<char>(strtol(json.substr(i + 1, 4).c_str(), nullptr, 16));
            i += 4;
        } else {
            text += e;
        }
    }
    return "<unterminated>";
}

bool WaitForRecordLine(const std::string& recordPath, const std::string& line, int timeoutMs) {
    for (int waited = 0;; waited += 50) {
        for (const std::string& l : ReadLines(recordPath)) {
            if (l == line) return true;
        }
        if (waited >= timeoutMs) return false;
        usleep(50000);
    }
}

std::string LastProperty(const std::vector<std::string>& record, const std::string& name) {
    std::string head = "SetProperty " + name + "=";
    std::string value = "<none>";
    for (const std::string& line : record) {
        if (line.compare(0, head.size(), head) == 0) value = line.substr(head.size());
    }
    return value;
}

MapWatch::MapWatch(const XServer& x) {
    Display* display = XOpenDisplay(x.display().c_str());
    if (display == nullptr) return;
    XSelectInput(display, DefaultRootWindow(display), SubstructureNotifyMask);
    XSync(display, False);  // selected before anything that follows maps
    m_display = display;
}

MapWatch::~MapWatch() {
    if (m_display != nullptr) XCloseDisplay(static_cast<Display*>(m_display));
}

int MapWatch::Maps() {
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

Spawned::Spawned(const XServer& x, const HostProcess& host, const std::vector<std::string>& argv) {
    m_outputPath = host.dir() + "/spawned.txt";
    m_pid = fork();
    if (m_pid != 0) return;
    setpgid(0, 0);
    int out = open(m_outputPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(out, 1);
    dup2(out, 2);
    setenv("DISPLAY", x.display().c_str(), 1);
    setenv("HOME", host.home().c_str(), 1);
    setenv("LC_ALL", "C", 1);
    setenv("KVO_TEST_RECORD", host.recordPath().c_str(), 1);
    setenv("KVO_TEST_ANSWERS", host.answersPath().c_str(), 1);
    setenv("XDG_RUNTIME_DIR", host.dir().c_str(), 1);
    unsetenv("WAYLAND_DISPLAY");
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
}

Spawned::~Spawned() {
    if (m_pid > 0) {
        kill(-m_pid, SIGKILL);
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
}

int Spawned::Wait(int timeoutMs) {
    if (m_pid <= 0) return -1;
    for (int waited = 0; waited <= timeoutMs; waited += 20) {
        int status = 0;
        if (waitpid(m_pid, &status, WNOHANG) == m_pid) {
            m_pid = -1;
            return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        }
        usleep(20000);
    }
    return -1;
}

std::string Spawned::output() const { return ReadFileOr(m_outputPath); }

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
                         "' ] || exit 77\n"
                         "mount -t overlay overlay -o lowerdir=/etc,upperdir=" +
                         m_scratch + "/upper,workdir=" + m_scratch + "/work /etc || exit 77\nexec \"$@\"\n";
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

}  // namespace kvotest
