// SPDX-License-Identifier: Apache-2.0
// Comparisons as ranges, ranges as kernel calls.
//
// Codes, and stored values, are in the order of the values, so a constant c cuts them in two places: `lower`, the first
// that isn't below c, and `upper`, the first that is above it. All comparisons are stretches between these:
//
//      below c        lower   equal to c   upper   above c
//   ................|.......................|.................
//    <: to lower       =: lower to upper        >: from upper        <=: to upper    >=: from lower   <>: all but =
//
// A range meets a column at its smallest and largest value. Where an end lies outside, the range has no end there, and
// needs no constant: so constants are always codes of the column, and one-sided kernels do where they can.

#include <kdzk/host/comparison.h>

#include "host/column_streams.h"
#include "host/keys.h"

namespace kdzk_host {
namespace {

struct Cuts {
  Wide lower, upper;
};

// Fills `range` from the cuts of the constants; `end` is behind the last code or value.
template <class CutsOf>
void find_range(uint32_t operation, const kdzk_host_value* low, const kdzk_host_value* high, Wide end,
                const CutsOf& cuts_of, kdzk_host_range& range) {
  constexpr kdzk_host_range none{1, 0, KDZK_HOST_RANGE_INSIDE};
  range = none;
  if (operation == KDZK_HOST_OP_IS_NULL) range.kind = KDZK_HOST_RANGE_NULLS;
  if (operation == KDZK_HOST_OP_IS_NOT_NULL) range.kind = KDZK_HOST_RANGE_NOT_NULL;
  if (operation >= KDZK_HOST_OP_IS_NULL) return;
  const bool two = operation >= KDZK_OP_GT_LT;
  if (is_null(*low) || (two && is_null(*high))) return;
  const Cuts a = cuts_of(*low), b = two ? cuts_of(*high) : a;
  Wide first = 0, behind = end;
  switch (operation) {
    case KDZK_OP_EQ:
    case KDZK_OP_NE:
      first = a.lower, behind = a.upper;
      break;
    case KDZK_OP_LT:
      behind = a.lower;
      break;
    case KDZK_OP_GT:
      first = a.upper;
      break;
    case KDZK_OP_LE:
      behind = a.upper;
      break;
    case KDZK_OP_GE:
      first = a.lower;
      break;
    case KDZK_OP_GT_LT:
      first = a.upper, behind = b.lower;
      break;
    case KDZK_OP_GT_LE:
      first = a.upper, behind = b.upper;
      break;
    case KDZK_OP_GE_LT:
      first = a.lower, behind = b.lower;
      break;
    case KDZK_OP_GE_LE:
      first = a.lower, behind = b.upper;
      break;
    default:
      return;
  }
  if (first < behind) range = {static_cast<uint64_t>(first), static_cast<uint64_t>(behind - 1), 0};
  if (operation == KDZK_OP_NE) range.kind = first < behind ? KDZK_HOST_RANGE_ALL_BUT : KDZK_HOST_RANGE_NOT_NULL;
}

// The first code of a dictionary for which `below` doesn't hold.
template <class Below>
uint32_t partition(const kdzk_host_dictionary& dictionary, uint32_t from, const Below& below) {
  uint32_t codes = dictionary.size - from;
  while (codes > 0) {
    const uint32_t half = codes / 2;
    if (below(from + half)) {
      from += half + 1;
      codes -= half + 1;
    } else {
      codes = half;
    }
  }
  return from;
}

Cuts cuts_in(const kdzk_host_dictionary& dictionary, const kdzk_host_value& constant) {
  if (dictionary.type == KDZK_HOST_TEXT && constant.type == KDZK_HOST_TEXT) {
    const uint32_t lower = partition(dictionary, dictionary.first_code, [&](uint32_t code) {
      return compare(symbol(dictionary, code), constant.text) < 0;
    });
    const bool exists = lower < dictionary.size && compare(symbol(dictionary, lower), constant.text) == 0;
    return {lower, Wide{lower} + exists};
  }
  if (dictionary.type == KDZK_HOST_TEXT) return {dictionary.first_code, dictionary.first_code};
  const Cut cut = cut_of(dictionary.type, constant);
  const uint32_t lower =
      partition(dictionary, dictionary.first_code, [&](uint32_t code) { return key_at(dictionary, code) < cut.at; });
  const bool exists = cut.exists && lower < dictionary.size && key_at(dictionary, lower) == cut.at;
  return {lower, Wide{lower} + exists};
}

Cuts cuts_in(const kdzk_host_column& column, const kdzk_host_value& constant) {
  const Cut cut = cut_of(column.type, constant);
  if (cut.at < column.base) return {0, 0};
  const Wide distance = cut.at - column.base, unit = Wide{1} << column.shift;
  const Wide lower = (distance + unit - 1) >> column.shift;
  return {lower, lower + (cut.exists && distance % unit == 0)};
}

// A call of a kernel of the column for all that isn't NULL.
void call(const kdzk_host_column& column, uint32_t operation, uint64_t low, uint64_t high, kdzk_host_test& test) {
  const bool nulls = is_coded(column) && column.nulls > 0;
  test.kind = KDZK_HOST_TEST_KERNEL;
  test.operation = operation;
  test.kernel = kdzk_id_of_kind(kind_of(column), operation) + (nulls ? kdzk_id_of(KDZK_ROW_VARIANT, 0) : 0);
  test.constants = operation >= KDZK_OP_GT_LT ? 2 : 1;
  constant_of(column, low, test.low);
  constant_of(column, high, test.high);
}

void not_null(const kdzk_host_column& column, kdzk_host_test& test) {
  test.kind = column.nulls == 0              ? KDZK_HOST_TEST_ALL
              : column.nulls == column.nrows ? KDZK_HOST_TEST_NONE
                                             : KDZK_HOST_TEST_PRESENT;
  if (test.kind == KDZK_HOST_TEST_PRESENT && is_coded(column)) call(column, KDZK_OP_GE, column.smallest, 0, test);
}

void nulls(const kdzk_host_column& column, kdzk_host_test& test) {
  test.kind = column.nulls == 0              ? KDZK_HOST_TEST_NONE
              : column.nulls == column.nrows ? KDZK_HOST_TEST_ALL
                                             : KDZK_HOST_TEST_ABSENT;
  if (test.kind != KDZK_HOST_TEST_ABSENT || !is_coded(column)) return;
  call(column, KDZK_OP_EQ, 0, 0, test);
  test.kernel = kdzk_id_of_kind(kind_of(column), KDZK_OP_EQ);  // to which 0 is a code like any other
}

void inside(const kdzk_host_column& column, uint64_t first, uint64_t last, kdzk_host_test& test) {
  const bool from_smallest = first <= column.smallest, to_largest = last >= column.largest;
  if (first > last || first > column.largest || last < column.smallest) return;
  if (from_smallest && to_largest) return not_null(column, test);
  if (first == last) return call(column, KDZK_OP_EQ, first, 0, test);
  if (from_smallest) return call(column, last == column.smallest ? KDZK_OP_EQ : KDZK_OP_LE, last, 0, test);
  if (to_largest) return call(column, first == column.largest ? KDZK_OP_EQ : KDZK_OP_GE, first, 0, test);
  call(column, KDZK_OP_GE_LE, first, last, test);
}

// All but one code.
void all_but(const kdzk_host_column& column, uint64_t code, kdzk_host_test& test) {
  if (code > column.largest || code < column.smallest) return not_null(column, test);
  if (column.smallest == column.largest) return;
  if (code == column.smallest) return inside(column, code + 1, column.largest, test);
  if (code == column.largest) return inside(column, column.smallest, code - 1, test);
  call(column, KDZK_OP_NE, code, 0, test);
}

}  // namespace
}  // namespace kdzk_host

