#include "daemon/decision/day.h"

#include <cstdio>

#include "platform/time/local_time.h"

namespace gw::daemon {

std::string dayKeyOf(plist::Date date) {
  time::LocalComponents c = time::localComponents(date);
  char key[32];
  std::snprintf(key, sizeof key, "%04d-%02d-%02d", c.year, c.month, c.day);
  return key;
}

int dayIndexOf(plist::Date date) { return (time::localComponents(date).weekday + 6) % 7; }

plist::Date startOfDayOf(plist::Date date) { return time::startOfDay(date); }

plist::Date startOfNextDay(plist::Date date) {
  return time::atTimeOfDay(time::startOfDay(date), 1, 0);
}

}  // namespace gw::daemon
