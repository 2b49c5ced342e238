// SPDX-License-Identifier: Apache-2.0
#include "table.h"

#include <algorithm>

#include "csv_file.h"

namespace ask {
namespace {

class Loader : public RowSink {
 public:
  explicit Loader(Table& table) : table_(table) {}
  void name_columns(const std::vector<std::string>& names) override {
    for (const std::string& name : names) table_.columns.emplace_back(name);
  }
  void add_field(size_t column, std::string_view text) override { table_.columns[column].add(text); }

 private:
  Table& table_;
};

}  // namespace

const Column* Table::find(std::string_view name) const {
  const auto column = std::find_if(columns.begin(), columns.end(), [&](const Column& c) { return c.name() == name; });
  return column == columns.end() ? nullptr : &*column;
}

std::vector<std::string_view> Table::fields(size_t row) const {
  std::vector<std::string_view> texts;
  for (const Column& column : columns) texts.push_back(column.text_of_entry(column.entry_of_row(row)));
  return texts;
}

Table load_table(const std::string& path, Progress::When when) {
  Table table;
  table.file = display_name(path);
  Loader loader(table);
  Progress progress(table.file, when);
  read_csv(path, loader, progress);
  for (Column& column : table.columns) column.finish();
  return table;
}

}  // namespace ask
