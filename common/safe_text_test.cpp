#include "common/safe_text.h"

#include <gtest/gtest.h>

namespace zumod {
namespace {

TEST(SafeText, LeavesPrintableTextUnchanged) {
    EXPECT_EQ(SafeText(""), "");
    EXPECT_EQ(SafeText("Front Camera (USB) 2.0"), "Front Camera (USB) 2.0");
    EXPECT_EQ(SafeText("Kamera \xc3\xbc \xe2\x82\xac \xf0\x9f\x93\xb7"),
              "Kamera \xc3\xbc \xe2\x82\xac \xf0\x9f\x93\xb7");
}

TEST(SafeText, EscapesControlCharactersOfOneAndOfTwoBytes) {
    EXPECT_EQ(SafeText("a\x1b[2Jb\r\n\t\x7f"), "a\\x1b[2Jb\\x0d\\x0a\\x09\\x7f");
    EXPECT_EQ(SafeText(std::string("a\0b", 3)), "a\\x00b");
    EXPECT_EQ(SafeText("\xc2\x9b"
                       "2J"),
              "\\u009b2J");
}

TEST(SafeText, EscapesItsOwnEscapeCharacter) {
    EXPECT_EQ(SafeText("\\x1b"), "\\x5cx1b");
}

TEST(SafeText, EscapesMarksThatChangeTheWritingDirectionOrEndALine) {
    EXPECT_EQ(SafeText("\xe2\x80\xae"
                       "a"),
              "\\u202ea");
    EXPECT_EQ(SafeText("\xe2\x81\xa6\xe2\x80\xa8\xef\xbb\xbf"), "\\u2066\\u2028\\ufeff");
}

TEST(SafeText, EscapesCharactersThatNobodySees) {
    // Of no width: space, joiner, word joiner. A soft hyphen, a filler, a variation selector, a tag.
    EXPECT_EQ(SafeText("a\xe2\x80\x8b\xe2\x80\x8d\xe2\x81\xa0"), "a\\u200b\\u200d\\u2060");
    EXPECT_EQ(SafeText("\xc2\xad\xe3\x85\xa4\xef\xb8\x8f"), "\\u00ad\\u3164\\ufe0f");
    EXPECT_EQ(SafeText("\xf3\xa0\x80\xa0"), "\\U000e0020");
    // Their neighbours, and a space that has a width.
    EXPECT_EQ(SafeText("\xc2\xae\xe2\x80\x8a\xe2\x80\x90"), "\xc2\xae\xe2\x80\x8a\xe2\x80\x90");
}

TEST(SafeText, EscapesEveryByteThatIsNotUtf8) {
    EXPECT_EQ(SafeText("\xff"), "\\xff");
    EXPECT_EQ(SafeText("a\xc3"), "a\\xc3");
    EXPECT_EQ(SafeText("\xc0\x80"), "\\xc0\\x80");
    EXPECT_EQ(SafeText("\xe0\x80\xaf"), "\\xe0\\x80\\xaf");
    EXPECT_EQ(SafeText("\xed\xa0\x80"), "\\xed\\xa0\\x80");
    EXPECT_EQ(SafeText("\xf4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80");
    EXPECT_EQ(SafeText("\xe2\x82z"), "\\xe2\\x82z");
}

}  // namespace
}  // namespace zumod
