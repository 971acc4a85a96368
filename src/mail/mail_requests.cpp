// The mail and chat programs' requests to the daemon: payloads, the mail size limit, the sends.
#include <gatewise/core.h>
#include <gatewise/ipc.h>
#include <gatewise/log.h>
#include <gatewise/mail.h>
#include <unistd.h>

#include <optional>
#include <string>

namespace plist = gw::plist;

namespace {

constexpr mach_msg_timeout_t kSendTimeoutMs = 1000;

// The daemon's port for one request. A look-up whose connection is never used for a send is
// dropped when the request ends early.
class DaemonPort {
 public:
  DaemonPort() {
    if (bootstrap_look_up(bootstrap_port, kGWDaemonServiceName, &port_) != KERN_SUCCESS) port_ = 0;
  }
  ~DaemonPort() {
    if (port_ != 0) mach_port_deallocate(mach_task_self(), port_);
  }
  DaemonPort(const DaemonPort&) = delete;
  DaemonPort& operator=(const DaemonPort&) = delete;
  mach_port_t get() const { return port_; }

 private:
  mach_port_t port_ = 0;
};

bool isEmpty(std::optional<std::string_view> text) { return !text || text->empty(); }

// The XML form of a mail request, or nullopt (logged) when it cannot be sent.
std::optional<std::string> mailPayload(const char* function, plist::DictionaryRef request) {
  std::string error;
  std::optional<std::string> xml = plist::writePropertyList(request, plist::Format::XML, &error);
  if (!xml) {
    gw::GWFrameworkLog(0, function, __LINE__, "*** serialization failed with error: %@", error);
    return std::nullopt;
  }
  if (xml->size() > kGWMailPayloadLimit) {
    gw::GWFrameworkLog(0, function, __LINE__, "*** 100K limit exceeded");
    return std::nullopt;
  }
  if (xml->empty()) {
    gw::GWFrameworkLog(0, function, __LINE__, "*** couldn't create data");
    return std::nullopt;
  }
  return xml;
}

vm_offset_t regionOf(const std::string& bytes) { return vm_offset_t(bytes.data()); }

}  // namespace

void GWMailAddToWhiteList(const plist::ArrayRef& contactList,
                          std::optional<std::string_view> userName) {
  gw::returningOnException(__func__, __LINE__, 0, [&] {
    GW_LOG(2, "Enter");
    if (!contactList || contactList->empty() || isEmpty(userName)) {
      GW_LOG(0, "*** invalid param");
      return 0;
    }
    // Without a daemon the port stays 0 and the send below fails without a word.
    DaemonPort port;
    auto request = plist::Dictionary::make();
    request->set(kGWMailUserNameKey, std::string(*userName));
    request->set(kGWMailContactListKey, contactList);
    std::optional<std::string> xml = mailPayload(GW_LOG_FUNCTION, request);
    if (!xml) return 0;
    _GWMIGMailAddContactsToWhiteList(port.get(), kSendTimeoutMs, regionOf(*xml),
                                     mach_msg_type_number_t(xml->size()));
    return 0;
  });
}

void GWMailRemoveFromWhiteList(std::optional<std::string_view> emailAddress,
                               std::optional<std::string_view> userName) {
  gw::returningOnException(__func__, __LINE__, 0, [&] {
    GW_LOG(2, "Enter");
    if (isEmpty(emailAddress) || isEmpty(userName)) {
      GW_LOG(0, "*** invalid param");
      return 0;
    }
    DaemonPort port;
    auto request = plist::Dictionary::make();
    request->set(kGWMailUserNameKey, std::string(*userName));
    request->set(kGWMailEmailAddressKey, std::string(*emailAddress));
    std::optional<std::string> xml = mailPayload(GW_LOG_FUNCTION, request);
    if (!xml) return 0;
    _GWMIGMailRemoveContactFromWhiteList(port.get(), kSendTimeoutMs, regionOf(*xml),
                                         mach_msg_type_number_t(xml->size()));
    return 0;
  });
}

void GWParletSaveChatLog(const plist::Value& participants, std::optional<std::string_view> filePath,
                         const std::shared_ptr<const plist::Data>& fileData) {
  gw::returningOnException(__func__, __LINE__, 0, [&] {
    if (participants.isNull() || !filePath || !fileData) {
      GW_LOG(0, "invalid param");
      return 0;
    }
    GW_LOG(2, "path: %@", std::string(*filePath));
    DaemonPort port;
    if (port.get() == 0) {
      GW_LOG(0, "*** tutelad is not running");
      return 0;
    }
    uid_t uid = ::getuid();
    auto request = plist::Dictionary::make();
    request->set(kGWChatParticipantsKey, participants);
    request->set(kGWChatFilePathKey, std::string(*filePath));
    request->set(kGWChatFileDataKey, fileData);
    // A process whose user the password database does not know still sends; the daemon goes by
    // the socket's credentials in any case.
    if (std::optional<std::string> name = GetUserShortNameForUID(uid)) {
      request->set(kGWMailUserNameKey, *name);
    }
    std::string error;
    std::optional<std::string> xml = plist::writePropertyList(request, plist::Format::XML, &error);
    if (!xml) {
      GW_LOG(0, "*** serialization failed with error: %@", error);
      return 0;
    }
    if (xml->empty()) {
      GW_LOG(0, "couldn't create parameter data");
      return 0;
    }
    _GWMIGParletSaveChatLog(port.get(), kSendTimeoutMs, regionOf(*xml),
                            mach_msg_type_number_t(xml->size()), std::int32_t(uid));
    return 0;
  });
}
