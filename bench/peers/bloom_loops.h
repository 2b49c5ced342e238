// SPDX-License-Identifier: Apache-2.0
// What the bloom filter test is measured against, compiled with the kernels' own flags.
#ifndef BENCH_PEERS_BLOOM_LOOPS_H
#define BENCH_PEERS_BLOOM_LOOPS_H

#include <kdzk/records.h>

#include <cstdint>

namespace kdzk_bench {

// What a test takes; see kdzk_specialized_ctx.bloom_test. `selection` may be null.
struct BloomTest {
  const uint8_t* values;
  int element;  // bytes, 4 or 8
  const void* filter;
  bool paged;
  uint32_t mask, page_shift, page_mask;
  const uint64_t* selection;
  uint32_t nrows;
};

// Row by row into a cleared bit vector, `branchless` without a jump on the answer. Returns the hits.
uint32_t bloom_loop(const BloomTest& test, bool branchless, uint64_t* bits, kdzk_hit_range* range);

}  // namespace kdzk_bench

#endif
