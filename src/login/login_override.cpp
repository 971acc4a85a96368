// The administrator login override: when the login gate refuses a managed user, an administrator
// may grant extra computer time for today on the spot.
#include <gatewise/auth.h>
#include <gatewise/ipc.h>
#include <gatewise/log.h>
#include <gatewise/login.h>
#include <gatewise/notifications.h>
#include <gatewise/schedule/overrides.h>

#include <cstring>

namespace {

constexpr std::int32_t kDefaultSeconds = 3600;
constexpr std::uint32_t kUnlimitedMinutes = 0xFFFFFFFF;
constexpr std::uint32_t kOverrideFlags =
    gw::auth::kFlagInteractionAllowed | gw::auth::kFlagExtendRights;

// The seconds to grant from a granted answer, with the one-hour default where the minutes are
// unknown.
std::int32_t grantedSeconds(const gw::auth::Answer& answer) {
  if (!answer.hasReference) {
    GW_LOG(0, "auth ref from SFAuthorization was nil. Using default of 1 hour.");
    return kDefaultSeconds;
  }
  auto time = answer.info.find(gw::auth::kTimeInfoTag);
  if (answer.infoStatus != 0 || time == answer.info.end()) {
    GW_LOG(0, "AuthorizationCopyInfo returned error %d. Using default of 1 hour.",
           answer.infoStatus);
    return kDefaultSeconds;
  }
  std::uint32_t minutes = 60;
  if (!time->second.empty()) {
    // A value shorter than one word is read as its bytes followed by zeros.
    minutes = 0;
    std::memcpy(&minutes, time->second.data(), std::min(sizeof minutes, time->second.size()));
  }
  GW_LOG(1, "Time value from auth plugin is %d", std::int32_t(minutes));
  if (minutes == kUnlimitedMinutes) return -1;
  return std::int32_t(minutes * 60u);  // in 32 bits, as the plug-in's value always was
}

void postLoginStatusChanged(std::string_view userName) {
  auto userInfo = gw::plist::Dictionary::make();
  userInfo->set("userName", userName);
  gw::notify::postNotification(kGWLoginStatusChangedNotification, {}, userInfo);
}

}  // namespace

bool GWAuthorizeManagedUserLogin(uid_t uid, std::string_view userName) {
  GW_LOG(2, "user: %@", userName);
  try {
    std::int32_t reason = 0;
    gw::plist::Date date;
    if (!GWUserCanLogin(uid, &reason, &date)) {
      GW_LOG(2, "login not allowed. beginning authorization process.");
      std::shared_ptr<gw::auth::Provider> provider = gw::auth::currentProvider();
      if (!provider) {
        GW_LOG(0, "couldn't create authorization.");
        GW_LOG(2, "returning NO");
        return false;
      }
      GW_LOG(2, "calling permitWithRights");
      gw::auth::Answer answer = provider->requestRight(kGWLoginOverrideRight, kOverrideFlags);
      if (answer.status != gw::auth::kStatusSuccess) {
        GW_LOG(0, "auth failed with err %d.", answer.status);
        GW_LOG(2, "returning NO");
        return false;
      }
      GW_LOG(1, "Loginwindow authorization successful.");
      gw::GWExtendSecondsForToday(userName, gw::kGWComputerLimitKey, grantedSeconds(answer));
      GWUtilities::fcdReadOverridesFor(uid);
    }
    postLoginStatusChanged(userName);
    GW_LOG(2, "returning YES");
    return true;
  } catch (const std::exception& e) {
    GW_LOG_CAUGHT(e);
    return false;
  }
}