using namespace kdzk_host;

void kdzk_host_dictionary_range(const kdzk_host_dictionary* dictionary, uint32_t operation, const kdzk_host_value* low,
                                const kdzk_host_value* high, kdzk_host_range* range) {
  const auto cuts = [&](const kdzk_host_value& constant) { return cuts_in(*dictionary, constant); };
  find_range(operation, low, high, dictionary->size, cuts, *range);
  if (range->kind == KDZK_HOST_RANGE_INSIDE && range->first < dictionary->first_code)
    range->first = dictionary->first_code;
}

void kdzk_host_column_range(const kdzk_host_column* column, uint32_t operation, const kdzk_host_value* low,
                            const kdzk_host_value* high, kdzk_host_range* range) {
  const auto cuts = [&](const kdzk_host_value& constant) { return cuts_in(*column, constant); };
  find_range(operation, low, high, Wide{column->largest} + 1, cuts, *range);
}

uint32_t kdzk_host_dictionary_code(const kdzk_host_dictionary* dictionary, const kdzk_host_value* value,
                                   uint32_t* code) {
  if (value->type == KDZK_HOST_NULL || is_null(*value)) {
    *code = 0;
    return dictionary->first_code;
  }
  const Cuts cuts = cuts_in(*dictionary, *value);
  if (cuts.lower == cuts.upper) return 0;
  *code = static_cast<uint32_t>(cuts.lower);
  return 1;
}

