// SPDX-License-Identifier: Apache-2.0
//
// Joins of two packed tables on equal values of two columns.
//
// Values are joined before rows are (value_join.h). What a left row meets then depends on its code alone: codes without
// a match leave the scan by a `set` kernel, and the others lead to a list of right rows. A count by group doesn't come
// to rows at all: both sides are aggregated by the joined column first.
#include <algorithm>
#include <map>

#include "function_arguments.h"
#include "functions.h"
#include "value_join.h"

namespace packed {
namespace {

// ---- Pairs of rowids ----

// The selected rows of the right side, by value.
class BuildSide {
 public:
  BuildSide(Table& table, int column, const Conditions& conditions) {
    const std::shared_ptr<const Snapshot> snapshot = table.snapshot();
    CodedColumn codes(table.connection(), snapshot, column);
    Query query(table, conditions.list());
    std::vector<uint32_t> place_of_row;
    std::vector<int64_t> rowids;
    std::vector<uint32_t> rows(segment_rows), code_of(segment_rows);
    uint64_t bits[segment_words];
    for (size_t number = 0; number < snapshot->segments.size(); number++) {
      const Segment& segment = *snapshot->segments[number];
      const Selected selected(bits, query.scan(segment, bits), segment.nrows());
      if (selected.hits == 0) continue;
      const std::shared_ptr<Part> part = codes.part(number);
      codes.unpack(*part, selected, code_of.data());
      table.connection().rows_of(bits, segment.nrows(), rows.data());
      const uint32_t first_place = place_of(part->dictionary());
      for (uint32_t i = 0; i < selected.hits; i++) {
        if (values_[first_place + code_of[i]].type == Type::null) continue;
        place_of_row.push_back(first_place + code_of[i]);
        rowids.push_back(segment.rowid(rows[i]));
      }
    }
    wanted_.resize(values_.size());
    first_.resize(values_.size() + 1);
    for (const uint32_t place : place_of_row) {
      wanted_[place] = true;
      first_[place + 1]++;
    }
    for (size_t place = 0; place < values_.size(); place++) first_[place + 1] += first_[place];
    rowids_.resize(rowids.size());
    std::vector<size_t> next(first_.begin(), first_.end());
    for (size_t i = 0; i < rowids.size(); i++) rowids_[next[place_of_row[i]]++] = rowids[i];
  }

  const std::vector<Value>& values() const { return values_; }  // of all dictionaries, one behind the other
  const std::vector<bool>& wanted() const { return wanted_; }   // those that a row has
  // Rows of the value at a place.
  const int64_t* begin(uint32_t place) const { return rowids_.data() + first_[place]; }
  const int64_t* end(uint32_t place) const { return rowids_.data() + first_[place + 1]; }

 private:
  uint32_t place_of(const std::shared_ptr<const Dictionary>& dictionary) {
    const auto [found, is_new] = first_place_.try_emplace(dictionary, static_cast<uint32_t>(values_.size()));
    if (is_new) values_.insert(values_.end(), dictionary->values().begin(), dictionary->values().end());
    return found->second;
  }

  std::map<std::shared_ptr<const Dictionary>, uint32_t> first_place_;
  std::vector<Value> values_;
  std::vector<bool> wanted_;
  std::vector<size_t> first_;  // by place, in rowids_; one more at the end
  std::vector<int64_t> rowids_;
};

// What the codes of one left dictionary meet.
struct Matches {
  std::vector<size_t> first;  // by code, in rowids; one more at the end
  std::vector<int64_t> rowids;
  std::vector<uint64_t> set;  // the codes with a match, as the `set` kernels take them

