// SPDX-License-Identifier: Apache-2.0
// Symbol decode: from an array of native codes, as decode-unpack writes it, to the symbols' addresses, lengths and
// indicators, or to the symbols' bytes themselves.
//
// Addresses are x86/symbols.h over the whole array: the rounds of a variable-length dictionary saturate a length, the
// last n % 8 rows take it modulo 2^16.
//
// Bytes (KDZK_EX_COPY_VALUES) go back to back, `length` bytes each, chosen once per call:
//
//   1              and at most 16 symbols: the dictionary is one vector, and a shuffle of it by 16 codes is 16 symbols
//   1, 2, 4, 8     a load and a store a row
//   3, 5 to 7,     two loads and two stores a row of the largest piece that fits, the second piece at the symbol's end;
//   9 to 32        where they overlap they agree:     length 6:   [0 1 2 3]
//                                                                     [2 3 4 5]
//   others         memcpy
//
// Invariants. No symbol is read past its last byte, except that the vector of symbols takes 1, 2, 4, 8 or 16 bytes from
// the base, at least one per symbol. No store leaves its own row's bytes.

#include "frame/decompress.h"
#include "frame/families.h"
#include "x86/symbols.h"

namespace kdzk {
namespace {

// ---- Values: the bytes themselves ----

inline void prefetch(const uint8_t* at) { _mm_prefetch(reinterpret_cast<const char*>(at), _MM_HINT_T0); }

// The native code of row `row`.
inline uint32_t code_at(const uint8_t* codes, uint32_t row) { return load<uint32_t>(codes + uint64_t{row} * 4); }

constexpr uint32_t rows_per_round = 32;

// Calls one(row) for all rows, in rounds that prefetch all lines of the output that a round fills, 512 bytes ahead.
template <int bytes_per_row, class One>
inline void by_rounds(const uint8_t* out, uint32_t n, const One& one) {
  uint32_t row = 0;
  for (; n - row >= rows_per_round; row += rows_per_round) {
    for (uint32_t line = 0; line < bytes_per_row * rows_per_round; line += 64) {
      prefetch(out + uint64_t{row} * bytes_per_row + 512 + line);
    }
#pragma GCC unroll 8
    for (uint32_t i = 0; i < rows_per_round; i++) one(row + i);
  }
  for (; row < n; row++) one(row);
}

// Symbols of 1, 2, 4 or 8 bytes.
template <class Value>
void copy_elements(const uint8_t* base, const uint8_t* codes, uint32_t n, uint8_t* out) {
  by_rounds<sizeof(Value)>(out, n, [=](uint32_t row) {
    store(out + uint64_t{row} * sizeof(Value), load<Value>(base + uint64_t{code_at(codes, row)} * sizeof(Value)));
  });
}

// Up to 16 symbols of 1 byte as one vector, repeated to fill it.
inline __m128i byte_symbols(const uint8_t* base, uint32_t size) {
  if (size <= 1) return _mm_set1_epi8(static_cast<char>(*base));  // 1 symbol, 16 times
  if (size <= 2) return _mm_set1_epi16(load<short>(base));        // 2 symbols, 8 times
  if (size <= 4) return _mm_set1_epi32(load<int>(base));          // 4 symbols, 4 times
  if (size <= 8) return _mm_set1_epi64x(load<long long>(base));   // 8 symbols, twice
  return load16(base);                                            // 16 symbols
}

void copy_few_bytes(const uint8_t* base, uint32_t size, const uint8_t* codes, uint32_t n, uint8_t* out) {
  uint32_t row = 0;
  if (n >= rows_per_round) {
    const __m128i symbols = byte_symbols(base, size);
    const auto sixteen = [=](const uint8_t* from) {
      const __m128i first = _mm_packs_epi32(load16(from), load16(from + 16));        // 8 codes of 16 bits
      const __m128i second = _mm_packs_epi32(load16(from + 32), load16(from + 48));  // 8 more
      return _mm_shuffle_epi8(symbols, _mm_packus_epi16(first, second));             // 16 symbols
    };
    for (; n - row >= rows_per_round; row += rows_per_round) {
      const uint8_t* const from = codes + uint64_t{row} * 4;
      prefetch(out + row + 512);
      const __m128i first = sixteen(from), second = sixteen(from + 64);  // 32 symbols
      store16(out + row, first);
      store16(out + row + 16, second);
    }
  }
  for (; row < n; row++) out[row] = base[code_at(codes, row)];
}

// Symbols of `length` bytes: at least one `Piece` and at most two.
template <class Piece>
void copy_pieces(const uint8_t* base, uint32_t length, const uint8_t* codes, uint32_t n, uint8_t* out) {
  const uint32_t last = length - sizeof(Piece);
  for (uint32_t row = 0; row < n; row++) {
    const uint8_t* const symbol = base + code_at(codes, row) * length;
    const auto head = load<Piece>(symbol), tail = load<Piece>(symbol + last);
    store(out, head);
    store(out + last, tail);
    out += length;
  }
}

// Of `dict_size` symbols of `length` bytes those of `n` codes, back to back.
void copy_values(const kdzk_enc_ctx* enc, uint32_t length, const uint8_t* codes, uint32_t n, uint8_t* out) {
  const uint8_t* const base = enc->base;
  if (length == 1 && enc->dict_size <= 16) return copy_few_bytes(base, enc->dict_size, codes, n, out);
  if (length == 1) return copy_elements<uint8_t>(base, codes, n, out);
  if (length == 2) return copy_elements<uint16_t>(base, codes, n, out);
  if (length == 4) return copy_elements<uint32_t>(base, codes, n, out);
  if (length == 8) return copy_elements<uint64_t>(base, codes, n, out);
  if (length == 3) return copy_pieces<uint16_t>(base, length, codes, n, out);
  if (length > 4 && length < 8) return copy_pieces<uint32_t>(base, length, codes, n, out);
  if (length > 8 && length < 16) return copy_pieces<uint64_t>(base, length, codes, n, out);
  if (length >= 16 && length <= 32) return copy_pieces<__m128i>(base, length, codes, n, out);
  if (length == 0) return;
  for (uint32_t row = 0; row < n; row++) {
    std::memcpy(out, base + code_at(codes, row) * length, length);
    out += length;
  }
}

// ---- Addresses ----

template <class Code>
void decode_symbols(const kdzk_enc_ctx* enc, const uint8_t* codes, uint32_t n, const SymbolArrays& out) {
  const auto put = [&](const auto& symbols) {
    if (out.indicators != nullptr) {
      put_symbols<Code, true, true>(symbols, codes, n, out);
    } else {
      put_symbols<Code, false, true>(symbols, codes, n, out);
    }
  };
  if (enc->dict_mode == 0) {
    put(FixedSymbols(enc));
  } else {
    put(VariableSymbols<Cut::saturate>(enc));
  }
}

}  // namespace

template <class Family>
uint64_t decode_symbol(kdzk_vec* result, const kdzk_vec* input, kdzk_exec* exec) {
  constexpr int width = Family::width;
  const kdzk_enc_ctx* const enc = input->enc_ctx;
  if (enc->dict_mode > 1) return KDZK_MALFORMED;
  const uint32_t n = input->nrows;
  const auto* const codes = static_cast<const uint8_t*>(input->data);
  const SymbolArrays out(result);
  result->hits = n;
  if (enc->dict_mode == 0) {
    const uint32_t length = load_be16(enc->value_len);
    if (width == 32 && (exec->flags2 & KDZK_EX_COPY_VALUES) != 0) {
      copy_values(enc, length, codes, n, out.addresses);
      return KDZK_DONE;
    }
    if (length == 0) {
      put_empty_symbols(n, out);
      return KDZK_DONE;
    }
  }
  if (width == 32 || (exec->flags & KDZK_EX_UNPACK_WIDE) != 0) {
    decode_symbols<uint32_t>(enc, codes, n, out);
  } else if constexpr (width == 16) {
    decode_symbols<uint16_t>(enc, codes, n, out);
  } else if constexpr (width == 8) {
    decode_symbols<uint8_t>(enc, codes, n, out);
  }
  return KDZK_DONE;
}

template uint64_t decode_symbol<Dict<8>>(kdzk_vec*, const kdzk_vec*, kdzk_exec*);
template uint64_t decode_symbol<Dict<16>>(kdzk_vec*, const kdzk_vec*, kdzk_exec*);
template uint64_t decode_symbol<Dict<32>>(kdzk_vec*, const kdzk_vec*, kdzk_exec*);

}  // namespace kdzk
