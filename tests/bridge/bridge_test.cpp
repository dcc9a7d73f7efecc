// The bridge: the wire format against GLib's own serialisation, the host's server under broken and hostile
// peers with the web process's channel as the well-behaved one, the script object over a transport of the
// test's.
#include <glib.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <functional>
#include <thread>

#include "bridge/bridge_server.h"
#include "bridge/extension/channel_client.h"
#include "bridge/extension/console_line.h"
#include "bridge/extension/document_origin.h"
#include "bridge/extension/script_object.h"
#include "tests/support/support.h"

namespace {

std::string Glib(GVariant* value) {  // GLib's serialised form of the value
    std::string body(static_cast<const char*>(g_variant_get_data(g_variant_ref_sink(value))),
                     g_variant_get_size(value));
    return g_variant_unref(value), body;
}
GVariant* Maybe(const std::optional<std::string>& text) {
    GVariant* bytes =
        text ? g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, text->data(), text->size(), 1) : nullptr;
    return g_variant_new_maybe(G_VARIANT_TYPE_BYTESTRING, bytes);
}
std::string Glib(const BridgeRequest& r) {
    return Glib(g_variant_new(
        "(yy@may@may@mayd)", r.op, r.argc, Maybe(r.text[0]), Maybe(r.text[1]), Maybe(r.text[2]), r.number));
}
std::string Glib(const BridgeReply& r) { return Glib(g_variant_new("(@mayi)", Maybe(r.text), r.code)); }

TEST(Channel, ByteForByteGlibsFormAtEveryOffsetWidth) {
    // Sizes around the offset-width steps; an empty text is not an absent one.
    for (size_t size : {0, 240, 256, 65530, 70000}) {
        BridgeRequest request{
            uint8_t(size % 6), uint8_t(size), {std::string(size, 'a'), std::nullopt, std::string()}, NAN},
            out;
        BridgeReply reply{std::string(size, 'r'), -1}, back, none{std::nullopt, 5};
        std::string frame = EncodeRequest(request), body = frame.substr(kFrameHeaderSize);
        EXPECT_TRUE(ReadFrameLength(frame.data()) == body.size() && body == Glib(request)) << size;
        EXPECT_TRUE(DecodeRequest(body.data(), body.size(), &out) && Glib(out) == body) << size;
        for (const BridgeReply& r : {reply, none}) {
            body = EncodeReply(r).substr(kFrameHeaderSize);
            EXPECT_TRUE(body == Glib(r) && DecodeReply(body.data(), body.size(), &back) && Glib(back) == body)
                << size;
        }
    }
    // Which bodies are taken (exactly those GLib calls normal, with a known
    // operation) is the bridge fuzzer's: it flips, cuts and extends its seed frames.
}

// Start-up data that lacks one thing, or is of another type, is not taken.
TEST(Channel, StartupDataIsTakenOnlyWhole) {
    std::vector<StartupData> rows(5, {"/run/k/bridge", std::string(kTokenSize, 't'), 1, {"file://"}, 7});
    rows[1].socketPath.clear();
    rows[2].socketPath += std::string(1, '\0');
    rows[3].token.pop_back();
    rows[4].token += 't';
    for (size_t i = 0; i <= rows.size(); ++i) {  // the last: every field the parser reads would do
        GVariant* data = g_variant_ref_sink(
            i < rows.size()
                ? MakeStartupData(rows[i])
                : g_variant_new_parsed("(@ay [47], b'0123456789abcde', @u 0, @as [], @u 0, 'x')"));
        StartupData out;
        EXPECT_EQ(ParseStartupData(data, &out), i == 0) << i;
        g_variant_unref(data);
    }
}

