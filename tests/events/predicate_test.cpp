// The predicate language: what parses into which tree, and every way a text is refused.
#include "events/predicate.h"

#include <gtest/gtest.h>

#include <string>

#include "support/time_zone.h"

namespace {

using gw::events::CompareOp;
using gw::events::parsePredicate;
using gw::events::PredicateNode;
using Kind = gw::events::PredicateNode::Kind;

TEST(PredicateTest, ComparisonsAndConnectivesBuildTheTreeWithPrecedence) {
  // AND binds tighter than OR; NOT applies to the comparison after it; keywords in any case.
  auto parsed = parsePredicate(
      "entity == 'Login' or Not seconds >= 60 AND url contains \"a\\\"b\" OR (uid != 7)");
  ASSERT_TRUE(parsed.ok) << parsed.error;
  const PredicateNode& root = *parsed.root;
  ASSERT_EQ(root.kind, Kind::Or);
  ASSERT_EQ(root.children.size(), 3u);
  EXPECT_EQ(root.children[0].field, "entity");
  EXPECT_EQ(root.children[0].literal.string(), "Login");
  const PredicateNode& conjunction = root.children[1];
  ASSERT_EQ(conjunction.kind, Kind::And);
  ASSERT_EQ(conjunction.children[0].kind, Kind::Not);
  EXPECT_EQ(conjunction.children[0].children[0].op, CompareOp::GreaterOrEqual);
  EXPECT_EQ(conjunction.children[0].children[0].literal.intValue(), 60);
  EXPECT_EQ(conjunction.children[1].op, CompareOp::Contains);
  EXPECT_EQ(conjunction.children[1].literal.string(), "a\"b");
  EXPECT_EQ(root.children[2].op, CompareOp::NotEqual);

  auto empty = parsePredicate("   ");
  EXPECT_TRUE(empty.ok);
  EXPECT_EQ(empty.root, nullptr);
  auto single = parsePredicate("reason = -2.5");
  ASSERT_TRUE(single.ok) << single.error;
  EXPECT_EQ(single.root->op, CompareOp::Equal);
  EXPECT_DOUBLE_EQ(single.root->literal.real(), -2.5);
}

TEST(PredicateTest, DateLiteralsAreLocalUnlessTheyNameAZone) {
  gwtest::ScopedTimeZone zone("Europe/Berlin");
  auto utc = gw::events::parseDateLiteral("2026-01-05T20:00:00Z");
  auto offset = gw::events::parseDateLiteral("2026-01-05T21:30+01:30");
  auto local = gw::events::parseDateLiteral("2026-01-05T21:00");
  auto midnight = gw::events::parseDateLiteral("2026-01-06");
  ASSERT_TRUE(utc && offset && local && midnight);
  EXPECT_DOUBLE_EQ(utc->unixTime(), 1767643200);
  EXPECT_DOUBLE_EQ(offset->unixTime(), 1767643200);
  EXPECT_DOUBLE_EQ(local->unixTime(), 1767643200);  // 21:00 in Berlin is 20:00 UTC in winter
  EXPECT_DOUBLE_EQ(midnight->unixTime(), 1767654000);
  for (const char* bad : {"2026-13-01", "2026-01-05T24:00", "2026-01-05T21:00+1", "2026-01-05X",
                          "2026-1-5", "2026-01-05T21:00:00ZZ"}) {
    EXPECT_FALSE(gw::events::parseDateLiteral(bad)) << bad;
  }
  auto parsed = parsePredicate("time >= 2026-01-05T20:00:00Z AND time < 1767654000");
  ASSERT_TRUE(parsed.ok) << parsed.error;
  EXPECT_TRUE(parsed.root->children[0].literal.isDate());
  EXPECT_TRUE(parsed.root->children[1].literal.isInteger());
}

TEST(PredicateTest, TextsThatDoNotParseAreRefusedWithAReason) {
  struct Case {
    const char* text;
    const char* reason;
  };
  const Case cases[] = {
      {"colour == 'red'", "unknown field \"colour\""},
      {"entity == 'Bedtime'", "unknown entity \"Bedtime\""},
      {"seconds CONTAINS '3'", "cannot be compared"},
      {"url > 3", "cannot be compared"},
      {"time == 'yesterday'", "cannot be compared"},
      {"url == 'x", "unterminated string"},
      {"url == 'a\\qb'", "unknown escape"},
      {"url == 'a' AND", "expected a field name"},
      {"url 'a'", "expected a comparison"},
      {"url ==", "expected a value"},
      {"(url == 'a'", "missing ')'"},
      {"url == 'a')", "unexpected text"},
      {"url == 'a' ; DROP TABLE events", "unexpected character ';'"},
      {"seconds == 99999999999999999999", "not a number"},
      {"seconds == 1.2.3", "not a number"},
      {"time > 2026-02-30x", "not a date"},
  };
  for (const Case& c : cases) {
    auto parsed = parsePredicate(c.text);
    EXPECT_FALSE(parsed.ok) << c.text;
    EXPECT_NE(parsed.error.find(c.reason), std::string::npos) << c.text << ": " << parsed.error;
  }
}

TEST(PredicateTest, LengthDepthAndTermCountAreBounded) {
  std::string deep;
  for (std::size_t i = 0; i < gw::kGWMaxPredicateDepth; ++i) deep += "(";
  deep += "uid == 1";
  for (std::size_t i = 0; i < gw::kGWMaxPredicateDepth; ++i) deep += ")";
  EXPECT_NE(parsePredicate(deep).error.find("nested too deeply"), std::string::npos);
  std::string nots;
  for (int i = 0; i < 100000; ++i) nots += "NOT ";
  EXPECT_NE(parsePredicate(nots + "uid == 1").error.find("longer than"), std::string::npos);
  std::string manyNots;
  for (std::size_t i = 0; i < 1000; ++i) manyNots += "NOT ";
  EXPECT_NE(parsePredicate(manyNots + "uid == 1").error.find("nested too deeply"),
            std::string::npos);

  std::string terms = "uid == 0";
  for (std::size_t i = 1; i < gw::kGWMaxPredicateTerms; ++i)
    terms += " OR uid == " + std::to_string(i);
  EXPECT_TRUE(parsePredicate(terms).ok);
  EXPECT_NE(parsePredicate(terms + " OR uid == 99").error.find("too many comparisons"),
            std::string::npos);
}

}  // namespace
