#include <gtest/gtest.h>

#include "KVFourCharCode.h"

TEST(KVFourCharCodeTest, ReadsExactlyFourByteSizedCharactersAsABigEndianCode) {
    EXPECT_EQ(KVFourCharCode::fromString("ABCD"), 0x41424344u);
    EXPECT_EQ(KVFourCharCode::fromString("????"), 0x3F3F3F3Fu);
    EXPECT_EQ(KVFourCharCode::fromString("a b\u00ff"), 0x612062FFu);
    for (const char *text : {"ABC", "ABCDE", "", "AB\u20acD"})
        EXPECT_EQ(KVFourCharCode::fromString(text), 0u) << text;
}

TEST(KVFourCharCodeTest, PrintsACodeAsItsFourBytesAndZeroAsNothing) {
    EXPECT_EQ(KVFourCharCode::toString(0x41424344), "ABCD");
    EXPECT_EQ(KVFourCharCode::toString(0x3F3F3F3F), "????");
    EXPECT_EQ(KVFourCharCode::toString(0x612062FF), "a b\u00ff");
    EXPECT_EQ(KVFourCharCode::toString(0), "");
}
