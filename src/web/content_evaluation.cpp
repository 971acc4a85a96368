// GWCopyContentEvaluation and GWCopyPageDump: verdicts and page dumps.
//
// An evaluation is decided here when the page's URL is on the user's "filterWhitelist" (allowed)
// or "filterBlacklist" (blocked); otherwise the web-filter service scores the page. Both routines
// to the service are two-way with a 1000 ms time-out on the send and on the reply, so a service
// that is absent, slow or dead costs the caller at most about two seconds and gives a null
// result, which the filtering component takes as "no objection".
#include <gatewise/ipc.h>
#include <gatewise/log.h>
#include <gatewise/web.h>

#include <mutex>
#include <span>
#include <vector>

#include "platform/sessions/sessions.h"
#include "platform/text/utf8.h"
#include "web/content_filter.h"

namespace {

using gw::web::writeFilterMessage;
using gw::web::writeFilterMessagef;

constexpr gw_timeout_t kFilterTimeoutMs = 1000;

// The reply region of a filter routine, released with vm_deallocate when it goes.
class ReplyRegion {
 public:
  ReplyRegion() = default;
  ~ReplyRegion() {
    if (address) vm_deallocate(mach_task_self(), address, count);
  }
  ReplyRegion(const ReplyRegion&) = delete;
  ReplyRegion& operator=(const ReplyRegion&) = delete;
  std::span<const std::uint8_t> bytes() const {
    return {reinterpret_cast<const std::uint8_t*>(address), count};
  }

  vm_offset_t address = 0;
  mach_msg_type_number_t count = 0;
};

// The page's bytes; nullptr (no page) for a value that is not data.
const gw::plist::Data* contentBytes(const gw::plist::Value& pageContent) {
  return pageContent.isData() ? &pageContent.data() : nullptr;
}

// The user at the console, for the filter's lists when the host did not name one.
std::optional<std::string> consoleUserName() {
  std::optional<std::vector<gw::sessions::LoginSession>> sessions = gw::sessions::copySessionList();
  if (!sessions) return std::nullopt;
  for (const gw::sessions::LoginSession& session : *sessions) {
    if (session.onConsole) {
      if (session.userName.empty()) return std::nullopt;
      return session.userName;
    }
  }
  return std::nullopt;
}

// Fills gUserName, gWebWhiteList and gWebBlackList as far as they can be filled now; true when
// both lists are loaded. Each global is set once and kept for the life of the process.
bool loadFilterLists() {
  static std::mutex mutex;
  std::lock_guard lock(mutex);
  if (gUserName.isNull()) {
    if (std::optional<std::string> name = consoleUserName()) gUserName = *name;
    if (gUserName.isNull()) return false;
  }
  if (gWebWhiteList.isNull()) {
    gw::plist::Value list = CopyContentFilterPlistValueForKey("filterWhitelist");
    if (list.isNull()) return false;
    gWebWhiteList = list;
  }
  if (gWebBlackList.isNull()) {
    gw::plist::Value list = CopyContentFilterPlistValueForKey("filterBlacklist");
    if (list.isNull()) return false;
    gWebBlackList = list;
  }
  return true;
}

gw::plist::Value verdict(bool wantsToBlock) {
  return gw::plist::Value::newDictionary({{kWFFilterWantsToBlockKey, wantsToBlock}});
}

// The decision of the administrator's lists, or a null value when neither list decides.
gw::plist::Value localVerdict(const gw::plist::Value& pageMeta) {
  if (!loadFilterLists()) return {};
  const gw::plist::Dictionary* meta = pageMeta.ifDictionary();
  const gw::plist::Value* url = meta ? meta->find(kWFURLKey) : nullptr;
  if (!url) return {};
  if (OnList(*url, gWebWhiteList)) return verdict(false);
  if (OnList(*url, gWebBlackList)) return verdict(true);
  return {};
}

}  // namespace

