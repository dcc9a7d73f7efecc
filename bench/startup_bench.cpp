// Start-up and memory of the host against surf (a WebKitGTK 4.1 browser)
// opening the same local page, side by side in one run (alternating, medians):
// time from exec to the page's load event (the page pings a loopback server)
// and to the first paint of the page's colour on screen (read back from X),
// and the PSS of the process and its WebKit processes after the load; and
// the host against itself with WebKit's sandbox switched off.  Given an
// earlier build, its host runs in the same rounds, sandboxed and not.
// Needs DISPLAY on a 24-bit screen with a black root (run.sh).
#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <dirent.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

double NowMs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1e3 + ts.tv_nsec / 1e6;
}

// Records when "/loaded" is asked for.
class Beacon {
public:
    Beacon() {
        m_fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        bind(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
        listen(m_fd, 8);
        getsockname(m_fd, reinterpret_cast<sockaddr*>(&address), &length);
        m_port = ntohs(address.sin_port);
        m_thread = std::thread([this] { Serve(); });
    }
    ~Beacon() {
        m_stop = true;
        m_thread.join();
        close(m_fd);
    }
    int port() const { return m_port; }
    void Reset() { m_at = 0; }
    double at() const { return m_at; }

private:
    void Serve() {
        while (!m_stop) {
            pollfd p = {m_fd, POLLIN, 0};
            if (poll(&p, 1, 50) <= 0) continue;
            int client = accept(m_fd, nullptr, nullptr);
            if (client < 0) continue;
            double now = NowMs();
            char request[1024] = {0};
            if (recv(client, request, sizeof request - 1, 0) > 0 && strstr(request, "GET /loaded") &&
                m_at == 0)
                m_at = now;
            const char reply[] = "HTTP/1.0 204 No Content\r\nConnection: close\r\n\r\n";
            if (send(client, reply, sizeof reply - 1, MSG_NOSIGNAL) < 0) {
            }
            close(client);
        }
    }
    int m_fd = -1;
    int m_port = 0;
    std::atomic<bool> m_stop{false};
    std::atomic<double> m_at{0};
    std::thread m_thread;
};

std::vector<int> Descendants(int root) {
    std::vector<int> all = {root};
    for (size_t i = 0; i < all.size(); ++i) {
        DIR* proc = opendir("/proc");
        while (dirent* entry = readdir(proc)) {
            int pid = atoi(entry->d_name);
            if (pid <= 0) continue;
            std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
            std::string line;
            std::getline(stat, line);
            size_t close = line.rfind(')');
            if (close == std::string::npos) continue;
            int state_ppid = 0;
            char state;
            if (sscanf(line.c_str() + close + 1, " %c %d", &state, &state_ppid) == 2 &&
                state_ppid == all[i]) {
                all.push_back(pid);
            }
        }
        closedir(proc);
    }
    return all;
}

double PssMiB(int root) {
    double kib = 0;
    for (int pid : Descendants(root)) {
        std::ifstream rollup("/proc/" + std::to_string(pid) + "/smaps_rollup");
        std::string key;
        double value;
        std::string unit;
        while (rollup >> key) {
            if (key == "Pss:") {
                rollup >> value >> unit;
                kib += value;
                break;
            }
            std::getline(rollup, unit);
        }
    }
    return kib / 1024;
}

struct Run {
    double load = -1, paint = -1, pss = -1;
};

Run Measure(Display* display, const std::vector<std::string>& argv, Beacon& beacon, unsigned long colour) {
    Run run;
    beacon.Reset();
    Window root = DefaultRootWindow(display);
    double start = NowMs();
    pid_t pid = fork();
    if (pid == 0) {
        setpgid(0, 0);
        freopen("/dev/null", "w", stdout);
        freopen("/dev/null", "w", stderr);
        std::vector<char*> args;
        for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        execvp(args[0], args.data());
        _exit(127);
    }
    while (NowMs() - start < 20000 && (run.paint < 0 || beacon.at() == 0)) {
        if (run.paint < 0) {
            XImage* image = XGetImage(display, root, 40, 40, 1, 1, AllPlanes, ZPixmap);
            if (image) {
                if ((XGetPixel(image, 0, 0) & 0xFFFFFF) == colour) run.paint = NowMs() - start;
                XDestroyImage(image);
            }
        }
        usleep(500);
    }
    if (beacon.at() > 0) run.load = beacon.at() - start;
    usleep(1000000);  // let the processes settle before measuring them
    run.pss = PssMiB(pid);
    kill(-pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    usleep(300000);
    return run;
}

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values.empty() ? -1 : values[values.size() / 2];
}

// One program measured in every round.
struct Side {
    std::vector<std::string> argv;
    std::vector<Run> runs;
    double Load() const { return Median(Pick(&Run::load)); }
    double Paint() const { return Median(Pick(&Run::paint)); }
    double Pss() const { return Median(Pick(&Run::pss)); }
    std::vector<double> Pick(double Run::*field) const {
        std::vector<double> values;
        for (const Run& run : runs) values.push_back(run.*field);
        return values;
    }
};

// The ratio of the medians, and the spread of the ratios taken round by
// round (lower to upper quartile): how far the load on the machine moved it.
std::string Ratio(const Side& a, const Side& b, double Run::*field) {
    std::vector<double> rounds;
    for (size_t i = 0; i < a.runs.size() && i < b.runs.size(); ++i) {
        if (a.runs[i].*field > 0 && b.runs[i].*field > 0)
            rounds.push_back(a.runs[i].*field / b.runs[i].*field);
    }
    std::sort(rounds.begin(), rounds.end());
    char text[64] = "-";
    if (!rounds.empty()) {
        snprintf(text,
                 sizeof text,
                 "%.2f, rounds %.2f-%.2f",
                 Median(a.Pick(field)) / Median(b.Pick(field)),
                 rounds[rounds.size() / 4],
                 rounds[(rounds.size() * 3) / 4]);
    }
    return text;
}

void PrintSandboxCost(const char* name, const Side& on, const Side& off) {
    printf("%s: load %.0f / %.0f ms (%s), first paint %.0f / %.0f ms (%s), PSS %.1f / %.1f MiB (%s)\n",
           name,
           on.Load(),
           off.Load(),
           Ratio(on, off, &Run::load).c_str(),
           on.Paint(),
           off.Paint(),
           Ratio(on, off, &Run::paint).c_str(),
           on.Pss(),
           off.Pss(),
           Ratio(on, off, &Run::pss).c_str());
}

std::vector<std::string> HostArgv(const std::string& buildDir, const std::string& url, bool sandboxed) {
    std::vector<std::string> argv = {
        buildDir + "/bin/kavori-host", "-url", url, "-root", buildDir + "/tests/fixtures/plugins/recording"};
    // WebKit's own switch leaves the web processes outside the sandbox.
    if (!sandboxed) argv.insert(argv.begin(), {"env", "WEBKIT_DISABLE_SANDBOX_THIS_IS_DANGEROUS=1"});
    return argv;
}

}  // namespace

