// Reads arbitrary bytes as a keyed archive. Whatever decodes must be usable (status items compose
// their texts) and must archive again into a binary archive that decodes (XML is tried too, but
// may rightly refuse text that XML cannot carry): no crash, no unbounded recursion, no leak.
#include <gatewise/archive.h>
#include <gatewise/log.h>
#include <gatewise/plist.h>
#include <gatewise/status.h>

#include <cstdint>
#include <cstdlib>
#include <set>

namespace {

// Each container once: an archive may reference one array from many places, so a plain walk of
// the decoded graph could take exponential time.
void useItems(const gw::plist::Value& v, std::set<const void*>& seen) {
  if (auto item = v.ifObject<gw::GWStatusItem>()) {
    (void)item->title();
    (void)item->message();
    (void)item->messageForTTS();
    (void)item->timeFromCreation();
    (void)item->description();
    return;
  }
  if (auto* array = v.ifArray()) {
    if (!seen.insert(array).second) return;
    for (const gw::plist::Value& x : *array) useItems(x, seen);
  } else if (auto* dictionary = v.ifDictionary()) {
    if (!seen.insert(dictionary).second) return;
    for (const auto& [key, x] : *dictionary) useItems(x, seen);
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
  std::set<const void*> seen;
  useItems(root, seen);
  std::vector<std::uint8_t> again = gw::archive::archivedDataWithRootObject(root);
  if (again.empty() || gw::archive::unarchiveObjectWithData(again).isNull()) std::abort();
  std::vector<std::uint8_t> xml =
      gw::archive::archivedDataWithRootObject(root, gw::plist::Format::XML);
  if (!xml.empty()) (void)gw::archive::unarchiveObjectWithData(xml);
  return 0;
}
