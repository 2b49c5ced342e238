// SPDX-License-Identifier: Apache-2.0

#include "bench/peers/decode_dict_loops.h"

#include <emmintrin.h>

#include <cstring>

#include "bench/peers/packed.h"

namespace kdzk_bench {
namespace {

// A copy of the dictionary and the arrays, so that no store makes the loop read them again.
template <class CodeOf>
inline void decode(const CodeOf& code_of, uint32_t n, const Dictionary dictionary, const SymbolArrays out) {
  const auto base = reinterpret_cast<uint64_t>(dictionary.base);
  if (dictionary.length != 0) {
    for (uint32_t i = 0; i < n; i++) {
      out.addresses[i] = base + code_of(i) * dictionary.length;
      out.lengths[i] = static_cast<uint16_t>(dictionary.length);
      out.indicators[i] = 0;
    }
  } else {
    for (uint32_t i = 0; i < n; i++) {
      const uint32_t code = code_of(i);
      const uint32_t start = __builtin_bswap32(dictionary.offsets[code]);
      const auto length = static_cast<uint16_t>(__builtin_bswap32(dictionary.offsets[uint64_t{code} + 1]) - start);
      out.addresses[i] = base + start;
      out.lengths[i] = length;
      out.indicators[i] = length == 0 ? 2 : 0;
    }
  }
}

template <int W>
void decode_width(const uint8_t* stream, const uint32_t* rows, uint32_t n, Dictionary dictionary, SymbolArrays out) {
  const auto code_of = [=](uint32_t i) -> uint32_t {
    const uint32_t row = rows[i];
    if constexpr (W == 8) return stream[row];
    if constexpr (W == 16) return __builtin_bswap16(load<uint16_t>(stream + uint64_t{row} * 2));
    if constexpr (W == 32) return __builtin_bswap32(load<uint32_t>(stream + uint64_t{row} * 4));
    const uint32_t bit = row * W;
    return static_cast<uint32_t>(__builtin_bswap64(load<uint64_t>(stream + bit / 8)) << bit % 8 >> (64 - W));
  };
  decode(code_of, n, dictionary, out);
}

template <class Code>
void decode_codes(const void* codes, uint32_t n, Dictionary dictionary, SymbolArrays out) {
  const auto* const array = static_cast<const Code*>(codes);
  decode([=](uint32_t i) -> uint32_t { return array[i]; }, n, dictionary, out);
}

template <class Value>
void copy_constant(const uint32_t* codes, uint32_t n, const uint8_t* base, uint8_t* out) {
  for (uint32_t i = 0; i < n; i++) {
    std::memcpy(out + i * sizeof(Value), base + codes[i] * sizeof(Value), sizeof(Value));
  }
}

}  // namespace

void decode_listed(const uint8_t* stream, int width, const uint32_t* rows, uint32_t n, Dictionary dictionary,
                   SymbolArrays out) {
  switch (width) {
#define KDZK_WIDTH(W) \
  case W:             \
    return decode_width<W>(stream, rows, n, dictionary, out);
    KDZK_WIDTH(1)
    KDZK_WIDTH(5)
    KDZK_WIDTH(8)
    KDZK_WIDTH(13)
    KDZK_WIDTH(16)
    KDZK_WIDTH(20)
    KDZK_WIDTH(32)
#undef KDZK_WIDTH
    default:
      __builtin_trap();
  }
}

void decode_native(const void* codes, int bytes, uint32_t n, Dictionary dictionary, SymbolArrays out) {
  if (bytes == 1) decode_codes<uint8_t>(codes, n, dictionary, out);
  if (bytes == 2) decode_codes<uint16_t>(codes, n, dictionary, out);
  if (bytes == 4) decode_codes<uint32_t>(codes, n, dictionary, out);
}

void copy_symbols(const uint32_t* codes, uint32_t n, Dictionary dictionary, uint8_t* out) {
  for (uint32_t i = 0; i < n; i++) {
    std::memcpy(out, dictionary.base + uint64_t{codes[i]} * dictionary.length, dictionary.length);
    out += dictionary.length;
  }
}

void copy_symbols_of_constant_length(const uint32_t* codes, uint32_t n, Dictionary dictionary, uint8_t* out) {
  if (dictionary.length == 1) copy_constant<uint8_t>(codes, n, dictionary.base, out);
  if (dictionary.length == 2) copy_constant<uint16_t>(codes, n, dictionary.base, out);
  if (dictionary.length == 4) copy_constant<uint32_t>(codes, n, dictionary.base, out);
  if (dictionary.length == 8) copy_constant<uint64_t>(codes, n, dictionary.base, out);
}

void bare_write(uint32_t n, SymbolArrays out) {
  const __m128i v = _mm_set1_epi32(static_cast<int>(n));
  const auto at = [](auto* array, uint32_t i) { return reinterpret_cast<__m128i*>(array + i); };
  for (uint32_t i = 0; i < n; i += 8) {
    for (uint32_t two = 0; two < 8; two += 2) _mm_storeu_si128(at(out.addresses, i + two), v);
    _mm_storeu_si128(at(out.lengths, i), v);
    _mm_storeu_si128(at(out.indicators, i), v);
  }
}

}  // namespace kdzk_bench
