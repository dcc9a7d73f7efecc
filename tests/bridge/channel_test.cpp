// The wire format against GLib's own GVariant serialisation: what goes in
// comes out, and anything else is refused.
#include <gtest/gtest.h>
#include <glib.h>

#include <cmath>
#include <vector>

#include "bridge/channel.h"

namespace {

std::string Body(const std::string& frame) {
    EXPECT_GE(frame.size(), kFrameHeaderSize);
    EXPECT_EQ(ReadFrameLength(frame.data()), frame.size() - kFrameHeaderSize);
    return frame.substr(kFrameHeaderSize);
}

GVariant* Maybe(const std::optional<std::string>& text) {
    GVariant* child = text ? g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, text->data(), text->size(), 1) : nullptr;
    return g_variant_new_maybe(G_VARIANT_TYPE_BYTESTRING, child);
}

std::string GlibBody(GVariant* value) {
    g_variant_ref_sink(value);
    std::string body(static_cast<const char*>(g_variant_get_data(value)), g_variant_get_size(value));
    g_variant_unref(value);
    return body;
}

std::string GlibRequest(const BridgeRequest& r) {
    return GlibBody(g_variant_new("(yy@may@may@mayd)", r.op, r.argc, Maybe(r.text[0]), Maybe(r.text[1]),
                                  Maybe(r.text[2]), r.number));
}

std::string GlibReply(const BridgeReply& r) { return GlibBody(g_variant_new("(@mayi)", Maybe(r.text), r.code)); }

bool GlibNormal(const std::string& body, const char* type) {
    GVariant* value = g_variant_ref_sink(
        g_variant_new_from_data(G_VARIANT_TYPE(type), body.data(), body.size(), FALSE, nullptr, nullptr));
    bool normal = g_variant_is_normal_form(value);
    g_variant_unref(value);
    return normal;
}

TEST(Channel, WritesExactlyWhatGlibWritesAndReadsItBack) {
    // Sizes around the offset-width steps (255 and 65535 bytes); texts of
    // any bytes, empty ones (not absent) and absent ones; NaN.
    for (size_t a : {0, 1, 7, 8, 200, 230, 240, 250, 255, 256, 300, 65500, 65530, 65536, 70000}) {
        for (int shape = 0; shape < 4; ++shape) {
            BridgeRequest request, requestOut;
            request.op = static_cast<uint8_t>(BRIDGE_GET_PROPERTY + shape);
            request.argc = static_cast<uint8_t>(shape + 1);
            request.text[0] = std::string(a, 'a');
            if (shape & 1) request.text[1] = std::string("a\0b\xff", 4);
            if (shape & 2) request.text[2] = std::string();
            request.number = shape == 3 ? NAN : -1.25 * shape;
            std::string body = Body(EncodeRequest(request));
            EXPECT_EQ(body, GlibRequest(request)) << a << "/" << shape;
            EXPECT_TRUE(DecodeRequest(body.data(), body.size(), &requestOut) && GlibRequest(requestOut) == body);
            BridgeReply reply, replyOut;
            if (shape) reply.text = std::string(a, 'r');
            reply.code = -shape;
            body = Body(EncodeReply(reply));
            EXPECT_EQ(body, GlibReply(reply)) << a << "/" << shape;
            EXPECT_TRUE(DecodeReply(body.data(), body.size(), &replyOut) && GlibReply(replyOut) == body);
        }
    }
    EXPECT_EQ(Body(EncodeRequest(BridgeRequest())), GlibRequest(BridgeRequest()));
}

