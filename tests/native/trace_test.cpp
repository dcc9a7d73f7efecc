#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "native/trace.h"
#include "tests/native/native_support.h"

using kvotest::CaptureSink;
using kvotest::SinkLines;
using Lines = std::vector<std::string>;

namespace {

// Feeds a filter a line held in a buffer of exactly its length, with no
// terminator, so a read past the stated length would leave the allocation.
void Feed(TraceCallback filter, const std::string& line) {
    std::unique_ptr<char[]> exact(new char[line.size() + 1]);
    memcpy(exact.get(), line.data(), line.size());
    filter(exact.get(), static_cast<int32_t>(line.size()));
}

}  // namespace

TEST(TraceRouting, ZeroFlagWordClearsTheSink) {
    SetTrace(CaptureSink, 0);
    EXPECT_EQ(GetTraceFilter(TRACE_SOURCE_PKCS11), nullptr);
    EXPECT_EQ(GetTraceFilter(TRACE_SOURCE_PLUGIN), nullptr);
    LogMessage("Plugin library finalized", "");
    Feed(Pkcs11TraceFilter, "Pkcs11 - C_Login called");
    Feed(PluginTraceFilter, "Web - page");
    EXPECT_TRUE(SinkLines().empty());
}

TEST(TraceRouting, CallsFlagPassesOnlyPrefixedModuleLines) {
    SetTrace(CaptureSink, TRACE_PKCS11_CALLS);
    EXPECT_EQ(GetTraceFilter(TRACE_SOURCE_PKCS11), Pkcs11TraceFilter);
    EXPECT_EQ(GetTraceFilter(TRACE_SOURCE_PLUGIN), nullptr);
    EXPECT_EQ(GetTraceFilter(0), nullptr);
    EXPECT_EQ(GetTraceFilter(3), nullptr);
    LogMessage("Pkcs#11 library missing", "");  // own messages need 0x001 or 0x002
    for (const char* line : {"Pkcs11 - C_Login(1)", "Pkcs11 - Return", "Pkcs11 - Return 0", "Pkcs11 - C_",
                             "pkcs11 - C_Login(1)", "Something else entirely", "", "P"}) {
        Feed(Pkcs11TraceFilter, line);
    }
    EXPECT_EQ(SinkLines(), (Lines{"Pkcs11 - C_Login(1)", "Pkcs11 - Return 0"}));
}

TEST(TraceRouting, WebFlagPassesOnlyPrefixedPluginLines) {
    SetTrace(CaptureSink, TRACE_PLUGIN_WEB);
    EXPECT_EQ(GetTraceFilter(TRACE_SOURCE_PKCS11), nullptr);
    EXPECT_EQ(GetTraceFilter(TRACE_SOURCE_PLUGIN), PluginTraceFilter);
    for (const char* line : {"Web -", "Web -x", "Web-x", "web - x", "Web", ""}) Feed(PluginTraceFilter, line);
    EXPECT_EQ(SinkLines(), (Lines{"Web -x"}));
}

TEST(TraceRouting, FiltersPassTextAndLengthUnchanged) {
    static const char* s_seenText;
    static int32_t s_seenLength;
    SetTrace([](const char* text, int32_t length) { s_seenText = text, s_seenLength = length; }, TRACE_PLUGIN_WEB);
    const char line[] = "Web - a longer line";
    PluginTraceFilter(line, 7);  // the stated length is trusted, not recounted
    EXPECT_EQ(s_seenText, line);
    EXPECT_EQ(s_seenLength, 7);
}

TEST(TraceRouting, AllFlagsPassEverything) {
    SetTrace(CaptureSink, TRACE_PKCS11_CALLS | TRACE_PKCS11_ALL);
    Feed(Pkcs11TraceFilter, "");
    Feed(Pkcs11TraceFilter, "x");
    EXPECT_EQ(SinkLines(), (Lines{"", "x"}));
    SinkLines().clear();

    SetTrace(CaptureSink, TRACE_PKCS11_ALL | TRACE_PLUGIN_ALL);
    LogMessage("Updated parameter '%s'", "pin");
    Feed(Pkcs11TraceFilter, "module");
    Feed(PluginTraceFilter, "plugin");
    EXPECT_EQ(SinkLines(), (Lines{"Updated parameter 'pin'", "module", "plugin"}));
}

TEST(TraceRouting, InstalledFiltersFollowLaterSetTrace) {
    SetTrace(CaptureSink, TRACE_PKCS11_CALLS);
    TraceCallback filter = GetTraceFilter(TRACE_SOURCE_PKCS11);
    ASSERT_NE(filter, nullptr);

    SetTrace(CaptureSink, TRACE_PKCS11_ALL);
    filter("short", 5);
    // With its own bit clear the filter still passes the prefixed lines,
    // though 0x100 is gone too.
    SetTrace(CaptureSink, TRACE_PLUGIN_ALL);
    filter("short", 5);
    filter("Pkcs11 - Return 5", 17);
    SetTrace(CaptureSink, 0);
    filter("Pkcs11 - Return 6", 17);
    EXPECT_EQ(SinkLines(), (Lines{"short", "Pkcs11 - Return 5"}));
}

TEST(TraceRouting, LogMessageDropsOverlongMessagesWhole) {
    SetTrace(CaptureSink, TRACE_PLUGIN_ALL);
    const std::string format = "Current root: '%s'";  // 18 bytes
    LogMessage(format.c_str(), std::string(255 - format.size(), 'a').c_str());
    LogMessage(format.c_str(), std::string(256 - format.size(), 'b').c_str());
    LogMessage(std::string(255, 'c').c_str(), "");
    LogMessage(std::string(256, 'd').c_str(), "");
    ASSERT_EQ(SinkLines().size(), 2u);
    EXPECT_EQ(SinkLines()[0], "Current root: '" + std::string(237, 'a') + "'");
    EXPECT_EQ(SinkLines()[1], std::string(255, 'c'));
}