// The extension's end: a call takes only one whole reply that decodes, and on
// anything else a host sends before it goes it ends (never spins).
TEST(Channel, OnlyOneWholeReplyIsTakenAndACallWhoseHostIsGoneEnds) {
    kvotest::TempDir dir;
    sockaddr_un address = {AF_UNIX, {}};
    dir.file("bridge").copy(address.sun_path, sizeof address.sun_path - 1);
    int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_TRUE(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
                listen(listener, 1) == 0);
    ChannelConfigure(address.sun_path, std::string(kTokenSize, 't'));
    const std::string reply = EncodeReply(BridgeReply{std::string("answer"), 7});
    uint32_t overLimit = kMaxFrameSize + 1;
    const std::string answers[] = {reply,
                                   "",  // the request, larger than a socket buffer, left unread
                                   reply.substr(0, 1),
                                   reply.substr(0, reply.size() - 1),
                                   reply + reply,
                                   std::string(4, '\0'),
                                   std::string((char*)&overLimit, 4) + "x",
                                   reply.substr(0, 4) + std::string(reply.size() - 4, 'x')};
    for (const std::string& answer : answers) {
        BridgeRequest request{BRIDGE_GET_PROPERTY, 1, {std::string(answer.empty() ? 4 << 20 : 1, 'a')}, 0};
        pid_t client = fork();
        if (client == 0) {
            BridgeReply got;
            bool taken = ChannelCall(request, &got);
            _exit(taken == (answer == reply) && (!taken || (got.text == "answer" && got.code == 7)) ? 0 : 1);
        }
        int host = accept(listener, nullptr, nullptr);
        send(host, answer.data(), answer.size(), MSG_NOSIGNAL);
        shutdown(host, answer.empty() ? SHUT_RDWR : SHUT_WR);  // gone at once, or once it has answered
        EXPECT_EQ(0, kvotest::WaitProcess(client, 10000)) << testing::PrintToString(answer);
        if (kill(client, SIGKILL) == 0) waitpid(client, nullptr, 0);
        close(host);
    }
    close(listener);
}

int g_handled = 0;
void Echo(const BridgeRequest& request, BridgeReply* reply) {
    ++g_handled;
    reply->text = request.text[0] == std::string("big") ? std::string(1 << 20, 'b')
                                                        : "echo:" + request.text[0].value_or("");
}
bool Echoes(const std::string& name) {  // through the channel client
    BridgeReply reply;
    return ChannelCall(BridgeRequest{BRIDGE_GET_PROPERTY, 1, {name}, 0}, &reply) &&
           reply.text == "echo:" + name;
}

struct Peer {  // a raw one
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    bool connected = false;
    Peer() {
        timeval limit = {5, 0};  // no peer waits for ever
        sockaddr_un address = {AF_UNIX, {}};
        strncpy(address.sun_path, BridgeSocketPath().c_str(), sizeof address.sun_path - 1);
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        connected = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    }
    ~Peer() { close(fd); }
    bool Send(const std::string& b) {
        return send(fd, b.data(), b.size(), MSG_NOSIGNAL | MSG_DONTWAIT) == ssize_t(b.size());
    }
    bool Request(uint8_t op, const std::string& text) {
        return Send(EncodeRequest(BridgeRequest{op, 1, {text}, 0}));
    }
    // By the host, our bytes unread or not.
    bool Closed(char c = 0) {
        ssize_t n = recv(fd, &c, 1, 0);
        return n == 0 || (n < 0 && errno == ECONNRESET);
    }
};

struct Server : testing::Test {
    kvotest::TempDir runtime;
    std::string token;
    void SetUp() override {
        setenv("XDG_RUNTIME_DIR", runtime.path().c_str(), 1);
        ASSERT_TRUE(BridgeServerStart(Echo));
        StartupData data;
        BridgeFillStartupData(&data);
        ASSERT_EQ((token = data.token).size(), kTokenSize);
        ChannelConfigure(BridgeSocketPath(), token);
    }
    void TearDown() override { BridgeServerStop(); }
    void WithPeers(const std::function<void()>& peers) {  // on a thread, while this one serves
        std::atomic<bool> done(false);
        std::thread thread([&] { peers(), done = true, g_main_context_wakeup(nullptr); });
        for (gint64 end = g_get_monotonic_time() + 30 * G_USEC_PER_SEC;
             !done && g_get_monotonic_time() < end;) {
            g_main_context_iteration(nullptr, TRUE);
        }
        thread.join();
    }
};

TEST_F(Server, BrokenPeersAreClosedAlone) {
    uint32_t overLimit = kMaxFrameSize + 1;
    std::pair<const char*, std::function<void(Peer&)>> offenders[] = {
        {"wrong token", [&](Peer& p) { p.Request(0, std::string(kTokenSize, 'x')), p.Request(1, "a"); }},
        {"short token", [&](Peer& p) { p.Request(0, token.substr(1)), p.Request(1, "a"); }},
        {"no hello", [&](Peer& p) { p.Request(1, "a"); }},
        {"second hello", [&](Peer& p) { p.Request(0, token), p.Request(0, token); }},
        {"zero length", [&](Peer& p) { p.Request(0, token), p.Send(std::string(4, '\0')); }},
        {"over the limit", [&](Peer& p) { p.Request(0, token), p.Send(std::string((char*)&overLimit, 4)); }},
        {"a reply", [&](Peer& p) { p.Request(0, token), p.Send(EncodeReply(BridgeReply())); }},
        {"longer than a hello, before it", [&](Peer& p) {
             uint32_t n = 1000;
             p.Send(std::string((char*)&n, 4));
         }}};
    for (auto& offender : offenders) {
        bool closed = false, served = false;
        g_handled = 0;
        WithPeers([&] {
            Peer bad;
            offender.second(bad);  // a send may fail once the host has closed
            closed = bad.connected && bad.Closed();
            served = Echoes("still");
        });
        EXPECT_TRUE(closed && served && g_handled == 1) << offender.first;  // only the good peer's request
    }
}

