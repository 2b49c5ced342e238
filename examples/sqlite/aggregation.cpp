// SPDX-License-Identifier: Apache-2.0
#include "aggregation.h"

#include <algorithm>
#include <bit>
#include <limits>
#include <map>

#include "group_numbers.h"

namespace packed {
namespace {

constexpr uint64_t most_groups_by_key = 1u << 20;  // arrays of so many counters stay in the last cache
constexpr uint32_t most_counted_codes = 1u << 18;  // of a column without groups
constexpr uint32_t key_batch = 2048;               // rows whose keys and codes stay in the first cache

constexpr uint32_t no_code = std::numeric_limits<uint32_t>::max();

using Dictionaries = std::vector<std::shared_ptr<const Dictionary>>;

// ---- Groups of rows, by their codes in some columns with one dictionary each ----

class GroupKeys {
 public:
  explicit GroupKeys(const Dictionaries& dictionaries) {
    for (const auto& dictionary : dictionaries) {
      sizes_.push_back(std::max(1u, dictionary->size()));
      if (chunks_.empty() || chunks_.back().keys * sizes_.back() > std::numeric_limits<uint32_t>::max())
        chunks_.push_back({sizes_.size() - 1, 0, 1, {}});
      chunks_.back().end = sizes_.size();
      chunks_.back().keys *= sizes_.back();
    }
    keys_are_groups_ = chunks_.empty() || (chunks_.size() == 1 && chunks_[0].keys <= most_groups_by_key);
  }

  // Writes the group of each selected row of a segment, in row order.
  void write(Connection& connection, const std::vector<std::shared_ptr<Part>>& parts, const Selected& selected,
             uint32_t* groups) {
    for (Chunk& chunk : chunks_) {
      const bool is_first = chunk.first == 0;
      keys_.resize(is_first ? 0 : selected.hits);
      uint32_t* const keys = is_first ? groups : keys_.data();
      compose(connection, parts, chunk, selected, keys);
      if (keys_are_groups_) return;
      for (uint32_t i = 0; i < selected.hits; i++)
        groups[i] = chunk.numbers.number_of(is_first ? keys[i] : uint64_t{groups[i]} << 32 | keys[i]);
    }
  }

  // All numbers that `write` may have given are below.
  size_t groups() const {
    if (chunks_.empty()) return 1;
    return keys_are_groups_ ? static_cast<size_t>(chunks_[0].keys) : chunks_.back().numbers.keys().size();
  }

  // The code that all rows of the group have in a column.
  uint32_t code(uint32_t group, size_t column) const {
    size_t chunk = chunks_.size() - 1;
    uint64_t key = group;
    if (!keys_are_groups_) {
      key = chunks_[chunk].numbers.keys()[group];
      for (; column < chunks_[chunk].first; chunk--) key = chunks_[chunk - 1].numbers.keys()[key >> 32];
      key &= std::numeric_limits<uint32_t>::max();
    }
    for (size_t i = chunks_[chunk].end - 1; i > column; i--) key /= sizes_[i];
    return static_cast<uint32_t>(key % sizes_[column]);
  }

 private:
  // Columns whose keys fit in 32 bits together.
  struct Chunk {
    size_t first, end;
    uint64_t keys;
    GroupNumbers numbers;  // of (group by the chunks before, key); unused if keys are groups
  };

  static void compose(Connection& connection, const std::vector<std::shared_ptr<Part>>& parts, const Chunk& chunk,
                      const Selected& selected, uint32_t* keys) {
    std::vector<kdzk_vec> inputs;
    for (size_t i = chunk.first; i < chunk.end; i++) inputs.push_back(parts[i]->bound().input);
    uint32_t scratch[key_batch];
    kdzk_vec temp{};
    temp.data = scratch;
    temp.nrows = key_batch;
    kdzk_vec result{};
    result.data = keys;
    result.nrows = selected.hits;
    kdzk_exec exec = selected.exec(connection);
    exec.flags |= KDZK_EX_GROUP_MUL;
    uint32_t key_count = 0;
    const Timed timed(connection.statistics(), "kdzk_groupkey_dydi", selected.hits);
    const uint64_t rc =
        connection.library().groupkey_dydi(&result, &key_count, inputs.data(), inputs.size(), &temp, &exec);
    // With rows behind the last selected one the output, which has just room for these, is called full.
    if ((rc != KDZK_DONE && rc != KDZK_OUTPUT_FULL) || result.hits != selected.hits)
      throw Error(SQLITE_ERROR, "the library can't compose group keys of these columns");
  }

