// SPDX-License-Identifier: Apache-2.0
// The host kit's columns: values to each form and back, comparisons through the library's kernels, and the checks. What
// is right is told by a plain column, a value or nothing per row, and by compare(), which knows no keys and no codes.

#include <gtest/gtest.h>
#include <kdzk/host/comparison.h>
#include <kdzk/host/memory.h>
#include <kdzk/host/packed_codes.h>
#include <kdzk/host/prefix_records.h>
#include <kdzk/host/run_length.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <optional>
#include <variant>

#include "host/bytes.h"
#include "tests/support/host.h"

namespace kdzk_test {
namespace {

using Bytes = std::vector<uint8_t>;
using Value = std::variant<int64_t, double, std::string>;
using Cell = std::optional<Value>;
using Plain = std::vector<Cell>;

constexpr uint32_t operations[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, KDZK_HOST_OP_IS_NULL, KDZK_HOST_OP_IS_NOT_NULL};

// Below 0, 0 or above: numbers by value, which the 64 bits of a long double hold, and below every text.
int compare(const Value& a, const Value& b) {
  const auto* const text_a = std::get_if<std::string>(&a);
  const auto* const text_b = std::get_if<std::string>(&b);
  if (text_a != nullptr && text_b != nullptr) return text_a->compare(*text_b);
  if (text_a != nullptr || text_b != nullptr) return text_a != nullptr ? 1 : -1;
  const auto number = [](const Value& v) -> long double {
    return v.index() == 0 ? static_cast<long double>(std::get<0>(v)) : std::get<1>(v);
  };
  return number(a) < number(b) ? -1 : number(a) > number(b);
}

bool is_nan(const Cell& cell) { return cell && cell->index() == 1 && std::isnan(std::get<1>(*cell)); }

bool satisfies(const Cell& row, uint32_t operation, const Cell& low, const Cell& high) {
  if (operation == KDZK_HOST_OP_IS_NULL) return !row;
  if (operation == KDZK_HOST_OP_IS_NOT_NULL) return row.has_value();
  const bool two = operation >= KDZK_OP_GT_LT;
  if (!row || !low || is_nan(low) || (two && (!high || is_nan(high)))) return false;
  const int a = compare(*row, *low), b = two ? compare(*row, *high) : 0;
  const bool holds[] = {a == 0,          a<0, a> 0,       a <= 0, a >= 0, a != 0, a > 0 && b<0, a> 0 && b <= 0,
                        a >= 0 && b < 0, a >= 0 && b <= 0};
  return holds[operation];
}

kdzk_host_value host_value(const Cell& value) {
  kdzk_host_value v{};
  if (!value) return v;
  v.type = KDZK_HOST_INTEGER + static_cast<uint32_t>(value->index());
  if (v.type == KDZK_HOST_INTEGER) v.integer = std::get<0>(*value);
  if (v.type == KDZK_HOST_DOUBLE) v.number = std::get<1>(*value);
  if (v.type == KDZK_HOST_TEXT) v.text = {std::get<2>(*value).data(), std::get<2>(*value).size()};
  return v;
}

Cell plain_value(const kdzk_host_value& v) {
  if (v.type == KDZK_HOST_INTEGER) return v.integer;
  if (v.type == KDZK_HOST_DOUBLE) return v.number;
  if (v.type == KDZK_HOST_TEXT) return std::string(static_cast<const char*>(v.text.bytes), v.text.size);
  return std::nullopt;
}

// The rows first to last - 1 of a plain column as a host would hand them over.
struct Batch {
  std::vector<int64_t> integers;
  std::vector<double> numbers;
  std::vector<kdzk_host_text> texts;
  std::vector<uint64_t> nulls;
  kdzk_host_values values{};

