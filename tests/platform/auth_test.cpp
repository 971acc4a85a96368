#include <gatewise/auth.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>

#include "platform/auth/polkit_provider.h"
#include "support/bus_fixture.h"
#include "support/log_capture.h"
#include "support/polkit_standin.h"

namespace gw::auth {
namespace {

using gwtest::PolkitAnswer;

class AuthTest : public ::testing::Test {
 protected:
  void TearDown() override {
    setOverrideMinutes(std::nullopt);
    setProvider(polkitProvider());
  }
  gwtest::LogCapture log_{0};
};

TEST_F(AuthTest, PolkitIsAskedAboutThisProcessForTheRight) {
  gwtest::PrivateBus bus;
  gwtest::PolkitStandIn authority;
  Answer quiet = polkitProvider()->requestRight("org.example.quiet", 0);
  EXPECT_EQ(quiet.status, kStatusSuccess);
  EXPECT_TRUE(quiet.info.empty());
  currentProvider()->requestRight("org.example.loud", kFlagInteractionAllowed | kFlagExtendRights);

  std::vector<gwtest::PolkitRequest> requests = authority.requests();
  ASSERT_EQ(requests.size(), 2u);
  for (const gwtest::PolkitRequest& request : requests) {
    EXPECT_EQ(request.subjectKind, "unix-process");
    EXPECT_EQ(request.pid, std::uint32_t(getpid()));
    EXPECT_EQ(request.uid, std::int32_t(getuid()));
    ASSERT_TRUE(processStartTime());
    EXPECT_EQ(request.startTime, *processStartTime());
    EXPECT_GT(request.startTime, 0u);
    EXPECT_EQ(request.detailCount, 0u);
    EXPECT_EQ(request.cancellationId, "");
  }
  EXPECT_EQ(requests[0].actionId, "org.example.quiet");
  EXPECT_EQ(requests[0].flags, 0u);
  EXPECT_EQ(requests[1].actionId, "org.example.loud");
  EXPECT_EQ(requests[1].flags, 1u);
}

TEST_F(AuthTest, PolkitAnswersBecomeStatusesAndPresetMinutesRideOnAGrant) {
  gwtest::PrivateBus bus;
  gwtest::PolkitStandIn authority;
  setOverrideMinutes(45);
  Answer granted = polkitProvider()->requestRight("r", kFlagInteractionAllowed);
  ASSERT_EQ(granted.status, kStatusSuccess);
  ASSERT_EQ(granted.info.count("time"), 1u);
  std::uint32_t minutes = 0;
  ASSERT_EQ(granted.info.at("time").size(), sizeof minutes);
  std::memcpy(&minutes, granted.info.at("time").data(), sizeof minutes);
  EXPECT_EQ(minutes, 45u);

  const std::pair<PolkitAnswer, std::int32_t> cases[] = {
      {PolkitAnswer::Refused, kStatusDenied},
      {PolkitAnswer::Dismissed, kStatusCanceled},
      {PolkitAnswer::Error, kStatusInternal},
  };
  for (const auto& [given, status] : cases) {
    authority.answer(given);
    Answer answer = polkitProvider()->requestRight("r", kFlagInteractionAllowed);
    EXPECT_EQ(answer.status, status);
    EXPECT_TRUE(answer.info.empty()) << "minutes only ride on a grant";
  }
  EXPECT_TRUE(log_.contains("*** CheckAuthorization failed: stand-in says no"));
}

TEST_F(AuthTest, NoAuthorityOrNoBusIsAnInternalFailure) {
  {
    gwtest::PrivateBus bus;  // nobody owns the authority's name
    EXPECT_EQ(polkitProvider()->requestRight("r", 0).status, kStatusInternal);
  }
  gwtest::PrivateBus bus;
  ::setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/gatewise-test-bus", 1);
  EXPECT_EQ(polkitProvider()->requestRight("r", 0).status, kStatusInternal);
  ::setenv("DBUS_SYSTEM_BUS_ADDRESS", bus.address().c_str(), 1);
  EXPECT_TRUE(log_.contains("*** Couldn't reach the system bus"));
}

TEST_F(AuthTest, HostProgramsReplaceTheProvider) {
  struct Fixed : Provider {
    Answer requestRight(std::string_view right, std::uint32_t flags) override {
      Answer answer;
      answer.status = right == "yes" && flags == 3 ? kStatusSuccess : kStatusDenied;
      return answer;
    }
  };
  EXPECT_EQ(currentProvider(), polkitProvider());
  setProvider(std::make_shared<Fixed>());
  EXPECT_EQ(currentProvider()->requestRight("yes", 3).status, kStatusSuccess);
  EXPECT_EQ(currentProvider()->requestRight("yes", 1).status, kStatusDenied);
  setProvider(nullptr);
  EXPECT_EQ(currentProvider(), nullptr);
}

}  // namespace
}  // namespace gw::auth
