// Installed library directory and window icon searches.  The fixed system
// places (/usr/bin/kvo, /etc/kvo) are what the searches fall back to; they
// are only read here, to know what to expect.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "app/paths.h"
#include "tests/app/app_test_support.h"
#include "tests/support/support.h"

using kvotest::SaveArgs;
using kvotest::TempDir;
using kvotest::WriteFile;

namespace {

bool Exists(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

void MakeDirs(const std::string& path) {
    std::string command = "mkdir -p '" + path + "'";
    ASSERT_EQ(0, system(command.c_str()));
}

// What the search gives when no per-user program is found.
std::string SystemLibraryDirectory() { return Exists("/usr/bin/kvo") ? "/usr/lib" : ""; }

std::string FindLibraryDirectory(uint32_t size = 256) {
    char out[256];
    memset(out, 'j', sizeof out);
    bool found = FindInstalledLibraryDirectory(out, size);
    EXPECT_EQ(found, out[0] != '\0');
    return out;
}

TEST(InstalledLibraryDirectory, PerUserProgramGivesItsLibDirectory) {
    kvotest::FreshHome fresh;
    const std::string home = fresh.path();
    MakeDirs(home + "/.kvo/bin");
    WriteFile(home + "/.kvo/bin/kvo", "", 0755);
    EXPECT_EQ(home + "/.kvo/lib", FindLibraryDirectory());
    // Too small for the result: nothing, not a cut path.
    uint32_t exact = static_cast<uint32_t>(home.size() + 9);
    EXPECT_EQ("", FindLibraryDirectory(exact));
    EXPECT_EQ(home + "/.kvo/lib", FindLibraryDirectory(exact + 1));
}

TEST(InstalledLibraryDirectory, WithoutPerUserProgram) {
    kvotest::FreshHome home;
    EXPECT_EQ(SystemLibraryDirectory(), FindLibraryDirectory());
    unsetenv("HOME");
    EXPECT_EQ(SystemLibraryDirectory(), FindLibraryDirectory());
    setenv("HOME", "", 1);  // the candidate becomes /.kvo/bin/kvo
    EXPECT_EQ(Exists("/.kvo/bin/kvo") ? "/.kvo/lib" : SystemLibraryDirectory(), FindLibraryDirectory());
}

TEST(InstalledLibraryDirectory, HomeTooLongForThePathBufferIsNotTried) {
    kvotest::FreshHome home;
    TempDir base;
    // "/.kvo/bin/kvo" is 13 bytes: a HOME of 242 bytes still fits in 256.
    std::string fits = base.path() + "/";
    fits += std::string(242 - fits.size(), 'h');
    std::string tooLong = fits + "h";
    for (const std::string& home : {fits, tooLong}) {
        MakeDirs(home + "/.kvo/bin");
        ASSERT_TRUE(WriteFile(home + "/.kvo/bin/kvo", "", 0755));
    }
    setenv("HOME", fits.c_str(), 1);
    EXPECT_EQ(fits + "/.kvo/lib", FindLibraryDirectory());
    setenv("HOME", tooLong.c_str(), 1);
    EXPECT_EQ(SystemLibraryDirectory(), FindLibraryDirectory());
}

class WindowIcon : public testing::Test {
protected:
    void SetUp() override {
        MakeDirs(m_exe.path() + "/bin");
        SaveArgs({m_exe.path() + "/bin/kavori-host", "-url", "x", "-root", m_root.path()});
    }
    std::string Find() {
        char out[256];
        memset(out, 'j', sizeof out);
        bool found = FindWindowIcon(out, sizeof out);
        EXPECT_EQ(found, out[0] != '\0');
        return out;
    }
    std::string SystemIcon() { return Exists("/etc/kvo/kvo.ico") ? "/etc/kvo/kvo.ico" : ""; }

    kvotest::FreshHome m_fresh;
    TempDir m_exe;
    TempDir m_root;
    std::string m_home = m_fresh.path();
};

TEST_F(WindowIcon, BesideExecutableThenRootThenHome) {
    const std::string beside = m_exe.path() + "/bin/kvo.ico";
    const std::string inRoot = m_root.file("kvo.ico");
    const std::string perUser = m_home + "/.kvo/kvo.ico";
    MakeDirs(m_home + "/.kvo");
    for (const std::string& icon : {beside, inRoot, perUser}) WriteFile(icon, "icon");

    EXPECT_EQ(beside, Find());
    unlink(beside.c_str());
    EXPECT_EQ(inRoot, Find());
    unlink(inRoot.c_str());
    EXPECT_EQ(perUser, Find());
    unsetenv("HOME");
    EXPECT_EQ(SystemIcon(), Find());
}

TEST_F(WindowIcon, BareProgramNameHasNoDirectory) {
    // A kvo.ico in the working directory is not "beside" a bare name.
    TempDir cwd;
    WriteFile(cwd.file("kvo.ico"), "icon");
    ASSERT_EQ(0, chdir(cwd.path().c_str()));
    SaveArgs({"kavori-host", "-root", m_root.path()});
    WriteFile(m_root.file("kvo.ico"), "icon");
    EXPECT_EQ(m_root.file("kvo.ico"), Find());
}

}  // namespace
