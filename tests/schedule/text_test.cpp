#include <gatewise/exception.h>
#include <gatewise/schedule/calendar.h>
#include <gatewise/schedule/text.h>
#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <sstream>

#include "schedule/text/string_table.h"
#include "support/log_capture.h"
#include "support/logind_standin.h"
#include "support/temp_root.h"

namespace gw {
namespace {

namespace U = GWUtilities;

// Points the library's resource folder at `folder` for one test.
struct ScopedResourceFolder : gwtest::ScopedEnvironment {
  explicit ScopedResourceFolder(const std::string& folder)
      : ScopedEnvironment("GATEWISE_RESOURCE_DIR", folder.c_str()) {}
};

class DurationTextTest : public ::testing::Test {
 protected:
  // The library's own resources, as installed.
  ScopedResourceFolder resources_{std::string(GATEWISE_TEST_SOURCE_DIR) + "/../resources"};
};

TEST_F(DurationTextTest, PhrasesCountEachUnitWithoutRounding) {
  EXPECT_EQ(GWTimeDurationString(0), "0 minutes");
  EXPECT_EQ(GWTimeDurationString(0.5), "less than a second");
  EXPECT_EQ(GWTimeDurationString(7200), "2 hours");
  EXPECT_EQ(GWTimeDurationString(3601), "1 hour and 1 second");
  EXPECT_EQ(GWTimeDurationString(3659.9), "1 hour and 59 seconds");
  EXPECT_EQ(GWTimeDurationString(90061), "1 day, 1 hour, 1 minute and 1 second");
  EXPECT_EQ(GWTimeDurationString(2 * 86400 + 120), "2 days and 2 minutes");
  EXPECT_EQ(U::timeDurationStringForSeconds(180 + 5), "3 minutes and 5 seconds");
  EXPECT_EQ(GWTimeDurationString(-5), "less than a second");
}

TEST_F(DurationTextTest, ShortFormsKeepTheirOddCorners) {
  struct Case {
    std::int32_t seconds;
    const char* withSeconds;
    const char* without;
  } cases[] = {{3725, "1:02:05", "1:02"},
               {45, ":45", ""},
               {60, "1:00", "1"},
               {90000, "1:01:00:00", "1:01:00"},
               {86400, "1:00:00:00", "1:00:00"},
               {0, ":00", ""}};
  for (const Case& c : cases) {
    EXPECT_EQ(U::shortTimeDurationStringForSeconds(c.seconds, true), c.withSeconds) << c.seconds;
    EXPECT_EQ(U::shortTimeDurationStringForSeconds(c.seconds, false), c.without) << c.seconds;
  }
}

TEST(ClockTextTest, HourIndexSaysNoonButSpansCallTwelveAM) {
  EXPECT_EQ(U::timeStringWithHourIndex(0), "12 AM");
  EXPECT_EQ(U::timeStringWithHourIndex(11), "11 AM");
  EXPECT_EQ(U::timeStringWithHourIndex(12), "Noon");
  EXPECT_EQ(U::timeStringWithHourIndex(23), "11 PM");
  EXPECT_EQ(U::timeStringWithHourIndex(12, 0, false), "12:00 PM");
  EXPECT_EQ(U::timeStringWithHourIndex(0, 5, false), "12:05 AM");
  EXPECT_EQ(U::timeStringWithHourIndex(24, 0, false), "12:00 AM");
  EXPECT_EQ(U::timeStringWithHourIndex(21, 30, false), "9:30 PM");
  EXPECT_EQ(U::timeStringWithHourIndex(7, 5, true), "7:05");
  EXPECT_EQ(U::timeSpanStringWithFromHour(12, 0, 13, 30), "12:00AM - 1:30PM");
  EXPECT_EQ(U::timeSpanStringWithFromHour(21, 0, 7, 0), "9:00PM - 7:00AM");
  EXPECT_EQ(U::timeSpanStringWithFromHour(0, 0, 24, 0), "12:00AM - 12:00AM");
  EXPECT_EQ(U::timeSpanStringWithFromHour(8, 0, 0, 0), "8:00AM - 0:00AM");
}

class DayNameTest : public ::testing::Test {
 protected:
  void TearDown() override { setWeekDataLocale(""); }
};

TEST_F(DayNameTest, ShortAndSingularNamesFollowTheLocalePluralsStayEnglish) {
  setWeekDataLocale("en_US");
  EXPECT_EQ(U::shortDayStringForIndex(0), "Mon");
  EXPECT_EQ(U::singularDayStringForIndex(6), "Sunday");
  setWeekDataLocale("de_DE");
  EXPECT_EQ(U::singularDayStringForIndex(0), "Montag");
  EXPECT_EQ(U::singularDayStringForIndex(6), "Sonntag");
  EXPECT_EQ(U::pluralDayStringForIndex(0), "Mondays");
  EXPECT_EQ(U::pluralDayStringForIndex(6), "Sundays");
  EXPECT_EQ(U::pluralDayStringForIndex(7), "");
  EXPECT_EQ(U::pluralDayStringForIndex(-1), "");
  EXPECT_EQ(U::singularDayStringForIndex(-1), "");
}

TEST_F(DayNameTest, IndexAboveSixThrows) {
  try {
    (void)U::shortDayStringForIndex(7);
    FAIL() << "no exception";
  } catch (const GWException& e) {
    EXPECT_EQ(e.name(), "GWUtilities");
    EXPECT_EQ(e.reason(), "+[GWUtilities shortDayStringForIndex:] -- index out of bounds.");
  }
  EXPECT_THROW((void)U::singularDayStringForIndex(9), GWException);
}

TEST(StringTableTest, TheLocaleLanguageTableWinsAndMissingKeysAreEmpty) {
  gwtest::TempRoot folder;
  folder.writeFile("/de.lproj/Localizable.strings",
                   "\"TIME_HOUR_SINGULAR\" = \"%d Stunde\";\n\"TIME_SECOND_SINGULAR\" = \"%d "
                   "Sekunde\";\n\"TIME_FORMAT_2\" = \"%@ und %@\";\n");
  ScopedResourceFolder resources(folder.path());
  setWeekDataLocale("de_DE");
  EXPECT_EQ(GWTimeDurationString(3601), "1 Stunde und 1 Sekunde");
  EXPECT_EQ(GWTimeDurationString(0), "");
  setWeekDataLocale("en_US");  // no English table in this folder: the built-in one
  EXPECT_EQ(GWTimeDurationString(3601), "1 hour and 1 second");
  setWeekDataLocale("");
}

TEST(StringTableTest, UnreadableTableFallsBackToBuiltInEnglish) {
  gwtest::TempRoot folder;
  folder.writeFile("/English.lproj/Localizable.strings", "\"TIME_FORMAT_2\" = ");
  ScopedResourceFolder resources(folder.path());
  gwtest::LogCapture log(0);
  EXPECT_EQ(GWTimeDurationString(3601), "1 hour and 1 second");
  EXPECT_TRUE(log.contains("*** Couldn't read the string table"));
}

TEST(StringTableTest, InstalledEnglishTableMatchesTheBuiltInOne) {
  std::ifstream file(std::string(GATEWISE_TEST_SOURCE_DIR) +
                     "/../resources/English.lproj/Localizable.strings");
  ASSERT_TRUE(file.good());
  std::stringstream bytes;
  bytes << file.rdbuf();
  std::string contents = bytes.str();
  text::StringTable fromFile;
  std::regex pair(R"re("([A-Z_0-9]+)"\s*=\s*"([^"]*)";)re");
  for (auto it = std::sregex_iterator(contents.begin(), contents.end(), pair);
       it != std::sregex_iterator(); ++it) {
    fromFile[(*it)[1]] = (*it)[2];
  }
  EXPECT_EQ(fromFile, text::englishStrings());
  EXPECT_EQ(fromFile.size(), 13u);
}

}  // namespace
}  // namespace gw
