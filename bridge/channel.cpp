#include "bridge/channel.h"

#include <glib.h>

#include <cstring>

namespace {

// Socket path, token, flags, trusted origins.
constexpr const char* kStartupType = "(ayayuasu)";

}  // namespace

// The two message types are fixed, so they are written and read here in
// GVariant's own serialised form, byte for byte what GLib makes of them (the
// tests check both ways), without building a GVariant tree per call: GLib's
// type registry lock and allocations cost more than the rest of a call.
//
// "(yymaymaymayd)": y, y, three maybe byte strings (a present one is its
// bytes and one zero byte, an absent one nothing), zero padding to 8, the
// double, then the end offsets of the three maybes, last one first.
// "(mayi)": the maybe, zero padding to 4, the int32, the maybe's end offset.
// Offsets take 1, 2 or 4 bytes: the fewest that can address the whole body.

namespace {

size_t Align(size_t value, size_t alignment) { return (value + alignment - 1) & ~(alignment - 1); }

size_t OffsetSize(size_t bodySize) {
    if (bodySize <= 0xFF) return 1;
    if (bodySize <= 0xFFFF) return 2;
    return 4;
}

// The smallest offset size whose body, with `count` offsets, it can address.
size_t BodySizeWithOffsets(size_t dataSize, size_t count, size_t* offsetSize) {
    for (size_t size : {size_t(1), size_t(2), size_t(4), size_t(8)}) {
        size_t total = dataSize + count * size;
        if (OffsetSize(total) <= size || size == 8) {
            *offsetSize = size;
            return total;
        }
    }
    return 0;
}

void PutOffset(char* at, uint64_t value, size_t size) {
    for (size_t i = 0; i < size; ++i) at[i] = static_cast<char>((value >> (8 * i)) & 0xFF);
}

uint64_t GetOffset(const unsigned char* at, size_t size) {
    uint64_t value = 0;
    for (size_t i = 0; i < size; ++i) value |= static_cast<uint64_t>(at[i]) << (8 * i);
    return value;
}

size_t MaybeSize(const std::optional<std::string>& text) { return text ? text->size() + 1 : 0; }

char* PutMaybe(char* at, const std::optional<std::string>& text) {
    if (!text) return at;
    memcpy(at, text->data(), text->size());
    at[text->size()] = '\0';
    return at + text->size() + 1;
}

// A maybe byte string from [begin, end); false when not in normal form.
bool GetMaybe(const unsigned char* body, size_t begin, size_t end, std::optional<std::string>* text) {
    if (begin == end) {
        text->reset();
        return true;
    }
    if (body[end - 1] != 0) return false;
    const char* bytes = reinterpret_cast<const char*>(body) + begin;
    if (*text) {
        (*text)->assign(bytes, end - begin - 1);
    } else {
        text->emplace(bytes, end - begin - 1);
    }
    return true;
}

bool ZeroBytes(const unsigned char* body, size_t begin, size_t end) {
    for (size_t i = begin; i < end; ++i) {
        if (body[i] != 0) return false;
    }
    return true;
}

// Sizes `frame` to the header and a body of zeros (the padding must be
// zero) and writes the header; returns the body.  The buffer's earlier
// contents are overwritten, not freed.
char* StartFrame(size_t bodySize, std::string* frame) {
    frame->clear();
    ResizeWiped(frame, kFrameHeaderSize + bodySize);
    uint32_t length = static_cast<uint32_t>(bodySize);
    memcpy(&(*frame)[0], &length, sizeof length);
    return &(*frame)[kFrameHeaderSize];
}

}  // namespace

std::string EncodeRequest(const BridgeRequest& request) {
    std::string frame;
    EncodeRequestInto(request, &frame);
    return frame;
}

std::string EncodeReply(const BridgeReply& reply) {
    std::string frame;
    EncodeReplyInto(reply, &frame);
    return frame;
}

void EncodeRequestInto(const BridgeRequest& request, std::string* frame) {
    size_t ends[3];
    size_t at = 2;
    for (int i = 0; i < 3; ++i) ends[i] = at += MaybeSize(request.text[i]);
    size_t numberAt = Align(at, 8);
    size_t offsetSize = 0;
    size_t bodySize = BodySizeWithOffsets(numberAt + 8, 3, &offsetSize);
    char* body = StartFrame(bodySize, frame);
    body[0] = static_cast<char>(request.op);
    body[1] = static_cast<char>(request.argc);
    char* cursor = body + 2;
    for (int i = 0; i < 3; ++i) cursor = PutMaybe(cursor, request.text[i]);
    memcpy(body + numberAt, &request.number, 8);
    for (int i = 0; i < 3; ++i)
        PutOffset(body + numberAt + 8 + static_cast<size_t>(i) * offsetSize, ends[2 - i], offsetSize);
}

void EncodeReplyInto(const BridgeReply& reply, std::string* frame) {
    const char* text = reply.borrowed ? reply.borrowed : reply.text ? reply.text->data() : nullptr;
    size_t textSize = reply.borrowed ? reply.borrowedSize : reply.text ? reply.text->size() : 0;
    size_t end = text ? textSize + 1 : 0;
    size_t codeAt = Align(end, 4);
    size_t offsetSize = 0;
    size_t bodySize = BodySizeWithOffsets(codeAt + 4, 1, &offsetSize);
    char* body = StartFrame(bodySize, frame);
    if (text) memcpy(body, text, textSize);  // the maybe's closing zero is already there
    memcpy(body + codeAt, &reply.code, 4);
    PutOffset(body + codeAt + 4, end, offsetSize);
}