TEST_F(Server, NeitherAFloodNorAPeerThatStopsReadingBlocksTheOthersNorAHelloInPiecesAndTheGoneAreClosed) {
    bool before = false, during = false, late = false;
    WithPeers([&] {
        Peer stuck;
        std::string hello = EncodeRequest(BridgeRequest{BRIDGE_HELLO, 1, {token}, 0});
        before = Echoes("before") && stuck.Send(hello.substr(0, 5));
        usleep(100000);  // the host reads the hello's start alone: it must read on
        before = before && stuck.Send(hello.substr(5));
        for (int i = 0; i < 50 && stuck.Request(BRIDGE_GET_PROPERTY, "big"); ++i)
            continue;  // large answers, none read
        std::vector<Peer> flood(200);
        during = Echoes("during");
        ChannelReset();  // a new connection after the flood
        late = Echoes("late");
    });
    EXPECT_TRUE(before && during && late) << before << during << late;
    EXPECT_LE(BridgeConnectionCount(), 64u);
    // One request in flight: the stuck peer got only what its socket took, and at least one.
    EXPECT_TRUE(g_handled > 3 && g_handled < 13) << g_handled;
    // The peers are gone, the stuck one with a reply half sent: the channel's connection is left.
    for (int i = 0; i < 5000 && BridgeConnectionCount() > 1; ++i)
        g_main_context_iteration(nullptr, FALSE), usleep(1000);
    EXPECT_EQ(BridgeConnectionCount(), 1u);
}

TEST_F(Server, APeerOfAnotherUserIsRefused) {
    passwd* nobody = getpwnam("nobody");
    if (getuid() != 0 || !nobody)
        kvotest::SkipTest("needs root and a user 'nobody' to run a peer under another uid");
    // Opened for the test only, so that the uid check is what stops the peer.
    for (std::string path = BridgeSocketPath(); path.size() >= runtime.path().size();
         path.resize(path.rfind('/'))) {
        chmod(path.c_str(), 0777);
    }
    pid_t child = fork();
    if (child == 0) {
        bool nobodyNow = setuid(nobody->pw_uid) == 0;
        Peer peer;
        peer.Request(0, token), peer.Request(1, "x");  // the host may be gone already
        _exit(nobodyNow && peer.connected && peer.Closed() ? 0 : 1);
    }
    int status = -1;
    WithPeers([&] { waitpid(child, &status, 0); });
    EXPECT_TRUE(status == 0 && g_handled == 0);
}

TEST_F(Server, NoSocketInABaseThatOthersCanWriteWithoutTheStickyBit) {
    kvotest::TempDir safe;
    setenv("TMPDIR", safe.path().c_str(), 1);
    for (mode_t mode : {0777, 01777}) {  // another user could swap our directory in the first only
        BridgeServerStop();
        chmod(runtime.path().c_str(), mode);
        ASSERT_TRUE(BridgeServerStart(Echo));
        EXPECT_EQ(BridgeSocketPath().rfind((mode == 0777 ? safe : runtime).path() + "/kavori-", 0), 0u)
            << BridgeSocketPath();
    }
}

// Whoever else listens never sees the token; a lost channel stays lost until reset.
TEST_F(Server, TheExtensionSpeaksOnlyToTheHostsProcessAndALostChannelStaysLost) {
    bool first = false, lost = true, reset = false;
    WithPeers([&] {
        first = Echoes("a");
        ChannelConfigure(BridgeSocketPath(), token, getpid() + 1);
        ChannelReset();
        lost = Echoes("b");
        ChannelConfigure(BridgeSocketPath(), token, getpid());
        BridgeReply stale;  // a lost call says so: the caller's reply may hold an old answer
        lost = lost || Echoes("c") || ChannelCall(BridgeRequest{BRIDGE_GET_PROPERTY, 1, {"c"}, 0}, &stale);
        ChannelReset();
        reset = Echoes("d") && Echoes("e");
    });
    EXPECT_TRUE(first && !lost && reset && g_handled == 3) << first << lost << reset << g_handled;
}

