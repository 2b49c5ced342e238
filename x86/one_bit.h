// SPDX-License-Identifier: Apache-2.0
// A column of 1-bit codes as a bit vector: the bits are there already, but for the order inside each byte.
//
// Reversing the bits of a byte is two look-ups, one for each half of it. The table for the complement has complemented
// entries, so both answers cost the same.
#ifndef X86_ONE_BIT_H
#define X86_ONE_BIT_H

#include "x86/kdzkc_x86.h"

namespace kdzk {

// Entry n: the four bits of n in reverse order.
inline constexpr std::array<uint8_t, 16> reversed_halves = [] {
  std::array<uint8_t, 16> table{};
  for (int n = 0; n < 16; n++) table[n] = (n & 1) << 3 | (n & 2) << 1 | (n & 4) >> 1 | (n & 8) >> 3;
  return table;
}();

// Reverses the bits of each byte, and complements them if `inverted`.
struct ByteReversal {
  __m128i low_table;   // where the lower half of a byte goes: its reverse, in the upper half
  __m128i high_table;  // where the upper half goes

  explicit ByteReversal(bool inverted) {
    const __m128i halves = _mm_xor_si128(vector_of(reversed_halves), _mm_set1_epi8(inverted ? 0x0f : 0));
    low_table = _mm_slli_epi16(halves, 4);  // no entry has bits above its lower half
    high_table = halves;
  }

  __m128i operator()(__m128i bytes) const {
    const __m128i half = _mm_set1_epi8(0x0f);
    const __m128i low = _mm_and_si128(bytes, half);                      // lower halves
    const __m128i high = _mm_and_si128(_mm_srli_epi16(bytes, 4), half);  // upper halves
    return _mm_or_si128(_mm_shuffle_epi8(low_table, low), _mm_shuffle_epi8(high_table, high));
  }
};

// Writes the column's bits, or their complement, to the bit vector and returns the number of rows set. The last word's
// bits past the last row come out clear, or set in the complement. Reads at most 7 bytes past the last code.
inline uint32_t copy_column(const uint8_t* in, uint8_t* bits, uint32_t nrows, bool inverted) {
  const ByteReversal reverse(inverted);
  uint32_t ones = 0;  // in the column: the order of bits doesn't matter for their number
  uint64_t byte = 0;
#pragma GCC unroll 4  // the loop is bound by instructions: 5 to 9 % faster on Zen 4 with g++ 12
  for (const uint64_t end = nrows / 128 * 16; byte < end; byte += 16) {
    ones += bits_set(load<uint64_t>(in + byte)) + bits_set(load<uint64_t>(in + byte + 8));
    store16(bits + byte, reverse(load16(in + byte)));
  }
  const ByteReversal plain(false);
  for (uint32_t rows = nrows % 128; rows > 0; byte += 8) {
    const __m128i eight_bytes = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(in + byte));
    uint64_t word = static_cast<uint64_t>(_mm_cvtsi128_si64(plain(eight_bytes)));
    if (rows < 64) word &= ~(~uint64_t{0} << rows);
    ones += bits_set(word);
    store(bits + byte, inverted ? ~word : word);
    rows -= rows < 64 ? rows : 64;
  }
  return inverted ? nrows - ones : ones;
}

}  // namespace kdzk

#endif
