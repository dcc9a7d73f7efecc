#include "tests/app/real_window.h"

#include <X11/Xlib.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "tests/support/support.h"

namespace kvotest {

long long MonotonicMs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000LL + ts.tv_nsec / 1000000;
}

void SleepMs(int ms) { usleep(static_cast<useconds_t>(ms) * 1000); }

std::string ToString(const WindowShape& s) {
    return std::to_string(s.width) + "x" + std::to_string(s.height) + "+" + std::to_string(s.x) + "+" +
           std::to_string(s.y);
}

namespace {

int NumberAfter(const std::string& text, const std::string& label) {
    size_t at = text.find(label);
    if (at == std::string::npos) return -1;
    return atoi(text.c_str() + at + label.size());
}

bool MakeDirs(const std::string& path) {
    for (size_t at = 1; at <= path.size(); ++at) {
        if (at == path.size() || path[at] == '/') {
            std::string part = path.substr(0, at);
            if (mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) return false;
        }
    }
    return true;
}

void Put16(std::string* out, unsigned v) {
    out->push_back(static_cast<char>(v & 0xFF));
    out->push_back(static_cast<char>((v >> 8) & 0xFF));
}

void Put32(std::string* out, unsigned v) {
    Put16(out, v & 0xFFFF);
    Put16(out, v >> 16);
}

}  // namespace

WindowShape ShapeOf(const XServer& x, unsigned long window) {
    std::string out = XQuery(x, {"xwininfo", "-id", std::to_string(window)});
    WindowShape shape;
    if (out.empty()) return shape;
    shape.x = NumberAfter(out, "Absolute upper-left X:");
    shape.y = NumberAfter(out, "Absolute upper-left Y:");
    shape.width = NumberAfter(out, "Width:");
    shape.height = NumberAfter(out, "Height:");
    return shape;
}

std::string PropertyOf(const XServer& x, unsigned long window, const std::string& property) {
    return XQuery(x, {"xprop", "-id", std::to_string(window), property});
}

std::string IconSizes(const XServer& x, unsigned long window) {
    std::string out = PropertyOf(x, window, "_NET_WM_ICON");
    std::string sizes;
    const std::string label = "Icon (";
    for (size_t at = out.find(label); at != std::string::npos; at = out.find(label, at + 1)) {
        int width = atoi(out.c_str() + at + label.size());
        size_t by = out.find(" x ", at);
        int height = by == std::string::npos ? -1 : atoi(out.c_str() + by + 3);
        if (!sizes.empty()) sizes += " ";
        sizes += std::to_string(width) + "x" + std::to_string(height);
    }
    return sizes;
}

unsigned long WaitForWindowOf(const XServer& x, pid_t pid, int timeoutMs) {
    long long deadline = MonotonicMs() + timeoutMs;
    while (MonotonicMs() < deadline) {
        std::string out = XQuery(x, {"xdotool", "search", "--onlyvisible", "--pid", std::to_string(pid)}, 3000);
        if (!out.empty()) return strtoul(out.c_str(), nullptr, 10);
        SleepMs(100);
    }
    return 0;
}

bool WaitForFile(const std::string& path, int timeoutMs) {
    long long deadline = MonotonicMs() + timeoutMs;
    while (!FileExists(path)) {
        if (MonotonicMs() > deadline) return false;
        SleepMs(50);
    }
    return true;
}

