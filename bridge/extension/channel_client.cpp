#include "bridge/extension/channel_client.h"

#include <errno.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

namespace {

std::string* g_socketPath = nullptr;
std::string* g_token = nullptr;
uint32_t g_hostPid = 0;
int g_fd = -1;
bool g_lost = false;
// The connection's two buffers, reused by every call: the request frame
// going out and the reply frame coming in.  Nothing else holds the bytes of
// a call on this side, apart from the caller's own request and reply.
std::string* g_out = nullptr;
std::string* g_in = nullptr;
// Replies to small calls come in one read: header and body together.
constexpr size_t kFirstRead = 4096;

bool SendAll(const std::string& frame) {
    size_t done = 0;
    while (done < frame.size()) {
        ssize_t n = send(g_fd, frame.data() + done, frame.size() - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

bool ReceiveAll(void* buffer, size_t size) {
    char* at = static_cast<char*>(buffer);
    while (size > 0) {
        ssize_t n = recv(g_fd, at, size, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        at += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

void Lose() {
    if (g_fd >= 0) close(g_fd);
    g_fd = -1;
    g_lost = true;
}

bool Connect() {
    if (!g_socketPath || g_socketPath->empty()) return false;
    struct sockaddr_un address;
    memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    if (g_socketPath->size() >= sizeof address.sun_path) return false;
    memcpy(address.sun_path, g_socketPath->data(), g_socketPath->size());
    g_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (g_fd < 0) return false;
    if (connect(g_fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) return false;
    struct ucred peer;
    socklen_t length = sizeof peer;
    if (getsockopt(g_fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0 || peer.uid != getuid() ||
        (g_hostPid != 0 && peer.pid != static_cast<pid_t>(g_hostPid))) {
        return false;
    }
    BridgeRequest hello;
    hello.op = BRIDGE_HELLO;
    hello.text[0] = *g_token;
    // The host answers no hello; the first real request follows at once.
    return SendAll(EncodeRequest(hello));
}

// Sends the frame in g_out and reads the reply frame into g_in; its body
// is then g_in[kFrameHeaderSize, kFrameHeaderSize + *length).
bool Exchange(uint32_t* length) {
    if (g_in->size() < kFirstRead) ResizeWiped(g_in, kFirstRead);
    char* in = &(*g_in)[0];
    // Sent once: a read cut short by a signal must not send it again, or
    // the host would answer twice and every later reply be one call late.
    ssize_t got = -1;
    if (SendAll(*g_out)) {
        do {
            got = recv(g_fd, in, g_in->size(), 0);
        } while (got < 0 && errno == EINTR);
    }
    if (got < static_cast<ssize_t>(kFrameHeaderSize)) {
        if (got > 0 && !ReceiveAll(in + got, kFrameHeaderSize - static_cast<size_t>(got))) got = -1;
        if (got <= 0) return false;
        got = kFrameHeaderSize;
    }
    *length = ReadFrameLength(in);
    size_t have = static_cast<size_t>(got) - kFrameHeaderSize;
    // The host sends nothing unasked, so more than one frame is a broken peer.
    if (*length == 0 || *length > kMaxFrameSize || have > *length) return false;
    // Grows only: a buffer that already has the room is written over, not cleared.
    if (g_in->size() < kFrameHeaderSize + *length) ResizeWiped(g_in, kFrameHeaderSize + *length);
    return have == *length || ReceiveAll(&(*g_in)[kFrameHeaderSize + have], *length - have);
}

}  // namespace

void ChannelConfigure(const std::string& socketPath, const std::string& token, uint32_t hostPid) {
    g_hostPid = hostPid;
    if (!g_socketPath) {
        g_socketPath = new std::string;
        g_token = new std::string;
    }
    *g_socketPath = socketPath;
    *g_token = token;
}

void ChannelReset() {
    if (g_fd >= 0) close(g_fd);
    g_fd = -1;
    g_lost = false;
}

bool ChannelCall(const BridgeRequest& request, BridgeReply* reply) {
    if (g_lost) return false;
    if (!g_out) {
        g_out = new std::string;
        g_in = new std::string;
    }
    // A request over the frame limit (a page's argument of many megabytes)
    // gives the call's default; sent, the host would drop the connection
    // and with it every later call of the page.
    EncodeRequestInto(request, g_out);
    bool ok = g_out->size() - kFrameHeaderSize <= kMaxFrameSize;
    if (ok && g_fd < 0 && !Connect()) {
        Lose();
        ok = false;
    } else if (ok) {
        uint32_t length = 0;
        if (!Exchange(&length) || !DecodeReply(g_in->data() + kFrameHeaderSize, length, reply)) {
            Lose();
            ok = false;
        }
        // The frames are served: zeroed, the reply's only as far as it went.
        explicit_bzero(&(*g_in)[0], ok ? std::min(g_in->size(), kFrameHeaderSize + length) : g_in->size());
    }
    Wipe(g_out);
    ReleaseLargeBuffer(g_out);
    ReleaseLargeBuffer(g_in);
    return ok;
}
