// The web process's end of the bridge: one blocking connection to the host,
// made at the first call.  Once lost it stays lost: every later call gives
// its function's default result.
#pragma once

#include <string>

#include "bridge/channel.h"

// Remembers where the host listens and the token to present.
void ChannelConfigure(const std::string& socketPath, const std::string& token);
// One request, one reply.  False when there is no usable channel.
bool ChannelCall(const BridgeRequest& request, BridgeReply* reply);
// Forgets the connection (tests).
void ChannelReset();
