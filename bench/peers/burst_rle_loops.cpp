// SPDX-License-Identifier: Apache-2.0

#include "bench/peers/burst_rle_loops.h"

#include <cstring>

namespace kdzk_bench {
namespace {

uint32_t be16(const uint8_t* at) { return static_cast<uint32_t>(at[0] << 8 | at[1]); }
uint32_t be32(const uint8_t* at) { return be16(at) << 16 | be16(at + 2); }

template <int W>
uint32_t length_of(const uint8_t* runs, uint32_t run) {
  if constexpr (W == 8) return runs[run];
  if constexpr (W == 16) return be16(runs + 2 * run);
  if constexpr (W == 32) return be32(runs + 4 * run + 4) - be32(runs + 4 * run);
}

template <class F>
uint32_t with_bits(int bits, const F& f) {
  return bits == 8    ? f.template operator()<8>()
         : bits == 16 ? f.template operator()<16>()
                      : f.template operator()<32>();
}

// Sets `n` bits from bit `row` on.
void set_rows(uint64_t* bits, uint64_t row, uint64_t n) {
  uint64_t word = row / 64;
  const uint64_t from = ~uint64_t{0} << row % 64, to = row + n;
  if (to / 64 == word) {
    bits[word] |= from & ~(~uint64_t{0} << to % 64);
    return;
  }
  bits[word++] |= from;
  for (; word < to / 64; word++) bits[word] = ~uint64_t{0};
  bits[word] |= ~(~uint64_t{0} << to % 64);
}

}  // namespace

uint32_t burst_by_masks(const RunColumn& column, const uint64_t* run_bits, uint64_t* bits) {
  return with_bits(column.bits, [&]<int W>() {
    std::memset(bits, 0, (uint64_t{column.nrows} + 63) / 64 * 8);
    uint32_t row = 0, hits = 0;
    for (uint32_t run = 0; run < column.nruns; run++) {
      const uint32_t length = length_of<W>(column.runs, run);
      if (run_bits[run / 64] >> run % 64 & 1) {
        set_rows(bits, row, length);
        hits += length;
      }
      row += length;
    }
    return hits;
  });
}

uint32_t burst_set_runs(const RunColumn& column, const uint64_t* run_bits, uint64_t* bits) {
  return with_bits(column.bits, [&]<int W>() {
    std::memset(bits, 0, (uint64_t{column.nrows} + 63) / 64 * 8);
    uint32_t row = 0, hits = 0, last = 0;
    for (uint32_t first = 0; first < column.nruns; first += 64) {
      uint64_t word = run_bits[first / 64];
      if (column.nruns - first < 64) word &= ~(~uint64_t{0} << column.nruns % 64);
      for (; word != 0; word &= word - 1) {
        const uint32_t run = first + static_cast<uint32_t>(__builtin_ctzll(word));
        if constexpr (W == 32) {
          row = be32(column.runs + 4 * run);
        } else {
          for (; last < run; last++) row += length_of<W>(column.runs, last);
        }
        const uint32_t length = length_of<W>(column.runs, run);
        set_rows(bits, row, length);
        hits += length;
      }
    }
    return hits;
  });
}

}  // namespace kdzk_bench
