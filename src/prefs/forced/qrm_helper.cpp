// GWQRMHelper: key-level editing over a manager's whole-domain operations.
#include <gatewise/exception.h>
#include <gatewise/format.h>
#include <gatewise/qrm_helper.h>

namespace gw {

QRMManager::~QRMManager() = default;

std::shared_ptr<GWQRMHelper> GWQRMHelper::qrmHelperForManager(QRMManagerRef manager) {
  return initWithQRMManager(std::move(manager));
}

std::shared_ptr<GWQRMHelper> GWQRMHelper::initWithQRMManager(QRMManagerRef manager) {
  return std::shared_ptr<GWQRMHelper>(new GWQRMHelper(std::move(manager)));
}

std::string GWQRMHelper::description() const {
  return gw::format("<GWQRMHelper: %p>", static_cast<const void*>(this));
}

std::optional<plist::Value> GWQRMHelper::forcedPrefsObjectForKey(
    std::optional<std::string_view> key, std::string_view domain) {
  if (!key) return std::nullopt;
  return qrmManager_->objectForKey(*key, domain);
}

void GWQRMHelper::setForcedPrefsObject(const plist::Value& value,
                                       std::optional<std::string_view> key,
                                       std::string_view domain) {
  plist::DictionaryRef stored = qrmManager_->dictionaryForDomain(domain);
  plist::DictionaryRef copy =
      stored ? plist::mutableCopy(stored).dictionary() : plist::Dictionary::make();
  if (!key || value.isNull()) {
    throw GWException("NSInvalidArgumentException",
                      !key ? "setForcedPrefsObject: nil key" : "setForcedPrefsObject: nil value");
  }
  copy->set(std::string(*key), value);
  qrmManager_->setDictionary(copy, domain);
}

void GWQRMHelper::removeForcedPrefsObjectForKey(std::optional<std::string_view> key,
                                                std::string_view domain) {
  plist::DictionaryRef stored = qrmManager_->dictionaryForDomain(domain);
  if (!stored) return;
  plist::DictionaryRef copy = plist::mutableCopy(stored).dictionary();
  if (key) copy->remove(*key);
  qrmManager_->setDictionary(copy, domain);
}

void GWQRMHelper::setForcedPrefsDictionary(const plist::DictionaryRef& dictionary,
                                           std::string_view domain) {
  if (!dictionary) return;
  qrmManager_->setDictionary(dictionary, domain);
}

void GWQRMHelper::removeForcedPrefsDictionaryForDomains(const std::vector<std::string>& domains) {
  if (domains.empty()) return;
  qrmManager_->removeDictionaryForDomains(domains);
}

bool GWQRMHelper::hasSettingsForDomains(const std::vector<std::string>& domains) {
  return qrmManager_->hasSettingsForDomains(domains);
}

}  // namespace gw
