// SPDX-License-Identifier: Apache-2.0
//
// Table-valued functions for SQLite: virtual tables without a CREATE, whose hidden columns are the arguments. What is
// the same in all of them stands here; a function is a TableFunction and a class of Answer.
#ifndef KDZK_EXAMPLES_SQLITE_TABLE_FUNCTION_H
#define KDZK_EXAMPLES_SQLITE_TABLE_FUNCTION_H

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "storage.h"

namespace packed {

// The answer to one call, a row at a time. All functions may throw.
class Answer {
 public:
  virtual ~Answer() = default;
  virtual bool next() = 0;  // goes on to the next row, at first to the first one; false: there is none
  virtual void write_column(sqlite3_context* out, int column) = 0;  // of the current row
};

// The arguments of a call, texts; those that were left out, or are NULL, are empty.
using Arguments = std::vector<std::optional<std::string>>;

struct TableFunction {
  const char* name;
  const char* columns;    // "left_rowid INTEGER, right_rowid INTEGER"
  const char* arguments;  // "left_table, left_column": the hidden columns
  size_t required;        // how many of them a call must have; the others are empty then
  double rows;            // a guess, for the planner
  std::unique_ptr<Answer> (*open)(Connection& connection, const Arguments& arguments);
};

// Registers it; returns a result code of SQLite. The function must stay.
int register_table_function(sqlite3* db, const TableFunction& function, const std::shared_ptr<Connection>& connection);

}  // namespace packed

#endif
