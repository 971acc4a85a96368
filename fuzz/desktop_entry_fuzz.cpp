// Reads arbitrary bytes as a ".desktop" file, as the application registry does for each entry it
// finds, and takes what the registry takes from it: Type, Hidden, Name (plain and localized) and
// the program word of Exec. Refused entries must say why; accepted ones hold only UTF-8 values.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "platform/apps/desktop_entry.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  std::string error;
  std::optional<gw::registry::DesktopEntry> entry = gw::registry::parseDesktopEntry(text, &error);
  if (!entry) {
    if (error.empty()) std::abort();
    return 0;
  }
  (void)entry->value("Type");
  (void)entry->isTrue("Hidden");
  (void)entry->isTrue("NoDisplay");
  (void)entry->localizedValue("Name", {"de_DE@euro", "sr_RS", "fr", "C"});
  if (std::optional<std::string> exec = entry->value("Exec"))
    (void)gw::registry::programOfExec(*exec);
  // The Exec parser also sees text the entry parser never let through.
  (void)gw::registry::programOfExec(text);
  return 0;
}
