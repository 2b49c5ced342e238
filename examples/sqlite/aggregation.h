// SPDX-License-Identifier: Apache-2.0
//
// Counts, sums, smallest, largest and mean values by group over the rows of a packed table that satisfy conditions.
//
// All is done on codes. Each selected row gets a group: the key that kdzk_groupkey_dydi composes of its codes in the
// group columns. As long as the key space is small, keys are the groups, and counting is one increment a row; else keys
// are numbered as they appear. Of a column that is aggregated the codes are unpacked beside the groups: sums go through
// a table with the value of each code (sum_sortable adds them up by group, in row order, as SQLite does), smallest and
// largest values are smallest and largest codes. Without groups a column's codes are counted, and all else follows from
// the counts.
//
// Codes mean something only together with their dictionary. Segments that have the same dictionaries in all columns in
// question, such as those that were loaded together, make a stretch (Stretch in the source); the groups of several
// stretches are brought together by their values at the end.
#ifndef KDZK_EXAMPLES_SQLITE_AGGREGATION_H
#define KDZK_EXAMPLES_SQLITE_AGGREGATION_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "coded_column.h"
#include "scan.h"

namespace packed {

enum class Sum { count_rows, count, sum, min, max, avg };

struct Aggregate {
  Sum kind;
  int column;  // not of count_rows
};

// What is known of the rows of a group in a column.
struct Total {
  uint64_t present = 0;  // rows that aren't NULL
  __int128 whole = 0;    // sum of the integers
  double real = 0;       // sum of the reals
  bool has_real = false;
  Value lowest, highest;
};

class Aggregation {
 public:
  // Runs it.
  Aggregation(Table& table, std::vector<Aggregate> aggregates, const std::vector<int>& group_columns,
              std::vector<Condition> conditions);
  ~Aggregation();

  // Groups that have rows, sorted by their values if the table was loaded at once; one without group columns.
  size_t groups() const { return rows_.size(); }
  uint64_t rows(size_t group) const { return rows_[group]; }
  const Value& group_value(size_t group, size_t column) const {
    return values_[group * group_columns_.size() + column];
  }
  void write(sqlite3_context* out, size_t group, size_t aggregate) const;

 private:
  class Stretch;
  void add(const Stretch& stretch);
  void bring_together();

  std::vector<Aggregate> aggregates_;
  std::vector<int> group_columns_;
  std::vector<int> columns_;  // that are aggregated
  std::vector<std::unique_ptr<Stretch>> stretches_;
  std::vector<uint64_t> rows_;  // by group
  std::vector<Value> values_;   // by group and column
  std::vector<Total> totals_;   // by group and columns_
};

void write_value(sqlite3_context* out, const Value& value);

}  // namespace packed

#endif
