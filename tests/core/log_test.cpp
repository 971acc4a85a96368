#include <gatewise/exception.h>
#include <gatewise/log.h>
#include <gatewise/plist.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/log_capture.h"
#include "support/temp_root.h"

namespace gw {
namespace {

using Lines = std::vector<std::string>;

// Preference files are written by hand here, so the test does not depend on our own writer.
class LogTest : public ::testing::Test {
 protected:
  void setPreference(const std::string& valueElement) {
    root_.writeFile("/Library/Preferences/com.morvane.Gatewise.plist",
                    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n"
                    "\t<key>logLevel</key>\n\t" +
                        valueElement + "\n</dict>\n</plist>\n");
  }

  gwtest::TempRoot root_;
};

Lines writtenLevels(const gwtest::LogCapture& log) {
  Lines levels;
  for (const std::string& line : log.lines()) levels.push_back(line.substr(line.rfind(' ') + 1));
  return levels;
}

void logLevels0To3() {
  for (int level = 0; level <= 3; ++level) GWFrameworkLog(level, "f", 1, "level %d", level);
}

TEST_F(LogTest, AbsentPreferenceMeansZeroAndIsNotReadAgain) {
  gwtest::LogCapture log(-1);
  logLevels0To3();
  EXPECT_EQ(writtenLevels(log), Lines({"0"}));
  EXPECT_EQ(gGWFrameworkLoggingLevel, 0);
  setPreference("<integer>3</integer>");
  log.clear();
  logLevels0To3();
  EXPECT_EQ(writtenLevels(log), Lines({"0"}));
}

TEST_F(LogTest, ThresholdIsReadOnceUntilMinusOneIsStoredAgain) {
  setPreference("<string>2</string>");  // a string of digits counts as its number
  gwtest::LogCapture log(-1);
  logLevels0To3();
  EXPECT_EQ(writtenLevels(log), Lines({"0", "1", "2"}));
  EXPECT_EQ(gGWFrameworkLoggingLevel, 2);

  setPreference("<integer>0</integer>");
  log.clear();
  logLevels0To3();
  EXPECT_EQ(writtenLevels(log), Lines({"0", "1", "2"})) << "the changed file must not be read";

  gGWFrameworkLoggingLevel = -1;
  log.clear();
  logLevels0To3();
  EXPECT_EQ(writtenLevels(log), Lines({"0"}));
}

TEST_F(LogTest, StoredMinusOneIsReadAgainOnTheNextCall) {
  setPreference("<integer>-1</integer>");
  gwtest::LogCapture log(-1);
  GW_LOG(0, "silenced");
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(gGWFrameworkLoggingLevel, -1);
  setPreference("<integer>1</integer>");
  logLevels0To3();
  EXPECT_EQ(writtenLevels(log), Lines({"0", "1"}));
  EXPECT_EQ(gGWFrameworkLoggingLevel, 1);
}

TEST_F(LogTest, HostThresholdWinsOverThePreferenceAndNegativeSilencesEverything) {
  setPreference("<integer>0</integer>");
  {
    gwtest::LogCapture log(3);
    logLevels0To3();
    EXPECT_EQ(writtenLevels(log), Lines({"0", "1", "2", "3"}));
  }
  gwtest::LogCapture log(-2);
  logLevels0To3();
  logCaughtException("f", 1, GWException("X", "not written either"));
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(gGWFrameworkLoggingLevel, -2);
}

TEST_F(LogTest, LinesReadFunctionLineAndMessage) {
  gwtest::LogCapture log(0);
  GWFrameworkLog(0, "GWGetLocalManagedUsers", 42, "found %d apps", 3);
  GWFrameworkLog(0, nullptr, 7, "Enter");
  const int line = __LINE__ + 1;
  GW_LOG(0, "user: %@", plist::Value("kim"));
  // The message's own percent signs reach the log as they are.
  GW_LOG(0, "%s", "100% of %d and %@");
  EXPECT_EQ(log.lines(),
            Lines({"GWGetLocalManagedUsers [42] -- found 3 apps", "unknown [7] -- Enter",
                   "TestBody [" + std::to_string(line) + "] -- user: kim",
                   "TestBody [" + std::to_string(line + 2) + "] -- 100% of %d and %@"}));
}

TEST_F(LogTest, SuppressedMessagesDoNotEvaluateTheirArguments) {
  gwtest::LogCapture log(1);
  int evaluated = 0;
  auto costly = [&] { return ++evaluated; };
  GW_LOG(2, "trace %d", costly());
  EXPECT_EQ(evaluated, 0);
  GW_LOG(1, "notable %d", costly());
  EXPECT_EQ(evaluated, 1);
  EXPECT_TRUE(log.contains("notable 1"));
}

TEST_F(LogTest, CaughtExceptionsAreLoggedAndTurnedIntoTheFailureValue) {
  gwtest::LogCapture log(0);
  bool result = returningOnException("GWUserCanLogin", 99, false, []() -> bool {
    throw GWException("GWAllowance", "bad allowance entry");
  });
  EXPECT_FALSE(result);
  EXPECT_EQ(returningOnException("f", 1, -1, [] { return 5; }), 5);
  try {
    throw std::runtime_error("plain failure");
  } catch (const std::exception& e) {
    GW_LOG_CAUGHT(e);
  }
  Lines lines = log.lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0], "GWUserCanLogin [99] -- *** Caught exception: bad allowance entry");
  EXPECT_EQ(lines[1].substr(lines[1].find(" -- ")), " -- *** Caught exception: plain failure");
  // Only std::exception is caught; anything else passes through.
  EXPECT_THROW(returningOnException("f", 1, 0, []() -> int { throw 5; }), int);
}

}  // namespace
}  // namespace gw
