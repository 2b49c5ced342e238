// SPDX-License-Identifier: Apache-2.0

#include "bench/peers/unpack_loops.h"

#include <emmintrin.h>

#include <algorithm>
#include <cstring>

#include "bench/peers/packed.h"

namespace kdzk_bench {
namespace {

// Calls `f.operator()<width, Element>()` for a width and an element size known only now.
template <int W = 1, class F>
auto with_types(int width, int element, const F& f) {
  if constexpr (W < 32) {
    if (width != W) return with_types<W + 1>(width, element, f);
  }
  if (element == 1) return f.template operator()<W, uint8_t>();
  return element == 2 ? f.template operator()<W, uint16_t>() : f.template operator()<W, uint32_t>();
}

}  // namespace

void unpack_loop(const uint8_t* stream, int width, int element, void* out, uint32_t nrows) {
  with_types(width, element, [=]<int W, class E>() {
    auto* const to = static_cast<E*>(out);
    for (uint32_t row = 0; row < nrows; row++) to[row] = static_cast<E>(packed_code<W>(stream, row));
  });
}

uint32_t unpack_selected_loop(const uint8_t* stream, int width, int element, const uint64_t* bits, void* out,
                              uint32_t nrows) {
  return with_types(width, element, [=]<int W, class E>() {
    auto* const to = static_cast<E*>(out);
    uint32_t n = 0;
    for (uint32_t row = 0; row < nrows; row++) {
      if (bits[row / 64] >> row % 64 & 1) to[n++] = static_cast<E>(packed_code<W>(stream, row));
    }
    return n;
  });
}

void expand_runs_loop(const uint8_t* stream, int width, int element, const uint8_t* lengths, uint32_t runs, void* out) {
  with_types(width, element, [=]<int W, class E>() {
    auto* to = static_cast<E*>(out);
    for (uint32_t run = 0; run < runs; run++)
      to = std::fill_n(to, lengths[run], static_cast<E>(packed_code<W>(stream, run)));
  });
}

void store_loop(void* out, uint64_t bytes) {
  const __m128i ones = _mm_set1_epi8(1);
  auto* to = static_cast<__m128i*>(out);
  for (const auto* const end = to + bytes / 16; to < end; to++) {
    _mm_storeu_si128(to, ones);
    asm volatile("" ::: "memory");  // or the compiler makes a memset of it
  }
}

}  // namespace kdzk_bench