uint64_t kdzk_host_set_words(const kdzk_host_dictionary* dictionary) {
  // Up to 16 bits, all codes of the width: 8 KiB at most.
  const uint64_t codes = dictionary->width <= 16 ? uint64_t{1} << dictionary->width : dictionary->size;
  return words_of(codes);
}

uint32_t kdzk_host_set_add(const kdzk_host_dictionary* dictionary, const kdzk_host_value* value, uint64_t* words) {
  uint32_t code = 0;
  if (is_null(*value) || kdzk_host_dictionary_code(dictionary, value, &code) == 0) return 0;
  words[code / 64] |= uint64_t{1} << code % 64;
  return 1;
}

uint32_t kdzk_host_set_match(const kdzk_host_dictionary* dictionary, kdzk_host_match_fn match, void* state,
                             uint64_t* words) {
  uint32_t matches = 0;
  for (uint32_t code = dictionary->first_code; code < dictionary->size; code++) {
    kdzk_host_value value;
    kdzk_host_dictionary_value(dictionary, code, &value);
    if (match(state, &value) == 0) continue;
    words[code / 64] |= uint64_t{1} << code % 64;
    matches++;
  }
  return matches;
}

void kdzk_host_column_test(const kdzk_host_column* column, const kdzk_host_range* range, kdzk_host_test* test) {
  *test = {};
  if (column->nrows == 0) return;
  if (range->kind == KDZK_HOST_RANGE_NULLS) return nulls(*column, *test);
  if (column->nulls == column->nrows) return;
  if (range->kind == KDZK_HOST_RANGE_INSIDE) inside(*column, range->first, range->last, *test);
  if (range->kind == KDZK_HOST_RANGE_NOT_NULL) not_null(*column, *test);
  if (range->kind == KDZK_HOST_RANGE_ALL_BUT) all_but(*column, range->first, *test);
}

