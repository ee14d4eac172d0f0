// Foreign text: what is valid.
#include "runtime/Text.h"

#include <gtest/gtest.h>

namespace Runtime {
namespace {

TEST(TextTest, Utf8_OfEveryLength) {
  for (const char* text : {"", "a b%/", "\x7f", "\xc2\x80",
                           "gr\xc3\xb6\xc3\x9f"
                           "e",
                           "\xe0\xa0\x80", "\xed\x9f\xbf", "\xee\x80\x80", "\xe6\x97\xa5\xe6\x9c\xac",
                           "\xf0\x90\x80\x80", "\xf4\x8f\xbf\xbf"}) {
    EXPECT_TRUE(isUtf8(text)) << text;
  }
}

TEST(TextTest, NotUtf8_StrayCutOffOverlongSurrogateOrTooLarge) {
  for (const char* text : {"\x80",
                           "\xbf"
                           "a",
                           "\xc3", "a\xe6\x97", "\xf0\x90\x80", "\xc3(", "\xc0\x80", "\xc1\xbf",
                           "\xe0\x9f\xbf", "\xf0\x8f\xbf\xbf", "\xed\xa0\x80", "\xed\xbf\xbf",
                           "\xf4\x90\x80\x80", "\xf8\x88\x80\x80\x80", "\xff"}) {
    EXPECT_FALSE(isUtf8(text)) << text;
  }
}

// What a terminal obeys, as bytes, and as they are shown.
struct Control {
  const char* bytes;
  const char* shown;
};
constexpr Control kControls[] = {{"\x01", "\\x01"},           {"\n", "\\x0a"},
                                 {"\x1b", "\\x1b"},           {"\x7f", "\\x7f"},
                                 {"\xc2\x80", "\\u0080"},     {"\xc2\x9b", "\\u009b"},
                                 {"\xc2\x9f", "\\u009f"},     {"\xe2\x80\xaa", "\\u202a"},
                                 {"\xe2\x80\xae", "\\u202e"}, {"\xe2\x81\xa6", "\\u2066"},
                                 {"\xe2\x81\xa9", "\\u2069"}};

TEST(TextTest, ControlCharacters_AreNotPlain_AndAreEscaped) {
  for (const auto& [bytes, shown] : kControls) {
    std::string text = std::string("a") + bytes + "b";
    EXPECT_FALSE(isPlain(text)) << shown;
    EXPECT_EQ(escaped(text), std::string("a") + shown + "b");
    EXPECT_EQ(shortened(text), std::string("a") + shown + "b");
  }
  EXPECT_FALSE(isPlain(std::string_view("\0", 1)));
  EXPECT_EQ(escaped(std::string_view("\0", 1)), "\\x00");
}

TEST(TextTest, TheirNeighbours_ArePlain_AndShownAsTheyAre) {
  for (const char* text : {"", " ", "~", "\xc2\xa0", "\xe2\x80\xa9", "\xe2\x80\xaf", "\xe2\x81\xa5",
                           "\xe2\x81\xaa", "gr\xc3\xb6\xc3\x9f", "\xf0\x9f\x98\x80"}) {
    EXPECT_TRUE(isPlain(text)) << text;
    EXPECT_EQ(escaped(text), text);
  }
}

// 0x9b alone opens a control sequence on a terminal that does not take UTF-8.
TEST(TextTest, BytesThatAreNoUtf8_AreEscapedOneByOne) {
  EXPECT_EQ(escaped("\x9b"
                    "2J \xc3( \xe6\x97"),
            "\\x9b2J \\xc3( \\xe6\\x97");
}

TEST(TextTest, LongText_IsCutBetweenCharacters) {
  EXPECT_EQ(shortened("\xc3\xb6\xc3\xb6\xc3\xb6", 6), "\xc3\xb6\xc3\xb6\xc3\xb6");
  EXPECT_EQ(shortened("\xc3\xb6\xc3\xb6\xc3\xb6", 5), "\xc3\xb6\xc3\xb6...");
  EXPECT_EQ(inQuotes("a\nb", 2), "\"a\\x0a...\"");
}

}  // namespace
}  // namespace Runtime
