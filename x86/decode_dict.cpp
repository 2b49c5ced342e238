// SPDX-License-Identifier: Apache-2.0
// Dictionary decode: from a list of rows to the addresses, lengths and indicators of their symbols.
//
// A decode is a fetch and then the decode of an array of codes (x86/symbols.h), in turns of 64 rows:
//
//   ones_vec   ...  7 4 4 901 12 ...    row numbers in any order
//                   | | |  |   |        fetch
//   codes           c c c  c   c        on the stack, so always in the first cache
//                   \____ 8 a round ____/
//   data, lengths, indicators
//
// The loads of a turn wait for nothing but the row numbers, and those from the dictionary for nothing but the codes, so
// that the processor has as many cache misses under way as it can hold.
//
// The fetch of a packed code is one load of the 4 bytes that begin where the code does; all else is done for four rows
// in one vector. A multiplication by a power of two, in place of a shift by lane, throws out the bits before the code,
// and one shift right those behind it. Width 13, row 3, which begins at bit 39:
//
//      b4       b5       b6       b7
//   .......3 33333333 3333.... ........    times 2^7, shifted right by 32 - 13
//
// The power is 2^(row * W % 8), which the row's last three bits tell: a table of eight, looked up by one shuffle.
//
// Invariants. A code and the bits before it in its first byte are at most 31 bits, so a load of 4 bytes holds it and
// ends at most 3 bytes behind it. A row's bit offset is taken modulo 2^32 at the widths that have one; those of whole
// bytes up to 32 bits are arrays and have none. Lengths are taken modulo 2^16, so a symbol of 65536 bytes counts as
// empty.

#include "frame/decompress.h"
#include "frame/families.h"
#include "x86/symbols.h"

namespace kdzk {
namespace {

// Few enough that the processor begins the loads of the next turn while it writes the symbols of this one: over a
// shuffled list in memory 1.1 to 1.4 times as fast as 256 rows at 1 and 8 bits, in cache the same (Zen 4, g++ 12;
// kdzk_bench, decode_dict_*bit_fixed/8Mi_shuffled).
constexpr uint32_t rows_per_turn = 64;

// Row number `i` of a list.
inline uint32_t listed_row(const uint8_t* rows, uint32_t i) { return load<uint32_t>(rows + uint64_t{i} * 4); }

// Codes that are packed without regard to bytes.
template <int W>
struct PackedColumn {
  const uint8_t* stream;

  static constexpr uint32_t bit(uint32_t row) { return row * W; }  // modulo 2^32
  uint32_t code(uint32_t row) const { return load_be32(stream + bit(row) / 8) << bit(row) % 8 >> (32 - W); }

  // 2 to the power of the number of bits before the code of a row in its first byte, by row % 8.
  static constexpr std::array<uint8_t, 16> powers = [] {
    std::array<uint8_t, 16> powers{};
    for (uint32_t row = 0; row < 8; row++) powers[row] = static_cast<uint8_t>(1 << bit(row) % 8);
    return powers;
  }();

  __m128i four_codes(const uint8_t* rows) const {
    const auto bytes = [&](uint32_t i) { return load<int>(stream + bit(listed_row(rows, i)) / 8); };
    const __m128i stored = _mm_setr_epi32(bytes(0), bytes(1), bytes(2), bytes(3));  // 4 bytes a row
    const __m128i numbers = _mm_shuffle_epi8(stored, vector_of(turned_round));      // the first byte on top
    const __m128i of_eight = _mm_and_si128(load16(rows), _mm_set1_epi32(7));        // row % 8
    const __m128i index = _mm_or_si128(of_eight, _mm_set1_epi32(static_cast<int>(0x80808000)));   // other bytes: zero
    const __m128i on_top = _mm_mullo_epi32(numbers, _mm_shuffle_epi8(vector_of(powers), index));  // the code first
    return _mm_srli_epi32(on_top, 32 - W);                                                        // the codes
  }
};

static_assert(PackedColumn<13>::powers[3] == 1 << 7 && PackedColumn<13>::powers[5] == 1 << 1);
static_assert(PackedColumn<20>::powers[7] == 1 << 4 && PackedColumn<24>::powers[7] == 1);
static_assert(PackedColumn<13>::bit(330382100) == 4);  // 2^32 / 13 is 330382099.7

// Codes that are big-endian integers.
template <int W>
struct ArrayColumn {
  const uint8_t* array;

