// SPDX-License-Identifier: Apache-2.0
// From codes to symbols: an array of native codes to the address, length and indicator of each code's symbol.
//
// Eight rows are a round, whatever the size of a code. Distances from the dictionary's base are made in four lanes of
// 32 bits and widened to two lanes of 64 just before the base is added, lengths in eight lanes of 16 bits, and the
// indicators are a compare of the lengths with zero. So a round is six stores of 16 bytes, no branch, and as few
// instructions as fit beside the stores:
//
//   fixed length     distances: 4 codes * L, two multiplications         lengths: L in all lanes, indicators 0
//   variable length  8 loads of offsets[c], offsets[c + 1], two a vector as stored:
//
//                      start c0 | end c0 | start c1 | end c1      start c2 | end c2 | start c3 | end c3
//                              \________________________  shuffles  ______________________/
//                      start c0 | start c1 | start c2 | start c3      end c0 | end c1 | end c2 | end c3
//
//                    each turned round to native by one shuffle of bytes; distances: starts; lengths: ends - starts
//
// Invariants. Of a dictionary only the entries of the codes are read, and of the codes and the outputs no byte behind
// the last row. Codes are not checked.
#ifndef X86_SYMBOLS_H
#define X86_SYMBOLS_H

#include <kdzk/records.h>

#include "x86/kdzkc_x86.h"

namespace kdzk {

// The arrays that a decode writes: 8, 2 and 2 bytes a row.
struct SymbolArrays {
  uint8_t* addresses;
  uint8_t* lengths;
  uint8_t* indicators;  // may be null

  explicit SymbolArrays(const kdzk_vec* result)
      : addresses(static_cast<uint8_t*>(result->data)),
        lengths(static_cast<uint8_t*>(result->lengths)),
        indicators(static_cast<uint8_t*>(result->indicators)) {}

  void skip(uint32_t rows) {
    addresses += uint64_t{rows} * 8;
    lengths += uint64_t{rows} * 2;
    if (indicators != nullptr) indicators += uint64_t{rows} * 2;
  }
};

inline constexpr uint16_t indicator_of_empty = 2;

// How a length that doesn't fit in 16 bits is cut: to its low half, or to the nearest number that fits, as a signed
// number of 32 bits.
enum class Cut { modulo, saturate };

// Four codes as 32-bit lanes.
template <class Code>
inline __m128i four_codes(const uint8_t* codes) {
  if constexpr (sizeof(Code) == 1) return _mm_cvtepu8_epi32(_mm_cvtsi32_si128(load<int>(codes)));  // 4 codes
  if constexpr (sizeof(Code) == 2)
    return _mm_cvtepu16_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(codes)));  // 4 codes
  if constexpr (sizeof(Code) == 4) return load16(codes);                                  // 4 codes
}

// base + distance of four rows, 8 bytes each.
inline void put_addresses(uint8_t* to, __m128i base, __m128i distances) {
  const __m128i zero = _mm_setzero_si128();
  store16(to, _mm_add_epi64(base, _mm_unpacklo_epi32(distances, zero)));       // addresses of rows 0 and 1
  store16(to + 16, _mm_add_epi64(base, _mm_unpackhi_epi32(distances, zero)));  // of rows 2 and 3
}

// A dictionary of symbols of one length, which isn't 0.
struct FixedSymbols {
  // From memory, prefetching into the second cache writes at 0.94 of the speed of bare stores, into the first at 0.82
  // (Zen 4, g++ 12; kdzk_bench, decode_symbol_*bit_fixed/8Mi).
  static constexpr int bytes_ahead = 640;
  static constexpr auto hint = _MM_HINT_T1;

  uint64_t base;
  uint32_t length;

  explicit FixedSymbols(const kdzk_enc_ctx* enc)
      : base(reinterpret_cast<uint64_t>(enc->base)), length(load_be16(enc->value_len)) {}

  template <class Code, bool indicated>
  void put_eight(const uint8_t* codes, const SymbolArrays& out) const {
    const __m128i bases = _mm_set1_epi64x(static_cast<long long>(base)),
                  lanes = _mm_set1_epi32(static_cast<int>(length));
    put_addresses(out.addresses, bases, _mm_mullo_epi32(four_codes<Code>(codes), lanes));  // distances, modulo 2^32
    put_addresses(out.addresses + 32, bases, _mm_mullo_epi32(four_codes<Code>(codes + 4 * sizeof(Code)), lanes));
    store16(out.lengths, _mm_set1_epi16(static_cast<short>(length)));  // the length, 8 times
    if constexpr (indicated) store16(out.indicators, _mm_setzero_si128());
  }

  template <bool indicated>
  void put_one(uint32_t code, const SymbolArrays& out) const {
    store(out.addresses, base + code * length);
    store(out.lengths, static_cast<uint16_t>(length));
    if constexpr (indicated) store(out.indicators, uint16_t{0});
  }
};

