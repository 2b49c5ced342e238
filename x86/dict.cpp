// SPDX-License-Identifier: Apache-2.0
// Packed dictionary predicates: codes of 2 to 7, 9 to 15, 17 to 20 and 24 bits, plain and null-aware.
//
// Codes are never shifted down. One shuffle brings the bytes of each code into a lane of its own, last byte lowest; one
// AND clears the neighbours' bits; the compare is against constants that were shifted before the loop to where each
// lane's code lies. Width 13, lanes 0 to 3 of 32 bits (the digits are row numbers):
//
//      b0       b1       b2       b3       b4       b5       b6
//   00000000 00000111 11111111 11222222 22222223 33333333 3333....
//
//   lane 0 = 0:0:b0:b1    mask 0x00fff8    shift 3
//   lane 1 = 0:b1:b2:b3   mask 0x07ffc0    shift 6
//   lane 2 = 0:0:b3:b4    mask 0x003ffe    shift 1
//   lane 3 = 0:b4:b5:b6   mask 0x01fff0    shift 4
//
// Masked code and shifted constant are the two numbers times the same power of two, so their order is the same. Eight
// rows are W whole bytes, so the pattern of shifts repeats every eight rows: one mask serves all vectors of 8 or 16
// lanes, and two take turns in vectors of 4.
//
// Invariants. A step is a whole number of 8-row groups and so of bytes; all its rows are real, so an inverted word has
// no bits to clear. Its last load ends at most 8 bytes behind it.

#include <algorithm>

#include "x86/lanes.h"

namespace kdzk {
namespace {

// Where codes of W bits lie, and how a vector takes them up. Rows are counted from the start of a step.
template <int W>
struct Packed {
  static constexpr uint32_t top = (1u << W) - 1;  // the highest code
  static constexpr int first_byte(int row) { return row * W / 8; }
  static constexpr int last_byte(int row) { return (row * W + W - 1) / 8; }
  static constexpr int shift(int row) { return 7 - (row * W + W - 1) % 8; }  // of the code in its lane

  // The narrowest lane that holds every code together with the bits before it in its first byte.
  static constexpr int lane_bits = [] {
    int bytes = 1;
    for (int row = 0; row < 8; row++) bytes = std::max(bytes, last_byte(row) - first_byte(row) + 1);
    return bytes == 1 ? 8 : bytes == 2 ? 16 : 32;
  }();
  static constexpr int lanes = 128 / lane_bits;
  static constexpr int halves = lanes == 4 ? 2 : 1;  // vectors with masks and shifts of their own

  // No more than 32 rows, so that the last load of a step doesn't reach far behind it.
  static constexpr int rows_per_load = [] {
    int rows = 32;
    while (rows > lanes && rows * W > 128) rows /= 2;
    return rows;
  }();

  static constexpr int load_offset(int vector) { return first_byte(vector * lanes / rows_per_load * rows_per_load); }

  // For each lane the bytes of its row, from the load's first byte; 0x80 gives zero.
  static constexpr std::array<uint8_t, 16> shuffle(int vector) {
    std::array<uint8_t, 16> bytes{};
    for (int at = 0; at < 16; at++) {
      const int row = vector * lanes + at / (lane_bits / 8);
      const int byte = last_byte(row) - at % (lane_bits / 8);
      bytes[at] = byte >= first_byte(row) ? byte - load_offset(vector) : 0x80;
    }
    return bytes;
  }

  static constexpr LaneArray<lane_bits> mask(int vector) {
    LaneArray<lane_bits> mask{};
    for (int lane = 0; lane < lanes; lane++) mask[lane] = top << shift(vector * lanes + lane);
    return mask;
  }

  // 2 to the power of each lane's shift.
  static constexpr LaneArray<lane_bits> scale(int vector) {
    LaneArray<lane_bits> scale{};
    for (int lane = 0; lane < lanes; lane++) scale[lane] = 1u << shift(vector * lanes + lane);
    return scale;
  }

  // `code` shifted to where each lane of a vector has its own.
  template <int vector>
  static __m128i scaled(uint32_t code) {
    static constexpr auto factors = scale(vector);
    const __m128i factor = vector_of(factors), number = in_all_lanes<lane_bits>(code);
    if constexpr (lane_bits == 32) return _mm_mullo_epi32(number, factor);
    if constexpr (lane_bits == 16) return _mm_mullo_epi16(number, factor);
    if constexpr (lane_bits == 8) {  // the product of a byte and a power of two that stays in the byte
      const __m128i low_bytes = _mm_set1_epi16(0xff);
      const __m128i even = _mm_mullo_epi16(_mm_and_si128(number, low_bytes), _mm_and_si128(factor, low_bytes));
      const __m128i odd = _mm_mullo_epi16(_mm_srli_epi16(number, 8), _mm_andnot_si128(low_bytes, factor));
      return _mm_or_si128(even, odd);
    }
  }

