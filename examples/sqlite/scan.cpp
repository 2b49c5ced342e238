// SPDX-License-Identifier: Apache-2.0
#include "scan.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace packed {
namespace {

constexpr kdzk_host_range no_code{1, 0, KDZK_HOST_RANGE_INSIDE};
constexpr kdzk_host_range every_value{0, 0, KDZK_HOST_RANGE_NOT_NULL};

// A comparison without blobs, which the kit doesn't know: they are above everything that a column without them has.
struct Comparison {
  uint32_t operation;
  const Value *low, *high;
  bool none = false, every = false;

  explicit Comparison(const Condition& condition)
      : operation(condition.operation), low(&condition.low), high(&condition.high) {
    if (operation >= KDZK_HOST_OP_IS_NULL) return;
    const bool two = operation >= KDZK_OP_GT_LT;
    none = low->type == Type::null || (two && high->type == Type::null);
    if (none) return;
    if (low->type == Type::blob) {
      every = operation == KDZK_OP_NE || operation == KDZK_OP_LT || operation == KDZK_OP_LE;
      none = !every;
    } else if (two && high->type == Type::blob) {
      operation = operation == KDZK_OP_GT_LT || operation == KDZK_OP_GT_LE ? KDZK_OP_GT : KDZK_OP_GE;
    }
  }
};

// A comparison with the keys of a mixed column; `ne` only for a value that has one key.
kdzk_host_range mixed_range(const kdzk_host_dictionary& dictionary, const Condition& condition) {
  kdzk_host_range range = no_code;
  uint32_t operation = condition.operation;
  const bool two = operation >= KDZK_OP_GT_LT && operation < KDZK_HOST_OP_IS_NULL;
  if (operation < KDZK_HOST_OP_IS_NULL &&
      (condition.low.type == Type::null || (two && condition.high.type == Type::null)))
    return range;
  const Value& last = two ? condition.high : condition.low;
  const bool low_above =
      operation == KDZK_OP_GT || operation == KDZK_OP_LE || operation == KDZK_OP_GT_LT || operation == KDZK_OP_GT_LE;
  const bool high_below = operation == KDZK_OP_GT_LT || operation == KDZK_OP_GE_LT;
  const std::string low = low_above ? mixed_key_above(condition.low) : mixed_key_below(condition.low);
  const std::string high = high_below ? mixed_key_below(last) : mixed_key_above(last);
  if (operation == KDZK_OP_EQ || operation == KDZK_OP_NE) operation = KDZK_OP_GE_LE;
  const kdzk_host_value low_key = kit_value(Value::of(std::string_view(low)));
  const kdzk_host_value high_key = kit_value(Value::of(std::string_view(high)));
  kdzk_host_dictionary_range(&dictionary, operation, &low_key, &high_key, &range);
  return range;
}

kdzk_host_range range_of(const kdzk_host_dictionary* dictionary, const kdzk_host_column* column,
                         const Condition& condition) {
  const Comparison comparison(condition);
  if (comparison.none) return no_code;
  if (comparison.every) return every_value;
  const kdzk_host_value low = kit_value(*comparison.low), high = kit_value(*comparison.high);
  kdzk_host_range range;
  if (dictionary != nullptr) {
    kdzk_host_dictionary_range(dictionary, comparison.operation, &low, &high, &range);
  } else {
    kdzk_host_column_range(column, comparison.operation, &low, &high, &range);
  }
  return range;
}

double share_of(const kdzk_host_range& range, double values) {
  switch (range.kind) {
    case KDZK_HOST_RANGE_INSIDE:
      return range.first > range.last ? 0 : static_cast<double>(range.last - range.first + 1) / std::max(1.0, values);
    case KDZK_HOST_RANGE_NULLS:
      return 0.1;
    default:
      return 1;
  }
}

double guessed_share(const Condition& condition, double values) {
  if (condition.operation == KDZK_OP_EQ) return 1 / std::max(1.0, values);
  if (condition.operation == KDZK_OP_NE) return 1;
  return condition.operation >= KDZK_OP_GT_LT ? 0.25 : 0.5;
}

bool is_below(const Value& a, const Value& b) { return compare(a, b) < 0; }

// "kdzk_ge_le_dict_11bit_null" as "ge_le 11bit_null", "kdzk_eq_fixed_16bit" as "eq fixed 16bit".
std::string short_name(std::string_view name) {
  name.remove_prefix(std::min(name.size(), std::string_view("kdzk_").size()));
  for (const std::string_view form : {"_dict_", "_fixed_", "_dynp_"}) {
    const size_t at = name.find(form);
    if (at == std::string_view::npos) continue;
    std::string text(name.substr(0, at));
    text += ' ';
    if (form != "_dict_") text.append(form.substr(1, form.size() - 2)) += ' ';
    return text.append(name.substr(at + form.size()));
  }
  return std::string(name);
}

}  // namespace

