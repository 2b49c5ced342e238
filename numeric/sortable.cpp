// SPDX-License-Identifier: Apache-2.0
// Columns of sortable floats and doubles to native arrays, and sums of such columns and of big-endian integers.
//
// The form is told in numeric/sortable.h. The two services add floating-point numbers in orders of their own, which are
// part of what they promise, and differ from that of the arithmetic kernels:
//
//   decode_sortable   whole vectors in lanes, the lanes by pairs, the result; then the rest from +0 on, the result
//   sum_sortable      all rows in row order from +0 on, or each row to its group in row order
//
// Integers wrap, so that they can be added in any order. Their sums run over the bytes where they lie: each vector
// gives two unsigned sums in lanes of 64 bits, after the top bit of each value was inverted, which adds the same to all
// of them and is taken off at the end. 16 bits, h and l being the two bytes of a row:
//
//   h l h l h l h l h l h l h l h l               256 h + l = 255 h + (h + l):
//   sum of h, sum of h and l                      two sums of absolute differences to 0, and no shuffle

#include "numeric/sortable.h"

#include "frame/assertion.h"
#include "frame/services.h"

namespace kdzk {
namespace {

enum FloatKind : uint8_t { kind_float = 1, kind_double = 2, kind_integer = 8 };

template <class T, Form form>
struct Column {
  const uint8_t* data;

  T one(uint64_t row) const { return value_at<T, form>(data + row * sizeof(T)); }
  auto several(uint64_t row) const { return values_at<T, form>(data + row * sizeof(T)); }
};

// ---- Integers ----

// A row of `bits` bits, sign-extended.
template <int bits>
uint64_t integer_at(const uint8_t* at) {
  if constexpr (bits == 8) return static_cast<uint64_t>(static_cast<int8_t>(*at));
  if constexpr (bits == 16) return static_cast<uint64_t>(static_cast<int16_t>(load_be16(at)));
  if constexpr (bits == 32) return static_cast<uint64_t>(static_cast<int32_t>(load_be32(at)));
  if constexpr (bits == 64) return load_be64(at);
}

// Sums over vectors of rows of `bits` bits.
template <int bits>
struct IntegerSums {
  static constexpr uint32_t rows = 128 / bits;
  static constexpr int bytes = bits / 8;
  __m128i first = _mm_setzero_si128(), second = _mm_setzero_si128();

  // A vector with `value` in the first byte of each row, which is the top one.
  static __m128i in_top_bytes(uint8_t value) { return in_all_lanes<bits>(value); }

  // From 4-byte rows: row `from` and the next one, in the low halves of lanes of 64 bits.
  static constexpr std::array<uint8_t, 16> two_rows(int from) {
    std::array<uint8_t, 16> shuffle{};
    for (int at = 0; at < 16; at++)
      shuffle[at] = static_cast<uint8_t>(at % 8 < 4 ? 4 * (from + at / 8) + 3 - at % 8 : 0x80);
    return shuffle;
  }

  void add(__m128i v) {
    const __m128i none = _mm_setzero_si128(), raised = _mm_xor_si128(v, in_top_bytes(0x80));
    if constexpr (bits == 8) first = _mm_add_epi64(first, _mm_sad_epu8(raised, none));
    if constexpr (bits == 16) {
      first = _mm_add_epi64(first, _mm_sad_epu8(_mm_and_si128(raised, in_top_bytes(0xff)), none));
      second = _mm_add_epi64(second, _mm_sad_epu8(raised, none));
    }
    if constexpr (bits == 32) {
      static constexpr auto rows_0_and_1 = two_rows(0), rows_2_and_3 = two_rows(2);
      first = _mm_add_epi64(first, _mm_shuffle_epi8(raised, vector_of(rows_0_and_1)));
      second = _mm_add_epi64(second, _mm_shuffle_epi8(raised, vector_of(rows_2_and_3)));
    }
    if constexpr (bits == 64) first = _mm_add_epi64(first, _mm_shuffle_epi8(v, vector_of(byte_reversal<8>)));
  }

  static uint64_t both_lanes(__m128i v) {
    return static_cast<uint64_t>(_mm_cvtsi128_si64(_mm_add_epi64(v, _mm_unpackhi_epi64(v, v))));
  }

