// SPDX-License-Identifier: Apache-2.0
//
// SQLite as an extension calls it, and its statements and errors as C++ has them.
#ifndef KDZK_EXAMPLES_SQLITE_SQLITE_API_H
#define KDZK_EXAMPLES_SQLITE_SQLITE_API_H

#include <sqlite3ext.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

SQLITE_EXTENSION_INIT3

namespace packed {

// What SQLite is told: a result code and a sentence. Thrown inside the extension, caught where SQLite calls it.
struct Error : std::runtime_error {
  Error(int code_of_sqlite, const std::string& sentence) : std::runtime_error(sentence), code(code_of_sqlite) {}
  int code;
};
[[noreturn]] void throw_malformed(const std::string& what);  // SQLITE_CORRUPT_VTAB, "malformed: ..."

// A prepared statement. Its texts and blobs hold until the next step or reset.
class Statement {
 public:
  Statement() = default;
  Statement(sqlite3* db, const std::string& sql);
  Statement(Statement&& other) noexcept;
  Statement& operator=(Statement&& other) noexcept;
  ~Statement();

  explicit operator bool() const { return statement_ != nullptr; }
  sqlite3_stmt* get() const { return statement_; }

  Statement& bind(int parameter, int64_t value);
  Statement& bind(int parameter, std::string_view text);
  Statement& bind_blob(int parameter, const void* bytes, uint64_t size);  // not copied
  bool step();                                                            // false: no further row
  void run();                                                             // to the end, then reset
  void reset();

  int64_t integer(int column) const { return sqlite3_column_int64(statement_, column); }
  std::string text(int column) const;
  std::string_view blob(int column) const;

 private:
  sqlite3* db_ = nullptr;
  sqlite3_stmt* statement_ = nullptr;
};

// A statement in use: it is reset when this goes out of scope, however that happens.
class Borrowed {
 public:
  explicit Borrowed(Statement& statement) : statement_(&statement) { statement.reset(); }
  Borrowed(Borrowed&& other) noexcept : statement_(other.statement_) { other.statement_ = nullptr; }
  Borrowed& operator=(Borrowed&&) = delete;
  ~Borrowed() {
    if (statement_ != nullptr) statement_->reset();
  }
  Statement* operator->() const { return statement_; }

 private:
  Statement* statement_;
};

std::string quoted(std::string_view name);  // as an identifier of SQL
void execute(sqlite3* db, const std::string& sql);

}  // namespace packed

#endif
