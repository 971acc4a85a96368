// The check shared by the property-list round-trip fuzz targets: whether a value read back from
// what was written equals the original. Header-only; each target is one single-threaded program.
#pragma once

#include <gatewise/plist.h>

#include <cmath>
#include <cstddef>

namespace gwfuzz {

// Equality that also holds for NaN reals and dates, which equal nothing under operator==.
inline bool sameValue(const gw::plist::Value& a, const gw::plist::Value& b) {
  if (a.isReal() && b.isReal() && std::isnan(a.real())) return std::isnan(b.real());
  if (a.isDate() && b.isDate() && std::isnan(a.date().secondsSinceReferenceDate)) {
    return std::isnan(b.date().secondsSinceReferenceDate);
  }
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

}  // namespace gwfuzz
