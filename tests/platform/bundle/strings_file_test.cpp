#include "platform/bundle/strings_file.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "platform/bundle/library_resources.h"
#include "support/temp_root.h"

namespace gw::bundle {
namespace {

// Encodes ASCII-plus-BMP UTF-8 text as UTF-16 with a byte-order mark, as editors save it.
std::string utf16WithBOM(std::u16string_view text, bool bigEndian) {
  std::string out = bigEndian ? "\xFE\xFF" : "\xFF\xFE";
  for (char16_t c : text) {
    char hi = char(c >> 8), lo = char(c & 0xFF);
    out += bigEndian ? hi : lo;
    out += bigEndian ? lo : hi;
  }
  return out;
}

TEST(StringsFileTest, ReadsPairsCommentsEscapesAndBareKeys) {
  auto table = parseStringsFile(
      "\xEF\xBB\xBF/* Display name */\n"
      "\"CFBundleName\" = \"Gate \\\"wise\\\"\";  // trailing comment\n"
      "CFBundleDisplayName = Gatewise_1.0;\n"
      "\"lone\";\n"
      "\"tabs\" = \"a\\tb\\nc\\\\\";\n"
      "\"unicode\" = \"\\U00e9\\UD83D\\UDE00\";\n");
  ASSERT_TRUE(table);
  EXPECT_EQ(table->at("CFBundleName"), "Gate \"wise\"");
  EXPECT_EQ(table->at("CFBundleDisplayName"), "Gatewise_1.0");
  EXPECT_EQ(table->at("lone"), "lone");
  EXPECT_EQ(table->at("tabs"), "a\tb\nc\\");
  EXPECT_EQ(table->at("unicode"), "\xC3\xA9\xF0\x9F\x98\x80");
  EXPECT_EQ(table->size(), 5u);
}

TEST(StringsFileTest, ReadsUTF16InBothByteOrders) {
  std::u16string text = u"/* c */ \"name\" = \"Zeitlimit \u00fc\";";
  for (bool bigEndian : {false, true}) {
    auto table = parseStringsFile(utf16WithBOM(text, bigEndian));
    ASSERT_TRUE(table) << bigEndian;
    EXPECT_EQ(table->at("name"), "Zeitlimit \xC3\xBC");
  }
  std::string error;
  EXPECT_FALSE(parseStringsFile(utf16WithBOM(u"\"a\" = \"\xD800\";", false), &error));
  EXPECT_FALSE(parseStringsFile(std::string("\xFF\xFE\x41", 3), &error));
}

TEST(StringsFileTest, RefusesMalformedTextWithALineNumber) {
  struct Case {
    const char* text;
    const char* reason;
  } cases[] = {
      {"\"a\" = \"b\"", "expected \";\""},
      {"\"a\" = \"b;\n", "unterminated string"},
      {"\"a\" = \"b\";\n/* open", "unterminated comment"},
      {"\"a\" = ;", "unexpected character"},
      {"\n\n\"a\" = \"b\" \"c\";", "line 3"},
      {"\"bad\" = \"\xC3\";", "neither UTF-8"},
  };
  for (const Case& c : cases) {
    std::string error;
    EXPECT_FALSE(parseStringsFile(c.text, &error)) << c.text;
    EXPECT_NE(error.find(c.reason), std::string::npos) << c.text << " -> " << error;
  }
  EXPECT_TRUE(parseStringsFile("  // only a comment\n"));
}

TEST(LibraryResourcesTest, FolderOverrideAndLanguageFallback) {
  gwtest::TempRoot root;
  root.writeFile("/res/German.lproj/Localizable.strings", "\"a\" = \"b\";");
  root.writeFile("/res/English.lproj/Localizable.strings", "\"a\" = \"a\";");
  root.writeFile("/res/English.lproj/Only.strings", "");
  ::setenv("GATEWISE_RESOURCE_DIR", root.at("/res").c_str(), 1);
  EXPECT_EQ(libraryResourceFolder(), root.at("/res"));
  EXPECT_EQ(libraryResourcePath("Localizable", "strings", {"French", "German"}),
            root.at("/res/German.lproj/Localizable.strings"));
  EXPECT_EQ(libraryResourcePath("Only", "strings", {"German"}),
            root.at("/res/English.lproj/Only.strings"));
  EXPECT_EQ(libraryResourcePath("Missing", "strings", {"German"}), "");
  EXPECT_EQ(libraryResourcePath("Localizable", "strings", {"../res/German"}),
            root.at("/res/English.lproj/Localizable.strings"));
  ::unsetenv("GATEWISE_RESOURCE_DIR");
  EXPECT_FALSE(libraryResourceFolder().empty());
}

}  // namespace
}  // namespace gw::bundle
