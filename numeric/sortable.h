// SPDX-License-Identifier: Apache-2.0
// Floats and doubles in lanes, the sortable form, and sums in lanes: what the numeric kernels share.
//
// The sortable form of a value is its bits, all of them inverted if the sign bit is set and otherwise the sign bit
// alone, as a big-endian number. Its bytes then sort as the values do. To go back, reverse the bytes and invert again:
//
//    1.0f = 3f 80 00 00  <->  bf 80 00 00          the top bit says which bits to invert: the blend of the two
//   -1.0f = bf 80 00 00  <->  40 7f ff ff          constants needs no other bit of it
//
// Decoding is a shuffle, a blend and an XOR a vector, so that two operands and two additions are 8 of the 12 operations
// that the vector units do in the 3 cycles that an addition takes.
//
// The order of additions is part of what the kernels promise. It is written out here once, and nothing may change it:
// no contraction, no reassociation, and, since the host's rounding mode holds, no folding of what rounds.
#ifndef NUMERIC_SORTABLE_H
#define NUMERIC_SORTABLE_H

#include <bit>

#include "frame/families.h"
#include "x86/kdzkc_x86.h"

namespace kdzk {

template <class T>
struct Values;

template <>
struct Values<float> {
  using Bits = uint32_t;
  using Vector = __m128;
  static constexpr uint32_t lanes = 4;

  static Vector load(const uint8_t* at) { return _mm_castsi128_ps(load16(at)); }
  static void store(uint8_t* at, Vector v) { store16(at, _mm_castps_si128(v)); }
  static Vector in_all_lanes(float value) { return _mm_set1_ps(value); }
  static Vector add(Vector a, Vector b) { return _mm_add_ps(a, b); }
  static Vector sub(Vector a, Vector b) { return _mm_sub_ps(a, b); }
  static Vector mul(Vector a, Vector b) { return _mm_mul_ps(a, b); }
  static Vector flipped(Vector v, Vector if_top_set, Vector if_top_clear) {
    return _mm_xor_ps(v, _mm_blendv_ps(if_top_clear, if_top_set, v));
  }
  // By shuffles: from an array of the lanes the compiler would conclude to keep them in memory all along.
  static float sum_of_lanes(Vector v) {
    const Vector pairs = _mm_add_ps(v, _mm_movehdup_ps(v));  // 0 + 1, _, 2 + 3, _
    return _mm_cvtss_f32(_mm_add_ss(pairs, _mm_movehl_ps(pairs, pairs)));
  }
};

template <>
struct Values<double> {
  using Bits = uint64_t;
  using Vector = __m128d;
  static constexpr uint32_t lanes = 2;

