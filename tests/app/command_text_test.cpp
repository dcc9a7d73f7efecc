// Splitting a configured command text into words and joining vectors.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "app/start_url.h"

namespace {

std::vector<std::string> Split(const char* text) {
    int32_t count = -1;
    char** words = SplitCommandText(text, &count);
    std::vector<std::string> result;
    for (int32_t i = 0; i < count; ++i) result.push_back(words[i]);
    EXPECT_EQ(nullptr, words[count]);  // the vector ends with a null entry
    FreeArgumentVector(words);
    return result;
}

using Words = std::vector<std::string>;

TEST(SplitCommandText, BlanksSeparateAndQuotesGroup) {
    EXPECT_EQ((Words{"-url", "page.html", "-title", "Two words"}), Split("-url page.html -title \"Two words\""));
    EXPECT_EQ((Words{"a", "b"}), Split("   a    b   "));
    // Only the space is a blank.
    EXPECT_EQ((Words{"a\tb", "c\nd"}), Split("a\tb c\nd"));
    // No escapes: the backslash stays and the quote ends the word.
    EXPECT_EQ((Words{"a\\", "b"}), Split("\"a\\\" b"));
}

TEST(SplitCommandText, QuoteEdgeCases) {
    // A quoted word directly followed by text gives two words.
    EXPECT_EQ((Words{"a", "b"}), Split("\"a\"b"));
    // A quote inside an unquoted word is ordinary.
    EXPECT_EQ((Words{"a\"b"}), Split("a\"b"));
    EXPECT_EQ((Words{"a\"b\""}), Split("a\"b\""));
    // Two quotes give an empty word.
    EXPECT_EQ((Words{""}), Split("\"\""));
    EXPECT_EQ((Words{"", "x", ""}), Split("\"\" x \"\""));
    // An unterminated quote runs to the end, blanks included.
    EXPECT_EQ((Words{"-title", "open end  "}), Split("-title \"open end  "));
    EXPECT_EQ((Words{""}), Split("\""));
}

TEST(SplitCommandText, EmptyAndBlankTexts) {
    EXPECT_EQ(Words{}, Split(""));
    EXPECT_EQ(Words{}, Split(nullptr));
    // Blanks alone give one empty word.
    EXPECT_EQ((Words{""}), Split("   "));
    EXPECT_EQ((Words{""}), Split(" "));
}

TEST(JoinArgumentVectors, CopiesBothInOrderAndIgnoresCountsBelowOne) {
    char a[] = "host", b[] = "-url", c[] = "x";
    char* first[] = {a, b, nullptr};
    char* second[] = {c, nullptr};

    char** joined = JoinArgumentVectors(first, 2, second, 1);
    ASSERT_STREQ("host", joined[0]);
    EXPECT_STREQ("-url", joined[1]);
    EXPECT_STREQ("x", joined[2]);
    EXPECT_EQ(nullptr, joined[3]);
    EXPECT_NE(a, joined[0]);  // copies, owned by the new vector
    FreeArgumentVector(joined);

    joined = JoinArgumentVectors(first, 0, second, -3);
    EXPECT_EQ(nullptr, joined[0]);
    FreeArgumentVector(joined);

    joined = JoinArgumentVectors(first, -1, second, 1);
    EXPECT_STREQ("x", joined[0]);
    EXPECT_EQ(nullptr, joined[1]);
    FreeArgumentVector(joined);

    FreeArgumentVector(nullptr);
}

}  // namespace
