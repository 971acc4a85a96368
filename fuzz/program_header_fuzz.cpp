// The executable test and the desktop-entry reader on arbitrary bytes: Mach-O, fat and ELF headers
// with hostile offsets and counts must be answered without reading out of the file or looping
// long, and any text must parse or be refused.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <string_view>

#include "platform/apps/desktop_entry.h"
#include "platform/apps/item_info.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  int fd = ::memfd_create("program", MFD_CLOEXEC);
  if (fd < 0) return 0;
  if (::write(fd, data, size) == ssize_t(size)) (void)gw::iteminfo::isExecutableImage(fd);
  ::close(fd);

  std::string_view text(reinterpret_cast<const char*>(data), size);
  std::string error;
  if (auto entry = gw::registry::parseDesktopEntry(text, &error)) {
    if (auto exec = entry->value("Exec")) (void)gw::registry::programOfExec(*exec);
    (void)entry->localizedValue("Name", {"de_AT", "fr"});
  }
  (void)gw::registry::programOfExec(text);
  return 0;
}
