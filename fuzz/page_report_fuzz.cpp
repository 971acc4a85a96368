// The daemon's decoders of page reports: a page-description property list from any local process
// (blocked, visited, overridden pages) and the raw address and title of a visited page. The first
// byte picks the event kind and the peer (root, who may name a user, or an ordinary uid); the rest
// is the payload. Whatever is recorded must be UTF-8 within its field's size, about the peer unless
// the peer is root.
#include <gatewise/log.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "daemon/web/page_events.h"
#include "platform/text/utf8.h"

namespace {

void check(const gw::daemon::Event& event, uid_t peer) {
  if (peer != 0 && event.uid != peer) std::abort();
  for (const auto& [name, value] : event.fields) {
    const std::string* text = value.ifString();
    if (!text || !gw::text::isValidUTF8(*text)) std::abort();
    std::size_t limit = name == "url"     ? gw::daemon::kMaxRecordedURLBytes
                        : name == "title" ? gw::daemon::kMaxRecordedTitleBytes
                                          : gw::daemon::kMaxRecordedReasonBytes;
    if (text->size() > limit) std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  gGWFrameworkLoggingLevel = -2;  // nothing is logged: the fuzzer's output stays readable
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  static constexpr std::string_view kEntities[] = {
      gw::daemon::kEventBlockedPage, gw::daemon::kEventVisitedPage, gw::daemon::kEventWebOverride};
  std::string_view entity = kEntities[(data[0] & 0x7f) % 3];
  uid_t peer = (data[0] & 0x80) ? 0 : 1000;
  std::span<const std::uint8_t> payload(data + 1, size - 1);

  std::string why;
  std::optional<gw::daemon::Event> event = gw::daemon::pageReportEvent(entity, peer, payload, &why);
  if (event) {
    check(*event, peer);
    if (event->fields.find("url") == event->fields.end()) std::abort();
  } else if (why.empty()) {
    std::abort();
  }

  // The visited-page routine's two raw fields: split the payload at its first NUL.
  std::size_t split = 0;
  while (split < payload.size() && payload[split] != 0) ++split;
  std::span<const std::uint8_t> title =
      split < payload.size() ? payload.subspan(split + 1) : std::span<const std::uint8_t>();
  check(gw::daemon::visitedPageEvent(peer, payload.first(split), title), peer);
  return 0;
}
