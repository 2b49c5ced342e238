// SPDX-License-Identifier: Apache-2.0
// Dictionary predicates at 1 bit. The column is almost the answer: its bits stand in the bit vector's order but for the
// order inside each byte. So a predicate is one of four things, found from its constants: the column's bits, their
// complement, no row, or every row; only the first two read the column.
//
// Constants are tested as in Answer, not compared as numbers: `eq` with 2 acts like `eq` with 1. Such constants don't
// arise from a dictionary of two codes.

#include "frame/predicate.h"
#include "x86/one_bit.h"

namespace kdzk {
namespace {

enum class Answer { plain, inverted, none, all };

constexpr Answer answer_of(Op op, uint32_t low, uint32_t high) {
  const uint32_t k = low;
  switch (op) {
    case Op::eq:
      return k != 0 ? Answer::plain : Answer::inverted;
    case Op::ne:
      return k == 1 ? Answer::inverted : Answer::plain;
    case Op::lt:
      return k != 0 ? Answer::inverted : Answer::none;
    case Op::gt:
      return k == 0 ? Answer::plain : Answer::none;
    case Op::le:
      return k == 0 ? Answer::inverted : Answer::all;
    case Op::ge:
      return k != 0 ? Answer::plain : Answer::all;
    case Op::gt_lt:
      return Answer::none;
    case Op::gt_le:
      return low == 0 && high == 1 ? Answer::plain : Answer::none;
    case Op::ge_lt:
      return low == 0 && high == 1 ? Answer::inverted : Answer::none;
    case Op::ge_le:
      if (low == 1 && high == 1) return Answer::plain;
      if (low == 0 && high == 0) return Answer::inverted;
      return low == 0 && high == 1 ? Answer::all : Answer::none;
  }
  __builtin_unreachable();
}

// Sets all rows, and no bit behind the last.
uint32_t fill_ones(uint8_t* bits, uint32_t nrows) {
  if (nrows == 0) return 0;
  const uint64_t last = (words_for(nrows) - 1) * 8;
  std::memset(bits, 0xff, last);
  store(bits + last, ~uint64_t{0} >> (64 - nrows % 64) % 64);
  return nrows;
}

uint32_t give(Answer answer, const uint8_t* data, uint8_t* bits, uint32_t nrows) {
  switch (answer) {
    case Answer::plain:
      return copy_column(data, bits, nrows, false);
    case Answer::inverted:
      return copy_column(data, bits, nrows, true);
    case Answer::none:
      clear_from(bits, 0, nrows);
      return 0;
    case Answer::all:
      return fill_ones(bits, nrows);
  }
  __builtin_unreachable();
}

}  // namespace

// No companion: a full evaluation costs next to nothing.
template <>
struct Design<Dict<1>> {
  static constexpr bool has_companion = false, has_filter = true;

  static uint32_t evaluate(const Call& call, const uint8_t* data, uint8_t* bits, uint32_t nrows) {
    const uint32_t low = load<uint32_t>(call.low->data), high = load<uint32_t>(call.high->data);
    return give(answer_of(call.op, low, high), data, bits, nrows);
  }
};

// Null-aware, only code 1 can qualify: the column's bits are the answer, or there is none. The filter is not looked at:
// a host that has one ANDs it in by itself.
template <>
struct Design<DictNull<1>> {
  static constexpr bool has_companion = false, has_filter = false;

  static constexpr Answer answer_of(Op op, uint32_t low, uint32_t high) {
    const uint32_t k = low;
    const auto plain_if = [](bool condition) { return condition ? Answer::plain : Answer::none; };
    switch (op) {
      case Op::eq:
      case Op::le:
        return plain_if(k != 0);
      case Op::ne:
      case Op::gt:
        return plain_if(k == 0);
      case Op::ge:
        return Answer::plain;
      case Op::lt:
      case Op::gt_lt:
      case Op::ge_lt:
        return Answer::none;
      case Op::gt_le:
        return plain_if(low == 0 && high == 1);
      case Op::ge_le:
        return plain_if(low <= 1 && high == 1);
    }
    __builtin_unreachable();
  }

  static uint32_t evaluate(const Call& call, const uint8_t* data, uint8_t* bits, uint32_t nrows) {
    const uint32_t low = load<uint32_t>(call.low->data), high = load<uint32_t>(call.high->data);
    return give(answer_of(call.op, low, high), data, bits, nrows);
  }
};

KDZK_PREDICATES(Dict<1>)
KDZK_PREDICATES(DictNull<1>)

}  // namespace kdzk
