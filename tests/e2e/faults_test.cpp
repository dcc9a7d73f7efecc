// Faults the host must survive, produced for real: a dying web process, and
// in sanitizer builds the leak check of a whole dialog run.
#include <signal.h>
#include <sys/resource.h>

#include "tests/e2e/e2e.h"

namespace kvotest {
namespace {

class Faults : public RealHost {
protected:
    void SetUp() override {
        RealHost::SetUp();
        struct rlimit none = {0, 0};  // crashed web processes leave no core files
        setrlimit(RLIMIT_CORE, &none);
    }
    // The share of the window's pixels that are the page's red, and in *dark those that are dark (text).
    double RedShare(unsigned long window, double* dark) {
        std::string rgb = x.Query(
            {"sh", "-c", "import -window " + std::to_string(window) + " -depth 8 rgb:- 2>/dev/null"}, 10000);
        double pixels = static_cast<double>(rgb.size() / 3), red = 0;
        *dark = 0;
        for (size_t i = 0; i + 2 < rgb.size(); i += 3) {
            unsigned char r = rgb[i], g = rgb[i + 1], b = rgb[i + 2];
            red += r > 200 && g < 60 && b < 60;
            *dark += (r < 100 && g < 100 && b < 100) / pixels;
        }
        return pixels > 0 ? red / pixels : -1;
    }
};

TEST_F(Faults, AKilledWebProcessIsReplacedUntilThreeCrashesBringAPlainMessage) {
    HostProcess& host = Open("crash.html");
    unsigned long window = host.Window();
    ASSERT_NE(0u, window) << host.output();
    double dark = 0;
    EXPECT_TRUE(PollUntil([&] { return RedShare(window, &dark) > 0.9; }));  // what the last check relies on
    // Each kill once the load before it is complete: the first has left its value, each later one read it
    // back.
    ASSERT_TRUE(host.WaitForRecord("SetProperty Kept=set before the crash")) << host.output();
    const int signals[] = {SIGKILL, SIGABRT, SIGTERM};  // JavaScriptCore takes a SIGSEGV sent from outside
    std::vector<pid_t> web;
    for (int crashes = 0; crashes < 3; ++crashes) {
        const pid_t previous = web.empty() ? 0 : web[0];
        EXPECT_TRUE(host.WaitForRecord("SetProperty ReadBack=set before the crash", crashes)) << crashes;
        ASSERT_TRUE(
            PollUntil([&] { return (web = WebProcessesOf(host.pid())).size() == 1 && web[0] != previous; }));
        ASSERT_EQ(0, kill(web[0], signals[crashes]));
    }
    // Reloaded twice with the plug-in's state kept; the third crash within 30 s shows dark text on light.
    EXPECT_TRUE(PollUntil([&] { return RedShare(window, &dark) == 0 && dark > 0; })) << dark;
    EXPECT_TRUE(host.Running());
    std::vector<std::string> record = host.Record();
    EXPECT_EQ(2, CountOf(record, "SetProperty ReadBack=set before the crash"));
    EXPECT_EQ(0, CountOf(record, "SetProperty Loads=4"));
    EXPECT_EQ(1, CountOf(record, "Initialize"));  // one plug-in instance throughout
    EXPECT_EQ(1u, host.SocketDirectories().size());
    ASSERT_TRUE(x.SendDeleteWindow(window));
    EXPECT_EQ("OK", host.Result());
    EXPECT_EQ("", host.Leftovers());
}

TEST_F(Faults, AWholeDialogRunLeaksNothingOfTheHostsOwn) {
#if !defined(__SANITIZE_ADDRESS__)
    SkipTest("not a sanitizer build (configure with -DKAVORI_SANITIZE=ON)");
#endif
    // Full stacks, so that a suppression matches the toolkit frame it names and never a host frame by
    // accident.
    HostProcess& host = Add();
    std::string logs = host.dir() + "/asan";
    host.env = {"ASAN_OPTIONS=detect_leaks=1:fast_unwind_on_malloc=0:malloc_context_size=40:log_path=" + logs,
                "LSAN_OPTIONS=suppressions=" KAVORI_LSAN_SUPPRESSIONS};
    ASSERT_TRUE(host.Open("every_call.html", {"-key", "k"}));
    pid_t pid = host.pid();
    std::string result = host.Result(90000), report = ReadFileOr(logs + "." + std::to_string(pid));
    EXPECT_EQ("every call made", result) << report;
    EXPECT_EQ(1, CountOf(host.Record(), "SetProperty Loads=2"));
    EXPECT_FALSE(Has(report, "ERROR")) << report;
    // The web processes run the extension under ASan, reporting to the host's output.
    for (const char* error : {"ERROR: AddressSanitizer", "runtime error"})
        EXPECT_FALSE(Has(host.output(), error));
    EXPECT_EQ("", host.Leftovers());
}

}  // namespace
}  // namespace kvotest
