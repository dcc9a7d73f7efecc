// The wire format: what goes in comes out, and anything else is refused.
#include <gtest/gtest.h>
#include <glib.h>

#include <cmath>
#include <cstring>

#include "bridge/channel.h"

namespace {

std::string Body(const std::string& frame) {
    EXPECT_GE(frame.size(), kFrameHeaderSize);
    EXPECT_EQ(ReadFrameLength(frame.data()), frame.size() - kFrameHeaderSize);
    return frame.substr(kFrameHeaderSize);
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
