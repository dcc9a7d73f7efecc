// The web process's end of the bridge: one blocking connection to the host,
// made at the first call.  Once lost it stays lost: every later call gives
// its function's default result.
#pragma once

#include <cstdint>
#include <string>

#include "bridge/channel.h"

// Remembers where the host listens, the token to present and the host's
// process id.  Before the token is sent, the listening peer must run under
// this process's uid and, when hostPid is not 0, be that process: whoever
// else listens at the path never sees the token or a request.
void ChannelConfigure(const std::string& socketPath, const std::string& token, uint32_t hostPid = 0);
// One request, one reply.  False when there is no usable channel.
bool ChannelCall(const BridgeRequest& request, BridgeReply* reply);
// Forgets the connection (tests).
void ChannelReset();
