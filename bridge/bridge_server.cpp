#include "bridge/bridge_server.h"

#include <errno.h>
#include <fcntl.h>
#include <glib-unix.h>
#include <glib.h>
#include <sched.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "bridge/private_directory.h"

namespace {

// Enough for the pages of one dialog; a flood beyond it is refused at once.
constexpr size_t kMaxConnections = 64;
constexpr size_t kReadChunk = 64 * 1024;

// A connection's two buffers are the only places the host keeps the bytes
// of a call: `in` holds what the peer sent (its first `inHave` bytes), `out`
// the reply frame being sent.  Both are reused by every call and keep their
// size (up to kKeptBufferSize) so long calls find their pages mapped.
struct Connection {
    int fd = -1;
    guint inWatch = 0;
    guint outWatch = 0;
    bool authenticated = false;
    std::string in;
    size_t inHave = 0;
    std::string out;
    size_t outOffset = 0;
};

BridgeHandler g_handler = nullptr;
int g_listenFd = -1;
guint g_listenWatch = 0;
std::string* g_directory = nullptr;
std::string* g_socketPath = nullptr;
std::string* g_token = nullptr;
std::vector<Connection*>* g_connections = nullptr;
uint32_t g_helloSize = 0;  // the body of a hello with a token
char g_socketPathRaw[sizeof(sockaddr_un::sun_path)];
char g_directoryRaw[sizeof(sockaddr_un::sun_path)];
// The directory, open and flock()ed for the host's whole life: the lock
// goes with the process however it ends, so a later host can tell a
// directory whose owner is gone.  Close-on-exec, so no child keeps it.
int g_directoryFd = -1;

gboolean OnReadable(gint fd, GIOCondition condition, gpointer data);
gboolean OnWritable(gint fd, GIOCondition condition, gpointer data);

void CloseConnection(Connection* connection) {
    Wipe(&connection->in);
    Wipe(&connection->out);
    if (connection->inWatch) g_source_remove(connection->inWatch);
    if (connection->outWatch) g_source_remove(connection->outWatch);
    close(connection->fd);
    for (auto it = g_connections->begin(); it != g_connections->end(); ++it) {
        if (*it == connection) {
            g_connections->erase(it);
            break;
        }
    }
    delete connection;
}

bool SameBytes(const std::string& a, const std::string& b) {
    if (a.size() != b.size()) return false;
    unsigned char difference = 0;  // constant time: the token is a secret
    for (size_t i = 0; i < a.size(); ++i) difference |= static_cast<unsigned char>(a[i] ^ b[i]);
    return difference == 0;
}

// Sends what is pending.  False when the peer is gone.
bool Flush(Connection* connection) {
    while (connection->outOffset < connection->out.size()) {
        ssize_t n = send(connection->fd,
                         connection->out.data() + connection->outOffset,
                         connection->out.size() - connection->outOffset,
                         MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
            connection->outOffset += static_cast<size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return true;
        return false;
    }
    Wipe(&connection->out);
    connection->out.clear();
    connection->outOffset = 0;
    ReleaseLargeBuffer(&connection->out);
    return true;
}

// Handles the complete frames in the input; stops while a reply is pending
// so that a peer that does not read cannot make the host buffer without end.
// False when the connection must be closed.
bool ProcessFrames(Connection* connection) {
    size_t offset = 0;
    bool ok = true;
    while (connection->out.empty()) {
        size_t available = connection->inHave - offset;
        if (available < kFrameHeaderSize) break;
        uint32_t length = ReadFrameLength(connection->in.data() + offset);
        // Before the token is shown nothing longer than a hello is read, so
        // a peer without it cannot make the host hold a large frame.
        if (length == 0 || length > (connection->authenticated ? kMaxFrameSize : g_helloSize)) {
            ok = false;
            break;
        }
        if (available - kFrameHeaderSize < length) break;
        BridgeRequest request;
        if (!DecodeRequest(connection->in.data() + offset + kFrameHeaderSize, length, &request)) {
            ok = false;
            break;
        }
        offset += kFrameHeaderSize + length;
        if (!connection->authenticated) {
            if (request.op != BRIDGE_HELLO || !request.text[0] || !SameBytes(*request.text[0], *g_token)) {
                ok = false;
                break;
            }
            connection->authenticated = true;
            continue;
        }
        if (request.op == BRIDGE_HELLO) {
            ok = false;
            break;
        }
        BridgeReply reply;
        g_handler(request, &reply);
        EncodeReplyInto(reply, &connection->out);
        Wipe(&request);
        Wipe(&reply);
        connection->outOffset = 0;
        if (!Flush(connection)) {
            ok = false;
            break;
        }
    }
    // What follows the frames handled (usually nothing) moves to the front.
    if (offset > 0) {
        connection->inHave -= offset;
        memmove(&connection->in[0], connection->in.data() + offset, connection->inHave);
        explicit_bzero(&connection->in[connection->inHave], offset);  // the requests served
    }
    if (connection->inHave == 0) ReleaseLargeBuffer(&connection->in);
    if (!ok) return false;
    if (!connection->out.empty()) {
        // Wait until the peer reads; stop reading from it meanwhile.
        if (connection->inWatch) {
            g_source_remove(connection->inWatch);
            connection->inWatch = 0;
        }
        if (!connection->outWatch) {
            connection->outWatch = g_unix_fd_add(connection->fd, G_IO_OUT, OnWritable, connection);
        }
    } else if (!connection->inWatch) {
        connection->inWatch = g_unix_fd_add(connection->fd, G_IO_IN, OnReadable, connection);
    }
    return true;
}

gboolean OnWritable(gint, GIOCondition, gpointer data) {
    Connection* connection = static_cast<Connection*>(data);
    if (!Flush(connection)) {
        connection->outWatch = 0;
        CloseConnection(connection);
        return G_SOURCE_REMOVE;
    }
    if (!connection->out.empty()) return G_SOURCE_CONTINUE;
    connection->outWatch = 0;
    if (!ProcessFrames(connection)) {
        CloseConnection(connection);
    }
    return G_SOURCE_REMOVE;
}

// A page that calls in a loop sends its next request a few microseconds
// after our reply.  Looking for it for a short while before going back to
// the main loop saves both a main-loop iteration and a wake-up per call;
// the look is bounded in time and in requests so the window's own events
// still come through, and it yields the CPU so a web process sharing it
// can run.
constexpr gint64 kFollowUpUs = 50;
constexpr int kBurstRequests = 256;

// Room in `in` for the next read: the rest of a frame whose header has
// come, at least kReadChunk otherwise.  The buffer only grows here.
char* ReadRoom(Connection* connection, size_t* room) {
    size_t want = connection->inHave + kReadChunk;
    if (connection->inHave >= kFrameHeaderSize) {
        uint32_t length = ReadFrameLength(connection->in.data());
        // An oversized length is refused when the frame is looked at.
        if (length <= kMaxFrameSize) want = std::max(want, kFrameHeaderSize + length);
    }
    if (connection->in.size() < want) ResizeWiped(&connection->in, want);
    *room = connection->in.size() - connection->inHave;
    return &connection->in[connection->inHave];
}

gboolean OnReadable(gint, GIOCondition, gpointer data) {
    Connection* connection = static_cast<Connection*>(data);
    guint self = connection->inWatch;
    int served = 0;
    gint64 lookUntil = 0;
    while (true) {
        size_t room = 0;
        char* at = ReadRoom(connection, &room);
        ssize_t n;
        do {
            n = recv(connection->fd, at, room, MSG_DONTWAIT);
        } while (n < 0 && errno == EINTR);
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            if (served == 0 || served >= kBurstRequests || g_get_monotonic_time() >= lookUntil) {
                return G_SOURCE_CONTINUE;
            }
            sched_yield();
            continue;
        }
        if (n <= 0) {
            connection->inWatch = 0;
            CloseConnection(connection);
            return G_SOURCE_REMOVE;
        }
        connection->inHave += static_cast<size_t>(n);
        // ProcessFrames may replace the watch; keep ours only if it is still the one.
        if (!ProcessFrames(connection)) {
            connection->inWatch = 0;
            CloseConnection(connection);
            return G_SOURCE_REMOVE;
        }
        if (connection->inWatch != self) return G_SOURCE_REMOVE;
        if (!connection->authenticated || !connection->out.empty()) return G_SOURCE_CONTINUE;
        ++served;
        lookUntil = g_get_monotonic_time() + kFollowUpUs;
    }
}

gboolean OnConnection(gint fd, GIOCondition, gpointer) {
    int peer = accept4(fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (peer < 0) return G_SOURCE_CONTINUE;
    struct ucred credentials;
    socklen_t length = sizeof credentials;
    if (getsockopt(peer, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0 ||
        credentials.uid != getuid()) {
        close(peer);
        return G_SOURCE_CONTINUE;
    }
    if (g_connections->size() >= kMaxConnections) {
        // Make room by dropping the oldest peer that never showed the token,
        // so a flood cannot push out the web processes already served.
        Connection* victim = nullptr;
        for (Connection* c : *g_connections) {
            if (!c->authenticated) {
                victim = c;
                break;
            }
        }
        if (!victim) {
            close(peer);
            return G_SOURCE_CONTINUE;
        }
        CloseConnection(victim);
    }
    Connection* connection = new Connection;
    connection->fd = peer;
    connection->inWatch = g_unix_fd_add(peer, G_IO_IN, OnReadable, connection);
    g_connections->push_back(connection);
    return G_SOURCE_CONTINUE;
}

// The socket's path must fit sun_path: a base too deep is passed over.
bool MakeDirectory() {
    char path[sizeof g_directoryRaw];
    g_directoryFd = MakePrivateDirectory("kavori-", strlen("/bridge"), path, sizeof path, nullptr);
    if (g_directoryFd < 0) return false;
    *g_directory = path;
    return true;
}

}  // namespace

bool BridgeServerStart(BridgeHandler handler) {
    if (g_listenFd >= 0) return true;
    g_handler = handler;
    if (!g_directory) {
        g_directory = new std::string;
        g_socketPath = new std::string;
        g_token = new std::string(kTokenSize, '\0');
        g_connections = new std::vector<Connection*>;
    }
    if (getrandom(&(*g_token)[0], kTokenSize, 0) != static_cast<ssize_t>(kTokenSize)) return false;
    BridgeRequest hello;
    hello.text[0] = *g_token;
    g_helloSize = static_cast<uint32_t>(EncodeRequest(hello).size() - kFrameHeaderSize);
    if (!MakeDirectory()) return false;
    *g_socketPath = *g_directory + "/bridge";
    snprintf(g_directoryRaw, sizeof g_directoryRaw, "%s", g_directory->c_str());
    snprintf(g_socketPathRaw, sizeof g_socketPathRaw, "%s", g_socketPath->c_str());

    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    struct sockaddr_un address;
    memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, g_socketPathRaw, strlen(g_socketPathRaw));
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        listen(fd, 16) != 0) {
        if (fd >= 0) close(fd);
        BridgeRemoveSocketDirectory();
        return false;
    }
    g_listenFd = fd;
    g_listenWatch = g_unix_fd_add(fd, G_IO_IN, OnConnection, nullptr);
    return true;
}

