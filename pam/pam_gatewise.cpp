// pam_gatewise: the account module that asks tutelad, through the library's login gate, whether a
// managed user may log in now.
//
// Only account management does anything; the other services answer PAM_IGNORE, so the module can
// sit in any stack without an opinion there. Decisions:
// - root is always let in, without asking anyone: a broken daemon must never lock out the
//   administrator;
// - a user the password database does not know gets PAM_IGNORE: this module only has an opinion
//   about accounts it can look up, and the stack's own account module refuses unknown users;
// - a daemon that cannot be asked lets the user in, as the gate does, unless the option `strict`
//   is given; any failure inside the module counts the same, so that a strict stack cannot be
//   opened by making the module fail;
// - PAM_SILENT suppresses every message, the refusal included.
// Options: `strict`, `debug` (decisions logged to the authentication log at LOG_DEBUG).
#include <gatewise/login.h>
#include <gatewise/login_reasons.h>
#include <pwd.h>
#include <security/pam_ext.h>
#include <security/pam_modules.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "login_message.h"

#define GW_PAM_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

struct Options {
  bool strict = false;
  bool debug = false;
};

Options parseOptions(pam_handle_t* pamh, int argc, const char** argv) {
  Options options;
  for (int i = 0; i < argc; ++i) {
    std::string_view arg = argv[i] ? argv[i] : "";
    if (arg == "strict") {
      options.strict = true;
    } else if (arg == "debug") {
      options.debug = true;
    } else {
      pam_syslog(pamh, LOG_ERR, "unknown option: %s", argv[i] ? argv[i] : "(null)");
    }
  }
  return options;
}

enum class Lookup { Found, Unknown, Failed };

// The user's uid through getpwnam_r, with a buffer that grows on ERANGE up to a bound, so that a
// huge record cannot make the module allocate without limit.
Lookup lookUpUID(const char* name, uid_t* uid) {
  constexpr std::size_t kMaxBuffer = 1 << 20;
  long suggested = ::sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(suggested > 0 ? std::size_t(suggested) : 4096);
  for (;;) {
    passwd record{};
    passwd* result = nullptr;
    int error = ::getpwnam_r(name, &record, buffer.data(), buffer.size(), &result);
    if (error == ERANGE && buffer.size() < kMaxBuffer) {
      buffer.resize(buffer.size() * 2);
      continue;
    }
    // Not found is 0 and no record, or one of the codes getpwnam_r(3) lists for it.
    if (!result &&
        (error == 0 || error == ENOENT || error == ESRCH || error == EBADF || error == EPERM))
      return Lookup::Unknown;
    if (error != 0 || !result) return Lookup::Failed;
    *uid = result->pw_uid;
    return Lookup::Found;
  }
}

void tell(pam_handle_t* pamh, int flags, int style, const std::string& text) {
  if (flags & PAM_SILENT) return;
  pam_prompt(pamh, style, nullptr, "%s", text.c_str());
}

int refuseUnchecked(pam_handle_t* pamh, int flags, const Options& options) {
  if (!options.strict) return PAM_SUCCESS;
  tell(pamh, flags, PAM_ERROR_MSG, gw::pam::daemonUnavailableMessage());
  return PAM_PERM_DENIED;
}

int accountDecision(pam_handle_t* pamh, int flags, const Options& options) {
  const char* user = nullptr;
  if (pam_get_item(pamh, PAM_USER, reinterpret_cast<const void**>(&user)) != PAM_SUCCESS || !user ||
      !*user) {
    pam_syslog(pamh, LOG_ERR, "no user name");
    return PAM_USER_UNKNOWN;
  }
  uid_t uid = 0;
  switch (lookUpUID(user, &uid)) {
    case Lookup::Found:
      break;
    case Lookup::Unknown:
      if (options.debug) pam_syslog(pamh, LOG_DEBUG, "user %s unknown: no opinion", user);
      return PAM_IGNORE;
    case Lookup::Failed:
      pam_syslog(pamh, LOG_ERR, "cannot look up user %s", user);
      return refuseUnchecked(pamh, flags, options);
  }
  if (uid == 0) return PAM_SUCCESS;

  // The gate writes the date only when the daemon gave a positive number of seconds.
  const gw::plist::Date unset{-1e300};
  gw::plist::Date until = unset;
  std::int32_t reason = gw::kGWLoginDaemonNotAsked;
  bool allowed = GWUserCanLogin(uid, &reason, &until);
  bool hasUntil = until != unset;
  if (options.debug)
    pam_syslog(pamh, LOG_DEBUG, "user %s: gate answered %s, reason %d", user,
               allowed ? "yes" : "no", int(reason));
  const gw::plist::Date now = gw::plist::Date::now();
  if (reason == gw::kGWLoginAllowed) {
    if (hasUntil) {
      if (auto text = gw::pam::timeLeftMessage(until.secondsSinceReferenceDate -
                                               now.secondsSinceReferenceDate))
        tell(pamh, flags, PAM_TEXT_INFO, *text);
    }
    return PAM_SUCCESS;
  }
  if (reason == gw::kGWLoginDaemonNotAsked) return refuseUnchecked(pamh, flags, options);

  std::optional<std::time_t> comeBack;
  if (hasUntil) comeBack = std::time_t(std::llround(until.unixTime()));
  pam_syslog(pamh, LOG_NOTICE, "login of %s refused, reason %d", user, int(reason));
  tell(pamh, flags, PAM_ERROR_MSG,
       gw::pam::refusalMessage(reason, comeBack, std::time_t(now.unixTime())));
  return PAM_PERM_DENIED;
}

}  // namespace

GW_PAM_EXPORT int pam_sm_acct_mgmt(pam_handle_t* pamh, int flags, int argc, const char** argv) {
  Options options;
  try {
    options = parseOptions(pamh, argc, argv);
    return accountDecision(pamh, flags, options);
  } catch (const std::exception& e) {
    pam_syslog(pamh, LOG_ERR, "internal failure: %s", e.what());
  } catch (...) {
    pam_syslog(pamh, LOG_ERR, "internal failure");
  }
  try {
    return refuseUnchecked(pamh, flags, options);
  } catch (...) {
    return options.strict ? PAM_PERM_DENIED : PAM_SUCCESS;
  }
}

GW_PAM_EXPORT int pam_sm_authenticate(pam_handle_t*, int, int, const char**) { return PAM_IGNORE; }
GW_PAM_EXPORT int pam_sm_setcred(pam_handle_t*, int, int, const char**) { return PAM_IGNORE; }
GW_PAM_EXPORT int pam_sm_open_session(pam_handle_t*, int, int, const char**) { return PAM_IGNORE; }
GW_PAM_EXPORT int pam_sm_close_session(pam_handle_t*, int, int, const char**) { return PAM_IGNORE; }
GW_PAM_EXPORT int pam_sm_chauthtok(pam_handle_t*, int, int, const char**) { return PAM_IGNORE; }
