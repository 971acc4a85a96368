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

}  // namespace gwtest
