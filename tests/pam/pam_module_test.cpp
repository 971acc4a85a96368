// The PAM module as login programs meet it: loaded by libpam from a PAM configuration folder of the
// test's own (pam_start_confdir), run in a child with nss_wrapper's password database, asking a
// test daemon that answers _GWMIGUserCanLogin as each test says.
//
// Each stack puts the module first, with its ignore mapped to falling through to pam_debug, which
// answers PAM_SERVICE_ERR: so PAM_SUCCESS, PAM_PERM_DENIED and "no opinion" can be told apart.
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "support/process.h"
#include "support/temp_root.h"
#include "support/test_daemon.h"

namespace {

struct Outcome {
  std::string result;
  std::vector<std::string> errors;
  std::vector<std::string> infos;
};

class PamModuleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    passwd_ = root_.writeFile("/nss/passwd",
                              "root:x:0:0:root:/root:/bin/sh\n"
                              "alice:x:1001:1001:Alice:/home/alice:/bin/sh\n");
    group_ = root_.writeFile("/nss/group", "root:x:0:\nusers:x:1001:\n");
    confdir_ = root_.makeFolder("/pam.d");
    writeService("gatewise", "");
    writeService("gatewise-strict", "strict debug");
  }

  void writeService(const std::string& name, const std::string& options) {
    std::string module = GATEWISE_TEST_PAM_MODULE;
    std::string stack;
    for (const char* type : {"auth", "account", "session"}) {
      stack += std::string(type) + " [success=done ignore=ignore default=die] " + module + " " +
               options + "\n";
      stack += std::string(type) +
               " requisite pam_debug.so auth=service_err acct=service_err "
               "open_session=service_err close_session=service_err cred=service_err\n";
    }
    root_.writeFile("/pam.d/" + name, stack);
  }

  Outcome run(const std::string& service, const std::string& user,
              const std::string& function = "acct", bool silent = false) {
    std::vector<std::string> argv = {GATEWISE_TEST_PAM_CHECK, confdir_, service, user, function};
    if (silent) argv.push_back("silent");
    auto run =
        gwtest::runProgram(argv, {.environment = {{"LD_PRELOAD", "libnss_wrapper.so"},
                                                  {"NSS_WRAPPER_PASSWD", passwd_},
                                                  {"NSS_WRAPPER_GROUP", group_},
                                                  {"TZ", "UTC"},
                                                  {"ASAN_OPTIONS", "verify_asan_link_order=0"}}});
    EXPECT_EQ(run.status, 0) << run.err;
    Outcome outcome;
    std::size_t start = 0;
    while (start < run.out.size()) {
      std::size_t end = run.out.find('\n', start);
      if (end == std::string::npos) end = run.out.size();
      std::string line = run.out.substr(start, end - start);
      start = end + 1;
      if (line.rfind("result ", 0) == 0) outcome.result = line.substr(7);
      if (line.rfind("error ", 0) == 0) outcome.errors.push_back(line.substr(6));
      if (line.rfind("info ", 0) == 0) outcome.infos.push_back(line.substr(5));
    }
    return outcome;
  }

  gwtest::TempRoot root_;
  std::string passwd_, group_, confdir_;
};

bool startsWith(const std::string& text, const std::string& prefix) {
  return text.rfind(prefix, 0) == 0;
}

TEST_F(PamModuleTest, AllowedUserIsLetInAndToldTheTimeLeftWhenLimited) {
  gwtest::TestDaemon daemon;
  daemon.answer("_GWMIGUserCanLogin", {2700, 0});
  Outcome limited = run("gatewise", "alice");
  EXPECT_EQ(limited.result, "PAM_SUCCESS");
  EXPECT_TRUE(limited.errors.empty());
  ASSERT_EQ(limited.infos.size(), 1u);
  EXPECT_EQ(limited.infos[0], "You have 45 minutes left today.");
  // The module asked about the user's own uid, from the password database.
  auto requests = daemon.received();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].routine, "_GWMIGUserCanLogin");
  EXPECT_EQ(requests[0].integers.at(0), 1001);

  daemon.answer("_GWMIGUserCanLogin", {0, 0});
  Outcome unlimited = run("gatewise", "alice");
  EXPECT_EQ(unlimited.result, "PAM_SUCCESS");
  EXPECT_TRUE(unlimited.infos.empty());
  EXPECT_TRUE(unlimited.errors.empty());
}

