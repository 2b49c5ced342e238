// SPDX-License-Identifier: Apache-2.0
// Gather, pair matrix and row packing as one would write them first: row by row, a memcpy per value.
#ifndef BENCH_PEERS_ROW_STORE_LOOPS_H
#define BENCH_PEERS_ROW_STORE_LOOPS_H

#include <kdzk/records.h>

namespace kdzk_bench {

// The values of n locators, the second words of pairs, by page form 32, 16 or 8 to `data`: with lengths in an array if
// there is one, otherwise of the store's width.
void gather_values(const kdzk_rowstore& store, const kdzk_vec& in, const uint64_t* ref_pages, uint64_t ref_bits,
                   uint8_t* data, uint16_t* lengths);

// Their compact words.
void gather_words(const kdzk_rowstore& store, const kdzk_vec& in, uint64_t ref_bits, uint64_t* words);

// Pairs of a column with a length array, or with the lengths before the values.
void fill_from_lengths(const kdzk_vec& col, uint8_t* pairs, uint64_t stride);
void fill_from_prefixes(const kdzk_vec& col, uint8_t* pairs, uint64_t stride);

// Whole rows, or single values, with a directory of end offsets. Returns the end of the bytes.
uint8_t* pack_values(const uint8_t* pairs, uint32_t nrows, uint32_t ncols, bool whole_rows, uint8_t* data,
                     const uint8_t* limit, uint32_t* offsets);

}  // namespace kdzk_bench

#endif
