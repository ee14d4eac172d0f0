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

}  // namespace
}  // namespace Runtime