  std::vector<uint32_t> sizes_;  // of the dictionaries
  std::vector<Chunk> chunks_;
  bool keys_are_groups_;
  std::vector<uint32_t> keys_;
};

}  // namespace

// ---- Segments with the same dictionaries ----

class Aggregation::Stretch {
 public:
  // Dictionaries of the group columns and, behind them, of the aggregated ones.
  Stretch(Connection& connection, Dictionaries dictionaries, size_t group_columns,
          const std::vector<Aggregate>& aggregates, const std::vector<int>& columns, uint64_t table_rows)
      : connection_(connection),
        dictionaries_(std::move(dictionaries)),
        group_columns_(group_columns),
        keys_({dictionaries_.begin(), dictionaries_.begin() + static_cast<std::ptrdiff_t>(group_columns)}),
        collected_(columns.size()) {
    for (size_t i = 0; i < columns.size(); i++) {
      bool sums = false;
      for (const Aggregate& aggregate : aggregates) {
        if (aggregate.kind == Sum::count_rows || aggregate.column != columns[i]) continue;
        sums |= aggregate.kind == Sum::sum || aggregate.kind == Sum::avg;
        collected_[i].has_range |= aggregate.kind == Sum::min || aggregate.kind == Sum::max;
      }
      prepare(collected_[i], *dictionaries_[group_columns + i], sums, table_rows);
    }
    make_room();
  }

  const Dictionaries& dictionaries() const { return dictionaries_; }

  // Parts of the columns in the order of the dictionaries.
  void add(const std::vector<std::shared_ptr<Part>>& parts, std::vector<CodedColumn>& columns,
           const Selected& selected) {
    if (group_columns_ == 0) {
      rows_[0] += selected.hits;
    } else {
      groups_.resize(selected.hits);
      keys_.write(connection_, parts, selected, groups_.data());
      make_room();
      for (const uint32_t group : groups_) rows_[group]++;
    }
    for (size_t i = 0; i < collected_.size(); i++) {
      codes_.resize(selected.hits);
      columns[group_columns_ + i].unpack(*parts[group_columns_ + i], selected, codes_.data());
      if (collected_[i].counts_codes) {
        for (const uint32_t code : codes_) collected_[i].code_counts[code]++;
      } else {
        if (group_columns_ == 0) groups_.assign(selected.hits, 0);
        add(collected_[i], *dictionaries_[group_columns_ + i]);
      }
    }
  }

  size_t groups() const { return rows_.size(); }
  uint64_t rows(uint32_t group) const { return rows_[group]; }
  const Value& group_value(uint32_t group, size_t column) const {
    return dictionaries_[column]->value(keys_.code(group, column));
  }

  Total total(uint32_t group, size_t column) const {
    const Collected& collected = collected_[column];
    const Dictionary& dictionary = *dictionaries_[group_columns_ + column];
    if (collected.counts_codes) return total_of_counts(collected, dictionary);
    Total total;
    total.present = dictionary.first_code() == 0 ? rows_[group] : collected.present[group];
    if (total.present == 0) return total;
    if (collected.has_range) {
      total.lowest = dictionary.value(collected.lowest[group] + dictionary.first_code());
      total.highest = dictionary.value(collected.highest[group]);
    }
    switch (collected.sums) {
      case Sums::none:
        break;
      case Sums::integers:
        total.whole = static_cast<int64_t>(collected.words[group]);
        break;
      case Sums::reals:
        total.real = std::bit_cast<double>(collected.words[group]);
        total.has_real = true;
        break;
      case Sums::any:
        total.whole = collected.sums_of_any[group].whole;
        total.real = collected.sums_of_any[group].real;
        total.has_real = collected.sums_of_any[group].has_real;
        break;
    }
    return total;
  }

 private:
  enum class Sums { none, integers, reals, any };  // any: both kinds, or so large integers that 64 bits may not do

  struct SumOfAny {
    __int128 whole = 0;
    double real = 0;
    bool has_real = false;
  };

