// SPDX-License-Identifier: Apache-2.0
// Predicates in lanes: how a set of codes is tested in the lanes of a vector, and the loops that this gives.
//
// The idea: whatever the operation and its constants are, the codes that qualify are one interval or all but one
// interval, and there are three ways to test for that in lanes, each of them one or two instructions a vector. The
// gathered bits are inverted where the test finds the rows that don't qualify; this costs one XOR a word. The
// null-aware kernels take code 0 out of the interval, so they cost the same; only `ne` needs a way of its own.
//
// A family brings a source of codes, a small value that walks over a column:
//   Code, top, lane_bits              the type of a code, the highest one, the lane's width
//   Word, words_per_step              what a step gives: so many words of the bit vector
//   halves                            every so many vectors the position of the codes in their lanes repeats
//   has_at_least                      whether lanes of 32 bits have codes that never reach the top bit
//   sums_second_word                  with two words a step: whether to find the second one's rows by `summed`
//   begin_step()                      called before each step
//   codes<vector, ordered>()          the codes of vector `vector` of the word; their order must be right if `ordered`
//   next()                            moves on to the next word
//   scaled<half, ordered>(code)       `code` as codes<half>() would show it, in all lanes
//   tail(row), code(row)              see frame/predicate.h
#ifndef X86_LANES_H
#define X86_LANES_H

#include "frame/predicate.h"
#include "x86/kdzkc_x86.h"

namespace kdzk {

// equal     One code.
// at_least  All codes from one up. In lanes of 8 and 16 bits the rounded average (v + ~bound + 1) / 2 has its top bit
// set
//           exactly if v >= bound: an unsigned compare in one instruction. In lanes of 32 bits it is the signed
//           compare.
// range     An interval, in lanes of any kind: adding the offset brings the interval's first code to the lowest signed
//           number and wraps the codes below it round to the top, so that one signed compare sees both ends.
// neither   All codes but one and 0: the code is blanked, and what then isn't zero is found after narrowing.
enum class Shape { equal, at_least, range, neither };

constexpr bool needs_order(Shape shape) { return shape == Shape::at_least || shape == Shape::range; }

// The test of one vector's lanes, with its constants.
template <int lane_bits, Shape shape>
struct LaneTest {
  __m128i bound;
  __m128i offset;  // Shape::at_least: the lowest code that counts

  // A vector whose lanes have their top bits set where the test holds, and in lanes of 64 bits all other bits too. With
  // Shape::neither, lanes that aren't zero where it holds.
  __m128i operator()(__m128i codes) const {
    if constexpr (shape == Shape::equal) return equal<lane_bits>(codes, bound);
    if constexpr (shape == Shape::neither) return _mm_andnot_si128(equal<lane_bits>(codes, bound), codes);
    if constexpr (shape == Shape::range) return greater<lane_bits>(add<lane_bits>(codes, offset), bound);
    if constexpr (shape == Shape::at_least && lane_bits == 8) return _mm_avg_epu8(codes, bound);
    if constexpr (shape == Shape::at_least && lane_bits == 16) return _mm_avg_epu16(codes, bound);
    if constexpr (shape == Shape::at_least && lane_bits == 32) return _mm_cmpgt_epi32(codes, bound);
  }

  // In lanes of 8 bits: all bits set where the test holds, none where it doesn't; with Shape::neither the other way
  // round.
  __m128i mask(__m128i codes) const {
    if constexpr (shape == Shape::neither) return _mm_cmpeq_epi8((*this)(codes), _mm_setzero_si128());
    if constexpr (shape == Shape::at_least) return _mm_cmpeq_epi8(_mm_min_epu8(codes, offset), offset);
    return (*this)(codes);
  }
};

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
  if constexpr (!needs_order(shape)) return {scaled(set.first), none};
  if constexpr (shape == Shape::at_least) {
    // One above the scaled code is below any code that follows it.
    const __m128i bound = tests_above(set, top) ? sub<lane_bits>(scaled(set.span), all_ones) : scaled(set.first);
    return {lane_bits == 32 ? add<lane_bits>(bound, all_ones) : _mm_xor_si128(bound, all_ones), bound};
  }
  if constexpr (shape == Shape::range) {
    const __m128i lowest = in_all_lanes<lane_bits>(sign_bit<lane_bits>);
    return {add<lane_bits>(scaled(set.span), lowest), sub<lane_bits>(lowest, scaled(set.first))};
  }
}

// Whether the gathered bits of lane_test have to be inverted to give the rows of the set.
template <Shape shape, class Code>
constexpr bool inverted(const CodeSet<Code>& set, Code top) {
  if (shape == Shape::neither) return false;
  const bool tests_inside = shape == Shape::equal || (shape == Shape::at_least && !tests_above(set, top));
  return tests_inside != set.inside;
}

// The top bits of the lanes of vectors 0, 1, ... in row order, row 0 lowest, as many rows as Word has bits; with
// `nonzero`, which lanes aren't zero. `tests.operator()<i>()` gives vector i.
template <int lane_bits, class Word, bool nonzero, class Tests>
inline Word gathered(const Tests& tests) {
  constexpr int vectors_per_16_rows = lane_bits / 8;
  const auto bits_of = [](__m128i rows) {  // a byte per row
    if constexpr (!nonzero) return static_cast<uint32_t>(_mm_movemask_epi8(rows));
    return static_cast<uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(rows, _mm_setzero_si128()))) ^ 0xffffu;
  };
  if constexpr (sizeof(Word) == 1) {
    const __m128i rows = narrowed<lane_bits, 16, 0>(tests);  // 8 rows, 16 bits each
    return static_cast<Word>(bits_of(_mm_packs_epi16(rows, rows)));
  } else {
    return [&]<int... i>(std::integer_sequence<int, i...>) {
      return static_cast<Word>(
          (... | (static_cast<Word>(bits_of(narrowed<lane_bits, 8, i * vectors_per_16_rows>(tests))) << 16 * i)));
    }
    (std::make_integer_sequence<int, sizeof(Word) / 2>());
  }
}

