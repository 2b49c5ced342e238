// SPDX-License-Identifier: Apache-2.0
// What the kernels are measured against: the loops that one would write first, compiled with the kernels' own flags,
// and loops that do nothing but touch the same bytes.
#ifndef BENCH_PEERS_PLAIN_LOOPS_H
#define BENCH_PEERS_PLAIN_LOOPS_H

#include <cstdint>

namespace kdzk_bench {

// `code < k` over packed big-endian codes: one scalar fetch and compare per row, and an `if` that sets the bit. `bits`
// must be clear. Returns the hits.
uint32_t lt_packed(const uint8_t* stream, int width, uint32_t k, uint64_t* bits, uint32_t nrows);

// The same without a branch on the data: each row's bit is shifted into a word.
uint32_t lt_packed_branchless(const uint8_t* stream, int width, uint32_t k, uint64_t* bits, uint32_t nrows);

// Reads `bytes` bytes by 16-byte loads and ORs them; the result keeps the loop alive.
uint64_t bare_read(const uint8_t* from, uint64_t bytes);

// a AND b to dst, and the number of set bits. `words` whole words.
uint32_t and_count(uint64_t* dst, const uint64_t* a, const uint64_t* b, uint64_t words);
uint32_t count_words(const uint64_t* a, uint64_t words);

// Row numbers of the set bits.
uint32_t list_set_rows(const uint64_t* bits, uint32_t nrows, uint32_t* rows);

}  // namespace kdzk_bench

#endif
