#include <gatewise/auth.h>
#include <gatewise/login.h>
#include <gatewise/notifications.h>
#include <gatewise/runloop.h>
#include <gatewise/schedule/overrides.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>

#include "support/bus_fixture.h"
#include "support/log_capture.h"
#include "support/polkit_standin.h"
#include "support/temp_root.h"
#include "support/test_daemon.h"

namespace {

using namespace std::chrono_literals;
using gw::auth::Answer;

constexpr uid_t kUid = 4242;

// A provider that answers as the test says and counts the requests it was asked.
struct ScriptedProvider : gw::auth::Provider {
  Answer answer;
  int asked = 0;
  Answer requestRight(std::string_view right, std::uint32_t flags) override {
    ++asked;
    EXPECT_EQ(right, "com.morvane.gatewise.loginwindow.override");
    EXPECT_EQ(flags, 3u);
    return answer;
  }
};

Answer grantedWithTime(std::vector<std::uint8_t> bytes) {
  Answer answer;
  answer.status = gw::auth::kStatusSuccess;
  answer.info.emplace("time", std::move(bytes));
  return answer;
}

std::vector<std::uint8_t> word(std::uint32_t minutes) {
  std::vector<std::uint8_t> bytes(4);
  std::memcpy(bytes.data(), &minutes, 4);
  return bytes;
}

class LoginOverrideTest : public ::testing::Test {
 protected:
  LoginOverrideTest() {
    gwtest::sharedPrivateBus();
    root_.makeFolder("/Library/Application Support/Morvane/Tutela/Users");
    auto observer = gw::notify::addObserver(
        kGWLoginStatusChangedNotification, "", [this](const gw::notify::Notification& n) {
          const std::string* name = n.userInfo && n.userInfo->size() == 1
                                        ? n.userInfo->get("userName").ifString()
                                        : nullptr;
          users_.push_back(name ? *name : "(unexpected user info)");
        });
    observer_ = observer.value_or(0);
    auto sentinel = gw::notify::addObserver(
        "GatewiseTestSentinel", "", [this](const gw::notify::Notification&) { ++sentinels_; });
    sentinel_ = sentinel.value_or(0);
  }
  ~LoginOverrideTest() override {
    gw::notify::removeObserver(observer_);
    gw::notify::removeObserver(sentinel_);
    gw::auth::setProvider(gw::auth::polkitProvider());
    gw::auth::setOverrideMinutes(std::nullopt);
  }

  // The login-status notifications delivered before a sentinel posted now.
  std::vector<std::string> deliveredNotifications() {
    int expected = sentinels_ + 1;
    EXPECT_TRUE(gw::notify::postNotification("GatewiseTestSentinel"));
    auto deadline = std::chrono::steady_clock::now() + 10s;
    while (sentinels_ < expected && std::chrono::steady_clock::now() < deadline) {
      gw::runloop::runRunLoopOnce(100ms);
    }
    EXPECT_EQ(sentinels_, expected);
    std::vector<std::string> seen = users_;
    users_.clear();
    return seen;
  }

  std::shared_ptr<ScriptedProvider> scripted(Answer answer) {
    auto provider = std::make_shared<ScriptedProvider>();
    provider->answer = std::move(answer);
    gw::auth::setProvider(provider);
    return provider;
  }

