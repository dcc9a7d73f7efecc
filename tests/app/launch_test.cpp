// Maintenance scripts run by the host's code in the test process with a short
// wait: where each is found, its own session, reaping at the first poll.
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "bridge/launch.h"
#include "tests/app/real_window.h"

using namespace kvotest;

namespace {

std::string Home(const std::string& name) { return std::string(getenv("HOME")) + "/.kvo/" + name; }

// Runs the script with one poll after half a second (long enough for a
// script that ends at once), then reads its probe, which must be all.
Probe RunOnce(const char* name, bool search, const std::string& probePath) {
    RunMaintenanceScriptWaiting(name, search, 500000, 1, 0);
    errno = 0;
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);  // reaped: no child left
    EXPECT_EQ(errno, ECHILD);
    Probe probe;
    EXPECT_TRUE(ReadProbe(probePath, &probe)) << probePath;
    EXPECT_EQ(probe.sid, probe.pid);  // a session and process group of its own
    EXPECT_EQ(probe.pgid, probe.pid);
    EXPECT_NE(probe.sid, static_cast<long>(getsid(0)));
    return probe;
}

TEST(MaintenanceScript, OneThatEndsAtOnceIsReapedAtTheFirstPoll) {
    TempDir out, work;
    PutFile(Home("repair"), ProbeScript(out.file("home")), 0755);
    PutFile(work.file(".repair"), ProbeScript(out.file("work")), 0755);
    ASSERT_EQ(chdir(work.path().c_str()), 0);
    // Searching: the per-user script, without arguments.
    Probe probe = RunOnce("repair", true, out.file("home"));
    EXPECT_EQ(probe.path, Home("repair"));
    EXPECT_TRUE(probe.args.empty());
    EXPECT_FALSE(FileExists(out.file("work")));
    // Not searching: a dot and the name in the working directory.
    EXPECT_EQ(RunOnce("repair", false, out.file("work")).path, ".repair");
}

TEST(MaintenanceScript, OneThatOutlivesTheWaitIsLeftRunning) {
    TempDir out;
    PutFile(Home("uninstall"), ProbeScript(out.file("probe"), "exec sleep 60"), 0755);
    RunMaintenanceScriptWaiting("uninstall", true, 0, 3, 20000);
    Probe probe;
    ASSERT_TRUE(PollUntil([&] { return ReadProbe(out.file("probe"), &probe); }));
    EXPECT_EQ(probe.sid, probe.pid);
    pid_t pid = static_cast<pid_t>(probe.pid);
    EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), 0);  // neither killed nor reaped
    EXPECT_EQ(kill(pid, 0), 0);
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

TEST(MaintenanceScript, SystemDirectoryWhenTheUserHasNone) {
    // /etc/kvo for this test process alone: a mount namespace of its own,
    // nothing propagated, an overlay on /etc.  Nothing is written before.
    char outer[256] = {0}, inner[256] = {0};
    if (readlink("/proc/self/ns/mnt", outer, sizeof outer - 1) <= 0 || unshare(CLONE_NEWNS) != 0 ||
        readlink("/proc/self/ns/mnt", inner, sizeof inner - 1) <= 0 || std::string(inner) == outer ||
        mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        SkipTest("no private mount namespace");
    }
    TempDir layers, out;
    MakeDirs(layers.file("upper"));
    MakeDirs(layers.file("work"));
    std::string options = "lowerdir=/etc,upperdir=" + layers.file("upper") + ",workdir=" + layers.file("work");
    if (mount("overlay", "/etc", "overlay", 0, options.c_str()) != 0) SkipTest("no overlay mount on /etc");
    PutFile("/etc/kvo/uninstall", ProbeScript(out.file("system")), 0755);
    EXPECT_EQ(RunOnce("uninstall", true, out.file("system")).path, "/etc/kvo/uninstall");
    PutFile(Home("uninstall"), ProbeScript(out.file("home")), 0755);  // a per-user one wins
    EXPECT_EQ(RunOnce("uninstall", true, out.file("home")).path, Home("uninstall"));
    umount("/etc");
}

}  // namespace
