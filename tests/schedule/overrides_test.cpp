#include <gatewise/plist.h>
#include <gatewise/schedule/overrides.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>

#include "platform/time/local_time.h"
#include "schedule/overrides/overrides_file.h"
#include "support/log_capture.h"
#include "support/process.h"
#include "support/temp_root.h"
#include "support/time_zone.h"

namespace gw {
namespace {

using plist::Value;

constexpr const char kUsers[] = "/Library/Application Support/Morvane/Tutela/Users";

class OverridesTest : public ::testing::Test {
 protected:
  OverridesTest() { root_.makeFolder(kUsers); }

  std::string filePath() const {
    return root_.at(std::string(kUsers) + "/kid/com.morvane.gatewise.overrides.plist");
  }
  Value readFile() const { return *plist::readPropertyListFile(filePath()).value; }
  void writeFile(const Value& value) const {
    root_.makeFolder(std::string(kUsers) + "/kid");
    ASSERT_TRUE(plist::writePropertyListFile(filePath(), value, plist::Format::XML));
  }

  gwtest::TempRoot root_;
};

TEST_F(OverridesTest, GrantsSumUntilExpiredAndUnlimitedEndsTheSum) {
  gwtest::LogCapture log(2);
  EXPECT_EQ(GWExtendedSecondsForToday("kid", kGWComputerLimitKey, false), 0);

  GWExtendSecondsForToday("kid", kGWComputerLimitKey, 1800);
  GWExtendSecondsForToday("kid", kGWComputerLimitKey, 3600);
  EXPECT_TRUE(log.contains("Extending by 1800 seconds"));
  EXPECT_TRUE(log.contains("Successfully wrote overrides file"));
  EXPECT_EQ(GWExtendedSecondsForToday("kid", kGWComputerLimitKey, false), 5400);
  EXPECT_EQ(GWExtendedSecondsForToday("kid", "org.example.other", false), 0);

  GWExpireAllOverridesForToday("kid", kGWComputerLimitKey);
  EXPECT_EQ(GWExtendedSecondsForToday("kid", kGWComputerLimitKey, false), 0);
  EXPECT_EQ(GWExtendedSecondsForToday("kid", kGWComputerLimitKey, true), 5400);

  // A later grant counts on its own; an unlimited one ends the walk whatever follows.
  GWExtendSecondsForToday("kid", kGWComputerLimitKey, 600);
  EXPECT_EQ(GWExtendedSecondsForToday("kid", kGWComputerLimitKey, false), 600);
  GWExtendSecondsForToday("kid", kGWComputerLimitKey, -1);
  GWExtendSecondsForToday("kid", kGWComputerLimitKey, 60);
  EXPECT_EQ(GWExtendedSecondsForToday("kid", kGWComputerLimitKey, false), -1);
  EXPECT_EQ(GWExtendedSecondsForToday("kid", std::nullopt, false), 0);

  // The stored shape: limit -> today -> entries, oldest first.
  Value stored = readFile();
  const plist::Array* entries = stored.dictionary()
                                    ->get(kGWComputerLimitKey)
                                    .dictionary()
                                    ->get(overrides::todayKey())
                                    .ifArray();
  ASSERT_TRUE(entries);
  ASSERT_EQ(entries->size(), 5u);
  EXPECT_EQ((*entries)[0], Value::newDictionary({{"duration", 1800}, {"expired", true}}));
  EXPECT_EQ((*entries)[4], Value::newDictionary({{"duration", 60}, {"expired", false}}));
}

TEST_F(OverridesTest, ANewGrantDropsEarlierDaysOfItsLimitOnly) {
  std::string today = overrides::todayKey();
  Value old = Value::newArray({Value::newDictionary({{"duration", 900}, {"expired", false}})});
  writeFile(Value::newDictionary(
      {{"__COMPUTER__", Value::newDictionary({{"2009-03-17", old}, {today, "not an array"}})},
       {"org.example.game", Value::newDictionary({{"2009-03-17", old}})}}));

  // A string under today's key counts as nothing, and expiring it writes nothing.
  EXPECT_EQ(GWExtendedSecondsForToday("kid", kGWComputerLimitKey, true), 0);
  struct stat before;
  ASSERT_EQ(::stat(filePath().c_str(), &before), 0);
  GWExpireAllOverridesForToday("kid", kGWComputerLimitKey);
  struct stat after;
  ASSERT_EQ(::stat(filePath().c_str(), &after), 0);
  EXPECT_EQ(before.st_ino, after.st_ino);

  GWExtendSecondsForToday("kid", kGWComputerLimitKey, 300);
  Value stored = readFile();
  Value computer = Value::newDictionary(
      {{today, Value::newArray({Value::newDictionary({{"duration", 300}, {"expired", false}})})}});
  EXPECT_EQ(stored.dictionary()->get("__COMPUTER__"), computer);
  EXPECT_EQ(stored.dictionary()->get("org.example.game"),
            Value::newDictionary({{"2009-03-17", old}}));
}

TEST_F(OverridesTest, FolderIsMadeForRootAndBadFilesGiveNothing) {
  gwtest::LogCapture log(0);
  GWExtendSecondsForToday("newkid", kGWComputerLimitKey, 120);
  struct stat folder;
  ASSERT_EQ(::stat(root_.at(std::string(kUsers) + "/newkid").c_str(), &folder), 0);
  EXPECT_EQ(folder.st_mode & 07777, 0755u);
  EXPECT_EQ(folder.st_uid, 0u);
  EXPECT_EQ(GWExtendedSecondsForToday("newkid", kGWComputerLimitKey, false), 120);

  // No parent folder: the folder is not made with intermediates, and the write fails.
  {
    gwtest::TempRoot bare;
    GWExtendSecondsForToday("kid", kGWComputerLimitKey, 120);
    EXPECT_TRUE(log.contains("*** Couldn't create "));
    EXPECT_TRUE(log.contains("*** Failed to write overrides plist"));
  }

  // Unreadable files and refused names count as no grants and are never thrown about.
  root_.writeFile(std::string(kUsers) + "/junk/com.morvane.gatewise.overrides.plist", "<plist");
  EXPECT_EQ(GWExtendedSecondsForToday("junk", kGWComputerLimitKey, true), 0);
  EXPECT_EQ(GWExtendedSecondsForToday("../kid", kGWComputerLimitKey, true), 0);
  GWExtendSecondsForToday("junk", kGWComputerLimitKey, 30);
  EXPECT_EQ(GWExtendedSecondsForToday("junk", kGWComputerLimitKey, true), 30);
}

// Grants made by the command-line tool under a fake clock, read back by day key.
TEST_F(OverridesTest, TheDayKeyIsTheLocalCalendarDate) {
  struct Case {
    const char* clock;
    const char* zone;
    const char* day;
  } cases[] = {
      // 23:30 UTC on 17 March is already the 18th in Tokyo and still the 17th in Los Angeles.
      {"2009-03-17 23:30:00 UTC", "UTC", "2009-03-17"},
      {"2009-03-17 23:30:00 UTC", "Asia/Tokyo", "2009-03-18"},
      {"2009-03-17 23:30:00 UTC", "America/Los_Angeles", "2009-03-17"},
      // Either side of local midnight. faketime's clock runs on from the given moment, so the
      // moment before midnight leaves the program (slow under sanitizers) half a minute.
      {"2009-03-17 22:59:30 UTC", "Europe/Berlin", "2009-03-17"},
      {"2009-03-17 23:00:00 UTC", "Europe/Berlin", "2009-03-18"},
  };
  // faketime preloads its library ahead of the sanitizer runtime of a sanitized build.
  const char* inherited = std::getenv("ASAN_OPTIONS");
  std::string asanOptions =
      std::string(inherited ? inherited : "") + (inherited ? ":" : "") + "verify_asan_link_order=0";
  for (const Case& c : cases) {
    gwtest::RunResult run =
        gwtest::runProgram({"faketime", c.clock, GATEWISE_TEST_CLI, "overrides", "extend", "kid",
                            "__COMPUTER__", "60"},
                           {.environment = {{"TZ", c.zone}, {"ASAN_OPTIONS", asanOptions}}});
    ASSERT_EQ(run.status, 0) << run.err;
    Value stored = readFile();
    const plist::Dictionary* days = stored.dictionary()->get(kGWComputerLimitKey).ifDictionary();
    ASSERT_TRUE(days);
    EXPECT_EQ(days->size(), 1u) << c.clock << " " << c.zone;
    EXPECT_TRUE(days->contains(c.day))
        << c.clock << " " << c.zone << ": " << plist::description(stored);
  }
}

}  // namespace
}  // namespace gw
