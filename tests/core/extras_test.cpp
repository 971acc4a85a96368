#include <gatewise/core.h>
#include <gtest/gtest.h>

#include <regex>
#include <set>

#include "core/random_source.h"
#include "support/log_capture.h"
#include "support/temp_root.h"

namespace {

TEST(ExtrasTest, UUIDStringsAreRandomVersion4InUpperCase) {
  std::regex form("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
  std::set<std::string> seen;
  for (int i = 0; i < 100; ++i) {
    std::string uuid = UUIDString();
    EXPECT_TRUE(std::regex_match(uuid, form)) << uuid;
    seen.insert(uuid);
  }
  EXPECT_EQ(seen.size(), 100u);
}

int gGetrandomCalls = 0;

TEST(ExtrasTest, UUIDStringSurvivesARandomSourceThatFailsOrStalls) {
  const std::regex form("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
  struct Case {
    const char* what;
    gw::core::GetrandomFunction source;
    bool fallsBack;
  } cases[] = {
      {"missing",
       [](void*, std::size_t, unsigned) -> ssize_t {
         return ++gGetrandomCalls, errno = ENOSYS, -1;
       },
       true},
      {"never any bytes",
       [](void*, std::size_t, unsigned) -> ssize_t { return ++gGetrandomCalls, 0; }, true},
      {"one byte at a time",
       [](void* buffer, std::size_t, unsigned) -> ssize_t {
         static_cast<unsigned char*>(buffer)[0] = std::uint8_t(++gGetrandomCalls * 37);
         return 1;
       },
       false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    gwtest::LogCapture log(0);
    gGetrandomCalls = 0;
    gw::core::setGetrandomForTesting(c.source);
    std::string uuid = UUIDString();
    gw::core::setGetrandomForTesting(nullptr);
    EXPECT_TRUE(std::regex_match(uuid, form)) << uuid;
    EXPECT_EQ(log.contains("using OpenSSL's generator"), c.fallsBack);
    EXPECT_LE(gGetrandomCalls, 16);  // bounded: short reads count as progress, failures do not
  }
}

TEST(ExtrasTest, IndexSetsHoldEachNonNegativeIntegerOnceInOrder) {
  auto array = gw::plist::Value::newArray({5, 1, "3", 5, 2.9, -4, true}).array();
  std::set<std::uint64_t> indexes = GWIndexSetWithArray(array);
  EXPECT_EQ(indexes, (std::set<std::uint64_t>{1, 2, 3, 5}));
  EXPECT_EQ(gw::plist::Value(GWIndexSetAllObjects(indexes)),
            gw::plist::Value::newArray({1, 2, 3, 5}));
  EXPECT_TRUE(GWIndexSetAllObjects({})->empty());
}

TEST(ExtrasTest, BundleNameFallsBackToTheFileNameWithoutExtension) {
  gwtest::TempRoot root;
  std::string tool = root.writeFile("/usr/bin/my tool.sh", "#!/bin/sh\n");
  EXPECT_EQ(GWURLBundleName("file://" + root.path() + "/usr/bin/my%20tool.sh"), "my tool");
  EXPECT_EQ(GWURLBundleName(tool), "my tool");
  EXPECT_FALSE(GWURLBundleID(tool));
  EXPECT_FALSE(GWURLBundleID(root.at("/missing.app")));
}

TEST(ExtrasTest, BundleIDAndNameComeFromTheInfoDictionary) {
  gwtest::TempRoot root;
  root.writeFile("/Applications/Notes.app/Contents/Info.plist",
                 "<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist version=\"1.0\"><dict>"
                 "<key>CFBundleIdentifier</key><string>org.example.notes</string>"
                 "<key>CFBundleName</key><string>Notebook</string></dict></plist>");
  std::string url = "file://" + root.path() + "/Applications/Notes.app/";
  EXPECT_EQ(GWURLBundleID(url), "org.example.notes");
  EXPECT_EQ(GWURLBundleName(url), "Notebook");
}

}  // namespace
