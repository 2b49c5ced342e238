// SPDX-License-Identifier: Apache-2.0
// Predicates on pairs of a value and its length code, `fixed` and `dynp` columns of 16, 32 and 64 bits: values that
// agree are told apart by how many of their bytes were stored. Pairs compare by value first.
//
// Values compare in lanes, codes in place, in the bytes where `lengths` has them: one shuffle repeats each byte of
// `lengths` over as many byte lanes as it has rows, one AND keeps each row's code, and the constant's code is shifted
// before the loop to where each row has its own. What connects the two is the byte per row to which the value compares
// are narrowed:
//
//   above = value above | (value equal & code at least)
//
// With the constant's code or the one behind it this is "at least" or "greater", the other one-sided operations are
// their inversions, and a two-sided operation is one such test without another.
//
// A step is four vectors of values and four bytes of `lengths`: 32, 16 or 8 rows.
//
// Invariants. `lengths` is loaded by 16 bytes from a step's first, so the load ends at most 12 bytes behind the step.

#include "x86/aligned.h"
#include "x86/lengths.h"

namespace kdzk {
namespace {

// A value with its length code behind it, as one number.
template <int W>
struct Pairs {
  __extension__ using Wide = unsigned __int128;
  using Code = std::conditional_t<W == 64, Wide, uint64_t>;
  static constexpr Code top = static_cast<Code>(~Code{0});
  static Code of(uint64_t value, uint32_t length_code) { return static_cast<Code>(value) << 8 | length_code; }
};

// A source of values, and the length codes beside it.
template <int W, class Values>
struct PairSource {
  using Word = typename CutSource<W>::Word;
  static constexpr int words_per_step = 1;

  Values values;
  const uint8_t* lengths;
  const uint8_t* first_length = lengths;

  void begin_step() { values.begin_step(); }
  void next() {
    if constexpr (requires { values.move(4); }) {
      values.move(4);
    } else {
      values.next();
    }
    lengths += 4;
  }
  void tail(uint32_t row) { values.tail(row); }
  auto code(uint32_t row) { return Pairs<W>::of(values.code(row), LengthCodes<W>::row_code(first_length, row)); }
};

// Length codes in byte lanes, 16 rows to a vector.
template <int W>
struct CodeLanes {
  using L = LengthCodes<W>;
  static constexpr uint32_t highest = (1u << L::bits) - 1;

  // For each row of the 16 from 16 * group on, the byte of `lengths` that has its code.
  static constexpr std::array<uint8_t, 16> shuffle(int group) {
    std::array<uint8_t, 16> from{};
    for (int row = 0; row < 16; row++) from[row] = static_cast<uint8_t>((16 * group + row) / L::rows_per_byte);
    return from;
  }
  static constexpr std::array<uint8_t, 16> in_place(uint32_t code) {
    std::array<uint8_t, 16> lanes{};
    for (int row = 0; row < 16; row++) lanes[row] = static_cast<uint8_t>(code << L::shift(row));
    return lanes;
  }

  template <int group>
  static __m128i codes(const uint8_t* lengths) {
    static constexpr auto pick = shuffle(group);
    static constexpr auto keep = in_place(highest);
    return _mm_and_si128(_mm_shuffle_epi8(load16(lengths), vector_of(pick)), vector_of(keep));
  }

  // For `codes(...) >= code` by rounded average, and for equality. No row's lane has all bits set, so a code beyond the
  // highest can be made to match none.
  static __m128i at_least_bound(uint32_t code) {
    const __m128i bound = vector_of(in_place(code));
    return code > highest ? _mm_setzero_si128() : _mm_xor_si128(bound, _mm_set1_epi8(-1));
  }
  static __m128i equal_bound(uint32_t code) { return code > highest ? _mm_set1_epi8(-1) : vector_of(in_place(code)); }
};

// The tests of a pair against (value, code): top bits of byte lanes, a row each.
template <int W>
struct PairTest {
  using Value = typename AlignedSource<W>::Code;
  LaneTest<W, Shape::range> value_above;
  LaneTest<W, Shape::equal> value_equal;
  __m128i code_at_least;
  __m128i code_equal;

