// The Mach-O reader on arbitrary bytes: recognising thin, fat and archive files, checking every
// image, and swapping each valid image's headers to the other byte order and back.
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string>
#include <vector>

#include "identity/prebinding/byte_order.h"
#include "identity/prebinding/ofile.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace gw::macho;
  OFile ofile;
  std::string error;
  if (!ofile_map_from_memory(std::span<const std::uint8_t>(data, size), "fuzz", ofile, error)) {
    return 0;
  }
  if (!breakout(ofile, error)) return 0;
  for (const ArchRecord& arch : ofile.archs) {
    if (!arch.isMachO) continue;
    auto image = imageBytes(ofile, arch);
    std::vector<std::uint8_t> copy(image.begin(), image.end());
    if (swap_object_headers(copy, arch.byteSex)) {
      if (!swap_object_headers(copy, otherByteSex(arch.byteSex))) std::abort();
      if (!std::equal(copy.begin(), copy.end(), image.begin())) std::abort();
    }
    for (std::size_t at : arch.commands) {
      auto command = loadStruct<load_command>(image.data() + at, arch.byteSex);
      loadCommandString(image, at, command.cmdsize, 8);
    }
  }
  return 0;
}
