#include <gatewise/log.h>

#include "daemon/enforce/session_actions.h"

namespace gw::daemon {

EndAction endActionFromPreference(const plist::Value& value) {
  if (value.isNull()) return EndAction::Logout;
  if (const std::string* text = value.ifString()) {
    if (*text == "logout") return EndAction::Logout;
    if (*text == "lock") return EndAction::Lock;
    if (*text == "none") return EndAction::None;
  }
  GW_LOG(0, "*** unknown endAction %@; logging out instead", value);
  return EndAction::Logout;
}

}  // namespace gw::daemon
