// The managed-client manager of this platform: one property-list file per user and domain below
// "<root>/Library/Managed Preferences/<user>/".
#include <errno.h>
#include <gatewise/core.h>
#include <gatewise/ipc.h>
#include <gatewise/log.h>
#include <gatewise/notifications.h>
#include <gatewise/qrm_helper.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "platform/fs/file_info.h"
#include "platform/fs/file_io.h"
#include "platform/fs/root.h"

namespace gw {
namespace {

constexpr const char* kPlistSuffix = ".plist";

}  // namespace

std::shared_ptr<GWManagedPreferencesManager> GWManagedPreferencesManager::managerForUser(
    std::string_view userName) {
  return managerForUser(userName, Options{});
}

std::shared_ptr<GWManagedPreferencesManager> GWManagedPreferencesManager::managerForUser(
    std::string_view userName, Options options) {
  if (!fs::isSafeName(userName)) return nullptr;
  return std::shared_ptr<GWManagedPreferencesManager>(
      new GWManagedPreferencesManager(std::string(userName), options));
}

std::optional<std::string> GWManagedPreferencesManager::fileForDomain(
    std::string_view domain) const {
  return GWManagedPreferencesFileForUser(userName_, domain);
}

plist::DictionaryRef GWManagedPreferencesManager::dictionaryForDomain(std::string_view domain) {
  lastError_.clear();
  std::optional<std::string> folder = GWManagedPreferencesFolderForUser(userName_);
  std::optional<std::string> path = fileForDomain(domain);
  if (!folder || !path) {
    lastError_ = "invalid domain: " + std::string(domain);
    GW_LOG(0, "*** %@", lastError_);
    return nullptr;
  }
  struct stat st;
  if (::lstat(path->c_str(), &st) != 0 && errno == ENOENT) return nullptr;
  // The folder is the system's; the file is opened through it without following a link.
  std::string error;
  std::optional<std::string> bytes =
      fs::readFileBelow(*folder, std::string(domain) + kPlistSuffix, kMaxFileSize, &error);
  plist::ReadResult read;
  if (bytes) {
    read = plist::readPropertyList(*bytes);
    if (!read) error = read.error;
  }
  if (!bytes || !read) {
    lastError_ = *path + ": " + error;
  } else if (!read.value->isDictionary()) {
    lastError_ = *path + ": not a dictionary";
  } else {
    return read.value->dictionary();
  }
  GW_LOG(0, "*** %@", lastError_);
  return nullptr;
}

std::optional<plist::Value> GWManagedPreferencesManager::objectForKey(std::string_view key,
                                                                      std::string_view domain) {
  plist::DictionaryRef dictionary = dictionaryForDomain(domain);
  if (!dictionary) return std::nullopt;
  if (const plist::Value* value = dictionary->find(key)) return *value;
  return std::nullopt;
}

void GWManagedPreferencesManager::setDictionary(const plist::DictionaryRef& dictionary,
                                                std::string_view domain) {
  lastError_.clear();
  std::optional<std::string> folder = GWManagedPreferencesFolderForUser(userName_);
  std::optional<std::string> path = fileForDomain(domain);
  std::string error;
  std::optional<std::string> xml;
  if (!folder || !path) {
    error = "invalid domain: " + std::string(domain);
  } else if (!dictionary) {
    error = "no dictionary for " + std::string(domain);
  } else if (!(xml = plist::writePropertyList(dictionary, plist::Format::XML, &error))) {
    error = std::string(domain) + ": " + error;
  } else if (!fs::createFolder(*folder, 0755, std::nullopt, true, &error) ||
             !fs::writeFileAtomically(*path, *xml, 0644, &error)) {
    error = *path + ": " + error;
  } else {
    changed({std::string(domain)});
    return;
  }
  lastError_ = error;
  GW_LOG(0, "*** %@", lastError_);
}

void GWManagedPreferencesManager::removeDictionaryForDomains(
    const std::vector<std::string>& domains) {
  lastError_.clear();
  std::vector<std::string> removed;
  for (const std::string& domain : domains) {
    std::optional<std::string> path = fileForDomain(domain);
    std::string error;
    if (!path) {
      error = "invalid domain: " + domain;
    } else if (::unlink(path->c_str()) == 0) {
      removed.push_back(domain);
    } else if (errno != ENOENT) {
      error = *path + ": " + std::strerror(errno);
    }
    if (!error.empty()) {
      lastError_ = error;
      GW_LOG(0, "*** %@", error);
    }
  }
  if (!removed.empty()) changed(removed);
}

bool GWManagedPreferencesManager::hasSettingsForDomains(const std::vector<std::string>& domains) {
  for (const std::string& domain : domains) {
    plist::DictionaryRef dictionary = dictionaryForDomain(domain);
    if (dictionary && !dictionary->empty()) return true;
  }
  return false;
}

void GWManagedPreferencesManager::changed(const std::vector<std::string>& domains) {
  auto names = plist::Array::make();
  for (const std::string& domain : domains) names->append(domain);
  if (options_.notify) {
    auto info = plist::Dictionary::make();
    info->set("userName", userName_);
    info->set("domains", names);
    notify::postNotification(kGWManagementStatusChangedNotification, userName_, info);
  }
  if (options_.askDaemon && GWPrefDomainsRequireDaemon(names)) {
    std::uint32_t uid = UIDForShortName(userName_);
    if (uid != 0xFFFFFFFF) GWUtilities::fcdReadSettingsFor(uid_t(uid));
  }
}

}  // namespace gw