  Batch(const Plain& plain, uint32_t type, size_t first, size_t last) : nulls((last - first + 63) / 64) {
    for (size_t row = first; row < last; row++) {
      const kdzk_host_value v = host_value(plain[row]);
      const bool null = v.type == KDZK_HOST_NULL;
      const bool nan = null && type == KDZK_HOST_DOUBLE && row % 2 == 0;  // and no bit says that it is NULL
      if (null && !nan) nulls[(row - first) / 64] |= uint64_t{1} << (row - first) % 64;
      if (type == KDZK_HOST_INTEGER) integers.push_back(null ? 4711 : v.integer);
      if (type == KDZK_HOST_DOUBLE) numbers.push_back(nan ? NAN : null ? 4711 : v.number);
      if (type == KDZK_HOST_TEXT) texts.push_back(null ? kdzk_host_text{&first, 9} : v.text);
    }
    const void* const arrays[] = {integers.data(), numbers.data(), texts.data()};
    values = {type, static_cast<uint32_t>(last - first), arrays[type - 1], nulls.data()};
  }
};

// Random values of a type, of one of several kinds of spread.
Value random_value(uint32_t type, uint32_t kind, Random& random) {
  static constexpr int64_t lowest = std::numeric_limits<int64_t>::min(), highest = std::numeric_limits<int64_t>::max();
  const auto small = static_cast<int64_t>(random.below(kind == 0 ? 3 : kind == 1 ? 100 : 5000)) - 2;
  if (type == KDZK_HOST_INTEGER) {
    if (kind < 2) return small;
    if (kind == 2) return small * 256 + 1'000'000'000'000;
    const int64_t extremes[] = {
        lowest, lowest + 1, -1, 0, highest - 1, highest, int64_t{1} << 53, (int64_t{1} << 53) + 1};
    return random.below(2) == 0 ? extremes[random.below(8)] : static_cast<int64_t>(random.bits());
  }
  if (type == KDZK_HOST_DOUBLE) {
    if (kind < 2) return static_cast<double>(small);
    if (kind == 2) return static_cast<double>(small) / 64;
    const double extremes[] = {-INFINITY, INFINITY, -0.0,   0.0,    0x1p63,
                               -0x1p63,   0x1p53,   5e-324, -1e308, 0x1p62 + 0x1p10};
    return random.below(2) == 0 ? extremes[random.below(10)]
                                : std::ldexp(static_cast<double>(small), static_cast<int>(random.below(200)));
  }
  if (kind == 0) return std::string(1, static_cast<char>('a' + small + 2));
  if (kind == 1) return "k" + std::to_string(small);
  std::string text;
  for (uint64_t left = random.below(kind == 2 ? 7 : 20); left > 0; left--)
    text += static_cast<char>(random.below(4) * 85);
  if (kind == 2) text += 'z';
  return text;
}

struct Case {
  uint32_t type, kind, null_percent, nrows;
  bool runs;
  std::string name() const {
    static const std::string types[] = {"integers", "doubles", "texts"};
    return types[type - 1] + std::to_string(kind) + "_" + std::to_string(null_percent) + "_percent_null_" +
           std::to_string(nrows) + "_rows" + (runs ? "_runs" : "");
  }
};

struct ColumnCase {
  Case c;
  Random random;
  Plain plain;
  std::shared_ptr<kdzk_host_coder> coder;
  kdzk_host_dictionary dictionary{};

  explicit ColumnCase(const Case& of)
      : c(of),
        random("host_kit" + std::to_string(of.type) + std::to_string(of.kind) + std::to_string(of.nrows)),
        plain(of.nrows),
        coder(kdzk_host_coder_new(of.type), kdzk_host_coder_free) {
    for (size_t row = 0; row < plain.size(); row++) {
      const bool repeat = c.runs && row > 0 && random.below(40) > 0;
      if (repeat) plain[row] = plain[row - 1];
      if (!repeat && random.below(100) >= c.null_percent) plain[row] = random_value(c.type, c.kind, random);
    }
    for (const auto& [first, last] : {std::pair{size_t{0}, plain.size() / 3}, {plain.size() / 3, plain.size()}}) {
      const Batch batch(plain, c.type, first, last);
      EXPECT_EQ(kdzk_host_coder_add(coder.get(), &batch.values), KDZK_HOST_DONE);
    }
    EXPECT_EQ(kdzk_host_coder_finish(coder.get(), KDZK_HOST_NULL_IF_SEEN), KDZK_HOST_DONE);
    dictionary = *kdzk_host_coder_dictionary(coder.get());
  }

  // Whether values themselves can be stored in up to 8 bytes.
  bool has_keys() const {
    for (const auto& row : plain) {
      const auto* const text = row ? std::get_if<std::string>(&*row) : nullptr;
      if (text != nullptr && (text->size() > 8 || (!text->empty() && text->back() == 0))) return false;
    }
    return true;
  }

  // A value of the column, one beside it, one of another type, or nothing.
  Cell constant() {
    const uint64_t way = random.below(20);
    if (way == 0) return std::nullopt;
    if (way == 1) return Value(static_cast<double>(NAN));
    if (way < 5)
      return random_value(1 + static_cast<uint32_t>(random.below(3)), static_cast<uint32_t>(random.below(4)), random);
    Cell value;
    if (!plain.empty()) value = plain[random.below(plain.size())];
    if (!value || way < 10) value = random_value(c.type, c.kind, random);
    if (way < 15) return value;
    if (auto* integer = std::get_if<int64_t>(&*value)) {
      if (way < 17) return static_cast<double>(*integer) + (way == 15 ? 0.5 : 0);
      return static_cast<int64_t>(static_cast<uint64_t>(*integer) + 1);
    }
    if (auto* number = std::get_if<double>(&*value)) {
      if (way < 17 && std::abs(*number) < 0x1p62) return static_cast<int64_t>(*number) + (way == 15);
      return std::nextafter(*number, way < 19 ? INFINITY : -INFINITY);
    }
    return std::get<2>(*value) + std::string(way == 15 ? 1 : 0, '\0') + (way > 17 ? "x" : "");
  }
};

// A column in memory that ends against a page that faults, as far as its beginning at a multiple of 8 allows; and
// bound, with its dictionary if it is coded.
struct Built {
  kdzk_host_column column{};
  std::unique_ptr<GuardedBuffer> bytes;
  const kdzk_host_dictionary* dictionary = nullptr;
  std::vector<uint64_t> run_bits;
  kdzk_host_bound bound;