  PairTest(Value value, uint32_t code)
      : code_at_least(CodeLanes<W>::at_least_bound(code)), code_equal(CodeLanes<W>::equal_bound(code)) {
    constexpr Value top = AlignedSource<W>::top;
    constexpr auto native = AlignedSource<W>::template scaled<0, true>;
    value_above = lane_test<W, Shape::range>(CodeSet<Value>{0, value, true}, top, native);  // finds what lies outside
    value_equal = lane_test<W, Shape::equal>(CodeSet<Value>{value, 0, true}, top, native);
  }

  // A test of values, narrowed to bytes: rows 16 * group to 16 * group + 15; in lanes of 64 bits 8 rows, twice.
  template <int group, class Source, class Test>
  static __m128i row_bytes(const Source& source, const Test& test) {
    const auto lanes = [&]<int vector>() { return test(source.values.template codes<vector, true>()); };
    if constexpr (W == 64) {
      const __m128i rows = narrowed<64, 16, 0>(lanes);
      return _mm_packs_epi16(rows, rows);
    } else {
      return narrowed<W, 8, group * W / 8>(lanes);
    }
  }

  template <int group, class Source>
  __m128i above(const Source& source) const {
    const __m128i codes = CodeLanes<W>::template codes<group>(source.lengths);
    const __m128i same_value = row_bytes<group>(source, value_equal);
    return _mm_or_si128(row_bytes<group>(source, value_above),
                        _mm_and_si128(same_value, _mm_avg_epu8(codes, code_at_least)));
  }

  template <int group, class Source>
  __m128i equal(const Source& source) const {
    const __m128i codes = CodeLanes<W>::template codes<group>(source.lengths);
    return _mm_and_si128(row_bytes<group>(source, value_equal), _mm_cmpeq_epi8(codes, code_equal));
  }
};

// All rows of a vector. `low` and `high` are the values that whole steps compare with, `codes` has the pairs.
template <int W, class Source, class Codes>
uint32_t evaluate_pairs(const Source& source, const Call& call, typename PairTest<W>::Value low,
                        typename PairTest<W>::Value high, const Codes& codes, uint8_t* bits, uint32_t nrows) {
  using Word = typename Source::Word;
  const uint32_t low_code = load<uint8_t>(call.low->lengths), high_code = load<uint8_t>(call.high->lengths);
  const auto by = [&](bool inverted, const auto& rows_of) {
    const Word inversion = inverted ? static_cast<Word>(~Word{0}) : Word{0};
    const auto next_word = [&]<int>(const Source& at) {
      uint32_t word = static_cast<uint32_t>(_mm_movemask_epi8(rows_of.template operator()<0>(at)));
      if constexpr (W == 16) word |= static_cast<uint32_t>(_mm_movemask_epi8(rows_of.template operator()<1>(at))) << 16;
      return static_cast<Word>(inversion ^ word);
    };
    return evaluate_steps(source, next_word, codes, bits, nrows);
  };
  const auto by_equal = [&](bool inverted) {
    const PairTest<W> test(low, low_code);
    return by(inverted, [test]<int group>(const Source& at) { return test.template equal<group>(at); });
  };
  const auto by_above = [&](uint32_t code, bool inverted) {
    const PairTest<W> test(low, code);
    return by(inverted, [test]<int group>(const Source& at) { return test.template above<group>(at); });
  };
  const auto by_both = [&](uint32_t code, uint32_t end_code) {
    const PairTest<W> begin(low, code), end(high, end_code);
    return by(false, [begin, end]<int group>(const Source& at) {
      return _mm_andnot_si128(end.template above<group>(at), begin.template above<group>(at));
    });
  };
  switch (call.op) {
    case Op::eq:
      return by_equal(false);
    case Op::ne:
      return by_equal(true);
    case Op::gt:
      return by_above(low_code + 1, false);
    case Op::le:
      return by_above(low_code + 1, true);
    case Op::ge:
      return by_above(low_code, false);
    case Op::lt:
      return by_above(low_code, true);
    case Op::gt_lt:
      return by_both(low_code + 1, high_code);
    case Op::gt_le:
      return by_both(low_code + 1, high_code + 1);
    case Op::ge_lt:
      return by_both(low_code, high_code);
    case Op::ge_le:
      return by_both(low_code, high_code + 1);
  }
  __builtin_unreachable();
}

// The pairs that qualify, for single rows.
template <int W>
auto pairs(const Call& call, uint64_t low, uint64_t high) {
  return qualifying(call.op, Pairs<W>::of(low, load<uint8_t>(call.low->lengths)),
                    Pairs<W>::of(high, load<uint8_t>(call.high->lengths)), Pairs<W>::top);
}

const uint8_t* lengths_of(const Call& call) { return static_cast<const uint8_t*>(call.input->lengths); }

template <int W>
struct FixedTzDesign {
  static constexpr bool has_companion = true, has_filter = true;

