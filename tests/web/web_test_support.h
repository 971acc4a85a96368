// Helpers of the web tests: standard error captured at the descriptor, a content-filter preference
// written into the temporary root, and the content filter's process-wide state reset around a test.
#pragma once

#include <fcntl.h>
#include <gatewise/plist.h>
#include <gatewise/web.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "support/temp_root.h"

namespace gwtest::web {

// Everything written to descriptor 2 while the object lives.
class StderrCapture {
 public:
  StderrCapture() {
    std::fflush(stderr);
    char name[] = "/tmp/gatewise-stderr-XXXXXX";
    file_ = ::mkstemp(name);
    ::unlink(name);
    saved_ = ::dup(2);
    ::dup2(file_, 2);
  }
  ~StderrCapture() { restore(); }
  StderrCapture(const StderrCapture&) = delete;
  StderrCapture& operator=(const StderrCapture&) = delete;

  // What was written so far (the capture goes on).
  std::string text() const {
    std::fflush(stderr);
    std::string out;
    char buffer[4096];
    for (off_t at = 0;;) {
      ssize_t n = ::pread(file_, buffer, sizeof buffer, at);
      if (n <= 0) break;
      out.append(buffer, std::size_t(n));
      at += n;
    }
    return out;
  }

  void restore() {
    if (saved_ < 0) return;
    std::fflush(stderr);
    ::dup2(saved_, 2);
    ::close(saved_);
    ::close(file_);
    saved_ = -1;
  }

 private:
  int file_ = -1;
  int saved_ = -1;
};

// Resets gUserName and the two lists before and after each test.
struct FilterStateReset {
  FilterStateReset() { clear(); }
  ~FilterStateReset() { clear(); }
  static void clear() {
    gUserName = nullptr;
    gWebWhiteList = nullptr;
    gWebBlackList = nullptr;
  }
};

// Writes the user's "com.morvane.gatewise.contentfilter" preference below the root.
inline void writeContentFilterPreference(const TempRoot& root, const std::string& user,
                                         const gw::plist::Value& preference,
                                         gw::plist::Format format = gw::plist::Format::XML) {
  std::string folder = root.makeFolder("/Library/Managed Preferences/" + user);
  ASSERT_TRUE(gw::plist::writePropertyListFile(folder + "/com.morvane.gatewise.contentfilter.plist",
                                               preference, format));
}

inline gw::plist::Value strings(std::initializer_list<const char*> items) {
  gw::plist::Value array = gw::plist::Value::newArray();
  for (const char* item : items) array.array()->append(item);
  return array;
}

inline gw::plist::Value pageMeta(const std::string& url) {
  return gw::plist::Value::newDictionary({{kWFURLKey, url}});
}

inline gw::plist::Value pageBytes(std::string_view text) {
  return gw::plist::Value(gw::plist::Data(text.begin(), text.end()));
}

}  // namespace gwtest::web
