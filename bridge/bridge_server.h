// The host's end of the bridge: a Unix stream socket in a private directory,
// served on the main thread.  A peer is served only when it runs under the
// host's own uid and its first frame carries the token; anything malformed
// closes that connection and nothing else.
#pragma once

#include <string>

#include "bridge/channel.h"

typedef void (*BridgeHandler)(const BridgeRequest& request, BridgeReply* reply);

// Creates the directory, socket and token and starts accepting on the
// default main context.  False when no socket could be made.  The directory
// stays locked while this process lives; directories of this user that
// earlier hosts left in the same place, unlocked, are removed first.
bool BridgeServerStart(BridgeHandler handler);
// The socket path and token for the extension's start-up data.
void BridgeFillStartupData(StartupData* data);
const std::string& BridgeSocketPath();
// The private directory holding the socket ("" before the start).
const char* BridgeDirectory();
// Closes every connection and removes the socket and its directory.
void BridgeServerStop();
// Only removes the socket file and directory; safe after fork and at exit.
void BridgeRemoveSocketDirectory();
// Open connections (authenticated or not), for tests.
size_t BridgeConnectionCount();
