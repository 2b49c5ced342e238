// SPDX-License-Identifier: Apache-2.0
// Values as unsigned 64-bit keys in the same order, and where a constant of any type stands among them.
//
//   integer   its bits with the sign bit inverted
//   double    its sortable form: the sign bit set, or, of a negative one, all bits inverted; -0 is 0
//   text      up to 8 bytes, the first on top, zeros behind; only texts that don't end with a zero byte have one
#ifndef HOST_KEYS_H
#define HOST_KEYS_H

#include <kdzk/host/dictionary.h>

#include <algorithm>
#include <bit>

#include "host/bytes.h"

namespace kdzk_host {

constexpr uint64_t sign_bit = uint64_t{1} << 63;

// Wide enough for "behind the highest key".
__extension__ typedef unsigned __int128 Wide;
constexpr Wide behind_all_keys = Wide{1} << 64;

constexpr uint64_t key_of(int64_t integer) { return static_cast<uint64_t>(integer) ^ sign_bit; }
constexpr uint64_t key_of(double number) {
  const auto bits = std::bit_cast<uint64_t>(number == 0 ? 0.0 : number);
  return (bits & sign_bit) == 0 ? bits | sign_bit : ~bits;
}
constexpr int64_t integer_of(uint64_t key) { return static_cast<int64_t>(key ^ sign_bit); }
constexpr double double_of(uint64_t key) {
  return std::bit_cast<double>((key & sign_bit) != 0 ? key ^ sign_bit : ~key);
}
static_assert(key_of(int64_t{-1}) < key_of(int64_t{0}) && integer_of(key_of(int64_t{-5})) == -5);
static_assert(key_of(-1e300) < key_of(-2.5) && key_of(-0.0) == key_of(0.0) && key_of(0.0) < key_of(5e-324) &&
              double_of(key_of(-2.5)) == -2.5);

inline bool has_key(const kdzk_host_text& text) {
  return text.size == 0 || (text.size <= 8 && static_cast<const uint8_t*>(text.bytes)[text.size - 1] != 0);
}
inline uint32_t text_bytes(uint64_t key) { return key == 0 ? 0 : 8 - static_cast<uint32_t>(std::countr_zero(key)) / 8; }

// What a constant is to keys of a type: `at` is the lowest key whose value isn't below the constant, behind_all_keys if
// there is none; `exists` tells whether that value is the constant.
struct Cut {
  Wide at;
  bool exists;
};

inline Cut cut_of_integers(double number) {
  if (number >= 0x1p63) return {behind_all_keys, false};
  if (number < -0x1p63) return {0, false};
  const auto whole = static_cast<int64_t>(number);  // towards zero: above a negative number, below a positive one
  const auto back = static_cast<double>(whole);
  if (back < number) return {Wide{key_of(whole)} + 1, false};
  return {key_of(whole), back == number};
}

inline Cut cut_of_doubles(int64_t integer) {
  const auto nearest = static_cast<double>(integer);
  const bool above = nearest >= 0x1p63 || static_cast<int64_t>(nearest) > integer;
  if (above) return {key_of(nearest), false};
  const bool below = static_cast<int64_t>(nearest) < integer;
  return {Wide{key_of(nearest)} + (below ? 1 : 0), !below};
}

// For constants that are neither NULL nor NaN; texts by their keys.
inline Cut cut_of(uint32_t type, const kdzk_host_value& constant) {
  if (type == KDZK_HOST_TEXT) {
    if (constant.type != KDZK_HOST_TEXT) return {0, false};
    const kdzk_host_text& text = constant.text;
    const Wide key = top_of(text.bytes, text.size);
    return has_key(text) ? Cut{key, true} : Cut{key + 1, false};  // a longer text stands behind its first bytes
  }
  if (constant.type == KDZK_HOST_TEXT) return {behind_all_keys, false};
  if (type == KDZK_HOST_INTEGER) {
    return constant.type == KDZK_HOST_INTEGER ? Cut{key_of(constant.integer), true} : cut_of_integers(constant.number);
  }
  return constant.type == KDZK_HOST_INTEGER ? cut_of_doubles(constant.integer) : Cut{key_of(constant.number), true};
}

inline bool is_null(const kdzk_host_value& value) {
  return value.type == KDZK_HOST_NULL || (value.type == KDZK_HOST_DOUBLE && value.number != value.number);
}

// ---- Entries of a dictionary ----

inline kdzk_host_text symbol(const kdzk_host_dictionary& dictionary, uint32_t code) {
  const uint32_t from = be32(dictionary.offsets + 4 * uint64_t{code});
  return {dictionary.symbols + from, be32(dictionary.offsets + 4 * (uint64_t{code} + 1)) - from};
}

inline uint64_t key_at(const kdzk_host_dictionary& dictionary, uint32_t code) {
  return be64(dictionary.symbols + 8 * uint64_t{code - dictionary.first_code});
}

inline int compare(const kdzk_host_text& a, const kdzk_host_text& b) {
  const uint64_t both = std::min(a.size, b.size);
  const int order = both == 0 ? 0 : std::memcmp(a.bytes, b.bytes, both);
  return order != 0 ? order : a.size < b.size ? -1 : a.size > b.size;
}

// ---- Rows of a batch ----

// Rows of a batch of values of a type known at compile time.
template <uint32_t type>
struct Rows;

template <>
struct Rows<KDZK_HOST_INTEGER> {
  const int64_t* values;
  static bool is_nan(uint64_t) { return false; }
  uint64_t key(uint64_t row) const { return key_of(values[row]); }
};

template <>
struct Rows<KDZK_HOST_DOUBLE> {
  const double* values;
  bool is_nan(uint64_t row) const { return values[row] != values[row]; }
  uint64_t key(uint64_t row) const { return key_of(values[row]); }
};

template <>
struct Rows<KDZK_HOST_TEXT> {
  const kdzk_host_text* values;
  static bool is_nan(uint64_t) { return false; }
  uint64_t key(uint64_t row) const { return top_of(values[row].bytes, values[row].size); }
};

// Calls function(rows) with the Rows of the batch's type.
template <class Function>
auto with_rows(const kdzk_host_values& batch, const Function& function) {
  switch (batch.type) {
    case KDZK_HOST_INTEGER:
      return function(Rows<KDZK_HOST_INTEGER>{static_cast<const int64_t*>(batch.values)});
    case KDZK_HOST_DOUBLE:
      return function(Rows<KDZK_HOST_DOUBLE>{static_cast<const double*>(batch.values)});
    default:
      return function(Rows<KDZK_HOST_TEXT>{static_cast<const kdzk_host_text*>(batch.values)});
  }
}

inline bool is_null_row(const kdzk_host_values& batch, const auto& rows, uint64_t row) {
  return (batch.nulls != nullptr && bit_of(batch.nulls, row)) || rows.is_nan(row);
}

}  // namespace kdzk_host

#endif
