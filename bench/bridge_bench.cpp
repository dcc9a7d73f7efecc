// Bridge round trip against the raw floor, measured side by side in one run:
// a page making GetProperty calls through the host, and a plain Unix-socket
// ping-pong between two processes with the same message sizes.  Prints the
// medians of alternating runs and their ratio.  Needs DISPLAY (run.sh).
#include <fcntl.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

double NowUs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1e6 + ts.tv_nsec / 1e3;
}

void PinToCpu0() {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(0, &set);
    sched_setaffinity(0, sizeof set, &set);
}

bool FullIo(int fd, char* buffer, size_t size, bool writing) {
    while (size > 0) {
        ssize_t n = writing ? write(fd, buffer, size) : read(fd, buffer, size);
        if (n <= 0) return false;
        buffer += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

// Microseconds per round trip of a request and a reply of the given sizes.
double RawRoundTrip(int calls, size_t requestSize, size_t replySize, bool pinned) {
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) return -1;
    std::vector<char> request(requestSize, 'q'), reply(replySize, 'r');
    pid_t child = fork();
    if (child == 0) {
        if (pinned) PinToCpu0();
        close(fds[0]);
        for (int i = 0; i < calls + 100; ++i) {
            if (!FullIo(fds[1], request.data(), requestSize, false)) break;
            if (!FullIo(fds[1], reply.data(), replySize, true)) break;
        }
        _exit(0);
    }
    if (pinned) PinToCpu0();
    close(fds[1]);
    for (int i = 0; i < 100; ++i) {
        FullIo(fds[0], request.data(), requestSize, true);
        FullIo(fds[0], reply.data(), replySize, false);
    }
    double start = NowUs();
    for (int i = 0; i < calls; ++i) {
        FullIo(fds[0], request.data(), requestSize, true);
        FullIo(fds[0], reply.data(), replySize, false);
    }
    double per = (NowUs() - start) / calls;
    close(fds[0]);
    waitpid(child, nullptr, 0);
    if (pinned) {
        cpu_set_t all;
        CPU_ZERO(&all);
        for (int i = 0; i < CPU_SETSIZE; ++i) CPU_SET(i, &all);
        sched_setaffinity(0, sizeof all, &all);
    }
    return per;
}

struct PageRun {
    double perCall = -1, first = -1, second = -1;
};

// Runs the host on the bench page; the page reports through -store.
PageRun BridgeRoundTrip(const std::string& buildDir, const std::string& sourceDir, int calls,
                        const std::string& property, const std::string& answers, bool pinned) {
    char dir[] = "/tmp/kvobench-XXXXXX";
    PageRun run;
    if (!mkdtemp(dir)) return run;
    std::string store = std::string(dir) + "/result.txt";
    std::string answersPath = std::string(dir) + "/answers.txt";
    std::ofstream(answersPath) << answers;
    std::string url =
        "file://" + sourceDir + "/bench/pages/bridge.html#" + std::to_string(calls) + "," + property;
    std::string command = std::string(pinned ? "taskset -c 0 " : "") + "env KVO_TEST_ANSWERS=" + answersPath +
                          " XDG_RUNTIME_DIR=" + dir + " " + buildDir + "/bin/kavori-host -url '" + url +
                          "' -root " + buildDir + "/tests/fixtures/plugins/recording -store " + store +
                          " >/dev/null 2>&1";
    if (system(command.c_str()) == 0) {
        std::ifstream in(store);
        in >> run.perCall >> run.first >> run.second;
    }
    std::string cleanup = std::string("rm -rf ") + dir;
    if (system(cleanup.c_str()) != 0) fprintf(stderr, "could not remove %s\n", dir);
    return run;
}

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values.empty() ? -1 : values[values.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
    std::string buildDir = argc > 1 ? argv[1] : "build";
    std::string sourceDir = argc > 2 ? argv[2] : ".";
    int runs = argc > 3 ? atoi(argv[3]) : 5;
    const int calls = 20000;
    // "Holder" answers "A. Person": a request of ~60 bytes, a reply of ~40.
    const std::string answers = "Holder\tA. Person\n";

    struct Case {
        const char* name;
        bool pinned;
    } cases[] = {{"unpinned", false}, {"pinned to one CPU", true}};
    for (const Case& c : cases) {
        std::vector<double> bridge, raw, first, later;
        for (int i = 0; i < runs; ++i) {  // alternate A, B, A, B
            PageRun page = BridgeRoundTrip(buildDir, sourceDir, calls, "Holder", answers, c.pinned);
            if (page.perCall < 0) {
                fprintf(stderr, "the bench page did not report; is the host built and DISPLAY set?\n");
                return 1;
            }
            bridge.push_back(page.perCall);
            first.push_back(page.first);
            later.push_back(page.second);
            raw.push_back(RawRoundTrip(calls, 64, 48, c.pinned));
        }
        double b = Median(bridge), r = Median(raw);
        printf(
            "bridge round trip (%s): %.2f us per GetProperty, raw socket %.2f us, ratio %.2f (goal <= "
            "1.25)\n",
            c.name,
            b,
            r,
            b / r);
        if (!c.pinned) {
            printf(
                "lazy start: first call %.0f us (loads the plug-in unless the key hand-over did), second "
                "%.0f us\n",
                Median(first),
                Median(later));
        }
    }

    // Large answers: time per call against one socket copy of the same bytes.
    for (int size : {64 * 1024, 1024 * 1024}) {
        std::vector<double> bridge, raw;
        std::string answers2 = "";
        std::string name = "test:big:" + std::to_string(size);
        int n = size > 100000 ? 200 : 2000;
        for (int i = 0; i < runs; ++i) {
            PageRun page = BridgeRoundTrip(buildDir, sourceDir, n, name, answers2, false);
            bridge.push_back(page.perCall);
            raw.push_back(RawRoundTrip(n, 64, static_cast<size_t>(size), false));
        }
        double b = Median(bridge), r = Median(raw);
        printf("large answer %7d bytes: %.1f us per call, raw socket copy %.1f us, ratio %.2f\n",
               size,
               b,
               r,
               b / r);
    }
    return 0;
}
