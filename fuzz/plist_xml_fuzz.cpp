// Reads arbitrary bytes as an XML property list; whatever reads must write back and read again
// to an equal value.
#include <gatewise/plist.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

using gw::plist::Value;

// Equality that also holds for NaN, which equals nothing under operator==.
bool sameValue(const Value& a, const Value& b) {
  if (a.isReal() && b.isReal() && std::isnan(a.real())) return std::isnan(b.real());
  if (a.isArray() && b.isArray()) {
    const auto& x = *a.array();
    const auto& y = *b.array();
    if (x.size() != y.size()) return false;
    for (std::size_t i = 0; i < x.size(); ++i) {
      if (!sameValue(x[i], y[i])) return false;
    }
    return true;
  }
  if (a.isDictionary() && b.isDictionary()) {
    const auto& x = *a.dictionary();
    const auto& y = *b.dictionary();
    if (x.size() != y.size()) return false;
    for (auto i = x.begin(), j = y.begin(); i != x.end(); ++i, ++j) {
      if (i->first != j->first || !sameValue(i->second, j->second)) return false;
    }
    return true;
  }
  return a == b;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // Binary documents belong to the binary target.
  if (size >= 8 && std::memcmp(data, "bplist00", 8) == 0) return 0;
  gw::plist::ReadOptions options;
  options.xmlUIDDictionaries = (size & 1) != 0;  // vary the option without spending input bytes
  gw::plist::ReadResult first = gw::plist::readPropertyList(std::span(data, size), options);
  if (!first) return 0;
  std::optional<std::string> written =
      gw::plist::writePropertyList(*first.value, gw::plist::Format::XML);
  // A UID read from a CF$UID dictionary cannot be written as XML; everything else must be.
  if (!written) {
    if (!options.xmlUIDDictionaries) std::abort();
    return 0;
  }
  gw::plist::ReadResult second = gw::plist::readPropertyList(*written);
  if (!second || !sameValue(*first.value, *second.value)) std::abort();
  return 0;
}