// The rows of four vectors of masks of 8-bit lanes, found in the vector units: each lane gets the bit of its row in a
// byte, and the sum of eight lanes is that byte. By itself no faster than the mask moves of `gathered`, of which the
// processor does one a cycle, but it leaves them alone: taking turns, 8-bit codes gain 1.35 times, 4-bit codes 1.05,
// 2-bit codes lose as much (Zen 4, g++ 12; kdzk_bench, lt_dict_*bit/64Ki).
template <class Masks>
inline uint64_t summed(const Masks& masks) {
  const auto sums = [&]<int i>() {  // two sums, in lanes of 64 bits
    const __m128i bits =
        _mm_and_si128(masks.template operator()<i>(), _mm_set1_epi64x(static_cast<long long>(0x8040201008040201)));
    return _mm_sad_epu8(bits, _mm_setzero_si128());
  };
  const __m128i bytes = narrowed<64, 16, 0>(sums);  // 8 of them, 16 bits each
  return static_cast<uint64_t>(_mm_cvtsi128_si64(_mm_packus_epi16(bytes, bytes)));
}

// A set of codes, ready for the lanes of a source.
template <class Source, Shape shape>
struct Lanes {
  using Word = typename Source::Word;
  LaneTest<Source::lane_bits, shape> test[Source::halves];
  Word inversion;

  explicit Lanes(const CodeSet<typename Source::Code>& set)
      : inversion(inverted<shape>(set, Source::top) ? static_cast<Word>(~Word{0}) : Word{0}) {
    constexpr bool ordered = needs_order(shape);
    test[0] = lane_test<Source::lane_bits, shape>(set, Source::top, Source::template scaled<0, ordered>);
    if constexpr (Source::halves == 2)
      test[1] = lane_test<Source::lane_bits, shape>(set, Source::top, Source::template scaled<1, ordered>);
  }

  // The rows of the word that the source stands at, word `index` of a step.
  template <int index>
  Word word(const Source& source) const {
    constexpr bool ordered = needs_order(shape);
    if constexpr (Source::lane_bits == 8 && Source::sums_second_word && index == 1) {
      const Word inside_out = shape == Shape::neither ? static_cast<Word>(~Word{0}) : Word{0};
      return inversion ^ inside_out ^
             summed([&]<int vector>() { return test[0].mask(source.template codes<vector, ordered>()); });
    }
    return inversion ^ gathered<Source::lane_bits, Word, shape == Shape::neither>([&]<int vector>() {
             return test[vector % Source::halves](source.template codes<vector, ordered>());
           });
  }
};

// The set without code 0. It must stay an interval or all but an interval, as it does for all operations but `ne`.
template <class Code>
constexpr CodeSet<Code> without_zero(const CodeSet<Code>& set, Code top) {
  const CodeSet<Code> none = {0, top, false};
  const auto from_one_to = [&](Code last) {
    return last == 0 ? none : CodeSet<Code>{1, static_cast<Code>(last - 1), true};
  };
  if (set.inside) return set.first == 0 ? from_one_to(set.span) : set;
  return set.first == 0 ? set : from_one_to(static_cast<Code>(set.first - 1));
}

// The shape that serves an operation best; `set` is what remains of its codes.
template <bool nulls, class Code>
constexpr Shape shape_of(Op op, const CodeSet<Code>& set, bool has_at_least) {
  const bool empty = set.first == 0 && !set.inside;
  switch (op) {
    case Op::eq:
      return nulls && empty ? Shape::range : Shape::equal;
    case Op::ne:
      return nulls ? Shape::neither : Shape::equal;
    case Op::gt:
    case Op::ge:
      return has_at_least ? Shape::at_least : Shape::range;
    case Op::lt:
    case Op::le:
      return has_at_least && !nulls ? Shape::at_least : Shape::range;
    default:
      return Shape::range;
  }
}

// The codes of a null-aware kernel, for single rows: code 0 never qualifies.
template <class Code>
struct NonNullCodes {
  CodeSet<Code> set;
  constexpr bool has(Code code) const { return (code != 0) & set.has(code); }
};

// All rows of a vector, in lanes. `set` has the codes that qualify among those that a lane can hold, `codes` tells it
// for single rows.
template <bool nulls, class Source, class Codes>
inline uint32_t evaluate_in_lanes(const Source& source, Op op, CodeSet<typename Source::Code> set, const Codes& codes,
                                  uint8_t* bits, uint32_t nrows) {
  if (nulls && op != Op::ne) set = without_zero(set, Source::top);
  const auto by = [&]<Shape shape>() {
    const Lanes<Source, shape> lanes(set);
    return evaluate_steps(
        source, [&]<int index>(const Source& at) { return lanes.template word<index>(at); }, codes, bits, nrows);
  };
  switch (shape_of<nulls>(op, set, Source::has_at_least)) {
    case Shape::equal:
      return by.template operator()<Shape::equal>();
    case Shape::at_least:
      if constexpr (Source::has_at_least) return by.template operator()<Shape::at_least>();
      break;
    case Shape::range:
      return by.template operator()<Shape::range>();
    case Shape::neither:
      if constexpr (nulls) return by.template operator()<Shape::neither>();
      break;
  }
  __builtin_unreachable();
}

}  // namespace kdzk

#endif
