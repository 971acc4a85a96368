// Helpers for walking values whose containers may be shared.
//
// A container (Array or Dictionary) can be held in several places of one value: a binary file
// refers to one object from many, and code can put one container in two arrays. A value can
// even contain itself when built in memory. Every walk over a value must therefore cost in
// proportion to its distinct containers, not to its expanded tree, and must stop at a cycle. A
// container held in only one place can be neither reached twice nor part of a cycle (the
// container that closes a cycle is held by its parent and by whatever reached the cycle), so the
// walks remember only containers whose handle is shared: a tree costs no look-ups at all.
//
// Pure functions of their arguments; safe on any thread that may read the value.
#pragma once

#include <gatewise/plist.h>

#include <cstdint>
#include <limits>

namespace gw::plist::walk {

// The identity of a container held in more than one place, or nullptr (other values, and
// containers held in one place only).
inline const void* sharedContainer(const Value& v) {
  if (v.isArray()) return v.array().use_count() > 1 ? v.array().get() : nullptr;
  if (v.isDictionary()) return v.dictionary().use_count() > 1 ? v.dictionary().get() : nullptr;
  return nullptr;
}

inline constexpr std::uint64_t kUnbounded = std::numeric_limits<std::uint64_t>::max();

// A lower bound on the size of the value written out as a tree (every shared container written
// at each place that holds it): perNode bytes for each node and each dictionary key, plus the
// bytes of every string, key and data. Saturates at kUnbounded, which a cycle also gives.
// Linear in the distinct containers.
std::uint64_t expandedSize(const Value& v, std::uint64_t perNode);

}  // namespace gw::plist::walk
