// SPDX-License-Identifier: Apache-2.0

#include "bench/peers/plain_loops.h"

#include <emmintrin.h>

#include <cstring>

namespace kdzk_bench {
namespace {

template <int W>
uint32_t code(const uint8_t* stream, uint32_t row) {
  const uint64_t bit = uint64_t{row} * W;
  uint64_t span;
  std::memcpy(&span, stream + bit / 32 * 4, 8);
  return static_cast<uint32_t>(__builtin_bswap64(span) << bit % 32 >> (64 - W));
}

template <int W>
uint32_t lt(const uint8_t* stream, uint32_t k, uint64_t* bits, uint32_t nrows) {
  uint32_t hits = 0;
  for (uint32_t row = 0; row < nrows; row++) {
    if (code<W>(stream, row) < k) {
      bits[row / 64] |= uint64_t{1} << row % 64;
      hits++;
    }
  }
  return hits;
}

template <int W>
uint32_t lt_branchless(const uint8_t* stream, uint32_t k, uint64_t* bits, uint32_t nrows) {
  uint32_t hits = 0;
  for (uint32_t first = 0; first < nrows; first += 64) {
    const uint32_t rows = nrows - first < 64 ? nrows - first : 64;
    uint64_t word = 0;
    for (uint32_t i = 0; i < rows; i++) word |= uint64_t{code<W>(stream, first + i) < k} << i;
    bits[first / 64] = word;
    hits += static_cast<uint32_t>(__builtin_popcountll(word));
  }
  return hits;
}

// Calls `f.operator()<width>()` for a width known only now.
template <int W = 1, class F>
uint32_t with_width(int width, F f) {
  if constexpr (W <= 32) {
    return width == W ? f.template operator()<W>() : with_width<W + 1>(width, f);
  } else {
    __builtin_trap();
  }
}

}  // namespace

uint32_t lt_packed(const uint8_t* stream, int width, uint32_t k, uint64_t* bits, uint32_t nrows) {
  return with_width(width, [=]<int W>() { return lt<W>(stream, k, bits, nrows); });
}

uint32_t lt_packed_branchless(const uint8_t* stream, int width, uint32_t k, uint64_t* bits, uint32_t nrows) {
  return with_width(width, [=]<int W>() { return lt_branchless<W>(stream, k, bits, nrows); });
}

uint64_t bare_read(const uint8_t* from, uint64_t bytes) {
  __m128i a = _mm_setzero_si128(), b = a, c = a, d = a;  // four chains, so that the loads set the pace
  const auto* at = reinterpret_cast<const __m128i*>(from);
  for (const auto* end = at + bytes / 64 * 4; at < end; at += 4) {
    a = _mm_or_si128(a, _mm_loadu_si128(at));
    b = _mm_or_si128(b, _mm_loadu_si128(at + 1));
    c = _mm_or_si128(c, _mm_loadu_si128(at + 2));
    d = _mm_or_si128(d, _mm_loadu_si128(at + 3));
  }
  const __m128i all = _mm_or_si128(_mm_or_si128(a, b), _mm_or_si128(c, d));
  return static_cast<uint64_t>(_mm_cvtsi128_si64(_mm_or_si128(all, _mm_srli_si128(all, 8))));
}

uint32_t and_count(uint64_t* dst, const uint64_t* a, const uint64_t* b, uint64_t words) {
  uint32_t count = 0;
  for (uint64_t i = 0; i < words; i++) {
    dst[i] = a[i] & b[i];
    count += static_cast<uint32_t>(__builtin_popcountll(dst[i]));
  }
  return count;
}

uint32_t count_words(const uint64_t* a, uint64_t words) {
  uint32_t count = 0;
  for (uint64_t i = 0; i < words; i++) count += static_cast<uint32_t>(__builtin_popcountll(a[i]));
  return count;
}

uint32_t list_set_rows(const uint64_t* bits, uint32_t nrows, uint32_t* rows) {
  uint32_t count = 0;
  for (uint32_t row = 0; row < nrows; row++) {
    if (bits[row / 64] >> row % 64 & 1) rows[count++] = row;
  }
  return count;
}

}  // namespace kdzk_bench
