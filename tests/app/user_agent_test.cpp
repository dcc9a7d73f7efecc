// The user agent's parts: version digits, the operating system's
// description and the composition's length limits against the buffer size.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <memory>

#include "bridge/user_agent.h"
#include "tests/support/support.h"

using kvotest::WriteFile;

namespace {

TEST(VersionDigits, TwoDigitPartsWithoutLeadingZerosAndNothingPastTheField) {
    std::pair<std::string, std::string> rows[] = {
        {"06070002", "6.7"}, {"12030000", "12.3"}, {"10.5", "10.5"}, {"6.7.2", "6.7"},
        {"0000", "0.0"},  // only a part's first digit is dropped as 0
        {"", "."}, {"6", "6."}, {"06", "6."}, {"12", "12."}, {"061", "6.1"}, {"123", "12.3"}};
    for (const auto& r : rows) {
        // The field alone on the heap without a terminator: a read past it is an overflow.
        std::unique_ptr<char[]> exact(new char[r.first.size() + !r.first.size()]);
        memcpy(exact.get(), r.first.data(), r.first.size());
        char out[16] = "v";  // appended to
        AppendVersionDigits(exact.get(), r.first.size(), out);
        EXPECT_EQ(out, "v" + r.second) << r.first;
    }
}

class UserAgent : public testing::Test {
protected:
    // The description of content read into a buffer of size bytes.
    std::string Describe(const std::string& content, uint32_t size = 256, bool* ok = nullptr) {
        WriteFile(m_issue, content);
        std::unique_ptr<char[]> buffer(new char[size]);
        memset(buffer.get(), 'j', size);
        bool result = ReadOsDescriptionFrom(m_issue.c_str(), buffer.get(), size);
        if (ok) *ok = result;
        return buffer.get();
    }
    // Composes into a zeroed heap buffer of exactly size bytes; m_productInfo as the split left it.
    bool Compose(const std::string& agent, const std::string& productInfo, std::string* text, uint32_t size = 256) {
        std::unique_ptr<char[]> buffer(new char[size]());
        m_productInfo.assign(productInfo.begin(), productInfo.end());
        m_productInfo.push_back('\0');
        bool result =
            ComposeUserAgentTextFrom(m_issue.c_str(), agent.c_str(), m_productInfo.data(), buffer.get(), size);
        *text = buffer.get();
        return result;
    }
    kvotest::TempDir m_dir;
    std::string m_issue = m_dir.file("issue.net");
    std::vector<char> m_productInfo;
};

TEST_F(UserAgent, DescriptionIsCutBeforeTheSecondDotWithTheLastBlankASlash) {
    std::pair<std::string, std::string> rows[] = {
        {"Ubuntu 16.04.7 LTS\n", "Ubuntu/16.04"},
        {"Debian GNU/Linux 9\n", "Debian GNU/Linux/9\n"},  // fewer than two dots: nothing cut
        {"Fedora 3.9 x\n", "Fedora 3.9/x\n"},
        {"Arch.Linux.x", "Arch.Linux"},  // no blank: no slash
        {"Name\n16.04.1 x", "Name\n16.04"}};
    for (const auto& r : rows) EXPECT_EQ(Describe(r.first), r.second);
    EXPECT_EQ(Describe("Ubuntu 16.04.7 LTS\n", 8), "Ubuntu/");  // at most size - 1 bytes read
    bool ok = true;
    EXPECT_EQ(Describe("Ubuntu", 1, &ok), "");
    EXPECT_FALSE(ok);
    EXPECT_EQ(Describe("", 256, &ok), "");
    EXPECT_FALSE(ok);
    unlink(m_issue.c_str());
    char buffer[32] = "jjj";
    EXPECT_FALSE(ReadOsDescriptionFrom(m_issue.c_str(), buffer, sizeof buffer));
    EXPECT_STREQ(buffer, "");
}

TEST_F(UserAgent, CompositionAndItsLengthLimitsAgainstTheBufferSize) {
    const std::string ubuntu = "Ubuntu 16.04.7 LTS\n", tail = " Kavori/6.7 Ubuntu/16.04";
    const std::string a100(100, 'a'), a191(191, 'a');
    struct Row {
        std::string agent, productInfo, issue;  // issue "-": no file
        uint32_t size;
        std::string text;  // "": fails
    } rows[] = {
        {"Mozilla/5.0 (X11)", "Kavori Middleware;x;06070002,2024-01-01", ubuntu, 256, "Mozilla/5.0 (X11)" + tail},
        {"Agent", "Name;x;6,12345", ubuntu, 256, "Agent Kavori/6. Ubuntu/16.04"},  // nothing after the comma
        {"Agent", "Name;x;6.7.2,", "-", 256, "Agent Kavori/6.7"},  // no description: no trailing blank
        {"Agent", "Name;x;6.7.2,", "", 256, "Agent Kavori/6.7"},
        {"Agent", "Name 06070002", ubuntu, 256, ""},  // separators missing
        {"Agent", "", ubuntu, 256, ""},
        {a191, "N;x;0607,", ubuntu, 256, a191 + tail},  // the default agent's length + 64 below the size
        {a191 + "a", "N;x;0607,", ubuntu, 256, ""},
        {std::string(127, 'a'), "N;x;0607,", ubuntu, 192, std::string(127, 'a') + tail},
        {std::string(128, 'a'), "N;x;0607,", ubuntu, 192, ""},
        // Agent, product name and version field together, plus 4.
        {a100, std::string(100, 'n') + ";x;0607" + std::string(47, '0') + ",", ubuntu, 256, a100 + tail},
        {a100, std::string(100, 'n') + ";x;0607" + std::string(48, '0') + ",", ubuntu, 256, ""},
        // The description gets the room left, up to the last byte.
        {a191, "N;x;0607,", std::string(60, 'd'), 256, a191 + " Kavori/6.7 " + std::string(52, 'd')}};
    for (const Row& r : rows) {
        r.issue == "-" ? unlink(m_issue.c_str()) : WriteFile(m_issue, r.issue);
        std::string text;
        EXPECT_EQ(Compose(r.agent, r.productInfo, &text, r.size), !r.text.empty()) << r.agent << " " << r.productInfo;
        EXPECT_EQ(text, r.text);
    }
    // The product info stays split as far as the composition got.
    std::string text;
    EXPECT_FALSE(Compose("Agent", "Name;06070002,", &text));
    EXPECT_EQ(std::string(m_productInfo.data(), 15), std::string("Name\0" "06070002,", 15));
    EXPECT_FALSE(Compose("Agent", "Name,x;y;06070002", &text));  // the comma must follow the second semicolon
    EXPECT_EQ(std::string(m_productInfo.data(), 17), std::string("Name,x\0y\0" "06070002", 17));
}

}  // namespace
