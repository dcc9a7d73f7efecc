// The wire codec and the host's frame loop, through a real connection to
// BridgeServerStart's socket served on the GLib main context.  Input: a mode
// byte (bit 0: a valid hello first; the rest: the size of each write, 0: all
// at once), then the bytes sent.  The replies must be exactly those owed to the
// requests the protocol lets through, and the host must close and forget the
// connection.  GLib referees every whole frame: a body decodes exactly when
// in its normal form (a request: with a known operation), and both GLib's and
// our encoding of what was read give it back.
#include <errno.h>
#include <glib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "bridge/bridge_server.h"
#include "fuzz_check.h"

static StartupData g_startup;
static std::string g_hello;  // a whole hello with the token

// "big:" asks for more than a socket buffer holds: the host must wait for the peer.
static void Handle(const BridgeRequest& r, BridgeReply* reply) {
    reply->code = r.op * 1000 + r.argc;
    reply->text = r.text[0] && r.text[0]->compare(0, 4, "big:") == 0 ? std::string(300000, 'x') : r.text[0];
}

// The bytes of a new value in normal form; the value is released.
static std::string NormalBytes(GVariant* value) {
    GVariant* normal = g_variant_get_normal_form(g_variant_ref_sink(value));
    std::string bytes(static_cast<const char*>(g_variant_get_data(normal)), g_variant_get_size(normal));
    g_variant_unref(normal);
    g_variant_unref(value);
    return bytes;
}

// Not trusted, so GLib checks it all (and copies it if it is not aligned).
static bool IsNormal(const char* type, const std::string& body) {
    return NormalBytes(g_variant_new_from_data(
               G_VARIANT_TYPE(type), body.data(), body.size(), FALSE, nullptr, nullptr)) == body;
}

static GVariant* Maybe(const std::optional<std::string>& text) {
    return g_variant_new_maybe(
        G_VARIANT_TYPE_BYTESTRING,
        text ? g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, text->data(), text->size(), 1) : nullptr);
}

// Both decoders on a whole frame's body; true with *r when it is a request.
static bool CheckFrame(const std::string& frame, BridgeRequest* r) {
    std::string body = frame.substr(kFrameHeaderSize);
    BridgeReply reply;
    bool isRequest = DecodeRequest(body.data(), body.size(), r);
    bool isReply = DecodeReply(body.data(), body.size(), &reply);
    FUZZ_CHECK(isReply == IsNormal("(mayi)", body));
    FUZZ_CHECK(!isReply || (EncodeReply(reply) == frame &&
                            NormalBytes(g_variant_new("(@mayi)", Maybe(reply.text), reply.code)) == body));
    FUZZ_CHECK(isRequest ==
               (IsNormal("(yymaymaymayd)", body) && static_cast<uint8_t>(body[0]) < BRIDGE_OP_COUNT));
    FUZZ_CHECK(!isRequest || (EncodeRequest(*r) == frame && NormalBytes(g_variant_new("(yy@may@may@mayd)",
                                                                                      r->op,
                                                                                      r->argc,
                                                                                      Maybe(r->text[0]),
                                                                                      Maybe(r->text[1]),
                                                                                      Maybe(r->text[2]),
                                                                                      r->number)) == body));
    return isRequest;
}

// The replies the host owes for this byte stream: a hello with the token
// first (before it nothing longer than a hello is read), then no hello.
static std::string ExpectedReplies(const std::string& stream) {
    std::string replies;
    bool authenticated = false;
    for (size_t at = 0; stream.size() - at >= kFrameHeaderSize;) {
        size_t length = ReadFrameLength(&stream[at]);
        size_t most = authenticated ? kMaxFrameSize : g_hello.size() - kFrameHeaderSize;
        if (length == 0 || length > most || stream.size() - at - kFrameHeaderSize < length) break;
        BridgeRequest request;
        if (!CheckFrame(stream.substr(at, kFrameHeaderSize + length), &request)) break;
        at += kFrameHeaderSize + length;
        bool hello = request.op == BRIDGE_HELLO;
        if (authenticated == hello || (hello && request.text[0] != g_startup.token)) break;
        BridgeReply reply;
        Handle(request, &reply);
        if (authenticated) replies += EncodeReply(reply);
        authenticated = true;
    }
    return replies;
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    FUZZ_CHECK(BridgeServerStart(Handle));
    BridgeFillStartupData(&g_startup);
    g_hello = EncodeRequest({BRIDGE_HELLO, 0, {g_startup.token}});
    atexit(BridgeServerStop);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    std::string stream = data[0] & 1 ? g_hello : std::string(), received;
    stream.append(reinterpret_cast<const char*>(data) + 1, size - 1);
    size_t sent = 0, chunk = data[0] >> 1 ? data[0] >> 1 : stream.size();
    std::string expected = ExpectedReplies(stream);

    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{AF_UNIX, {}};
    g_startup.socketPath.copy(address.sun_path, sizeof address.sun_path - 1);
    FUZZ_CHECK(connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0);
    for (int rounds = 0, open = 1; open; ++rounds) {
        FUZZ_CHECK(rounds < 200000);  // a connection that is never closed is a hang
        // Once the host has closed, sending fails and the read below sees the end.
        ssize_t n =
            send(fd, &stream[sent], std::min(chunk, stream.size() - sent), MSG_DONTWAIT | MSG_NOSIGNAL);
        sent += n > 0 ? static_cast<size_t>(n) : 0;
        if (sent == stream.size()) shutdown(fd, SHUT_WR);
        for (int i = 0; i < 4; ++i) g_main_context_iteration(nullptr, FALSE);
        char buffer[65536];
        while ((n = recv(fd, buffer, sizeof buffer, MSG_DONTWAIT)) > 0)
            received.append(buffer, static_cast<size_t>(n));
        open = n < 0 && (errno == EAGAIN || errno == EINTR);
    }
    close(fd);
    FUZZ_CHECK(BridgeConnectionCount() == 0 && received == expected);
    return 0;
}
