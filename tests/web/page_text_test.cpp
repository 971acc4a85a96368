// Texts made from untrusted page bytes: valid UTF-8, bounded, cut between characters.
#include "web/page_text.h"

#include <gtest/gtest.h>

namespace {

using gw::web::boundedText;

TEST(PageTextTest, TextsAreCutAtCharactersAndInvalidBytesReplaced) {
  EXPECT_EQ(boundedText("short", 10), "short");
  EXPECT_EQ(boundedText("0123456789", 10), "0123456789");
  EXPECT_EQ(boundedText("0123456789A", 10), "0123456...");
  // "ü" is two bytes: never split, even when the cut falls inside it.
  EXPECT_EQ(boundedText("abcdeüüü", 9), "abcde...");
  EXPECT_EQ(boundedText("a\xC3(b\xFF", 10), "a?(b?");
  EXPECT_EQ(boundedText("\xED\xA0\x80", 10), "???");  // a surrogate is not text
  EXPECT_EQ(boundedText("\xC0\xAF", 10), "??");       // nor an overlong "/"
  EXPECT_EQ(boundedText("\xF0\x9F\x98\x80", 10), "\xF0\x9F\x98\x80");
  EXPECT_EQ(boundedText("\xF0\x9F\x98", 10), "???");  // a sequence cut short
  EXPECT_EQ(boundedText("abcdef", 2), "ab");
  EXPECT_EQ(boundedText("", 0), "");
}

}  // namespace