  // What is collected of a column, by group.
  struct Collected {
    bool has_range = false;
    bool counts_codes = false;  // without groups: code_counts is all
    Sums sums = Sums::none;
    std::vector<uint64_t> value_of;  // of a code, as sum_sortable takes it
    std::vector<uint64_t> code_counts;
    std::vector<uint32_t> present, lowest, highest;  // rows that aren't NULL; codes, the lowest less first_code
    std::vector<uint64_t> words;                     // sums, as sum_sortable has them
    std::vector<SumOfAny> sums_of_any;
  };

  void prepare(Collected& collected, const Dictionary& dictionary, bool sums, uint64_t table_rows) const {
    if (sums) {
      bool has_reals = false, has_integers = false;
      uint64_t largest = 0;
      for (const Value& value : dictionary.values()) {
        if (value.type == Type::text || value.type == Type::blob)
          throw Error(SQLITE_ERROR, "sum and avg are for numbers, and this column has others");
        has_reals |= value.type == Type::real;
        if (value.type != Type::integer) continue;
        has_integers = true;
        const auto bits = static_cast<uint64_t>(value.integer);
        largest = std::max(largest, value.integer < 0 ? 0 - bits : bits);
      }
      const bool may_overflow = largest > static_cast<uint64_t>(INT64_MAX) / std::max<uint64_t>(1, table_rows);
      collected.sums = (has_reals && has_integers) || may_overflow ? Sums::any
                       : has_reals                                 ? Sums::reals
                                                                   : Sums::integers;
    }
    // Sums of reals depend on the order of additions.
    collected.counts_codes = group_columns_ == 0 && dictionary.size() <= most_counted_codes &&
                             (collected.sums == Sums::none || collected.sums == Sums::integers);
    if (collected.counts_codes) {
      collected.code_counts.resize(dictionary.size());
    } else if (collected.sums == Sums::integers || collected.sums == Sums::reals) {
      for (const Value& value : dictionary.values())  // 0 for NULL
        collected.value_of.push_back(value.type == Type::real
                                         ? std::bit_cast<uint64_t>(value.real)
                                         : __builtin_bswap64(static_cast<uint64_t>(value.integer)));
    }
  }

  void make_room() {
    const size_t groups = keys_.groups();
    if (rows_.size() >= groups) return;
    rows_.resize(groups);
    for (size_t i = 0; i < collected_.size(); i++) {
      Collected& collected = collected_[i];
      if (collected.counts_codes) continue;
      if (dictionaries_[group_columns_ + i]->first_code() != 0) collected.present.resize(groups);
      if (collected.sums == Sums::any) {
        collected.sums_of_any.resize(groups);
      } else if (collected.sums != Sums::none) {
        collected.words.resize(groups);
      }
      if (!collected.has_range) continue;
      collected.lowest.resize(groups, no_code);
      collected.highest.resize(groups);
    }
  }

  // Adds the rows with these groups_ and codes_.
  void add(Collected& collected, const Dictionary& dictionary) {
    const auto nrows = static_cast<uint32_t>(codes_.size());
    const uint32_t first_code = dictionary.first_code();
    if (first_code != 0) {
      for (uint32_t i = 0; i < nrows; i++) collected.present[groups_[i]] += codes_[i] != 0;
    }
    if (collected.has_range) {
      for (uint32_t i = 0; i < nrows; i++) {  // NULL, of which first_code is 1, becomes the highest number
        uint32_t& lowest = collected.lowest[groups_[i]];
        lowest = std::min(lowest, codes_[i] - first_code);
        uint32_t& highest = collected.highest[groups_[i]];
        highest = std::max(highest, codes_[i]);
      }
    }
    if (collected.sums == Sums::any) {
      for (uint32_t i = 0; i < nrows; i++) {
        const Value& value = dictionary.value(codes_[i]);
        SumOfAny& sum = collected.sums_of_any[groups_[i]];
        if (value.type == Type::integer) sum.whole += value.integer;
        if (value.type != Type::real) continue;
        sum.real += value.real;
        sum.has_real = true;
      }
    } else if (collected.sums != Sums::none) {
      values_.resize(nrows);
      for (uint32_t i = 0; i < nrows; i++) values_[i] = collected.value_of[codes_[i]];
      kdzk_enc_ctx encoding{};
      encoding.width = 64;
      encoding.float_kind = collected.sums == Sums::reals ? 2 : 8;
      encoding.flags = KDZK_SUM_ONLY;  // doubles are native
      kdzk_vec input{};
      input.data = values_.data();
      input.enc_ctx = &encoding;
      input.nrows = nrows;
      kdzk_vec groups{};
      groups.data = groups_.data();
      kdzk_vec sums{};
      sums.data = collected.words.data();
      const Timed timed(connection_.statistics(), "kdzk_sum_sortable", nrows);
      connection_.library().sum_sortable(&sums, &input, &groups, nullptr);
    }
  }

