// SPDX-License-Identifier: Apache-2.0
//
// Rows on their way into a packed table. Values are numbered as they come, so that a row takes 4 bytes a column until
// all rows are there and their dictionary can be made; whatever is done to values is done once to each distinct one.
#ifndef KDZK_EXAMPLES_SQLITE_LOAD_H
#define KDZK_EXAMPLES_SQLITE_LOAD_H

#include "storage.h"

namespace packed {

// Gives equal values of equal type the same number, in the order in which they come. NULL is 0.
class Numbering {
 public:
  Numbering();
  uint32_t number(const Value& value);
  const std::vector<Value>& values() const { return values_; }  // by number; texts are the numbering's
  std::vector<Value>& values() { return values_; }
  std::deque<std::string>& texts() { return texts_; }

 private:
  struct Slot {
    uint32_t hash, number;  // number 0: free
  };
  void grow();
  std::string_view kept(std::string_view bytes);

  std::vector<Slot> slots_;
  std::vector<Value> values_;
  std::deque<std::string> texts_;
  std::vector<std::unique_ptr<char[]>> pages_;
  size_t page_left_ = 0;
  uint32_t last_ = 0;
};

class Rows {
 public:
  explicit Rows(size_t columns) : columns_(columns) {}
  void add(size_t column, const Value& value) {
    columns_[column].numbers.push_back(columns_[column].numbering.number(value));
  }
  size_t columns() const { return columns_.size(); }
  uint64_t count() const { return columns_[0].numbers.size(); }

  struct Column {
    Numbering numbering;
    std::vector<uint32_t> numbers;  // by row
  };
  Column& column(size_t column) { return columns_[column]; }

 private:
  std::vector<Column> columns_;
};

// A column of a segment as it is stored.
struct PackedColumn {
  kdzk_host_column record{};
  std::vector<uint64_t> bytes;  // record.size of them, and padding
};

// Makes segments of a column of rows. Applies the affinity of `info` to the values.
class Packer {
 public:
  // An earlier dictionary, which may be null, is used if it has all values.
  Packer(Rows::Column& column, const ColumnInfo& info, std::shared_ptr<const Dictionary> earlier);
  ~Packer();
  Packer(const Packer&) = delete;
  Packer& operator=(const Packer&) = delete;

  const std::shared_ptr<const Dictionary>& dictionary() const { return dictionary_; }  // null: values without one
  PackedColumn pack(uint64_t first_row, uint32_t nrows);

 private:
  void choose_type();
  bool is_covered(const Dictionary& earlier) const;
  void make_dictionary();
  bool is_better_without(const kdzk_host_dictionary& dictionary) const;
  kdzk_host_values kit_values(const std::vector<uint32_t>& numbers, uint64_t first, uint32_t count);

  Rows::Column& column_;
  const ColumnInfo& info_;
  std::shared_ptr<const Dictionary> dictionary_;
  kdzk_host_coder* coder_ = nullptr;
  uint32_t type_ = KDZK_HOST_INTEGER;
  bool mixed_ = false, nulls_ = false;
  std::vector<std::string> keys_;            // of a mixed column, by number
  std::vector<kdzk_host_text> typed_texts_;  // by number
  // One chunk's values, as the kit takes them.
  std::vector<int64_t> integers_;
  std::vector<double> reals_;
  std::vector<kdzk_host_text> texts_;
  std::vector<uint64_t> null_bits_;
};

// Reads rows, and what columns they have: of a CSV file with a header line, or of a SELECT.
Rows read_csv(const std::string& path, std::vector<ColumnInfo>& columns);
Rows read_select(sqlite3* db, const std::string& select, std::vector<ColumnInfo>& columns);
// "a INTEGER, b TEXT": columns without rows.
std::vector<ColumnInfo> columns_of(const std::string& declarations);

}  // namespace packed

#endif
