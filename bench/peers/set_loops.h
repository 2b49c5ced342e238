// SPDX-License-Identifier: Apache-2.0
// What set membership is measured against, compiled with the kernels' own flags.
#ifndef BENCH_PEERS_SET_LOOPS_H
#define BENCH_PEERS_SET_LOOPS_H

#include <cstdint>

namespace kdzk_bench {

// Codes that are unpacked already: tests each one's bit and sets the row's in a cleared bit vector. Returns the rows
// set.
uint32_t set_loop(const uint16_t* codes, const uint64_t* table, uint64_t* bits, uint32_t nrows);
uint32_t set_loop(const uint32_t* codes, const uint64_t* table, uint64_t* bits, uint32_t nrows);

// The same, with the bits of 64 rows kept in a register and stored once.
uint32_t set_word_loop(const uint16_t* codes, const uint64_t* table, uint64_t* bits, uint32_t nrows);
uint32_t set_word_loop(const uint32_t* codes, const uint64_t* table, uint64_t* bits, uint32_t nrows);

}  // namespace kdzk_bench

#endif
