// What a careless page, a framed page or a hostile environment tries
// against a real host: script that runs on after exit, a signal during
// start-up, frames of a trusted origin that are not what their URL says,
// and the clipboard.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <sstream>

#include "tests/e2e/e2e.h"

namespace kvotest {
namespace {

using Hardening = RealHost;

TEST_F(Hardening, ExitEndsTheScriptTurnAndSignalsEndStartUp) {
    HostProcess& turn = Open("exit_turn.html");
    HostProcess& spin = Open("spin.html");
    HostProcess& waiting = Open("idle.html", {"-wait", "60000000"});
    ASSERT_TRUE(PollUntil(
        [&] { return !waiting.SocketDirectories().empty() && !WebProcessesOf(waiting.pid()).empty(); }));
    ASSERT_EQ(0, kill(waiting.pid(), SIGTERM));
    EXPECT_EQ("<no file>", waiting.Result(10000));
    EXPECT_EQ("", waiting.Leftovers());
    EXPECT_EQ("SECOND", turn.Result());  // the later exit's, after the rest of the turn
    EXPECT_TRUE(turn.LastSet("After") == "1" && turn.LastSet("Later") == "<none>");
    EXPECT_EQ("SPUN", spin.Result());  // ended by the host's bound, not the page
}

TEST_F(Hardening, KavoriOnlyForDocumentsWhoseOriginAndAncestorsAreTrusted) {
    HostProcess& server = Add();
    std::string ports;  // two origins of one host: the second one is not listed
    ASSERT_TRUE(server.StartArgv(
        {"/usr/bin/python3", SourceDir() + "/tests/fixtures/pages/trust/serve.py", server.dir() + "/ports"}));
    ASSERT_TRUE(PollUntil([&] { return !(ports = ReadFileOr(server.dir() + "/ports")).empty(); }))
        << server.output();
    const std::string port = ports.substr(0, ports.find(' ')), site = "http://127.0.0.1:" + port + "/trust/",
                      trusted = "KAVORI_TRUSTED_ORIGINS=http://127.0.0.1:" + port;
    HostProcess& top = Open(site + "top.html#" + ports.substr(ports.find(' ') + 1), {}, {trusted});
    HostProcess& sandboxed = Open(site + "sandboxed.html?csp", {}, {trusted});
    EXPECT_EQ("ok", top.Result());
    EXPECT_TRUE(Has(ReadUntil([&] { return sandboxed.output(); }, "refused"),
                    "refused navigation to " + site + "sandboxed.html?csp"));
}

// The PIN's bytes are wiped from every buffer of the host that carried them
// (the demo plug-in wipes its own copy); read as the same user.
TEST_F(Hardening, APinLeavesNoCopyInTheHostsMemory) {
#if defined(__SANITIZE_ADDRESS__)
    SkipTest("scanning the sanitizer build's memory takes a minute: the normal build is the proof");
#endif
    HostProcess& host = Add();
    std::string seed = std::to_string(getpid()) + "q7Zt" + std::to_string(MonotonicMs()),
                pin(seed.rbegin(), seed.rend());
    pin = "PIN-" + pin + "-PIN";
    host.env = {"KAVORI_DEMO_LOG=" + host.dir() + "/demo.log"};
    ASSERT_TRUE(host.Open("pin_marker.html?" + seed, {"-root", BuildDir() + "/examples/demo"}));
    ASSERT_TRUE(PollUntil([&] { return Has(ReadFileOr(host.dir() + "/demo.log"), "PIN cleared"); }, 30000))
        << host.output();
    std::string maps = ReadFileOr("/proc/" + std::to_string(host.pid()) + "/maps"), region;
    int mem = open(("/proc/" + std::to_string(host.pid()) + "/mem").c_str(), O_RDONLY);
    ASSERT_GE(mem, 0);
    size_t found = 0, read = 0;
    for (std::istringstream lines(maps); std::getline(lines, region);) {
        unsigned long from = 0, to = 0;
        char mode[5] = {};
        // Readable mappings, leaving out the engine's sparse reservations of gigabytes.
        if (sscanf(region.c_str(), "%lx-%lx %4s", &from, &to, mode) != 3 || mode[0] != 'r' ||
            to - from > (1ul << 28) || Has(region, "[vvar]")) {
            continue;
        }
        std::string bytes(to - from, '\0');
        ssize_t n = pread(mem, &bytes[0], bytes.size(), off_t(from));
        read += n > 0 ? size_t(n) : 0;
        found += n > 0 && bytes.find(pin) != std::string::npos;
    }
    close(mem);
    EXPECT_GT(read, 1u << 20);
    EXPECT_EQ(found, 0u) << pin;
}

}  // namespace
}  // namespace kvotest
