// The editor's half of the managed bookmarks: reading a user's bookmark file through the daemon
// and asking the daemon to write one. Both look the daemon up afresh on each call.
#include <gatewise/archive.h>
#include <gatewise/bookmarks.h>
#include <gatewise/core.h>
#include <gatewise/ipc.h>
#include <gatewise/log.h>
#include <unistd.h>

#include <cstring>
#include <vector>

namespace gw {
namespace {

constexpr mach_msg_timeout_t kBookmarksTimeoutMs = 1000;

// Lines are logged under the exported function's name (`fn` in each helper).
#define CALL_LOG(level, ...) ::gw::GWFrameworkLog(level, fn, __LINE__, __VA_ARGS__)

// What both calls need before they talk to the daemon: the user's name and id, and the caller's
// right to ask without an authorization.
struct Subject {
  std::string name;
  std::uint32_t uid = 0;
};

std::optional<Subject> resolveSubject(const char* fn, std::optional<std::string_view> userName,
                                      const std::optional<plist::Data>& authData) {
  Subject subject;
  if (userName) {
    subject.name = std::string(*userName);
  } else if (auto own = GetUserShortNameForUID(::getuid())) {
    subject.name = *own;
  }
  subject.uid = UIDForShortName(subject.name);
  if (subject.uid == 0xFFFFFFFF) {
    CALL_LOG(0, "*** Couldn't find uid for %@", subject.name);
    return std::nullopt;
  }
  if (!authData && ::geteuid() != 0) {
    CALL_LOG(0, "*** Called with invalid credentials.");
    return std::nullopt;
  }
  if (subject.name.find('\0') != std::string::npos) {
    CALL_LOG(0, "*** couldn't convert param to c string");
    return std::nullopt;
  }
  return subject;
}

mach_port_t lookUpDaemon() {
  mach_port_t port = 0;
  if (bootstrap_look_up(bootstrap_port, kGWDaemonServiceName, &port) != KERN_SUCCESS) port = 0;
  return port;
}

vm_offset_t addressOf(const void* bytes) { return reinterpret_cast<vm_offset_t>(bytes); }

plist::DictionaryRef copyExistingBookmarks(const char* fn, std::optional<std::string_view> userName,
                                           const std::optional<plist::Data>& authData) {
  CALL_LOG(2, "Enter");
  mach_port_t port = lookUpDaemon();
  std::optional<Subject> subject = resolveSubject(fn, userName, authData);
  if (!subject) return nullptr;
  const plist::Data credentials = authData.value_or(plist::Data());
  vm_offset_t region = 0;
  mach_msg_type_number_t count = 0;
  kern_return_t status = _GWMIGLumewayReadExistingBookmarks(
      port, kBookmarksTimeoutMs, addressOf(credentials.data()),
      mach_msg_type_number_t(credentials.size()), subject->uid, subject->name.data(),
      mach_msg_type_number_t(subject->name.size()), &region, &count);
  if (region == 0 || count == 0) {
    if (region) vm_deallocate(mach_task_self(), region, count);
    CALL_LOG(0, "*** response was empty");
    return nullptr;
  }
  std::vector<std::uint8_t> reply(reinterpret_cast<const std::uint8_t*>(region),
                                  reinterpret_cast<const std::uint8_t*>(region) + count);
  vm_deallocate(mach_task_self(), region, count);
  if (status != KERN_SUCCESS) {
    CALL_LOG(0, "*** _GWMIGLumewayReadExistingBookmarks returned error: %d", status);
    return nullptr;
  }
  plist::ReadResult read = plist::readPropertyList(std::span<const std::uint8_t>(reply));
  if (!read.error.empty()) {
    CALL_LOG(0, "*** deserialization failed with error: %@", read.error);
    if (!read || !read.value->isDictionary()) return nullptr;
  }
  if (!read) {
    CALL_LOG(0, "*** result was nil");
    return nullptr;
  }
  if (!read.value->isDictionary()) {
    CALL_LOG(0, "*** _GWMIGLumewayReadExistingBookmarks returned invalid object type: %@",
             archive::className(*read.value));
    return nullptr;
  }
  return read.value->dictionary();
}

void writeBookmarks(const char* fn, std::optional<std::string_view> userName,
                    const plist::DictionaryRef& bookmarks,
                    const std::optional<plist::Data>& authData) {
  CALL_LOG(2, "Enter");
  mach_port_t port = lookUpDaemon();
  std::optional<Subject> subject = resolveSubject(fn, userName, authData);
  if (!subject) return;
  std::string error = "the bookmarks are null";
  std::optional<std::string> xml;
  if (bookmarks) xml = plist::writePropertyList(bookmarks, plist::Format::XML, &error);
  if (!xml) {
    CALL_LOG(0, "*** serialization failed with error: %@", error);
    return;
  }
  const plist::Data credentials = authData.value_or(plist::Data());
  // The daemon answers with its return code only; the editor has nothing to do with it.
  (void)_GWMIGLumewayWriteBookmarks(
      port, kBookmarksTimeoutMs, addressOf(xml->data()), mach_msg_type_number_t(xml->size()),
      addressOf(credentials.data()), mach_msg_type_number_t(credentials.size()), subject->uid,
      subject->name.data(), mach_msg_type_number_t(subject->name.size()));
}

}  // namespace

plist::DictionaryRef GWLumewayCopyExistingBookmarks(std::optional<std::string_view> userName,
                                                    const std::optional<plist::Data>& authData) {
  return returningOnException(__func__, __LINE__, plist::DictionaryRef(),
                              [&] { return copyExistingBookmarks(__func__, userName, authData); });
}

void GWLumewayWriteBookmarks(std::optional<std::string_view> userName,
                             const plist::DictionaryRef& bookmarks,
                             const std::optional<plist::Data>& authData) {
  returningOnException(__func__, __LINE__, 0, [&] {
    writeBookmarks(__func__, userName, bookmarks, authData);
    return 0;
  });
}

}  // namespace gw
