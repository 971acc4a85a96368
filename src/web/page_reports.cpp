// Reports of visited and blocked pages to the daemon. One-way messages with a 1000 ms time-out:
// a daemon that is absent or slow loses the report, and the browser never waits longer than that.
#include <gatewise/ipc.h>
#include <gatewise/log.h>
#include <gatewise/web.h>
#include <unistd.h>

#include "platform/text/utf8.h"
#include "web/content_filter.h"

namespace {

constexpr gw_timeout_t kReportTimeoutMs = 1000;

}  // namespace

void GWContentFilterPageWasBlocked(const gw::plist::Value& pageInfo) {
  using gw::web::writeFilterMessage;
  try {
    mach_port_t port = 0;
    if (bootstrap_look_up(bootstrap_port, kGWDaemonServiceName, &port) != KERN_SUCCESS ||
        port == 0) {
      writeFilterMessage("GWContentFilterPageWasBlocked: Daemon doesn't appear to be running\n");
      return;
    }
    std::optional<std::string> xml = gw::plist::writePropertyList(pageInfo, gw::plist::Format::XML);
    if (!xml) {
      mach_port_deallocate(mach_task_self(), port);
      writeFilterMessage(
          "GWContentFilterPageWasBlocked: CFPropertyListCreateXMLData returned NULL\n");
      return;
    }
    kern_return_t status = _GWMIGContentFilterPageWasBlocked(
        port, kReportTimeoutMs, vm_offset_t(xml->data()), mach_msg_type_number_t(xml->size()));
    // The page-dump function's text, name included: the filter's log has always read so.
    if (status != KERN_SUCCESS)
      gw::web::writeFilterMessagef("GWCopyPageDump: MIG error %d\n", status);
  } catch (const std::exception& e) {
    GW_LOG_CAUGHT(e);
  }
}

void GWLumewayPageWasBlocked(std::optional<std::string_view> pageTitle,
                             std::optional<std::string_view> pageURL) {
  if (!pageURL) {
    GW_LOG(0, "invalid param");
    return;
  }
  gw::returningOnException(__func__, __LINE__, 0, [&] {
    GWContentFilterPageWasBlocked(gw::plist::Value::newDictionary({
        {kWFPageTitleKey, gw::plist::Value(pageTitle.value_or("Unknown"))},
        {kWFURLKey, gw::plist::Value(*pageURL)},
    }));
    return 0;
  });
}

void GWLumewayVisitedPage(std::optional<std::string_view> pageTitle,
                          std::optional<std::string_view> pageURL) {
  if (!pageTitle || !pageURL) {
    GW_LOG(0, "invalid param");
    return;
  }
  GW_LOG(2, "page address: %@", gw::plist::Value(*pageURL));
  mach_port_t port = 0;
  if (bootstrap_look_up(bootstrap_port, kGWDaemonServiceName, &port) != KERN_SUCCESS) port = 0;
  if (!gw::text::isValidUTF8(*pageTitle) || !gw::text::isValidUTF8(*pageURL)) {
    GW_LOG(0, "couldn't convert param to c string");
    if (port) mach_port_deallocate(mach_task_self(), port);
    return;
  }
  // The result is not looked at: a visit the daemon does not take is simply not recorded.
  (void)_GWMIGLumewayVisitedPage(port, kReportTimeoutMs, vm_offset_t(pageURL->data()),
                                 mach_msg_type_number_t(pageURL->size()), std::uint32_t(::getuid()),
                                 pageTitle->data(), mach_msg_type_number_t(pageTitle->size()));
}