void kdzk_host_column_set_test(const kdzk_host_column* column, const uint64_t* words, kdzk_host_test* test) {
  *test = {};
  if (column->nulls == column->nrows) return;
  uint64_t count = 0, first = UINT64_MAX, last = 0;
  for (uint64_t word = column->smallest / 64; word <= column->largest / 64; word++) {
    uint64_t bits = words[word];
    if (word == column->smallest / 64) bits &= ~uint64_t{0} << column->smallest % 64;
    if (word == column->largest / 64) bits &= ~uint64_t{0} >> (63 - column->largest % 64);
    if (bits == 0) continue;
    count += static_cast<uint64_t>(std::popcount(bits));
    first = std::min(first, 64 * word + static_cast<uint64_t>(std::countr_zero(bits)));
    last = 64 * word + 63 - static_cast<uint64_t>(std::countl_zero(bits));
  }
  if (count == 0) return;
  if (last - first + 1 == count) return inside(*column, first, last, *test);
  test->kind = KDZK_HOST_TEST_SET;
  test->operation = KDZK_OP_SET;
  test->kernel = kdzk_id_of_kind(kind_of(*column), KDZK_OP_SET);
  test->set = words;
}

uint64_t kdzk_host_test_run(kdzk_host_bound* bound, const kdzk_host_test* test, const uint64_t* filter, kdzk_exec* exec,
                            uint64_t* bits, uint32_t* hits) {
  const kdzk_host_column& column = *bound->column;
  const uint64_t words = words_of(column.nrows);
  const bool set = test->kind == KDZK_HOST_TEST_SET, runs = plain_form(column) == KDZK_HOST_RUNS;
  kdzk_exec* const given = exec;
  const uint64_t* selection = exec == nullptr ? nullptr : exec->selection;
  *hits = 0;
  if (column.nrows == 0) return KDZK_NO_ROW;

  if (set || test->kind == KDZK_HOST_TEST_KERNEL) {
    const kdzk_kernel kernel = bound->library->dispatch[test->kernel];
    if (kernel.any == nullptr) return KDZK_UNSUPPORTED;
    kdzk_vec input = bound->input, result{};
    result.bitvec = bits;
    result.nrows = column.nrows;
    // What the kernel is given of the filter and the selection it applies; the rest is ANDed in below. Runs: it would
    // take them for bits per run. Sets, and `_null` at 1 bit, don't look at a filter.
    const bool takes_filter =
        !runs && !set && bound->present == nullptr && !(column.width == 1 && is_coded(column) && column.nulls > 0);
    if (takes_filter) {
      input.filter = filter;
      filter = nullptr;
    }
    kdzk_exec of_runs{};
    if (runs) {
      of_runs.env = exec == nullptr ? nullptr : exec->env;
      exec = &of_runs;
    } else {
      selection = nullptr;
    }
    kdzk_kargs low{}, high{};
    low.enc_ctx = high.enc_ctx = &bound->enc_ctx;
    low.data = const_cast<uint8_t*>(test->low);
    high.data = const_cast<uint8_t*>(test->high);
    low.bitvec = const_cast<uint64_t*>(test->set);
    if (test->constants == 2) {
      kernel.between(&result, &input, &low, &high, exec);
    } else {
      kernel.compare(&result, &input, &low, exec);  // a set kernel has the same shape, its table in the third record
    }
    *hits = result.hits;
  } else if (test->kind == KDZK_HOST_TEST_NONE) {
    std::memset(bits, 0, 8 * words);
  } else if (test->kind == KDZK_HOST_TEST_ALL) {
    std::memset(bits, 0xff, 8 * words);
    *hits = column.nrows;
  } else {
    const bool absent = test->kind == KDZK_HOST_TEST_ABSENT;
    std::memcpy(bits, bound->present, 8 * words);
    if (absent) bound->library->bv64.bv_not(bits, nullptr, bits, column.nrows);
    *hits = absent ? column.nulls : column.nrows - column.nulls;
  }
  if (filter != nullptr) bound->library->bv64.bv_and(bits, hits, bits, filter, column.nrows);
  if (selection != nullptr) {
    bound->library->bv64.bv_and(bits, hits, bits, selection, column.nrows);
    given->out_flags |= set ? KDZK_OUT_SET_SELECTION : KDZK_OUT_SELECTION;
  }
  return *hits == 0 ? KDZK_NO_ROW : KDZK_DONE;
}
