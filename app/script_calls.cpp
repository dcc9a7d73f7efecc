#include "app/script_calls.h"

#include <cmath>
#include <cstring>

#include "app/app_commands.h"
#include "native/plugin_session.h"

namespace {

// Room for the reply's own framing; an answer beyond it cannot be carried
// and reaches the page as no answer.
constexpr size_t kMaxAnswer = kMaxFrameSize - 64;

// The answer goes into the reply frame straight from the plug-in's memory:
// it stays valid until the plug-in's next call, and the reply is encoded as
// soon as this handler returns.  Copying it first cost a fresh allocation
// per call, whose pages the allocator had often given back.
void SetAnswer(const char* answer, BridgeReply* reply) {
    if (!answer) return;
    size_t size = strnlen(answer, kMaxAnswer + 1);
    if (size > kMaxAnswer) return;
    reply->borrowed = answer;
    reply->borrowedSize = size;
}

}  // namespace

void HandleBridgeRequest(const BridgeRequest& request, BridgeReply* reply) {
    const auto& a = request.text;
    switch (request.op) {
        case BRIDGE_GET_PROPERTY:
            if (a[0]) SetAnswer(PluginGetProperty(GetReadyHandle(), a[0]->c_str()), reply);
            break;
        case BRIDGE_SET_PROPERTY:
            if (a[0] && a[1]) PluginSetProperty(GetReadyHandle(), a[0]->c_str(), a[1]->c_str());
            break;
        case BRIDGE_ENUM_PROPERTY:
            if (a[0] && a[1])
                SetAnswer(PluginEnumProperty(GetReadyHandle(), a[0]->c_str(), a[1]->c_str()), reply);
            break;
        case BRIDGE_INVOKE:
            if (a[0]) reply->code = PluginInvoke(GetReadyHandle(), a[0]->c_str());
            break;
        case BRIDGE_APPLICATION:
            if (a[0]) {
                reply->code = RunApplicationCommand(a[0]->c_str(),
                                                    request.argc,
                                                    a[1] ? a[1]->c_str() : nullptr,
                                                    a[2] ? a[2]->c_str() : nullptr,
                                                    request.number);
            }
            break;
        case BRIDGE_TURN_ENDED: EndExitTurn(); break;
        default: break;
    }
}
