// SPDX-License-Identifier: Apache-2.0
// Prefix record streams expanded as one would write it first.
#ifndef BENCH_PEERS_PREFIX_RECORDS_LOOPS_H
#define BENCH_PEERS_PREFIX_RECORDS_LOOPS_H

#include <cstdint>

namespace kdzk_bench {

// Copies the prefix and the tail of each record by memcpy.
void expand_by_memcpy(const uint8_t* stream, uint32_t count, uint32_t width, uint8_t* out);

// The same byte by byte.
void expand_by_bytes(const uint8_t* stream, uint32_t count, uint32_t width, uint8_t* out);

}  // namespace kdzk_bench

#endif
