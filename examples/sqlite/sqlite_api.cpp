// SPDX-License-Identifier: Apache-2.0
#include "sqlite_api.h"

#include <utility>

namespace packed {
namespace {

[[noreturn]] void throw_error_of(sqlite3* db) { throw Error(sqlite3_extended_errcode(db), sqlite3_errmsg(db)); }

}  // namespace

void throw_malformed(const std::string& what) { throw Error(SQLITE_CORRUPT_VTAB, "malformed: " + what); }

Statement::Statement(sqlite3* db, const std::string& sql) : db_(db) {
  if (sqlite3_prepare_v3(db, sql.c_str(), -1, SQLITE_PREPARE_PERSISTENT, &statement_, nullptr) != SQLITE_OK)
    throw_error_of(db);
}

Statement::Statement(Statement&& other) noexcept
    : db_(other.db_), statement_(std::exchange(other.statement_, nullptr)) {}

Statement& Statement::operator=(Statement&& other) noexcept {
  std::swap(db_, other.db_);
  std::swap(statement_, other.statement_);
  return *this;
}

Statement::~Statement() { sqlite3_finalize(statement_); }

Statement& Statement::bind(int parameter, int64_t value) {
  sqlite3_bind_int64(statement_, parameter, value);
  return *this;
}

Statement& Statement::bind(int parameter, std::string_view text) {
  sqlite3_bind_text64(statement_, parameter, text.data(), text.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
  return *this;
}

Statement& Statement::bind_blob(int parameter, const void* bytes, uint64_t size) {
  sqlite3_bind_blob64(statement_, parameter, size == 0 ? "" : bytes, size, SQLITE_STATIC);
  return *this;
}

bool Statement::step() {
  const int code = sqlite3_step(statement_);
  if (code == SQLITE_ROW) return true;
  if (code == SQLITE_DONE) return false;
  const Error error(sqlite3_extended_errcode(db_), sqlite3_errmsg(db_));
  reset();
  throw error;
}

void Statement::run() {
  while (step()) {
  }
  reset();
}

void Statement::reset() { sqlite3_reset(statement_); }

std::string Statement::text(int column) const {
  const auto* const text = reinterpret_cast<const char*>(sqlite3_column_text(statement_, column));
  return text == nullptr ? std::string()
                         : std::string(text, static_cast<size_t>(sqlite3_column_bytes(statement_, column)));
}

std::string_view Statement::blob(int column) const {
  const auto* const bytes = static_cast<const char*>(sqlite3_column_blob(statement_, column));
  return bytes == nullptr ? std::string_view()
                          : std::string_view(bytes, static_cast<size_t>(sqlite3_column_bytes(statement_, column)));
}

std::string quoted(std::string_view name) {
  std::string result = "\"";
  for (const char c : name) {
    result += c;
    if (c == '"') result += c;
  }
  return result + '"';
}

void execute(sqlite3* db, const std::string& sql) { Statement(db, sql).run(); }

}  // namespace packed