Query::Query(Table& table, std::vector<Condition> conditions)
    : table_(table), conditions_(std::move(conditions)), terms_(conditions_.size()), scratch_(segment_words) {
  for (Condition& condition : conditions_) {
    if (condition.kind != Condition::Kind::in) continue;
    std::erase_if(condition.list, [](const Value& value) { return value.type == Type::null; });
    std::sort(condition.list.begin(), condition.list.end(), is_below);
  }
}

const Query::Terms& Query::terms_of(size_t index, const std::shared_ptr<const Dictionary>& dictionary) {
  std::unique_ptr<Terms>& kept = terms_[index][dictionary.get()];
  if (kept != nullptr) return *kept;
  auto terms = std::make_unique<Terms>();
  const Condition& condition = conditions_[index];
  const kdzk_host_dictionary& codes = dictionary->kit();
  const double values = dictionary->size() - dictionary->first_code();
  const auto start_set = [&] { terms->set.assign(std::max<uint64_t>(1, kdzk_host_set_words(&codes)), 0); };
  const auto add = [&](uint64_t code) { terms->set[code / 64] |= uint64_t{1} << code % 64; };
  if (condition.kind == Condition::Kind::compare) {
    terms->range = dictionary->mixed() ? mixed_range(codes, condition) : range_of(&codes, nullptr, condition);
    if (dictionary->mixed() && condition.operation == KDZK_OP_NE && condition.low.type != Type::null) {
      start_set();
      for (uint64_t code = dictionary->first_code(); code < dictionary->size(); code++) {
        if (code < terms->range.first || code > terms->range.last) add(code);
      }
    }
  } else if (condition.kind == Condition::Kind::match) {
    start_set();
    for (uint32_t code = dictionary->first_code(); code < dictionary->size(); code++) {
      if (condition.match(dictionary->value(code))) add(code);
    }
  } else {
    start_set();
    for (const Value& value : condition.list) {
      if (!dictionary->mixed()) {
        const kdzk_host_value kit = kit_value(value);
        if (value.type != Type::blob) kdzk_host_set_add(&codes, &kit, terms->set.data());
        continue;
      }
      // A number may be there as an integer and as a real.
      std::string key = mixed_key_below(value);
      if (value.is_number()) key += '\0';
      for (char type = 0; type <= (value.is_number() ? 1 : 0); type++) {
        if (value.is_number()) key.back() = type;
        const kdzk_host_value kit = kit_value(Value::of(std::string_view(key)));
        kdzk_host_set_add(&codes, &kit, terms->set.data());
      }
    }
  }
  terms->share = share_of(terms->range, values);
  if (!terms->set.empty()) {
    double count = 0;
    for (const uint64_t word : terms->set) count += std::popcount(word);
    terms->share = count / std::max(1.0, values);
  }
  held_.push_back(dictionary);
  kept = std::move(terms);
  return *kept;
}

