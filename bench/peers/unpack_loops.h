// SPDX-License-Identifier: Apache-2.0
// What decode-unpack is measured against, compiled with the kernels' own flags.
#ifndef BENCH_PEERS_UNPACK_LOOPS_H
#define BENCH_PEERS_UNPACK_LOOPS_H

#include <cstdint>

namespace kdzk_bench {

// One scalar fetch and store per row, elements of 1, 2 or 4 bytes.
void unpack_loop(const uint8_t* stream, int width, int element, void* out, uint32_t nrows);

// The same for the rows that have a bit; returns how many.
uint32_t unpack_selected_loop(const uint8_t* stream, int width, int element, const uint64_t* bits, void* out,
                              uint32_t nrows);

// A fetch and a std::fill_n per run, which is memset for elements of 1 byte.
void expand_runs_loop(const uint8_t* stream, int width, int element, const uint8_t* lengths, uint32_t runs, void* out);

// Stores so many bytes, 16 at a time: what any unpacking has to do.
void store_loop(void* out, uint64_t bytes);

}  // namespace kdzk_bench

#endif
