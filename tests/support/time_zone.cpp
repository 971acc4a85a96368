#include "support/time_zone.h"

#include <stdlib.h>
#include <time.h>

namespace gwtest {

ScopedTimeZone::ScopedTimeZone(const std::string& zone) {
  if (const char* value = ::getenv("TZ")) previous_ = value;
  ::setenv("TZ", zone.c_str(), 1);
  ::tzset();
}

ScopedTimeZone::~ScopedTimeZone() {
  if (previous_) {
    ::setenv("TZ", previous_->c_str(), 1);
  } else {
    ::unsetenv("TZ");
  }
  ::tzset();
}

gw::plist::Date utc(int year, int month, int day, int hour, int minute, int second) {
  struct tm parts {};
  parts.tm_year = year - 1900;
  parts.tm_mon = month - 1;
  parts.tm_mday = day;
  parts.tm_hour = hour;
  parts.tm_min = minute;
  parts.tm_sec = second;
  return gw::plist::Date::fromUnixTime(double(timegm(&parts)));
}

}  // namespace gwtest
