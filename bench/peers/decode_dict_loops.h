// SPDX-License-Identifier: Apache-2.0
// What dictionary decode and symbol decode are measured against: one row after the other, compiled with the kernels'
// own flags.
#ifndef BENCH_PEERS_DECODE_DICT_LOOPS_H
#define BENCH_PEERS_DECODE_DICT_LOOPS_H

#include <cstdint>

namespace kdzk_bench {

// Where the symbols of a dictionary lie: all of `length` bytes, or, if that is 0, between big-endian offsets.
struct Dictionary {
  const uint8_t* base;
  uint32_t length;
  const uint32_t* offsets;
};

struct SymbolArrays {
  uint64_t* addresses;
  uint16_t* lengths;
  uint16_t* indicators;  // 2 for a symbol without bytes, otherwise 0
};

// The symbols of the rows listed, of packed big-endian codes.
void decode_listed(const uint8_t* stream, int width, const uint32_t* rows, uint32_t n, Dictionary dictionary,
                   SymbolArrays out);

// The symbols of native codes of 1, 2 or 4 bytes.
void decode_native(const void* codes, int bytes, uint32_t n, Dictionary dictionary, SymbolArrays out);

// The symbols' bytes, back to back: with memcpy, and with the length as a constant of the loop (1, 2, 4, 8).
void copy_symbols(const uint32_t* codes, uint32_t n, Dictionary dictionary, uint8_t* out);
void copy_symbols_of_constant_length(const uint32_t* codes, uint32_t n, Dictionary dictionary, uint8_t* out);

// Stores as many bytes to the three arrays, and nothing else.
void bare_write(uint32_t n, SymbolArrays out);

}  // namespace kdzk_bench

#endif
