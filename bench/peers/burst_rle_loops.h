// SPDX-License-Identifier: Apache-2.0
// Bits per run to bits per row, as one would write it first. `bits` are (nrows + 63) / 64 words, with a word to spare;
// the loops return the rows set.
#ifndef BENCH_PEERS_BURST_RLE_LOOPS_H
#define BENCH_PEERS_BURST_RLE_LOOPS_H

#include <cstdint>

namespace kdzk_bench {

// What the runs of a column are: lengths of 8 or 16 big-endian bits, or first rows of 32.
struct RunColumn {
  const uint8_t* runs;
  int bits;
  uint32_t nruns;
  uint32_t nrows;
};

// Looks at each run's bit, and ORs a mask per run or per 64 rows of it.
uint32_t burst_by_masks(const RunColumn& column, const uint64_t* run_bits, uint64_t* bits);

// Walks over the set bits, adding up the lengths between them, and ORs masks likewise.
uint32_t burst_set_runs(const RunColumn& column, const uint64_t* run_bits, uint64_t* bits);

}  // namespace kdzk_bench

#endif
