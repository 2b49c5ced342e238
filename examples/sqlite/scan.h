// SPDX-License-Identifier: Apache-2.0
//
// Conditions on packed columns, as kernel calls.
//
// A condition is brought to a column's terms once for each dictionary: a comparison becomes a range of codes, a list or
// a pattern a set of codes. Conditions of one segment run one behind the other, the most selective first; as soon as
// few rows are left, the next ones look at these alone. Segments that a condition passes by are known from the smallest
// and largest code without reading them.
#ifndef KDZK_EXAMPLES_SQLITE_SCAN_H
#define KDZK_EXAMPLES_SQLITE_SCAN_H

#include <functional>
#include <unordered_map>

#include "storage.h"

namespace packed {

// Conditions hold for no NULL but IS NULL. Constants keep their texts in what made the condition.
struct Condition {
  enum class Kind {
    compare,  // `operation` with `low`, or `low` and `high`: KDZK_OP_EQ to KDZK_OP_GE_LE, KDZK_HOST_OP_IS_NULL, ...
    in,       // a value of `list`
    match     // what `match` says, asked once for each entry of a dictionary
  };
  int column = 0;
  Kind kind = Kind::compare;
  uint32_t operation = KDZK_OP_EQ;
  Value low, high;
  std::vector<Value> list;
  std::function<bool(const Value&)> match;
  bool known = true;  // false, for plan() only: the constants aren't known yet
};

class Query {
 public:
  Query(Table& table, std::vector<Condition> conditions);
  Query(const Query&) = delete;
  Query& operator=(const Query&) = delete;

  // Writes the rows of the segment that satisfy all conditions and aren't deleted, (nrows + 63) / 64 words, and returns
  // how many. Without a row the words need not be written.
  uint32_t scan(const Segment& segment, uint64_t* bits);

  // The same in addition to a selection of rows, which may be null.
  uint32_t scan(const Segment& segment, const uint64_t* selection, uint32_t selected, uint64_t* bits);

  bool has_no_conditions() const { return conditions_.empty(); }

  // The kernels for a segment, in their order: "ge_le 11bit(delay), set 8bit(origin) selective".
  std::string plan(const Segment& segment);
  double planned_share() const { return planned_share_; }  // of the rows, roughly, after plan()

  uint64_t segments_scanned = 0, segments_skipped = 0;

 private:
  // What a condition is in the terms of a dictionary: a range of codes, or a set.
  struct Terms {
    kdzk_host_range range{};
    std::vector<uint64_t> set;  // empty: a range
    double share = 0;           // of the dictionary's values
  };
  // What it is on a segment.
  struct Step {
    const Condition* condition = nullptr;
    kdzk_host_test test{};
    bool by_row = false;  // for columns without a dictionary: values are looked at one by one
    double share = 0;
  };
  const Terms& terms_of(size_t condition, const std::shared_ptr<const Dictionary>& dictionary);
  bool prepare(const Segment& segment);  // fills steps_, in order; false: no row qualifies
  bool add_step(const Condition& condition, size_t index, const Segment& segment);
  uint32_t run(const Step& step, const Segment& segment, const uint64_t* filter, const uint64_t* selection,
               uint32_t selected, uint64_t* bits);
  uint32_t run_by_row(const Step& step, Part& part, const uint64_t* rows_left, uint64_t* bits);

  Table& table_;
  std::vector<Condition> conditions_;
  std::vector<std::unordered_map<const Dictionary*, std::unique_ptr<Terms>>> terms_;
  std::vector<std::shared_ptr<const Dictionary>> held_;  // so that their addresses aren't used again
  std::vector<Step> steps_;
  std::vector<uint64_t> scratch_;
  bool planning_ = false;
  double planned_share_ = 1;
  std::vector<uint32_t> rows_;
};

// With one row left in so many, or fewer, the selective path is taken.
constexpr uint32_t selective_from = 64;

}  // namespace packed

#endif