  // The sum of the `n` rows that were added.
  uint64_t total(uint64_t n) const {
    const uint64_t sum = (bits == 16 ? 255 : 1) * both_lanes(first) + both_lanes(second);
    return bits == 64 ? sum : sum - (n << (bits - 1));
  }
};

template <int bits>
uint64_t integer_sum(const uint8_t* data, uint64_t n) {
  using Sums = IntegerSums<bits>;
  const uint64_t in_vectors = n / Sums::rows * Sums::rows;
  Sums sums;
#pragma GCC unroll 4
  for (uint64_t row = 0; row < in_vectors; row += Sums::rows) sums.add(load16(data + row * Sums::bytes));
  uint64_t sum = sums.total(in_vectors);
  for (uint64_t row = in_vectors; row < n; row++) sum += integer_at<bits>(data + row * Sums::bytes);
  return sum;
}

// Calls `by_width.operator()<bits>()` for a width of 8, 16, 32 or 64 bits; no other width does anything.
template <class ByWidth>
void for_width(uint32_t width, const ByWidth& by_width) {
  if (width == 8) by_width.template operator()<8>();
  if (width == 16) by_width.template operator()<16>();
  if (width == 32) by_width.template operator()<32>();
  if (width == 64) by_width.template operator()<64>();
}

void add_integers(uint8_t* out, const kdzk_vec* input) {
  const auto* const data = static_cast<const uint8_t*>(input->data);
  for_width(input->enc_ctx->width,
            [&]<int bits>() { store(out, load<uint64_t>(out) + integer_sum<bits>(data, input->nrows)); });
}

// ---- decode_sortable ----

template <class T>
void decode(uint8_t* out, const Column<T, Form::sortable>& column, uint64_t n) {
  write_rows<T>(
      out, [&](uint64_t row) { return column.several(row); }, [&](uint64_t row) { return column.one(row); }, n);
}

template <class T>
void add_in_two_parts(uint8_t* out, const Column<T, Form::sortable>& column, uint64_t n) {
  const uint64_t in_vectors = rows_in_vectors<T>(n);
  const T vectors = sum_in_lanes<T>([&](uint64_t row) { return column.several(row); }, in_vectors);
  store(out, vectors + load<T>(out));
  const T rest = sum_in_order(
      T{0}, [&](uint64_t row) { return column.one(row); }, in_vectors, n);
  store(out, rest + load<T>(out));
}

template <class T>
void decode_or_add(const kdzk_vec* result, const kdzk_vec* input, bool has_sum) {
  auto* const out = static_cast<uint8_t*>(result->data);
  const Column<T, Form::sortable> column = {static_cast<const uint8_t*>(input->data)};
  if (has_sum) {
    add_in_two_parts(out, column, input->nrows);
  } else {
    decode(out, column, input->nrows);
  }
}

// ---- sum_sortable ----

// All rows in row order: `add(row, value)`. Values of a vector are made together and added one by one.
template <class T, Form form, class Add>
inline void for_each_value(const Column<T, form>& column, uint64_t n, const Add& add) {
  constexpr uint64_t lanes = Values<T>::lanes;
  const uint64_t in_vectors = rows_in_vectors<T>(n);
  for (uint64_t row = 0; row < in_vectors; row += lanes) {
    const auto values = std::bit_cast<std::array<T, lanes>>(column.several(row));
#pragma GCC unroll 4
    for (uint64_t i = 0; i < lanes; i++) add(row + i, values[i]);
  }
  for (uint64_t row = in_vectors; row < n; row++) add(row, column.one(row));
}

// Adds `value` to the accumulator of the group of `row`.
template <class T>
inline void add_to_group(uint8_t* out, const uint8_t* ids, uint64_t row, T value) {
  uint8_t* const at = out + uint64_t{load<uint32_t>(ids + row * sizeof(uint32_t))} * sizeof(T);
  store(at, static_cast<T>(load<T>(at) + value));
}

template <class T, Form form>
void add_rows(uint8_t* out, const kdzk_vec* input, const kdzk_vec* groups) {
  const Column<T, form> column = {static_cast<const uint8_t*>(input->data)};
  if (groups != nullptr) {
    const auto* const ids = static_cast<const uint8_t*>(groups->data);
    for_each_value(column, input->nrows, [&](uint64_t row, T value) { add_to_group(out, ids, row, value); });
  } else {
    T sum{0};
    for_each_value(column, input->nrows, [&](uint64_t, T value) { sum = sum + value; });
    store(out, sum + load<T>(out));
  }
}

template <class T>
void add_values(uint8_t* out, const kdzk_vec* input, const kdzk_vec* groups) {
  if ((input->enc_ctx->flags & KDZK_SUM_ONLY) != 0) {
    add_rows<T, Form::native>(out, input, groups);
  } else {
    add_rows<T, Form::sortable>(out, input, groups);
  }
}

void add_integers_by_group(uint8_t* out, const kdzk_vec* input, const kdzk_vec* groups) {
  const auto* const data = static_cast<const uint8_t*>(input->data);
  const auto* const ids = static_cast<const uint8_t*>(groups->data);
  for_width(input->enc_ctx->width, [&]<int bits>() {
    for (uint64_t row = 0; row < input->nrows; row++)
      add_to_group(out, ids, row, integer_at<bits>(data + row * bits / 8));
  });
}

}  // namespace

uint64_t kdzk_decode_sortable(const kdzk_vec* result, const kdzk_vec* input, const kdzk_exec* exec) {
  const kdzk_enc_ctx* const enc = input->enc_ctx;
  const bool has_sum = exec != nullptr && (exec->flags & KDZK_EX_SUM) != 0;
  if ((enc->flags & KDZK_SUM_ONLY) != 0 && !has_sum) return KDZK_MALFORMED;
  const uint32_t kind = enc->float_kind;  // the lowest bit known decides
  if ((kind & kind_float) != 0) {
    decode_or_add<float>(result, input, has_sum);
  } else if ((kind & kind_double) != 0) {
    decode_or_add<double>(result, input, has_sum);
  } else if ((kind & kind_integer) == 0) {
    return KDZK_MALFORMED;
  } else if (has_sum) {
    add_integers(static_cast<uint8_t*>(result->data), input);
  } else {
    assertion_failed("FALSE", "numeric/sortable.cpp", __LINE__, "kdzk_decode_sortable");
    return KDZK_MALFORMED;
  }
  return KDZK_DONE;
}

uint64_t kdzk_sum_sortable(const kdzk_vec* result, const kdzk_vec* input, const kdzk_vec* groups, const void*) {
  auto* const out = static_cast<uint8_t*>(result->data);
  switch (input->enc_ctx->float_kind) {
    case kind_float:
      add_values<float>(out, input, groups);
      return KDZK_DONE;
    case kind_double:
      add_values<double>(out, input, groups);
      return KDZK_DONE;
    case kind_integer:
      if (groups != nullptr) {
        add_integers_by_group(out, input, groups);
      } else {
        add_integers(out, input);
      }
      return KDZK_DONE;
    default:
      return KDZK_MALFORMED;
  }
}

}  // namespace kdzk
