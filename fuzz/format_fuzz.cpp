// Formats arbitrary bytes as an object format string against arguments of every kind: whatever
// the format asks for (wrong kinds, missing arguments, huge widths), the formatter must neither
// misread an argument nor write out of bounds, and its output stays bounded.
#include <gatewise/exception.h>
#include <gatewise/format.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view format(reinterpret_cast<const char*>(data), size);
  static const gw::plist::Value dictionary = gw::plist::Value::newDictionary(
      {{"name", "kim"}, {"limits", gw::plist::Value::newArray({1, 2.5, true})}});
  static const gw::GWException exception("GWCurfews", "bad entry");
  const char* nullText = nullptr;
  std::string owned = "owned text";
  std::string out =
      gw::format(format, 42, -1, std::uint64_t(UINT64_MAX), 'c', 3.25, "text", owned, nullText,
                 static_cast<const void*>(data), dictionary, exception, short(-7), true);
  // Every conversion prints at most its capped width or precision plus its own text.
  if (out.size() > size * (4096 + 4096) + 4096 + 1024) std::abort();
  return 0;
}
