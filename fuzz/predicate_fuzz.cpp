// Parses arbitrary bytes as a fetch request's predicate: the parser must never crash or recurse
// without bound, and every tree it accepts keeps to the documented limits and names only known
// fields.
#include <gatewise/fetch_request.h>

#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "events/predicate.h"

namespace {

// Comparisons below node; aborts when the tree breaks a promise of the parser.
std::size_t check(const gw::events::PredicateNode& node, std::size_t depth) {
  using Kind = gw::events::PredicateNode::Kind;
  if (depth > 2 * gw::kGWMaxPredicateDepth + 2) std::abort();
  if (node.kind == Kind::Compare) {
    if (!gw::GWEventFieldKindOf(node.field) || node.literal.isNull()) std::abort();
    return 1;
  }
  if (node.children.empty() || (node.kind == Kind::Not && node.children.size() != 1)) std::abort();
  std::size_t terms = 0;
  for (const auto& child : node.children) terms += check(child, depth + 1);
  return terms;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  gw::events::ParsedPredicate parsed = gw::events::parsePredicate(text);
  if (!parsed.ok) {
    if (parsed.error.empty()) std::abort();
    return 0;
  }
  if (parsed.root && check(*parsed.root, 0) > gw::kGWMaxPredicateTerms) std::abort();
  return 0;
}
