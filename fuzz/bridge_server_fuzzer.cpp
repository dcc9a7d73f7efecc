// The host's frame loop, reached the way a web process reaches it: a real
// connection to the bridge socket, served on the GLib main context.  The
// first input byte chooses whether a valid hello (with the real token) goes
// first and how the rest is cut into writes; the rest is sent as it is.
// The replies must be exactly those of the requests that the protocol lets
// through, and the host must close the connection in the end and keep no
// state of it.
#include <errno.h>
#include <glib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include "bridge/bridge_server.h"
#include "fuzz_check.h"

namespace {

constexpr int kMaxRounds = 200000;  // a connection that is never closed is a hang
StartupData* g_startup;

void Handle(const BridgeRequest& request, BridgeReply* reply) {
    reply->code = request.op * 1000 + request.argc;
    if (request.text[0] && request.text[0]->compare(0, 4, "big:") == 0) {
        // Larger than a socket buffer: the host must wait for the peer to read.
        reply->text = std::string(300000, 'x');
    } else {
        reply->text = request.text[0];
    }
}

// The replies the host owes for this byte stream.
std::string ExpectedReplies(const std::string& stream) {
    std::string replies;
    size_t at = 0;
    bool authenticated = false;
    while (stream.size() - at >= kFrameHeaderSize) {
        uint32_t length = ReadFrameLength(stream.data() + at);
        if (length == 0 || length > kMaxFrameSize || stream.size() - at - kFrameHeaderSize < length) break;
        BridgeRequest request;
        if (!DecodeRequest(stream.data() + at + kFrameHeaderSize, length, &request)) break;
        at += kFrameHeaderSize + length;
        if (!authenticated) {
            if (request.op != BRIDGE_HELLO || request.text[0] != g_startup->token) break;
            authenticated = true;
            continue;
        }
        if (request.op == BRIDGE_HELLO) break;
        BridgeReply reply;
        Handle(request, &reply);
        replies += EncodeReply(reply);
    }
    return replies;
}

void Pump() {
    for (int i = 0; i < 4 && g_main_context_iteration(nullptr, FALSE); ++i) {
    }
}

// Reads what is there; false once the host has closed the connection.
bool Drain(int fd, std::string* received) {
    char buffer[65536];
    while (true) {
        ssize_t n = recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
        if (n > 0) {
            received->append(buffer, static_cast<size_t>(n));
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        return n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    char base[] = "/tmp/kvo-fuzz-server-XXXXXX";
    FUZZ_CHECK(mkdtemp(base) != nullptr);
    setenv("XDG_RUNTIME_DIR", base, 1);
    FUZZ_CHECK(BridgeServerStart(Handle));
    g_startup = new StartupData;
    BridgeFillStartupData(g_startup);
    atexit([] { BridgeServerStop(); });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    uint8_t mode = data[0];
    std::string stream;
    if (mode & 1) {
        BridgeRequest hello;
        hello.op = BRIDGE_HELLO;
        hello.text[0] = g_startup->token;
        stream = EncodeRequest(hello);
    }
    stream.append(reinterpret_cast<const char*>(data) + 1, size - 1);
    size_t chunk = (mode >> 1) ? (mode >> 1) : stream.size() + 1;

    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    FUZZ_CHECK(fd >= 0);
    sockaddr_un address;
    memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, g_startup->socketPath.data(), g_startup->socketPath.size());
    FUZZ_CHECK(connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0);

    std::string received;
    bool open = true;
    size_t sent = 0;
    int rounds = 0;
    while (sent < stream.size() && open) {
        size_t piece = std::min(chunk, stream.size() - sent);
        ssize_t n = send(fd, stream.data() + sent, piece, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (n > 0) sent += static_cast<size_t>(n);
        if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) break;  // closed early
        Pump();
        open = Drain(fd, &received);
        FUZZ_CHECK(++rounds < kMaxRounds);
    }
    shutdown(fd, SHUT_WR);
    while (open) {
        Pump();
        open = Drain(fd, &received);
        FUZZ_CHECK(++rounds < kMaxRounds);
    }
    close(fd);
    FUZZ_CHECK(BridgeConnectionCount() == 0);
    FUZZ_CHECK(received == ExpectedReplies(stream));
    return 0;
}
