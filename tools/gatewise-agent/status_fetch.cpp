#include <gatewise/format.h>
#include <gatewise/log.h>
#include <gatewise/status.h>

#include <cmath>

#include "status_entry.h"

namespace gw::agent {
namespace {

// Lists are small; a daemon that sends thousands of items gets the first ones shown.
constexpr std::size_t kMaxItems = 64;

std::optional<StatusEntry> entryFromItem(const GWStatusItem& item) {
  std::optional<std::string> message = item.message();
  if (!message) return std::nullopt;
  StatusEntry entry;
  double expiration = item.expirationDate().unixTime();
  std::optional<std::string> id = item.itemID();
  entry.key = id && !id->empty()
                  ? *id
                  : gw::format("%@\n%@\n%@\n%.0f", item.itemKind(), item.statusKind().value_or(""),
                               item.itemName(), std::floor(expiration));
  entry.subject = item.itemKind() + "\n" + item.itemName();
  entry.title = item.title();
  entry.body = *message;
  entry.expiration = expiration;
  entry.warning = item.isWarning();
  return entry;
}

}  // namespace

std::optional<std::vector<StatusEntry>> fetchStatusEntries() {
  plist::ArrayRef items = GWGetStatusItems();
  if (!items) return std::nullopt;
  std::vector<StatusEntry> entries;
  for (const plist::Value& value : *items) {
    if (entries.size() == kMaxItems) break;
    auto item = value.ifObject<GWStatusItem>();
    if (!item) continue;
    try {
      if (auto entry = entryFromItem(*item)) entries.push_back(std::move(*entry));
    } catch (const std::exception& e) {
      GW_LOG_CAUGHT(e);
    }
  }
  return entries;
}

}  // namespace gw::agent
