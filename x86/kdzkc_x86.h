// SPDX-License-Identifier: Apache-2.0
// The instruction-level vocabulary of the kernel families: vectors with contents computed at compile time, compares of
// lanes with a set of codes, the gathering of lane masks to bits, and the scalar fetch of a packed code.
//
// Lanes are 8, 16, 32 or 64 bits wide; a vector has 128 / lane_bits of them, lane 0 lowest.
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

// How a set of codes is tested in lanes.
//   equal     one code.
//   at_least  all codes from one up. In lanes of 8 and 16 bits the rounded average (v + ~bound + 1) / 2 has its top bit
//             set exactly if v >= bound, an unsigned compare in one instruction. In lanes of 32 bits it is the signed
//             compare, and no code may reach the top bit.
//   range     an interval, in lanes of any kind: adding the offset brings the interval's first code to the lowest
//   signed
//             number and wraps the codes below it round to the top, so that one signed compare sees both ends.
enum class Shape { equal, at_least, range };

// The test of one vector's lanes, with its constants.
template <int lane_bits, Shape shape>
struct LaneTest {
  __m128i bound;
  __m128i offset;

  // A vector whose lanes have their top bits set where the test holds. In lanes of 64 bits all other bits are the same.
  __m128i operator()(__m128i codes) const {
    if constexpr (shape == Shape::equal) return equal<lane_bits>(codes, bound);
    if constexpr (shape == Shape::range) return greater<lane_bits>(add<lane_bits>(codes, offset), bound);
    if constexpr (shape == Shape::at_least && lane_bits == 8) return _mm_avg_epu8(codes, bound);
    if constexpr (shape == Shape::at_least && lane_bits == 16) return _mm_avg_epu16(codes, bound);
    if constexpr (shape == Shape::at_least && lane_bits == 32) return _mm_cmpgt_epi32(codes, bound);
  }
};

// The shape that serves an operation best.
constexpr Shape shape_of(Op op, bool has_at_least) {
  if (op == Op::eq || op == Op::ne) return Shape::equal;
  return has_at_least && !two_sided(op) ? Shape::at_least : Shape::range;
}

// Whether Shape::at_least tests for the codes above the set's last, rather than for those from its first up.
template <class Code>
constexpr bool tests_above(const CodeSet<Code>& set, Code top) {
  return set.first == 0 && set.span != top;
}

// The test of a set of codes from 0 to `top`. `scaled(code)` gives a vector with the code brought to where each lane
// has its own. Shape::at_least needs a set that begins at 0 or ends at the top.
template <int lane_bits, Shape shape, class Code, class Scaled>
inline LaneTest<lane_bits, shape> lane_test(const CodeSet<Code>& set, Code top, const Scaled& scaled) {
  const __m128i none = _mm_setzero_si128(), all_ones = in_all_lanes<lane_bits>(~uint64_t{0});
  if constexpr (shape == Shape::equal) return {scaled(set.first), none};
  if constexpr (shape == Shape::at_least) {
    // One above the scaled code is below any code that follows it.
    const __m128i bound = tests_above(set, top) ? sub<lane_bits>(scaled(set.span), all_ones) : scaled(set.first);
    return {lane_bits == 32 ? add<lane_bits>(bound, all_ones) : _mm_xor_si128(bound, all_ones), none};
  }
  if constexpr (shape == Shape::range) {
    const __m128i lowest = in_all_lanes<lane_bits>(sign_bit<lane_bits>);
    return {add<lane_bits>(scaled(set.span), lowest), sub<lane_bits>(lowest, scaled(set.first))};
  }
}

// Whether the gathered bits of lane_test have to be inverted to give the rows of the set.
template <Shape shape, class Code>
constexpr bool inverted(const CodeSet<Code>& set, Code top) {
  const bool tests_inside = shape == Shape::equal || (shape == Shape::at_least && !tests_above(set, top));
  return tests_inside != set.inside;
}

// ---- Gathering ----

// One vector of `to`-bit lanes with the top bits of the `from`-bit lanes that `tests` yields, beginning with its vector
// `first`. Saturation keeps the top bit of a lane.
template <int from, int to, int first, class Tests>
inline __m128i narrowed(const Tests& tests) {
  if constexpr (from == to) {
    return tests.template operator()<first>();
  } else {
    const __m128i left = narrowed<from, 2 * to, first>(tests);
    const __m128i right = narrowed<from, 2 * to, first + from / (2 * to)>(tests);
    // A lane of 64 equal bits is two of 32, and saturates like these to two of 16.
    return to == 8 ? _mm_packs_epi16(left, right) : _mm_packs_epi32(left, right);
  }
}

// The top bits of the lanes of vectors 0, 1, ... in row order, row 0 lowest: `tests.operator()<i>()` gives vector i. As
// many rows as Word has bits.
template <int lane_bits, class Word, class Tests>
inline Word gathered(const Tests& tests) {
  constexpr int pieces = sizeof(Word) / 2;  // of 16 rows
  constexpr int vectors = lane_bits / 8;    // per piece
  return [&]<int... i>(std::integer_sequence<int, i...>) {
    return static_cast<Word>(
        (... | (static_cast<Word>(static_cast<uint32_t>(_mm_movemask_epi8(narrowed<lane_bits, 8, i * vectors>(tests))))
                << 16 * i)));
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
