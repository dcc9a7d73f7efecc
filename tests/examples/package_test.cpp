// The host as it ships: the Debian package built from this tree, unpacked
// (not installed), and a `cmake --install` to some prefix.  Either copy must
// find its web extension by itself and reach the plug-in from a page.
#include <dirent.h>
#include <sys/stat.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <string>

#include "tests/support/host_runner.h"
#include "tests/support/support.h"

namespace kvotest {
namespace {

std::string Quoted(const std::string& text) { return "'" + text + "'"; }

// Runs the host at the given path on a page that sets, reads and invokes
// through the recording plug-in; returns the result file's text, and the
// plug-in's record in *record.
std::string RunCopy(const std::string& host, const TempDir& dir, std::vector<std::string>* record) {
    XServer x;
    if (!x.ok()) return "<no Xvfb>";
    std::string home = dir.file("home");
    mkdir(home.c_str(), 0700);
    std::string out;
    // Nothing in the environment points at the build tree.
    int status = RunProcess({host, "-url", "file://" + SourceDir() + "/tests/examples/pages/plugin_calls.html", "-root",
                             RecordingPluginDir(), "-store", dir.file("result.txt")},
                            {"DISPLAY=" + x.display(), "HOME=" + home, "XDG_RUNTIME_DIR=" + dir.path(),
                             "KVO_TEST_RECORD=" + dir.file("record.txt"), "LD_LIBRARY_PATH", "WAYLAND_DISPLAY"},
                            30000, &out);
    *record = ReadLines(dir.file("record.txt"));
    if (status != 0) return "<status " + std::to_string(status) + "> " + out;
    return ReadFileOr(dir.file("result.txt"), "<no result> " + out);
}

void ExpectPluginReached(const std::string& result, const std::vector<std::string>& record) {
    EXPECT_EQ("packaged 42", result);
    auto has = [&](const std::string& line) { return std::find(record.begin(), record.end(), line) != record.end(); };
    EXPECT_TRUE(has("GetProperty Holder"));
    EXPECT_TRUE(has("Invoke 42"));
}

std::string FindDeb(const std::string& directory) {
    DIR* dir = opendir(directory.c_str());
    if (!dir) return "";
    std::string found;
    while (struct dirent* entry = readdir(dir)) {
        std::string name = entry->d_name;
        if (name.size() > 4 && name.compare(name.size() - 4, 4, ".deb") == 0) found = directory + "/" + name;
    }
    closedir(dir);
    return found;
}

TEST(Package, DebianPackageHoldsTheHostAndRunsUnpacked) {
    if (!FileExists("/usr/bin/dpkg-deb")) SkipTest("dpkg-deb missing");
    TempDir dir;
    std::string out;
    ASSERT_EQ(0, RunProcess({"/bin/sh", "-c",
                             "cd " + Quoted(BuildDir()) + " && cpack -G DEB -B " + Quoted(dir.file("out"))},
                            {}, 150000, &out))
        << out;
    std::string deb = FindDeb(dir.file("out"));
    ASSERT_FALSE(deb.empty()) << out;

    // The host and its web extension, nothing else.
    std::string contents;
    ASSERT_EQ(0, RunProcess({"/usr/bin/dpkg-deb", "--contents", deb}, {}, 20000, &contents)) << contents;
    std::vector<std::string> files;
    std::istringstream lines(contents);
    std::string line;
    while (std::getline(lines, line)) {
        if (line.empty() || line[0] == 'd') continue;  // directories
        files.push_back(line.substr(line.rfind(' ') + 1));
    }
    std::sort(files.begin(), files.end());
    EXPECT_EQ((std::vector<std::string>{"./usr/bin/kavori-host", "./usr/lib/kavori/kavori-web-extension.so"}), files);

    std::string fields;
    ASSERT_EQ(0, RunProcess({"/usr/bin/dpkg-deb", "--field", deb, "Package", "Depends"}, {}, 20000, &fields))
        << fields;
    EXPECT_NE(std::string::npos, fields.find("Package: kavori-host"));
    for (const char* dependency : {"libgtk-3-0", "libwebkit2gtk-4.1-0", "libglib2.0-0", "libc6"}) {
        EXPECT_NE(std::string::npos, fields.find(std::string(" ") + dependency)) << fields;
    }

    std::string root = dir.file("root");
    std::string unpacked;
    ASSERT_EQ(0, RunProcess({"/usr/bin/dpkg-deb", "-x", deb, root}, {}, 20000, &unpacked)) << unpacked;
    std::vector<std::string> record;
    std::string result = RunCopy(root + "/usr/bin/kavori-host", dir, &record);
    ExpectPluginReached(result, record);
}

TEST(Package, InstalledCopyRunsFromItsPrefix) {
    TempDir dir;
    std::string prefix = dir.file("some prefix");
    std::string out;
    ASSERT_EQ(0, RunProcess({"/usr/bin/env", "cmake", "--install", BuildDir(), "--prefix", prefix}, {}, 60000, &out))
        << out;
    EXPECT_TRUE(FileExists(prefix + "/bin/kavori-host"));
    EXPECT_TRUE(FileExists(prefix + "/lib/kavori/kavori-web-extension.so"));
    std::vector<std::string> record;
    std::string result = RunCopy(prefix + "/bin/kavori-host", dir, &record);
    ExpectPluginReached(result, record);
}

}  // namespace
}  // namespace kvotest
