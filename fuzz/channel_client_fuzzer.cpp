// The web process's end of the bridge reading what a broken or hostile host
// sends back: the input is everything the "host" writes after the request
// before closing.  A call succeeds only on a first frame that is whole and
// decodes, gives exactly that frame's reply, and never hangs; a lost
// channel stays lost.
#include <errno.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <thread>

#include "bridge/extension/channel_client.h"
#include "fuzz_check.h"

namespace {

int g_listenFd = -1;
const std::string kToken(kTokenSize, 't');

// One connection of the fake host: the canned answer, then end of stream;
// reads until the client has gone.
void ServeOnce(const std::string answer) {
    int fd = accept4(g_listenFd, nullptr, nullptr, SOCK_CLOEXEC);
    FUZZ_CHECK(fd >= 0);
    size_t sent = 0;
    while (sent < answer.size()) {
        ssize_t n = send(fd, answer.data() + sent, answer.size() - sent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        sent += static_cast<size_t>(n);
    }
    shutdown(fd, SHUT_WR);
    char buffer[4096];
    while (true) {
        ssize_t n = recv(fd, buffer, sizeof buffer, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
    }
    close(fd);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    char directory[] = "/tmp/kvo-fuzz-client-XXXXXX";
    FUZZ_CHECK(mkdtemp(directory) != nullptr);
    std::string path = std::string(directory) + "/bridge";
    g_listenFd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address;
    memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, path.data(), path.size());
    FUZZ_CHECK(bind(g_listenFd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0);
    FUZZ_CHECK(listen(g_listenFd, 4) == 0);
    ChannelConfigure(path, kToken);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string answer(reinterpret_cast<const char*>(data), size);
    ChannelReset();
    std::thread host(ServeOnce, answer);

    BridgeRequest request;
    request.op = BRIDGE_GET_PROPERTY;
    request.argc = 1;
    request.text[0] = std::string("Holder");
    BridgeReply reply;
    bool ok = ChannelCall(request, &reply);

    // What the first frame of the answer is.
    bool whole = false, decodes = false, alone = false;
    BridgeReply expected;
    if (size >= kFrameHeaderSize) {
        uint32_t length = ReadFrameLength(data);
        whole = length > 0 && length <= kMaxFrameSize && size - kFrameHeaderSize >= length;
        if (whole) {
            decodes = DecodeReply(data + kFrameHeaderSize, length, &expected);
            alone = size == kFrameHeaderSize + length;
        }
    }
    if (ok) {
        FUZZ_CHECK(whole && decodes);
        FUZZ_CHECK(reply.text == expected.text && reply.code == expected.code);
    } else {
        // A frame followed by more bytes may be taken as a broken peer.
        FUZZ_CHECK(!(whole && decodes && alone));
    }
    // The host has said all it will: the next call finds the channel gone,
    // and the one after does not try again.
    FUZZ_CHECK(!ChannelCall(request, &reply));
    FUZZ_CHECK(!ChannelCall(request, &reply));
    ChannelReset();
    host.join();
    return 0;
}
