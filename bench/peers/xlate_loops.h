// SPDX-License-Identifier: Apache-2.0
// What translation and group keys are measured against, one row after the other, compiled with the kernels' own flags.
#ifndef BENCH_PEERS_XLATE_LOOPS_H
#define BENCH_PEERS_XLATE_LOOPS_H

#include <cstdint>

namespace kdzk_bench {

// Elements of 1, 4, 8, 16 or 32 bits: one array, indexed by the code less `base`, or, with `pages`, an array per page.
struct XlateTable {
  const void* elements;
  int element_bits;
  uint32_t base;
  const uint8_t* const* pages;
  uint32_t page_shift, page_mask;
};

struct XlateOutput {
  uint64_t* bits;
  void* elements;  // may be null
  uint32_t hits, first, last;
};

// Looks up big-endian codes. With `if`, a hit is a branch taken; without, there is no branch on the data, and bits go
// out 64 at a time.
void xlate_loop(const XlateTable& table, const uint8_t* codes, uint32_t nrows, XlateOutput& out);
void xlate_loop_with_if(const XlateTable& table, const uint8_t* codes, uint32_t nrows, XlateOutput& out);

// keys[r] += element of codes[r] * stride, elements of 4 bits and more.
void add_keys_loop(const XlateTable& table, const uint32_t* codes, uint32_t stride, uint32_t* keys, uint32_t nrows);

// The keys of three packed columns, a scalar fetch each: multiplied by dictionary sizes, or shifted by widths. The
// widths are 5, 9 and 12, or 8, 13 and 10.
struct KeyColumn {
  const uint8_t* stream;
  int width;
  uint32_t dict_size;
};
void keys_loop(const KeyColumn columns[3], bool multiplies, uint32_t* keys, uint32_t nrows);

}  // namespace kdzk_bench

#endif
