// SPDX-License-Identifier: Apache-2.0
// Rows scattered as one would write it first: no test of room, no stop.
#ifndef BENCH_PEERS_PARTITION_LOOPS_H
#define BENCH_PEERS_PARTITION_LOOPS_H

#include <cstdint>

namespace kdzk_bench {

// The partition of a hash is (hash & mask) >> shift; cursors move behind what is written.
struct Scatter {
  uint8_t** cursors;
  uint64_t mask;
  uint32_t shift;
};

// Row number and hash, 16 bytes.
void scatter_ids(const Scatter& to, const uint64_t* hashes, uint32_t n);

// Hash, key and row number, 24 bytes of which the 4 behind the key are left out.
void scatter_keys(const Scatter& to, const uint64_t* hashes, const uint32_t* keys, uint32_t n);

// Length, hash and payload, whose lengths stand in an array and whose bytes follow one another.
void scatter_strings(const Scatter& to, const uint64_t* hashes, const uint16_t* lengths, const uint8_t* bytes,
                     uint32_t n);

// Hash and `size` bytes of payload.
void scatter_payloads(const Scatter& to, const uint64_t* hashes, const uint8_t* payloads, uint32_t size, uint32_t n);

}  // namespace kdzk_bench

#endif
