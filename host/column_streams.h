// SPDX-License-Identifier: Apache-2.0
// Where the streams of a column lie, and its rows one after the other. The bytes of a column:
//
//   data, or its block   zeros up to a multiple of 8   lengths          zeros as before   present rows
//   all forms                                          RUNS, DYNP                         FIXED, DYNP with NULLs
//
// Present rows are a bit vector in whole words with a bit for each row that isn't NULL. All of this follows from the
// record: no offset is stored.
#ifndef HOST_COLUMN_STREAMS_H
#define HOST_COLUMN_STREAMS_H

#include <kdzk/host/column.h>
#include <kdzk/host/packed_codes.h>

#include <algorithm>
#include <bit>
#include <cstdlib>

#include "host/bytes.h"

namespace kdzk_host {

constexpr bool is_coded(const kdzk_host_column& column) { return (column.form & KDZK_HOST_CODED_FORMS) != 0; }
constexpr bool is_blocked(const kdzk_host_column& column) { return column.form > KDZK_HOST_PLAIN_FORMS; }
constexpr uint32_t plain_form(const kdzk_host_column& column) { return KDZK_HOST_PLAIN(column.form); }

// The column's kernels, without the twins for NULL.
constexpr uint8_t kind_of(const kdzk_host_column& column) {
  const uint32_t family = is_coded(column)                        ? KDZK_FAMILY_DICT
                          : plain_form(column) == KDZK_HOST_FIXED ? KDZK_FAMILY_FIXED
                                                                  : KDZK_FAMILY_DYNP;
  return kdzk_kind_of(kdzk_row_of_width(column.width), family);
}

// A code or stored value as its kernels take it, in 8 bytes.
inline void constant_of(const kdzk_host_column& column, uint64_t value, uint8_t* eight) {
  const auto code = static_cast<uint32_t>(value);
  std::memset(eight, 0, 8);
  if (is_coded(column)) std::memcpy(eight, &code, sizeof code);
  if (!is_coded(column)) put_be64(eight, value << (64 - 8 * column.value_bytes));
}

// Which kernels take values of so many bytes: the narrowest lane that has them; of `fixed`, 1 byte too.
constexpr uint32_t lane_width(uint32_t value_bytes, bool fixed) {
  const uint32_t width = 8 * std::bit_ceil(value_bytes);
  return width < 16 && !fixed ? 16 : width;
}
static_assert(lane_width(1, true) == 8 && lane_width(1, false) == 16 && lane_width(3, true) == 32 &&
              lane_width(5, false) == 64);

// Bytes of `data` as kernels read it; of DYNP only its lengths tell.
constexpr uint64_t data_size(const kdzk_host_column& column) {
  if (is_coded(column)) return (uint64_t{column.elements} * column.width + 7) / 8;
  return uint64_t{column.nrows} * column.value_bytes;
}

struct Layout {
  uint64_t lengths_at, lengths_bytes, present_at, present_bytes, size;

  explicit Layout(const kdzk_host_column& column) {
    const uint32_t form = plain_form(column);
    lengths_bytes = form == KDZK_HOST_RUNS   ? uint64_t{column.elements} * column.length_bits / 8
                    : form == KDZK_HOST_DYNP ? (uint64_t{column.nrows} * column.length_bits + 7) / 8
                                             : 0;
    present_bytes = is_coded(column) || column.nulls == 0 ? 0 : 8 * words_of(column.nrows);
    size = column.data_bytes;
    lengths_at = lengths_bytes == 0 ? size : to_8(size);
    size = lengths_at + lengths_bytes;
    present_at = present_bytes == 0 ? size : to_8(size);
    size = present_at + present_bytes;
  }
};

struct Streams {
  const uint8_t *data, *lengths, *present;  // present: null if no row is NULL

  Streams(const kdzk_host_column& column, const void* bytes) {
    const Layout layout(column);
    data = static_cast<const uint8_t*>(bytes);
    lengths = data + layout.lengths_at;
    present = layout.present_bytes == 0 ? nullptr : data + layout.present_at;
  }
};

// Calls function(row, code or stored value, null) for every row until it returns false. `streams.data` is what kernels
// read. Nothing is read that doesn't belong to the streams if their lengths add up.
template <class Function>
void each_row(const kdzk_host_column& column, const Streams& streams, const Function& function) {
  if (is_coded(column)) {
    constexpr uint32_t group = 256;
    uint32_t codes[group];
    uint64_t row = 0;
    for (uint64_t first = 0; first < column.elements; first += group) {
      const uint64_t here = std::min<uint64_t>(group, column.elements - first);
      kdzk_host_unpack(streams.data, first, here, column.width, codes);
      for (uint64_t i = 0; i < here; i++) {
        const bool null = column.first_code > 0 && codes[i] == 0;
        uint64_t end = row + 1;
        if (column.length_bits == 8) end = row + streams.lengths[first + i];
        if (column.length_bits == 16) end = row + be16(streams.lengths + 2 * (first + i));
        for (; row < end; row++) {
          if (!function(row, uint64_t{codes[i]}, null)) return;
        }
      }
    }
    return;
  }
  const uint8_t* at = streams.data;
  const uint32_t bits = column.length_bits, last = column.value_bytes * 8u;
  for (uint64_t row = 0; row < column.nrows; row++) {
    uint32_t bytes = column.value_bytes;
    if (bits > 0) bytes = 1 + (streams.lengths[row * bits / 8] >> (8 - bits - row * bits % 8) & ((1u << bits) - 1));
    const uint64_t value = top_of(at, bytes) >> (64 - last);
    at += bytes;
    if (!function(row, value, streams.present != nullptr && !bit_of(streams.present, row))) return;
  }
}

// `data` of a blocked column whose block was checked, decompressed, with its padding.
class Copy {
 public:
  Copy() = default;
  Copy(const Copy&) = delete;
  Copy& operator=(const Copy&) = delete;
  ~Copy() { std::free(bytes_); }

  // Null if there is no memory.
  const uint8_t* make(const kdzk_specialized_ctx& library, const kdzk_host_column& column, const void* block) {
    bytes_ = static_cast<uint8_t*>(std::calloc(column.data_size + KDZK_PADDING, 1));
    if (bytes_ == nullptr) return nullptr;
    Scratch scratch;
    kdzk_sqzb_ctx context{&scratch, nullptr, allocate, release, bytes_};
    uint32_t written = 0;
    const uint32_t status =
        library.sqzb_decode_x86(&context, block, bytes_, &written, static_cast<uint32_t>(column.data_size));
    return status == KDZK_DONE ? bytes_ : nullptr;
  }

 private:
  // The decoder asks for a byte a symbol and one, and for 8 bytes a symbol; a checked block has 1024 at most.
  struct Scratch {
    alignas(8) uint8_t bytes[to_8(1025) + 8192];
    uint64_t used = 0;
  };
  static void* allocate(void* handle, uint64_t size, const char*, uint32_t, uint32_t, void**) {
    Scratch& scratch = *static_cast<Scratch*>(handle);
    uint8_t* const piece = scratch.bytes + scratch.used;
    scratch.used += to_8(size);
    return piece;
  }
  static void release(void*, void*, void*) {}

  uint8_t* bytes_ = nullptr;
};

}  // namespace kdzk_host

#endif