gw::plist::Value GWCopyContentEvaluation(const gw::plist::Value& pageContent,
                                         const gw::plist::Value& pageMeta) {
  try {
    mach_port_t port = 0;
    if (bootstrap_look_up(bootstrap_port, kGWWebFilterServiceName, &port) != KERN_SUCCESS) port = 0;
    // Drops the look-up's connection on every path that does not send.
    auto release = [&port] {
      if (port) mach_port_deallocate(mach_task_self(), port);
      port = 0;
    };

    if (gw::plist::Value local = localVerdict(pageMeta); !local.isNull()) {
      release();
      return local;
    }
    const gw::plist::Data* content = contentBytes(pageContent);
    if (!content) {
      release();
      writeFilterMessage("GWCopyContentEvaluation: pageContent was NULL\n");
      return {};
    }
    if (pageMeta.isNull()) {
      release();
      writeFilterMessage("GWCopyContentEvaluation: pageMeta was NULL\n");
      return {};
    }
    if (!port) {
      writeFilterMessage("GWCopyContentEvaluation: Daemon doesn't appear to be running\n");
      return {};
    }
    std::optional<std::string> xml = gw::plist::writePropertyList(pageMeta, gw::plist::Format::XML);
    if (!xml) {
      release();
      writeFilterMessage("GWCopyContentEvaluation: CFPropertyListCreateXMLData returned NULL\n");
      return {};
    }
    ReplyRegion reply;
    kern_return_t status =
        _WFMIGEvalutePageContent(port, kFilterTimeoutMs, vm_offset_t(content->data()),
                                 mach_msg_type_number_t(content->size()), vm_offset_t(xml->data()),
                                 mach_msg_type_number_t(xml->size()), &reply.address, &reply.count);
    if (status != KERN_SUCCESS) {
      writeFilterMessagef("GWCopyContentEvaluation: MIG error %d\n", status);
      return {};
    }
    if (reply.address == 0 || reply.count == 0) {
      writeFilterMessage("GWCopyContentEvaluation: _WFMIGEvalutePageContent returned NULL data\n");
      return {};
    }
    gw::plist::ReadResult parsed = gw::plist::readPropertyList(reply.bytes());
    if (!parsed || parsed.format != gw::plist::Format::XML) {
      writeFilterMessage(
          "GWCopyContentEvaluation: CFPropertyListCreateFromXMLData returned NULL\n");
      return {};
    }
    return *parsed.value;
  } catch (const std::exception& e) {
    GW_LOG_CAUGHT(e);
    return {};
  }
}

std::optional<std::string> GWCopyPageDump(const gw::plist::Value& pageContent,
                                          const gw::plist::Value& pageMeta) {
  try {
    mach_port_t port = 0;
    if (bootstrap_look_up(bootstrap_port, kGWWebFilterServiceName, &port) != KERN_SUCCESS ||
        port == 0) {
      writeFilterMessage("GWCopyPageDump: Daemon doesn't appear to be running\n");
      return std::nullopt;
    }
    std::optional<std::string> xml = gw::plist::writePropertyList(pageMeta, gw::plist::Format::XML);
    if (!xml) {
      mach_port_deallocate(mach_task_self(), port);
      writeFilterMessage("GWCopyPageDump: CFPropertyListCreateXMLData returned NULL\n");
      return std::nullopt;
    }
    // A null page is sent as an empty region: the service dumps what it was given.
    const gw::plist::Data* content = contentBytes(pageContent);
    ReplyRegion reply;
    kern_return_t status = _WFMIGGetPageDump(
        port, kFilterTimeoutMs, content ? vm_offset_t(content->data()) : 0,
        content ? mach_msg_type_number_t(content->size()) : 0, vm_offset_t(xml->data()),
        mach_msg_type_number_t(xml->size()), &reply.address, &reply.count);
    if (status != KERN_SUCCESS) {
      writeFilterMessagef("GWCopyPageDump: MIG error %d\n", status);
      return std::nullopt;
    }
    if (reply.address == 0 || reply.count == 0) {
      writeFilterMessage("GWCopyPageDump: _WFMIGGetPageDump returned NULL data\n");
      return std::nullopt;
    }
    std::string text(reinterpret_cast<const char*>(reply.bytes().data()), reply.count);
    if (!gw::text::isValidUTF8(text)) {
      writeFilterMessage("GWCopyPageDump: Couldn't create string from external data\n");
      return std::nullopt;
    }
    return text;
  } catch (const std::exception& e) {
    GW_LOG_CAUGHT(e);
    return std::nullopt;
  }
}
