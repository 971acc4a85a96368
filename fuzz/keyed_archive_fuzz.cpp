// Reads arbitrary bytes as a keyed archive. Whatever decodes must be usable (status items compose
// their texts) and must archive again into a binary archive that decodes (XML is tried too, but
// may rightly refuse text that XML cannot carry): no crash, no unbounded recursion, no leak.
#include <gatewise/archive.h>
#include <gatewise/log.h>
#include <gatewise/plist.h>
#include <gatewise/status.h>

#include <cstdint>
#include <cstdlib>

namespace {

void useItems(const gw::plist::Value& v, unsigned depth) {
  if (depth > 8) return;
  if (auto item = v.ifObject<gw::GWStatusItem>()) {
    (void)item->title();
    (void)item->message();
    (void)item->messageForTTS();
    (void)item->timeFromCreation();
    (void)item->description();
    return;
  }
  if (auto* array = v.ifArray()) {
    for (const gw::plist::Value& x : *array) useItems(x, depth + 1);
  } else if (auto* dictionary = v.ifDictionary()) {
    for (const auto& [key, x] : *dictionary) useItems(x, depth + 1);
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  gGWFrameworkLoggingLevel = -2;  // nothing is logged: the fuzzer's output stays readable
  (void)gw::GWStatusItem::initWithName("", "", {});  // brings in the status item's coder
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  gw::plist::Value root = gw::archive::unarchiveObjectWithData({data, size});
  if (root.isNull()) return 0;
  useItems(root, 0);
  std::vector<std::uint8_t> again = gw::archive::archivedDataWithRootObject(root);
  if (again.empty() || gw::archive::unarchiveObjectWithData(again).isNull()) std::abort();
  std::vector<std::uint8_t> xml =
      gw::archive::archivedDataWithRootObject(root, gw::plist::Format::XML);
  if (!xml.empty()) (void)gw::archive::unarchiveObjectWithData(xml);
  return 0;
}
