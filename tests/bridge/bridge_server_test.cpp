// The host's socket under hostile and broken peers.  The server runs on this
// thread's main loop; the peers run on another thread with bounded waits.
#include <gtest/gtest.h>
#include <glib.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <thread>

#include "bridge/bridge_server.h"
#include "tests/support/support.h"

namespace {

int g_handled = 0;

void EchoHandler(const BridgeRequest& request, BridgeReply* reply) {
    ++g_handled;
    if (request.text[0] && *request.text[0] == "big") {
        reply->text = std::string(1 << 20, 'b');
    } else if (request.text[0]) {
        reply->text = "echo:" + *request.text[0];
    }
    reply->code = request.op;
}

std::string SocketDirectory() { return BridgeSocketPath().substr(0, BridgeSocketPath().rfind('/')); }

class Peer {
public:
    Peer() {
        m_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        struct timeval tv = {5, 0};  // no peer waits for ever
        setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        setsockopt(m_fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
        struct sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        strncpy(address.sun_path, BridgeSocketPath().c_str(), sizeof address.sun_path - 1);
        connected = connect(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    }
    ~Peer() { close(m_fd); }
    bool connected = false;
    bool Send(const std::string& bytes) {
        return send(m_fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
    }
    bool Request(uint8_t op, const std::string& text) {
        BridgeRequest request;
        request.op = op;
        request.text[0] = text;
        return Send(EncodeRequest(request));
    }
    bool Hello(const std::string& token) { return Request(BRIDGE_HELLO, token); }
    bool Get(const std::string& name) { return Request(BRIDGE_GET_PROPERTY, name); }
    // The next reply's text is "echo:" + name; false on EOF, error or timeout.
    bool Echoes(const std::string& name) {
        BridgeReply reply;
        return Get(name) && Read(&reply) && reply.text == "echo:" + name;
    }
    bool Read(BridgeReply* reply) {
        char header[kFrameHeaderSize];
        if (recv(m_fd, header, sizeof header, MSG_WAITALL) != static_cast<ssize_t>(sizeof header)) return false;
        std::string body(ReadFrameLength(header), '\0');
        return recv(m_fd, &body[0], body.size(), MSG_WAITALL) == static_cast<ssize_t>(body.size()) &&
               DecodeReply(body.data(), body.size(), reply);
    }
    // The host closed the connection (with our bytes unread: a reset).
    bool Closed() {
        char c;
        ssize_t n = recv(m_fd, &c, 1, 0);
        return n == 0 || (n < 0 && errno == ECONNRESET);
    }

private:
    int m_fd = -1;
};

class BridgeServer : public testing::Test {
protected:
    void SetUp() override {
        setenv("XDG_RUNTIME_DIR", m_runtime.path().c_str(), 1);
        ASSERT_TRUE(BridgeServerStart(EchoHandler));
        StartupData data;
        BridgeFillStartupData(&data);
        m_token = data.token;
        ASSERT_EQ(m_token.size(), kTokenSize);
        g_handled = 0;
    }
    void TearDown() override { BridgeServerStop(); }
    // Runs the peers on a thread while this thread serves.
    void WithPeers(const std::function<void()>& peers) {
        std::atomic<bool> done(false);
        std::thread thread([&] {
            peers();
            done = true;
            g_main_context_wakeup(nullptr);
        });
        gint64 deadline = g_get_monotonic_time() + 30 * G_USEC_PER_SEC;
        while (!done && g_get_monotonic_time() < deadline) g_main_context_iteration(nullptr, TRUE);
        thread.join();
    }
    kvotest::TempDir m_runtime;
    std::string m_token;
};

TEST_F(BridgeServer, ServesAPeerWithTheTokenInAPrivateDirectory) {
    std::string directory = SocketDirectory();
    EXPECT_EQ(directory.rfind(m_runtime.path(), 0), 0u);
    struct stat st;
    ASSERT_EQ(stat(directory.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u);

    BridgeReply first;
    bool ok = false;
    WithPeers([&] {
        Peer peer;
        ok = peer.connected && peer.Hello(m_token) && peer.Get("a") && peer.Read(&first) && peer.Echoes("b");
    });
    ASSERT_TRUE(ok);
    EXPECT_EQ(*first.text, "echo:a");
    EXPECT_EQ(first.code, BRIDGE_GET_PROPERTY);
    BridgeServerStop();
    EXPECT_FALSE(kvotest::FileExists(directory));
}

TEST_F(BridgeServer, ClosesPeersThatBreakTheProtocolAndServesTheRest) {
    uint32_t overLimit = kMaxFrameSize + 1;
    std::vector<std::pair<std::string, std::function<bool(Peer&)>>> offenders = {
        {"wrong token", [&](Peer& p) { return p.Hello(std::string(kTokenSize, 'x')) && p.Get("a"); }},
        {"short token", [&](Peer& p) { return p.Hello(m_token.substr(1)) && p.Get("a"); }},
        {"no hello", [&](Peer& p) { return p.Get("a"); }},
        {"second hello", [&](Peer& p) { return p.Hello(m_token) && p.Hello(m_token); }},
        {"zero length", [&](Peer& p) { return p.Hello(m_token) && p.Send(std::string(4, '\0')); }},
        {"over the limit",
         [&](Peer& p) { return p.Hello(m_token) && p.Send(std::string(reinterpret_cast<char*>(&overLimit), 4)); }},
        {"a reply", [&](Peer& p) { return p.Hello(m_token) && p.Send(EncodeReply(BridgeReply())); }},
    };
    for (auto& offender : offenders) {
        bool closed = false, goodServed = false;
        int handledBefore = g_handled;
        WithPeers([&] {
            Peer good;
            good.Hello(m_token);
            Peer bad;
            closed = bad.connected && offender.second(bad) && bad.Closed();
            goodServed = good.Echoes("still");
        });
        EXPECT_TRUE(closed) << offender.first;
        EXPECT_TRUE(goodServed) << offender.first;
        EXPECT_EQ(g_handled, handledBefore + 1) << offender.first;  // only the good peer's request
    }
}

TEST_F(BridgeServer, ATruncatedFrameFollowedByACloseIsDropped) {
    bool served = false;
    WithPeers([&] {
        {
            Peer peer;
            peer.Hello(m_token);
            BridgeRequest request;
            request.op = BRIDGE_INVOKE;
            request.text[0] = std::string("never");
            std::string frame = EncodeRequest(request);
            peer.Send(frame.substr(0, frame.size() - 3));
        }
        Peer next;
        served = next.Hello(m_token) && next.Echoes("x");
    });
    EXPECT_TRUE(served);
    EXPECT_EQ(g_handled, 1);
}

TEST_F(BridgeServer, NeitherAFloodNorAPeerThatStopsReadingBlocksTheOthers) {
    bool before = false, during = false, late = false;
    WithPeers([&] {
        Peer good, stuck;
        before = good.Hello(m_token) && good.Echoes("before");
        stuck.Hello(m_token);
        for (int i = 0; i < 50 && stuck.Get("big"); ++i) {
        }  // large answers, none read
        std::vector<std::unique_ptr<Peer>> flood;
        for (int i = 0; i < 200; ++i) flood.emplace_back(new Peer);
        during = good.Echoes("during");
        Peer latecomer;
        late = latecomer.Hello(m_token) && latecomer.Echoes("late");
    });
    EXPECT_TRUE(before && during && late) << before << during << late;
    EXPECT_LE(BridgeConnectionCount(), 64u);
    // One request in flight: the stuck peer got only what its socket buffer took.
    EXPECT_LT(g_handled, 13);
}

TEST_F(BridgeServer, RefusesAPeerOfAnotherUser) {
    if (getuid() != 0) kvotest::SkipTest("needs root to run a peer under another uid");
    struct passwd* nobody = getpwnam("nobody");
    if (!nobody) kvotest::SkipTest("no user 'nobody'");
    // Opened for the test only, so that the uid check is what stops the peer.
    for (const std::string& path : {SocketDirectory(), BridgeSocketPath(), m_runtime.path()}) {
        chmod(path.c_str(), 0777);
    }
    pid_t child = fork();
    if (child == 0) {
        if (setuid(nobody->pw_uid) != 0) _exit(2);
        Peer peer;
        if (!peer.connected) _exit(3);
        peer.Hello(m_token);
        peer.Get("x");
        _exit(peer.Closed() ? 0 : 1);
    }
    int status = -1;
    WithPeers([&] { waitpid(child, &status, 0); });
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(g_handled, 0);
}

}  // namespace
