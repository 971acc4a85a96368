// A host program of the installed library: the C++20 headers, a call across the library's
// exported interface and its installed resources (the duration phrases).
#include <gatewise/plist.h>
#include <gatewise/schedule.h>

#include <cstdio>
#include <string_view>

int main() {
  gw::GWTimeRef time = gw::GWTime::timeWithString(std::string_view("07:05:00"));
  if (!time) return 1;
  std::printf("%s %s\n", time->stringValue().c_str(), gw::GWTimeDurationString(3601).c_str());
  return 0;
}
