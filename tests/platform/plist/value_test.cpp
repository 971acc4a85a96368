#include <gatewise/plist.h>
#include <gtest/gtest.h>

namespace gw::plist {
namespace {

TEST(PlistValueTest, IntegersKeepOneFormAcrossTheSignedAndUnsignedRanges) {
  EXPECT_EQ(Value(std::uint64_t(5)), Value(5));
  EXPECT_FALSE(Value(std::uint64_t(UINT64_MAX)) == Value(-1));
  EXPECT_TRUE(Value(std::uint64_t(UINT64_MAX)).integer().isBigUnsigned());
  EXPECT_FALSE(Value(std::uint64_t(INT64_MAX)).integer().isBigUnsigned());
  EXPECT_TRUE(Value(-1).integer().isNegative());
  EXPECT_EQ(Value(std::int64_t(INT64_MIN)).integer().int64(), INT64_MIN);
}

TEST(PlistValueTest, NumbersCompareByValueButBooleansOnlyEqualBooleans) {
  EXPECT_EQ(Value(2), Value(2.0));
  EXPECT_FALSE(Value(2) == Value(2.5));
  EXPECT_FALSE(Value(true) == Value(1));
  EXPECT_FALSE(Value("1") == Value(1));
}

TEST(PlistValueTest, ContainersAreSharedUntilCopied) {
  Value a = Value::newArray({1, "two"});
  Value shared = a;
  Value copy = mutableCopy(a);
  a.array()->append(3.0);
  EXPECT_EQ(shared.array()->size(), 3u);
  EXPECT_EQ(copy.array()->size(), 2u);
  EXPECT_FALSE(copy == a);
}

TEST(PlistValueTest, ImmutableContainersThrowOnMutationAndDeepCopiesAreMutable) {
  Value inner = Value::newDictionary({{"k", "v"}});
  Value outer = Value::newArray({inner});
  makeImmutable(outer);
  EXPECT_THROW(outer.array()->append(1), GWException);
  EXPECT_THROW(inner.dictionary()->set("x", 1), GWException);
  Value shallow = mutableCopy(outer);
  EXPECT_NO_THROW(shallow.array()->append(1));
  EXPECT_THROW(shallow.array()->at(0).dictionary()->set("x", 1), GWException);
  Value deep = deepMutableCopy(outer);
  EXPECT_NO_THROW(deep.array()->at(0).dictionary()->set("x", 1));
  EXPECT_EQ(inner.dictionary()->size(), 1u);
}

TEST(PlistValueTest, StrictAccessThrowsAndLenientAccessConverts) {
  Value s("  42abc");
  EXPECT_THROW((void)s.integer(), GWException);
  EXPECT_EQ(s.intValue(), 42);
  EXPECT_EQ(Value("-7").intValue(), -7);
  EXPECT_EQ(Value("junk").intValue(), 0);
  EXPECT_TRUE(Value("YES").boolValue());
  EXPECT_FALSE(Value("NO").boolValue());
  EXPECT_EQ(Value(2.9).intValue(), 2);
  EXPECT_EQ(Value().intValue(), 0);
  EXPECT_THROW((void)Value::newArray().array()->at(0), GWException);
}

TEST(PlistValueTest, UIDsAreValidInBothEncodingsNullsAndObjectsInNeither) {
  Value withUID = Value::newArray({UID{3}});
  EXPECT_TRUE(isValidPropertyList(withUID, Format::Binary));
  EXPECT_TRUE(isValidPropertyList(withUID, Format::XML));
  EXPECT_FALSE(isValidPropertyList(Value::newArray({UID{3}, Value()}), Format::XML));
  EXPECT_FALSE(isValidPropertyList(Value::newDictionary({{"k", Value()}}), Format::Binary));
  EXPECT_TRUE(isValidPropertyList(Value::newDictionary({{"k", Data{1, 2}}}), Format::XML));
}

}  // namespace
}  // namespace gw::plist
