// SPDX-License-Identifier: Apache-2.0
// What the kernels are measured against: the loops that one would write first, compiled with the kernels' own flags,
// and loops that do nothing but touch the same bytes.
#ifndef BENCH_PEERS_PLAIN_LOOPS_H
#define BENCH_PEERS_PLAIN_LOOPS_H

#include <cstdint>

namespace kdzk_bench {

// All of these: `value < k`, written to whole words of `bits`; they return the hits.

// Over packed big-endian codes, one scalar fetch and compare per row. With an `if` that sets the bit: `bits` must be
// clear. Without a branch on the data: each row's bit is shifted into a word.
uint32_t lt_packed_with_if(const uint8_t* stream, int width, uint32_t k, uint64_t* bits, uint32_t nrows);
uint32_t lt_packed(const uint8_t* stream, int width, uint32_t k, uint64_t* bits, uint32_t nrows);

// Over big-endian values of `bytes` bytes, left-aligned in `width` bits.
uint32_t lt_stored(const uint8_t* values, int width, int bytes, uint64_t k, uint64_t* bits, uint32_t nrows);

// Over native codes in the next whole integer type.
uint32_t lt_native(const void* codes, int width, uint64_t k, uint64_t* bits, uint32_t nrows);

// Unpacks all codes to that type, 1,024 at a time, and compares them there.
uint32_t lt_unpack_then_compare(const uint8_t* stream, int width, uint64_t k, uint64_t* bits, uint32_t nrows);

// Over values without their trailing zero bytes: reads a row's length code, copies its bytes to a cleared local.
uint32_t lt_cut(const uint8_t* data, const uint8_t* lengths, int width, uint64_t k, uint64_t* bits, uint32_t nrows);

// (value, length code) < (k, k_code) over values of width / 8 bytes and a stream of length codes.
uint32_t lt_pairs(const uint8_t* values, const uint8_t* lengths, int width, uint64_t k, uint32_t k_code, uint64_t* bits,
                  uint32_t nrows);

// Native codes of the next whole integer type from packed ones; the bytes of such a code.
void unpack(const uint8_t* stream, int width, void* codes, uint32_t nrows);
int native_bytes(int width);

// Reads `bytes` bytes by 16-byte loads and ORs them; the result keeps the loop alive.
uint64_t bare_read(const uint8_t* from, uint64_t bytes);

// a AND b to dst, and the number of set bits. `words` whole words.
uint32_t and_count(uint64_t* dst, const uint64_t* a, const uint64_t* b, uint64_t words);
uint32_t count_words(const uint64_t* a, uint64_t words);

// Row numbers of the set bits.
uint32_t list_set_rows(const uint64_t* bits, uint32_t nrows, uint32_t* rows);

}  // namespace kdzk_bench

#endif