bool WaitForRecordLine(const std::string& recordPath, const std::string& line, int timeoutMs) {
    long long deadline = MonotonicMs() + timeoutMs;
    while (true) {
        for (const std::string& l : ReadLines(recordPath)) {
            if (l == line) return true;
        }
        if (MonotonicMs() > deadline) return false;
        SleepMs(50);
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

bool PutFile(const std::string& path, const std::string& content, int mode) {
    return MakeDirs(path.substr(0, path.rfind('/'))) && WriteFile(path, content, mode);
}

bool CopyFile(const std::string& from, const std::string& to, int mode) {
    std::string content;
    return ReadFile(from, &content) && PutFile(to, content, mode);
}

bool WriteIcon(const std::string& path, int size, unsigned rgb) {
    // One 32-bit image: directory, entry, bitmap header, pixels bottom-up,
    // then the AND mask (all zero: opaque), each mask row padded to 4 bytes.
    unsigned pixels = static_cast<unsigned>(size * size * 4);
    unsigned mask = static_cast<unsigned>(((size + 31) / 32) * 4 * size);
    std::string ico;
    Put16(&ico, 0);
    Put16(&ico, 1);
    Put16(&ico, 1);
    ico.push_back(static_cast<char>(size));
    ico.push_back(static_cast<char>(size));
    ico.push_back(0);
    ico.push_back(0);
    Put16(&ico, 1);
    Put16(&ico, 32);
    Put32(&ico, 40 + pixels + mask);
    Put32(&ico, 22);
    Put32(&ico, 40);
    Put32(&ico, static_cast<unsigned>(size));
    Put32(&ico, static_cast<unsigned>(size * 2));
    Put16(&ico, 1);
    Put16(&ico, 32);
    for (int i = 0; i < 6; ++i) Put32(&ico, i == 1 ? pixels + mask : 0);
    for (int i = 0; i < size * size; ++i) Put32(&ico, 0xFF000000u | (rgb & 0xFFFFFF));
    ico.append(mask, '\0');
    return PutFile(path, ico);
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
        // The toolkit maps a 1x1 override-redirect helper off the screen
        // even without a window of the host's; only managed windows count.
        if (event.type == MapNotify && !event.xmap.override_redirect) ++m_maps;
    }
    return m_maps;
}

Launch::Launch(const XServer& x, const std::string& home, const std::vector<std::string>& argv,
               const std::vector<std::string>& env) {
    static int s_count = 0;
    m_outputPath = home + "/../launch-" + std::to_string(++s_count) + ".txt";
    m_pid = fork();
    if (m_pid != 0) return;
    setpgid(0, 0);
    int out = open(m_outputPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(out, 1);
    dup2(out, 2);
    setenv("DISPLAY", x.display().c_str(), 1);
    setenv("HOME", home.c_str(), 1);
    setenv("LC_ALL", "C", 1);
    setenv("XDG_RUNTIME_DIR", home.c_str(), 1);
    unsetenv("WAYLAND_DISPLAY");
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

Launch::~Launch() {
    if (m_pid > 0) {
        kill(-m_pid, SIGKILL);
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
}

int Launch::Wait(int timeoutMs) {
    if (m_pid <= 0) return -1;
    long long deadline = MonotonicMs() + timeoutMs;
    int status = 0;
    while (MonotonicMs() < deadline) {
        if (waitpid(m_pid, &status, WNOHANG) == m_pid) {
            m_pid = -1;
            return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        }
        SleepMs(20);
    }
    return -1;
}

std::string Launch::output() const { return ReadFileOr(m_outputPath); }

Overlays::Overlays(const std::string& scratch, const std::vector<std::string>& directories)
    : m_scratch(scratch), m_directories(directories) {
    for (size_t i = 0; i < m_directories.size(); ++i) {
        MakeDirs(m_scratch + "/upper-" + std::to_string(i));
        MakeDirs(m_scratch + "/work-" + std::to_string(i));
    }
}

std::string Overlays::Upper(const std::string& path) const {
    for (size_t i = 0; i < m_directories.size(); ++i) {
        const std::string& d = m_directories[i];
        if (path.size() > d.size() && path.compare(0, d.size(), d) == 0 && path[d.size()] == '/') {
            std::string upper = m_scratch + "/upper-" + std::to_string(i) + path.substr(d.size());
            MakeDirs(upper.substr(0, upper.rfind('/')));
            return upper;
        }
    }
    return m_scratch + "/not-overlaid";
}

std::vector<std::string> Overlays::Wrap(const std::vector<std::string>& argv) const {
    char outer[PATH_MAX] = {0};
    ssize_t n = readlink("/proc/self/ns/mnt", outer, sizeof outer - 1);
    if (n > 0) outer[n] = '\0';
    // Refuses to mount anything unless it really is in a namespace of its
    // own: the real /etc and /usr must never be touched.
    std::string script = "[ \"$(readlink /proc/self/ns/mnt)\" != '" + std::string(outer) + "' ] || exit 77\n";
    for (size_t i = 0; i < m_directories.size(); ++i) {
        const std::string& d = m_directories[i];
        script += "mount -t overlay overlay -o lowerdir=" + d + ",upperdir=" + m_scratch + "/upper-" +
                  std::to_string(i) + ",workdir=" + m_scratch + "/work-" + std::to_string(i) + " " + d +
                  " || exit 77\n";
    }
    script += "exec \"$@\"\n";
    std::vector<std::string> wrapped = {"/usr/bin/unshare", "-m", "--propagation", "private", "/bin/sh", "-c",
                                        script, "sh"};
    wrapped.insert(wrapped.end(), argv.begin(), argv.end());
    return wrapped;
}

void SkipWithoutOverlays() {
    TempDir scratch;
    Overlays overlays(scratch.path(), {"/etc"});
    WriteFile(overlays.Upper("/etc/kvo-overlay-probe"), "x");
    std::string out;
    int status = RunProcess(overlays.Wrap({"/bin/sh", "-c", "test -f /etc/kvo-overlay-probe"}), {}, 10000, &out);
    if (status != 0) {
        SkipTest("no private mount namespace with overlay mounts here (status " + std::to_string(status) + "): " +
                 out);
    }
}

std::string ProbeScript(const std::string& outputPath, const std::string& tail) {
    return "#!/bin/sh\n"
           "read -r pid comm state ppid pgid sid rest < /proc/$$/stat\n"
           "{\n"
           "  echo \"pid $pid\"; echo \"pgid $pgid\"; echo \"sid $sid\"; echo \"path $0\"\n"
           "  for a in \"$@\"; do echo \"arg $a\"; done\n"
           "} > '" +
           outputPath + ".part' && mv '" + outputPath + ".part' '" + outputPath + "'\n" + tail + "\n";
}

bool ReadProbe(const std::string& outputPath, Probe* probe) {
    if (!FileExists(outputPath)) return false;
    *probe = Probe();
    for (const std::string& line : ReadLines(outputPath)) {
        size_t blank = line.find(' ');
        std::string key = line.substr(0, blank);
        std::string value = blank == std::string::npos ? "" : line.substr(blank + 1);
        if (key == "pid") probe->pid = atol(value.c_str());
        if (key == "pgid") probe->pgid = atol(value.c_str());
        if (key == "sid") probe->sid = atol(value.c_str());
        if (key == "path") probe->path = value;
        if (key == "arg") probe->args.push_back(value);
    }
    return true;
}

}  // namespace kvotest
