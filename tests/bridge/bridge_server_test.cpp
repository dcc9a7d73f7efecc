// The host's socket under hostile and broken peers.  The server runs on this
// thread's main loop; the peers run on other threads with bounded waits.
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

class Peer {
public:
    Peer() {
        m_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        struct timeval tv = {5, 0};  // no peer waits for ever
        setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        setsockopt(m_fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
        struct sockaddr_un address;
        memset(&address, 0, sizeof address);
        address.sun_family = AF_UNIX;
        strncpy(address.sun_path, BridgeSocketPath().c_str(), sizeof address.sun_path - 1);
        m_connected = connect(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    }
    ~Peer() { close(m_fd); }
    bool connected() const { return m_connected; }
    bool Send(const std::string& bytes) { return send(m_fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == (ssize_t)bytes.size(); }
    bool Hello(const std::string& token) {
        BridgeRequest hello;
        hello.text[0] = token;
        return Send(EncodeRequest(hello));
    }
    bool Get(const std::string& name) {
        BridgeRequest request;
        request.op = BRIDGE_GET_PROPERTY;
        request.text[0] = name;
        return Send(EncodeRequest(request));
    }
    // The next reply; false on EOF, error or timeout.
    bool Read(BridgeReply* reply) {
        char header[kFrameHeaderSize];
        if (!ReadAll(header, sizeof header)) return false;
        std::string body(ReadFrameLength(header), '\0');
        return ReadAll(&body[0], body.size()) && DecodeReply(body.data(), body.size(), reply);
    }
    // True when the host closed the connection (a close with our bytes
    // still unread arrives as a reset).
    bool Closed() {
        char c;
        ssize_t n = recv(m_fd, &c, 1, 0);
        return n == 0 || (n < 0 && errno == ECONNRESET);
    }

private:
    bool ReadAll(char* at, size_t size) {
        while (size > 0) {
            ssize_t n = recv(m_fd, at, size, 0);
            if (n <= 0) return false;
            at += n;
            size -= static_cast<size_t>(n);
        }
        return true;
    }
    int m_fd = -1;
    bool m_connected = false;
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

    // Runs the peer code on a thread while this thread serves.
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
    std::string directory = BridgeSocketPath().substr(0, BridgeSocketPath().rfind('/'));
    EXPECT_EQ(directory.rfind(m_runtime.path(), 0), 0u);
    struct stat st;
    ASSERT_EQ(stat(directory.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u);

    BridgeReply first, second;
    bool ok = false;
    WithPeers([&] {
        Peer peer;
        ok = peer.connected() && peer.Hello(m_token) && peer.Get("a") && peer.Read(&first) && peer.Get("b") &&
             peer.Read(&second);
    });
    ASSERT_TRUE(ok);
    EXPECT_EQ(*first.text, "echo:a");
    EXPECT_EQ(*second.text, "echo:b");
    EXPECT_EQ(first.code, BRIDGE_GET_PROPERTY);

    BridgeServerStop();
    EXPECT_FALSE(kvotest::FileExists(directory));
}

TEST_F(BridgeServer, ClosesPeersThatBreakTheProtocolAndServesTheRest) {
    std::vector<std::pair<std::string, std::function<bool(Peer&)>>> offenders = {
        {"wrong token", [&](Peer& p) { return p.Hello(std::string(kTokenSize, 'x')) && p.Get("a"); }},
        {"short token", [&](Peer& p) { return p.Hello(m_token.substr(1)) && p.Get("a"); }},
        {"no hello", [&](Peer& p) { return p.Get("a"); }},
        {"second hello", [&](Peer& p) { return p.Hello(m_token) && p.Hello(m_token); }},
        {"zero length", [&](Peer& p) { return p.Hello(m_token) && p.Send(std::string(4, '\0')); }},
        {"over the limit",
         [&](Peer& p) {
             uint32_t length = kMaxFrameSize + 1;
             return p.Hello(m_token) && p.Send(std::string(reinterpret_cast<char*>(&length), 4));
         }},
        {"wrong type",
         [&](Peer& p) {
             GVariant* v = g_variant_ref_sink(g_variant_new("(s)", "GetProperty"));
             uint32_t length = static_cast<uint32_t>(g_variant_get_size(v));
             std::string frame(reinterpret_cast<char*>(&length), 4);
             frame.append(static_cast<const char*>(g_variant_get_data(v)), length);
             g_variant_unref(v);
             return p.Hello(m_token) && p.Send(frame);
         }},
    };
    for (auto& offender : offenders) {
        bool closed = false, goodServed = false;
        int handledBefore = g_handled;
        WithPeers([&] {
            Peer good;
            good.Hello(m_token);
            Peer bad;
            closed = bad.connected() && offender.second(bad) && bad.Closed();
            BridgeReply reply;
            goodServed = good.Get("still") && good.Read(&reply) && reply.text && *reply.text == "echo:still";
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
        BridgeReply reply;
        served = next.Hello(m_token) && next.Get("x") && next.Read(&reply);
    });
    EXPECT_TRUE(served);
    EXPECT_EQ(g_handled, 1);
}

TEST_F(BridgeServer, AFloodOfConnectionsCannotPushOutAServedPeer) {
    bool served = false, lateServed = false;
    WithPeers([&] {
        Peer good;
        good.Hello(m_token);
        BridgeReply reply;
        good.Get("before");
        good.Read(&reply);
        std::vector<std::unique_ptr<Peer>> flood;
        for (int i = 0; i < 200; ++i) flood.emplace_back(new Peer);
        served = good.Get("during") && good.Read(&reply) && *reply.text == "echo:during";
        Peer late;
        lateServed = late.Hello(m_token) && late.Get("late") && late.Read(&reply) && *reply.text == "echo:late";
    });
    EXPECT_TRUE(served);
    EXPECT_TRUE(lateServed);
    EXPECT_LE(BridgeConnectionCount(), 64u);
}

TEST_F(BridgeServer, APeerThatStopsReadingDoesNotBlockTheHost) {
    bool otherServed = false;
    WithPeers([&] {
        Peer stuck;
        stuck.Hello(m_token);
        // Many requests for large answers, none of them read.
        for (int i = 0; i < 50; ++i) {
            if (!stuck.Get("big")) break;
        }
        Peer other;
        BridgeReply reply;
        otherServed = other.Hello(m_token) && other.Get("x") && other.Read(&reply) && *reply.text == "echo:x";
    });
    EXPECT_TRUE(otherServed);
    // One request in flight: the stuck peer got at most a couple of answers
    // made while its socket buffer still took them.
    EXPECT_LT(g_handled, 10);
}

TEST_F(BridgeServer, RefusesAPeerOfAnotherUser) {
    if (getuid() != 0) kvotest::SkipTest("needs root to run a peer under another uid");
    struct passwd* nobody = getpwnam("nobody");
    if (!nobody) kvotest::SkipTest("no user 'nobody'");
    // Open the directory for the test only, so that the uid check itself is
    // what stops the peer.
    std::string directory = BridgeSocketPath().substr(0, BridgeSocketPath().rfind('/'));
    chmod(directory.c_str(), 0777);
    chmod(BridgeSocketPath().c_str(), 0777);
    chmod(m_runtime.path().c_str(), 0777);
    pid_t child = fork();
    if (child == 0) {
        if (setuid(nobody->pw_uid) != 0) _exit(2);
        Peer peer;
        if (!peer.connected()) _exit(3);
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
