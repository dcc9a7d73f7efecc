// What the shell finds in the installation's places, moved below a directory
// of the test, and in HOME: the admin program, library directory, icon,
// maintenance scripts and lazy-start root, the processes it starts there,
// and the user agent with the operating system's description.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <memory>

#include "app/launch.h"
#include "app/paths.h"
#include "app/user_agent.h"
#include "native/system_places.h"
#include "tests/app/argv.h"

using namespace kvotest;
using Words = std::vector<std::string>;

namespace {

struct Places : testing::Test {
    TempDir root;
    const std::string home = getenv("HOME"), system = root.path();
    void SetUp() override { ASSERT_TRUE(MoveSystemPlacesForTests(system.c_str())); }
    std::string Found(bool (*find)(char*, uint32_t), uint32_t size = 256) {
        char out[256];
        memset(out, 'j', sizeof out);
        bool found = find(out, size);
        EXPECT_TRUE(!found || out[0] != '\0');
        return found ? out : "";
    }
    // A script that notes its path, its arguments and whether it leads a session of its own.
    void Probe(const std::string& path) {
        PutFile(path, "#!/bin/sh\nread pid comm state ppid pgrp sid rest < /proc/$$/stat\n[ $pid = $sid ] && s=own || "
                      "s=shared\necho $0 $* $s >> " + root.file("runs") + "\n", 0755);
    }
};

TEST_F(Places, AdminProgramAndLibraryDirectoryPerUserBeforeTheSystem) {
    EXPECT_EQ(Found(FindAdminProgram), "");
    EXPECT_EQ(Found(FindInstalledLibraryDirectory), "");
    PutFile(system + "/usr/bin/kvo", "", 0755);
    EXPECT_EQ(Found(FindInstalledLibraryDirectory), system + "/usr/lib");
    PutFile(home + "/.kvo/bin/kvo", "", 0755);
    EXPECT_EQ(Found(FindAdminProgram), home + "/.kvo/bin/kvo");
    // Too small for the result: nothing, not a cut path.
    uint32_t exact = static_cast<uint32_t>(home.size() + strlen("/.kvo/lib"));
    EXPECT_EQ(Found(FindInstalledLibraryDirectory, exact), "");
    EXPECT_EQ(Found(FindInstalledLibraryDirectory, exact + 1), home + "/.kvo/lib");
}

TEST_F(Places, IconBesideTheHostThenInTheRootThenHomeThenSystem) {
    TempDir host, lib;
    SaveArgs({host.file("kavori-host"), "-root", lib.path()});
    const std::string icons[] = {host.file("kvo.ico"), lib.file("kvo.ico"), home + "/.kvo/kvo.ico", system + "/etc/kvo/kvo.ico"};
    for (const std::string& icon : icons) PutFile(icon, "icon");
    for (const std::string& icon : icons) {
        EXPECT_EQ(Found(FindWindowIcon), icon);
        unlink(icon.c_str());
    }
    EXPECT_EQ(Found(FindWindowIcon), "");
}

TEST_F(Places, LazyStartRootFromTheOptionOrTheHostsDirectory) {
    std::pair<Words, std::string> rows[] = {{{"/opt/kvo/bin/kavori-host", "-root", "/r"}, "/r"},
                                            {{"/opt/kvo/bin/kavori-host", "-root", std::string(256, 'r')}, "/opt/kvo/bin"},
                                            {{"/opt/kvo/bin/kavori-host", "-root"}, ""},
                                            {{"kavori-host"}, ""}};  // found along PATH: the default directory
    for (const auto& r : rows) {
        SaveArgs(r.first);
        char out[256] = "junk";
        LazyStartRoot(out, sizeof out);
        EXPECT_EQ(out, r.second) << testing::PrintToString(r.first);
    }
}

TEST_F(Places, ScriptsAndTheAdminProgramRunInSessionsOfTheirOwn) {
    ASSERT_EQ(chdir(system.c_str()), 0);
    for (const std::string& path : {home + "/.kvo/repair", system + "/etc/kvo/repair", system + "/.repair"}) Probe(path);
    RunMaintenanceScriptWaiting("repair", true, 0, 100, 10000);  // waits until reaped, at most a second
    chmod((home + "/.kvo/repair").c_str(), 0775);  // others could have changed it: not run
    RunMaintenanceScriptWaiting("repair", true, 0, 100, 10000);
    RunMaintenanceScriptWaiting("repair", false, 0, 100, 10000);
    Probe(system + "/usr/bin/kvo");
    LaunchAdminProgram();
    for (int i = 0; i < 500 && waitpid(-1, nullptr, WNOHANG) == 0; ++i) usleep(10000);
    EXPECT_EQ(ReadLines(root.file("runs")), (Words{home + "/.kvo/repair own", system + "/etc/kvo/repair own",
                                                   ".repair own", system + "/usr/bin/kvo -admin own"}));
}

TEST_F(Places, UserAgentFromWebKitsTheProductVersionAndTheSystemDescription) {
    const std::string issue = system + "/etc/issue.net";
    std::pair<std::string, std::string> descriptions[] = {{"Ubuntu 16.04.7 LTS\n", "Ubuntu/16.04"},
        {"Debian GNU/Linux 9\n", "Debian GNU/Linux/9\n"}, {"Arch.Linux.x", "Arch.Linux"}, {"", ""}};
    for (const auto& d : descriptions) {
        PutFile(issue, d.first);
        char buffer[256];
        EXPECT_EQ(ReadOsDescription(buffer, sizeof buffer), !d.second.empty());
        EXPECT_EQ(buffer, d.second);
    }
    const std::string ubuntu = "Ubuntu 16.04.7 LTS\n", tail = " Kavori/6.7 Ubuntu/16.04", a100(100, 'a'), a191(191, 'a');
    struct { std::string agent, productInfo, issue; uint32_t size; std::string text; } rows[] = {  // issue "-": none
        {"Mozilla/5.0 (X11)", "Kavori Middleware;x;06070002,2024", ubuntu, 256, "Mozilla/5.0 (X11)" + tail},
        {"Agent", "Name;x;6.7.2,", "-", 256, "Agent Kavori/6.7"},
        {"Agent", "Name;x 06070002", ubuntu, 256, ""},  // separators missing
        {std::string(127, 'a'), "N;x;0607,", ubuntu, 192, std::string(127, 'a') + tail},  // agent + 64 below the size
        {std::string(128, 'a'), "N;x;0607,", ubuntu, 192, ""},
        {a100, std::string(100, 'n') + ";x;0607" + std::string(47, '0') + ",", ubuntu, 256, a100 + tail},
        {a100, std::string(100, 'n') + ";x;0607" + std::string(48, '0') + ",", ubuntu, 256, ""},  // the name counts
        {a191, "N;x;0607,", std::string(60, 'd'), 256, a191 + " Kavori/6.7 " + std::string(52, 'd')}};
    for (const auto& r : rows) {
        r.issue == "-" ? (void)unlink(issue.c_str()) : (void)PutFile(issue, r.issue);
        std::unique_ptr<char[]> buffer(new char[r.size]());
        std::string info = r.productInfo;
        EXPECT_EQ(ComposeUserAgentText(r.agent.c_str(), &info[0], buffer.get(), r.size), !r.text.empty()) << r.agent;
        EXPECT_EQ(buffer.get(), r.text) << r.productInfo;
    }
    char info[] = "N;x;0607,", buffer[256] = {};
    EXPECT_FALSE(ComposeUserAgentText(nullptr, info, buffer, sizeof buffer));
    EXPECT_FALSE(ComposeUserAgentText("Agent", nullptr, buffer, sizeof buffer));
    EXPECT_FALSE(ComposeUserAgentText("Agent", info, nullptr, sizeof buffer));
}

TEST(UserAgent, VersionDigitsAndWhatWebKitCarries) {
    std::pair<std::string, std::string> versions[] = {{"06070002", "6.7"}, {"12030000", "12.3"}, {"0000", "0.0"},
                                                      {"", "."}, {"6", "6."}, {"061", "6.1"}};
    for (const auto& v : versions) {
        // The field alone on the heap without a terminator: a read past it is an overflow.
        std::unique_ptr<char[]> exact(new char[v.first.size()]);
        memcpy(exact.get(), v.first.data(), v.first.size());
        char out[16] = "v";
        AppendVersionDigits(exact.get(), v.first.size(), out);
        EXPECT_EQ(out, "v" + v.second) << v.first;
    }
    std::pair<const char*, bool> agents[] = {
        {"Mozilla/5.0 (X11; Linux x86_64) AppleWebKit/605.1.15 (KHTML, like Gecko) Kavori/6.7 Ubuntu/16.04", 1},
        {"A", 1}, {"A/1(c)", 1}, {"A (a (nested) \\) c)\tB", 1}, {"", 0}, {nullptr, 0}, {"(c) A", 0}, {"A/", 0},
        {"/1", 0}, {"A ", 0}, {"A (open", 0}, {"A (c\\", 0}, {"A (c\x01)", 0}, {"Ubuntu/16.04\n", 0}, {"Caf\xc3\xa9", 0}};
    for (const auto& a : agents) EXPECT_EQ(IsCarriedUserAgent(a.first), a.second) << (a.first ? a.first : "(null)");
}

}  // namespace
