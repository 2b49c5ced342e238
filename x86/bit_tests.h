// SPDX-License-Identifier: Apache-2.0
// Bits of a table for 16 rows at a time. A bit's number is split: the upper part says which byte of the table has it,
// the lower three bits which of its bits it is. The 16 bytes come from registers or from memory; testing them is the
// same for all:
//
//   bytes of the table    B0      B1      ...   B15        row i's bit stands in byte i
//   lower parts           3       0       ...   7
//   one shuffle           0x08    0x01    ...   0x80       the bit by itself
//   AND, compare          all ones in the lanes where the bit is set, and one mask move takes them to 16 bits
#ifndef X86_BIT_TESTS_H
#define X86_BIT_TESTS_H

#include "x86/kdzkc_x86.h"

namespace kdzk {

// 1 << n % 8 for each number n of 4 bits.
inline constexpr std::array<uint8_t, 16> single_bits = {1, 2, 4, 8, 16, 32, 64, 128, 1, 2, 4, 8, 16, 32, 64, 128};

// Bit i of the result: bit `lower` of byte i of `bytes`, `lower` being the lower four bits of byte i, whose top bit
// must be clear.
inline uint32_t tested(__m128i bytes, __m128i lower) {
  const __m128i bit = _mm_shuffle_epi8(vector_of(single_bits), lower);
  return static_cast<uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(_mm_and_si128(bytes, bit), bit)));
}

// Byte i of the result is the one at byte_of(i), for i from 0 to 15. In two halves, so that neither waits for the
// other.
template <class ByteOf>
[[gnu::always_inline]] inline __m128i collected(const ByteOf& byte_of) {
  const auto eight = [&]<int... i>(std::integer_sequence<int, i...>) {
    __m128i low = _mm_setzero_si128(), high = _mm_setzero_si128();
    ((low = _mm_insert_epi8(low, byte_of(std::integral_constant<int, i>()), i),
      high = _mm_insert_epi8(high, byte_of(std::integral_constant<int, i + 8>()), i)),
     ...);
    return _mm_unpacklo_epi64(low, high);
  };
  return eight(std::make_integer_sequence<int, 8>());
}

}  // namespace kdzk

#endif
