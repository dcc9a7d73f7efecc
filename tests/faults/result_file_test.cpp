// The result file: a place it cannot be written to leaves nothing and
// reports nothing, and the host still ends with 0; a result text of any
// characters is written as its exact UTF-8 bytes, nothing added.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/faults/fault_support.h"
#include "tests/support/support.h"

using namespace kvotest;

namespace {

bool Has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

void PutUtf8(std::string* out, uint32_t c) {
    if (c < 0x80) {
        out->push_back(static_cast<char>(c));
    } else if (c < 0x800) {
        out->push_back(static_cast<char>(0xC0 | (c >> 6)));
        out->push_back(static_cast<char>(0x80 | (c & 0x3F)));
    } else if (c < 0x10000) {
        out->push_back(static_cast<char>(0xE0 | (c >> 12)));
        out->push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
        out->push_back(static_cast<char>(0x80 | (c & 0x3F)));
    } else {
        out->push_back(static_cast<char>(0xF0 | (c >> 18)));
        out->push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
        out->push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
        out->push_back(static_cast<char>(0x80 | (c & 0x3F)));
    }
}

// What exit_text.html ends with, as UTF-8.
std::string ExitText() {
    std::string once;
    for (uint32_t c = 1; c < 0x100; ++c) PutUtf8(&once, c);
    for (uint32_t c : {0x800u, 0x20ACu, 0xFFFFu, 0x1F600u, 0x10FFFFu}) PutUtf8(&once, c);
    once += "\r\nend";
    std::string text;
    for (int i = 0; i < 3000; ++i) text += once;
    return text;
}

class ResultFile : public testing::Test {
protected:
    void SetUp() override {
        if (!m_x.ok()) SkipTest("no Xvfb");
    }
    // Runs exit_text.html?<mode> with -store path to its end.
    int Run(HostProcess& host, const std::string& mode, const std::string& path) {
        if (!host.Start({"-url", FaultPageUrl("exit_text.html", mode), "-root", RecordingPluginDir(), "-store", path}))
            return -1;
        return host.Wait(30000);
    }
    XServer m_x;
};

TEST_F(ResultFile, AnyTextIsWrittenAsItsExactBytes) {
    HostProcess asResult(m_x), asSuccess(m_x);
    ASSERT_TRUE(asResult.Start({"-url", FaultPageUrl("exit_text.html", "result"), "-root", RecordingPluginDir(),
                                "-store", asResult.storePath()}));
    ASSERT_TRUE(asSuccess.Start({"-url", FaultPageUrl("exit_text.html", "success"), "-root", RecordingPluginDir(),
                                 "-store", asSuccess.storePath()}));
    ASSERT_EQ(0, asResult.Wait(30000)) << asResult.output();
    ASSERT_EQ(0, asSuccess.Wait(30000)) << asSuccess.output();
    std::string expected = ExitText();
    std::string written;
    ASSERT_TRUE(ReadFile(asResult.storePath(), &written));
    EXPECT_EQ(expected.size(), written.size());
    EXPECT_TRUE(expected == written);  // not printed: a megabyte of control characters
    ASSERT_TRUE(ReadFile(asSuccess.storePath(), &written));
    EXPECT_TRUE(expected == written);
}

TEST_F(ResultFile, AMissingDirectoryOrANonDirectoryGetsNothingAndExitIsZero) {
    HostProcess missing(m_x), underFile(m_x);
    std::string missingPath = missing.dir() + "/absent/result.txt";
    ASSERT_TRUE(WriteFile(underFile.dir() + "/plain", "a file, not a directory"));
    std::string underFilePath = underFile.dir() + "/plain/result.txt";

    EXPECT_EQ(0, Run(missing, "plain", missingPath)) << missing.output();
    EXPECT_EQ(0, Run(underFile, "plain", underFilePath)) << underFile.output();
    EXPECT_FALSE(FileExists(missing.dir() + "/absent"));
    EXPECT_EQ("a file, not a directory", ReadFileOr(underFile.dir() + "/plain"));
    // Nothing reported: the host names neither the file nor a failure.
    for (HostProcess* host : {&missing, &underFile}) {
        EXPECT_FALSE(Has(host->output(), "result.txt")) << host->output();
        EXPECT_TRUE(SocketDirectories(host->dir()).empty());
    }
}

// A directory made read-only for this test process and its children: a
// read-only bind mount in a mount namespace of its own when root (for whom
// mode bits do not count), mode 0555 otherwise.
class ReadOnlyDirectory {
public:
    explicit ReadOnlyDirectory(const std::string& path) : m_path(path) {
        mkdir(path.c_str(), 0755);
        if (geteuid() != 0) {
            m_ok = chmod(path.c_str(), 0555) == 0;
        } else if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
            m_why = std::string("no private mount namespace: ") + strerror(errno);
        } else if (mount(path.c_str(), path.c_str(), nullptr, MS_BIND, nullptr) != 0 ||
                   mount(nullptr, path.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) != 0) {
            m_why = std::string("no read-only bind mount: ") + strerror(errno);
        } else {
            m_mounted = true;
            m_ok = true;
        }
        // It must really refuse us, or the test proves nothing.
        std::string probe = path + "/probe";
        int fd = m_ok ? open(probe.c_str(), O_WRONLY | O_CREAT, 0644) : -1;
        if (fd >= 0) {
            close(fd);
            unlink(probe.c_str());
            m_ok = false;
            m_why = "the directory is still writable";
        }
    }
    ~ReadOnlyDirectory() {
        if (m_mounted) umount2(m_path.c_str(), MNT_DETACH);
        chmod(m_path.c_str(), 0755);
    }
    bool ok() const { return m_ok; }
    const std::string& why() const { return m_why; }

private:
    std::string m_path;
    std::string m_why;
    bool m_ok = false;
    bool m_mounted = false;
};

TEST_F(ResultFile, AReadOnlyDirectoryGetsNothingAndExitIsZero) {
    HostProcess host(m_x);
    std::string directory = host.dir() + "/readonly";
    ReadOnlyDirectory readOnly(directory);
    if (!readOnly.ok()) SkipTest("cannot make a read-only directory: " + readOnly.why());
    EXPECT_EQ(0, Run(host, "plain", directory + "/result.txt")) << host.output();
    EXPECT_FALSE(FileExists(directory + "/result.txt"));
    EXPECT_FALSE(Has(host.output(), "result.txt")) << host.output();
    EXPECT_TRUE(SocketDirectories(host.dir()).empty());
}

}  // namespace