// A dictionary of symbols of any length, between two offsets each.
template <Cut cut>
struct VariableSymbols {
  // Here the first cache is the better one, 0.70 against 0.57 (decode_symbol_*bit_variable/8Mi, 16 and 32 bits).
  static constexpr int bytes_ahead = 512;
  static constexpr auto hint = _MM_HINT_T0;

  uint64_t base;
  const uint8_t* offsets;

  explicit VariableSymbols(const kdzk_enc_ctx* enc)
      : base(reinterpret_cast<uint64_t>(enc->base)), offsets(enc->offsets) {}

  // Start and end of a code's symbol, in this order, big-endian.
  const uint8_t* pair(uint32_t code) const { return offsets + uint64_t{code} * 4; }

  // The pairs of two codes.
  template <class Code>
  __m128 two_pairs(const uint8_t* codes) const {
    const __m128i first = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(pair(load<Code>(codes))));  // the first
    return _mm_loadh_pi(_mm_castsi128_ps(first),
                        reinterpret_cast<const __m64*>(pair(load<Code>(codes + sizeof(Code)))));  // and the second
  }

  // Writes the addresses of four rows and returns their lengths in 32-bit lanes, each cut to 16 bits or to be
  // saturated by the pack.
  template <class Code>
  __m128i put_four(const uint8_t* codes, uint8_t* addresses) const {
    const __m128 a = two_pairs<Code>(codes);                                                 // pairs of rows 0 and 1
    const __m128 b = two_pairs<Code>(codes + 2 * sizeof(Code));                              // of rows 2 and 3
    const __m128i first = _mm_castps_si128(_mm_shuffle_ps(a, b, _MM_SHUFFLE(2, 0, 2, 0)));   // 4 starts as stored
    const __m128i second = _mm_castps_si128(_mm_shuffle_ps(a, b, _MM_SHUFFLE(3, 1, 3, 1)));  // 4 ends as stored
    const __m128i starts = _mm_shuffle_epi8(first, vector_of(turned_round));                 // native
    const __m128i ends = _mm_shuffle_epi8(second, vector_of(turned_round));                  // native
    put_addresses(addresses, _mm_set1_epi64x(static_cast<long long>(base)), starts);
    const __m128i lengths = _mm_sub_epi32(ends, starts);  // 4 lengths, modulo 2^32
    return cut == Cut::modulo ? _mm_and_si128(lengths, _mm_set1_epi32(0xffff)) : lengths;
  }

  template <class Code, bool indicated>
  void put_eight(const uint8_t* codes, const SymbolArrays& out) const {
    const __m128i first = put_four<Code>(codes, out.addresses);                           // lengths of rows 0 to 3
    const __m128i second = put_four<Code>(codes + 4 * sizeof(Code), out.addresses + 32);  // of rows 4 to 7
    const __m128i lengths = _mm_packus_epi32(first, second);                              // 8 lengths of 16 bits
    store16(out.lengths, lengths);
    if constexpr (indicated) {
      const __m128i empty = _mm_cmpeq_epi16(lengths, _mm_setzero_si128());                // all ones where 0
      store16(out.indicators, _mm_and_si128(empty, _mm_set1_epi16(indicator_of_empty)));  // 2 or 0
    }
  }

  // A row by itself always cuts modulo 2^16.
  template <bool indicated>
  void put_one(uint32_t code, const SymbolArrays& out) const {
    const uint64_t both = load_be64(pair(code));
    const auto length = static_cast<uint16_t>(both - (both >> 32));
    store(out.addresses, base + (both >> 32));
    store(out.lengths, length);
    if constexpr (indicated) store(out.indicators, static_cast<uint16_t>(length == 0 ? indicator_of_empty : 0));
  }
};

// The symbols of `n` codes. A round prefetches at all its cursors if the arrays may come from memory.
template <class Code, bool indicated, bool prefetches, class Symbols>
inline void put_symbols(const Symbols symbols, const uint8_t* codes, uint32_t n, SymbolArrays out) {
  for (uint32_t rounds = n / 8; rounds > 0; rounds--) {
    if constexpr (prefetches) {
      const auto fetch = [](const uint8_t* from) {
        _mm_prefetch(reinterpret_cast<const char*>(from + Symbols::bytes_ahead), Symbols::hint);
      };
      fetch(codes);
      fetch(out.addresses);
      fetch(out.lengths);
      if constexpr (indicated) fetch(out.indicators);
    }
    symbols.template put_eight<Code, indicated>(codes, out);
    codes += 8 * sizeof(Code);
    out.skip(8);
  }
  for (n %= 8; n > 0; n--) {
    symbols.template put_one<indicated>(load<Code>(codes), out);
    codes += sizeof(Code);
    out.skip(1);
  }
}

// Symbols without bytes, in a dictionary of length 0: their addresses are left as they are. The indicators must be
// there.
inline void put_empty_symbols(uint32_t n, const SymbolArrays& out) {
  for (uint64_t i = 0; i < n; i++) {
    store(out.lengths + i * 2, uint16_t{0});
    store(out.indicators + i * 2, indicator_of_empty);
  }
}

}  // namespace kdzk

#endif
