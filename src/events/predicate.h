// The predicate language of fetch requests (described in gatewise/fetch_request.h), parsed into a
// small tree that the daemon compiles to SQL.
//
// The parser is a bounded recursive descent: the text is at most kGWMaxPredicateLength bytes,
// nesting (parentheses and NOT) at most kGWMaxPredicateDepth, comparisons at most
// kGWMaxPredicateTerms. Field names are checked against the entities' fields and literals against
// the field's kind, so a tree that parses names only known fields with fitting literals. Dates are
// turned into plist::Date (local time unless the literal names a zone). Pure; any thread.
#pragma once

#include <gatewise/fetch_request.h>
#include <gatewise/plist.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace gw::events {

enum class CompareOp {
  Equal,
  NotEqual,
  Less,
  LessOrEqual,
  Greater,
  GreaterOrEqual,
  Contains,
  BeginsWith
};

struct PredicateNode {
  enum class Kind { Compare, And, Or, Not };
  Kind kind = Kind::Compare;
  // Compare: field op literal (a string, integer, real, boolean or date).
  std::string field;
  CompareOp op = CompareOp::Equal;
  plist::Value literal;
  // And, Or: two or more; Not: one.
  std::vector<PredicateNode> children;
};

struct ParsedPredicate {
  bool ok = false;
  std::unique_ptr<PredicateNode> root;  // nullptr with ok: the empty predicate, every event
  std::string error;                    // why not, when !ok
};

ParsedPredicate parsePredicate(std::string_view text);

// "YYYY-MM-DD[THH:MM[:SS]][Z|+HH:MM|-HH:MM]" (also with a space for the "T"); nullopt otherwise.
std::optional<plist::Date> parseDateLiteral(std::string_view text);

}  // namespace gw::events
