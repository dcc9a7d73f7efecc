// The host as it ships, unpacked from its Debian package or installed to a
// prefix: each copy finds its web extension and reaches the plug-in.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <sstream>

#include "tests/support/host_runner.h"
#include "tests/support/support.h"

namespace kvotest {
namespace {

// Runs the host copy on a page that sets, reads and invokes through the
// recording plug-in, with nothing in the environment pointing at the build
// tree, and checks the answers and the plug-in's record.
void ExpectPluginReached(const std::string& host, const TempDir& dir) {
    XServer x;
    ASSERT_TRUE(x.ok()) << "no Xvfb";
    mkdir(dir.file("home").c_str(), 0700);
    std::string out;
    int status = RunProcess({host, "-url", "file://" + SourceDir() + "/tests/examples/pages/plugin_calls.html", "-root",
                             RecordingPluginDir(), "-store", dir.file("result.txt")},
                            {"DISPLAY=" + x.display(), "HOME=" + dir.file("home"), "XDG_RUNTIME_DIR=" + dir.path(),
                             "KVO_TEST_RECORD=" + dir.file("record.txt"), "LD_LIBRARY_PATH", "WAYLAND_DISPLAY"},
                            30000, &out);
    ASSERT_EQ(status, 0) << out;
    EXPECT_EQ(ReadFileOr(dir.file("result.txt"), "<no result>"), "packaged 42") << out;
    std::vector<std::string> record = ReadLines(dir.file("record.txt"));
    for (const char* line : {"GetProperty Holder", "Invoke 42"}) {
        EXPECT_NE(std::find(record.begin(), record.end(), line), record.end()) << line;
    }
}

TEST(Package, DebianPackageHoldsTheHostAndRunsUnpacked) {
    if (!FileExists("/usr/bin/dpkg-deb")) SkipTest("dpkg-deb missing");
    TempDir dir;
    std::string out, deb;
    ASSERT_EQ(0, RunProcess({"/bin/sh", "-c", "cd '" + BuildDir() + "' && cpack -G DEB -B '" + dir.file("out") +
                                                  "' >&2 && ls '" + dir.file("out") + "'/*.deb"},
                            {}, 150000, &out))
        << out;
    deb = out.substr(out.rfind('\n', out.size() - 2) + 1);
    deb.pop_back();
    auto dpkg = [&](std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), "/usr/bin/dpkg-deb");
        out.clear();
        return RunProcess(arguments, {}, 20000, &out);
    };
    // The host and its web extension, nothing else.
    ASSERT_EQ(0, dpkg({"--contents", deb})) << out;
    std::vector<std::string> files;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty() && line[0] != 'd') files.push_back(line.substr(line.rfind(' ') + 1));  // no directories
    }
    std::sort(files.begin(), files.end());
    EXPECT_EQ(files, (std::vector<std::string>{"./usr/bin/kavori-host", "./usr/lib/kavori/kavori-web-extension.so"}));
    ASSERT_EQ(0, dpkg({"--field", deb, "Package", "Depends"})) << out;
    EXPECT_NE(out.find("Package: kavori-host"), std::string::npos);
    for (const char* dependency : {"libgtk-3-0", "libwebkit2gtk-4.1-0", "libglib2.0-0", "libc6"}) {
        EXPECT_NE(out.find(std::string(" ") + dependency), std::string::npos) << out;
    }
    ASSERT_EQ(0, dpkg({"-x", deb, dir.file("root")})) << out;
    ExpectPluginReached(dir.file("root/usr/bin/kavori-host"), dir);
}

TEST(Package, InstalledCopyRunsFromItsPrefix) {
    TempDir dir;
    std::string prefix = dir.file("some prefix"), out;
    ASSERT_EQ(0, RunProcess({"/usr/bin/env", "cmake", "--install", BuildDir(), "--prefix", prefix}, {}, 60000, &out))
        << out;
    EXPECT_TRUE(FileExists(prefix + "/lib/kavori/kavori-web-extension.so"));
    ExpectPluginReached(prefix + "/bin/kavori-host", dir);
}

}  // namespace
}  // namespace kvotest