  uint32_t code(uint32_t row) const {
    if constexpr (W == 8) return array[row];
    if constexpr (W == 16) return load_be16(array + uint64_t{row} * 2);
    if constexpr (W == 32) return load_be32(array + uint64_t{row} * 4);
  }

  __m128i four_codes(const uint8_t* rows) const {
    const auto one = [&](uint32_t i) { return static_cast<int>(code(listed_row(rows, i))); };
    return _mm_setr_epi32(one(0), one(1), one(2), one(3));  // 4 codes
  }
};

template <int W>
using Column = std::conditional_t<W == 8 || W == 16 || W == 32, ArrayColumn<W>, PackedColumn<W>>;

// The codes of the rows listed.
template <class Column>
inline void fetch_codes(const Column column, const uint8_t* rows, uint32_t n, uint8_t* codes) {
  uint32_t i = 0;
  for (; n - i >= 4; i += 4) store16(codes + i * 4, column.four_codes(rows + i * 4));
  for (; i < n; i++) store(codes + i * 4, column.code(listed_row(rows, i)));
}

template <class Column, class Symbols>
void decode_rows(Column column, Symbols symbols, const uint8_t* rows, uint32_t n, SymbolArrays out) {
  uint8_t codes[rows_per_turn * 4];
  while (n > 0) {
    const uint32_t turn = n < rows_per_turn ? n : rows_per_turn;
    fetch_codes(column, rows, turn, codes);
    put_symbols<uint32_t, true, false>(symbols, codes, turn, out);
    rows += turn * 4;
    out.skip(turn);
    n -= turn;
  }
}

}  // namespace

template <class Family>
uint64_t decode(kdzk_vec* result, const kdzk_vec* input, kdzk_exec* exec) {
  const kdzk_enc_ctx* const enc = input->enc_ctx;
  if (enc->dict_mode > 1) return KDZK_MALFORMED;
  const SymbolArrays out(result);
  const uint32_t n = exec->ones_vec_size;
  const auto* const rows = reinterpret_cast<const uint8_t*>(exec->ones_vec);
  const bool fixed = enc->dict_mode == 0;
  if (fixed && load_be16(enc->value_len) == 0) {
    put_empty_symbols(n, out);  // neither the column nor its copy is asked for
  } else {
    const Column<Family::width> column{column_bytes(kernel_texts<Family, DecodeOp::decode>, input, exec)};
    if (fixed) {
      decode_rows(column, FixedSymbols(enc), rows, n, out);
    } else {
      decode_rows(column, VariableSymbols<Cut::modulo>(enc), rows, n, out);
    }
  }
  result->hits = n;
  if (n > 0) {  // an empty list has no last row
    exec->row = listed_row(rows, n - 1);
    exec->out_flags |= KDZK_OUT_DECODE_ROW;
  }
  return KDZK_DONE;
}

#define KDZK_DECODE(W) template uint64_t decode<Dict<W>>(kdzk_vec*, const kdzk_vec*, kdzk_exec*);
KDZK_DECODE(1)
KDZK_DECODE(2)
KDZK_DECODE(3)
KDZK_DECODE(4)
KDZK_DECODE(5)
KDZK_DECODE(6)
KDZK_DECODE(7)
KDZK_DECODE(8)
KDZK_DECODE(9)
KDZK_DECODE(10)
KDZK_DECODE(11)
KDZK_DECODE(12)
KDZK_DECODE(13)
KDZK_DECODE(14)
KDZK_DECODE(15)
KDZK_DECODE(16)
KDZK_DECODE(17)
KDZK_DECODE(18)
KDZK_DECODE(19)
KDZK_DECODE(20)
KDZK_DECODE(24)
KDZK_DECODE(32)

}  // namespace kdzk
