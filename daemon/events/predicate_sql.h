// A parsed predicate as an SQL condition over the events table (alias "e") and its typed fields
// (table event_fields), with every literal a bound parameter: no value from a request is ever
// pasted into the statement's text. Field names come from the fixed list of known fields and
// operators from a fixed table, so the text is made only of this file's own fragments.
#pragma once

#include <gatewise/plist.h>
#include <sqlite3.h>

#include <string>
#include <vector>

#include "events/predicate.h"

namespace gw::daemon {

struct SqlCondition {
  std::string text;                  // with one "?" per parameter, in order
  std::vector<plist::Value> params;  // strings, integers, reals, booleans (as 0/1), dates
};

SqlCondition compilePredicate(const events::PredicateNode& node);

// Binds value at index (1-based): dates as seconds since 1970, booleans as 0/1. SQLite's status.
int bindValue(sqlite3_stmt* statement, int index, const plist::Value& value);

}  // namespace gw::daemon
