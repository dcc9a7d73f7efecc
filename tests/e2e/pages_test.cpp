// Pages in a real web view: unusable plug-ins, what dialog authors switch on.  Each
// page checks its table and ends with "ok" or what differed.
#include "tests/e2e/e2e.h"

namespace kvotest {
namespace {

using Pages = RealHost;

TEST_F(Pages, UnusablePluginsGiveTheDefaultsAndAFailedStartIsRetried) {
    TempDir empty;  // no libkvo.so at all
    const std::pair<std::string, std::string> rows[] = {{empty.path(), "broken"},
                                                        {PluginDir("init_fails_with_handle"), "broken"},
                                                        {PluginDir("recording"), "flaky"}};
    for (const auto& row : rows) {
        Open("startup.html?" + row.second,
             {"-root", row.first},
             {row.second == "flaky" ? "KVO_TEST_INIT_FAILURES=3" : "KVO_TEST_INIT_FAILURES"});
    }
    for (size_t i = 0; i < hosts.size(); ++i) EXPECT_EQ("ok", hosts[i]->Result()) << rows[i].first;
    std::vector<std::string> flaky = hosts.back()->Record();
    EXPECT_EQ(4, CountOf(flaky, "Initialize"));
    EXPECT_EQ(1, CountOf(flaky, "Invoke 7"));  // only the call after the start reached it
}

TEST_F(Pages, TheFunctionsAndForDialogAuthorsTheConsoleTheScriptedPluginAndTrustedOrigins) {
    std::string page = PageUrl("scripted.html"), answers = SourceDir() + "/tests/fixtures/pages/scripted";
    const std::vector<std::string> scripted = {"-root", BuildDir() + "/examples/scripted"};
    HostProcess& good =
        Open("scripted.html", scripted, {"KAVORI_ANSWERS=" + answers + ".json", "KAVORI_DEVELOPER=1"});
    HostProcess& bad = Open("scripted.html", scripted, {"KAVORI_ANSWERS=" + answers + "_malformed.json"});
    // The functions, frames and documents see only Kavori; restricted to file://,
    // a sandboxed frame has an opaque origin and no Kavori.
    HostProcess& calls = Open("calls.html");
    HostProcess& restricted = Open("calls.html?restricted", {}, {"KAVORI_TRUSTED_ORIGINS=file://"});
    // A start page off the list is refused: no call is served, the dialog stays; not even to a web
    // process taken over (a second extension stands for it: it has the socket and the token).
    HostProcess& untrusted = Add();
    untrusted.env = {"KAVORI_TRUSTED_ORIGINS=http://127.0.0.1:9"};
    ASSERT_TRUE(untrusted.StartArgv({FixtureDir() + "/intruded/bin/kavori-host",
                                     "-url",
                                     PageUrl("calls.html"),
                                     "-root",
                                     PluginDir("recording")}));

    EXPECT_EQ("ok", good.Result());
    for (const std::string& line : {"console.log: [file://] " + page + ":6: hello from the page\n",
                                    "console.warn: [file://] " + page + ":7: careful\n",
                                    "console.error: [file://] " + page + ":8: ReferenceError",
                                    // eval'd code has no source: the frame's origin is named
                                    std::string("console.log: [file://] :1: evaluated\n"),
                                    std::string("console.error: [file://] undefined:1: ReferenceError")}) {
        EXPECT_TRUE(Has(good.output(), line)) << line << "\n" << good.output();
    }
    EXPECT_FALSE(Has(good.output(), "1234") || Has(good.output(), "9999"))
        << good.output();  // commands: first word only
    EXPECT_TRUE(Has(bad.Result(), "holder: \"\"")) << bad.output();
    EXPECT_FALSE(Has(bad.output(), "console.")) << bad.output();                     // not in developer mode
    EXPECT_TRUE(Has(bad.output(), answers + "_malformed.json:2:")) << bad.output();  // named with its line
    EXPECT_EQ("ok", calls.Result());
    EXPECT_EQ("", calls.Leftovers());
    EXPECT_EQ("ok", restricted.Result());
    std::string refused = "kavori-host: refused navigation to " + PageUrl("calls.html") + ": ";
    EXPECT_TRUE(PollUntil([&] {
        return Has(untrusted.output(), refused) && Has(untrusted.output(), "intruder: answered");
    })) << untrusted.output();
    EXPECT_EQ(0, CountOf(untrusted.Record(), "GetProperty Holder"));  // the page's first call
    EXPECT_EQ("<none>", untrusted.LastSet("Intruder"));
    EXPECT_TRUE(untrusted.Running());
}

}  // namespace
}  // namespace kvotest
