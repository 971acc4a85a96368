#include "platform/fs/paths.h"

#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <vector>

namespace gw::fs {
namespace {

// Calls getpwnam_r/getpwuid_r with a buffer that grows until the entry fits.
template <class Lookup>
std::optional<std::string> homeFolderFrom(Lookup lookup) {
  long suggested = ::sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(suggested > 0 ? std::size_t(suggested) : 4096);
  for (;;) {
    struct passwd entry;
    struct passwd* found = nullptr;
    int err = lookup(&entry, buffer.data(), buffer.size(), &found);
    if (err == ERANGE && buffer.size() < (std::size_t(1) << 20)) {
      buffer.resize(buffer.size() * 2);
      continue;
    }
    if (err != 0 || !found || !found->pw_dir || !*found->pw_dir) return std::nullopt;
    return std::string(found->pw_dir);
  }
}

// Splits off a leading "~" or "~name"; returns the home folder and the rest ("" or "/...").
std::optional<std::string> expandTilde(std::string_view path) {
  std::size_t slash = path.find('/');
  std::string_view user = path.substr(1, slash == std::string_view::npos ? path.npos : slash - 1);
  std::optional<std::string> home =
      user.empty() ? homeFolderForUID(::getuid()) : homeFolderForUserName(user);
  if (!home) return std::nullopt;
  if (slash != std::string_view::npos) *home += path.substr(slash);
  return home;
}

}  // namespace

std::optional<std::string> homeFolderForUserName(std::string_view userName) {
  std::string name(userName);
  if (name.empty() || name.find('\0') != std::string::npos) return std::nullopt;
  return homeFolderFrom([&](passwd* entry, char* buffer, std::size_t size, passwd** found) {
    return ::getpwnam_r(name.c_str(), entry, buffer, size, found);
  });
}

std::optional<std::string> homeFolderForUID(uid_t uid) {
  return homeFolderFrom([&](passwd* entry, char* buffer, std::size_t size, passwd** found) {
    return ::getpwuid_r(uid, entry, buffer, size, found);
  });
}

const std::optional<std::string>& cachedCurrentFolder() {
  // Read once; C++ guarantees one thread initialises it while the others wait.
  static const std::optional<std::string> folder = []() -> std::optional<std::string> {
    std::vector<char> buffer(PATH_MAX);
    while (!::getcwd(buffer.data(), buffer.size())) {
      if (errno != ERANGE || buffer.size() >= (std::size_t(1) << 20)) return std::nullopt;
      buffer.resize(buffer.size() * 2);
    }
    return std::string(buffer.data());
  }();
  return folder;
}

std::string standardizedPath(std::string_view path) {
  if (path.empty()) return {};
  std::string expanded;
  if (path.front() == '~') {
    std::optional<std::string> home = expandTilde(path);
    if (!home) return std::string(path);
    expanded = std::move(*home);
  } else if (path.front() != '/' && cachedCurrentFolder()) {
    expanded = *cachedCurrentFolder() + "/" + std::string(path);
  } else {
    expanded = path;
  }

  const bool absolute = !expanded.empty() && expanded.front() == '/';
  std::vector<std::string_view> parts;
  std::string_view rest = expanded;
  while (!rest.empty()) {
    std::size_t slash = rest.find('/');
    std::string_view part = rest.substr(0, slash);
    rest = slash == std::string_view::npos ? std::string_view() : rest.substr(slash + 1);
    if (part.empty() || part == ".") continue;
    if (part == "..") {
      if (!parts.empty() && parts.back() != "..") {
        parts.pop_back();
        continue;
      }
      if (absolute) continue;  // nothing above the root
    }
    parts.push_back(part);
  }

  std::string result;
  for (std::string_view part : parts) {
    if (absolute || !result.empty()) result += '/';
    result += part;
  }
  if (result.empty()) return absolute ? "/" : ".";
  return result;
}

}  // namespace gw::fs
