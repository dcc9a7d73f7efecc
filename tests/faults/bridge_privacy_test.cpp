// The bridge is for the host's own web processes only: its directory is
// private and named in no command line or environment, another user's
// process is turned away, hostile bytes close only their own connection,
// and page script finds nothing of the channel but the Kavori functions.
#include <errno.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>

#include "bridge/channel.h"
#include "tests/faults/fault_support.h"
#include "tests/support/support.h"

using namespace kvotest;

namespace {

bool Has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

class BridgePrivacy : public testing::Test {
protected:
    void SetUp() override {
        if (!m_x.ok()) SkipTest("no Xvfb");
    }
    // Starts the host on the page and returns its socket directory once
    // the page runs ("" when there is not exactly one).
    std::string StartOn(HostProcess& host, const std::string& page) {
        if (!host.Start({"-url", FaultPageUrl(page), "-root", RecordingPluginDir(), "-store", host.storePath()}) ||
            !WaitForRecordCount(host, "SetProperty Seen=1", 1)) {
            return "";
        }
        std::vector<std::string> directories = SocketDirectories(host.dir());
        return directories.size() == 1 ? directories[0] : "";
    }
    XServer m_x;
};

int Connect(const std::string& path) {
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address;
    memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, path.data(), std::min(path.size(), sizeof address.sun_path - 1));
    if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// True when the host closes the connection (end of stream or reset)
// without having sent a byte, within a bounded wait.
bool ClosedWithoutAnswer(int fd) {
    struct pollfd p = {fd, POLLIN, 0};
    if (poll(&p, 1, 10000) <= 0) return false;
    char byte;
    ssize_t n = recv(fd, &byte, 1, MSG_DONTWAIT);
    return n == 0 || (n < 0 && errno == ECONNRESET);
}

TEST_F(BridgePrivacy, TheSocketDirectoryIsPrivateAndNamedNowhere) {
    HostProcess host(m_x);
    std::string directory = StartOn(host, "poll.html");
    ASSERT_NE("", directory) << host.output();
    struct stat st;
    ASSERT_EQ(0, lstat(directory.c_str(), &st));
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(0700u, st.st_mode & 07777);
    EXPECT_EQ(geteuid(), st.st_uid);
    ASSERT_EQ(0, lstat((directory + "/bridge").c_str(), &st));
    EXPECT_TRUE(S_ISSOCK(st.st_mode));

    // The path reaches the web process only through WebKit's start-up data:
    // no command line or environment of any process names it.
    std::string name = directory.substr(directory.rfind('/') + 1);
    std::vector<pid_t> web = WebProcessesOf(host.pid());
    EXPECT_EQ(1u, web.size());
    for (pid_t pid : AllProcesses()) {
        EXPECT_FALSE(Has(CmdlineOf(pid), name)) << pid << " " << ProgramOf(pid);
        EXPECT_FALSE(Has(EnvironOf(pid), name)) << pid << " " << ProgramOf(pid);
    }
    WriteFile(host.answersPath(), "Go\tyes\n");
    ASSERT_EQ(0, host.Wait()) << host.output();
    EXPECT_EQ("served", ReadFileOr(host.storePath(), "<no file>"));
}

TEST_F(BridgePrivacy, AnotherUsersProcessIsTurnedAway) {
    if (geteuid() != 0) SkipTest("needs root to act as another user");
    HostProcess host(m_x);
    std::string directory = StartOn(host, "poll.html");
    ASSERT_NE("", directory) << host.output();
    std::string socketPath = directory + "/bridge";
    // As nobody: first through the private directory, then with the
    // directory and socket opened up, so the host's own uid check answers.
    auto asNobody = [&]() -> int {
        pid_t child = fork();
        if (child == 0) {
            if (setgid(65534) != 0 || setuid(65534) != 0) _exit(2);
            int fd = Connect(socketPath);
            if (fd < 0) _exit(errno == EACCES ? 10 : 3);
            BridgeRequest hello;
            hello.op = BRIDGE_HELLO;
            hello.text[0] = std::string(kTokenSize, '\0');
            std::string frame = EncodeRequest(hello);
            send(fd, frame.data(), frame.size(), MSG_NOSIGNAL);
            _exit(ClosedWithoutAnswer(fd) ? 11 : 4);
        }
        int status = 0;
        waitpid(child, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    };
    EXPECT_EQ(10, asNobody());  // EACCES: the directory is 0700
    ASSERT_EQ(0, chmod(host.dir().c_str(), 0711));
    ASSERT_EQ(0, chmod(directory.c_str(), 0777));
    ASSERT_EQ(0, chmod(socketPath.c_str(), 0777));
    EXPECT_EQ(11, asNobody());  // connected, then closed unanswered
    chmod(directory.c_str(), 0700);
    chmod(host.dir().c_str(), 0700);

    WriteFile(host.answersPath(), "Go\tyes\n");
    ASSERT_EQ(0, host.Wait()) << host.output();
    EXPECT_EQ("served", ReadFileOr(host.storePath(), "<no file>"));
}

std::string Frame(uint32_t length, const std::string& body) {
    return std::string(reinterpret_cast<const char*>(&length), sizeof length) + body;
}

TEST_F(BridgePrivacy, HostileBytesCloseOnlyTheirOwnConnection) {
    HostProcess host(m_x);
    std::string directory = StartOn(host, "poll.html");
    ASSERT_NE("", directory) << host.output();
    std::string socketPath = directory + "/bridge";

    BridgeRequest wrongToken;
    wrongToken.op = BRIDGE_HELLO;
    wrongToken.text[0] = std::string(kTokenSize, 'k');
    BridgeRequest shortToken = wrongToken;
    shortToken.text[0] = std::string(kTokenSize - 1, 'k');
    BridgeRequest noHello;
    noHello.op = BRIDGE_GET_PROPERTY;
    noHello.argc = 1;
    noHello.text[0] = std::string("Attacker");
    BridgeRequest unknownOp = noHello;
    unknownOp.op = BRIDGE_OP_COUNT;
    std::string garbage;
    for (int i = 0; i < 64; ++i) garbage.push_back(static_cast<char>(i * 37 + 11));
    const std::vector<std::pair<std::string, std::string>> attacks = {
        {"garbage", garbage},
        {"zero length", Frame(0, "")},
        {"over the frame limit", Frame(kMaxFrameSize + 1, "x")},
        {"all ones length", Frame(0xFFFFFFFFu, "")},
        {"wrong token", EncodeRequest(wrongToken)},
        {"short token", EncodeRequest(shortToken)},
        {"request before hello", EncodeRequest(noHello)},
        {"unknown operation", EncodeRequest(unknownOp)},
        {"not a GVariant", Frame(5, "abcde")},
    };
    for (const auto& attack : attacks) {
        int fd = Connect(socketPath);
        ASSERT_GE(fd, 0) << attack.first;
        send(fd, attack.second.data(), attack.second.size(), MSG_NOSIGNAL);
        EXPECT_TRUE(ClosedWithoutAnswer(fd)) << attack.first;
        close(fd);
    }
    // A frame cut short, then gone; and a flood of silent connections,
    // kept open while the page is served.
    int cut = Connect(socketPath);
    ASSERT_GE(cut, 0);
    send(cut, "\x10\x00", 2, MSG_NOSIGNAL);
    close(cut);
    std::vector<int> flood;
    for (int i = 0; i < 100; ++i) flood.push_back(Connect(socketPath));
    EXPECT_TRUE(host.Running());

    WriteFile(host.answersPath(), "Go\tyes\n");
    ASSERT_EQ(0, host.Wait()) << host.output();
    EXPECT_EQ("served", ReadFileOr(host.storePath(), "<no file>"));
    for (int fd : flood) {
        if (fd >= 0) close(fd);
    }
    for (const std::string& line : host.Record()) EXPECT_FALSE(Has(line, "Attacker")) << line;
    EXPECT_TRUE(SocketDirectories(host.dir()).empty());
}

TEST_F(BridgePrivacy, PageScriptFindsNothingButTheKavoriFunctions) {
    // Everywhere (the default) and with the origins restricted, where a
    // srcdoc frame of the same page shows the globals without the bridge.
    for (bool restricted : {false, true}) {
        SCOPED_TRACE(restricted ? "KAVORI_TRUSTED_ORIGINS=file://" : "every origin");
        HostProcess host(m_x);
        if (restricted) host.AddEnv("KAVORI_TRUSTED_ORIGINS=file://");
        ASSERT_TRUE(host.Start({"-url", FaultPageUrl("enumerate.html"), "-root", RecordingPluginDir(), "-store",
                                host.storePath()}));
        ASSERT_EQ(0, host.Wait(30000)) << host.output();
        std::string all = ReadFileOr(host.storePath(), "<no file>");
        // The findings without the list of every global, which is long.
        std::string r = all.substr(0, all.find(",\"everything\""));
        const std::string names = "[\"Application\",\"EnumProperty\",\"GetProperty\",\"Invoke\",\"SetProperty\"]";
        EXPECT_TRUE(Has(r, "\"enumerable\":" + names)) << r;
        EXPECT_TRUE(Has(r, "\"own\":[]")) << r;
        EXPECT_TRUE(Has(r, "\"prototypeNames\":" + names) || Has(r, "\"prototypeNames\":[]")) << r;
        EXPECT_TRUE(Has(r, "\"prototypeSymbols\":0")) << r;
        EXPECT_TRUE(Has(r, "\"chain\":true")) << r;
        for (const char* name : {"Application", "EnumProperty", "GetProperty", "Invoke", "SetProperty"}) {
            EXPECT_TRUE(Has(r, std::string("\"") + name + ":function:function " + name + "() { [native code] }\""))
                << name << " " << r;
        }
        EXPECT_TRUE(Has(r, "\"webkit\":\"undefined\"")) << r;  // no script message handlers
        EXPECT_TRUE(Has(r, restricted ? "\"onlyHere\":[\"Kavori\"]" : "\"onlyHere\":[]")) << r;
        // Nothing the page can read names the socket's directory.
        EXPECT_TRUE(Has(all, "\"everything\":")) << r;
        EXPECT_FALSE(Has(all, host.dir() + "/kavori-"));
        EXPECT_FALSE(Has(all, "/bridge"));
    }
}

}  // namespace
