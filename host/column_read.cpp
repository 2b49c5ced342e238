// SPDX-License-Identifier: Apache-2.0
// Columns back: to what kernels take, to values, and the check before either.

#include <kdzk/host/column.h>

#include <cstdlib>

#include "host/column_streams.h"
#include "host/keys.h"

namespace kdzk_host {
namespace {

// result_cb: the library's burst kernel for the column's run lengths. The encoding that `input` points to is the first
// field of a kdzk_host_bound.
uint32_t rows_of_runs(const kdzk_env*, kdzk_vec* result, const kdzk_vec* input, const kdzk_result_report* report) {
  const auto* const bound = reinterpret_cast<const kdzk_host_bound*>(input->enc_ctx);
  const uint32_t row = kdzk_row_of_width(bound->column->length_bits) - 1;
  const uint32_t id = kdzk_id_of(row, KDZK_FAMILY_FURTHER * 32 + KDZK_OP_BURST_RLE);
  return static_cast<uint32_t>(bound->library->dispatch[id].burst(result, input, report));
}

// ---- The check ----

constexpr const char* bad_record = "the record contradicts itself or the dictionary";

bool good_codes(const kdzk_host_column& column, const kdzk_host_dictionary* dictionary) {
  if (dictionary == nullptr || column.type != dictionary->type || column.width != dictionary->width) return false;
  if (column.first_code != dictionary->first_code || column.nulls > (column.first_code > 0 ? column.nrows : 0))
    return false;
  if (column.base != 0 || column.value_bytes != 0 || column.shift != 0) return false;
  if (plain_form(column) == KDZK_HOST_RUNS) {
    if (column.length_bits != 8 && column.length_bits != 16) return false;
    if (column.elements > column.nrows) return false;
  } else if (column.length_bits != 0 || column.elements != column.nrows) {
    return false;
  }
  if (column.nulls == column.nrows) return true;
  return column.smallest >= column.first_code && column.largest < dictionary->size;
}

bool good_values(const kdzk_host_column& column) {
  const bool fixed = plain_form(column) == KDZK_HOST_FIXED;
  if (column.value_bytes < 1 || column.value_bytes > 8 || column.shift % 8 != 0) return false;
  if (column.shift > 64 - 8 * column.value_bytes) return false;
  if (column.width != lane_width(column.value_bytes, fixed)) return false;
  if (column.length_bits != (fixed ? 0 : column.width / 16)) return false;
  if (column.first_code != 0 || column.elements != column.nrows) return false;
  if (column.base != 0 && column.type != KDZK_HOST_INTEGER) return false;
  const uint64_t highest_key = column.largest << column.shift;
  return column.largest <= UINT64_MAX >> (64 - 8 * column.value_bytes) && highest_key <= UINT64_MAX - column.base;
}

bool good_record(const kdzk_host_column& column, uint32_t nrows, uint64_t size,
                 const kdzk_host_dictionary* dictionary) {
  if (column.form == 0 || (column.form & (column.form - 1)) != 0 || column.form > KDZK_HOST_BLOCKED(KDZK_HOST_DYNP))
    return false;
  if (column.zero[0] != 0 || column.zero[1] != 0 || column.type < KDZK_HOST_INTEGER || column.type > KDZK_HOST_TEXT)
    return false;
  if (column.nrows != nrows || column.nulls > nrows || column.size != size || column.data_bytes > size) return false;
  if (column.nulls == nrows ? column.smallest != 1 || column.largest != 0 : column.smallest > column.largest)
    return false;
  if (is_coded(column) ? !good_codes(column, dictionary) : !good_values(column)) return false;
  if (plain_form(column) == KDZK_HOST_DYNP ? column.data_size < nrows || column.data_size > 8 * uint64_t{nrows}
                                           : column.data_size != data_size(column))
    return false;
  if (is_blocked(column) ? column.data_size > UINT32_MAX : column.data_size != column.data_bytes) return false;
  return Layout(column).size == size;
}

// The rows of `data` for which a kernel, or without a library a plain loop, says that the code or stored value lies
// between the bounds; NULL rows of FIXED and DYNP left out. False if there is no memory.
bool count_between(const kdzk_specialized_ctx* library, const kdzk_host_column& column, const Streams& streams,
                   uint64_t low, uint64_t high, uint64_t& count) {
  count = 0;
  const uint8_t kind = kind_of(column);
  const kdzk_kernel* const kernels = library == nullptr ? nullptr : library->dispatch + kdzk_id_of_kind(kind, 0);
  if (kernels == nullptr || kernels[KDZK_OP_LE].any == nullptr || kernels[KDZK_OP_GE_LE].any == nullptr) {
    each_row(column, streams, [&](uint64_t, uint64_t value, bool null) {
      count += (!null || is_coded(column)) && low <= value && value <= high;
      return true;
    });
    return true;
  }
  auto* const bits = static_cast<uint64_t*>(std::malloc(8 * words_of(column.nrows) + 1));
  if (bits == nullptr) return false;
  kdzk_enc_ctx enc_ctx{};
  enc_ctx.kind = kind;
  enc_ctx.width = is_coded(column) ? column.width : static_cast<uint8_t>(8 * column.value_bytes);
  kdzk_vec input{}, result{};
  input.data = const_cast<uint8_t*>(streams.data);
  input.lengths = const_cast<uint8_t*>(streams.lengths);
  input.enc_ctx = &enc_ctx;
  input.nrows = result.nrows = column.nrows;
  input.filter = reinterpret_cast<const uint64_t*>(streams.present);
  result.bitvec = bits;
  uint8_t low_bytes[8], high_bytes[8];
  kdzk_kargs low_arg{}, high_arg{};
  low_arg.enc_ctx = high_arg.enc_ctx = &enc_ctx;
  low_arg.data = low_bytes;
  high_arg.data = high_bytes;
  constant_of(column, low, low_bytes);
  constant_of(column, high, high_bytes);
  if (low == 0) {
    kernels[KDZK_OP_LE].compare(&result, &input, &high_arg, nullptr);
  } else {
    kernels[KDZK_OP_GE_LE].between(&result, &input, &low_arg, &high_arg, nullptr);
  }
  count = result.hits;
  std::free(bits);
  return true;
}

// Where the first row begins whose value is out of bounds; of DYNP, where the column begins.
uint64_t first_bad_byte(const kdzk_host_column& column, const Streams& streams) {
  uint64_t bad = 0;
  each_row(column, streams, [&](uint64_t row, uint64_t value, bool null) {
    if (null || (column.smallest <= value && value <= column.largest)) return true;
    bad = plain_form(column) == KDZK_HOST_FIXED ? row * column.value_bytes
          : is_coded(column)                    ? row * column.width / 8
                                                : 0;
    return false;
  });
  return bad;
}

uint32_t check_runs(const kdzk_host_column& column, const Streams& streams, uint64_t lengths_at,
                    kdzk_host_report* report) {
  kdzk_host_report found;
  const uint64_t length_bytes = uint64_t{column.elements} * column.length_bits / 8;
  if (kdzk_host_check_runs(streams.lengths, length_bytes, column.length_bits, column.elements, column.nrows, &found) !=
      KDZK_HOST_DONE)
    return malformed(report, found.reason, lengths_at + found.offset);
  uint64_t nulls = 0;
  uint32_t codes[256];
  for (uint64_t run = 0; run < column.elements; run++) {
    if (run % 256 == 0) {
      const uint64_t here = std::min<uint64_t>(256, column.elements - run);
      kdzk_host_unpack(streams.data, run, here, column.width, codes);
    }
    const uint32_t code = codes[run % 256];
    if (code < column.first_code) {
      nulls += column.length_bits == 8 ? streams.lengths[run] : be16(streams.lengths + 2 * run);
    } else if (code < column.smallest || code > column.largest) {
      return malformed(report, "a code outside what the record says", run * column.width / 8);
    }
  }
  return nulls == column.nulls ? fine(report) : malformed(report, "another number of NULLs than the record says", 0);
}

// Codes and values of all forms but RUNS.
uint32_t check_rows(const kdzk_specialized_ctx* library, const kdzk_host_column& column, const Streams& streams,
                    kdzk_host_report* report) {
  const uint64_t present = column.nrows - uint64_t{column.nulls};
  uint64_t count = 0;
  if (is_coded(column) && column.nulls > 0) {
    if (!count_between(library, column, streams, 0, 0, count)) return KDZK_HOST_NO_MEMORY;
    if (count != column.nulls) return malformed(report, "another number of NULLs than the record says", 0);
  }
  if (!is_coded(column) && column.nulls > 0) {
    for (uint64_t row = 0; row < column.nrows; row++) count += bit_of(streams.present, row);
    if (count != present) return malformed(report, "another number of NULLs than the record says", 0);
  }
  const uint64_t top = UINT64_MAX >> (64 - (is_coded(column) ? column.width : 8u * column.value_bytes));
  if (present == 0 || (column.smallest == 0 && column.largest == top)) return fine(report);
  if (!count_between(library, column, streams, column.smallest, column.largest, count)) return KDZK_HOST_NO_MEMORY;
  if (count == present) return fine(report);
  return malformed(report, "a code or value outside what the record says", first_bad_byte(column, streams));
}

}  // namespace
}  // namespace kdzk_host

