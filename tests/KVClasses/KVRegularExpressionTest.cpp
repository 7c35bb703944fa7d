#include <gtest/gtest.h>

#include "KVRegularExpression.h"
#include "QStringStream.h"

TEST(KVRegularExpressionTest, OptionsRangesAndErrors) {
    const std::tuple<QString, NSRegularExpressionOptions, NSRange, QString> rows[] = {
        {"a", NSRegularExpressionCaseInsensitive, {0, 6}, "x-x-xx"},
        {"a.", NSRegularExpressionIgnoreMetacharacters, {0, 6}, "A-a-aA"},
        {"^a", NSRegularExpressionAnchorsMatchLines, {0, 6}, "A-a-aA"},
        {"a", {}, {2, 3}, "A-x-xA"},
        {"a", {}, {4, 100}, "A-a-xA"}};  // past the end stops there
    for (const auto &[pattern, options, range, out] : rows) {
        const auto expression =
            KVRegularExpression::regularExpressionWithPattern(pattern, options, nullptr);
        ASSERT_TRUE(expression);
        EXPECT_EQ(expression->stringByReplacingMatchesInString("A-a-aA", 0, range, "x"), out);
    }
    QString error;
    EXPECT_FALSE(KVRegularExpression::regularExpressionWithPattern("a{2", {}, &error));
    EXPECT_TRUE(error.startsWith("U_REGEX_")) << error;
    const auto expression = KVRegularExpression::regularExpressionWithPattern("(b)", {}, nullptr);
    QString text = "abcb";
    EXPECT_EQ(expression->replaceMatchesInString(text, 0, {0, text.size()}, "[$1]"), 2);
    EXPECT_EQ(expression->replaceMatchesInString(text, 0, {0, text.size()}, "$2", &error), -1);
    EXPECT_EQ(text, "a[b]c[b]");
}