  template <int bytes>
  static auto source(const Call& call, const uint8_t* data) {
    return PairSource<W, AlignedSource<W, bytes>>{{data}, lengths_of(call)};
  }

  template <int bytes>
  static auto codes(const Call& call) {
    using Values = AlignedSource<W, bytes>;
    return pairs<W>(call, Values::cut(stored_constant<W>(call.low)), Values::cut(stored_constant<W>(call.high)));
  }

  static uint32_t evaluate(const Call& call, const uint8_t* data, uint8_t* bits, uint32_t nrows) {
    return with_value_bytes<W>(call, [&]<int bytes>() {
      using Values = AlignedSource<W, bytes>;
      const auto low = stored_constant<W>(call.low), high = stored_constant<W>(call.high);
      const bool whole = call.op == Op::eq || call.op == Op::ne;  // these see all bytes of the constant
      return evaluate_pairs<W>(source<bytes>(call, data), call, whole ? low : Values::cut(low), Values::cut(high),
                               codes<bytes>(call), bits, nrows);
    });
  }

  static uint32_t evaluate_selected(const Call& call, const uint8_t* data, uint8_t* bits, uint32_t nrows,
                                    const uint64_t* selection) {
    return with_value_bytes<W>(call, [&]<int bytes>() {
      return evaluate_rows(source<bytes>(call, data), codes<bytes>(call), bits, nrows, selection);
    });
  }
};

template <int W>
struct DynpTzDesign {
  static constexpr bool has_companion = true, has_filter = true;

  // A constant's length code may be one above the highest of a row, no more.
  static bool accepts(const Call& call) {
    return load<uint8_t>(call.low->lengths) <= W / 8 && load<uint8_t>(call.high->lengths) <= W / 8;
  }

  static auto source(const Call& call, const uint8_t* data) {
    return PairSource<W, CutSource<W>>{{data, lengths_of(call)}, lengths_of(call)};
  }

  static auto codes(const Call& call) {
    return pairs<W>(call, stored_constant<W>(call.low), stored_constant<W>(call.high));
  }

  static uint32_t evaluate(const Call& call, const uint8_t* data, uint8_t* bits, uint32_t nrows) {
    return evaluate_pairs<W>(source(call, data), call, stored_constant<W>(call.low), stored_constant<W>(call.high),
                             codes(call), bits, nrows);
  }

  static uint32_t evaluate_selected(const Call& call, const uint8_t* data, uint8_t* bits, uint32_t nrows,
                                    const uint64_t* selection) {
    return evaluate_rows(source(call, data), codes(call), bits, nrows, selection);
  }
};

}  // namespace

template <int W>
struct Design<FixedTz<W>> : FixedTzDesign<W> {};

template <int W>
struct Design<DynpTz<W>> : DynpTzDesign<W> {};

KDZK_PREDICATES(FixedTz<16>)
KDZK_PREDICATES(FixedTz<32>)
KDZK_PREDICATES(FixedTz<64>)

KDZK_PREDICATES(DynpTz<16>)
KDZK_PREDICATES(DynpTz<32>)
KDZK_PREDICATES(DynpTz<64>)

}  // namespace kdzk
