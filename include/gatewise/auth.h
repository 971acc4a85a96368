// Authorization: asking for a named right, with an administrator's help when interaction is
// allowed, and reading information back from the answer.
//
// One process-wide provider answers every request. The default asks polkit over the system bus
// ($DBUS_SYSTEM_BUS_ADDRESS when set): org.freedesktop.PolicyKit1.Authority.CheckAuthorization
// with the calling process as subject and the right as action id. Host programs with their own way
// of asking (a login screen with its own dialog, a test) install a Provider of their own;
// setProvider(nullptr) leaves the process without any, so every request fails as "couldn't
// create". Providers are shared and called on the requesting thread, possibly from several
// threads at once; the library holds no lock while a provider runs.
//
// polkit answers yes or no and carries no further information. The minutes an administrator
// grants for a login override (information tag "time", a 32-bit unsigned number in host byte
// order) can be preset by the host program with setOverrideMinutes; the default provider attaches
// them to a granted answer. Without them, callers use their documented defaults.
//
// The polkit subject is the calling process. polkit grants a process running as root without
// asking anyone, so a root host program that must have an administrator confirm (a login screen
// running as root) installs a provider that asks about the right session or dialog instead.
#pragma once

#include <gatewise/export.h>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace gw::auth {

// Flags of a request.
inline constexpr std::uint32_t kFlagInteractionAllowed = 1;  // an administrator may be asked
inline constexpr std::uint32_t kFlagExtendRights = 2;        // the right may be acquired now

// Status of a request: 0 granted, otherwise why not.
inline constexpr std::int32_t kStatusSuccess = 0;
inline constexpr std::int32_t kStatusDenied = -60005;    // refused (or not an administrator)
inline constexpr std::int32_t kStatusCanceled = -60006;  // the administrator dismissed the dialog
inline constexpr std::int32_t kStatusInteractionNotAllowed = -60007;
inline constexpr std::int32_t kStatusInternal = -60008;  // the authority could not be asked

// The information tag of the override minutes.
inline constexpr std::string_view kTimeInfoTag = "time";

struct Answer {
  std::int32_t status = kStatusInternal;
  // Whether the grant carries a reference information can be read from; without one, callers use
  // their defaults.
  bool hasReference = true;
  // Status of reading the information back (non-zero: nothing could be read).
  std::int32_t infoStatus = 0;
  // Information tag -> value bytes. A tag that is absent has no items.
  std::map<std::string, std::vector<std::uint8_t>, std::less<>> info;
};

class GW_EXPORT Provider {
 public:
  virtual ~Provider();
  // Asks for right with flags; must not throw.
  virtual Answer requestRight(std::string_view right, std::uint32_t flags) = 0;
};

// The polkit provider, the process's provider until setProvider is called.
GW_EXPORT std::shared_ptr<Provider> polkitProvider();
// Installs provider for every later request; nullptr leaves the process without one.
GW_EXPORT void setProvider(std::shared_ptr<Provider> provider);
// The provider in use (nullptr when there is none).
GW_EXPORT std::shared_ptr<Provider> currentProvider();

// Minutes the default provider attaches as "time" to a granted answer; nullopt attaches nothing.
GW_EXPORT void setOverrideMinutes(std::optional<std::uint32_t> minutes);
GW_EXPORT std::optional<std::uint32_t> overrideMinutes();

}  // namespace gw::auth