  static Vector load(const uint8_t* at) { return _mm_castsi128_pd(load16(at)); }
  static void store(uint8_t* at, Vector v) { store16(at, _mm_castpd_si128(v)); }
  static Vector in_all_lanes(double value) { return _mm_set1_pd(value); }
  static Vector add(Vector a, Vector b) { return _mm_add_pd(a, b); }
  static Vector sub(Vector a, Vector b) { return _mm_sub_pd(a, b); }
  static Vector mul(Vector a, Vector b) { return _mm_mul_pd(a, b); }
  static Vector flipped(Vector v, Vector if_top_set, Vector if_top_clear) {
    return _mm_xor_pd(v, _mm_blendv_pd(if_top_clear, if_top_set, v));
  }
  static double sum_of_lanes(Vector v) { return _mm_cvtsd_f64(_mm_add_sd(v, _mm_unpackhi_pd(v, v))); }
};

// The shuffle that reverses the bytes of each number of `bytes` bytes.
template <int bytes>
inline constexpr std::array<uint8_t, 16> byte_reversal = [] {
  std::array<uint8_t, 16> from{};
  for (int at = 0; at < 16; at++) from[at] = static_cast<uint8_t>(at / bytes * bytes + bytes - 1 - at % bytes);
  return from;
}();
static_assert(byte_reversal<4> == std::array<uint8_t, 16>{3, 2, 1, 0, 7, 6, 5, 4, 11, 10, 9, 8, 15, 14, 13, 12});
static_assert(byte_reversal<8> == std::array<uint8_t, 16>{7, 6, 5, 4, 3, 2, 1, 0, 15, 14, 13, 12, 11, 10, 9, 8});

// The value whose sortable form is this number.
template <class T>
constexpr T from_sortable(typename Values<T>::Bits number) {
  using Bits = typename Values<T>::Bits;
  constexpr int top = 8 * sizeof(Bits) - 1;
  const Bits inverted = Bits{1} << top | static_cast<Bits>((number >> top) - 1);
  return std::bit_cast<T>(number ^ inverted);
}
static_assert(from_sortable<float>(0xbf800000) == 1.0f && from_sortable<float>(0x407fffff) == -1.0f);
static_assert(std::bit_cast<uint32_t>(from_sortable<float>(0x80000000)) == 0);
static_assert(std::bit_cast<uint64_t>(from_sortable<double>(0x7fffffffffffffff)) == 0x8000000000000000);

// The value at `at`, of which exactly its own bytes are read.
template <class T, Form form>
inline T value_at(const uint8_t* at) {
  if constexpr (form == Form::native) return load<T>(at);
  if constexpr (form == Form::sortable && sizeof(T) == 4) return from_sortable<T>(load_be32(at));
  if constexpr (form == Form::sortable && sizeof(T) == 8) return from_sortable<T>(load_be64(at));
}

// The 16 bytes of values at `at`.
template <class T, Form form>
inline typename Values<T>::Vector values_at(const uint8_t* at) {
  using V = Values<T>;
  if constexpr (form == Form::native) return V::load(at);
  if constexpr (form == Form::sortable) {
    using Bits = typename V::Bits;
    const __m128i numbers = _mm_shuffle_epi8(load16(at), vector_of(byte_reversal<sizeof(T)>));
    const auto in_lanes = [](Bits bits) { return V::in_all_lanes(std::bit_cast<T>(bits)); };
    return V::flipped(std::bit_cast<typename V::Vector>(numbers), in_lanes(sign_bit<8 * sizeof(T)>),
                      in_lanes(static_cast<Bits>(~Bits{0})));
  }
}

// The part of `n` rows that whole vectors take.
template <class T>
constexpr uint64_t rows_in_vectors(uint64_t n) {
  return n / Values<T>::lanes * Values<T>::lanes;
}

// Writes `n` rows to an array, row r from vector(r) or value(r). No row is written before those of its vector are read:
// the array may be what they are made from, row upon row.
template <class T, class VectorAt, class ValueAt>
inline void write_rows(uint8_t* out, const VectorAt& vector, const ValueAt& value, uint64_t n) {
  constexpr uint64_t lanes = Values<T>::lanes, step = 4 * lanes;
  uint64_t row = 0;
  for (; n - row >= step; row += step) {
#pragma GCC unroll 4
    for (uint64_t i = 0; i < step; i += lanes) Values<T>::store(out + (row + i) * sizeof(T), vector(row + i));
  }
  for (; row < rows_in_vectors<T>(n); row += lanes) Values<T>::store(out + row * sizeof(T), vector(row));
  for (; row < n; row++) store(out + row * sizeof(T), value(row));
}

// The sum of the first `n` rows, whole vectors: each lane from +0 on in row order, then the lanes by pairs. `vector(r)`
// gives the rows from r on.
template <class T, class VectorAt>
inline T sum_in_lanes(const VectorAt& vector, uint64_t n) {
  using V = Values<T>;
  auto sums = V::in_all_lanes(T{0});
  for (uint64_t row = 0; row < n; row += V::lanes) sums = V::add(sums, vector(row));
  return V::sum_of_lanes(sums);
}

// `sum` and the rows from `first` to n - 1, in row order.
template <class T, class ValueAt>
inline T sum_in_order(T sum, const ValueAt& value, uint64_t first, uint64_t n) {
  for (uint64_t row = first; row < n; row++) sum = sum + value(row);
  return sum;
}

}  // namespace kdzk

#endif
