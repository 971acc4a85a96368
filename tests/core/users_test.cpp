// User look-ups against a password database of the test's own, through nss_wrapper in a child
// process (the CLI), so nothing depends on the accounts of the machine running the tests.
#include <gatewise/core.h>
#include <gtest/gtest.h>

#include "support/process.h"
#include "support/temp_root.h"

namespace {

class UsersTest : public ::testing::Test {
 protected:
  void SetUp() override {
    passwd_ = root_.writeFile("/nss/passwd",
                              "root:x:0:0:root:/root:/bin/sh\n"
                              "alice:x:1001:1001:Alice:/home/alice:/bin/sh\n"
                              "j\xC3\xBCrgen:x:1003:1001:J:/home/jurgen:/bin/sh\n"
                              "b\xE9"
                              "d:x:1002:1001:Bad:/home/bad:/bin/sh\n");
    group_ = root_.writeFile("/nss/group", "root:x:0:\nusers:x:1001:\n");
  }

  gwtest::RunResult cli(const std::vector<std::string>& args) {
    return gwtest::runCli(args, {.environment = {{"LD_PRELOAD", "libnss_wrapper.so"},
                                                 {"NSS_WRAPPER_PASSWD", passwd_},
                                                 {"NSS_WRAPPER_GROUP", group_},
                                                 {"ASAN_OPTIONS", "verify_asan_link_order=0"}}});
  }

  gwtest::TempRoot root_;
  std::string passwd_, group_;
};

TEST_F(UsersTest, NamesAndUIDsComeFromThePasswordDatabase) {
  EXPECT_EQ(cli({"uid", "alice"}).out, "1001\n");
  EXPECT_EQ(cli({"uid", "j\xC3\xBCrgen"}).out, "1003\n");
  EXPECT_EQ(cli({"name", "1001"}).out, "alice\n");
  EXPECT_EQ(cli({"name", "1003"}).out, "j\xC3\xBCrgen\n");
  EXPECT_EQ(cli({"uid", "root"}).out, "0\n");
}

TEST_F(UsersTest, UnknownAndUnconvertibleNamesGiveAllOnes) {
  EXPECT_EQ(cli({"uid", "mallory"}).out, "4294967295\n");
  EXPECT_EQ(cli({"uid",
                 "b\xE9"
                 "d"})
                .out,
            "4294967295\n");  // in the database, but not UTF-8
  auto unknown = cli({"name", "4242"});
  EXPECT_EQ(unknown.status, 1);
  EXPECT_EQ(unknown.out, "");
  EXPECT_EQ(cli({"name", "1002"}).status, 1);  // a name that is not UTF-8 is no name
}

TEST(UsersInProcessTest, UnknownNameIsAllOnes) {
  EXPECT_EQ(UIDForShortName("no-such-user-for-gatewise-tests"), 0xFFFFFFFFu);
  EXPECT_EQ(UIDForShortName(""), 0xFFFFFFFFu);
  EXPECT_EQ(UIDForShortName(std::string_view("root\0x", 6)), 0xFFFFFFFFu);
  EXPECT_EQ(UIDForShortName("root"), 0u);
  EXPECT_EQ(GetUserShortNameForUID(0), "root");
}

}  // namespace
