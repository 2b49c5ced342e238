// SPDX-License-Identifier: Apache-2.0
// Packed codes of W bits as vectors of native elements of 1, 2 or 4 bytes.
//
// For each element one shuffle brings the bytes that hold its code into its lane, first byte on top. A multiplication
// by a power of two, which stands in for a shift by lane, brings the code's top bit to the lane's and throws the bits
// before it out; one shift right by the same amount in all lanes throws out the bits behind. Width 13, four elements of
// 4 bytes (the digits are row numbers):
//
//      b0       b1       b2       b3       b4       b5       b6
//   00000000 00000111 11111111 11222222 22222223 33333333 3333....
//
//   lane 0 = b0:b1:0:0     times 2^0     lane 1 = b1:b2:b3:0    times 2^5      then all lanes shifted right by 19
//   lane 2 = b3:b4:0:0     times 2^2     lane 3 = b4:b5:b6:0    times 2^7
//
// What differs: codes of whole bytes need the shuffle only; codes that lie in two bytes are multiplied in 16 bits;
// codes of 11 and 13 to 15 bits become elements of 2 bytes from the first two and the third of their bytes, multiplied
// apart; elements of 1 byte are made two to a 16-bit lane, one of them multiplied down and one up, and those of 1, 2
// and 4 bits are split off their bytes.
//
// Invariants. Vectors begin at a byte: their first row is a multiple of 8, or of 4 with W even, or the load begins at
// the byte that holds the first bit. Each load is 16 bytes from the byte of a row, so it ends at most 16 bytes behind
// the last.
#ifndef X86_UNPACK_H
#define X86_UNPACK_H

#include <algorithm>

#include "x86/kdzkc_x86.h"

namespace kdzk {

// Where codes of W bits lie. Rows are counted from a multiple of 8.
template <int W>
struct PackedRows {
  static constexpr int first_byte(int row) { return row * W / 8; }
  static constexpr int last_byte(int row) { return (row * W + W - 1) / 8; }
  static constexpr int lead(int row) { return row * W % 8; }  // bits before the code in its first byte
  static constexpr int most_bytes = [] {
    int bytes = 1;
    for (int row = 0; row < 8; row++) bytes = std::max(bytes, last_byte(row) - first_byte(row) + 1);
    return bytes;
  }();

  // For `lanes` lanes of `lane_bytes` bytes, rows from `first` on: bytes `skip`, skip + 1, ... of the code, the first
  // on top of the bytes `low` to lane_bytes - 1 of its lane. Indexes count from the first row's first byte.
  template <int lane_bytes>
  static constexpr std::array<uint8_t, 16> shuffle(int first, int skip, int bytes, int low) {
    std::array<uint8_t, 16> from{};
    for (int at = 0; at < 16; at++) {
      const int row = first + at / lane_bytes;
      const int of_code = skip + low + bytes - 1 - at % lane_bytes;  // which byte of the code comes here
      const bool there = of_code >= skip && of_code < skip + bytes && first_byte(row) + of_code <= last_byte(row);
      from[static_cast<size_t>(at)] =
          static_cast<uint8_t>(there ? first_byte(row) + of_code - first_byte(first) : 0x80);
    }
    return from;
  }

  // The multipliers that throw out the bits before the codes, rows from `first` on.
  template <int lane_bits>
  static constexpr LaneArray<lane_bits> multipliers(int first) {
    LaneArray<lane_bits> lanes{};
    for (size_t i = 0; i < lanes.size(); i++) {
      lanes[i] = static_cast<LaneInt<lane_bits>>(1u << lead(first + static_cast<int>(i)));
    }
    return lanes;
  }