// False: the condition holds for no row of the segment.
bool Query::add_step(const Condition& condition, size_t index, const Segment& segment) {
  const kdzk_host_column& record = segment.record(condition.column);
  const int64_t dictionary_id = segment.dictionary_id(condition.column);
  Step step;
  step.condition = &condition;
  // A plan doesn't ask a pattern of a million entries.
  const bool too_long = planning_ && condition.kind == Condition::Kind::match && dictionary_id > 0 &&
                        table_.dictionary(dictionary_id)->size() > segment_rows;
  if (!condition.known || too_long) {
    const std::shared_ptr<Part> part = segment.part(condition.column);
    const bool set = condition.kind != Condition::Kind::compare;
    step.by_row = set && !part->is_coded();
    step.test.kind = set ? KDZK_HOST_TEST_SET : KDZK_HOST_TEST_KERNEL;
    step.test.kernel = kdzk_id_of_kind(part->bound().enc_ctx.kind, set ? KDZK_OP_SET : condition.operation);
    if (!set && part->is_coded() && record.nulls > 0) step.test.kernel += kdzk_id_of(KDZK_ROW_VARIANT, 0);
    const double values = part->is_coded() ? part->dictionary()->size() : record.nrows;
    step.share = set ? std::min(1.0, 8 / std::max(1.0, values)) : guessed_share(condition, values);
    steps_.push_back(step);
    return true;
  }
  if (dictionary_id != 0) {
    const std::shared_ptr<const Dictionary> dictionary =
        dictionary_id > 0 ? table_.dictionary(dictionary_id) : segment.part(condition.column)->dictionary();
    const kdzk_host_dictionary& codes = dictionary->kit();
    // The column's own check comes when it is read. This is what the look into the dictionary asks for.
    if (record.width != codes.width || record.type != codes.type || record.first_code != codes.first_code ||
        (record.nulls < record.nrows && (record.smallest > record.largest || record.largest >= codes.size)))
      throw_malformed(table_.name() + ": a column doesn't fit its dictionary");
    const Terms& terms = terms_of(index, dictionary);
    step.share = terms.share;
    if (terms.set.empty()) {
      kdzk_host_column_test(&record, &terms.range, &step.test);
    } else {
      kdzk_host_column_set_test(&record, terms.set.data(), &step.test);
    }
  } else {
    if (record.value_bytes < 1 || record.value_bytes > 8 || record.shift > 56 || record.nulls > record.nrows)
      segment.part(condition.column);  // whose check says what is wrong
    if (condition.kind == Condition::Kind::compare) {
      const kdzk_host_range range = range_of(nullptr, &record, condition);
      kdzk_host_column_test(&record, &range, &step.test);
      const double values = static_cast<double>(record.largest) - static_cast<double>(record.smallest) + 1;
      kdzk_host_range inside = range;
      if (range.kind == KDZK_HOST_RANGE_INSIDE) {
        inside.first = std::max(range.first, record.smallest);
        inside.last = std::min(range.last, record.largest);
      }
      step.share = share_of(inside, values);
    } else {
      step.by_row = true;
      step.test.kind = KDZK_HOST_TEST_KERNEL;
      step.share = 0.5;
    }
  }
  if (step.test.kind == KDZK_HOST_TEST_NONE) return false;
  if (step.test.kind != KDZK_HOST_TEST_ALL) steps_.push_back(step);
  return true;
}

bool Query::prepare(const Segment& segment) {
  steps_.clear();
  for (size_t index = 0; index < conditions_.size(); index++) {
    if (!add_step(conditions_[index], index, segment)) return false;
  }
  std::stable_sort(steps_.begin(), steps_.end(),
                   [](const Step& a, const Step& b) { return a.by_row != b.by_row ? b.by_row : a.share < b.share; });
  return true;
}

uint32_t Query::run_by_row(const Step& step, Part& part, const uint64_t* rows_left, uint64_t* bits) {
  const uint32_t nrows = part.record().nrows;
  const Condition& condition = *step.condition;
  rows_.resize(segment_rows);
  const uint32_t count = table_.connection().rows_of(rows_left, nrows, rows_.data());
  std::vector<uint64_t> result((nrows + 63) / 64);
  uint32_t hits = 0;
  Value values[256];
  for (uint32_t first = 0; first < count; first += 256) {
    const uint32_t here = std::min(count - first, 256u);
    part.values(rows_.data() + first, here, values);
    for (uint32_t i = 0; i < here; i++) {
      if (values[i].type == Type::null) continue;
      const bool holds = condition.kind == Condition::Kind::match
                             ? condition.match(values[i])
                             : std::binary_search(condition.list.begin(), condition.list.end(), values[i], is_below);
      const uint32_t row = rows_[first + i];
      result[row / 64] |= uint64_t{holds} << row % 64;
      hits += holds;
    }
  }
  std::copy(result.begin(), result.end(), bits);
  return hits;
}