using namespace kdzk_host;

uint32_t kdzk_host_column_check(const kdzk_specialized_ctx* library, const kdzk_host_column* column, uint32_t nrows,
                                const void* bytes, uint64_t size, const kdzk_host_dictionary* dictionary,
                                kdzk_host_report* report) {
  const kdzk_host_column& c = *column;
  if (!good_record(c, nrows, size, dictionary)) return malformed(report, bad_record, size);
  const Layout layout(c);
  Streams streams(c, bytes);
  Copy copy;
  if (is_blocked(c)) {
    if (library == nullptr) return malformed(report, "a blocked column needs the library for its check", 0);
    const uint32_t status = kdzk_host_check_block(bytes, c.data_bytes, c.data_size, report);
    if (status != KDZK_HOST_DONE) return status;
    streams.data = copy.make(*library, c, bytes);
    if (streams.data == nullptr) return KDZK_HOST_NO_MEMORY;
  }
  kdzk_host_report found;
  if (plain_form(c) == KDZK_HOST_DYNP && kdzk_host_check_lengths(streams.lengths, layout.lengths_bytes, nrows, c.width,
                                                                 c.data_size, &found) != KDZK_HOST_DONE)
    return malformed(report, found.reason, layout.lengths_at + found.offset);
  const uint32_t status = plain_form(c) == KDZK_HOST_RUNS ? check_runs(c, streams, layout.lengths_at, report)
                                                          : check_rows(library, c, streams, report);
  if (status != KDZK_HOST_DONE) return status;
  if (kdzk_host_column_checksum(column, bytes) != c.checksum) return malformed(report, "wrong checksum", size);
  return fine(report);
}

