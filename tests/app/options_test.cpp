// Option lookups and the number syntax.
#include <gtest/gtest.h>

#include "app/options.h"
#include "tests/app/app_test_support.h"

using kvotest::Argv;

namespace {

TEST(OptionLookup, FirstOccurrenceWinsAndValuesNeverBeginWithDash) {
    Argv args{"host", "-title", "A", "-title", "B", "-url", "page", "-icon", "-center", "-key"};
    const char* value = "stale";

    EXPECT_EQ(1, FindOptionValue(args.argc(), args.argv(), "-title", &value));
    EXPECT_STREQ("A", value);
    EXPECT_EQ(args.argv()[2], value);  // points into the vector, not a copy

    EXPECT_EQ(1, FindOptionValue(args.argc(), args.argv(), "-icon", &value));
    EXPECT_STREQ("", value);  // followed by an option: present without a value
    EXPECT_EQ(1, FindOptionValue(args.argc(), args.argv(), "-key", &value));
    EXPECT_STREQ("", value);  // last argument

    value = "stale";
    EXPECT_EQ(0, FindOptionValue(args.argc(), args.argv(), "-store", &value));
    EXPECT_EQ(nullptr, value);
}

TEST(OptionLookup, NamesMatchExactlyAndIndexZeroIsNeverSearched) {
    Argv args{"-title", "-Title", "X", "-title=Y", "-url", ""};
    const char* value = "stale";
    EXPECT_EQ(0, FindOptionValue(args.argc(), args.argv(), "-title", &value));
    EXPECT_EQ(nullptr, value);
    EXPECT_EQ(1, FindOptionValue(args.argc(), args.argv(), "-url", &value));
    EXPECT_STREQ("", value);  // an empty argument is a value
    EXPECT_EQ(args.argv()[5], value);

    Argv onlyHost{"-url"};
    value = "stale";
    EXPECT_EQ(0, FindOptionValue(onlyHost.argc(), onlyHost.argv(), "-url", &value));
    EXPECT_EQ(nullptr, value);
    EXPECT_EQ(0, FindOptionValue(0, nullptr, "-url", &value));
}

TEST(OptionLookup, NumbersAreZeroWithoutAValueAndUntouchedWhenAbsent) {
    Argv args{"host", "-wait", "-5", "-size", "-position"};
    uint32_t number = 77;
    EXPECT_EQ(0, FindOptionNumber(args.argc(), args.argv(), "-center", &number));
    EXPECT_EQ(77u, number);
    EXPECT_EQ(1, FindOptionNumber(args.argc(), args.argv(), "-wait", &number));
    EXPECT_EQ(0u, number);  // "-5" is neither a value nor an option
    number = 77;
    EXPECT_EQ(1, FindOptionNumber(args.argc(), args.argv(), "-position", &number));
    EXPECT_EQ(0u, number);
    EXPECT_EQ(1, FindOptionNumber(args.argc(), args.argv(), "-size", nullptr));
    EXPECT_EQ(1, HasOption(args.argc(), args.argv(), "-wait"));
}

TEST(NumberSyntax, LowercaseXIntroducesHexOtherwiseDecimalAsStrtol) {
    Argv hex{"host", "-wait", "0x0BB8"};
    Argv dec{"host", "-wait", "3000"};
    uint32_t a = 0, b = 0;
    FindOptionNumber(hex.argc(), hex.argv(), "-wait", &a);
    FindOptionNumber(dec.argc(), dec.argv(), "-wait", &b);
    EXPECT_EQ(3000u, a);
    EXPECT_EQ(3000u, b);

    EXPECT_EQ(0u, ParseNumber("0X0BB8"));
    EXPECT_EQ(12u, ParseNumber("12abc"));
    EXPECT_EQ(5u, ParseNumber("+5"));
    EXPECT_EQ(42u, ParseNumber("  42"));
    EXPECT_EQ(0u, ParseNumber("abc"));
    EXPECT_EQ(0u, ParseNumber("0x"));
    EXPECT_EQ(0xFFFFFFFFu, ParseNumber("-1"));  // low 32 bits of the signed value
    EXPECT_EQ(1u, ParseNumber("4294967297"));   // 2^32 + 1
    EXPECT_EQ(0xFFFFFFFFu, ParseNumber("0xFFFFFFFF"));
}

TEST(NumberSyntax, HexDigitsOutsideTheRuleAreDefined) {
    EXPECT_EQ(0u, ParseHexDigits(""));
    EXPECT_EQ(0xABCDEF09u, ParseHexDigits("ABCDEF09"));
    // More than eight digits: only the last eight count.
    EXPECT_EQ(0x23456789u, ParseHexDigits("123456789"));
    EXPECT_EQ(0xFFFFFFFFu, ParseHexDigits("FFFFFFFFFFFF"));
    // Other bytes follow the same arithmetic, modulo 2^32.
    EXPECT_EQ(42u, ParseHexDigits("a"));  // 'a' - 55
    EXPECT_EQ(43u * 256 + 43u * 16 + 8u, ParseHexDigits("0bb8"));
    EXPECT_EQ(0xFFFFFFF0u, ParseHexDigits(" "));  // ' ' - '0' wraps
    EXPECT_EQ(200u, ParseHexDigits("\xff"));      // bytes are unsigned
    // 24 digits: the last eight, all 0, make the number.
    EXPECT_EQ(0u, ParseHexDigits("123456789ABCDEF000000000"));
}

}  // namespace
