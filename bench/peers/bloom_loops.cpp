// SPDX-License-Identifier: Apache-2.0

#include "bench/peers/bloom_loops.h"

#include <cstring>

#include "bench/peers/packed.h"

namespace kdzk_bench {
namespace {

template <int element, bool paged, bool branchless>
uint32_t loop(const BloomTest& test, uint64_t* bits, kdzk_hit_range* range) {
  const BloomTest t = test;
  kdzk_hit_range found = {~0u, ~0u};
  uint32_t hits = 0;
  const auto look_up = [&](uint32_t row) {
    uint32_t v = __builtin_bswap32(load<uint32_t>(t.values + uint64_t{row} * element + element - 4)) & t.mask;
    const uint8_t* bytes = static_cast<const uint8_t*>(t.filter);
    if constexpr (paged) {
      bytes = static_cast<const uint8_t* const*>(t.filter)[v >> t.page_shift];
      v &= t.page_mask;
    }
    const uint32_t hit = bytes[v / 8] >> v % 8 & 1;
    if constexpr (branchless) {
      bits[row / 64] |= uint64_t{hit} << row % 64;
      hits += hit;
      const uint32_t none = hit - 1;  // all ones without a hit
      found.first = found.first < (row | none) ? found.first : row | none;
      found.last = (found.last & none) | (row & ~none);
    } else if (hit != 0) {
      bits[row / 64] |= uint64_t{1} << row % 64;
      hits++;
      if (found.first == ~0u) found.first = row;
      found.last = row;
    }
  };
  std::memset(bits, 0, (uint64_t{t.nrows} + 63) / 64 * 8);
  if (t.selection == nullptr) {
    for (uint32_t row = 0; row < t.nrows; row++) look_up(row);
  } else {
    for (uint32_t first = 0; first < t.nrows; first += 64) {
      for (uint64_t word = t.selection[first / 64]; word != 0; word &= word - 1) {
        const uint32_t row = first + static_cast<uint32_t>(__builtin_ctzll(word));
        if (row < t.nrows) look_up(row);
      }
    }
  }
  *range = found;
  return hits;
}

}  // namespace

uint32_t bloom_loop(const BloomTest& test, bool branchless, uint64_t* bits, kdzk_hit_range* range) {
  const auto by = [&]<int element, bool paged>() {
    return branchless ? loop<element, paged, true>(test, bits, range) : loop<element, paged, false>(test, bits, range);
  };
  if (test.element == 4) return test.paged ? by.template operator()<4, true>() : by.template operator()<4, false>();
  return test.paged ? by.template operator()<8, true>() : by.template operator()<8, false>();
}

}  // namespace kdzk_bench
