// Forced (managed) preferences edited key by key.
//
// A managed-client manager holds one account's forced preferences: one dictionary per preference
// domain, replaced and removed whole. GWQRMHelper wraps such a manager and adds key-level editing
// on top: reading one key, and setting or removing one key by a read-modify-write of the domain's
// dictionary (a shallow copy: nested containers are shared with what the manager gave until the
// copy is handed back). Host programs may supply any QRMManager; the one this library brings,
// GWManagedPreferencesManager, keeps each domain as the file
// "<root>/Library/Managed Preferences/<user>/<domain>.plist".
//
// Threads: none of their own; every call runs on the caller's thread and goes straight to the
// manager. A helper and its manager may be used from one thread at a time. Nothing is reported as
// failure by the helper; setting a null value or a null key is the caller's error and throws
// GWException ("NSInvalidArgumentException"). The helper owns (shares) its manager.
#pragma once

#include <gatewise/export.h>
#include <gatewise/object.h>
#include <gatewise/plist.h>
#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace gw {

// What a managed-client manager offers for one account.
class GW_EXPORT QRMManager {
 public:
  virtual ~QRMManager();
  // The domain's forced dictionary, or nullptr when the domain has none.
  virtual plist::DictionaryRef dictionaryForDomain(std::string_view domain) = 0;
  // One forced value, or nullopt.
  virtual std::optional<plist::Value> objectForKey(std::string_view key,
                                                   std::string_view domain) = 0;
  // Replaces the domain's forced dictionary.
  virtual void setDictionary(const plist::DictionaryRef& dictionary, std::string_view domain) = 0;
  // Drops the forced dictionaries of all the domains.
  virtual void removeDictionaryForDomains(const std::vector<std::string>& domains) = 0;
  // Whether any of the domains has forced settings.
  virtual bool hasSettingsForDomains(const std::vector<std::string>& domains) = 0;
};
using QRMManagerRef = std::shared_ptr<QRMManager>;

// The managed preference files of one user. Reads open the file without following a link, refuse
// anything but a regular file of at most kMaxFileSize bytes and anything but a dictionary (logged;
// the domain then reads as having none). Writes are atomic XML property lists (mode 0644; the
// user's folder is made 0755 when missing); after each change the notification
// "com.morvane.QRM._managementStatusChangedForDomains" is posted (object: the user name, user
// info {"userName", "domains"}), and when a changed domain is one the daemon reads, the daemon is
// asked to reread the user's settings. Domains holding "/" or being "." or ".." are refused.
class GW_EXPORT GWManagedPreferencesManager final : public QRMManager {
 public:
  static constexpr std::size_t kMaxFileSize = std::size_t(16) << 20;

  struct Options {
    // Post the change notification after each change.
    bool notify = true;
    // Ask the daemon to reread the user's settings after a change to a domain it reads. The
    // daemon itself turns both off: its handlers never wait on the bus or on itself.
    bool askDaemon = true;
  };

  // nullptr for a user name that cannot be a folder's.
  static std::shared_ptr<GWManagedPreferencesManager> managerForUser(std::string_view userName);
  static std::shared_ptr<GWManagedPreferencesManager> managerForUser(std::string_view userName,
                                                                     Options options);

  plist::DictionaryRef dictionaryForDomain(std::string_view domain) override;
  std::optional<plist::Value> objectForKey(std::string_view key, std::string_view domain) override;
  void setDictionary(const plist::DictionaryRef& dictionary, std::string_view domain) override;
  void removeDictionaryForDomains(const std::vector<std::string>& domains) override;
  bool hasSettingsForDomains(const std::vector<std::string>& domains) override;

  const std::string& userName() const { return userName_; }
  // The domain's file; nullopt for a refused domain.
  std::optional<std::string> fileForDomain(std::string_view domain) const;
  // Why the last operation failed ("" when it did not): an unreadable file, a failed write.
  const std::string& lastError() const { return lastError_; }

 private:
  GWManagedPreferencesManager(std::string userName, Options options)
      : userName_(std::move(userName)), options_(options) {}
  void changed(const std::vector<std::string>& domains);

  std::string userName_;
  Options options_;
  std::string lastError_;
};

class GW_EXPORT GWQRMHelper : public GWObject {
 public:
  // A new helper over manager.
  static std::shared_ptr<GWQRMHelper> qrmHelperForManager(QRMManagerRef manager);
  static std::shared_ptr<GWQRMHelper> initWithQRMManager(QRMManagerRef manager);

  // nullopt for a null key, without asking the manager; else the manager's value.
  std::optional<plist::Value> forcedPrefsObjectForKey(std::optional<std::string_view> key,
                                                      std::string_view domain);
  // Sets key to value in the domain (created with that one key when it has none). A Null value or
  // a null key throws GWException.
  void setForcedPrefsObject(const plist::Value& value, std::optional<std::string_view> key,
                            std::string_view domain);
  // Removes key from the domain and hands the domain back even when the key was absent; a domain
  // without forced settings is left absent.
  void removeForcedPrefsObjectForKey(std::optional<std::string_view> key, std::string_view domain);
  // Replaces the whole domain; nullptr does nothing (it does not clear the domain).
  void setForcedPrefsDictionary(const plist::DictionaryRef& dictionary, std::string_view domain);
  // Drops whole domains; an empty list does nothing.
  void removeForcedPrefsDictionaryForDomains(const std::vector<std::string>& domains);
  bool hasSettingsForDomains(const std::vector<std::string>& domains);

  const QRMManagerRef& manager() const { return qrmManager_; }
  std::string description() const override;

 private:
  explicit GWQRMHelper(QRMManagerRef manager) : qrmManager_(std::move(manager)) {}

  QRMManagerRef qrmManager_;
  [[maybe_unused]] GWObjectRef qrmHelper_;  // declared by the design, never set or read
};

}  // namespace gw