TEST(ScriptObject, ConsoleLinesNameTheirOriginAndEscapeWhatATerminalWouldObey) {
    const char* rows[][3] = {{"https://a.example:8443/p.html",
                              "plain é",
                              "[https://a.example:8443] https://a.example:8443/p.html:7: plain é"},
                             {"file:///d/p.html",
                              "\x1b[31mred\nkvo-scripted: forged",
                              "[file://] file:///d/p.html:7: \\x1b[31mred\\x0akvo-scripted: forged"},
                             {nullptr, "a\\b\x7f\xc2\x9b\t", "[null] :7: a\\\\b\\x7f\\x9b\\x09"},
                             {"about:blank", "", "[null] about:blank:7: "},
                             {"HTTP://A.example:80/x", "", "[http://a.example] HTTP://A.example:80/x:7: "},
                             {"http://b/", "", "[http://b] http://b/:7: "}};
    for (const auto& r : rows)
        EXPECT_EQ(ConsoleLine("console.log", "", r[0], 7, r[1]), std::string("console.log: ") + r[2] + "\n");
}

// What the calls of calls.html cannot show: an answer that is not UTF-8, and a lost channel.
BridgeReply g_reply;
bool Transport(const BridgeRequest&, BridgeReply* reply) {
    *reply = g_reply;
    return g_reply.code != 9;
}

TEST(ScriptObject, AnswersComeBackWellFormedALostChannelGivesDefaultsAndOriginsAreTheEngines) {
    JSGlobalContextRef context = JSGlobalContextCreate(nullptr);
    SetScriptTransport(Transport);
    InstallScriptObject(context);
    auto eval = [&](const std::string& script) {  // JSON of the value
        JSStringRef source = JSStringCreateWithUTF8CString(("JSON.stringify(" + script + ")").c_str());
        char* text =
            CopyScriptString(context, JSEvaluateScript(context, source, nullptr, nullptr, 0, nullptr));
        std::string json = text ? text : "(no string)";
        return JSStringRelease(source), FreeScriptString(text), json;
    };
    const std::string calls =
        "[Kavori.GetProperty('n'), Kavori.EnumProperty('a', 'b'), Kavori.Invoke('c'), "
        "Kavori.SetProperty('a', 'b'), Kavori.Application('exit')]";
    g_reply = {std::string("caf\xc3\xa9 \xff"), -7};  // repaired for the page
    EXPECT_EQ(eval(calls), "[\"caf\xc3\xa9 \xef\xbf\xbd\",\"caf\xc3\xa9 \xef\xbf\xbd\",-7,null,0]");
    // Long answers are checked in blocks: a NUL and a character that is not ASCII, or a byte that is not
    // UTF-8, on either side of a block's edge.  Counted in characters, a broken one repaired to one.
    for (std::string odd : {"\xc3\xa9", "\xff"}) {
        for (size_t at : {0, 62, 64, 130}) {
            for (size_t nul : {10, 63, 64, 131, 200}) {
                std::string text(200, 'a');
                text.replace(at, odd.size(), odd);
                if (nul < text.size()) text[nul] = '\0';
                g_reply = {text, 0};
                size_t length = nul >= at + odd.size() ? nul - odd.size() + 1 : nul;
                std::string expected =
                    "[" + std::to_string(length) + "," + (at < nul ? "true" : "false") + "]";
                EXPECT_EQ(eval("(s => [s.length, /[\\u00e9\\ufffd]/.test(s)])(Kavori.GetProperty('n'))"),
                          expected)
                    << odd.size() << " at " << at << ", NUL at " << nul;
            }
        }
    }
    g_reply = {std::string("lost"), 9};
    EXPECT_EQ(eval(calls), "[\"\",\"\",0,null,0]");
    EXPECT_EQ(CopyScriptString(context, nullptr), nullptr);  // what a failed evaluation gives
    // A document's origins as the engine shows them, and document.domain's setter locked, once and for all.
    eval(
        "self = {origin: 'https://a'}, location = {ancestorOrigins: ['https://b']}, Document = function () "
        "{}");
    eval(
        "Object.defineProperty(Document.prototype, 'domain', {get() { return this.d; }, set(v) { this.d = v; "
        "},"
        " configurable: true})");
    EXPECT_EQ(DocumentOrigin(context), "https://a");
    EXPECT_TRUE(DocumentTrusted(context, {"https://b", "https://a"}) && DocumentTrusted(context, {}));
    EXPECT_FALSE(DocumentTrusted(context, {"https://a"}));
    EXPECT_TRUE(LockDocumentDomain(context) && LockDocumentDomain(context));
    EXPECT_EQ(eval("(function (d) { d.domain = 'b'; return d.domain === undefined; })(new Document())"),
              "true");
    eval("self = {origin: 'null'}");
    EXPECT_FALSE(DocumentTrusted(context, {"null"}));
    JSGlobalContextRelease(context);
}

}  // namespace