void ReleaseLargeBuffer(std::string* buffer) {
    if (buffer->capacity() <= kKeptBufferSize) return;
    Wipe(buffer);
    std::string().swap(*buffer);
}

void Wipe(std::string* bytes) {
    if (!bytes->empty()) explicit_bzero(&(*bytes)[0], bytes->size());
}

void Wipe(BridgeRequest* request) {
    for (auto& text : request->text) {
        if (text) Wipe(&*text);
    }
}

void Wipe(BridgeReply* reply) {
    if (reply->text) Wipe(&*reply->text);
}

void ResizeWiped(std::string* bytes, size_t size) {
    if (size <= bytes->capacity()) {
        bytes->resize(size);
        return;
    }
    std::string bigger;
    bigger.reserve(size);
    bigger.assign(*bytes);
    bigger.resize(size);
    Wipe(bytes);
    bytes->swap(bigger);
}

bool DecodeRequest(const void* data, size_t size, BridgeRequest* request) {
    const unsigned char* body = static_cast<const unsigned char*>(data);
    size_t offsetSize = OffsetSize(size);
    if (size < 2 + 8 + 3 * offsetSize) return false;
    size_t offsetsAt = size - 3 * offsetSize;
    size_t ends[3];
    for (int i = 0; i < 3; ++i)
        ends[2 - i] = GetOffset(body + offsetsAt + static_cast<size_t>(i) * offsetSize, offsetSize);
    if (ends[0] < 2 || ends[0] > ends[1] || ends[1] > ends[2]) return false;
    size_t numberAt = Align(ends[2], 8);
    if (numberAt + 8 != offsetsAt || !ZeroBytes(body, ends[2], numberAt)) return false;
    size_t begin = 2;
    for (int i = 0; i < 3; ++i) {
        if (!GetMaybe(body, begin, ends[i], &request->text[i])) return false;
        begin = ends[i];
    }
    request->op = body[0];
    request->argc = body[1];
    memcpy(&request->number, body + numberAt, 8);
    return request->op < BRIDGE_OP_COUNT;
}

bool DecodeReply(const void* data, size_t size, BridgeReply* reply) {
    const unsigned char* body = static_cast<const unsigned char*>(data);
    size_t offsetSize = OffsetSize(size);
    if (size < 4 + offsetSize) return false;
    size_t offsetsAt = size - offsetSize;
    size_t end = GetOffset(body + offsetsAt, offsetSize);
    size_t codeAt = Align(end, 4);
    if (end > offsetsAt || codeAt + 4 != offsetsAt || !ZeroBytes(body, end, codeAt)) return false;
    if (!GetMaybe(body, 0, end, &reply->text)) return false;
    memcpy(&reply->code, body + codeAt, 4);
    return true;
}

uint32_t ReadFrameLength(const void* header) {
    uint32_t length;
    memcpy(&length, header, sizeof length);
    return length;
}

GVariant* MakeStartupData(const StartupData& data) {
    GVariantBuilder origins;
    g_variant_builder_init(&origins, G_VARIANT_TYPE_STRING_ARRAY);
    for (const std::string& origin : data.trustedOrigins) {
        if (g_utf8_validate(origin.c_str(), -1, nullptr))
            g_variant_builder_add(&origins, "s", origin.c_str());
    }
    return g_variant_new(
        "(@ay@ayuasu)",
        g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, data.socketPath.data(), data.socketPath.size(), 1),
        g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, data.token.data(), data.token.size(), 1),
        data.flags,
        &origins,
        data.hostPid);
}

bool ParseStartupData(GVariant* variant, StartupData* data) {
    if (!variant || !g_variant_is_of_type(variant, G_VARIANT_TYPE(kStartupType))) return false;
    GVariant* path = g_variant_get_child_value(variant, 0);
    GVariant* secret = g_variant_get_child_value(variant, 1);
    GVariant* origins = g_variant_get_child_value(variant, 3);
    gsize pathSize = 0, tokenSize = 0;
    const void* pathData = g_variant_get_fixed_array(path, &pathSize, 1);
    const void* tokenData = g_variant_get_fixed_array(secret, &tokenSize, 1);
    data->socketPath.assign(static_cast<const char*>(pathData), pathSize);
    data->token.assign(static_cast<const char*>(tokenData), tokenSize);
    g_variant_get_child(variant, 2, "u", &data->flags);
    g_variant_get_child(variant, 4, "u", &data->hostPid);
    data->trustedOrigins.clear();
    gsize count = g_variant_n_children(origins);
    for (gsize i = 0; i < count; ++i) {
        const char* origin = nullptr;
        g_variant_get_child(origins, i, "&s", &origin);
        data->trustedOrigins.push_back(origin);
    }
    g_variant_unref(path);
    g_variant_unref(secret);
    g_variant_unref(origins);
    return !data->socketPath.empty() && data->socketPath.find('\0') == std::string::npos &&
           data->token.size() == kTokenSize;
}
