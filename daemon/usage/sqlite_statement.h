// One prepared SQLite statement, finalized on every path. A statement that failed to prepare
// tests false; sqlite3_step on it is never attempted by its users.
#pragma once

#include <sqlite3.h>

#include <string_view>

namespace gw::daemon {

class Statement {
 public:
  Statement(sqlite3* db, std::string_view sql) {
    sqlite3_prepare_v2(db, sql.data(), int(sql.size()), &s_, nullptr);
  }
  ~Statement() { sqlite3_finalize(s_); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;
  explicit operator bool() const { return s_ != nullptr; }
  sqlite3_stmt* get() const { return s_; }

 private:
  sqlite3_stmt* s_ = nullptr;
};

}  // namespace gw::daemon
