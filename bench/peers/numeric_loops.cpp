// SPDX-License-Identifier: Apache-2.0

#include "bench/peers/numeric_loops.h"

#include <emmintrin.h>

#include <bit>
#include <type_traits>

#include "bench/peers/packed.h"

namespace kdzk_bench {
namespace {

template <class T>
T sortable(const uint8_t* at) {
  if constexpr (sizeof(T) == 4) {
    const uint32_t number = __builtin_bswap32(load<uint32_t>(at));
    return std::bit_cast<T>(number >> 31 != 0 ? number & 0x7fffffff : ~number);
  } else {
    const uint64_t number = __builtin_bswap64(load<uint64_t>(at));
    return std::bit_cast<T>(number >> 63 != 0 ? number & 0x7fffffffffffffff : ~number);
  }
}

}  // namespace

template <class T>
void PlainLoops<T>::add(const T* left, const T* right, uint32_t n, T* out) {
  for (uint32_t row = 0; row < n; row++) out[row] = left[row] + right[row];
}

template <class T>
void PlainLoops<T>::multiply(const T* left, T right, uint32_t n, T* out) {
  for (uint32_t row = 0; row < n; row++) out[row] = left[row] * right;
}

template <class T>
void PlainLoops<T>::add_sortable(const uint8_t* left, const uint8_t* right, uint32_t n, T* out) {
  for (uint32_t row = 0; row < n; row++)
    out[row] = sortable<T>(left + row * sizeof(T)) + sortable<T>(right + row * sizeof(T));
}

template <class T>
void PlainLoops<T>::decode(const uint8_t* column, uint32_t n, T* out) {
  for (uint32_t row = 0; row < n; row++) out[row] = sortable<T>(column + row * sizeof(T));
}

template <class T>
T PlainLoops<T>::sum(const T* left, const T* right, uint32_t n) {
  T sum = 0;
  for (uint32_t row = 0; row < n; row++) sum += left[row] + right[row];
  return sum;
}

template <class T>
T PlainLoops<T>::sum_sortable(const uint8_t* column, uint32_t n) {
  T sum = 0;
  for (uint32_t row = 0; row < n; row++) sum += sortable<T>(column + row * sizeof(T));
  return sum;
}

template <class T>
void PlainLoops<T>::sum_by_group(const uint8_t* column, const uint32_t* groups, uint32_t n, T* sums) {
  for (uint32_t row = 0; row < n; row++) sums[groups[row]] += sortable<T>(column + row * sizeof(T));
}

template <class T>
void PlainLoops<T>::adder_chain(uint32_t n) {
  if constexpr (sizeof(T) == 4) {
    __m128 sums = _mm_setzero_ps();
    const __m128 one = _mm_set1_ps(1);
    for (uint32_t row = 0; row < n; row += 4) {
      sums = _mm_add_ps(sums, one);
      asm volatile("" : "+x"(sums));
    }
  } else {
    __m128d sums = _mm_setzero_pd();
    const __m128d one = _mm_set1_pd(1);
    for (uint32_t row = 0; row < n; row += 2) {
      sums = _mm_add_pd(sums, one);
      asm volatile("" : "+x"(sums));
    }
  }
}

template struct PlainLoops<float>;
template struct PlainLoops<double>;

template <class Integer>
uint64_t sum_integers(const uint8_t* column, uint32_t n) {
  uint64_t sum = 0;
  for (uint32_t row = 0; row < n; row++) {
    std::make_unsigned_t<Integer> number = load<std::make_unsigned_t<Integer>>(column + row * sizeof(Integer));
    if constexpr (sizeof(Integer) == 2) number = __builtin_bswap16(number);
    if constexpr (sizeof(Integer) == 4) number = __builtin_bswap32(number);
    if constexpr (sizeof(Integer) == 8) number = __builtin_bswap64(number);
    sum += static_cast<uint64_t>(static_cast<Integer>(number));
  }
  return sum;
}

template uint64_t sum_integers<int8_t>(const uint8_t*, uint32_t);
template uint64_t sum_integers<int16_t>(const uint8_t*, uint32_t);
template uint64_t sum_integers<int32_t>(const uint8_t*, uint32_t);
template uint64_t sum_integers<int64_t>(const uint8_t*, uint32_t);

void read_both(const void* left, const void* right, uint64_t bytes) {
  const auto *l = static_cast<const __m128i*>(left), *r = static_cast<const __m128i*>(right);
  for (uint64_t i = 0; i + 4 <= bytes / 16; i += 4) {
    for (uint64_t j = 0; j < 4; j++) {
      const __m128i a = _mm_loadu_si128(l + i + j), b = _mm_loadu_si128(r + i + j);
      asm volatile("" ::"x"(a), "x"(b));
    }
  }
}

uint32_t crossings_of_chain(const double* xs, const double* ys, uint32_t n, double px, double py) {
  uint32_t crossings = 0;
  for (uint32_t i = 0; i + 1 < n; i++) {
    if ((py < ys[i]) == (py < ys[i + 1])) continue;
    const double dy = ys[i + 1] - ys[i], a = (px - xs[i]) * dy, b = (xs[i + 1] - xs[i]) * (py - ys[i]);
    crossings += dy < 0 ? b < a : a < b;
  }
  return crossings;
}

}  // namespace kdzk_bench
