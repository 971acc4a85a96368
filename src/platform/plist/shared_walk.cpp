// Expanded sizes of values with shared containers, memoised by container identity.
#include "platform/plist/shared_walk.h"

#include <unordered_map>

namespace gw::plist::walk {
namespace {

std::uint64_t add(std::uint64_t a, std::uint64_t b) {
  return a > kUnbounded - b ? kUnbounded : a + b;
}

class ExpandedSize {
 public:
  explicit ExpandedSize(std::uint64_t perNode) : perNode_(perNode) {}

  std::uint64_t of(const Value& v) {
    const void* shared = sharedContainer(v);
    if (!shared) return compute(v);
    auto [it, added] = known_.try_emplace(shared, kUnbounded);  // a cycle finds kUnbounded
    if (!added) return it->second;
    const std::uint64_t size = compute(v);
    known_[shared] = size;  // the recursion may have rehashed: look it up again
    return size;
  }

 private:
  std::uint64_t compute(const Value& v) {
    std::uint64_t size = perNode_;
    switch (v.type()) {
      case Type::String:
        return add(size, v.string().size());
      case Type::Data:
        return add(size, v.data().size());
      case Type::Array:
        for (const Value& item : *v.array()) {
          size = add(size, of(item));
          if (size == kUnbounded) break;
        }
        return size;
      case Type::Dictionary:
        for (const auto& [key, item] : *v.dictionary()) {
          size = add(add(size, perNode_ + key.size()), of(item));
          if (size == kUnbounded) break;
        }
        return size;
      default:
        return size;
    }
  }

  std::uint64_t perNode_;
  std::unordered_map<const void*, std::uint64_t> known_;
};

}  // namespace

std::uint64_t expandedSize(const Value& v, std::uint64_t perNode) {
  return ExpandedSize(perNode).of(v);
}

}  // namespace gw::plist::walk
