#include "login_message.h"

#include <gatewise/format.h>
#include <gatewise/login_reasons.h>
#include <gatewise/schedule/text.h>

#include <cmath>

namespace gw::pam {
namespace {

// Days since 1970-01-01 of a civil date (proleptic Gregorian), so that two local dates can be
// compared by calendar day whatever the length of the days between them.
std::int64_t civilDayNumber(int year, int month, int day) {
  year -= month <= 2;
  const std::int64_t era = (year >= 0 ? year : year - 399) / 400;
  const std::int64_t yearOfEra = year - era * 400;
  const std::int64_t dayOfYear = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
  const std::int64_t dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
  return era * 146097 + dayOfEra - 719468;
}

std::int64_t localDayNumber(const std::tm& t) {
  return civilDayNumber(t.tm_year + 1900, t.tm_mon + 1, t.tm_mday);
}

std::string comeBackSentence(std::optional<std::time_t> until, std::time_t now) {
  if (!until) return {};
  return " You may log in again " + momentText(*until, now) + ".";
}

}  // namespace

std::optional<std::string> timeLeftMessage(double secondsLeft) {
  if (!(secondsLeft > 0)) return std::nullopt;
  // The gate's date is now + seconds on a clock that has moved on a little since: whole seconds.
  double whole = std::max(1.0, std::round(secondsLeft));
  return gw::format("You have %@ left today.", GWTimeDurationString(whole));
}

std::string momentText(std::time_t until, std::time_t now) {
  // A user who comes back at the minute shown must find the gate open.
  std::time_t shown = until % 60 == 0 ? until : until + (60 - until % 60);
  std::tm at{}, today{};
  if (!::localtime_r(&shown, &at) || !::localtime_r(&now, &today)) return "later";
  std::string clock = GWUtilities::timeStringWithHourIndex(at.tm_hour, at.tm_min, true);
  std::int64_t days = localDayNumber(at) - localDayNumber(today);
  if (days <= 0) return "at " + clock;
  if (days == 1) return "tomorrow at " + clock;
  if (days < 7) {
    int dayIndex = (at.tm_wday + 6) % 7;  // 0 = Monday
    return "on " + GWUtilities::singularDayStringForIndex(dayIndex) + " at " + clock;
  }
  return gw::format("on %d-%02d-%02d at %@", at.tm_year + 1900, at.tm_mon + 1, at.tm_mday, clock);
}

std::string refusalMessage(std::int32_t reason, std::optional<std::time_t> until, std::time_t now) {
  switch (reason) {
    case kGWLoginCurfew:
      return "It is past your curfew." + comeBackSentence(until, now);
    case kGWLoginAllowanceUsedUp:
      return "Your computer time for today is used up." + comeBackSentence(until, now);
    case kGWLoginNoTimeToday:
      return "You have no computer time today." + comeBackSentence(until, now);
    case kGWLoginDaemonNotAsked:
      return daemonUnavailableMessage();
    default:
      return "You may not log in now." + comeBackSentence(until, now);
  }
}

std::string daemonUnavailableMessage() {
  return "Your computer time cannot be checked right now, so you may not log in.";
}

}  // namespace gw::pam
