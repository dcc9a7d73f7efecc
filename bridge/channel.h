// The wire format between the web extension and the host: a 32-bit length
// in host byte order, then one serialised GVariant.  One request in flight
// per connection; every request gets exactly one reply, except the first
// frame (Hello, carrying the token), which gets none.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// A frame larger than this closes the connection; a plug-in answer that
// would not fit reaches the page as no answer (the empty string).
constexpr uint32_t kMaxFrameSize = 16u * 1024u * 1024u;
constexpr size_t kFrameHeaderSize = 4;
constexpr size_t kTokenSize = 16;

enum BridgeOp : uint8_t {
    BRIDGE_HELLO = 0,  // text1: the token
    BRIDGE_GET_PROPERTY = 1,
    BRIDGE_SET_PROPERTY = 2,
    BRIDGE_ENUM_PROPERTY = 3,
    BRIDGE_INVOKE = 4,
    BRIDGE_APPLICATION = 5,  // reply code 1: tell the host when this script turn ends
    BRIDGE_TURN_ENDED = 6,   // the script turn that ended the dialog is over
    BRIDGE_OP_COUNT
};

struct BridgeRequest {
    uint8_t op = BRIDGE_HELLO;
    uint8_t argc = 0;                    // the page's argument count, capped at 255
    std::optional<std::string> text[3];  // arguments that were strings
    double number = 0;                   // Application: argument 2 when it was a number, else NaN
};

struct BridgeReply {
    std::optional<std::string> text;  // GetProperty / EnumProperty
    int32_t code = 0;                 // Invoke
    // The host's way to send a text it does not own (a plug-in's answer)
    // without copying it: used instead of `text` when set, and valid only
    // until the reply is encoded.  Decoding never sets it.
    const char* borrowed = nullptr;
    size_t borrowedSize = 0;
};

// Whole frames, header included.
std::string EncodeRequest(const BridgeRequest& request);
std::string EncodeReply(const BridgeReply& reply);
// The same, written over `frame` (a connection's reusable buffer), which is
// resized to the frame and keeps its capacity.
void EncodeRequestInto(const BridgeRequest& request, std::string* frame);
void EncodeReplyInto(const BridgeReply& reply, std::string* frame);

// A connection's reusable buffer keeps up to this much between calls, so a
// long answer finds pages already mapped; anything larger is given back.
constexpr size_t kKeptBufferSize = 4u * 1024u * 1024u;
void ReleaseLargeBuffer(std::string* buffer);

// Requests carry PINs: every buffer that held one is zeroed once served,
// before it is reused, grown or freed, so no copy lingers in memory.
void Wipe(std::string* bytes);  // its size() bytes
void Wipe(BridgeRequest* request);
void Wipe(BridgeReply* reply);  // its own text, not a borrowed one
// Resizes to size; when that reallocates, the old storage is zeroed first.
void ResizeWiped(std::string* bytes, size_t size);

// Decode a frame's body (without the header).  False for anything that is
// not exactly the expected type or names an unknown operation.  A text that
// is present is assigned into one already there, reusing its capacity.
bool DecodeRequest(const void* body, size_t size, BridgeRequest* request);
bool DecodeReply(const void* body, size_t size, BridgeReply* reply);

// The length a header announces.
uint32_t ReadFrameLength(const void* header);

// Start-up data for the extension, one GVariant: socket path, token, flags
// and the origins that may see the script object (empty: every origin).
enum : uint32_t {
    STARTUP_DEVELOPER = 0x1,  // the page's console goes to stderr
};
struct StartupData {
    std::string socketPath;
    std::string token;
    uint32_t flags = 0;
    std::vector<std::string> trustedOrigins;
    uint32_t hostPid = 0;  // who must be listening; 0: not known to the web process
};
typedef struct _GVariant GVariant;
GVariant* MakeStartupData(const StartupData& data);
bool ParseStartupData(GVariant* variant, StartupData* data);