uint32_t Query::run(const Step& step, const Segment& segment, const uint64_t* filter, const uint64_t* selection,
                    uint32_t selected, uint64_t* bits) {
  Connection& connection = table_.connection();
  const uint32_t nrows = segment.nrows();
  const std::shared_ptr<Part> part = segment.part(step.condition->column);
  if (step.by_row) {
    std::vector<uint64_t> every;
    const uint64_t* rows_left = selection != nullptr ? selection : filter;
    if (rows_left == nullptr) {
      every.assign((nrows + 63) / 64, ~uint64_t{0});
      rows_left = every.data();
    }
    return run_by_row(step, *part, rows_left, bits);
  }
  kdzk_exec exec{};
  exec.env = &connection.env();
  exec.selection = selection;
  const bool selective = selection != nullptr && uint64_t{selected} * selective_from <= nrows;
  if (selective) exec.flags = KDZK_EX_SELECTIVE;
  const bool kernel = step.test.kind == KDZK_HOST_TEST_KERNEL || step.test.kind == KDZK_HOST_TEST_SET;
  const char* const name = kernel ? kdzk_name_of(&connection.library(), step.test.kernel) : "present rows";
  uint32_t hits = 0;
  const Timed timed(connection.statistics(), name, selective ? selected : nrows);
  if (kdzk_host_test_run(&part->bound(), &step.test, filter, &exec, bits, &hits) == KDZK_UNSUPPORTED)
    throw Error(SQLITE_INTERNAL, std::string("the library has no ") + name);
  return hits;
}

uint32_t Query::scan(const Segment& segment, uint64_t* bits) { return scan(segment, nullptr, 0, bits); }

uint32_t Query::scan(const Segment& segment, const uint64_t* selection, uint32_t selected, uint64_t* bits) {
  const uint32_t nrows = segment.nrows();
  const uint64_t words = (nrows + 63) / 64;
  if (segment.live() == 0 || (selection != nullptr && selected == 0) || !prepare(segment)) {
    segments_skipped++;
    return 0;
  }
  segments_scanned++;
  const kdzk_bv_services& bv = table_.connection().library().bv64;
  const uint64_t* filter = segment.filter();
  // Two bit vectors take turns, so that the last result is in `bits`.
  uint64_t *to = steps_.size() % 2 == 1 ? bits : scratch_.data(), *other = to == bits ? scratch_.data() : bits;
  uint32_t hits = selection == nullptr ? segment.live() : selected;
  if (selection != nullptr) {
    // `other` is what the first step reads, or the result if there is none.
    if (filter != nullptr) {
      bv.bv_and(other, &hits, selection, filter, nrows);
    } else {
      std::memcpy(other, selection, 8 * words);
    }
    selection = other;
    filter = nullptr;
  } else if (steps_.empty()) {
    if (filter != nullptr) {
      std::memcpy(bits, filter, 8 * words);
    } else {
      std::memset(bits, 0xff, 8 * words);
    }
    return hits;
  }
  for (const Step& step : steps_) {
    if (hits == 0) return 0;
    hits = run(step, segment, filter, selection, hits, to);
    filter = nullptr;
    selection = to;
    std::swap(to, other);
  }
  return hits;
}

std::string Query::plan(const Segment& segment) {
  std::string text;
  planned_share_ = 0.01;
  planning_ = true;
  const bool some = prepare(segment);
  planning_ = false;
  if (!some) return "no row of the first segment";
  double& share = planned_share_ = 1;
  for (const Step& step : steps_) {
    const int column = step.condition->column;
    if (!text.empty()) text += ", ";
    if (step.by_row) {
      text += "by row";
    } else if (step.test.kind == KDZK_HOST_TEST_PRESENT || step.test.kind == KDZK_HOST_TEST_ABSENT) {
      text += step.test.kind == KDZK_HOST_TEST_PRESENT ? "present" : "absent";
    } else {
      text += short_name(kdzk_name_of(&table_.connection().library(), step.test.kernel));
    }
    const uint32_t form = segment.record(column).form;
    if (form > KDZK_HOST_PLAIN_FORMS) text += " blocked";
    if (KDZK_HOST_PLAIN(form) == KDZK_HOST_RUNS) text += " runs";
    text += "(" + table_.columns()[static_cast<size_t>(column)].name + ")";
    if (share * selective_from <= 1) text += " selective";
    share *= step.share;
  }
  return text;
}

}  // namespace packed
