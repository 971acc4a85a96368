#include <gatewise/plist.h>
#include <gtest/gtest.h>

#include <cmath>

namespace gw::plist {
namespace {

std::string doc(std::string_view body) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">" + std::string(body) +
         "</plist>\n";
}

Value read(std::string_view body, const ReadOptions& options = {}) {
  ReadResult r = readPropertyList(doc(body), options);
  EXPECT_TRUE(r) << body << ": " << r.error;
  return r ? *r.value : Value();
}

std::string failure(std::string_view text, const ReadOptions& options = {}) {
  ReadResult r = readPropertyList(text, options);
  EXPECT_FALSE(r) << text;
  EXPECT_EQ(r.error.find('\n'), std::string::npos) << r.error;
  return r.error;
}

TEST(PlistXMLTest, EntitiesCharacterReferencesAndCDATAJoinIntoOneString) {
  EXPECT_EQ(read("<string>a &amp; &lt;b&gt; &quot;&apos; &#65;&#x1F600;<![CDATA[<raw> & ]]>z"
                 "</string>"),
            Value("a & <b> \"' A\xF0\x9F\x98\x80<raw> & z"));
  EXPECT_EQ(read("<dict><key>&lt;k&gt;</key><string/></dict>").dictionary()->get("<k>"), Value(""));
}

TEST(PlistXMLTest, Base64DataMayHoldWhiteSpaceAndOmitPadding) {
  const Data bytes = {0, 1, 2, 3};
  EXPECT_EQ(read("<data>\n\tAAEC\n\tAw==\n\t</data>"), Value(bytes));
  EXPECT_EQ(read("<data>AAECAw</data>"), Value(bytes));
  EXPECT_EQ(read("<data></data>"), Value(Data{}));
  EXPECT_EQ(read("<data/>"), Value(Data{}));
  EXPECT_NE(failure(doc("<data>AA*A</data>")).find("invalid base64"), std::string::npos);
  failure(doc("<data>AAECA</data>"));     // a dangling sixth of a byte
  failure(doc("<data>AA==AAAA</data>"));  // data after the padding
}

TEST(PlistXMLTest, IntegersCoverBothSixtyFourBitRangesAndRefuseTheRest) {
  EXPECT_EQ(read("<integer>9223372036854775807</integer>").integer().int64(), INT64_MAX);
  EXPECT_EQ(read("<integer> -9223372036854775808 </integer>").integer().int64(), INT64_MIN);
  Integer max = read("<integer>18446744073709551615</integer>").integer();
  EXPECT_TRUE(max.isBigUnsigned());
  EXPECT_EQ(max.uint64(), UINT64_MAX);
  EXPECT_EQ(read("<integer>0x1F</integer>"), Value(31));
  EXPECT_EQ(read("<integer>+7</integer>"), Value(7));
  for (const char* big : {"18446744073709551616", "-9223372036854775809", "99999999999999999999"}) {
    EXPECT_NE(failure(doc("<integer>" + std::string(big) + "</integer>")).find("out of the 64-bit"),
              std::string::npos)
        << big;
  }
  for (const char* bad : {"", "12abc", "1.5", "--1", "0x", "one", "<string>1</string>"}) {
    EXPECT_FALSE(readPropertyList(doc("<integer>" + std::string(bad) + "</integer>"))) << bad;
  }
  EXPECT_NE(failure(doc("<integer>12abc</integer>")).find("not an integer: \"12abc\""),
            std::string::npos);
}

TEST(PlistXMLTest, RealsReadEverySpellingOfTheSpecialValues) {
  for (const char* nan : {"nan", "NaN", "-nan"}) {
    EXPECT_TRUE(std::isnan(read("<real>" + std::string(nan) + "</real>").real())) << nan;
  }
  for (const char* inf : {"inf", "+infinity", "Infinity", "INF", "1e400"}) {
    EXPECT_EQ(read("<real>" + std::string(inf) + "</real>").real(), HUGE_VAL) << inf;
  }
  EXPECT_EQ(read("<real>-inf</real>").real(), -HUGE_VAL);
  EXPECT_EQ(read("<real>-infinity</real>").real(), -HUGE_VAL);
  EXPECT_EQ(read("<real>0.1</real>").real(), 0.1);
  EXPECT_EQ(read("<real>42</real>").real(), 42.0);
  EXPECT_TRUE(std::signbit(read("<real>-0.0</real>").real()));
  failure(doc("<real>1.2.3</real>"));
  failure(doc("<real></real>"));
}

TEST(PlistXMLTest, DatesAreUTCAcrossTheWholeCalendar) {
  EXPECT_EQ(read("<date>2001-01-01T00:00:00Z</date>").date().secondsSinceReferenceDate, 0);
  EXPECT_EQ(read("<date>1969-12-31T23:59:59Z</date>").date().unixTime(), -1);
  EXPECT_EQ(read("<date>2038-01-19T03:14:08Z</date>").date().unixTime(), 2147483648.0);
  EXPECT_EQ(read("<date>2000-02-29T12:00:00Z</date>").date().unixTime(), 951825600.0);
  EXPECT_EQ(read("<date>1970-01-02Z</date>").date().unixTime(), 86400);
  for (const char* bad :
       {"2001-02-29T00:00:00Z", "2001-01-01T00:00:00", "2001-13-01T00:00:00Z",
        "2001-01-01T24:00:00Z", "01-01-01T00:00:00Z", "Z", "0000-01-01T00:00:00Z", "yesterday"}) {
    EXPECT_FALSE(readPropertyList(doc("<date>" + std::string(bad) + "</date>"))) << bad;
  }
}

TEST(PlistXMLTest, MalformedDocumentsFailWithAReason) {
  const struct {
    std::string text, reason;
  } cases[] = {
      {"", "no element found"},
      {"<plist><dict><key>a</key></dict></plist>", "key \"a\" has no value"},
      {"<plist><dict><key>a</key><key>b</key></dict></plist>", "key \"a\" has no value"},
      {"<plist><dict><string>x</string></dict></plist>", "<string> without a key in <dict>"},
      {"<plist><array><key>a</key></array></plist>", "<key> outside a <dict>"},
      {"<plist><foo/></plist>", "unknown element <foo>"},
      {"<plist><string>a</string></plist>junk", "junk after document element"},
      {"<plist><string>a</string><string>b</string></plist>", "more than one root value"},
      {"<plist><array>x</array></plist>", "unexpected text \"x\" in <array>"},
      {"<plist><string><integer>1</integer></string></plist>", "<integer> inside <string>"},
      {"<plist><true>yes</true></plist>", "unexpected text"},
      {"<plist><array></plist>", "mismatched tag"},
      {"<plist><array><plist/></array></plist>", "unexpected <plist>"},
      {"<plist/>", "holds no value"},
      {"<plist><string>\x01</string></plist>", "not well-formed"},
      {"<plist><string>\xff</string></plist>", "not well-formed"},
  };
  for (const auto& c : cases) {
    EXPECT_NE(failure(c.text).find(c.reason), std::string::npos) << c.text;
  }
  EXPECT_NE(failure("<plist>\n<dict>\n<key>a</key>\n</dict></plist>").find("line 4"),
            std::string::npos);
}

TEST(PlistXMLTest, MarkupThatCarriesNoValueIsCheckedAndSkipped) {
  const std::string document =
      "\xEF\xBB\xBF<?xml version=\"1.0\" encoding=\"utf-8\" standalone='no'?>\r\n"
      "<!-- before -->\n<?app data?>\n"
      "<!DOCTYPE plist PUBLIC \"-//Some Org//DTD PLIST 1.0//EN\" \"http://example.org/p.dtd\" [\n"
      "  <!ELEMENT plist (array)> <!ATTLIST plist version CDATA \"1.0\"> <!-- inside -->\n"
      "]>\n"
      "<plist version=\"1.0\" other='x &amp; &#65;'>\r\n"
      "<array >\r\n"
      "\t<string>a<!-- c -->b<?pi ?>c<![CDATA[<&>]]>\r\nd\re&#13;</string>\n"
      "\t<!-- between --><?pi between?>&#32;&#x9;<![CDATA[ \n]]>\n"
      "\t<key-less/>\n"
      "</array\n></plist >\n<!-- after --><?after?>\n";
  // <key-less/> is not a property-list element: the rest of the document is fine without it.
  EXPECT_NE(failure(document).find("unknown element <key-less>"), std::string::npos);
  std::string fine = document;
  fine.erase(fine.find("\t<key-less/>\n"), 13);
  ReadResult r = readPropertyList(fine);
  ASSERT_TRUE(r) << r.error;
  EXPECT_EQ(*r.value, Value::newArray({"abc<&>\nd\ne\r"}));

  // ISO-8859-1 documents read as UTF-8; US-ASCII ones hold ASCII only.
  EXPECT_EQ(read("<string>caf\xC3\xA9</string>"), Value("caf\xC3\xA9"));
  ReadResult latin1 =
      readPropertyList("<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><string>caf\xE9</string>");
  ASSERT_TRUE(latin1) << latin1.error;
  EXPECT_EQ(*latin1.value, Value("caf\xC3\xA9"));
  failure("<?xml version=\"1.0\" encoding=\"US-ASCII\"?><string>caf\xC3\xA9</string>");
}

TEST(PlistXMLTest, MalformedMarkupIsRefusedAsXMLRefusesIt) {
  const struct {
    std::string text, reason;
  } cases[] = {
      {"<plist><string>a</string></plist><?xml version=\"1.0\"?>", "not at start"},
      {" <?xml version=\"1.0\"?><plist/>", "not at start"},
      {"<?xml encoding=\"UTF-8\"?><plist/>", "XML declaration not well-formed"},
      {"<?xml version=\"1.0\" encoding=\"EBCDIC\"?><plist/>", "unknown encoding"},
      {"<!-- a -- b --><plist/>", "not well-formed"},
      {"<!-- open <plist/>", "unclosed token"},
      {"<string>a]]>b</string>", "not well-formed"},
      {"<string><![CDATA[open</string>", "unclosed CDATA section"},
      {"<string a=\"1\" a=\"2\">x</string>", "duplicate attribute"},
      {"<string a=\"<\">x</string>", "not well-formed"},
      {"<string a=\"1\"b=\"2\">x</string>", "not well-formed"},
      {"<string>&nbsp;</string>", "undefined entity"},
      {"<string>&#0;</string>", "reference to invalid character number"},
      {"<string>&#xD800;</string>", "reference to invalid character number"},
      {"<string>&#x110000;</string>", "reference to invalid character number"},
      {"<string>\xED\xA0\x80</string>", "not well-formed"},      // a surrogate
      {"<string>\xEF\xBF\xBE</string>", "not well-formed"},      // U+FFFE
      {"<string>\xC0\xAF</string>", "not well-formed"},          // overlong
      {"<string>\xF4\x90\x80\x80</string>", "not well-formed"},  // above U+10FFFF
      {"text<plist/>", "syntax error"},
      {"<!DOCTYPE plist><!DOCTYPE plist><plist/>", "syntax error"},
      {"<plist><string>a</string>", "no element found"},
      {"<plist><string>a</str", "unclosed token"},
  };
  for (const auto& c : cases) {
    EXPECT_NE(failure(c.text).find(c.reason), std::string::npos) << c.text << ": " << c.reason;
  }
  // The error names the line and column of the offending markup.
  EXPECT_NE(failure("<plist>\r\n<array>\r\n  <foo/>").find("line 3, column 2:"), std::string::npos);
}

TEST(PlistXMLTest, ManyAttributesAndLongTextsReadInLinearTime) {
  std::string tag = "<string";
  for (int i = 0; i < 50000; ++i)
    tag += " a" + std::to_string(i) + "=\"" + std::to_string(i) + "\"";
  EXPECT_EQ(read(tag + ">x</string>"), Value("x"));
  EXPECT_NE(failure(tag + " a49999=\"again\">x</string>").find("duplicate attribute"),
            std::string::npos);
  std::string pieces;
  for (int i = 0; i < 50000; ++i) pieces += "ab&amp;<!---->";
  EXPECT_EQ(read("<string>" + pieces + "</string>").string().size(), 150000u);
}

TEST(PlistXMLTest, EntityDeclarationsAndExternalEntitiesAreRefused) {
  const std::string bomb =
      "<?xml version=\"1.0\"?><!DOCTYPE plist [<!ENTITY a \"aaaaaaaaaa\">"
      "<!ENTITY b \"&a;&a;&a;&a;&a;&a;&a;&a;&a;&a;\"><!ENTITY c \"&b;&b;&b;&b;&b;&b;&b;&b;\">]>"
      "<plist><string>&c;</string></plist>";
  EXPECT_NE(failure(bomb).find("entity declarations are not allowed"), std::string::npos);
  const std::string external =
      "<?xml version=\"1.0\"?><!DOCTYPE plist SYSTEM \"file:///etc/passwd\">"
      "<plist><string>&x;</string></plist>";
  EXPECT_NE(failure(external).find("&x;"), std::string::npos);
  const std::string externalEntity =
      "<?xml version=\"1.0\"?><!DOCTYPE plist [<!ENTITY x SYSTEM \"file:///etc/passwd\">]>"
      "<plist><string>&x;</string></plist>";
  failure(externalEntity);
}

TEST(PlistXMLTest, NestingDeeperThanTheBoundIsRefused) {
  auto nested = [](unsigned n) {
    std::string s;
    for (unsigned i = 0; i < n; ++i) s += "<array>";
    for (unsigned i = 0; i < n; ++i) s += "</array>";
    return doc(s);
  };
  ReadOptions options;
  options.maxDepth = 10;
  EXPECT_TRUE(readPropertyList(nested(10), options));
  EXPECT_NE(failure(nested(11), options).find("deeper than 10"), std::string::npos);
  EXPECT_NE(failure(nested(200000)).find("deeper than 512"), std::string::npos);
}

TEST(PlistXMLTest, UIDsTravelAsCFUIDDictionaries) {
  const std::string uid = "<dict><key>CF$UID</key><integer>7</integer></dict>";
  EXPECT_EQ(read("<array>" + uid + "</array>").array()->at(0), Value(UID{7}));
  EXPECT_EQ(read("<dict><key>CF$UID</key><integer>18446744073709551615</integer></dict>"),
            Value(UID{UINT64_MAX}));
  // Only the exact form is a UID: other single-key dictionaries stay dictionaries.
  EXPECT_TRUE(read("<dict><key>CF$UID</key><integer>-1</integer></dict>").isDictionary());
  EXPECT_TRUE(read("<dict><key>CF$UID</key><string>7</string></dict>").isDictionary());
  EXPECT_TRUE(read("<dict><key>CF$UID</key><real>7</real></dict>").isDictionary());
  EXPECT_TRUE(read("<dict><key>CF$UIDx</key><integer>7</integer></dict>").isDictionary());
  EXPECT_TRUE(
      read("<dict><key>CF$UID</key><integer>7</integer><key>x</key><true/></dict>").isDictionary());
  ReadOptions plain;
  plain.xmlUIDDictionaries = false;
  EXPECT_TRUE(read(uid, plain).isDictionary());

  // Written as that dictionary, at the element's indentation, and read back as UIDs.
  Value archive =
      Value::newDictionary({{"$top", Value::newDictionary({{"root", UID{1}}})},
                            {"$objects", Value::newArray({"$null", UID{0}, UID{UINT64_MAX}})}});
  std::optional<std::string> xml = writePropertyList(archive, Format::XML);
  ASSERT_TRUE(xml);
  EXPECT_NE(xml->find("\t\t<dict>\n\t\t\t<key>CF$UID</key>\n\t\t\t<integer>1</integer>\n\t\t"
                      "</dict>\n"),
            std::string::npos)
      << *xml;
  EXPECT_NE(xml->find("<integer>18446744073709551615</integer>"), std::string::npos);
  ReadResult back = readPropertyList(*xml);
  ASSERT_TRUE(back) << back.error;
  EXPECT_EQ(*back.value, archive);
}

TEST(PlistXMLTest, ContainersAreImmutableUnlessMutableContainersAreAsked) {
  const std::string body = "<dict><key>a</key><array><integer>1</integer></array></dict>";
  Value frozen = read(body);
  EXPECT_THROW(frozen.dictionary()->set("b", 2), GWException);
  EXPECT_THROW(frozen.dictionary()->get("a").array()->append(2), GWException);
  ReadOptions options;
  options.mutability = Mutability::MutableContainers;
  Value open = read(body, options);
  open.dictionary()->get("a").array()->append(2);
  open.dictionary()->set("b", 3);
  EXPECT_EQ(open.dictionary()->get("a").array()->size(), 2u);
}

TEST(PlistXMLTest, LaterDuplicateKeysWinAndOtherEncodingsAreRead) {
  EXPECT_EQ(read("<dict><key>a</key><integer>1</integer><key>a</key><integer>2</integer></dict>")
                .dictionary()
                ->get("a"),
            Value(2));
  // UTF-16LE with a byte order mark.
  std::string ascii =
      "<?xml version=\"1.0\" encoding=\"UTF-16\"?><plist><string>hi</string></plist>";
  std::string utf16 = "\xFF\xFE";
  for (char c : ascii) {
    utf16 += c;
    utf16 += '\0';
  }
  ReadResult r = readPropertyList(utf16);
  ASSERT_TRUE(r) << r.error;
  EXPECT_EQ(*r.value, Value("hi"));
  // A lone surrogate, or UTF-8 that claims to be UTF-16, is refused.
  failure(utf16.substr(0, utf16.size() - 2) + std::string("\x00\xD8", 2));
  failure(ascii);
  // A bare value without the <plist> element.
  EXPECT_EQ(*readPropertyList(std::string_view("<integer>3</integer>")).value, Value(3));
}

TEST(PlistXMLTest, WriterProducesTheStandardDocumentForm) {
  Value v = Value::newDictionary({
      {"zeta", "a & <b> > c"},
      {"alpha", Value::newArray({-1, std::uint64_t(UINT64_MAX), 0.5, true, false})},
      {"empty", Value::newArray()},
      {"none", Value::newDictionary()},
      {"when", Date::fromUnixTime(-1)},
      {"bytes", Data{'a', 'b', 'c', 'd'}},
      {"real", 1e20},
  });
  const std::string expected =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<!DOCTYPE plist>\n"
      "<plist version=\"1.0\">\n"
      "<dict>\n"
      "\t<key>alpha</key>\n"
      "\t<array>\n"
      "\t\t<integer>-1</integer>\n"
      "\t\t<integer>18446744073709551615</integer>\n"
      "\t\t<real>0.5</real>\n"
      "\t\t<true/>\n"
      "\t\t<false/>\n"
      "\t</array>\n"
      "\t<key>bytes</key>\n"
      "\t<data>\n"
      "\tYWJjZA==\n"
      "\t</data>\n"
      "\t<key>empty</key>\n"
      "\t<array/>\n"
      "\t<key>none</key>\n"
      "\t<dict/>\n"
      "\t<key>real</key>\n"
      "\t<real>1e+20</real>\n"
      "\t<key>when</key>\n"
      "\t<date>1969-12-31T23:59:59Z</date>\n"
      "\t<key>zeta</key>\n"
      "\t<string>a &amp; &lt;b&gt; &gt; c</string>\n"
      "</dict>\n"
      "</plist>\n";
  EXPECT_EQ(writePropertyList(v, Format::XML), expected);
}

TEST(PlistXMLTest, WriterWrapsDataAndKeepsWhatXMLWouldNormalise) {
  Data bytes(60, 0xFF);  // 80 base64 characters: one full line of 76 and one of 4
  std::string out = *writePropertyList(Value(bytes), Format::XML);
  EXPECT_NE(out.find("<data>\n" + std::string(76, '/') + "\n////\n</data>"), std::string::npos);

  Value tricky = Value::newArray({"line\r\nend\r", 0.1, -0.0, 5e-324, HUGE_VAL, -HUGE_VAL,
                                  Date::fromUnixTime(-62135596800.0)});
  ReadResult back = readPropertyList(*writePropertyList(tricky, Format::XML));
  ASSERT_TRUE(back) << back.error;
  EXPECT_EQ(*back.value, tricky);
  EXPECT_TRUE(std::signbit(back.value->array()->at(2).real()));

  Value nan = std::nan("");
  ReadResult nanBack = readPropertyList(*writePropertyList(nan, Format::XML));
  EXPECT_TRUE(std::isnan(nanBack.value->real()));

  EXPECT_FALSE(writePropertyList(Value::newArray({Value()}), Format::XML));
}

TEST(PlistDescriptionTest, ClassicTextOfEachType) {
  EXPECT_EQ(description("hello world"), "hello world");
  EXPECT_EQ(description(Value::newArray({"a", "hello world", "", 1, true, 2.5})),
            "(\n    a,\n    \"hello world\",\n    \"\",\n    1,\n    1,\n    2.5\n)");
  EXPECT_EQ(description(Value::newDictionary({{"key", "value"}, {"a b", 3}})),
            "{\n    \"a b\" = 3;\n    key = value;\n}");
  EXPECT_EQ(description(Value::newDictionary({{"list", Value::newArray({"x"})}})),
            "{\n    list =     (\n        x\n    );\n}");
  EXPECT_EQ(description(Value::newArray({Value::newArray({1})})),
            "(\n        (\n        1\n    )\n)");
  EXPECT_EQ(description(Value::newArray()), "()");
  EXPECT_EQ(description(Value::newDictionary()), "{}");
  EXPECT_EQ(description(Data{1, 2, 3, 4, 5}), "<01020304 05>");
  EXPECT_EQ(description(Data{}), "<>");
  EXPECT_EQ(description(Date{0}), "2001-01-01 00:00:00 +0000");
  EXPECT_EQ(description(Value::newArray({Date{0}})), "(\n    \"2001-01-01 00:00:00 +0000\"\n)");
  EXPECT_EQ(description(std::uint64_t(UINT64_MAX)), "18446744073709551615");
  EXPECT_EQ(description(false), "0");
  EXPECT_EQ(description(UID{3}), "{value = 3}");
  EXPECT_EQ(description(Value()), "<null>");
  EXPECT_EQ(description(
                Value::newArray({"say \"hi\"\n", "caf\xC3\xA9", "\xF0\x9F\x98\x80", "a/b.c-d_$"})),
            "(\n    \"say \\\"hi\\\"\\n\",\n    \"caf\\U00e9\",\n    \"\\Ud83d\\Ude00\",\n    "
            "a/b.c-d_$\n)");
}

}  // namespace
}  // namespace gw::plist
