#include "tests/app/real_window.h"

#include <X11/Xlib.h>
#include <limits.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

namespace kvotest {

namespace {

int s_launches = 0;

int NumberAfter(const std::string& text, const std::string& label) {
    size_t at = text.find(label);
    return at == std::string::npos ? -1 : atoi(text.c_str() + at + label.size());
}

}  // namespace

std::string ShapeOf(const XServer& x, unsigned long window) {
    std::string out = XQuery(x, {"xwininfo", "-id", std::to_string(window)});
    if (out.empty()) return "";
    return std::to_string(NumberAfter(out, "Width:")) + "x" + std::to_string(NumberAfter(out, "Height:")) + "+" +
           std::to_string(NumberAfter(out, "Absolute upper-left X:")) + "+" +
           std::to_string(NumberAfter(out, "Absolute upper-left Y:"));
}

std::string PropertyOf(const XServer& x, unsigned long window, const std::string& property) {
    return XQuery(x, {"xprop", "-id", std::to_string(window), property});
}

std::string IconSizes(const XServer& x, unsigned long window) {
    std::string out = PropertyOf(x, window, "_NET_WM_ICON"), sizes;
    for (size_t at = out.find("Icon ("); at != std::string::npos; at = out.find("Icon (", at + 1)) {
        size_t by = out.find(" x ", at);
        sizes += (sizes.empty() ? "" : " ") + std::to_string(atoi(out.c_str() + at + 6)) + "x" +
                 std::to_string(by == std::string::npos ? -1 : atoi(out.c_str() + by + 3));
    }
    return sizes;
}

std::string WaitForText(const std::function<std::string()>& read, const std::string& part, int timeoutMs) {
    std::string text;
    PollUntil([&] { return (text = read()).find(part) != std::string::npos; }, timeoutMs);
    return text;
}

unsigned long WaitForWindowOf(const XServer& x, pid_t pid, int timeoutMs) {
    std::string out;
    PollUntil([&] { return !(out = XQuery(x, {"xdotool", "search", "--onlyvisible", "--pid", std::to_string(pid)},
                                          3000)).empty(); },
              timeoutMs);
    return strtoul(out.c_str(), nullptr, 10);
}

bool WaitForRecordLine(const std::string& recordPath, const std::string& line, int timeoutMs) {
    return PollUntil([&] {
        for (const std::string& l : ReadLines(recordPath)) {
            if (l == line) return true;
        }
        return false;
    }, timeoutMs);
}

std::string LastProperty(const std::vector<std::string>& record, const std::string& name) {
    std::string head = "SetProperty " + name + "=", value = "<none>";
    for (const std::string& line : record) {
        if (line.compare(0, head.size(), head) == 0) value = line.substr(head.size());
    }
    return value;
}

bool CopyFile(const std::string& from, const std::string& to, int mode) {
    std::string content;
    return ReadFile(from, &content) && PutFile(to, content, mode);
}

bool WriteIcon(const std::string& path, int size) {
    // One 32-bit image: directory, entry, bitmap header, the pixels, then
    // the AND mask (all zero: opaque) with rows padded to 4 bytes.
    std::string ico;
    auto put = [&](unsigned value, int bytes) {
        for (int i = 0; i < bytes; ++i) ico.push_back(static_cast<char>((value >> (8 * i)) & 0xFF));
    };
    unsigned pixels = static_cast<unsigned>(size * size * 4), mask = static_cast<unsigned>((size + 31) / 32 * 4 * size);
    for (unsigned v : {0u, 1u, 1u}) put(v, 2);
    for (unsigned v : {unsigned(size), unsigned(size), 0u, 0u}) put(v, 1);
    for (unsigned v : {1u, 32u}) put(v, 2);
    for (unsigned v : {40 + pixels + mask, 22u, 40u, unsigned(size), unsigned(size * 2)}) put(v, 4);
    for (unsigned v : {1u, 32u}) put(v, 2);
    for (int i = 0; i < 6; ++i) put(i == 1 ? pixels + mask : 0, 4);
    for (int i = 0; i < size * size; ++i) put(0xFF3060C0u, 4);
    ico.append(mask, '\0');
    return PutFile(path, ico);
}

Launch::Launch(const XServer& x, const std::string& home, const std::vector<std::string>& argv,
               const std::vector<std::string>& env)
    : m_output(home + "/../launch-" + std::to_string(s_launches++) + ".txt") {
    std::vector<std::string> full = {"DISPLAY=" + x.display(), "HOME=" + home, "LC_ALL=C", "XDG_RUNTIME_DIR=" + home,
                                     "WAYLAND_DISPLAY"};
    full.insert(full.end(), env.begin(), env.end());
    m_pid = StartProcess(argv, full, m_output);
}

Launch::~Launch() {
    if (m_pid > 0) {
        kill(-m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
}

int Launch::Wait(int timeoutMs) {
    int status = WaitProcess(m_pid, timeoutMs);
    if (status >= 0) m_pid = -1;
    return status;
}

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
    if (readlink("/proc/self/ns/mnt", outer, sizeof outer - 1) <= 0) outer[0] = '\0';
    // Mounts nothing unless it really is in a namespace of its own: the
    // real /etc and /usr must never be touched.
    std::string script = "[ \"$(readlink /proc/self/ns/mnt)\" != '" + std::string(outer) + "' ] || exit 77\n";
    for (size_t i = 0; i < m_directories.size(); ++i) {
        std::string n = std::to_string(i);
        script += "mount -t overlay overlay -o lowerdir=" + m_directories[i] + ",upperdir=" + m_scratch + "/upper-" +
                  n + ",workdir=" + m_scratch + "/work-" + n + " " + m_directories[i] + " || exit 77\n";
    }
    std::vector<std::string> wrapped = {"/usr/bin/unshare", "-m", "--propagation", "private",
                                        "/bin/sh", "-c", script + "exec \"$@\"\n", "sh"};
    wrapped.insert(wrapped.end(), argv.begin(), argv.end());
    return wrapped;
}

void SkipWithoutOverlays() {
    TempDir scratch;
    Overlays overlays(scratch.path(), {"/etc"});
    PutFile(overlays.Upper("/etc/kvo-overlay-probe"), "x");
    std::string out;
    int status = RunProcess(overlays.Wrap({"/bin/sh", "-c", "test -f /etc/kvo-overlay-probe"}), {}, 10000, &out);
    if (status != 0) SkipTest("no private mount namespace with overlays (" + std::to_string(status) + "): " + out);
}

std::string ProbeScript(const std::string& outputPath, const std::string& tail) {
    return "#!/bin/sh\nread -r pid comm state ppid pgid sid rest < /proc/$$/stat\n"
           "{ echo \"pid $pid\"; echo \"pgid $pgid\"; echo \"sid $sid\"; echo \"path $0\"\n"
           "  for a in \"$@\"; do echo \"arg $a\"; done; } > '" +
           outputPath + ".part' && mv '" + outputPath + ".part' '" + outputPath + "'\n" + tail + "\n";
}

bool ReadProbe(const std::string& outputPath, Probe* probe) {
    if (!FileExists(outputPath)) return false;
    *probe = Probe();
    for (const std::string& line : ReadLines(outputPath)) {
        std::string key = line.substr(0, line.find(' ')), value = line.substr(line.find(' ') + 1);
        if (key == "pid") probe->pid = atol(value.c_str());
        if (key == "pgid") probe->pgid = atol(value.c_str());
        if (key == "sid") probe->sid = atol(value.c_str());
        if (key == "path") probe->path = value;
        if (key == "arg") probe->args.push_back(value);
    }
    return true;
}

}  // namespace kvotest
