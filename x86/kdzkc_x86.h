// SPDX-License-Identifier: Apache-2.0
// The instruction-level vocabulary of the kernel families: loads, vectors with contents computed at compile time, lane
// arithmetic by width, the narrowing of lanes, and the scalar fetch of a packed code.
//
// Lanes are 8, 16, 32 or 64 bits wide; a vector has 128 / lane_bits of them, lane 0 lowest.
#ifndef X86_KDZKC_X86_H
#define X86_KDZKC_X86_H

#include <nmmintrin.h>

#include <array>
#include <cstddef>
#include <type_traits>
#include <utility>

#include "frame/memory.h"
#include "frame/operation.h"

namespace kdzk {

inline __m128i load16(const uint8_t* at) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(at)); }
inline void store16(uint8_t* at, __m128i v) { _mm_storeu_si128(reinterpret_cast<__m128i*>(at), v); }

// ---- Constants ----

template <int lane_bits>
using LaneInt = std::conditional_t<
    lane_bits == 8, uint8_t,
    std::conditional_t<lane_bits == 16, uint16_t, std::conditional_t<lane_bits == 32, uint32_t, uint64_t>>>;

template <int lane_bits>
using LaneArray = std::array<LaneInt<lane_bits>, 128 / lane_bits>;

template <int lane_bits>
inline constexpr LaneInt<lane_bits> sign_bit = LaneInt<lane_bits>{1} << (lane_bits - 1);

// The same number in all lanes.
template <int lane_bits>
inline __m128i in_all_lanes(uint64_t value) {
  if constexpr (lane_bits == 8) return _mm_set1_epi8(static_cast<char>(value));
  if constexpr (lane_bits == 16) return _mm_set1_epi16(static_cast<short>(value));
  if constexpr (lane_bits == 32) return _mm_set1_epi32(static_cast<int>(value));
  if constexpr (lane_bits == 64) return _mm_set1_epi64x(static_cast<long long>(value));
}

// A vector of these lanes. From a constexpr array the compiler makes one constant, shared by all who use the same.
template <class Lane, size_t lanes>
inline __m128i vector_of(const std::array<Lane, lanes>& a) {
  static_assert(sizeof a == 16);
  if constexpr (lanes == 16)
    return _mm_setr_epi8(a[0], a[1], a[2], a[3], a[4], a[5], a[6], a[7], a[8], a[9], a[10], a[11], a[12], a[13], a[14],
                         a[15]);
  if constexpr (lanes == 8) return _mm_setr_epi16(a[0], a[1], a[2], a[3], a[4], a[5], a[6], a[7]);
  if constexpr (lanes == 4) return _mm_setr_epi32(a[0], a[1], a[2], a[3]);
  if constexpr (lanes == 2) return _mm_set_epi64x(a[1], a[0]);
}

// The bytes of four 32-bit lanes from big-endian to native.
inline constexpr std::array<uint8_t, 16> turned_round = {3, 2, 1, 0, 7, 6, 5, 4, 11, 10, 9, 8, 15, 14, 13, 12};

// ---- Lane arithmetic, by width ----

template <int lane_bits>
inline __m128i add(__m128i a, __m128i b) {
  if constexpr (lane_bits == 8) return _mm_add_epi8(a, b);
  if constexpr (lane_bits == 16) return _mm_add_epi16(a, b);
  if constexpr (lane_bits == 32) return _mm_add_epi32(a, b);
  if constexpr (lane_bits == 64) return _mm_add_epi64(a, b);
}

template <int lane_bits>
inline __m128i sub(__m128i a, __m128i b) {
  if constexpr (lane_bits == 8) return _mm_sub_epi8(a, b);
  if constexpr (lane_bits == 16) return _mm_sub_epi16(a, b);
  if constexpr (lane_bits == 32) return _mm_sub_epi32(a, b);
  if constexpr (lane_bits == 64) return _mm_sub_epi64(a, b);
}

template <int lane_bits>
inline __m128i equal(__m128i a, __m128i b) {
  if constexpr (lane_bits == 8) return _mm_cmpeq_epi8(a, b);
  if constexpr (lane_bits == 16) return _mm_cmpeq_epi16(a, b);
  if constexpr (lane_bits == 32) return _mm_cmpeq_epi32(a, b);
  if constexpr (lane_bits == 64) return _mm_cmpeq_epi64(a, b);
}

// Signed, as the processor has it.
template <int lane_bits>
inline __m128i greater(__m128i a, __m128i b) {
  if constexpr (lane_bits == 8) return _mm_cmpgt_epi8(a, b);
  if constexpr (lane_bits == 16) return _mm_cmpgt_epi16(a, b);
  if constexpr (lane_bits == 32) return _mm_cmpgt_epi32(a, b);
  if constexpr (lane_bits == 64) return _mm_cmpgt_epi64(a, b);
}

// ---- Narrowing ----

// One vector of `to`-bit lanes with the top bits of the `from`-bit lanes that `lanes` yields, beginning with its vector
// `first`: `lanes.operator()<i>()` gives vector i. Saturation keeps the top bit of a lane, and keeps a lane from
// getting zero that wasn't.
template <int from, int to, int first, class Lanes>
inline __m128i narrowed(const Lanes& lanes) {
  if constexpr (from == to) {
    return lanes.template operator()<first>();
  } else {
    const __m128i left = narrowed<from, 2 * to, first>(lanes);
    const __m128i right = narrowed<from, 2 * to, first + from / (2 * to)>(lanes);
    // Taken for two of 32 bits, a lane of 64 equal bits comes out as two of 16, and one that isn't zero stays so.
    return to == 8 ? _mm_packs_epi16(left, right) : _mm_packs_epi32(left, right);
  }
}

// ---- Scalar fetch ----

// Code `row` of a stream of W-bit codes: from the 64 bits that begin at the whole big-endian 32-bit word where the code
// begins. Reads at most 7 bytes past the code.
template <int W>
inline uint32_t packed_code(const uint8_t* stream, uint32_t row) {
  const uint64_t bit = uint64_t{row} * W;
  return static_cast<uint32_t>(load_be64(stream + bit / 32 * 4) << bit % 32 >> (64 - W));
}

}  // namespace kdzk

#endif