  // Two elements of 1 byte to a 16-bit lane, the even row's in the lower byte. A lane takes the bytes from row `from`
  // of its pair to row `to`, first byte on top; there are one or two of them.
  static constexpr bool pair_in_two_bytes = [] {
    bool fits = true;
    for (int row = 0; row < 8; row += 2) fits = fits && last_byte(row + 1) - first_byte(row) < 2;
    return fits;
  }();
  static constexpr std::array<uint8_t, 16> pair_shuffle(int from, int to) {
    std::array<uint8_t, 16> bytes{};
    for (int row = 0; row < 16; row += 2) {
      const int top = first_byte(row + from), low = last_byte(row + to);
      bytes[static_cast<size_t>(row)] = static_cast<uint8_t>(low);
      bytes[static_cast<size_t>(row) + 1] = static_cast<uint8_t>(top < low ? top : 0x80);
    }
    return bytes;
  }
  // The bits of row `of` of each pair in such lanes, and the multipliers for them: the upper half of an even row's
  // product is its element, the lower half of an odd row's has it in the upper byte.
  static constexpr int bits_behind(int row, int to) { return (last_byte(to) + 1) * 8 - (row + 1) * W; }
  static constexpr LaneArray<16> pair_masks(int of, int to) {
    LaneArray<16> lanes{};
    for (int pair = 0; pair < 8; pair++)
      lanes[static_cast<size_t>(pair)] =
          static_cast<uint16_t>(((1u << W) - 1) << bits_behind(2 * pair + of, 2 * pair + to));
    return lanes;
  }
  static constexpr LaneArray<16> pair_multipliers(int of, int to) {
    LaneArray<16> lanes{};
    for (int pair = 0; pair < 8; pair++)
      lanes[static_cast<size_t>(pair)] =
          static_cast<uint16_t>(1u << ((of == 0 ? 16 : 8) - bits_behind(2 * pair + of, 2 * pair + to)));
    return lanes;
  }
};

static_assert(PackedRows<13>::shuffle<4>(0, 0, 4, 0) ==
              std::array<uint8_t, 16>{0x80, 0x80, 1, 0, 0x80, 3, 2, 1, 0x80, 0x80, 4, 3, 0x80, 6, 5, 4});
static_assert(PackedRows<13>::multipliers<32>(0) == LaneArray<32>{1, 1 << 5, 1 << 2, 1 << 7});
static_assert(PackedRows<6>::pair_shuffle(0, 1) ==
              std::array<uint8_t, 16>{1, 0, 2, 1, 4, 3, 5, 4, 7, 6, 8, 7, 10, 9, 11, 10});
static_assert(PackedRows<6>::pair_in_two_bytes && PackedRows<5>::pair_in_two_bytes &&
              !PackedRows<7>::pair_in_two_bytes);
static_assert(PackedRows<12>::most_bytes == 2 && PackedRows<11>::most_bytes == 3 && PackedRows<24>::most_bytes == 3);

// The two halves of each byte as bytes of their own, the upper half first: of the lower or of the upper 8 bytes of v.
template <int half_bits, bool upper>
inline __m128i split_bytes(__m128i v) {
  const __m128i keep = _mm_set1_epi8((1 << half_bits) - 1);
  const __m128i high = _mm_and_si128(_mm_srli_epi16(v, half_bits), keep);  // upper halves of all bytes
  const __m128i low = _mm_and_si128(v, keep);                              // lower halves
  return upper ? _mm_unpackhi_epi8(high, low) : _mm_unpacklo_epi8(high, low);
}

// Vector `i` of the elements of `element` bytes, counted from the row at `in`, which begins a byte.
template <int W, int element, int i>
inline __m128i unpacked(const uint8_t* in) {
  using Rows = PackedRows<W>;
  constexpr int first = i * 16 / element;
  const auto bytes = [=] { return load16(in + Rows::first_byte(first)); };

  if constexpr (W == 8 * element && element == 1) {
    return bytes();
  } else if constexpr (W % 8 == 0) {
    static constexpr auto pick = Rows::template shuffle<element>(first, 0, W / 8, 0);
    return _mm_shuffle_epi8(bytes(), vector_of(pick));
  } else if constexpr (element == 4 && Rows::most_bytes == 2) {
    static constexpr auto pick = Rows::template shuffle<4>(first, 0, 2, 0);
    static constexpr auto times = Rows::template multipliers<32>(first);
    const __m128i codes = _mm_shuffle_epi8(bytes(), vector_of(pick));  // in the lower 16 bits of each lane
    return _mm_srli_epi16(_mm_mullo_epi16(codes, vector_of(times)), 16 - W);
  } else if constexpr (element == 4) {
    static constexpr auto pick = Rows::template shuffle<4>(first, 0, 4, 0);
    static constexpr auto times = Rows::template multipliers<32>(first);
    const __m128i codes = _mm_shuffle_epi8(bytes(), vector_of(pick));
    return _mm_srli_epi32(_mm_mullo_epi32(codes, vector_of(times)), 32 - W);
  } else if constexpr (element == 2) {
    static constexpr auto pick = Rows::template shuffle<2>(first, 0, 2, 0);
    static constexpr auto times = Rows::template multipliers<16>(first);
    const __m128i codes = _mm_mullo_epi16(_mm_shuffle_epi8(bytes(), vector_of(pick)), vector_of(times));  // on top
    if constexpr (Rows::most_bytes == 2) {
      return _mm_srli_epi16(codes, 16 - W);
    } else {
      static constexpr auto pick_third = Rows::template shuffle<2>(first, 2, 1, 1);
      const __m128i third = _mm_shuffle_epi8(bytes(), vector_of(pick_third));  // in the upper byte of each lane
      const __m128i rest = _mm_mulhi_epu16(third, vector_of(times));  // what of it belongs behind the first two
      return _mm_srli_epi16(_mm_or_si128(codes, rest), 16 - W);
    }
  } else if constexpr (Rows::most_bytes == 2) {
    static_assert(element == 1);
    constexpr bool shared = Rows::pair_in_two_bytes;  // a pair's codes lie in one lane
    static constexpr auto pick_even = Rows::pair_shuffle(0, shared), pick_odd = Rows::pair_shuffle(!shared, 1);
    static constexpr auto keep_even = Rows::pair_masks(0, shared), keep_odd = Rows::pair_masks(1, 1);
    static constexpr auto times_even = Rows::pair_multipliers(0, shared), times_odd = Rows::pair_multipliers(1, 1);
    const __m128i even = _mm_shuffle_epi8(bytes(), vector_of(pick_even));
    const __m128i odd = shared ? even : _mm_shuffle_epi8(bytes(), vector_of(pick_odd));
    const __m128i low = _mm_mulhi_epu16(_mm_and_si128(even, vector_of(keep_even)), vector_of(times_even));
    const __m128i high = _mm_mullo_epi16(_mm_and_si128(odd, vector_of(keep_odd)), vector_of(times_odd));
    return _mm_or_si128(low, high);
  } else if constexpr (W == 4) {
    return split_bytes<4, i % 2 == 1>(load16(in + i / 2 * 16));
  } else if constexpr (W == 2) {
    return split_bytes<2, i % 2 == 1>(split_bytes<4, i / 2 % 2 == 1>(load16(in + i / 4 * 16)));
  } else {
    static_assert(W == 1);
    static constexpr auto pick = Rows::template shuffle<1>(first, 0, 1, 0);
    const __m128i spread = _mm_shuffle_epi8(bytes(), vector_of(pick));  // each byte eight times
    const __m128i bit = _mm_and_si128(spread, _mm_set1_epi64x(0x0102040810204080));
    return _mm_min_epu8(bit, _mm_set1_epi8(1));
  }
}

// Bytes of an output element.
template <int W>
constexpr int element_bytes(bool wide) {
  return wide || W > 16 ? 4 : W > 8 ? 2 : 1;
}

template <int element>
using Element = std::conditional_t<element == 1, uint8_t, std::conditional_t<element == 2, uint16_t, uint32_t>>;

// Code `row` of a column by itself.
template <int W>
inline uint32_t single_code(const uint8_t* data, uint32_t row) {
  if constexpr (W == 8) return data[row];
  if constexpr (W == 16) return load_be16(data + uint64_t{row} * 2);
  if constexpr (W == 32) return load_be32(data + uint64_t{row} * 4);
  return packed_code<W>(data, row);
}

// Rows of a round: so many that it has whole bytes and is worth its prefetches.
template <int W>
inline constexpr uint32_t rows_per_round = W == 1 || W == 2 || W == 4 || W == 8        ? 128
                                           : PackedRows<W>::most_bytes == 2 || W == 16 ? 64
                                                                                       : 32;

// Fetches what a round will read and write a few rounds later, into the second cache: on Zen 4 (g++ 12) 64 Mi rows from
// memory take three quarters of the time that they take with the first cache as the target, and no more in cache
// (kdzk_bench, unpack_*bit/64Mi).
inline void prefetch_round(const uint8_t* in, const uint8_t* out) {
  for (int ahead : {640, 704}) {
    _mm_prefetch(reinterpret_cast<const char*>(in + ahead), _MM_HINT_T1);
    _mm_prefetch(reinterpret_cast<const char*>(out + ahead), _MM_HINT_T1);
  }
}

// Vectors that are split off the same bytes, and so are made together before one of them is stored.
template <int W, int element>
inline constexpr int vectors_together = element == 1 && W == 2   ? 4
                                        : element == 1 && W == 4 ? 2
                                                                 : 1;

// Writes vectors `first`, first + 1, ... of a round to `out`.
template <int W, int element, int first, int... i>
[[gnu::always_inline]] inline void unpack_together(const uint8_t* in, uint8_t* out, std::integer_sequence<int, i...>) {
  const __m128i vectors[] = {unpacked<W, element, first + i>(in)...};
  (store16(out + 16 * (first + i), vectors[i]), ...);
}

// Writes the codes of one round to `out`.
template <int W, int element>
inline void unpack_round(const uint8_t* in, uint8_t* out) {
  constexpr int together = vectors_together<W, element>;
  [=]<int... group>(std::integer_sequence<int, group...>) {
    (unpack_together<W, element, group * together>(in, out, std::make_integer_sequence<int, together>()), ...);
  }
  (std::make_integer_sequence<int, static_cast<int>(rows_per_round<W>) * element / 16 / together>());
}

// Writes the codes of the rows from `row` up to `end` to `out`. Vectors begin at a multiple of `alignment` rows.
template <int W, int element>
inline void unpack_rows(const uint8_t* data, uint32_t row, uint32_t end, uint8_t* out, uint32_t alignment) {
  constexpr uint32_t round = rows_per_round<W>;
  const auto singles_up_to = [&](uint32_t up_to) {
    for (; row < up_to; row++, out += element) store(out, static_cast<Element<element>>(single_code<W>(data, row)));
  };
  if (row % alignment != 0) {
    const uint64_t aligned = (uint64_t{row} / alignment + 1) * alignment;
    singles_up_to(static_cast<uint32_t>(std::min<uint64_t>(aligned, end)));
  }
  const uint8_t* in = data + uint64_t{row} * W / 8;
  for (uint32_t rounds = (end - row) / round; rounds > 0; rounds--) {
    prefetch_round(in, out);
    unpack_round<W, element>(in, out);
    in += round * W / 8;
    out += round * element;
    row += round;
  }
  singles_up_to(end);
}

}  // namespace kdzk

#endif