  Matches(Connection& connection, const Dictionary& dictionary, const BuildSide& build)
      : first(dictionary.size() + 1), set(kdzk_host_set_words(&dictionary.kit())) {
    std::vector<std::pair<uint32_t, uint32_t>> pairs;  // code and place, a code with several places at most rarely
    join_values(connection, dictionary.values(), build.values(), build.wanted(),
                [&](uint32_t code, uint32_t place) { pairs.emplace_back(code, place); });
    std::sort(pairs.begin(), pairs.end());
    size_t pair = 0;
    for (uint32_t code = 0; code < dictionary.size(); code++) {
      for (; pair < pairs.size() && pairs[pair].first == code; pair++) {
        rowids.insert(rowids.end(), build.begin(pairs[pair].second), build.end(pairs[pair].second));
        set[code / 64] |= uint64_t{1} << (code % 64);
      }
      first[code + 1] = rowids.size();
    }
  }
};

class JoinAnswer : public Answer {
 public:
  JoinAnswer(Connection& connection, const Arguments& arguments)
      : left_(table_argument(connection, *arguments[0])),
        right_(table_argument(connection, *arguments[2])),
        left_conditions_(*left_, arguments[4]),
        right_conditions_(*right_, arguments[5]),
        snapshot_(left_->snapshot()),
        column_(column_argument(*left_, *arguments[1])),
        codes_(connection, snapshot_, column_),
        query_(*left_, left_conditions_.list()),
        build_(*right_, column_argument(*right_, *arguments[3]), right_conditions_),
        rows_(segment_rows),
        code_of_(segment_rows) {}

  bool next() override {
    if (match_ != matches_end_ && ++match_ != matches_end_) return true;
    while (true) {
      if (matches_ != nullptr) {
        while (++row_ < hits_) {
          const uint32_t code = code_of_[row_];
          match_ = matches_->rowids.data() + matches_->first[code];
          matches_end_ = matches_->rowids.data() + matches_->first[code + 1];
          if (match_ != matches_end_) return true;
        }
      }
      if (++segment_ >= snapshot_->segments.size()) return false;
      begin_segment();
    }
  }

  void write_column(sqlite3_context* out, int column) override {
    sqlite3_result_int64(out, column == 0 ? snapshot_->segments[segment_]->rowid(rows_[row_]) : *match_);
  }

 private:
  void begin_segment() {
    Connection& connection = left_->connection();
    const Segment& segment = *snapshot_->segments[segment_];
    row_ = static_cast<uint32_t>(-1);
    hits_ = query_.scan(segment, bits_);
    if (hits_ == 0) return;
    const std::shared_ptr<Part> part = codes_.part(segment_);
    auto& matches = matches_of_[part->dictionary()];
    if (matches == nullptr) matches = std::make_unique<Matches>(connection, *part->dictionary(), build_);
    matches_ = matches.get();
    keep_matching(connection, *part, Selected(bits_, hits_, segment.nrows()));
    if (hits_ == 0) return;
    codes_.unpack(*part, Selected(bits_, hits_, segment.nrows()), code_of_.data());
    connection.rows_of(bits_, segment.nrows(), rows_.data());
  }

  // Leaves those of bits_ and hits_ whose code has a match.
  void keep_matching(Connection& connection, Part& part, const Selected& selected) {
    kdzk_host_test test;
    kdzk_host_column_set_test(&part.record(), matches_->set.data(), &test);
    kdzk_exec exec = selected.exec(connection);
    if (test.kind == KDZK_HOST_TEST_ALL) return;
    std::optional<Timed> timed;
    if (test.kind != KDZK_HOST_TEST_NONE)
      timed.emplace(connection.statistics(), kdzk_name_of(&connection.library(), test.kernel), selected.nrows);
    uint64_t bits[segment_words];
    if (kdzk_host_test_run(&part.bound(), &test, nullptr, &exec, bits, &hits_) == KDZK_UNSUPPORTED)
      throw Error(SQLITE_ERROR, "the library has no kernel for sets of codes of this width");
    std::copy_n(bits, (selected.nrows + 63) / 64, bits_);
  }

