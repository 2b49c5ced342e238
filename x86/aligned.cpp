// SPDX-License-Identifier: Apache-2.0
// Predicates on values that begin on byte boundaries: `dict` codes of 8, 16, 32 and 64 bits, plain and null-aware, and
// `fixed` values of the same widths.
//
// No shuffle is needed to find a value, only one to turn it round where order counts (x86/aligned.h). A step is eight
// vectors:
//
//   width   lanes   rows   bits stored
//       8      16    128   two words of 64
//      16       8     64   one of 64
//      32       4     32   one of 32
//      64       2     16   one of 16
//
// `fixed` values of 32 and 64 bits may be stored in fewer bytes, 3 in 32 bits, 3, 5, 6 or 7 in 64. Such a column has
// loops of its own.
//
// Invariants. A load begins at a value of the step, so it ends at most 16 bytes behind the last one. A constant that
// its lane can't hold (8-bit codes with a constant above 255) is cut to the lane in whole steps and compared in full in
// single rows.

#include "x86/aligned.h"

namespace kdzk {
namespace {

template <int W, bool nulls>
struct AlignedDictDesign {
  static constexpr bool has_companion = true, has_filter = true;
  using Source = AlignedSource<W>;
  using Code = typename Source::Code;

  static auto codes(const Call& call) {
    const auto all = static_cast<Code>(~Code{0});
    const auto set = qualifying(call.op, load<Code>(call.low->data), load<Code>(call.high->data), all);
    if constexpr (nulls) return NonNullCodes<Code>{set};
    if constexpr (!nulls) return set;
  }

  static uint32_t evaluate(const Call& call, const uint8_t* data, uint8_t* bits, uint32_t nrows) {
    constexpr Code top = Source::top;
    const Code low = load<Code>(call.low->data) & top, high = load<Code>(call.high->data) & top;
    return evaluate_in_lanes<nulls>(Source{data}, call.op, qualifying(call.op, low, high, top), codes(call), bits,
                                    nrows);
  }

  static uint32_t evaluate_selected(const Call& call, const uint8_t* data, uint8_t* bits, uint32_t nrows,
                                    const uint64_t* selection) {
    return evaluate_rows(Source{data}, codes(call), bits, nrows, selection);
  }
};

template <int W>
struct FixedDesign {
  static constexpr bool has_companion = true, has_filter = true;

  // The values that qualify, of both constants the first `bytes` bytes.
  template <int bytes>
  static auto codes(const Call& call) {
    using Source = AlignedSource<W, bytes>;
    const auto low = Source::cut(stored_constant<W>(call.low)), high = Source::cut(stored_constant<W>(call.high));
    return qualifying(call.op, low, high, Source::top);
  }

  static uint32_t evaluate(const Call& call, const uint8_t* data, uint8_t* bits, uint32_t nrows) {
    return with_value_bytes<W>(call, [&]<int bytes>() {
      auto set = codes<bytes>(call);
      // In whole steps `eq` and `ne` see all bytes of the constant: with any behind the value's, no row is equal.
      if (call.op == Op::eq || call.op == Op::ne) set.first = stored_constant<W>(call.low);
      return evaluate_in_lanes<false>(AlignedSource<W, bytes>{data}, call.op, set, codes<bytes>(call), bits, nrows);
    });
  }

  static uint32_t evaluate_selected(const Call& call, const uint8_t* data, uint8_t* bits, uint32_t nrows,
                                    const uint64_t* selection) {
    return with_value_bytes<W>(call, [&]<int bytes>() {
      return evaluate_rows(AlignedSource<W, bytes>{data}, codes<bytes>(call), bits, nrows, selection);
    });
  }
};

}  // namespace

template <>
struct Design<Dict<8>> : AlignedDictDesign<8, false> {};
template <>
struct Design<Dict<16>> : AlignedDictDesign<16, false> {};
template <>
struct Design<Dict<32>> : AlignedDictDesign<32, false> {};
template <>
struct Design<Dict<64>> : AlignedDictDesign<64, false> {};

template <>
struct Design<DictNull<8>> : AlignedDictDesign<8, true> {};
template <>
struct Design<DictNull<16>> : AlignedDictDesign<16, true> {};
template <>
struct Design<DictNull<32>> : AlignedDictDesign<32, true> {};
template <>
struct Design<DictNull<64>> : AlignedDictDesign<64, true> {};

template <int W>
struct Design<Fixed<W>> : FixedDesign<W> {};

// At 8 bits there are no length codes: the kernels differ from the plain ones in their names alone.
template <>
struct Design<FixedTz<8>> : FixedDesign<8> {};

KDZK_PREDICATES(Dict<8>)
KDZK_PREDICATES(Dict<16>)
KDZK_PREDICATES(Dict<32>)
KDZK_PREDICATES(Dict<64>)

KDZK_PREDICATES(DictNull<8>)
KDZK_PREDICATES(DictNull<16>)
KDZK_PREDICATES(DictNull<32>)
KDZK_PREDICATES(DictNull<64>)

KDZK_PREDICATES(Fixed<8>)
KDZK_PREDICATES(Fixed<16>)
KDZK_PREDICATES(Fixed<32>)
KDZK_PREDICATES(Fixed<64>)

KDZK_PREDICATES(FixedTz<8>)

}  // namespace kdzk
