// Sanitizer builds only (KAVORI_SANITIZE): a whole dialog run of the
// host, every Kavori function and command that keeps it running, a
// reload and an exit with -store, under LeakSanitizer.  Toolkit leaks are
// suppressed in tests/lsan.supp, each with its reason; any other leak
// fails, with LeakSanitizer's report.
#include <dirent.h>
#include <gtest/gtest.h>

#include "tests/faults/fault_support.h"
#include "tests/support/support.h"

using namespace kvotest;

namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
#else
constexpr bool kSanitized = false;
#endif

bool Has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

TEST(Leaks, AWholeDialogRunLeaksNothingOfTheHostsOwn) {
    if (!kSanitized) SkipTest("not a sanitizer build (configure with -DKAVORI_SANITIZE=ON)");
    XServer x;
    if (!x.ok()) SkipTest("no Xvfb");
    HostProcess host(x);
    std::string logs = host.dir() + "/asan";
    // Full stacks, so that a suppression matches the toolkit frame it names
    // and never a host frame by accident.
    host.AddEnv("ASAN_OPTIONS=detect_leaks=1:fast_unwind_on_malloc=0:malloc_context_size=40:log_path=" + logs);
    host.AddEnv("LSAN_OPTIONS=suppressions=" KAVORI_LSAN_SUPPRESSIONS);
    WriteFile(host.answersPath(), "Holder\tA. Person\n");
    ASSERT_TRUE(host.Start({"-url", FaultPageUrl("every_call.html"), "-root", RecordingPluginDir(), "-store",
                            host.storePath(), "-key", "k"}));
    pid_t pid = host.pid();
    int status = host.Wait(90000);
    std::string report = ReadFileOr(logs + "." + std::to_string(pid));
    EXPECT_EQ(0, status) << report << host.output();
    EXPECT_EQ("every call made", ReadFileOr(host.storePath(), "<no file>"));
    EXPECT_EQ(2, CountLines(host.Record(), "SetProperty Loads=1") + CountLines(host.Record(), "SetProperty Loads=2"));
    EXPECT_FALSE(Has(report, "ERROR")) << report;

    // The web processes (the extension runs there under ASan, reporting
    // to the host's output): no memory error, and none left running.
    EXPECT_FALSE(Has(host.output(), "ERROR: AddressSanitizer")) << host.output();
    EXPECT_FALSE(Has(host.output(), "runtime error")) << host.output();
    EXPECT_TRUE(WaitForNoProcessOf(host.dir()).empty());
    DIR* dir = opendir(host.dir().c_str());
    ASSERT_NE(nullptr, dir);
    while (struct dirent* entry = readdir(dir)) {
        std::string name = entry->d_name;
        if (name.compare(0, 5, "asan.") != 0) continue;
        std::string text = ReadFileOr(host.dir() + "/" + name);
        EXPECT_FALSE(Has(text, "ERROR: AddressSanitizer")) << name << "\n" << text;
        EXPECT_FALSE(Has(text, "runtime error")) << name << "\n" << text;
    }
    closedir(dir);
}

}  // namespace