  std::shared_ptr<Table> left_, right_;
  Conditions left_conditions_, right_conditions_;
  std::shared_ptr<const Snapshot> snapshot_;
  int column_;
  CodedColumn codes_;
  Query query_;
  BuildSide build_;
  std::map<std::shared_ptr<const Dictionary>, std::unique_ptr<Matches>> matches_of_;
  uint64_t bits_[segment_words];
  std::vector<uint32_t> rows_, code_of_;  // of the segment's rows with a match
  const Matches* matches_ = nullptr;      // of the segment
  size_t segment_ = static_cast<size_t>(-1);
  uint32_t hits_ = 0;
  uint32_t row_ = 0;
  const int64_t* match_ = nullptr;
  const int64_t* matches_end_ = nullptr;
};

// ---- Counts of pairs by group ----

struct IsBelow {
  bool operator()(const Value& a, const Value& b) const {
    if (a.type == Type::null || b.type == Type::null) return a.type == Type::null && b.type != Type::null;
    return compare(a, b) < 0;
  }
};

// A side's rows by their values in the joined column and, if it is that side's, in the group column.
struct CountedSide {
  Aggregation aggregation;
  std::vector<Value> values;

  CountedSide(Table& table, int column, const std::optional<int>& group_column, const Conditions& conditions)
      : aggregation(table, {}, group_column ? std::vector<int>{column, *group_column} : std::vector<int>{column},
                    conditions.list()) {
    for (size_t i = 0; i < aggregation.groups(); i++) values.push_back(aggregation.group_value(i, 0));
  }
};

class JoinCountAnswer : public Answer {
 public:
  JoinCountAnswer(Connection& connection, const Arguments& arguments)
      : left_table_(table_argument(connection, *arguments[0])),
        right_table_(table_argument(connection, *arguments[2])),
        left_conditions_(*left_table_, arguments[5]),
        right_conditions_(*right_table_, arguments[6]) {
    std::optional<int> left_group, right_group;
    if (arguments[4]) choose_side(*arguments[4], left_group, right_group);
    left_ = std::make_unique<CountedSide>(*left_table_, column_argument(*left_table_, *arguments[1]), left_group,
                                          left_conditions_);
    right_ = std::make_unique<CountedSide>(*right_table_, column_argument(*right_table_, *arguments[3]), right_group,
                                           right_conditions_);
    const std::vector<bool> wanted(right_->values.size(), true);
    join_values(connection, left_->values, right_->values, wanted, [&](uint32_t left, uint32_t right) {
      const Value group = left_group    ? left_->aggregation.group_value(left, 1)
                          : right_group ? right_->aggregation.group_value(right, 1)
                                        : Value();
      matches_[group] += left_->aggregation.rows(left) * right_->aggregation.rows(right);
    });
    if (!arguments[4] && matches_.empty()) matches_[Value()] = 0;
    row_ = matches_.begin();
  }

  bool next() override {
    if (!is_first_ && row_ != matches_.end()) ++row_;
    is_first_ = false;
    return row_ != matches_.end();
  }

  void write_column(sqlite3_context* out, int column) override {
    if (column == 0) return write_value(out, row_->first);
    sqlite3_result_int64(out, static_cast<int64_t>(row_->second));
  }

 private:
  // "left.state", "right.state", or "state" if only one of the tables has it.
  void choose_side(const std::string& name, std::optional<int>& left, std::optional<int>& right) const {
    if (name.starts_with("left.")) {
      left = column_argument(*left_table_, name.substr(5));
      return;
    }
    if (name.starts_with("right.")) {
      right = column_argument(*right_table_, name.substr(6));
      return;
    }
    if (left_table_->column_named(name) < 0) {
      right = column_argument(*right_table_, name);
    } else if (right_table_->column_named(name) < 0) {
      left = left_table_->column_named(name);
    } else {
      throw Error(SQLITE_ERROR, "both tables have a column '" + name + "': say left." + name + " or right." + name);
    }
  }

  std::shared_ptr<Table> left_table_, right_table_;
  Conditions left_conditions_, right_conditions_;
  std::unique_ptr<CountedSide> left_, right_;
  std::map<Value, uint64_t, IsBelow> matches_;  // by group
  std::map<Value, uint64_t, IsBelow>::const_iterator row_;
  bool is_first_ = true;
};

}  // namespace

std::unique_ptr<Answer> join_answer(Connection& connection, const Arguments& arguments) {
  return std::make_unique<JoinAnswer>(connection, arguments);
}

std::unique_ptr<Answer> join_count_answer(Connection& connection, const Arguments& arguments) {
  return std::make_unique<JoinCountAnswer>(connection, arguments);
}

}  // namespace packed