  // The codes of vector `vector` of the rows at `in`, each in its lane, shifted as its neighbours left it.
  template <int vector>
  static __m128i codes_at(const uint8_t* in) {
    static constexpr auto pick = shuffle(vector);
    static constexpr auto keep = mask(vector);
    const __m128i bytes = _mm_shuffle_epi8(load16(in + load_offset(vector)), vector_of(pick));
    return W % 8 == 0 ? bytes : _mm_and_si128(bytes, vector_of(keep));  // whole bytes have no neighbours among them
  }
};

static_assert(Packed<13>::lane_bits == 32 && Packed<13>::mask(0) == LaneArray<32>{0xfff8, 0x7ffc0, 0x3ffe, 0x1fff0});
static_assert(Packed<13>::mask(1) == LaneArray<32>{0xfff80, 0x7ffc, 0x3ffe0, 0x1fff} && Packed<13>::shift(1) == 6);
static_assert(Packed<3>::mask(0) == LaneArray<16>{0xe0, 0x1c, 0x380, 0x70, 0x0e, 0x1c0, 0x38, 0x07});
static_assert(Packed<3>::rows_per_load == 32 && Packed<2>::rows_per_load == 32 && Packed<7>::rows_per_load == 16);
static_assert(Packed<12>::lane_bits == 16 && Packed<12>::rows_per_load == 8 && Packed<11>::lane_bits == 32);
static_assert(Packed<19>::load_offset(3) == 28 && Packed<19>::shuffle(0) != Packed<19>::shuffle(1));

// A packed column, read from `in` on.
template <int W>
struct PackedSource {
  using P = Packed<W>;
  using Code = uint32_t;
  using Word = std::conditional_t<P::lane_bits == 32, uint32_t, uint64_t>;
  static constexpr uint32_t top = P::top;
  static constexpr int lane_bits = P::lane_bits;
  static constexpr int words_per_step = lane_bits == 8 ? 2 : 1;
  static constexpr int halves = P::halves;
  static constexpr bool has_at_least = true;
  static constexpr bool sums_second_word = W == 4;

  const uint8_t* in;
  const uint8_t* stream = in;

  // Into the second cache alone from 17 bits on, where a step takes more than a line: on Zen 4 (g++ 12) prefetching
  // into the first cache holds 20 and 24 bits at 0.72 and 0.77 of a bare read from memory, this one lets them reach
  // 0.87 and 0.94. Below, the first cache is the better one, 0.63 against 0.54 at 13 bits. kdzk_bench,
  // lt_dict_*bit/64Mi.
  void begin_step() const {
    constexpr auto hint = W < 17 ? _MM_HINT_T0 : _MM_HINT_T1;
    _mm_prefetch(reinterpret_cast<const char*>(in + 640), hint);
    _mm_prefetch(reinterpret_cast<const char*>(in + 704), hint);
  }

  template <int vector, bool>
  __m128i codes() const {
    return P::template codes_at<vector>(in);
  }
  void next() { in += W * sizeof(Word); }

  template <int half, bool>
  static __m128i scaled(uint32_t code) {
    return P::template scaled<half>(code);
  }

  void tail(uint32_t) const {}
  uint32_t code(uint32_t row) const { return packed_code<W>(stream, row); }
};

template <int W, bool nulls>
struct PackedDesign {
  static constexpr bool has_companion = true, has_filter = true;

  // The codes that qualify, for single rows: the constants as they are.
  static auto codes(const Call& call) {
    const auto set = qualifying(call.op, load<uint32_t>(call.low->data), load<uint32_t>(call.high->data), ~0u);
    if constexpr (nulls) return NonNullCodes<uint32_t>{set};
    if constexpr (!nulls) return set;
  }

  static uint32_t evaluate(const Call& call, const uint8_t* data, uint8_t* bits, uint32_t nrows) {
    constexpr uint32_t top = Packed<W>::top;
    const uint32_t low = load<uint32_t>(call.low->data) & top, high = load<uint32_t>(call.high->data) & top;
    const auto set = qualifying(call.op, low, high, top);
    return evaluate_in_lanes<nulls>(PackedSource<W>{data}, call.op, set, codes(call), bits, nrows);
  }

  static uint32_t evaluate_selected(const Call& call, const uint8_t* data, uint8_t* bits, uint32_t nrows,
                                    const uint64_t* selection) {
    return evaluate_rows(PackedSource<W>{data}, codes(call), bits, nrows, selection);
  }
};

}  // namespace

template <int W>
struct Design<Dict<W>> : PackedDesign<W, false> {};

template <int W>
struct Design<DictNull<W>> : PackedDesign<W, true> {};

KDZK_PREDICATES(Dict<2>)
KDZK_PREDICATES(Dict<3>)
KDZK_PREDICATES(Dict<4>)
KDZK_PREDICATES(Dict<5>)
KDZK_PREDICATES(Dict<6>)
KDZK_PREDICATES(Dict<7>)
KDZK_PREDICATES(Dict<9>)
KDZK_PREDICATES(Dict<10>)
KDZK_PREDICATES(Dict<11>)
KDZK_PREDICATES(Dict<12>)
KDZK_PREDICATES(Dict<13>)
KDZK_PREDICATES(Dict<14>)
KDZK_PREDICATES(Dict<15>)
KDZK_PREDICATES(Dict<17>)
KDZK_PREDICATES(Dict<18>)
KDZK_PREDICATES(Dict<19>)
KDZK_PREDICATES(Dict<20>)
KDZK_PREDICATES(Dict<24>)

KDZK_PREDICATES(DictNull<2>)
KDZK_PREDICATES(DictNull<3>)
KDZK_PREDICATES(DictNull<4>)
KDZK_PREDICATES(DictNull<5>)
KDZK_PREDICATES(DictNull<6>)
KDZK_PREDICATES(DictNull<7>)
KDZK_PREDICATES(DictNull<9>)
KDZK_PREDICATES(DictNull<10>)
KDZK_PREDICATES(DictNull<11>)
KDZK_PREDICATES(DictNull<12>)
KDZK_PREDICATES(DictNull<13>)
KDZK_PREDICATES(DictNull<14>)
KDZK_PREDICATES(DictNull<15>)
KDZK_PREDICATES(DictNull<17>)
KDZK_PREDICATES(DictNull<18>)
KDZK_PREDICATES(DictNull<19>)
KDZK_PREDICATES(DictNull<20>)
KDZK_PREDICATES(DictNull<24>)

}  // namespace kdzk