  gwtest::TempRoot root_;
  gwtest::LogCapture log_{2};
  std::vector<std::string> users_;
  int sentinels_ = 0;
  gw::notify::ObserverID observer_ = 0, sentinel_ = 0;
};

TEST_F(LoginOverrideTest, DaemonAbsentLetsTheUserInWithoutAsking) {
  auto provider = scripted(grantedWithTime(word(30)));
  EXPECT_TRUE(GWAuthorizeManagedUserLogin(kUid, "kid"));
  EXPECT_EQ(provider->asked, 0);
  EXPECT_EQ(deliveredNotifications(), std::vector<std::string>{"kid"});
  EXPECT_EQ(gw::GWExtendedSecondsForToday("kid", gw::kGWComputerLimitKey, true), 0);
  EXPECT_TRUE(log_.contains("user: kid"));
  EXPECT_TRUE(log_.contains("returning YES"));
  EXPECT_FALSE(log_.contains("beginning authorization process"));
}

TEST_F(LoginOverrideTest, PolkitGrantAddsThePresetMinutesAndTellsEveryone) {
  gwtest::TestDaemon daemon;
  daemon.answer("_GWMIGUserCanLogin", {900, 2});
  gwtest::PolkitStandIn authority;
  gw::auth::setOverrideMinutes(30);
  EXPECT_TRUE(GWAuthorizeManagedUserLogin(kUid, "kid"));
  EXPECT_EQ(gw::GWExtendedSecondsForToday("kid", gw::kGWComputerLimitKey, false), 1800);
  ASSERT_EQ(authority.requests().size(), 1u);
  EXPECT_EQ(authority.requests()[0].actionId, "com.morvane.gatewise.loginwindow.override");
  EXPECT_EQ(authority.requests()[0].flags, 1u);
  ASSERT_TRUE(daemon.waitForRequests(2));
  gwtest::ReceivedRequest reread = daemon.received()[1];
  EXPECT_EQ(reread.routine, "_GWMIGReadOverrides");
  EXPECT_EQ(reread.integers[0], std::int64_t(kUid));
  EXPECT_EQ(deliveredNotifications(), std::vector<std::string>{"kid"});
  EXPECT_TRUE(log_.contains("Loginwindow authorization successful."));
  EXPECT_TRUE(log_.contains("Time value from auth plugin is 30"));
}

TEST_F(LoginOverrideTest, RefusalWritesNothingAndTellsNobody) {
  gwtest::TestDaemon daemon;
  daemon.answer("_GWMIGUserCanLogin", {0, 3});
  gwtest::PolkitStandIn authority;
  for (gwtest::PolkitAnswer answer :
       {gwtest::PolkitAnswer::Refused, gwtest::PolkitAnswer::Dismissed}) {
    authority.answer(answer);
    EXPECT_FALSE(GWAuthorizeManagedUserLogin(kUid, "kid"));
  }
  EXPECT_TRUE(log_.contains("auth failed with err -60005."));
  EXPECT_TRUE(log_.contains("auth failed with err -60006."));
  EXPECT_TRUE(log_.contains("returning NO"));
  EXPECT_EQ(authority.requests().size(), 2u);
  EXPECT_TRUE(deliveredNotifications().empty());
  EXPECT_EQ(daemon.requestCount(), 2u) << "no reread was asked for";
  EXPECT_EQ(gw::GWExtendedSecondsForToday("kid", gw::kGWComputerLimitKey, true), 0);

  gw::auth::setProvider(nullptr);
  EXPECT_FALSE(GWAuthorizeManagedUserLogin(kUid, "kid"));
  EXPECT_TRUE(log_.contains("couldn't create authorization."));
  EXPECT_TRUE(deliveredNotifications().empty());
}

TEST_F(LoginOverrideTest, GrantedMinutesAndTheirDefaults) {
  gwtest::TestDaemon daemon;
  daemon.answer("_GWMIGUserCanLogin", {900, 2});
  Answer noReference = grantedWithTime(word(5));
  noReference.hasReference = false;
  Answer copyFailed = grantedWithTime(word(5));
  copyFailed.infoStatus = -60008;
  Answer noTime;
  noTime.status = gw::auth::kStatusSuccess;
  struct Case {
    const char* name;
    Answer answer;
    std::int32_t seconds;
    const char* logged;
  } cases[] = {
      {"30 minutes", grantedWithTime(word(30)), 1800, "Time value from auth plugin is 30"},
      {"empty value", grantedWithTime({}), 3600, "Time value from auth plugin is 60"},
      {"unlimited", grantedWithTime(word(0xFFFFFFFF)), -1, "Time value from auth plugin is -1"},
      {"no time", noTime, 3600, "AuthorizationCopyInfo returned error 0. Using default of 1 hour."},
      {"copy failed", copyFailed, 3600,
       "AuthorizationCopyInfo returned error -60008. Using default of 1 hour."},
      {"no reference", noReference, 3600,
       "auth ref from SFAuthorization was nil. Using default of 1 hour."},
      // 32-bit arithmetic: 71582789 minutes are 4294967340 seconds, which wrap to 44.
      {"wrapping", grantedWithTime(word(71582789)), 44, "Time value from auth plugin is 71582789"},
  };
  int user = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::string name = "kid" + std::to_string(++user);
    scripted(c.answer);
    log_.clear();
    EXPECT_TRUE(GWAuthorizeManagedUserLogin(kUid, name));
    EXPECT_EQ(gw::GWExtendedSecondsForToday(name, gw::kGWComputerLimitKey, false), c.seconds);
    EXPECT_TRUE(log_.contains(c.logged));
  }
  EXPECT_EQ(deliveredNotifications().size(), std::size(cases));
}

}  // namespace
