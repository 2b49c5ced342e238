// SPDX-License-Identifier: Apache-2.0

#include "bench/peers/plain_loops.h"

#include <emmintrin.h>

#include <cstring>
#include <type_traits>

#include "bench/peers/packed.h"

namespace kdzk_bench {
namespace {

template <int W>
using Native =
    std::conditional_t<W <= 8, uint8_t,
                       std::conditional_t<W <= 16, uint16_t, std::conditional_t<W <= 32, uint32_t, uint64_t>>>;

template <int W>
Native<W> native_code(const uint8_t* stream, uint32_t row) {
  return static_cast<Native<W>>(packed_code<W>(stream, row));
}

// Writes the rows for which `holds` is true, 64 at a time, and counts them.
template <class Holds>
uint32_t by_words(uint64_t* bits, uint32_t nrows, const Holds& holds) {
  uint32_t hits = 0;
  for (uint32_t first = 0; first < nrows; first += 64) {
    const uint32_t rows = nrows - first < 64 ? nrows - first : 64;
    uint64_t word = 0;
    for (uint32_t i = 0; i < rows; i++) word |= uint64_t{holds(first + i)} << i;
    bits[first / 64] = word;
    hits += static_cast<uint32_t>(__builtin_popcountll(word));
  }
  return hits;
}

// Calls `f.operator()<width>()` for a width known only now.
template <int W = 1, class F>
auto with_width(int width, const F& f) {
  if constexpr (W < 64) {
    return width == W ? f.template operator()<W>() : with_width<(W < 32 ? W + 1 : 64)>(width, f);
  } else {
    return f.template operator()<64>();
  }
}

template <int W>
constexpr int length_bits = W == 16   ? 1
                            : W == 32 ? 2
                                      : 4;

template <int W>
uint32_t length_code(const uint8_t* lengths, uint32_t row) {
  constexpr uint32_t bits = length_bits<W>, per_byte = 8 / bits;
  return lengths[row / per_byte] >> (bits * (per_byte - 1 - row % per_byte)) & ((1u << bits) - 1);
}

uint64_t big_endian(const uint8_t* at, int bytes) {
  uint8_t local[8] = {};
  std::memcpy(local, at, static_cast<size_t>(bytes));
  return __builtin_bswap64(load<uint64_t>(local));
}

template <class F>
uint32_t with_length_width(int width, const F& f) {
  return width == 16   ? f.template operator()<16>()
         : width == 32 ? f.template operator()<32>()
                       : f.template operator()<64>();
}

}  // namespace

uint32_t lt_packed_with_if(const uint8_t* stream, int width, uint32_t k, uint64_t* bits, uint32_t nrows) {
  return with_width(width, [=]<int W>() {
    uint32_t hits = 0;
    for (uint32_t row = 0; row < nrows; row++) {
      if (native_code<W>(stream, row) < k) {
        bits[row / 64] |= uint64_t{1} << row % 64;
        hits++;
      }
    }
    return hits;
  });
}

uint32_t lt_packed(const uint8_t* stream, int width, uint32_t k, uint64_t* bits, uint32_t nrows) {
  return with_width(width, [=]<int W>() {
    return by_words(bits, nrows, [=](uint32_t row) { return native_code<W>(stream, row) < k; });
  });
}

uint32_t lt_stored(const uint8_t* values, int width, int bytes, uint64_t k, uint64_t* bits, uint32_t nrows) {
  return with_width(width, [=]<int W>() {
    if (bytes * 8 == W) return by_words(bits, nrows, [=](uint32_t row) { return native_code<W>(values, row) < k; });
    return by_words(bits, nrows, [=](uint32_t row) {
      const uint64_t value = __builtin_bswap64(load<uint64_t>(values + uint64_t{row} * static_cast<uint64_t>(bytes)));
      return value >> (64 - 8 * bytes) << (W - 8 * bytes) < k;
    });
  });
}

uint32_t lt_native(const void* codes, int width, uint64_t k, uint64_t* bits, uint32_t nrows) {
  return with_width(width, [=]<int W>() {
    const auto* const at = static_cast<const Native<W>*>(codes);
    const auto constant = static_cast<Native<W>>(k);
    return by_words(bits, nrows, [=](uint32_t row) { return at[row] < constant; });
  });
}

uint32_t lt_unpack_then_compare(const uint8_t* stream, int width, uint64_t k, uint64_t* bits, uint32_t nrows) {
  return with_width(width, [=]<int W>() {
    Native<W> codes[1024];
    uint32_t hits = 0;
    for (uint32_t first = 0; first < nrows; first += 1024) {
      const uint32_t rows = nrows - first < 1024 ? nrows - first : 1024;
      for (uint32_t i = 0; i < rows; i++) codes[i] = native_code<W>(stream, first + i);
      hits += lt_native(codes, W, k, bits + first / 64, rows);
    }
    return hits;
  });
}

uint32_t lt_cut(const uint8_t* data, const uint8_t* lengths, int width, uint64_t k, uint64_t* bits, uint32_t nrows) {
  return with_length_width(width, [=]<int W>() {
    const uint8_t* at = data;
    return by_words(bits, nrows, [=, &at](uint32_t row) {
      const int length = static_cast<int>(length_code<W>(lengths, row)) + 1;
      const uint64_t value = big_endian(at, length) >> (64 - W);
      at += length;
      return value < k;
    });
  });
}

uint32_t lt_pairs(const uint8_t* values, const uint8_t* lengths, int width, uint64_t k, uint32_t k_code, uint64_t* bits,
                  uint32_t nrows) {
  return with_length_width(width, [=]<int W>() {
    return by_words(bits, nrows, [=](uint32_t row) {
      const uint64_t value = native_code<W>(values, row);
      return value < k || (value == k && length_code<W>(lengths, row) < k_code);
    });
  });
}

void unpack(const uint8_t* stream, int width, void* codes, uint32_t nrows) {
  with_width(width, [=]<int W>() {
    auto* const at = static_cast<Native<W>*>(codes);
    for (uint32_t row = 0; row < nrows; row++) at[row] = native_code<W>(stream, row);
    return 0;
  });
}

int native_bytes(int width) { return width <= 8 ? 1 : width <= 16 ? 2 : width <= 32 ? 4 : 8; }

uint64_t bare_read(const uint8_t* from, uint64_t bytes) {
  __m128i all = _mm_setzero_si128();
#pragma GCC unroll 4  // one load a cycle; without, g++ 12 gets half of that on some addresses of the loop
  for (const uint8_t* end = from + bytes / 16 * 16; from < end; from += 16) {
    all = _mm_or_si128(all, _mm_loadu_si128(reinterpret_cast<const __m128i*>(from)));
  }
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