void kdzk_host_column_bind(const kdzk_specialized_ctx* library, const kdzk_host_column* column, const void* bytes,
                           const kdzk_host_dictionary* dictionary, uint64_t* run_bits, kdzk_host_bound* bound) {
  const Streams streams(*column, bytes);
  const uint32_t form = plain_form(*column);
  *bound = {};
  bound->library = library;
  bound->column = column;
  bound->present = reinterpret_cast<const uint64_t*>(streams.present);

  kdzk_enc_ctx& enc_ctx = bound->enc_ctx;
  enc_ctx.kind = kind_of(*column);
  if (is_coded(*column)) {
    enc_ctx.flags = KDZK_PACKED_DICT;
    enc_ctx.width = column->width;
    enc_ctx.base = dictionary->symbols;
    enc_ctx.offsets = dictionary->offsets;
    enc_ctx.dict_size = dictionary->size;
    enc_ctx.dict_mode = 1;
  } else {
    enc_ctx.flags = form == KDZK_HOST_FIXED ? KDZK_NUMERIC : 0;
    enc_ctx.width = static_cast<uint8_t>(8 * column->value_bytes);
    if (column->type == KDZK_HOST_DOUBLE && column->value_bytes == 8) enc_ctx.float_kind = 2;
  }
  if (form == KDZK_HOST_RUNS) {
    enc_ctx.flags |= KDZK_RLE;
    enc_ctx.own_nrows = column->elements;
    enc_ctx.own_bitvec = run_bits;
    enc_ctx.unpack_base = reinterpret_cast<uintptr_t>(streams.lengths);
    enc_ctx.unpack_width = column->length_bits;
    enc_ctx.result_cb = rows_of_runs;
  }

  kdzk_vec& input = bound->input;
  input.data = const_cast<uint8_t*>(streams.data);
  if (form == KDZK_HOST_DYNP) input.lengths = const_cast<uint8_t*>(streams.lengths);
  input.enc_ctx = &enc_ctx;
  input.filter = bound->present;
  input.nrows = column->nrows;
  if (is_blocked(*column)) {
    enc_ctx.flags |= KDZK_BLOCKED;
    input.decomp_size = static_cast<uint32_t>(column->data_size);
    input.decomp_slot = &bound->copy;
  }
}

uint32_t kdzk_host_column_values(const kdzk_specialized_ctx* library, const kdzk_host_column* column, const void* bytes,
                                 const kdzk_host_dictionary* dictionary, void* values, uint64_t* nulls,
                                 void* text_room) {
  const kdzk_host_column& c = *column;
  Streams streams(c, bytes);
  Copy copy;
  if (is_blocked(c)) {
    streams.data = copy.make(*library, c, bytes);
    if (streams.data == nullptr) return KDZK_HOST_NO_MEMORY;
  }
  if (nulls != nullptr) std::memset(nulls, 0, 8 * words_of(c.nrows));
  each_row(c, streams, [&](uint64_t row, uint64_t value, bool null) {
    if (null && nulls != nullptr) nulls[row / 64] |= uint64_t{1} << row % 64;
    if (c.type == KDZK_HOST_TEXT) {
      kdzk_host_text& text = static_cast<kdzk_host_text*>(values)[row];
      text = {};
      if (null) return true;
      if (is_coded(c)) {
        text = symbol(*dictionary, static_cast<uint32_t>(value));
      } else {
        const uint64_t key = value << c.shift;
        uint8_t* const room = static_cast<uint8_t*>(text_room) + 8 * row;
        put_be64(room, key);
        text = {room, text_bytes(key)};
      }
      return true;
    }
    const uint64_t key = null          ? key_of(int64_t{0})
                         : is_coded(c) ? key_at(*dictionary, static_cast<uint32_t>(value))
                                       : c.base + (value << c.shift);
    if (c.type == KDZK_HOST_INTEGER) static_cast<int64_t*>(values)[row] = integer_of(key);
    if (c.type == KDZK_HOST_DOUBLE) static_cast<double*>(values)[row] = null ? 0 : double_of(key);
    return true;
  });
  return KDZK_HOST_DONE;
}