TEST(Channel, AcceptsExactlyWhatGlibCallsNormal) {
    // Valid bodies with a bit flipped or a byte cut off or added: the codec takes
    // exactly GLib's normal forms (with a known operation) and reads GLib's values.
    GRand* rand = g_rand_new_with_seed(7);
    for (int round = 0; round < 3000; ++round) {
        BridgeRequest request;
        request.op = static_cast<uint8_t>(g_rand_int_range(rand, 0, BRIDGE_OP_COUNT));
        for (int i = 0; i < 3; ++i) {
            if (g_rand_boolean(rand)) request.text[i] = std::string(g_rand_int_range(rand, 0, 6), 'x');
        }
        std::string body = GlibRequest(request);
        std::string reply = GlibReply(BridgeReply{request.text[0], 3});
        std::string* target = g_rand_boolean(rand) ? &body : &reply;
        int mutation = g_rand_int_range(rand, 0, 3);
        if (mutation == 0 && !target->empty()) {
            (*target)[g_rand_int_range(rand, 0, static_cast<gint32>(target->size()))] ^=
                static_cast<char>(1 << g_rand_int_range(rand, 0, 8));
        } else if (mutation == 1 && !target->empty()) {
            target->resize(target->size() - 1);
        } else {
            target->push_back(static_cast<char>(g_rand_int_range(rand, 0, 3)));
        }
        BridgeRequest out;
        bool ours = DecodeRequest(body.data(), body.size(), &out);
        EXPECT_EQ(ours, GlibNormal(body, "(yymaymaymayd)") && static_cast<uint8_t>(body[0]) < BRIDGE_OP_COUNT) << round;
        EXPECT_TRUE(!ours || GlibRequest(out) == body) << round;
        BridgeReply replyOut;
        ours = DecodeReply(reply.data(), reply.size(), &replyOut);
        EXPECT_EQ(ours, GlibNormal(reply, "(mayi)")) << round;
        EXPECT_TRUE(!ours || GlibReply(replyOut) == reply) << round;
    }
    g_rand_free(rand);
}

TEST(Channel, RefusesWrongTypesUnknownOperationsAndCutFrames) {
    BridgeRequest request;
    request.op = BRIDGE_GET_PROPERTY;
    request.text[0] = std::string("name");
    std::string body = Body(EncodeRequest(request));
    BridgeRequest out;
    for (size_t cut = 0; cut < body.size(); ++cut) EXPECT_FALSE(DecodeRequest(body.data(), cut, &out)) << cut;
    // A reply is no request, and the other way round.
    std::string replyBody = Body(EncodeReply(BridgeReply()));
    EXPECT_FALSE(DecodeRequest(replyBody.data(), replyBody.size(), &out));
    BridgeReply reply;
    EXPECT_FALSE(DecodeReply(body.data(), body.size(), &reply));
    request.op = BRIDGE_OP_COUNT;
    body = Body(EncodeRequest(request));
    EXPECT_FALSE(DecodeRequest(body.data(), body.size(), &out));
    body = GlibBody(g_variant_new("(s)", "GetProperty"));
    EXPECT_FALSE(DecodeRequest(body.data(), body.size(), &out));
}

TEST(Channel, StartupDataNeedsAPathAndAFullToken) {
    StartupData in;
    in.socketPath = "/run/x/bridge";
    in.token = std::string(kTokenSize, 't');
    in.flags = STARTUP_DEVELOPER;
    in.trustedOrigins = {"file://", "http://127.0.0.1:8080"};
    auto parse = [](GVariant* data, StartupData* out) {
        g_variant_ref_sink(data);
        bool ok = ParseStartupData(data, out);
        g_variant_unref(data);
        return ok;
    };
    StartupData out;
    ASSERT_TRUE(parse(MakeStartupData(in), &out));
    EXPECT_EQ(out.socketPath, in.socketPath);
    EXPECT_EQ(out.token, in.token);
    EXPECT_EQ(out.flags, in.flags);
    EXPECT_EQ(out.trustedOrigins, in.trustedOrigins);

    StartupData shortToken = in, nulInPath = in;
    shortToken.token = "short";
    nulInPath.socketPath = std::string("/a\0b", 4);
    EXPECT_FALSE(parse(MakeStartupData(shortToken), &out));
    EXPECT_FALSE(parse(MakeStartupData(nulInPath), &out));
    EXPECT_FALSE(parse(g_variant_new("(ss)", "/run/x", "token"), &out));
    EXPECT_FALSE(ParseStartupData(nullptr, &out));
}

}  // namespace
