// SPDX-License-Identifier: Apache-2.0
//
// The columns of a CSV file, all with the same number of rows.
#ifndef KDZK_EXAMPLES_ASK_TABLE_H
#define KDZK_EXAMPLES_ASK_TABLE_H

#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "column.h"
#include "progress.h"

namespace ask {

struct Table {
  std::string file;
  std::deque<Column> columns;  // at least one; a Column stays where it was made

  size_t rows() const { return columns.front().rows(); }
  const Column* find(std::string_view name) const;         // null if there is none
  std::vector<std::string_view> fields(size_t row) const;  // as they were written
};

Table load_table(const std::string& path, Progress::When progress);  // throws as read_csv does

}  // namespace ask

#endif
