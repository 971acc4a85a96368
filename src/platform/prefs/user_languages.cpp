#include "platform/prefs/user_languages.h"

#include <optional>

#include "platform/fs/file_io.h"
#include "platform/fs/paths.h"
#include "platform/fs/root.h"

namespace gw::prefs {
namespace {

constexpr std::size_t kMaxSettingsFileSize = 64 * 1024;

std::string_view trimmed(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r'))
    s.remove_suffix(1);
  if (s.size() >= 2 && (s.front() == '"' || s.front() == '\'') && s.back() == s.front()) {
    s = s.substr(1, s.size() - 2);
  }
  return s;
}

// "key=value" lines; group is the [group] the key must be in ("" for files without groups).
std::string valueOf(std::string_view text, std::string_view group, std::string_view key) {
  std::string_view currentGroup;
  while (!text.empty()) {
    std::size_t end = text.find('\n');
    std::string_view line = trimmed(text.substr(0, end));
    text = end == std::string_view::npos ? "" : text.substr(end + 1);
    if (line.starts_with("[") && line.ends_with("]")) {
      currentGroup = line.substr(1, line.size() - 2);
      continue;
    }
    std::size_t equals = line.find('=');
    if (equals == std::string_view::npos || currentGroup != group) continue;
    if (trimmed(line.substr(0, equals)) == key)
      return std::string(trimmed(line.substr(equals + 1)));
  }
  return {};
}

std::vector<std::string> languageList(std::string_view value) {
  std::vector<std::string> languages;
  while (!value.empty()) {
    std::size_t colon = value.find(':');
    std::string_view item = value.substr(0, colon);
    value = colon == std::string_view::npos ? "" : value.substr(colon + 1);
    item = item.substr(0, item.find_first_of(".@"));
    if (!item.empty() && item != "C" && item != "POSIX") languages.emplace_back(item);
  }
  return languages;
}

}  // namespace

std::vector<std::string> copyUserLanguages(std::string_view userName) {
  if (!fs::isSafeName(userName)) return {};
  std::string name(userName);
  if (auto record = fs::readFile(fs::rootedPath("/var/lib/AccountsService/users/" + name),
                                 kMaxSettingsFileSize)) {
    auto languages = languageList(valueOf(*record, "User", "Language"));
    if (!languages.empty()) return languages;
  }
  std::optional<std::string> home = fs::homeFolderForUserName(name);
  if (!home || !home->starts_with('/')) return {};
  // The user owns everything below their home folder: no link there is followed, so the user
  // cannot make root read another file as their settings.
  auto localeConf =
      fs::readFileBelow(fs::rootedPath(*home), ".config/locale.conf", kMaxSettingsFileSize);
  if (!localeConf) return {};
  auto languages = languageList(valueOf(*localeConf, "", "LANGUAGE"));
  if (languages.empty()) languages = languageList(valueOf(*localeConf, "", "LANG"));
  return languages;
}

}  // namespace gw::prefs
