// SPDX-License-Identifier: Apache-2.0
// Length codes, and values stored without their trailing zero bytes.
//
// A `lengths` stream has one code per row, first row at the top of the first byte; a code is the value's stored length
// in bytes, less one.
//
//   width   bits per code   rows per byte
//      16               1               8
//      32               2               4
//      64               4               2     codes above 7 are no lengths
//
// So a byte of the stream describes just the rows that one vector of lanes takes up, and serves as the index of two
// tables: where the bytes of these rows go, and how many bytes they have together.
#ifndef X86_LENGTHS_H
#define X86_LENGTHS_H

#include "x86/lanes.h"

namespace kdzk {

template <int width>
struct LengthCodes {
  static constexpr int bits = width == 16 ? 1 : width == 32 ? 2 : 4;
  static constexpr int rows_per_byte = 8 / bits;
  static constexpr int value_bytes = width / 8;

  static constexpr int shift(int row) { return bits * (rows_per_byte - 1 - row % rows_per_byte); }
  static constexpr int code(uint8_t byte, int row) { return byte >> shift(row) & ((1 << bits) - 1); }
  static constexpr int length(uint8_t byte, int row) {
    return code(byte, row) < value_bytes ? code(byte, row) + 1 : 0;  // a code that is no length has no bytes
  }
  static constexpr int length_before(uint8_t byte, int row) {
    int length_sum = 0;
    for (int r = 0; r < row; r++) length_sum += length(byte, r);
    return length_sum;
  }

  struct Tables {
    alignas(16) uint8_t shuffle[256][16];  // bytes of the rows, from the first row's first byte; 0x80 gives zero
    uint8_t sum[256];
  };
  static constexpr Tables make_tables() {
    Tables tables{};
    for (int byte = 0; byte < 256; byte++) {
      const auto codes = static_cast<uint8_t>(byte);
      tables.sum[byte] = static_cast<uint8_t>(length_before(codes, rows_per_byte));
      for (int at = 0; at < 16; at++) {
        const int row = at / value_bytes, of_value = value_bytes - 1 - at % value_bytes;  // its first byte being 0
        const bool stored = of_value < length(codes, row);
        tables.shuffle[byte][at] = static_cast<uint8_t>(stored ? length_before(codes, row) + of_value : 0x80);
      }
    }
    return tables;
  }
  static constexpr Tables tables = make_tables();

  static uint32_t row_code(const uint8_t* lengths, uint32_t row) {
    return static_cast<uint32_t>(code(lengths[row / rows_per_byte], static_cast<int>(row % rows_per_byte)));
  }
};

static_assert(LengthCodes<16>::tables.sum[0x80] == 9 && LengthCodes<16>::tables.sum[0] == 8);
static_assert(LengthCodes<16>::tables.shuffle[0x80][0] == 1 && LengthCodes<16>::tables.shuffle[0x80][1] == 0 &&
              LengthCodes<16>::tables.shuffle[0x80][2] == 0x80 && LengthCodes<16>::tables.shuffle[0x80][3] == 2);
static_assert(LengthCodes<64>::tables.sum[0x7f] == 8 && LengthCodes<32>::tables.sum[0xff] == 16);

// Values without their trailing zero bytes, as the lanes of vectors. A step is four bytes of `lengths`, one vector
// each; where the next vector's rows begin is known from the sums, four additions in a row, while all else of a step
// waits for nothing.
template <int width>
struct CutSource {
  using Codes = LengthCodes<width>;
  using Code = std::conditional_t<width == 64, uint64_t, uint32_t>;
  using Word = std::conditional_t<width == 64, uint8_t, std::conditional_t<width == 32, uint16_t, uint32_t>>;
  static constexpr Code top = static_cast<Code>(~uint64_t{0} >> (64 - width));
  static constexpr int lane_bits = width;
  static constexpr int words_per_step = 1;
  static constexpr int halves = 1;
  static constexpr bool has_at_least = width == 16;
  static constexpr bool sums_second_word = false;

  const uint8_t* data;     // first byte of the row where the source stands
  const uint8_t* lengths;  // the byte of that row, which is the first of the byte
  uint32_t row = 0;        // that row; kept for single rows only

  const uint8_t* first[5] = {};  // of a step: first byte of each vector's rows, and of the next step's
  uint32_t four = 0;             // and its four bytes of `lengths`

  uint32_t byte(int vector) const { return four >> 8 * vector & 0xff; }

  void begin_step() {
    four = load<uint32_t>(lengths);
    first[0] = data;
    for (int vector = 0; vector < 4; vector++) first[vector + 1] = first[vector] + Codes::tables.sum[byte(vector)];
  }

  template <int vector, bool>
  __m128i codes() const {
    const __m128i pick = _mm_load_si128(reinterpret_cast<const __m128i*>(Codes::tables.shuffle[byte(vector)]));
    return _mm_shuffle_epi8(load16(first[vector]), pick);
  }
  void next() {
    data = first[4];
    lengths += 4;
  }

  template <int, bool>
  static __m128i scaled(Code code) {
    return in_all_lanes<width>(code);
  }

  // Walks from byte to byte of `lengths` up to the row's, and over the rows before it in that byte.
  void tail(uint32_t from_row) { row = from_row; }
  Code code(uint32_t of_row) {
    for (; row / Codes::rows_per_byte < of_row / Codes::rows_per_byte; row += Codes::rows_per_byte) {
      data += Codes::tables.sum[*lengths++];
    }
    const auto in_byte = static_cast<int>(of_row % Codes::rows_per_byte);
    // The rows from this one on with code 0 have a length of 1 each in the sum.
    const auto before = static_cast<uint8_t>(*lengths & (0xff00 >> in_byte * Codes::bits));
    const uint8_t* const value = data + Codes::tables.sum[before] - (Codes::rows_per_byte - in_byte);
    const int length = Codes::length(*lengths, in_byte);
    const uint64_t stored = length == 0 ? 0 : load_be64(value) >> (64 - 8 * length) << (64 - 8 * length);
    return static_cast<Code>(stored >> (64 - width));
  }
};

}  // namespace kdzk

#endif