  static Total total_of_counts(const Collected& collected, const Dictionary& dictionary) {
    Total total;
    for (uint32_t code = dictionary.first_code(); code < dictionary.size(); code++) {
      const uint64_t count = collected.code_counts[code];
      if (count == 0) continue;
      if (total.present == 0) total.lowest = dictionary.value(code);
      total.highest = dictionary.value(code);
      total.present += count;
      if (collected.sums == Sums::integers)
        total.whole += static_cast<__int128>(count) * dictionary.value(code).integer;
    }
    return total;
  }

  Connection& connection_;
  Dictionaries dictionaries_;
  size_t group_columns_;
  GroupKeys keys_;
  std::vector<Collected> collected_;
  std::vector<uint32_t> rows_;    // by group
  std::vector<uint32_t> groups_;  // of the selected rows of a segment
  std::vector<uint32_t> codes_;
  std::vector<uint64_t> values_;
};

// ---- The whole ----

Aggregation::Aggregation(Table& table, std::vector<Aggregate> aggregates, const std::vector<int>& group_columns,
                         std::vector<Condition> conditions)
    : aggregates_(std::move(aggregates)), group_columns_(group_columns) {
  for (const Aggregate& aggregate : aggregates_) {
    if (aggregate.kind == Sum::count_rows) continue;
    if (std::find(columns_.begin(), columns_.end(), aggregate.column) == columns_.end())
      columns_.push_back(aggregate.column);
  }
  Connection& connection = table.connection();
  const std::shared_ptr<const Snapshot> snapshot = table.snapshot();
  if (snapshot->live > std::numeric_limits<uint32_t>::max())
    throw Error(SQLITE_ERROR, "groups are counted in 32 bits, and this table has more rows");
  std::vector<CodedColumn> columns;
  for (const int column : group_columns_) columns.emplace_back(connection, snapshot, column);
  for (const int column : columns_) columns.emplace_back(connection, snapshot, column);

  Query query(table, std::move(conditions));
  std::map<std::vector<const Dictionary*>, Stretch*> stretch_of;
  uint64_t bits[segment_words];
  std::vector<std::shared_ptr<Part>> parts(columns.size());
  std::vector<const Dictionary*> key(columns.size());
  for (size_t number = 0; number < snapshot->segments.size(); number++) {
    const Segment& segment = *snapshot->segments[number];
    const Selected selected(bits, query.scan(segment, bits), segment.nrows());
    if (selected.hits == 0) continue;
    for (size_t i = 0; i < columns.size(); i++) {
      parts[i] = columns[i].part(number);
      key[i] = parts[i]->dictionary().get();
    }
    Stretch*& stretch = stretch_of[key];
    if (stretch == nullptr) {
      Dictionaries dictionaries;
      for (const auto& part : parts) dictionaries.push_back(part->dictionary());
      stretches_.push_back(std::make_unique<Stretch>(connection, std::move(dictionaries), group_columns_.size(),
                                                     aggregates_, columns_, snapshot->live));
      stretch = stretches_.back().get();
    }
    stretch->add(parts, columns, selected);
  }
  for (const auto& stretch : stretches_) add(*stretch);
  bring_together();
}

Aggregation::~Aggregation() = default;

void Aggregation::add(const Stretch& stretch) {
  for (uint32_t group = 0; group < stretch.groups(); group++) {
    if (stretch.rows(group) == 0) continue;
    rows_.push_back(stretch.rows(group));
    for (size_t i = 0; i < group_columns_.size(); i++) values_.push_back(stretch.group_value(group, i));
    for (size_t i = 0; i < columns_.size(); i++) totals_.push_back(stretch.total(group, i));
  }
}

void Aggregation::bring_together() {
  const size_t width = group_columns_.size();
  if (width == 0 && rows_.empty()) {
    rows_.push_back(0);
    totals_.resize(columns_.size());
  }
  // Within a stretch two groups can be equal only if a mixed column has an integer and the same number as a real.
  bool may_have_equals = stretches_.size() > 1;
  for (const auto& stretch : stretches_) {
    for (size_t i = 0; i < width; i++) may_have_equals |= stretch->dictionaries()[i]->mixed();
  }
  if (!may_have_equals) return;

  const auto is_below = [](const Value& a, const Value& b) {
    if (a.type == Type::null || b.type == Type::null) return a.type == Type::null && b.type != Type::null;
    return compare(a, b) < 0;
  };
  const auto group_is_below = [&](size_t a, size_t b) {
    for (size_t i = 0; i < width; i++) {
      if (is_below(values_[a * width + i], values_[b * width + i])) return true;
      if (is_below(values_[b * width + i], values_[a * width + i])) return false;
    }
    return false;
  };
  std::vector<size_t> order(rows_.size());
  for (size_t i = 0; i < order.size(); i++) order[i] = i;
  std::stable_sort(order.begin(), order.end(), group_is_below);

  std::vector<uint64_t> rows;
  std::vector<Value> values;
  std::vector<Total> totals;
  for (size_t place = 0; place < order.size(); place++) {
    const size_t group = order[place];
    if (place == 0 || group_is_below(order[place - 1], group)) {
      rows.push_back(0);
      values.insert(values.end(), values_.begin() + static_cast<std::ptrdiff_t>(group * width),
                    values_.begin() + static_cast<std::ptrdiff_t>((group + 1) * width));
      totals.resize(totals.size() + columns_.size());
    }
    rows.back() += rows_[group];
    for (size_t i = 0; i < columns_.size(); i++) {
      const Total& part = totals_[group * columns_.size() + i];
      Total& total = totals[(rows.size() - 1) * columns_.size() + i];
      if (part.present == 0) continue;
      if (total.present == 0 || is_below(part.lowest, total.lowest)) total.lowest = part.lowest;
      if (total.present == 0 || is_below(total.highest, part.highest)) total.highest = part.highest;
      total.present += part.present;
      total.whole += part.whole;
      total.real += part.real;
      total.has_real |= part.has_real;
    }
  }
  rows_ = std::move(rows);
  values_ = std::move(values);
  totals_ = std::move(totals);
}

void Aggregation::write(sqlite3_context* out, size_t group, size_t number) const {
  const Aggregate& aggregate = aggregates_[number];
  if (aggregate.kind == Sum::count_rows) return sqlite3_result_int64(out, static_cast<int64_t>(rows_[group]));
  const auto column =
      static_cast<size_t>(std::find(columns_.begin(), columns_.end(), aggregate.column) - columns_.begin());
  const Total& total = totals_[group * columns_.size() + column];
  if (aggregate.kind == Sum::count) return sqlite3_result_int64(out, static_cast<int64_t>(total.present));
  if (total.present == 0) return sqlite3_result_null(out);
  if (aggregate.kind == Sum::min) return write_value(out, total.lowest);
  if (aggregate.kind == Sum::max) return write_value(out, total.highest);
  const double sum = total.real + static_cast<double>(total.whole);
  if (aggregate.kind == Sum::avg) return sqlite3_result_double(out, sum / static_cast<double>(total.present));
  if (total.has_real) return sqlite3_result_double(out, sum);
  if (total.whole < INT64_MIN || total.whole > INT64_MAX) throw Error(SQLITE_ERROR, "integer overflow");
  sqlite3_result_int64(out, static_cast<int64_t>(total.whole));
}

void write_value(sqlite3_context* out, const Value& value) {
  switch (value.type) {
    case Type::null:
      return sqlite3_result_null(out);
    case Type::integer:
      return sqlite3_result_int64(out, value.integer);
    case Type::real:
      return sqlite3_result_double(out, value.real);
    case Type::text:
      return sqlite3_result_text64(out, value.bytes.data(), value.bytes.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
    case Type::blob:
      return sqlite3_result_blob64(out, value.bytes.data(), value.bytes.size(), SQLITE_TRANSIENT);
  }
}

}  // namespace packed
