// The host's side of the script object's functions: one bridge request in,
// one reply out.  Requests whose arguments the page could not give as
// strings never reach here (the extension answers them itself); a request
// that lacks them all the same gets the function's default result and
// starts nothing.
#pragma once

#include "bridge/channel.h"

void HandleBridgeRequest(const BridgeRequest& request, BridgeReply* reply);
