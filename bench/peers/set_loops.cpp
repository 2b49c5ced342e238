// SPDX-License-Identifier: Apache-2.0

#include "bench/peers/set_loops.h"

#include <cstring>

namespace kdzk_bench {
namespace {

template <class Code>
uint32_t by_row(const Code* codes, const uint64_t* table, uint64_t* bits, uint32_t nrows) {
  std::memset(bits, 0, (uint64_t{nrows} + 63) / 64 * 8);
  uint32_t hits = 0;
  for (uint32_t row = 0; row < nrows; row++) {
    const uint64_t bit = table[codes[row] / 64] >> codes[row] % 64 & 1;
    bits[row / 64] |= bit << row % 64;
    hits += static_cast<uint32_t>(bit);
  }
  return hits;
}

template <class Code>
uint32_t by_word(const Code* codes, const uint64_t* table, uint64_t* bits, uint32_t nrows) {
  uint32_t hits = 0;
  for (uint32_t first = 0; first < nrows; first += 64) {
    const uint32_t rows = nrows - first < 64 ? nrows - first : 64;
    uint64_t word = 0;
    for (uint32_t row = 0; row < rows; row++) {
      const Code code = codes[first + row];
      word |= (table[code / 64] >> code % 64 & 1) << row;
    }
    bits[first / 64] = word;
    hits += static_cast<uint32_t>(__builtin_popcountll(word));
  }
  return hits;
}

}  // namespace

uint32_t set_loop(const uint16_t* codes, const uint64_t* table, uint64_t* bits, uint32_t nrows) {
  return by_row(codes, table, bits, nrows);
}
uint32_t set_loop(const uint32_t* codes, const uint64_t* table, uint64_t* bits, uint32_t nrows) {
  return by_row(codes, table, bits, nrows);
}
uint32_t set_word_loop(const uint16_t* codes, const uint64_t* table, uint64_t* bits, uint32_t nrows) {
  return by_word(codes, table, bits, nrows);
}
uint32_t set_word_loop(const uint32_t* codes, const uint64_t* table, uint64_t* bits, uint32_t nrows) {
  return by_word(codes, table, bits, nrows);
}

}  // namespace kdzk_bench
