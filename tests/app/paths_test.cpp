// The installed library directory and the window icon searches; the system
// places are only read here (namespace_test.cpp fills them).
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>

#include "app/paths.h"
#include "tests/app/app_test_support.h"

using namespace kvotest;

namespace {

// The search's answer in a buffer of size bytes, checked against its result.
std::string Found(bool (*find)(char*, uint32_t), uint32_t size = 256) {
    char out[256];
    memset(out, 'j', sizeof out);
    bool found = find(out, size);
    EXPECT_EQ(found, out[0] != '\0');
    return out;
}

std::string SystemLibraryDirectory() { return FileExists("/usr/bin/kvo") ? "/usr/lib" : ""; }

TEST(InstalledLibraryDirectory, PerUserProgramElseTheSystemOne) {
    EXPECT_EQ(Found(FindInstalledLibraryDirectory), SystemLibraryDirectory());
    PutFile(Home("/.kvo/bin/kvo"), "", 0755);
    EXPECT_EQ(Found(FindInstalledLibraryDirectory), Home("/.kvo/lib"));
    // Too small for the result: nothing, not a cut path.
    uint32_t exact = static_cast<uint32_t>(Home().size() + 9);
    EXPECT_EQ(Found(FindInstalledLibraryDirectory, exact), "");
    EXPECT_EQ(Found(FindInstalledLibraryDirectory, exact + 1), Home("/.kvo/lib"));
    unsetenv("HOME");
    EXPECT_EQ(Found(FindInstalledLibraryDirectory), SystemLibraryDirectory());
    setenv("HOME", "", 1);  // the candidate becomes /.kvo/bin/kvo
    EXPECT_EQ(Found(FindInstalledLibraryDirectory),
              FileExists("/.kvo/bin/kvo") ? "/.kvo/lib" : SystemLibraryDirectory());
}

TEST(InstalledLibraryDirectory, HomeTooLongForThePathBufferIsNotTried) {
    // "/.kvo/bin/kvo" is 13 bytes: a HOME of 242 bytes still fits in 256.
    std::string fits = Home("/") + std::string(241 - Home().size(), 'h'), tooLong = fits + "h";
    for (const std::string& candidate : {fits, tooLong}) ASSERT_TRUE(PutFile(candidate + "/.kvo/bin/kvo", "", 0755));
    setenv("HOME", fits.c_str(), 1);
    EXPECT_EQ(Found(FindInstalledLibraryDirectory), fits + "/.kvo/lib");
    setenv("HOME", tooLong.c_str(), 1);
    EXPECT_EQ(Found(FindInstalledLibraryDirectory), SystemLibraryDirectory());
}

TEST(WindowIcon, BesideExecutableThenRootThenHomeThenSystem) {
    TempDir exe, root;
    SaveArgs({exe.file("bin/kavori-host"), "-url", "x", "-root", root.path()});
    const std::string beside = exe.file("bin/kvo.ico"), inRoot = root.file("kvo.ico"), perUser = Home("/.kvo/kvo.ico");
    for (const std::string& icon : {beside, inRoot, perUser}) PutFile(icon, "icon");
    for (const std::string& icon : {beside, inRoot, perUser}) {
        EXPECT_EQ(Found(FindWindowIcon), icon);
        unlink(icon.c_str());
    }
    EXPECT_EQ(Found(FindWindowIcon), FileExists("/etc/kvo/kvo.ico") ? "/etc/kvo/kvo.ico" : "");
    // A bare program name has no directory: a kvo.ico in the working
    // directory is not beside it.
    PutFile(exe.file("kvo.ico"), "icon");
    ASSERT_EQ(chdir(exe.path().c_str()), 0);
    SaveArgs({"kavori-host", "-root", root.path()});
    PutFile(inRoot, "icon");
    EXPECT_EQ(Found(FindWindowIcon), inRoot);
}

}  // namespace
