#include <gatewise/core.h>
#include <gtest/gtest.h>

#include <cstdlib>

#include "support/temp_root.h"

namespace {

class PreferredLanguageTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* language : {"English", "German", "fr", "pt_BR"}) {
      root_.writeFile(std::string("/share/gatewise/") + language + ".lproj/InfoPlist.strings", "");
    }
    ::setenv("GATEWISE_RESOURCE_DIR", root_.at("/share/gatewise").c_str(), 1);
  }
  void TearDown() override { ::unsetenv("GATEWISE_RESOURCE_DIR"); }
  gwtest::TempRoot root_;
};

TEST_F(PreferredLanguageTest, AccountsServiceRecordComesFirst) {
  root_.writeFile("/var/lib/AccountsService/users/bob",
                  "[InputSource0]\nLanguage=ja\n[User]\nLanguage=de_DE.UTF-8\nXSession=x\n");
  EXPECT_EQ(GWPreferredLanguageForUserName("bob"), "German");
  root_.writeFile("/var/lib/AccountsService/users/bob", "[User]\nLanguage=pt\n");
  EXPECT_EQ(GWPreferredLanguageForUserName("bob"), "pt_BR");
}

TEST_F(PreferredLanguageTest, LocaleConfOfTheUsersHomeIsTheFallback) {
  // root's home folder from the password database, below the temporary system root.
  root_.writeFile("/root/.config/locale.conf", "LANG=de_DE.UTF-8\nLANGUAGE=\"ko:fr_CA:en\"\n");
  EXPECT_EQ(GWPreferredLanguageForUserName("root"), "fr");
  root_.writeFile("/root/.config/locale.conf", "LANG=en_GB.UTF-8\n");
  EXPECT_EQ(GWPreferredLanguageForUserName("root"), "English");
}

TEST_F(PreferredLanguageTest, NoLanguagesNoLocalizationsOrRefusedNamesGiveNil) {
  EXPECT_FALSE(GWPreferredLanguageForUserName("no-such-user-for-gatewise-tests"));
  EXPECT_FALSE(GWPreferredLanguageForUserName("root"));  // no setting at all
  root_.writeFile("/var/lib/AccountsService/users/x", "[User]\nLanguage=de\n");
  EXPECT_FALSE(GWPreferredLanguageForUserName("../users/x"));
  EXPECT_EQ(GWPreferredLanguageForUserName("x"), "German");
  ::setenv("GATEWISE_RESOURCE_DIR", root_.at("/empty").c_str(), 1);
  EXPECT_FALSE(GWPreferredLanguageForUserName("x"));
}

}  // namespace
