#include "daemon/sessions/utmp_records.h"

#include <fcntl.h>
#include <gatewise/log.h>
#include <pwd.h>
#include <sys/stat.h>
#include <utmpx.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <vector>

#include "platform/fs/unique_fd.h"

namespace gw::daemon {
namespace {

std::optional<uid_t> uidForName(const std::string& name) {
  struct passwd entry, *found = nullptr;
  std::vector<char> buffer(16384);
  if (::getpwnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found) != 0 || !found) {
    return std::nullopt;
  }
  return found->pw_uid;
}

// Up to kMaxUtmpBytes of the file, or nullopt when it cannot be read (logged; a missing file is
// not worth a line).
std::optional<std::string> readBounded(const std::string& path) {
  fs::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK | O_NOFOLLOW));
  if (!fd) {
    if (errno != ENOENT) GW_LOG(0, "*** cannot open %s: %s", path, std::strerror(errno));
    return std::nullopt;
  }
  struct stat st;
  if (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
    GW_LOG(0, "*** %s is not a regular file", path);
    return std::nullopt;
  }
  std::string bytes(kMaxUtmpBytes, '\0');
  std::size_t filled = 0;
  while (filled < bytes.size()) {
    ssize_t n = ::read(fd.get(), bytes.data() + filled, bytes.size() - filled);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      GW_LOG(0, "*** cannot read %s: %s", path, std::strerror(errno));
      return std::nullopt;
    }
    if (n == 0) break;
    filled += std::size_t(n);
  }
  if (filled == bytes.size() && std::size_t(st.st_size) > filled) {
    GW_LOG(0, "*** %s holds more than %zu bytes; the records past them are ignored", path, filled);
  }
  bytes.resize(filled);
  return bytes;
}

}  // namespace

std::map<uid_t, unsigned> loginsInUtmpFile(const std::string& path) {
  std::map<uid_t, unsigned> logins;
  std::optional<std::string> bytes = readBounded(path);
  if (!bytes) return logins;
  std::map<std::string, std::optional<uid_t>> known;  // one password look-up per name
  // A trailing partial record (a writer caught in the middle) is left for the next read.
  for (std::size_t at = 0; at + sizeof(utmpx) <= bytes->size(); at += sizeof(utmpx)) {
    utmpx record;
    std::memcpy(&record, bytes->data() + at, sizeof record);
    if (record.ut_type != USER_PROCESS) continue;
    std::string name(record.ut_user, strnlen(record.ut_user, sizeof record.ut_user));
    if (name.empty()) continue;
    auto [entry, isNew] = known.try_emplace(name);
    if (isNew) entry->second = uidForName(name);
    if (entry->second) ++logins[*entry->second];
  }
  return logins;
}

}  // namespace gw::daemon
