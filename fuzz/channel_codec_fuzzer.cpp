// The bridge's message decoders, host side (requests) and web-process side
// (replies), on any frame body.  They read GVariant's serialised form
// directly, so GLib is the referee: a body is accepted exactly when GLib
// calls it the normal form of the type (and the operation is known), it
// decodes to the values GLib reads, and encoding the result gives back the
// very same bytes.
#include <glib.h>

#include <cstring>

#include "bridge/channel.h"
#include "fuzz_check.h"

namespace {

GVariant* Parse(const char* type, const void* data, size_t size) {
    // Our own aligned copy: GLib reads the data in place.
    void* copy = g_malloc(size ? size : 1);
    memcpy(copy, data, size);
    return g_variant_ref_sink(g_variant_new_from_data(G_VARIANT_TYPE(type), copy, size, FALSE, g_free, copy));
}

std::optional<std::string> MaybeBytes(GVariant* tuple, gsize index) {
    GVariant* maybe = g_variant_get_child_value(tuple, index);
    GVariant* child = g_variant_get_maybe(maybe);
    std::optional<std::string> text;
    if (child) {
        gsize length = 0;
        const char* bytes = static_cast<const char*>(g_variant_get_fixed_array(child, &length, 1));
        text.emplace(bytes ? bytes : "", length);
        g_variant_unref(child);
    }
    g_variant_unref(maybe);
    return text;
}

std::string Body(const std::string& frame) {
    FUZZ_CHECK(frame.size() >= kFrameHeaderSize);
    FUZZ_CHECK(ReadFrameLength(frame.data()) == frame.size() - kFrameHeaderSize);
    return frame.substr(kFrameHeaderSize);
}

void CheckRequest(const uint8_t* data, size_t size) {
    BridgeRequest request;
    bool ours = DecodeRequest(data, size, &request);
    GVariant* v = Parse("(yymaymaymayd)", data, size);
    bool normal = g_variant_is_normal_form(v);
    if (normal) {
        guint8 op = 0, argc = 0;
        gdouble number = 0;
        g_variant_get_child(v, 0, "y", &op);
        g_variant_get_child(v, 1, "y", &argc);
        g_variant_get_child(v, 5, "d", &number);
        FUZZ_CHECK(ours == (op < BRIDGE_OP_COUNT));
        if (ours) {
            FUZZ_CHECK(request.op == op && request.argc == argc);
            FUZZ_CHECK(memcmp(&request.number, &number, sizeof number) == 0);  // NaN payloads too
            for (int i = 0; i < 3; ++i) FUZZ_CHECK(request.text[i] == MaybeBytes(v, static_cast<gsize>(2 + i)));
        }
    } else {
        FUZZ_CHECK(!ours);
    }
    g_variant_unref(v);
    if (ours) FUZZ_CHECK(Body(EncodeRequest(request)) == std::string(reinterpret_cast<const char*>(data), size));
}

void CheckReply(const uint8_t* data, size_t size) {
    BridgeReply reply;
    bool ours = DecodeReply(data, size, &reply);
    GVariant* v = Parse("(mayi)", data, size);
    bool normal = g_variant_is_normal_form(v);
    FUZZ_CHECK(ours == normal);
    if (ours) {
        gint32 code = 0;
        g_variant_get_child(v, 1, "i", &code);
        FUZZ_CHECK(reply.code == code);
        FUZZ_CHECK(reply.text == MaybeBytes(v, 0));
        FUZZ_CHECK(Body(EncodeReply(reply)) == std::string(reinterpret_cast<const char*>(data), size));
    }
    g_variant_unref(v);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CheckRequest(data, size);
    CheckReply(data, size);
    return 0;
}
