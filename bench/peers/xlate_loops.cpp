// SPDX-License-Identifier: Apache-2.0

#include "bench/peers/xlate_loops.h"

#include "bench/peers/packed.h"

namespace kdzk_bench {
namespace {

template <int bits>
uint32_t element(const void* elements, uint32_t i) {
  const auto* const bytes = static_cast<const uint8_t*>(elements);
  if constexpr (bits == 1) return bytes[i / 8] >> i % 8 & 1;
  if constexpr (bits == 4) return bytes[i / 2] >> i % 2 * 4 & 15;
  if constexpr (bits == 8) return bytes[i];
  if constexpr (bits == 16) return static_cast<const uint16_t*>(elements)[i];
  if constexpr (bits == 32) return static_cast<const uint32_t*>(elements)[i];
}

template <int bits>
void put(void* elements, uint32_t i, uint32_t value) {
  auto* const bytes = static_cast<uint8_t*>(elements);
  if constexpr (bits == 4) {
    bytes[i / 2] = static_cast<uint8_t>(i % 2 == 0 ? (bytes[i / 2] & 0xf0) | value : (bytes[i / 2] & 0xf) | value << 4);
  }
  if constexpr (bits == 8) bytes[i] = static_cast<uint8_t>(value);
  if constexpr (bits == 16) static_cast<uint16_t*>(elements)[i] = static_cast<uint16_t>(value);
  if constexpr (bits == 32) static_cast<uint32_t*>(elements)[i] = value;
}

// Calls `f.operator()<bits, paged, kept>()`.
template <class F>
void with_form(const XlateTable& table, bool kept, const F& f) {
  const auto with_bits = [&]<int bits>() {
    if (table.pages != nullptr)
      return kept ? f.template operator()<bits, true, true>() : f.template operator()<bits, true, false>();
    return kept ? f.template operator()<bits, false, true>() : f.template operator()<bits, false, false>();
  };
  if (table.element_bits == 1) with_bits.template operator()<1>();
  if (table.element_bits == 4) with_bits.template operator()<4>();
  if (table.element_bits == 8) with_bits.template operator()<8>();
  if (table.element_bits == 16) with_bits.template operator()<16>();
  if (table.element_bits == 32) with_bits.template operator()<32>();
}

template <int bits, bool paged>
uint32_t looked_up(const XlateTable& table, const uint8_t* codes, uint32_t row) {
  const uint32_t code = __builtin_bswap32(load<uint32_t>(codes + uint64_t{row} * 4));
  if constexpr (!paged) return element<bits>(table.elements, code - table.base);
  const uint8_t* const page = table.pages[code >> table.page_shift];
  return page == nullptr ? ~0u >> (32 - bits) : element<bits>(page, code & table.page_mask);
}

// W, V, U: widths of the columns.
template <int W, int V, int U>
void keys_of(const KeyColumn* columns, bool multiplies, uint32_t* keys, uint32_t nrows) {
  const uint8_t *const a = columns[0].stream, *const b = columns[1].stream, *const c = columns[2].stream;
  const uint32_t b_size = columns[1].dict_size, c_size = columns[2].dict_size;
  const auto code = []<int width>(const uint8_t* stream, uint32_t row) {
    return static_cast<uint32_t>(packed_code<width>(stream, row));
  };
  if (multiplies) {
    for (uint32_t row = 0; row < nrows; row++) {
      keys[row] = (code.template operator()<W>(a, row) * b_size + code.template operator()<V>(b, row)) * c_size +
                  code.template operator()<U>(c, row);
    }
  } else {
    for (uint32_t row = 0; row < nrows; row++) {
      keys[row] = (((code.template operator()<W>(a, row) << V) + code.template operator()<V>(b, row)) << U) +
                  code.template operator()<U>(c, row);
    }
  }
}

}  // namespace

void xlate_loop(const XlateTable& t, const uint8_t* codes, uint32_t nrows, XlateOutput& o) {
  with_form(t, o.elements != nullptr, [&, table = t]<int bits, bool paged, bool kept>() {
    XlateOutput out = {o.bits, o.elements, 0, ~0u, ~0u};
    for (uint32_t from = 0; from < nrows; from += 64) {
      const uint32_t rows = nrows - from < 64 ? nrows - from : 64;
      uint64_t word = 0;
      for (uint32_t i = 0; i < rows; i++) {
        const uint32_t value = looked_up<bits, paged>(table, codes, from + i);
        if constexpr (kept) put<bits>(out.elements, from + i, value);
        word |= uint64_t{value != ~0u >> (32 - bits)} << i;
      }
      out.bits[from / 64] = word;
      out.hits += static_cast<uint32_t>(__builtin_popcountll(word));
      if (word == 0) continue;
      if (out.first == ~0u) out.first = from + static_cast<uint32_t>(__builtin_ctzll(word));
      out.last = from + 63 - static_cast<uint32_t>(__builtin_clzll(word));
    }
    o = out;
  });
}

void xlate_loop_with_if(const XlateTable& t, const uint8_t* codes, uint32_t nrows, XlateOutput& o) {
  with_form(t, o.elements != nullptr, [&, table = t]<int bits, bool paged, bool kept>() {
    XlateOutput out = {o.bits, o.elements, 0, ~0u, ~0u};
    for (uint32_t row = 0; row < nrows; row++) {
      const uint32_t value = looked_up<bits, paged>(table, codes, row);
      if constexpr (kept) put<bits>(out.elements, row, value);
      if (value != ~0u >> (32 - bits)) {
        out.bits[row / 64] |= uint64_t{1} << row % 64;
        if (out.first == ~0u) out.first = row;
        out.last = row;
        out.hits++;
      }
    }
    o = out;
  });
}

void add_keys_loop(const XlateTable& t, const uint32_t* codes, uint32_t stride, uint32_t* keys, uint32_t nrows) {
  with_form(t, false, [&, table = t]<int bits, bool, bool>() {
    for (uint32_t row = 0; row < nrows; row++) keys[row] += element<bits>(table.elements, codes[row]) * stride;
  });
}

void keys_loop(const KeyColumn columns[3], bool multiplies, uint32_t* keys, uint32_t nrows) {
  if (columns[0].width == 5) {
    keys_of<5, 9, 12>(columns, multiplies, keys, nrows);
  } else {
    keys_of<8, 13, 10>(columns, multiplies, keys, nrows);
  }
}

}  // namespace kdzk_bench
