// SPDX-License-Identifier: Apache-2.0
//
// What the columns of a packed table are stored as, and what that saves.
#include <algorithm>
#include <cmath>
#include <set>

#include "function_arguments.h"
#include "functions.h"

namespace packed {
namespace {

const char* name_of_form(uint32_t form) {
  switch (form) {
    case KDZK_HOST_PACKED:
      return "packed";
    case KDZK_HOST_RUNS:
      return "runs";
    case KDZK_HOST_FIXED:
      return "fixed";
    case KDZK_HOST_DYNP:
      return "dynp";
    case KDZK_HOST_BLOCKED(KDZK_HOST_PACKED):
      return "blocked packed";
    case KDZK_HOST_BLOCKED(KDZK_HOST_RUNS):
      return "blocked runs";
    case KDZK_HOST_BLOCKED(KDZK_HOST_FIXED):
      return "blocked fixed";
    default:
      return "blocked dynp";
  }
}

uint64_t bytes_of_integer(int64_t value) {
  if (value == 0 || value == 1) return 0;
  const uint64_t magnitude = static_cast<uint64_t>(value < 0 ? ~value : value);
  static constexpr std::pair<int, uint64_t> sizes[] = {{7, 1}, {15, 2}, {23, 3}, {31, 4}, {47, 6}};
  for (const auto& [bits, bytes] : sizes) {
    if (magnitude >> bits == 0) return bytes;
  }
  return 8;
}

// Bytes of the value in a row of an ordinary table: its part of the row's header, and what follows there.
uint64_t ordinary_bytes(const Value& value) {
  switch (value.type) {
    case Type::null:
      return 1;
    case Type::integer:
      return 1 + bytes_of_integer(value.integer);
    case Type::real:  // whole numbers are stored as integers
      if (std::abs(value.real) < 0x1p47 && value.real == std::trunc(value.real))
        return 1 + bytes_of_integer(static_cast<int64_t>(value.real));
      return 1 + 8;
    default:
      return (value.bytes.size() < 58 ? 1 : value.bytes.size() < 8186 ? 2 : 3) + value.bytes.size();
  }
}

class ColumnsAnswer : public Answer {
 public:
  ColumnsAnswer(Connection& connection, const Arguments& arguments)
      : table_(table_argument(connection, *arguments[0])), snapshot_(table_->snapshot()) {}

  bool next() override {
    if (++column_ >= static_cast<int>(table_->columns().size())) return false;
    collect();
    return true;
  }

  void write_column(sqlite3_context* out, int column) override {
    const auto write_integer = [out](uint64_t value) { sqlite3_result_int64(out, static_cast<int64_t>(value)); };
    const auto write_text = [out](const std::string& text) {
      sqlite3_result_text64(out, text.data(), text.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
    };
    switch (column) {
      case 0:
        return write_text(table_->columns()[static_cast<size_t>(column_)].name);
      case 1:
        return write_text(table_->columns()[static_cast<size_t>(column_)].type);
      case 2:
        return write_text(encoding_);
      case 3:
        return write_integer(bits_);
      case 4:
        return write_integer(distinct_);
      case 5:
        return write_integer(nulls_);
      case 6:
        return write_integer(dictionary_bytes_);
      case 7:
        return write_integer(bytes_);
      case 8:
        return write_integer(ordinary_bytes_);
      default:
        if (bytes_ != 0)
          sqlite3_result_double(
              out, std::round(100 * static_cast<double>(ordinary_bytes_) / static_cast<double>(bytes_)) / 100);
    }
  }

 private:
  void collect() {
    bits_ = nulls_ = dictionary_bytes_ = bytes_ = ordinary_bytes_ = 0;
    std::set<std::string> forms;
    std::set<int64_t> dictionaries;
    for (const auto& segment : snapshot_->segments) {
      const kdzk_host_column& record = segment->record(column_);
      forms.insert(name_of_form(record.form));
      bits_ = std::max<uint64_t>(bits_, record.width);
      bytes_ += record.size;
      nulls_ += record.nulls;
      if (segment->dictionary_id(column_) > 0) dictionaries.insert(segment->dictionary_id(column_));
    }
    for (const int64_t id : dictionaries) dictionary_bytes_ += table_->dictionary_bytes(id);
    bytes_ += dictionary_bytes_;
    encoding_.clear();
    for (const std::string& form : forms) encoding_ += (encoding_.empty() ? "" : ", ") + form;

    const Aggregation by_value(*table_, {}, {column_}, {});
    distinct_ = by_value.groups();
    for (size_t i = 0; i < by_value.groups(); i++) {
      const Value& value = by_value.group_value(i, 0);
      if (value.type == Type::null) distinct_--;
      ordinary_bytes_ += by_value.rows(i) * ordinary_bytes(value);
    }
  }

  std::shared_ptr<Table> table_;
  std::shared_ptr<const Snapshot> snapshot_;
  int column_ = -1;
  std::string encoding_;
  uint64_t bits_, distinct_, nulls_, dictionary_bytes_, bytes_, ordinary_bytes_;
};

}  // namespace

std::unique_ptr<Answer> columns_answer(Connection& connection, const Arguments& arguments) {
  return std::make_unique<ColumnsAnswer>(connection, arguments);
}

}  // namespace packed
