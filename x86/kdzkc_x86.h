// SPDX-License-Identifier: Apache-2.0
// The instruction-level vocabulary of the kernel families: vectors with contents computed at compile time, compares of
// lanes with a set of codes, the gathering of lane masks to bits, and the scalar fetch of a packed code.
//
// Lanes are 8, 16, 32 or 64 bits wide; a vector has 128 / lane_bits of them, lane 0 lowest. A lane mask is all ones or
// all zeros in each lane.
#ifndef X86_KDZKC_X86_H
#define X86_KDZKC_X86_H

#include <nmmintrin.h>

#include <array>
#include <cstddef>
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

// ---- Compare of lanes with a set of codes ----

// How a set of codes is tested in lanes. `equal`: one code. `above`: all codes above a bound, in lanes whose top bit is
// never set, so that the signed compare serves as it is. `range`: an interval in lanes of any kind: adding the offset
// brings the interval's first code to the lowest signed number and wraps the codes below it round to the top, so that
// one compare sees both ends; the same addition stands in for the bias that unsigned numbers need.
enum class Shape { equal, above, range };

// The constants of one vector's lanes: value of the one code, bound, or offset and bound.
template <int lane_bits, Shape shape>
struct LaneTest {
  __m128i bound;
  __m128i offset;

  // Lane masks of a vector of codes, before inversion.
  __m128i operator()(__m128i codes) const {
    if constexpr (shape == Shape::equal) return equal<lane_bits>(codes, bound);
    if constexpr (shape == Shape::above) return greater<lane_bits>(codes, bound);
    if constexpr (shape == Shape::range) return greater<lane_bits>(add<lane_bits>(codes, offset), bound);
  }
};

// The shape that serves an operation in lanes whose top bit is never set (`top_clear`) or may be.
constexpr Shape shape_of(Op op, bool top_clear) {
  if (op == Op::eq || op == Op::ne) return Shape::equal;
  return top_clear && !two_sided(op) ? Shape::above : Shape::range;
}

// The test of a set of codes in one vector's lanes. `scaled(code)` gives a vector with the code brought to where each
// lane has it. `Shape::above` needs a set that begins at 0 or ends at the top.
template <int lane_bits, Shape shape, class Code, class Scaled>
inline LaneTest<lane_bits, shape> lane_test(const CodeSet<Code>& set, const Scaled& scaled) {
  if constexpr (shape == Shape::equal) return {scaled(set.first), _mm_setzero_si128()};
  if constexpr (shape == Shape::above) {
    // From `first` to the top: above first - 1, which scaled is one below the first code that counts. Up to `span`: not
    // above it.
    if (set.first == 0) return {scaled(set.span), _mm_setzero_si128()};
    return {sub<lane_bits>(scaled(set.first), in_all_lanes<lane_bits>(1)), _mm_setzero_si128()};
  }
  if constexpr (shape == Shape::range) {
    const __m128i lowest = in_all_lanes<lane_bits>(sign_bit<lane_bits>);
    return {add<lane_bits>(scaled(set.span), lowest), sub<lane_bits>(lowest, scaled(set.first))};
  }
}

// Whether the gathered masks of lane_test have to be inverted to give the rows of the set.
template <Shape shape, class Code>
constexpr bool inverted(const CodeSet<Code>& set) {
  const bool masks_are_inside = shape == Shape::equal || (shape == Shape::above && set.first != 0);
  return masks_are_inside != set.inside;
}

// ---- Gathering ----

// One vector of `to`-bit lane masks from the `from`-bit ones that `masks` yields, beginning with its vector `first`.
template <int from, int to, int first, class Masks>
inline __m128i narrowed(const Masks& masks) {
  if constexpr (from == to) {
    return masks.template operator()<first>();
  } else {
    const __m128i left = narrowed<from, 2 * to, first>(masks);
    const __m128i right = narrowed<from, 2 * to, first + from / (2 * to)>(masks);
    // A 64-bit mask is two 32-bit masks, and saturates like these to two of 16 bits.
    return to == 8 ? _mm_packs_epi16(left, right) : _mm_packs_epi32(left, right);
  }
}

// The bits of the rows that the vectors 0, 1, ... of lane masks stand for, row 0 lowest: `masks.operator()<i>()` gives
// vector i. As many rows as Word has bits.
template <int lane_bits, class Word, class Masks>
inline Word gathered(const Masks& masks) {
  constexpr int pieces = sizeof(Word) / 2;  // of 16 rows
  constexpr int vectors = lane_bits / 8;    // per piece
  return [&]<int... i>(std::integer_sequence<int, i...>) {
    return static_cast<Word>(
        (... | (Word{static_cast<uint16_t>(_mm_movemask_epi8(narrowed<lane_bits, 8, i * vectors>(masks)))} << 16 * i)));
  }
  (std::make_integer_sequence<int, pieces>());
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
