#include "bridge/extension/channel_client.h"

#include <errno.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

namespace {

std::string* g_socketPath = nullptr;
std::string* g_token = nullptr;
uint32_t g_hostPid = 0;
int g_fd = -1;
bool g_lost = false;

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
    // A request over the frame limit (a page's argument of many megabytes)
    // gives the call's default; sent, the host would drop the connection
    // and with it every later call of the page.
    std::string frame = EncodeRequest(request);
    if (frame.size() - kFrameHeaderSize > kMaxFrameSize) return false;
    if (g_fd < 0 && !Connect()) {
        Lose();
        return false;
    }
    // Replies to small calls come in one read: header and body together.
    char first[4096];
    // Sent once: a read cut short by a signal must not send it again, or
    // the host would answer twice and every later reply be one call late.
    ssize_t got = -1;
    if (SendAll(frame)) {
        do {
            got = recv(g_fd, first, sizeof first, 0);
        } while (got < 0 && errno == EINTR);
    }
    if (got < static_cast<ssize_t>(kFrameHeaderSize)) {
        if (got > 0 && !ReceiveAll(first + got, kFrameHeaderSize - static_cast<size_t>(got))) got = -1;
        if (got <= 0) {
            Lose();
            return false;
        }
        got = kFrameHeaderSize;
    }
    uint32_t length = ReadFrameLength(first);
    size_t have = static_cast<size_t>(got) - kFrameHeaderSize;
    // The host sends nothing unasked, so more than one frame is a broken peer.
    if (length == 0 || length > kMaxFrameSize || have > length) {
        Lose();
        return false;
    }
    std::string body(first + kFrameHeaderSize, have);
    body.resize(length);
    if ((have < length && !ReceiveAll(&body[have], length - have)) ||
        !DecodeReply(body.data(), body.size(), reply)) {
        Lose();
        return false;
    }
    return true;
}