// Arguments: build directory, source directory, rounds, and optionally the
// build directory of an earlier version, measured in the same rounds.
int main(int argc, char** argv) {
    std::string buildDir = argc > 1 ? argv[1] : "build";
    std::string sourceDir = argc > 2 ? argv[2] : ".";
    int runs = argc > 3 ? atoi(argv[3]) : 5;
    std::string baseline = argc > 4 ? argv[4] : "";
    Display* display = XOpenDisplay(nullptr);
    if (!display) {
        fprintf(stderr, "no display\n");
        return 1;
    }
    Beacon beacon;
    std::string url = "file://" + sourceDir + "/bench/pages/startup.html#" + std::to_string(beacon.port());
    const unsigned long colour = 0x2a6fdb;
    Side host{HostArgv(buildDir, url, true), {}}, surf{{"surf", url}, {}},
        open{HostArgv(buildDir, url, false), {}};
    Side before{HostArgv(baseline, url, true), {}}, beforeOpen{HostArgv(baseline, url, false), {}};
    std::vector<Side*> sides = {&host, &surf, &open};
    if (!baseline.empty()) sides.insert(sides.end(), {&before, &beforeOpen});
    for (int i = 0; i < runs; ++i) {  // A, B, C, A, B, C
        for (Side* side : sides) side->runs.push_back(Measure(display, side->argv, beacon, colour));
    }
    printf("start-up to load event: host %.0f ms, surf %.0f ms, ratio %s (goal <= 0.90)\n",
           host.Load(),
           surf.Load(),
           Ratio(host, surf, &Run::load).c_str());
    printf("start-up to first paint: host %.0f ms, surf %.0f ms, ratio %s (goal <= 0.90)\n",
           host.Paint(),
           surf.Paint(),
           Ratio(host, surf, &Run::paint).c_str());
    printf("memory after load (PSS, all processes): host %.1f MiB, surf %.1f MiB, ratio %s (goal <= 1.00)\n",
           host.Pss(),
           surf.Pss(),
           Ratio(host, surf, &Run::pss).c_str());
    PrintSandboxCost("sandbox cost (goal: first paint <= 1.05)", host, open);
    if (!baseline.empty()) {
        printf("earlier build: first paint %.0f ms, surf ratio %s; load %.0f ms, surf ratio %s\n",
               before.Paint(),
               Ratio(before, surf, &Run::paint).c_str(),
               before.Load(),
               Ratio(before, surf, &Run::load).c_str());
        PrintSandboxCost("earlier build's sandbox cost", before, beforeOpen);
        printf("this build against the earlier one: first paint %s, load %s, PSS %s\n",
               Ratio(host, before, &Run::paint).c_str(),
               Ratio(host, before, &Run::load).c_str(),
               Ratio(host, before, &Run::pss).c_str());
    }
    XCloseDisplay(display);
    return 0;
}
