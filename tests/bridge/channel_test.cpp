// The wire format: what goes in comes out, and anything else is refused.
#include <gtest/gtest.h>
#include <glib.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "bridge/channel.h"

namespace {

std::string Body(const std::string& frame) {
    EXPECT_GE(frame.size(), kFrameHeaderSize);
    EXPECT_EQ(ReadFrameLength(frame.data()), frame.size() - kFrameHeaderSize);
    return frame.substr(kFrameHeaderSize);
}

// GLib's own serialisation of the same values: the wire format must be
// exactly GVariant's, whatever the codec does inside.
GVariant* Maybe(const std::optional<std::string>& text) {
    GVariant* child =
        text ? g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, text->data(), text->size(), 1) : nullptr;
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

bool GlibAccepts(const std::string& body, const char* type) {
    GBytes* bytes = g_bytes_new(body.data(), body.size());
    GVariant* value = g_variant_ref_sink(g_variant_new_from_bytes(G_VARIANT_TYPE(type), bytes, FALSE));
    g_bytes_unref(bytes);
    bool normal = g_variant_is_normal_form(value);
    g_variant_unref(value);
    return normal;
}

TEST(Channel, WritesExactlyWhatGlibWrites) {
    // Sizes around the offset-width steps (255 and 65535 bytes).
    std::vector<size_t> sizes = {0, 1, 7, 8, 200, 230, 240, 250, 255, 256, 300, 65500, 65530, 65536, 70000};
    for (size_t a : sizes) {
        for (int shape = 0; shape < 4; ++shape) {
            BridgeRequest request;
            request.op = BRIDGE_ENUM_PROPERTY;
            request.argc = 2;
            request.text[0] = std::string(a, 'a');
            if (shape & 1) request.text[1] = std::string(shape, 'b');
            if (shape & 2) request.text[2] = std::string();
            request.number = shape == 3 ? NAN : 1.25;
            EXPECT_EQ(Body(EncodeRequest(request)), GlibRequest(request)) << a << "/" << shape;
            BridgeReply reply;
            if (shape) reply.text = std::string(a, 'r');
            reply.code = -shape;
            EXPECT_EQ(Body(EncodeReply(reply)), GlibReply(reply)) << a << "/" << shape;
        }
    }
    EXPECT_EQ(Body(EncodeRequest(BridgeRequest())), GlibRequest(BridgeRequest()));
}

TEST(Channel, AcceptsExactlyWhatGlibCallsNormal) {
    // Mutate valid bodies byte by byte and in length; the codec must agree
    // with GLib's normal-form check on every one, and decode what it accepts
    // to the values GLib reads.
    GRand* rand = g_rand_new_with_seed(7);
    for (int round = 0; round < 3000; ++round) {
        BridgeRequest request;
        request.op = static_cast<uint8_t>(g_rand_int_range(rand, 0, BRIDGE_OP_COUNT));
        for (int i = 0; i < 3; ++i) {
            if (g_rand_boolean(rand)) request.text[i] = std::string(g_rand_int_range(rand, 0, 6), 'x');
        }
        std::string body = GlibRequest(request);
        std::string reply = GlibReply(BridgeReply{request.text[0], 3});
        int mutation = g_rand_int_range(rand, 0, 3);
        std::string* target = g_rand_boolean(rand) ? &body : &reply;
        if (mutation == 0 && !target->empty()) {
            (*target)[g_rand_int_range(rand, 0, static_cast<gint32>(target->size()))] ^=
                static_cast<char>(1 << g_rand_int_range(rand, 0, 8));
        } else if (mutation == 1 && !target->empty()) {
            target->resize(target->size() - 1);
        } else {
            target->push_back(static_cast<char>(g_rand_int_range(rand, 0, 3)));
        }
        BridgeRequest out;
        bool glib = GlibAccepts(body, "(yymaymaymayd)");
        bool ours = DecodeRequest(body.data(), body.size(), &out);
        if (glib) {
            GVariant* v = g_variant_ref_sink(g_variant_new_from_data(G_VARIANT_TYPE("(yymaymaymayd)"), body.data(),
                                                                     body.size(), FALSE, nullptr, nullptr));
            guint8 op = 0;
            g_variant_get_child(v, 0, "y", &op);
            g_variant_unref(v);
            EXPECT_EQ(ours, op < BRIDGE_OP_COUNT) << round;
        } else {
            EXPECT_FALSE(ours) << round;
        }
        BridgeReply replyOut;
        EXPECT_EQ(DecodeReply(reply.data(), reply.size(), &replyOut), GlibAccepts(reply, "(mayi)")) << round;
    }
    g_rand_free(rand);
}

TEST(Channel, RequestsRoundTripWithAnyBytes) {
    BridgeRequest in;
    in.op = BRIDGE_APPLICATION;
    in.argc = 3;
    in.text[0] = std::string("exit");
    in.text[1] = std::string("a\0b\xff", 4);  // bytes, not necessarily UTF-8
    in.number = -1.5;
    std::string body = Body(EncodeRequest(in));
    BridgeRequest out;
    ASSERT_TRUE(DecodeRequest(body.data(), body.size(), &out));
    EXPECT_EQ(out.op, BRIDGE_APPLICATION);
    EXPECT_EQ(out.argc, 3);
    EXPECT_EQ(*out.text[0], "exit");
    EXPECT_EQ(*out.text[1], std::string("a\0b\xff", 4));
    EXPECT_FALSE(out.text[2]);
    EXPECT_EQ(out.number, -1.5);

    in.number = NAN;
    in.text[0] = std::string();  // empty is not absent
    body = Body(EncodeRequest(in));
    ASSERT_TRUE(DecodeRequest(body.data(), body.size(), &out));
    EXPECT_TRUE(out.text[0]);
    EXPECT_TRUE(out.text[0]->empty());
    EXPECT_TRUE(std::isnan(out.number));
}

TEST(Channel, RepliesRoundTrip) {
    BridgeReply in;
    in.text = std::string(100000, 'x');
    in.code = -1;
    std::string body = Body(EncodeReply(in));
    BridgeReply out;
    ASSERT_TRUE(DecodeReply(body.data(), body.size(), &out));
    EXPECT_EQ(out.text->size(), 100000u);
    EXPECT_EQ(out.code, -1);

    body = Body(EncodeReply(BridgeReply()));
    ASSERT_TRUE(DecodeReply(body.data(), body.size(), &out));
    EXPECT_FALSE(out.text);
}

TEST(Channel, RefusesWrongTypesUnknownOperationsAndCutFrames) {
    BridgeRequest request;
    request.op = BRIDGE_GET_PROPERTY;
    request.text[0] = std::string("name");
    std::string body = Body(EncodeRequest(request));
    BridgeRequest out;
    for (size_t cut = 0; cut < body.size(); ++cut) {
        EXPECT_FALSE(DecodeRequest(body.data(), cut, &out)) << "cut at " << cut;
    }
    // A reply is no request, and the other way round.
    std::string replyBody = Body(EncodeReply(BridgeReply()));
    EXPECT_FALSE(DecodeRequest(replyBody.data(), replyBody.size(), &out));
    BridgeReply reply;
    EXPECT_FALSE(DecodeReply(body.data(), body.size(), &reply));

    request.op = BRIDGE_OP_COUNT;
    body = Body(EncodeRequest(request));
    EXPECT_FALSE(DecodeRequest(body.data(), body.size(), &out));

    GVariant* other = g_variant_ref_sink(g_variant_new("(s)", "GetProperty"));
    EXPECT_FALSE(DecodeRequest(g_variant_get_data(other), g_variant_get_size(other), &out));
    g_variant_unref(other);
}

TEST(Channel, RandomBytesNeverDecodeBadly) {
    // Garbage either fails or decodes to something well-formed; never a crash.
    GRand* rand = g_rand_new_with_seed(42);
    std::string bytes;
    for (int round = 0; round < 2000; ++round) {
        bytes.resize(static_cast<size_t>(g_rand_int_range(rand, 0, 80)));
        for (char& c : bytes) c = static_cast<char>(g_rand_int_range(rand, 0, 256));
        BridgeRequest request;
        BridgeReply reply;
        if (DecodeRequest(bytes.data(), bytes.size(), &request)) {
            EXPECT_LT(request.op, BRIDGE_OP_COUNT);
        }
        DecodeReply(bytes.data(), bytes.size(), &reply);
    }
    g_rand_free(rand);
}

TEST(Channel, StartupDataNeedsAPathAndAFullToken) {
    StartupData in;
    in.socketPath = "/run/x/bridge";
    in.token = std::string(kTokenSize, 't');
    in.flags = STARTUP_DEVELOPER;
    in.trustedOrigins = {"file://", "http://127.0.0.1:8080"};
    StartupData out;
    GVariant* data = g_variant_ref_sink(MakeStartupData(in));
    ASSERT_TRUE(ParseStartupData(data, &out));
    EXPECT_EQ(out.socketPath, in.socketPath);
    EXPECT_EQ(out.token, in.token);
    EXPECT_EQ(out.flags, in.flags);
    EXPECT_EQ(out.trustedOrigins, in.trustedOrigins);
    g_variant_unref(data);

    StartupData bad = in;
    bad.token = "short";
    data = g_variant_ref_sink(MakeStartupData(bad));
    EXPECT_FALSE(ParseStartupData(data, &out));
    g_variant_unref(data);
    bad = in;
    bad.socketPath = std::string("/a\0b", 4);
    data = g_variant_ref_sink(MakeStartupData(bad));
    EXPECT_FALSE(ParseStartupData(data, &out));
    g_variant_unref(data);
    data = g_variant_ref_sink(g_variant_new("(ss)", "/run/x", "token"));
    EXPECT_FALSE(ParseStartupData(data, &out));
    g_variant_unref(data);
    EXPECT_FALSE(ParseStartupData(nullptr, &out));
}

}  // namespace
