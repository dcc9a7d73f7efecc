#include "bridge/extension/channel_client.h"

#include <errno.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

namespace {

std::string* g_socketPath = nullptr;
std::string* g_token = nullptr;
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
    BridgeRequest hello;
    hello.op = BRIDGE_HELLO;
    hello.text[0] = *g_token;
    // The host answers no hello; the first real request follows at once.
    return SendAll(EncodeRequest(hello));
}

}  // namespace

void ChannelConfigure(const std::string& socketPath, const std::string& token) {
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
    if (g_fd < 0 && !Connect()) {
        Lose();
        return false;
    }
    unsigned char header[kFrameHeaderSize];
    if (!SendAll(EncodeRequest(request)) || !ReceiveAll(header, sizeof header)) {
        Lose();
        return false;
    }
    uint32_t length = ReadFrameLength(header);
    if (length == 0 || length > kMaxFrameSize) {
        Lose();
        return false;
    }
    std::string body(length, '\0');
    if (!ReceiveAll(&body[0], length) || !DecodeReply(body.data(), body.size(), reply)) {
        Lose();
        return false;
    }
    return true;
}
