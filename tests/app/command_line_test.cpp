// The command line as the shell reads it: option lookups, the number
// syntax, the window geometry and the words of a configured command text.
#include <gtest/gtest.h>

#include "app/geometry.h"
#include "app/options.h"
#include "tests/app/app_test_support.h"

using kvotest::Argv;
using Words = std::vector<std::string>;

namespace {

TEST(OptionLookup, FirstExactMatchAfterIndexZeroAndValuesNeverBeginWithDash) {
    Argv args{"-title", "-Title", "X", "-title=Y", "-url", "", "-icon",
              "-center", "-store", "A", "-store", "B", "-key"};
    struct Row {
        const char* name;
        int found;
        const char* value;
        int at;  // the value points into the vector here (0: not checked)
    } rows[] = {{"-title", 0, nullptr, 0}, {"-url", 1, "", 5},  {"-icon", 1, "", 0},
                {"-store", 1, "A", 9},     {"-key", 1, "", 0},  {"-wait", 0, nullptr, 0}};
    for (const Row& r : rows) {
        const char* value = "stale";
        EXPECT_EQ(FindOptionValue(args.argc(), args.argv(), r.name, &value), r.found) << r.name;
        EXPECT_STREQ(value, r.value) << r.name;
        EXPECT_TRUE(r.at == 0 || value == args.argv()[r.at]) << r.name;
    }
    const char* value = "stale";
    EXPECT_EQ(FindOptionValue(1, args.argv(), "-title", &value), 0);
    EXPECT_EQ(FindOptionValue(0, nullptr, "-url", &value), 0);
    EXPECT_EQ(value, nullptr);
}

TEST(OptionLookup, NumbersAreZeroWithoutAValueAndUntouchedWhenAbsent) {
    Argv args{"host", "-wait", "-5", "-position", "-hex", "0x0BB8", "-dec", "3000"};
    for (auto r : {std::make_pair("-center", 77u), std::make_pair("-wait", 0u), std::make_pair("-position", 0u),
                   std::make_pair("-hex", 3000u), std::make_pair("-dec", 3000u)}) {
        uint32_t number = 77;
        EXPECT_EQ(FindOptionNumber(args.argc(), args.argv(), r.first, &number), r.second != 77u) << r.first;
        EXPECT_EQ(number, r.second) << r.first;
    }
    EXPECT_EQ(FindOptionNumber(args.argc(), args.argv(), "-wait", nullptr), 1);
    EXPECT_EQ(HasOption(args.argc(), args.argv(), "-dec"), 1);
}

TEST(NumberSyntax, LowercaseXIntroducesHexOtherwiseDecimalAsStrtol) {
    struct Row {
        uint32_t (*parse)(const char*);
        const char* text;
        uint32_t number;
    } rows[] = {
        {ParseNumber, "0X0BB8", 0}, {ParseNumber, "12abc", 12}, {ParseNumber, "+5", 5}, {ParseNumber, "  42", 42},
        {ParseNumber, "abc", 0}, {ParseNumber, "0x", 0}, {ParseNumber, "-1", 0xFFFFFFFF},  // low 32 bits
        {ParseNumber, "4294967297", 1}, {ParseNumber, "0xFFFFFFFF", 0xFFFFFFFF},
        // Hex digits: the last eight count; other bytes follow the same arithmetic.
        {ParseHexDigits, "", 0}, {ParseHexDigits, "ABCDEF09", 0xABCDEF09}, {ParseHexDigits, "123456789", 0x23456789},
        {ParseHexDigits, "FFFFFFFFFFFF", 0xFFFFFFFF}, {ParseHexDigits, "a", 42}, {ParseHexDigits, "0bb8", 43 * 272 + 8},
        {ParseHexDigits, " ", 0xFFFFFFF0}, {ParseHexDigits, "\xff", 200},
        {ParseHexDigits, "123456789ABCDEF000000000", 0}};
    for (const Row& r : rows) EXPECT_EQ(r.parse(r.text), r.number) << r.text;
}

TEST(Geometry, SizeCenterPositionAndFullscreen) {
    struct Row {
        std::vector<std::string> args;
        int32_t width, height, x, y, screenWidth = 1280, screenHeight = 1024;
    } rows[] = {
        {{}, 256, 384, 0, 0},
        {{"-size", "0x01000200"}, 256, 482, 0, 0},  // the title bar's 30 pixels off the height
        {{"-size"}, 0, 1, 0, 0},
        {{"-size", "0x0100001F"}, 256, 1, 0, 0},  // never below one pixel
        {{"-size", "0x0100001E"}, 256, 1, 0, 0},
        {{"-size", "0x01000005"}, 256, 1, 0, 0},
        {{"-center"}, 256, 384, 512, 320},
        {{"-center"}, 256, 384, 512, 320, 1281, 1025},
        {{"-center", "-size", "0x07D00212"}, 2000, 500, 0, 262},  // wider than the screen: x 0
        {{"-center", "-size", "0x0500041E"}, 1280, 1024, 0, 0},
        {{"-position", "0x00640032", "-center"}, 256, 384, 512, 320},
        {{"-position", "0x00640032"}, 256, 384, 100, 50},
        {{"-position", "0x80648032"}, 256, 384, 1280 - 256 - 100, 1024 - 384 - 50},  // from right and bottom
        {{"-size", "0x0200012C", "-position", "0x00008000"}, 512, 270, 0, 1024 - 270},
        {{"-position"}, 256, 384, 0, 0},
        {{"-fullscreen", "-size", "0x01000200", "-position", "0x00640032"}, 1280, 1024, 0, 0},
        {{"-center", "-fullscreen"}, 1280, 1024, 0, 0}};
    for (Row& r : rows) {
        r.args.insert(r.args.begin(), "host");
        Argv args(r.args);
        WindowGeometry g = ComputeWindowGeometry(args.argc(), args.argv(), r.screenWidth, r.screenHeight);
        using Four = std::vector<int32_t>;
        EXPECT_EQ((Four{g.width, g.height, g.x, g.y}), (Four{r.width, r.height, r.x, r.y}))
            << testing::PrintToString(r.args);
    }
}

TEST(CommandText, BlanksSeparateAndQuotesGroupWithoutEscapes) {
    std::pair<const char*, Words> rows[] = {
        {"-url page.html -title \"Two words\"", {"-url", "page.html", "-title", "Two words"}},
        {"   a    b   ", {"a", "b"}},
        {"a\tb c\nd", {"a\tb", "c\nd"}},  // only the space is a blank
        {"\"a\\\" b", {"a\\", "b"}},      // the backslash stays, the quote ends the word
        {"\"a\"b", {"a", "b"}},
        {"a\"b", {"a\"b"}},  // a quote inside an unquoted word is ordinary
        {"a\"b\"", {"a\"b\""}},
        {"\"\"", {""}},
        {"\"\" x \"\"", {"", "x", ""}},
        {"-title \"open end  ", {"-title", "open end  "}},  // an open quote runs to the end
        {"\"", {""}},
        {"", {}},
        {nullptr, {}},
        {"   ", {""}},  // blanks alone: one empty word
        {" ", {""}}};
    for (const auto& r : rows) {
        int32_t count = -1;
        char** words = SplitCommandText(r.first, &count);
        EXPECT_EQ(Words(words, words + count), r.second) << (r.first ? r.first : "(null)");
        EXPECT_EQ(words[count], nullptr);
        FreeArgumentVector(words);
    }
}

}  // namespace