  void place(const Bytes& from) {
    bytes = std::make_unique<GuardedBuffer>(from, KDZK_PADDING + (8 - from.size() % 8) % 8);
  }
  void bind() {
    run_bits.resize((column.elements + 63) / 64);
    kdzk_host_column_bind(&library(), &column, bytes->data(), dictionary, run_bits.data(), &bound);
  }
  uint32_t check(uint32_t nrows, kdzk_host_report* report, const kdzk_specialized_ctx* checker = &library()) const {
    return kdzk_host_column_check(checker, &column, nrows, bytes->data(), bytes->size(), dictionary, report);
  }
  kdzk_host_test test_of(uint32_t operation, const Cell& low, const Cell& high) const {
    const kdzk_host_value low_value = host_value(low), high_value = host_value(high);
    kdzk_host_range range;
    kdzk_host_test test;
    if (dictionary != nullptr) kdzk_host_dictionary_range(dictionary, operation, &low_value, &high_value, &range);
    if (dictionary == nullptr) kdzk_host_column_range(&column, operation, &low_value, &high_value, &range);
    kdzk_host_column_test(&column, &range, &test);
    return test;
  }
  Plain values() const {
    const size_t n = column.nrows;
    std::vector<uint64_t> nulls((n + 63) / 64, ~uint64_t{0}), room(n), values(2 * n);
    EXPECT_EQ(kdzk_host_column_values(&library(), &column, bytes->data(), dictionary, values.data(), nulls.data(),
                                      room.data()),
              KDZK_HOST_DONE);
    Plain plain(n);
    for (size_t row = 0; row < n; row++) {
      if ((nulls[row / 64] >> row % 64 & 1) != 0) continue;
      kdzk_host_value v{.type = column.type};
      if (v.type == KDZK_HOST_TEXT) v.text = reinterpret_cast<kdzk_host_text*>(values.data())[row];
      if (v.type != KDZK_HOST_TEXT) std::memcpy(&v.integer, &values[row], 8);
      plain[row] = plain_value(v);
    }
    return plain;
  }
};

uint32_t build(ColumnCase& c, uint32_t forms, Built& built, uint64_t dictionary_bytes = 0) {
  const Batch batch(c.plain, c.c.type, 0, c.plain.size());
  GuardedBuffer room(kdzk_host_column_bound(c.c.nrows) / 8 * 8 + 8);
  const uint32_t status = kdzk_host_column_build(&batch.values, c.coder.get(), forms, dictionary_bytes, room.data(),
                                                 room.size(), &built.column);
  if (status == KDZK_HOST_DONE) built.place(Bytes(room.data(), room.data() + built.column.size));
  built.dictionary = (forms & KDZK_HOST_CODED_FORMS) != 0 ? &c.dictionary : nullptr;
  return status;
}

// Each value that the dictionary has a code for has that one.
void expect_codes_of_values(const kdzk_host_dictionary& dictionary, uint32_t first, uint32_t step) {
  for (uint32_t code = first; code < dictionary.size; code += step) {
    kdzk_host_value value{};
    uint32_t same = 4711;
    kdzk_host_dictionary_value(&dictionary, code, &value);
    ASSERT_EQ(kdzk_host_dictionary_code(&dictionary, &value, &same), 1u);
    ASSERT_EQ(same, code);
  }
}

// Memory for blocked columns' copies.
struct Env {
  kdzk_host_memory memory;
  kdzk_exec exec{.env = &memory.env};
  Env() { kdzk_host_memory_guarded(&memory, &library()); }
  ~Env() {
    kdzk_host_memory_reset(&memory);
    EXPECT_EQ(kdzk_host_memory_close(&memory), 0u);
  }
};

class HostColumns : public testing::TestWithParam<Case> {};

std::vector<uint32_t> forms() {
  std::vector<uint32_t> all = {KDZK_HOST_PACKED, KDZK_HOST_RUNS, KDZK_HOST_FIXED, KDZK_HOST_DYNP};
  for (int i = 0; i < 4; i++) all.push_back(KDZK_HOST_BLOCKED(all[i]));
  return all;
}

// Compares the kernel's bits with the rows for which `holds` is true, under a filter and a selection.
void expect_rows(ColumnCase& c, kdzk_host_bound& bound, const kdzk_host_test& test, const std::vector<bool>& holds) {
  Random& random = c.random;
  const size_t n = c.plain.size();
  const std::vector<bool> filter = random.rows(n, 70), selection = random.rows(n, 30);
  GuardedBits filter_bits(filter, random.bits()), selection_bits(selection, random.bits()), bits(n, random.bits());
  const bool filtered = random.below(3) == 0, selected = random.below(3) == 0;
  Env env;
  bound.copy = nullptr;
  env.exec.selection = selected ? selection_bits.words() : nullptr;
  env.exec.flags = random.below(2) == 0 ? KDZK_EX_SELECTIVE : 0;
  const bool needs_exec = selected || (bound.enc_ctx.flags & KDZK_BLOCKED) != 0;
  uint32_t hits = 4711, want_hits = 0;
  const uint64_t status =
      kdzk_host_test_run(&bound, &test, filtered ? filter_bits.words() : nullptr,
                         needs_exec || random.below(2) == 0 ? &env.exec : nullptr, bits.words(), &hits);
  if (test.kind == KDZK_HOST_TEST_SET && library().dispatch[test.kernel].any == nullptr) {
    EXPECT_EQ(status, n == 0 ? KDZK_NO_ROW : KDZK_UNSUPPORTED);
    return;
  }
  const std::vector<bool> got = bits.rows();
  for (size_t row = 0; row < n; row++) {
    const bool want = holds[row] && (!filtered || filter[row]) && (!selected || selection[row]);
    want_hits += want;
    ASSERT_EQ(got[row], want) << "row " << row << ", kind " << test.kind << " "
                              << (test.kind == KDZK_HOST_TEST_KERNEL ? kdzk_name_of(&library(), test.kernel) : "")
                              << (filtered ? " filtered" : "") << (selected ? " selected" : "");
  }
  EXPECT_EQ(hits, want_hits);
  EXPECT_EQ(status, want_hits == 0 ? KDZK_NO_ROW : KDZK_DONE);
  if (selected && n > 0) {
    EXPECT_NE(env.exec.out_flags & (KDZK_OUT_SELECTION | KDZK_OUT_SET_SELECTION), 0);
  }
}

TEST_P(HostColumns, HoldTheirValuesAndAnswerComparisons) {
  ColumnCase c(GetParam());
  const size_t n = c.plain.size();
  const GuardedBuffer stored(std::span{c.dictionary.bytes, c.dictionary.bytes_size}, 0);
  kdzk_host_report report{};
  kdzk_host_dictionary dictionary{};
  ASSERT_EQ(kdzk_host_dictionary_open(stored.data(), stored.size(), &dictionary, &report), KDZK_HOST_DONE)
      << report.reason;
  expect_codes_of_values(dictionary, 0, 1 + dictionary.size / 300);
  const std::shared_ptr<kdzk_host_coder> reopened(kdzk_host_coder_of(&dictionary), kdzk_host_coder_free);
  const Batch all(c.plain, c.c.type, 0, n);
  std::vector<uint32_t> codes(n), codes_again(n);
  ASSERT_EQ(kdzk_host_coder_codes(c.coder.get(), &all.values, codes.data(), nullptr), KDZK_HOST_DONE);
  ASSERT_EQ(kdzk_host_coder_codes(reopened.get(), &all.values, codes_again.data(), nullptr), KDZK_HOST_DONE);
  EXPECT_EQ(codes, codes_again);

  uint64_t smallest = UINT64_MAX;
  for (const uint32_t form : forms()) {
    if (n > 20'000 && form > KDZK_HOST_PLAIN_FORMS && form != KDZK_HOST_BLOCKED(KDZK_HOST_PACKED)) continue;
    SCOPED_TRACE("form " + std::to_string(form));
    now_running("host kit, form " + std::to_string(form) + ", rows " + std::to_string(n));
    Built built;
    const uint32_t status = build(c, form, built);
    const bool coded = (form & KDZK_HOST_CODED_FORMS) != 0;
    if (!coded && !c.has_keys()) {
      EXPECT_EQ(status, KDZK_HOST_NO_FORM);
      continue;
    }
    ASSERT_EQ(status, KDZK_HOST_DONE);
    const kdzk_host_column& column = built.column;
    if (coded) built.dictionary = &dictionary;
    if (form <= KDZK_HOST_PLAIN_FORMS) smallest = std::min(smallest, column.size);
    ASSERT_EQ(built.check(c.c.nrows, &report), KDZK_HOST_DONE) << report.reason << " at " << report.offset;
    if (form <= KDZK_HOST_PLAIN_FORMS) {
      ASSERT_EQ(built.check(c.c.nrows, &report, nullptr), KDZK_HOST_DONE) << report.reason << " at " << report.offset;
    }
    ASSERT_TRUE(built.values() == c.plain);

    built.bind();
    for (int i = 0; i < (n > 20'000 ? 1 : n > 500 ? 10 : 30); i++) {
      const Cell low = c.constant(), high = c.constant();
      for (const uint32_t operation : operations) {
        SCOPED_TRACE("operation " + std::to_string(operation));
        std::vector<bool> holds(n);
        for (size_t row = 0; row < n; row++) holds[row] = satisfies(c.plain[row], operation, low, high);
        expect_rows(c, built.bound, built.test_of(operation, low, high), holds);
        if (HasFatalFailure()) return;
      }
    }
    if (!coded) continue;
    for (int i = 0; i < 4; i++) {  // IN lists, then a test per entry
      std::vector<uint64_t> words(kdzk_host_set_words(&dictionary));
      Plain list;
      for (int j = 0; j < 5; j++) list.push_back(c.constant());
      const auto in_list = [&](const Value& value) {
        for (const auto& entry : list)
          if (entry && !is_nan(entry) && compare(value, *entry) == 0) return true;
        return false;
      };
      if (i % 2 == 0) {
        for (const auto& entry : list) {
          const kdzk_host_value v = host_value(entry);
          kdzk_host_set_add(&dictionary, &v, words.data());
        }
      } else {
        kdzk_host_set_match(
            &dictionary,
            [](void* f, const kdzk_host_value* v) {
              return uint32_t{(*static_cast<decltype(in_list)*>(f))(*plain_value(*v))};
            },
            const_cast<void*>(static_cast<const void*>(&in_list)), words.data());
      }
      std::vector<bool> holds(n);
      for (size_t row = 0; row < n; row++) {
        holds[row] = c.plain[row] && in_list(*c.plain[row]);
        ASSERT_EQ(words[codes[row] / 64] >> codes[row] % 64 & 1, holds[row]);
      }
      kdzk_host_test test;
      kdzk_host_column_set_test(&column, words.data(), &test);
      expect_rows(c, built.bound, test, holds);
      if (HasFatalFailure()) return;
    }
  }
  Built any;
  ASSERT_EQ(build(c, KDZK_HOST_PLAIN_FORMS, any), KDZK_HOST_DONE);
  EXPECT_EQ(any.column.size, smallest);
  if (c.has_keys() && n > 0) {
    ASSERT_EQ(build(c, KDZK_HOST_PLAIN_FORMS, any, 1 << 30), KDZK_HOST_DONE);
    EXPECT_EQ(any.column.form & KDZK_HOST_CODED_FORMS, 0u);
  }
}

std::vector<Case> cases() {
  std::vector<Case> all;
  for (const uint32_t type : {KDZK_HOST_INTEGER, KDZK_HOST_DOUBLE, KDZK_HOST_TEXT})
    for (uint32_t kind = 0; kind < 4; kind++) {
      for (const uint32_t nulls : {0u, 20u, 100u})
        for (const uint32_t nrows : {0u, 1u, 64u, 65u, 1000u})
          all.push_back({type, kind, nulls, nrows, (kind + nrows) % 2 == 0});
      all.push_back({type, kind, 5 * kind, 70'000, kind == 1});
    }
  all.push_back({KDZK_HOST_INTEGER, 3, 1, 200'000, false});
  all.push_back({KDZK_HOST_TEXT, 1, 1, 200'000, true});
  return all;
}
INSTANTIATE_TEST_SUITE_P(All, HostColumns, testing::ValuesIn(cases()),
                         [](const auto& info) { return info.param.name(); });

// ---- What an untrusted place may give ----

// Every single bit of record and bytes: refused. The same with a checksum that fits: refused, or read without a fault.
TEST(HostColumns, AreRefusedOrReadSafelyWhenABitIsWrong) {
  uint32_t refused = 0, read = 0;
  for (const Case& of : {Case{KDZK_HOST_INTEGER, 1, 20, 70, true}, Case{KDZK_HOST_TEXT, 2, 0, 70, false},
                         Case{KDZK_HOST_DOUBLE, 2, 10, 40, false}}) {
    ColumnCase c(of);
    for (const uint32_t form : forms()) {
      Built good;
      ASSERT_EQ(build(c, form, good), KDZK_HOST_DONE);
      const Bytes bytes(good.bytes->data(), good.bytes->data() + good.column.size);
      for (size_t bit = 0; bit < 8 * (sizeof good.column + bytes.size()); bit++) {
        for (const bool sealed : {false, true}) {
          Built bad;
          bad.column = good.column;
          bad.dictionary = good.dictionary;
          Bytes changed = bytes;
          if (bit < 8 * sizeof bad.column) reinterpret_cast<uint8_t*>(&bad.column)[bit / 8] ^= 1 << bit % 8;
          if (bit >= 8 * sizeof bad.column) changed[bit / 8 - sizeof bad.column] ^= static_cast<uint8_t>(1 << bit % 8);
          bad.place(changed);
          if (sealed && bad.column.size == changed.size())
            bad.column.checksum = kdzk_host_column_checksum(&bad.column, bad.bytes->data());
          const std::string what = "form " + std::to_string(form) + ", bit " + std::to_string(bit);
          now_running("host kit, " + what);
          kdzk_host_report report{};
          const uint32_t status = bad.check(of.nrows, &report);
          if (status == KDZK_HOST_MALFORMED) {
            refused++;
            EXPECT_EQ(report.ok, 0u);
            EXPECT_NE(std::string(report.reason), "well formed");
            EXPECT_LE(report.offset, std::max<uint64_t>(changed.size(), bad.column.data_size)) << what;
            continue;
          }
          ASSERT_EQ(status, KDZK_HOST_DONE);
          ASSERT_TRUE(sealed) << what;
          read++;
          (void)bad.values();
          bad.bind();
          for (int i = 0; i < 3; i++) {
            const Cell low = c.constant();
            const kdzk_host_test test = bad.test_of(operations[i], low, low);
            Env env;
            GuardedBits bits(of.nrows);
            uint32_t hits = 0;
            bad.bound.copy = nullptr;
            (void)kdzk_host_test_run(&bad.bound, &test, nullptr, &env.exec, bits.words(), &hits);
          }
        }
      }
    }
  }
  EXPECT_GT(refused, 10'000u);
  EXPECT_GT(read, 100u);
}

TEST(HostDictionaries, AreRefusedOrReadSafelyWhenABitIsWrong) {
  uint32_t read = 0;
  for (const Case& of : {Case{KDZK_HOST_INTEGER, 1, 20, 30, false}, Case{KDZK_HOST_TEXT, 3, 10, 40, false},
                         Case{KDZK_HOST_DOUBLE, 3, 0, 20, false}}) {
    ColumnCase c(of);
    const Bytes good(c.dictionary.bytes, c.dictionary.bytes + c.dictionary.bytes_size);
    for (size_t size = 0; size < good.size(); size++) {
      const GuardedBuffer cut(std::span{good.data(), size}, 0);
      ASSERT_EQ(kdzk_host_dictionary_open(cut.data(), size, nullptr, nullptr), KDZK_HOST_MALFORMED);
    }
    for (size_t bit = 0; bit < 8 * good.size(); bit++) {
      for (const bool sealed : {false, true}) {
        GuardedBuffer bad(good, 0);
        bad.data()[bit / 8] ^= static_cast<uint8_t>(1 << bit % 8);
        if (sealed) {
          kdzk_host::Checksum sum;
          sum.add(bad.data(), 8);
          sum.add(bad.data() + 16, bad.size() - 16);
          const uint64_t value = sum.value();
          std::memcpy(bad.data() + 8, &value, 8);
        }
        kdzk_host_dictionary dictionary{};
        kdzk_host_report report{};
        if (kdzk_host_dictionary_open(bad.data(), bad.size(), &dictionary, &report) != KDZK_HOST_DONE) continue;
        ASSERT_TRUE(sealed);
        read++;
        expect_codes_of_values(dictionary, dictionary.first_code, 1);
      }
    }
  }
  EXPECT_GT(read, 10u);
}

TEST(HostDictionaries, SayWhatTheyCannot) {
  ColumnCase c({KDZK_HOST_INTEGER, 1, 0, 100, false});
  Plain more = {c.plain[0], Value(int64_t{77'777})};
  const Batch foreign(more, KDZK_HOST_INTEGER, 0, 2);
  uint32_t codes[2], row = 4711;
  EXPECT_EQ(kdzk_host_coder_codes(c.coder.get(), &foreign.values, codes, &row), KDZK_HOST_NO_CODE);
  EXPECT_EQ(row, 1u);
  GuardedBuffer room(kdzk_host_column_bound(2) / 8 * 8);
  kdzk_host_column column;
  EXPECT_EQ(
      kdzk_host_column_build(&foreign.values, c.coder.get(), KDZK_HOST_PACKED, 0, room.data(), room.size(), &column),
      KDZK_HOST_NO_CODE);
  EXPECT_EQ(kdzk_host_column_build(&foreign.values, nullptr, KDZK_HOST_PACKED, 0, room.data(), room.size(), &column),
            KDZK_HOST_NO_FORM);
  EXPECT_EQ(kdzk_host_column_build(&foreign.values, nullptr, KDZK_HOST_FIXED, 0, room.data(), 2, &column),
            KDZK_HOST_NO_ROOM);
  more[1] = std::nullopt;
  const Batch with_null(more, KDZK_HOST_INTEGER, 0, 2);
  EXPECT_EQ(kdzk_host_coder_codes(c.coder.get(), &with_null.values, codes, &row), KDZK_HOST_NO_CODE);
  const std::shared_ptr<kdzk_host_coder> other(kdzk_host_coder_new(KDZK_HOST_INTEGER), kdzk_host_coder_free);
  ASSERT_EQ(kdzk_host_coder_finish(other.get(), KDZK_HOST_NULL_ALWAYS), KDZK_HOST_DONE);
  EXPECT_EQ(kdzk_host_coder_dictionary(other.get())->size, 1u);
  EXPECT_EQ(kdzk_host_coder_codes(other.get(), &foreign.values, codes, &row), KDZK_HOST_NO_CODE);
  EXPECT_EQ(row, 0u);
}

// ---- Checks of single streams ----

class CheckedCodes : public testing::TestWithParam<uint32_t> {};

TEST_P(CheckedCodes, NameTheFirstBadRow) {
  const uint32_t width = GetParam();
  Random random("checked_codes" + std::to_string(width));
  const uint64_t codes_of_width = uint64_t{1} << width;
  for (const uint64_t nrows : {1u, 64u, 1000u, 65'536u, 65'537u, 140'000u}) {
    const uint64_t limit = 1 + random.below(codes_of_width - 1);
    std::vector<uint32_t> codes(nrows);
    for (uint32_t& code : codes) code = static_cast<uint32_t>(random.below(limit));
    GuardedBuffer stream(kdzk_host_packed_bytes(nrows, width), KDZK_PADDING);
    for (const auto* checker : {&library(), static_cast<const kdzk_specialized_ctx*>(nullptr)}) {
      kdzk_host_report report{};
      const auto check = [&](uint64_t size, uint64_t below) {
        return kdzk_host_check_codes(checker, stream.data(), size, nrows, width, below, &report);
      };
      kdzk_host_pack(codes.data(), nrows, width, stream.data());
      EXPECT_EQ(check(stream.size(), limit), KDZK_HOST_DONE) << report.reason;
      EXPECT_EQ(report.ok, 1u);
      EXPECT_EQ(check(stream.size(), codes_of_width), KDZK_HOST_DONE);
      EXPECT_EQ(check(stream.size() - 1, limit), KDZK_HOST_MALFORMED);
      const uint64_t row = random.below(nrows);
      std::vector<uint32_t> bad = codes;
      bad[row] = bad[nrows - 1] = static_cast<uint32_t>(limit + random.below(codes_of_width - limit));
      kdzk_host_pack(bad.data(), nrows, width, stream.data());
      EXPECT_EQ(check(stream.size(), limit), KDZK_HOST_MALFORMED);
      EXPECT_EQ(report.offset, row * width / 8);
    }
  }
}
INSTANTIATE_TEST_SUITE_P(Widths, CheckedCodes, testing::Values(1, 2, 3, 7, 8, 9, 11, 13, 16, 20, 24, 32));

TEST(HostChecks, SayWhatIsWrongAndWhere) {
  kdzk_host_report r{};
  const auto expect = [&](uint32_t status, const std::string& reason, uint64_t offset) {
    EXPECT_EQ(status, reason == "well formed" ? KDZK_HOST_DONE : KDZK_HOST_MALFORMED);
    EXPECT_EQ(r.reason, reason);
    EXPECT_EQ(r.offset, offset);
  };
  expect(kdzk_host_check_codes(nullptr, nullptr, 9, 1, 21, 5, &r), "no kernels for this width of codes", 0);

  const uint8_t lengths[] = {3, 255, 45, 1, 4, 0, 7}, wide[] = {0, 3, 1, 44};
  expect(kdzk_host_check_runs(lengths, 5, 8, 5, 308, &r), "well formed", 0);
  expect(kdzk_host_check_runs(wide, 4, 16, 2, 303, &r), "well formed", 0);
  expect(kdzk_host_check_runs(lengths, 4, 8, 5, 308, &r), "ends in the run lengths", 4);
  expect(kdzk_host_check_runs(lengths, 7, 8, 7, 315, &r), "a run of no rows", 5);
  expect(kdzk_host_check_runs(lengths, 5, 8, 5, 303, &r), "runs of more rows than there are", 3);
  expect(kdzk_host_check_runs(lengths, 5, 8, 5, 309, &r), "runs of fewer rows than there are", 5);
  expect(kdzk_host_check_runs(lengths, 5, 32, 1, 3, &r), "run lengths of neither 8 nor 16 bits", 0);

  const uint8_t offsets[] = {0, 0, 0, 0, 0, 0, 0, 3, 0, 0, 1, 2, 0, 0, 1, 2};
  expect(kdzk_host_check_run_offsets(offsets, 12, 2, 258, &r), "well formed", 0);
  expect(kdzk_host_check_run_offsets(offsets, 11, 2, 258, &r), "ends in the first rows of runs", 11);
  expect(kdzk_host_check_run_offsets(offsets + 4, 12, 2, 258, &r), "the first run doesn't begin at row 0", 0);
  expect(kdzk_host_check_run_offsets(offsets, 16, 3, 258, &r), "first rows don't ascend", 12);
  expect(kdzk_host_check_run_offsets(offsets, 12, 2, 259, &r), "the runs don't end at the last row", 8);
  expect(kdzk_host_check_offsets(offsets, 16, 3, 258, &r), "well formed", 0);
  expect(kdzk_host_check_offsets(offsets, 16, 3, 257, &r), "symbols reach past the end", 12);
  const uint8_t down[] = {0, 0, 0, 0, 0, 0, 0, 3, 0, 0, 0, 2};
  expect(kdzk_host_check_offsets(down, 12, 2, 9, &r), "offsets of symbols descend", 8);
  expect(kdzk_host_check_offsets(down + 4, 8, 1, 9, &r), "the first symbol doesn't begin at 0", 0);
  expect(kdzk_host_check_offsets(down, 11, 2, 9, &r), "ends in the offsets of the symbols", 11);

  const uint8_t codes[] = {0x80, 0xff, 0x78, 0x81};
  expect(kdzk_host_check_lengths(codes, 2, 9, 16, 11, &r), "well formed", 0);
  expect(kdzk_host_check_lengths(codes, 2, 9, 16, 12, &r),
         "the lengths add up to another number of bytes than there are", 0);
  expect(kdzk_host_check_lengths(codes, 2, 17, 16, 11, &r), "ends in the length codes", 2);
  expect(kdzk_host_check_lengths(codes + 2, 2, 5, 32, 13, &r), "well formed", 0);  // 1 3 2 0, 2
  expect(kdzk_host_check_lengths(codes + 2, 1, 1, 64, 8, &r), "well formed", 0);
  expect(kdzk_host_check_lengths(codes + 2, 2, 2, 64, 17, &r), "a value longer than 8 bytes", 0);
  expect(kdzk_host_check_lengths(codes, 1, 1, 8, 1, &r), "values of neither 16, 32 nor 64 bits", 0);

  uint8_t records[] = {1, 2, 3, 1, 2, 4, 1, 3, 0}, stream[32];
  const uint64_t size = kdzk_host_prefix_records_write(records, 3, 3, stream);
  ASSERT_EQ(size, 8u);
  expect(kdzk_host_check_prefix_records(stream, size, 3, 3, &r), "well formed", 0);
  expect(kdzk_host_check_prefix_records(stream, size, 3, 9, &r), "records of neither 1 to 8 bytes", 0);
  expect(kdzk_host_check_prefix_records(stream, size - 1, 3, 3, &r), "ends in a group", 0);
  expect(kdzk_host_check_prefix_records(stream, size + 1, 3, 3, &r), "bytes behind the last group", size);
  expect(kdzk_host_check_prefix_records(stream, size, 19, 3, &r), "ends in a group", 0);
  expect(kdzk_host_check_prefix_records(stream, 0, 3, 3, &r), "ends before the last group", 0);
  stream[0] = 4;
  expect(kdzk_host_check_prefix_records(stream, size, 3, 3, &r), "a prefix longer than a record", 0);

  Bytes block(kdzk_host_sqzb_bound(9, KDZK_HOST_SQZB_ANY_WIDTH));
  uint64_t block_size = 0;
  ASSERT_EQ(kdzk_host_sqzb_write(records, 9, KDZK_HOST_SQZB_ANY_WIDTH, block.data(), block.size(), &block_size),
            KDZK_HOST_DONE);
  expect(kdzk_host_check_block(block.data(), block_size, 9, &r), "well formed", 0);
  expect(kdzk_host_check_block(block.data(), block_size, 8, &r), "a block of another number of bytes", 12);
  expect(kdzk_host_check_block(block.data(), block_size + 1, 9, &r), "bytes behind the block", block_size);
  block[0] = 0;
  expect(kdzk_host_check_block(block.data(), block_size, 9, &r), "doesn't begin with SQZB", 0);
}

}  // namespace
}  // namespace kdzk_test
