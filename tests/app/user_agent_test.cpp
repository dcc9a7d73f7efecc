// Composition of the user agent: version digits, the operating system's
// description and the length limits against the buffer size.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "bridge/user_agent.h"
#include "tests/support/support.h"

using kvotest::TempDir;
using kvotest::WriteFile;

namespace {

// The field's bytes alone on the heap, with no terminator after them, so
// that a read past its end is a heap overflow for the sanitizers.
std::string Digits(const std::string& field) {
    std::unique_ptr<char[]> exact(new char[field.size() ? field.size() : 1]);
    memcpy(exact.get(), field.data(), field.size());
    char out[16] = "";
    AppendVersionDigits(exact.get(), field.size(), out);
    return out;
}

TEST(VersionDigits, TwoDigitPartsWithoutLeadingZeros) {
    EXPECT_EQ("6.7", Digits("06070002"));
    EXPECT_EQ("12.3", Digits("12030000"));
    EXPECT_EQ("10.5", Digits("10.5"));
    EXPECT_EQ("6.7", Digits("6.7.2"));
    EXPECT_EQ("0.0", Digits("0000"));  // only the first digit of a part is dropped as 0
}

TEST(VersionDigits, PositionsPastTheFieldAreAbsent) {
    EXPECT_EQ(".", Digits(""));
    EXPECT_EQ("6.", Digits("6"));
    EXPECT_EQ("6.", Digits("06"));
    EXPECT_EQ("12.", Digits("12"));
    EXPECT_EQ("6.1", Digits("061"));
    EXPECT_EQ("12.3", Digits("123"));
    // Appends to what out holds.
    char out[16] = "v";
    AppendVersionDigits("0607", 4, out);
    EXPECT_STREQ("v6.7", out);
}

class OsDescription : public testing::Test {
protected:
    std::string Read(const std::string& content, uint32_t size = 256, bool* ok = nullptr) {
        WriteFile(m_file, content);
        std::unique_ptr<char[]> buffer(new char[size]);
        memset(buffer.get(), 'j', size);
        bool result = ReadOsDescriptionFrom(m_file.c_str(), buffer.get(), size);
        if (ok) *ok = result;
        return std::string(buffer.get());
    }
    TempDir m_dir;
    std::string m_file = m_dir.file("issue.net");
};

TEST_F(OsDescription, CutBeforeTheSecondDotAndLastBlankToSlash) {
    bool ok = false;
    EXPECT_EQ("Ubuntu/16.04", Read("Ubuntu 16.04.7 LTS\n", 256, &ok));
    EXPECT_TRUE(ok);
    // Fewer than two dots: nothing cut, the line end stays.
    EXPECT_EQ("Debian GNU/Linux/9\n", Read("Debian GNU/Linux 9\n"));
    EXPECT_EQ("Fedora 3.9/x\n", Read("Fedora 3.9 x\n"));
    // No blank: no slash.
    EXPECT_EQ("Arch.Linux", Read("Arch.Linux.x"));
    // A line end before the cut stays in the text.
    EXPECT_EQ("Name\n16.04", Read("Name\n16.04.1 x"));
}

TEST_F(OsDescription, ReadsAtMostSizeMinusOneBytes) {
    // "Ubuntu " fits, then the blank becomes the slash.
    EXPECT_EQ("Ubuntu/", Read("Ubuntu 16.04.7 LTS\n", 8));
    bool ok = true;
    EXPECT_EQ("", Read("Ubuntu", 1, &ok));
    EXPECT_FALSE(ok);
}

TEST_F(OsDescription, EmptyOrMissingFileGivesNothing) {
    bool ok = true;
    EXPECT_EQ("", Read("", 256, &ok));
    EXPECT_FALSE(ok);

    char buffer[32];
    memset(buffer, 'j', sizeof buffer);
    EXPECT_FALSE(ReadOsDescriptionFrom(m_dir.file("missing").c_str(), buffer, sizeof buffer));
    EXPECT_STREQ("", buffer);
}

class Composition : public testing::Test {
protected:
    // Composes into a zeroed heap buffer of exactly size bytes.
    bool Compose(const std::string& agent, std::string productInfo, std::string* text, uint32_t size = 256) {
        std::unique_ptr<char[]> buffer(new char[size]());
        m_productInfo.assign(productInfo.begin(), productInfo.end());
        m_productInfo.push_back('\0');
        bool result =
            ComposeUserAgentTextFrom(m_issue.c_str(), agent.c_str(), m_productInfo.data(), buffer.get(), size);
        *text = std::string(buffer.get());
        return result;
    }
    TempDir m_dir;
    std::string m_issue = m_dir.file("issue.net");
    std::vector<char> m_productInfo;  // as the split left it
};

TEST_F(Composition, DefaultThenProductTokenThenDescription) {
    WriteFile(m_issue, "Ubuntu 16.04.7 LTS\n");
    std::string text;
    ASSERT_TRUE(Compose("Mozilla/5.0 (X11)", "Kavori Middleware;x;06070002,2024-01-01", &text));
    EXPECT_EQ("Mozilla/5.0 (X11) Kavori/6.7 Ubuntu/16.04", text);

    // A short version field does not borrow the digits after its comma.
    ASSERT_TRUE(Compose("Agent", "Name;x;6,12345", &text));
    EXPECT_EQ("Agent Kavori/6. Ubuntu/16.04", text);

    // Without a description: no trailing blank.
    unlink(m_issue.c_str());
    ASSERT_TRUE(Compose("Agent", "Name;x;6.7.2,", &text));
    EXPECT_EQ("Agent Kavori/6.7", text);
    WriteFile(m_issue, "");
    ASSERT_TRUE(Compose("Agent", "Name;x;6.7.2,", &text));
    EXPECT_EQ("Agent Kavori/6.7", text);
}

TEST_F(Composition, MissingSeparatorsFailAndStaySplit) {
    std::string text;
    EXPECT_FALSE(Compose("Agent", "Name 06070002", &text));
    EXPECT_FALSE(Compose("Agent", "Name;06070002,", &text));
    EXPECT_EQ(std::string("Name\0" "06070002,", 15), std::string(m_productInfo.data(), 15));
    // The comma must follow the second semicolon.
    EXPECT_FALSE(Compose("Agent", "Name,x;y;06070002", &text));
    EXPECT_EQ(std::string("Name,x\0y\0" "06070002", 17), std::string(m_productInfo.data(), 17));
    EXPECT_EQ("", text);
    EXPECT_FALSE(Compose("Agent", "", &text));
}

TEST_F(Composition, LengthLimitsAgainstTheBufferSize) {
    WriteFile(m_issue, "Ubuntu 16.04.7 LTS\n");
    std::string text;
    // Default agent: length + 64 must stay below the size.
    EXPECT_TRUE(Compose(std::string(191, 'a'), "N;x;0607,", &text));
    EXPECT_EQ(std::string(191, 'a') + " Kavori/6.7 Ubuntu/16.04", text);
    EXPECT_FALSE(Compose(std::string(192, 'a'), "N;x;0607,", &text));
    EXPECT_EQ("", text);
    EXPECT_TRUE(Compose(std::string(127, 'a'), "N;x;0607,", &text, 192));
    EXPECT_FALSE(Compose(std::string(128, 'a'), "N;x;0607,", &text, 192));

    // Agent, product name and version field together, plus 4.
    std::string agent(100, 'a');
    EXPECT_TRUE(Compose(agent, std::string(100, 'n') + ";x;0607" + std::string(47, '0') + ",", &text));
    EXPECT_FALSE(Compose(agent, std::string(100, 'n') + ";x;0607" + std::string(48, '0') + ",", &text));
}

TEST_F(Composition, DescriptionGetsOnlyTheRoomLeft) {
    // 191 + " Kavori/6.7" = 202 bytes; 53 bytes are left after the joining
    // blank, so at most 52 bytes of the description, ending at the last byte.
    std::string agent(191, 'a');
    WriteFile(m_issue, std::string(60, 'd'));
    std::string text;
    ASSERT_TRUE(Compose(agent, "N;x;0607,", &text));
    EXPECT_EQ(agent + " Kavori/6.7 " + std::string(52, 'd'), text);
    EXPECT_EQ(255u, text.size());
}

}  // namespace
