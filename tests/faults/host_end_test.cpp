// However the host ends (window closed, exit, uninstall, restart, a
// signal), its socket directory is gone and no web or network process of
// it is left running a few seconds later.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <memory>

#include "tests/faults/fault_support.h"
#include "tests/support/support.h"

using namespace kvotest;

namespace {

class HostEnd : public testing::Test {
protected:
    void SetUp() override {
        if (!m_x.ok()) SkipTest("no Xvfb");
    }
    XServer m_x;
};

TEST_F(HostEnd, EveryWayOfEndingLeavesNothingBehind) {
    struct Way {
        std::string name;
        std::string query;  // stay.html's command
        int signal;         // sent once the page runs; 0 for none
        bool close;         // the window's close button
        std::string result;
    };
    const std::vector<Way> ways = {
        {"close", "", 0, true, "OK"},
        {"exit", "exit", 0, false, "OK"},
        {"uninstall", "uninstall", 0, false, "OK"},
        {"SIGTERM", "", SIGTERM, false, "<no file>"},
        {"SIGINT", "", SIGINT, false, "<no file>"},
        {"SIGHUP", "", SIGHUP, false, "<no file>"},
    };
    std::vector<std::unique_ptr<HostProcess>> hosts;
    for (const Way& way : ways) {
        hosts.emplace_back(new HostProcess(m_x));
        HostProcess& host = *hosts.back();
        // uninstall runs the user's script, which says that it ran.
        mkdir((host.home() + "/.kvo").c_str(), 0755);
        WriteFile(host.home() + "/.kvo/uninstall", "#!/bin/sh\necho ran > \"$HOME/uninstall-ran\"\n", 0755);
        ASSERT_TRUE(host.Start({"-url", FaultPageUrl("stay.html", way.query), "-root", RecordingPluginDir(),
                                "-store", host.storePath()}));
    }
    for (size_t i = 0; i < ways.size(); ++i) {
        const Way& way = ways[i];
        HostProcess& host = *hosts[i];
        SCOPED_TRACE(way.name);
        ASSERT_TRUE(WaitForRecordCount(host, "SetProperty Seen=1", 1)) << host.output();
        if (way.close) {
            unsigned long window = host.WaitForOwnWindow();
            ASSERT_NE(0u, window);
            ASSERT_TRUE(CloseWindow(m_x, window));
        }
        if (way.signal) {
            // The web process is up and the bridge in use: the worst moment.
            ASSERT_TRUE(WaitUntil([&] { return !WebProcessesOf(host.pid()).empty(); }));
            ASSERT_EQ(0, kill(host.pid(), way.signal));
        }
    }
    for (size_t i = 0; i < ways.size(); ++i) {
        HostProcess& host = *hosts[i];
        SCOPED_TRACE(ways[i].name);
        ASSERT_EQ(0, host.Wait()) << host.output();
        EXPECT_EQ(ways[i].result, ReadFileOr(host.storePath(), "<no file>"));
        EXPECT_TRUE(SocketDirectories(host.dir()).empty());
        std::vector<pid_t> left = WaitForNoProcessOf(host.dir());
        EXPECT_TRUE(left.empty()) << ProgramOf(left.empty() ? 0 : left[0]);
    }
    EXPECT_EQ("ran\n", ReadFileOr(hosts[2]->home() + "/uninstall-ran", "<not run>"));
}

// Reaps whatever became ours as subreaper (the restarted host, web
// processes of hosts that are gone) without waiting.
void ReapOrphans() {
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
}

TEST_F(HostEnd, ARestartLeavesOnlyTheNewHostAndItsOwnProcesses) {
    // The restarted host leaves the first one's session; as subreaper this
    // test becomes its parent when the first one has gone.
    ASSERT_EQ(0, prctl(PR_SET_CHILD_SUBREAPER, 1));
    HostProcess host(m_x);
    ASSERT_TRUE(host.Start({"-url", FaultPageUrl("restart_once.html", host.recordPath()), "-root",
                            RecordingPluginDir(), "-store", host.storePath()}));
    pid_t first = host.pid();
    ASSERT_TRUE(WaitForRecordCount(host, "SetProperty Seen=1", 1)) << host.output();
    ASSERT_EQ(0, host.Wait()) << host.output();

    ASSERT_TRUE(WaitForRecordCount(host, "SetProperty Seen=2", 1)) << host.output();
    pid_t second = 0;
    ASSERT_TRUE(WaitUntil([&] {
        for (pid_t pid : ProcessesWithEnv("XDG_RUNTIME_DIR=" + host.dir())) {
            if (ProgramOf(pid) == "kavori-host") second = pid;
        }
        return second != 0;
    }));
    EXPECT_NE(first, second);
    struct Killer {
        pid_t pid;
        ~Killer() {
            if (pid > 0) {
                kill(pid, SIGKILL);
                waitpid(pid, nullptr, 0);
            }
            ReapOrphans();
        }
    } killer{second};

    // Only the new host and what it started remain: the first one's web
    // and network processes ended with it, its socket directory is gone.
    std::vector<pid_t> strays;
    EXPECT_TRUE(WaitUntil([&] {
        ReapOrphans();
        std::vector<pid_t> children = ChildrenOf(second);
        strays.clear();
        for (pid_t pid : ProcessesWithEnv("XDG_RUNTIME_DIR=" + host.dir())) {
            if (pid != second && std::find(children.begin(), children.end(), pid) == children.end()) {
                strays.push_back(pid);
            }
        }
        return strays.empty();
    })) << ProgramOf(strays.empty() ? 0 : strays[0]);
    EXPECT_EQ(1u, SocketDirectories(host.dir()).size());

    ASSERT_EQ(0, kill(second, SIGTERM));
    int status = -1;
    ASSERT_TRUE(WaitUntil([&] { return waitpid(second, &status, WNOHANG) == second; }));
    killer.pid = -1;
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_TRUE(SocketDirectories(host.dir()).empty());
    std::vector<pid_t> left;
    EXPECT_TRUE(WaitUntil([&] {
        ReapOrphans();
        left = ProcessesWithEnv("XDG_RUNTIME_DIR=" + host.dir());
        return left.empty();
    })) << ProgramOf(left.empty() ? 0 : left[0]);
    EXPECT_FALSE(FileExists(host.storePath()));  // ended by a signal, and the first by restart
}

}  // namespace
