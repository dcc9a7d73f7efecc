#include "bridge/channel.h"

#include <glib.h>

#include <cstring>

namespace {

// (op, argc, text1, text2, text3, number); texts as byte arrays so any bytes
// the page or plug-in produce travel unchanged.
constexpr const char* kRequestType = "(yymaymaymayd)";
constexpr const char* kReplyType = "(mayi)";
constexpr const char* kStartupType = "(ayayuas)";

GVariant* MaybeBytes(const std::optional<std::string>& text) {
    GVariant* child = nullptr;
    if (text) {
        child = g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, text->data(), text->size(), 1);
    }
    return g_variant_new_maybe(G_VARIANT_TYPE_BYTESTRING, child);
}

std::optional<std::string> ReadMaybeBytes(GVariant* maybe) {
    GVariant* child = g_variant_get_maybe(maybe);
    if (!child) return std::nullopt;
    gsize size = 0;
    const void* data = g_variant_get_fixed_array(child, &size, 1);
    std::string text(static_cast<const char*>(data), size);
    g_variant_unref(child);
    return text;
}

std::string Frame(GVariant* value) {
    g_variant_ref_sink(value);
    gsize size = g_variant_get_size(value);
    std::string frame(kFrameHeaderSize + size, '\0');
    uint32_t length = static_cast<uint32_t>(size);
    memcpy(&frame[0], &length, sizeof length);
    // Serialised data must be aligned for its type; the frame's body is not
    // (it follows a 4-byte header), so copy what GLib serialised for us.
    memcpy(&frame[kFrameHeaderSize], g_variant_get_data(value), size);
    g_variant_unref(value);
    return frame;
}

// Untrusted bytes: GLib checks them lazily and never reads outside them;
// asking for the normal form makes every later access cheap and safe.
GVariant* Open(const void* body, size_t size, const char* type) {
    GBytes* bytes = g_bytes_new(body, size);
    GVariant* value = g_variant_new_from_bytes(G_VARIANT_TYPE(type), bytes, FALSE);
    g_bytes_unref(bytes);
    g_variant_ref_sink(value);
    if (!g_variant_is_normal_form(value)) {
        g_variant_unref(value);
        return nullptr;
    }
    return value;
}

}  // namespace

std::string EncodeRequest(const BridgeRequest& request) {
    return Frame(g_variant_new("(yy@may@may@mayd)", request.op, request.argc, MaybeBytes(request.text[0]),
                               MaybeBytes(request.text[1]), MaybeBytes(request.text[2]), request.number));
}

std::string EncodeReply(const BridgeReply& reply) {
    return Frame(g_variant_new("(@mayi)", MaybeBytes(reply.text), reply.code));
}

bool DecodeRequest(const void* body, size_t size, BridgeRequest* request) {
    GVariant* value = Open(body, size, kRequestType);
    if (!value) return false;
    GVariant* texts[3] = {nullptr, nullptr, nullptr};
    g_variant_get(value, "(yy@may@may@mayd)", &request->op, &request->argc, &texts[0], &texts[1], &texts[2],
                  &request->number);
    for (int i = 0; i < 3; ++i) {
        request->text[i] = ReadMaybeBytes(texts[i]);
        g_variant_unref(texts[i]);
    }
    g_variant_unref(value);
    return request->op < BRIDGE_OP_COUNT;
}

bool DecodeReply(const void* body, size_t size, BridgeReply* reply) {
    GVariant* value = Open(body, size, kReplyType);
    if (!value) return false;
    GVariant* text = nullptr;
    g_variant_get(value, "(@mayi)", &text, &reply->code);
    reply->text = ReadMaybeBytes(text);
    g_variant_unref(text);
    g_variant_unref(value);
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
        if (g_utf8_validate(origin.c_str(), -1, nullptr)) g_variant_builder_add(&origins, "s", origin.c_str());
    }
    return g_variant_new("(@ay@ayuas)",
                         g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, data.socketPath.data(), data.socketPath.size(), 1),
                         g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, data.token.data(), data.token.size(), 1),
                         data.flags, &origins);
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
