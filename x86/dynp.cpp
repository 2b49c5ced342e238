// SPDX-License-Identifier: Apache-2.0
// Predicates on `dynp` columns: big-endian values of 16, 32 and 64 bits without their trailing zero bytes, with a
// stream of length codes. A missing byte is zero, so a value compares the same however many of its bytes are stored.
//
// Rows have no fixed position. A table look-up by a byte of `lengths` turns the rows that it describes into fixed lanes
// with one load and one shuffle, and another gives the way to the next rows (x86/lengths.h); from there on the compare
// is that of all families. The companion walks over `lengths` too.
//
// Invariants. Each load is 16 bytes from a row's first byte, so it ends at most 16 bytes behind the last row.

#include "x86/aligned.h"
#include "x86/lengths.h"

namespace kdzk {
namespace {

template <int W>
CutSource<W> source(const Call& call, const uint8_t* data) {
  return {data, static_cast<const uint8_t*>(call.input->lengths)};
}

}  // namespace

template <int W>
struct Design<Dynp<W>> {
  static constexpr bool has_companion = true, has_filter = true;

  static auto codes(const Call& call) {
    return qualifying(call.op, stored_constant<W>(call.low), stored_constant<W>(call.high), CutSource<W>::top);
  }

  static uint32_t evaluate(const Call& call, const uint8_t* data, uint8_t* bits, uint32_t nrows) {
    const auto set = codes(call);
    return evaluate_in_lanes<false>(source<W>(call, data), call.op, set, set, bits, nrows);
  }

  static uint32_t evaluate_selected(const Call& call, const uint8_t* data, uint8_t* bits, uint32_t nrows,
                                    const uint64_t* selection) {
    return evaluate_rows(source<W>(call, data), codes(call), bits, nrows, selection);
  }
};

KDZK_PREDICATES(Dynp<16>)
KDZK_PREDICATES(Dynp<32>)
KDZK_PREDICATES(Dynp<64>)

}  // namespace kdzk