TEST_F(PamModuleTest, RefusalSaysWhyAndUntilWhen) {
  struct Case {
    std::int32_t seconds, reason;
    std::string opening;
  };
  const std::vector<Case> cases = {
      // Each reason's wording is the message texts' own test; here, that it reaches the user.
      {3600, 1, "It is past your curfew. You may log in again "},
      {600, 9, "You may not log in now. You may log in again "},
  };
  gwtest::TestDaemon daemon;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.reason);
    daemon.answer("_GWMIGUserCanLogin", {c.seconds, c.reason});
    Outcome refused = run("gatewise", "alice");
    EXPECT_EQ(refused.result, "PAM_PERM_DENIED");
    EXPECT_TRUE(refused.infos.empty());
    ASSERT_EQ(refused.errors.size(), 1u);
    EXPECT_TRUE(startsWith(refused.errors[0], c.opening)) << refused.errors[0];
    EXPECT_EQ(refused.errors[0].back(), '.');
  }
  // Without a moment from the daemon the message stops after the reason.
  daemon.answer("_GWMIGUserCanLogin", {0, 1});
  Outcome open = run("gatewise", "alice");
  EXPECT_EQ(open.result, "PAM_PERM_DENIED");
  ASSERT_EQ(open.errors.size(), 1u);
  EXPECT_EQ(open.errors[0], "It is past your curfew.");
  // PAM_SILENT keeps the refusal but says nothing.
  Outcome silent = run("gatewise", "alice", "acct", true);
  EXPECT_EQ(silent.result, "PAM_PERM_DENIED");
  EXPECT_TRUE(silent.errors.empty());
}

TEST_F(PamModuleTest, AbsentOrFailingDaemonLetsInUnlessStrict) {
  Outcome lenient = run("gatewise", "alice");
  EXPECT_EQ(lenient.result, "PAM_SUCCESS");
  EXPECT_TRUE(lenient.errors.empty());

  Outcome strict = run("gatewise-strict", "alice");
  EXPECT_EQ(strict.result, "PAM_PERM_DENIED");
  ASSERT_EQ(strict.errors.size(), 1u);
  EXPECT_EQ(strict.errors[0],
            "Your computer time cannot be checked right now, so you may not log in.");

  // A daemon that answers with an error counts as one that could not be asked.
  gwtest::TestDaemon daemon;
  daemon.answerError("_GWMIGUserCanLogin", -303);
  EXPECT_EQ(run("gatewise", "alice").result, "PAM_SUCCESS");
  EXPECT_EQ(run("gatewise-strict", "alice").result, "PAM_PERM_DENIED");
  // A daemon that says yes lets in a strict stack too.
  daemon.answer("_GWMIGUserCanLogin", {0, 0});
  EXPECT_EQ(run("gatewise-strict", "alice").result, "PAM_SUCCESS");
}

TEST_F(PamModuleTest, RootIsLetInWithoutAskingAndUnknownUsersGetNoOpinion) {
  gwtest::TestDaemon daemon;
  daemon.answer("_GWMIGUserCanLogin", {3600, 1});
  EXPECT_EQ(run("gatewise-strict", "root").result, "PAM_SUCCESS");
  // No opinion: the stack falls through to pam_debug.
  Outcome unknown = run("gatewise-strict", "mallory");
  EXPECT_EQ(unknown.result, "PAM_SERVICE_ERR");
  EXPECT_TRUE(unknown.errors.empty());
  EXPECT_EQ(daemon.requestCount(), 0u);
}

TEST_F(PamModuleTest, OnlyAccountManagementHasAnOpinion) {
  gwtest::TestDaemon daemon;
  daemon.answer("_GWMIGUserCanLogin", {3600, 1});
  for (const char* function : {"auth", "setcred", "open_session", "close_session"}) {
    SCOPED_TRACE(function);
    Outcome outcome = run("gatewise-strict", "alice", function);
    EXPECT_EQ(outcome.result, "PAM_SERVICE_ERR");
    EXPECT_TRUE(outcome.errors.empty());
  }
  EXPECT_EQ(daemon.requestCount(), 0u);
}

}  // namespace
