// gatewise web restricted|check: answers, exit statuses and one-line refusals.
#include <gtest/gtest.h>

#include <filesystem>

#include "support/process.h"
#include "support/temp_root.h"
#include "web_test_support.h"

namespace {

using gw::plist::Value;
using gwtest::runCli;
using gwtest::web::strings;
using namespace std::chrono_literals;

class WebCliTest : public ::testing::Test {
 protected:
  void SetUp() override {
    gwtest::web::writeContentFilterPreference(
        root_, "kid",
        Value::newDictionary({{"restrictWeb", true},
                              {"siteWhitelist", strings({"http://school.example/"})},
                              {"filterWhitelist", strings({"http://school.example/"})},
                              {"filterBlacklist", strings({"http://games.example"})}}));
  }
  gwtest::TempRoot root_;
};

TEST_F(WebCliTest, RestrictedAnswersYesOrNo) {
  gwtest::RunResult yes = runCli({"web", "restricted", "kid"});
  EXPECT_EQ(yes.status, 0);
  EXPECT_EQ(yes.out, "yes\n");
  gwtest::RunResult no = runCli({"web", "restricted", "nobody-here"});
  EXPECT_EQ(no.status, 1);
  EXPECT_EQ(no.out, "no\n");
  gwtest::RunResult bad = runCli({"web", "restricted", "../kid"});
  EXPECT_EQ(bad.status, 2);
  EXPECT_EQ(bad.err, "gatewise: not a user name: ../kid\n");
}

TEST_F(WebCliTest, CheckPrintsTheVerdictThenItsDictionary) {
  gwtest::RunResult blocked = runCli({"web", "check", "http://GAMES.example/x", "--user", "kid"});
  EXPECT_EQ(blocked.status, 1);
  ASSERT_TRUE(blocked.out.starts_with("blocked\n<?xml")) << blocked.out;
  gw::plist::ReadResult read = gw::plist::readPropertyList(blocked.out.substr(8));
  ASSERT_TRUE(read);
  EXPECT_EQ(*read.value, Value::newDictionary({{kWFFilterWantsToBlockKey, true}}));
  EXPECT_NE(blocked.err.find("OnList for incoming: http://GAMES.example/x\n"), std::string::npos);

  gwtest::RunResult allowed = runCli({"web", "check", "http://school.example/a", "--user", "kid"});
  EXPECT_EQ(allowed.status, 0);
  EXPECT_TRUE(allowed.out.starts_with("allowed\n<?xml")) << allowed.out;

  // No verdict (no filter service): the page is let through with an empty dictionary.
  gwtest::RunResult open = runCli({"web", "check", "http://other.example/", "--user", "kid"});
  EXPECT_EQ(open.status, 0);
  EXPECT_TRUE(open.out.starts_with("allowed\n")) << open.out;
  EXPECT_NE(open.out.find("<dict/>"), std::string::npos);
  EXPECT_NE(open.err.find("GWCopyContentEvaluation: Daemon doesn't appear to be running\n"),
            std::string::npos);
}

TEST_F(WebCliTest, CheckRefusesBadInputWithOneLine) {
  struct Case {
    std::vector<std::string> args;
    std::string error;
  } cases[] = {
      {{"web", "check", ""}, "gatewise: the URL is empty\n"},
      {{"web", "check", "http://a/", "--user", "a/b"}, "gatewise: not a user name: a/b\n"},
      {{"web", "check", "http://a/", "--content", root_.at("/missing")},
       "gatewise: " + root_.at("/missing") + ": No such file or directory\n"},
  };
  for (const Case& c : cases) {
    gwtest::RunResult run = runCli(c.args);
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.err, c.error);
  }
  std::string big = root_.at("/big.html");
  std::filesystem::resize_file(root_.writeFile("/big.html", ""), (64u << 20) + 1);
  gwtest::RunResult tooBig = runCli({"web", "check", "http://a/", "--content", big});
  EXPECT_EQ(tooBig.status, 2);
  EXPECT_EQ(tooBig.err, "gatewise: " + big + ": larger than 64 MiB\n");
}

}  // namespace
