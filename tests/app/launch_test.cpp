// Maintenance scripts run by the host's own code in the test process, with
// a shortened wait: where the script is found, that it runs in a session of
// its own, that one which has ended is reaped at the first poll, and that
// one which outlives the wait is left running.
#include <gtest/gtest.h>
#include <limits.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "bridge/launch.h"
#include "tests/app/real_window.h"
#include "tests/support/support.h"

using namespace kvotest;

namespace {

// Long enough for a script that ends at once to have ended, even on a
// busy machine; the test asserts what the wait found, not how long it took.
constexpr uint32_t kFirstSleepUs = 500000;

std::string Home() { return getenv("HOME"); }

// The script's child has been reaped: the test process has no child left.
::testing::AssertionResult NoChildLeft() {
    errno = 0;
    pid_t r = waitpid(-1, nullptr, WNOHANG);
    if (r == -1 && errno == ECHILD) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "waitpid gave " << r << " (errno " << errno << ")";
}

void ExpectOwnSession(const Probe& probe) {
    EXPECT_EQ(probe.sid, probe.pid);
    EXPECT_EQ(probe.pgid, probe.pid);
    EXPECT_NE(probe.sid, static_cast<long>(getsid(0)));
}

TEST(MaintenanceScript, OneThatEndsAtOnceIsReapedAtTheFirstPoll) {
    TempDir out, work;
    PutFile(Home() + "/.kvo/repair", ProbeScript(out.file("home")), 0755);
    PutFile(work.file(".repair"), ProbeScript(out.file("work")), 0755);
    ASSERT_EQ(chdir(work.path().c_str()), 0);

    // Searching: the per-user script; one poll, so only the first can reap it.
    RunMaintenanceScriptWaiting("repair", true, kFirstSleepUs, 1, 0);
    EXPECT_TRUE(NoChildLeft());
    Probe probe;
    ASSERT_TRUE(ReadProbe(out.file("home"), &probe));
    EXPECT_EQ(probe.path, Home() + "/.kvo/repair");
    EXPECT_TRUE(probe.args.empty());
    ExpectOwnSession(probe);
    EXPECT_FALSE(FileExists(out.file("work")));

    // Not searching: a dot and the name in the working directory, although
    // the per-user one exists.
    RunMaintenanceScriptWaiting("repair", false, kFirstSleepUs, 1, 0);
    EXPECT_TRUE(NoChildLeft());
    ASSERT_TRUE(ReadProbe(out.file("work"), &probe));
    EXPECT_EQ(probe.path, ".repair");
    ExpectOwnSession(probe);
}

TEST(MaintenanceScript, OneThatOutlivesTheWaitIsLeftRunning) {
    TempDir out;
    PutFile(Home() + "/.kvo/uninstall", ProbeScript(out.file("probe"), "exec sleep 60"), 0755);

    RunMaintenanceScriptWaiting("uninstall", true, 0, 3, 20000);

    ASSERT_TRUE(WaitForFile(out.file("probe")));
    Probe probe;
    ASSERT_TRUE(ReadProbe(out.file("probe"), &probe));
    pid_t pid = static_cast<pid_t>(probe.pid);
    ExpectOwnSession(probe);
    // Neither killed nor reaped: still our running child.
    int status = 0;
    EXPECT_EQ(waitpid(pid, &status, WNOHANG), 0);
    EXPECT_EQ(kill(pid, 0), 0);

    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
}

TEST(MaintenanceScript, SystemDirectoryWhenTheUserHasNone) {
    // /etc/kvo is given to this test process alone: a mount namespace of
    // its own with an overlay on /etc.
    char outer[PATH_MAX] = {0}, inner[PATH_MAX] = {0};
    if (readlink("/proc/self/ns/mnt", outer, sizeof outer - 1) <= 0) SkipTest("no /proc/self/ns/mnt");
    if (unshare(CLONE_NEWNS) != 0) SkipTest("no mount namespace of its own");
    if (readlink("/proc/self/ns/mnt", inner, sizeof inner - 1) <= 0 || std::string(inner) == outer) {
        SkipTest("the mount namespace did not change");
    }
    if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) SkipTest("cannot make the mounts private");
    TempDir layers, out;
    PutFile(layers.file("upper/kvo/uninstall"), ProbeScript(out.file("system")), 0755);
    mkdir(layers.file("work").c_str(), 0700);
    std::string options = "lowerdir=/etc,upperdir=" + layers.file("upper") + ",workdir=" + layers.file("work");
    if (mount("overlay", "/etc", "overlay", 0, options.c_str()) != 0) SkipTest("no overlay mount on /etc");

    RunMaintenanceScriptWaiting("uninstall", true, kFirstSleepUs, 1, 0);
    EXPECT_TRUE(NoChildLeft());
    Probe probe;
    ASSERT_TRUE(ReadProbe(out.file("system"), &probe));
    EXPECT_EQ(probe.path, "/etc/kvo/uninstall");

    // With a per-user script as well, that one wins.
    PutFile(Home() + "/.kvo/uninstall", ProbeScript(out.file("home")), 0755);
    RunMaintenanceScriptWaiting("uninstall", true, kFirstSleepUs, 1, 0);
    EXPECT_TRUE(NoChildLeft());
    ASSERT_TRUE(ReadProbe(out.file("home"), &probe));
    EXPECT_EQ(probe.path, Home() + "/.kvo/uninstall");
    umount("/etc");
}

}  // namespace
