// The web process's end of the bridge reading what a broken or hostile host
// sends back: the input is all the "host" writes after the request before it
// closes.  A call succeeds only on a first frame that is whole and decodes,
// gives exactly that frame's reply, and never hangs; a lost channel stays lost.
#include <errno.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <thread>

#include "bridge/extension/channel_client.h"
#include "fuzz_check.h"

static int g_listenFd = -1;

// One connection of the fake host: the answer, end of stream, then reads
// until the client has gone (closing first could cost it the answer).
static void ServeOnce(const std::string answer) {
    int fd = accept4(g_listenFd, nullptr, nullptr, SOCK_CLOEXEC);
    FUZZ_CHECK(fd >= 0);
    send(fd, answer.data(), answer.size(), MSG_NOSIGNAL);  // fits a socket buffer: one call sends it all
    shutdown(fd, SHUT_WR);
    char buffer[4096];
    for (ssize_t n = 1; n > 0 || (n < 0 && errno == EINTR);) n = recv(fd, buffer, sizeof buffer, 0);
    close(fd);
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    static char directory[] = "/tmp/kvo-fuzz-client-XXXXXX";
    FUZZ_CHECK(mkdtemp(directory) != nullptr);
    static const std::string path = std::string(directory) + "/bridge";
    sockaddr_un address{AF_UNIX, {}};
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    g_listenFd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    FUZZ_CHECK(bind(g_listenFd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
               listen(g_listenFd, 4) == 0);
    ChannelConfigure(path, std::string(kTokenSize, 't'));
    atexit([] { unlink(path.c_str()), rmdir(directory); });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::thread host(ServeOnce, std::string(reinterpret_cast<const char*>(data), size));
    BridgeRequest request{BRIDGE_GET_PROPERTY};
    BridgeReply reply, expected;
    bool ok = ChannelCall(request, &reply);

    // The answer's first frame: whole and decodable, and whether it is alone.
    uint32_t length = size >= kFrameHeaderSize ? ReadFrameLength(data) : 0;
    bool good = length > 0 && length <= kMaxFrameSize && size - kFrameHeaderSize >= length &&
                DecodeReply(data + kFrameHeaderSize, length, &expected);
    // A frame followed by more bytes may be taken as a broken peer.
    FUZZ_CHECK(ok ? good && reply.text == expected.text && reply.code == expected.code
                  : !(good && size == kFrameHeaderSize + length));
    // The host has said all it will: the next call finds the channel gone,
    // and the one after does not try again (it would wait for ever).
    FUZZ_CHECK(!ChannelCall(request, &reply) && !ChannelCall(request, &reply));
    ChannelReset();
    host.join();
    return 0;
}