void BridgeFillStartupData(StartupData* data) {
    data->socketPath = g_socketPath ? *g_socketPath : std::string();
    data->token = g_token ? *g_token : std::string();
}

const std::string& BridgeSocketPath() {
    static const std::string empty;
    return g_socketPath ? *g_socketPath : empty;
}

const char* BridgeDirectory() { return g_directory ? g_directory->c_str() : ""; }

void BridgeServerStop() {
    if (g_connections) {
        while (!g_connections->empty()) CloseConnection(g_connections->back());
    }
    if (g_listenWatch) g_source_remove(g_listenWatch);
    g_listenWatch = 0;
    if (g_listenFd >= 0) close(g_listenFd);
    g_listenFd = -1;
    BridgeRemoveSocketDirectory();
}

void BridgeRemoveSocketDirectory() {
    // Plain system calls on fixed buffers: this also runs in a forked parent
    // that is about to _exit, and from exit handlers.
    if (g_socketPathRaw[0]) unlink(g_socketPathRaw);
    if (g_directoryRaw[0]) rmdir(g_directoryRaw);
    g_socketPathRaw[0] = '\0';
    g_directoryRaw[0] = '\0';
    if (g_directoryFd >= 0) close(g_directoryFd);  // the lock goes last
    g_directoryFd = -1;
}

size_t BridgeConnectionCount() { return g_connections ? g_connections->size() : 0; }
