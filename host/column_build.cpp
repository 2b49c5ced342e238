// SPDX-License-Identifier: Apache-2.0
// Values to columns. One walk over the rows finds what decides the size of each form; only the smallest is written.
//
// A stored value of FIXED and DYNP is (key - base) >> shift, keys being 64-bit numbers in the order of the values
// (host/keys.h). The base is the lowest key of integers, so that they are as narrow as the range in which they lie, and
// 0 for others, whose trailing zero bytes it would fill. The shift drops the bytes that are zero in all rows.

#include <kdzk/host/column.h>
#include <kdzk/host/run_length.h>

#include <algorithm>
#include <cstddef>

#include "host/array.h"
#include "host/column_streams.h"
#include "host/keys.h"

namespace kdzk_host {
namespace {

constexpr uint32_t plain_forms[] = {KDZK_HOST_PACKED, KDZK_HOST_RUNS, KDZK_HOST_FIXED, KDZK_HOST_DYNP};

// Bytes of a stored value of DYNP: without its trailing zero bytes, but one at least.
uint32_t stored_bytes(uint64_t value, uint32_t value_bytes) {
  return value == 0 ? 1 : value_bytes - static_cast<uint32_t>(std::countr_zero(value)) / 8;
}

class Builder {
 public:
  Builder(const kdzk_host_values& values, const kdzk_host_coder* coder) : values_(values), coder_(coder) {}

  uint32_t build(uint32_t forms, uint64_t dictionary_bytes, uint8_t* bytes, uint64_t room, kdzk_host_column& column) {
    const uint32_t asked = (forms | forms >> 4) & KDZK_HOST_PLAIN_FORMS;
    if ((asked & KDZK_HOST_CODED_FORMS) != 0 && coder_ != nullptr) {
      const uint32_t status = find_codes();
      const bool others = (asked & ~KDZK_HOST_CODED_FORMS) != 0;
      if (status != KDZK_HOST_DONE && (status != KDZK_HOST_NO_CODE || !others)) return status;
    }
    if ((asked & (KDZK_HOST_FIXED | KDZK_HOST_DYNP)) != 0)
      with_rows(values_, [&](const auto& rows) { find_keys(rows); });

    kdzk_host_column best{};
    uint64_t best_size = UINT64_MAX;
    bool too_large = false;
    Array<uint8_t> best_block;
    for (const uint32_t form : plain_forms) {
      kdzk_host_column candidate{};
      if ((asked & form) == 0 || !describe(form, candidate)) continue;
      const uint64_t extra = is_coded(candidate) ? dictionary_bytes : 0;
      if ((forms & form) != 0 && candidate.size + extra < best_size) {
        best = candidate;
        best_size = candidate.size + extra;
      }
      if ((forms & KDZK_HOST_BLOCKED(form)) == 0) continue;
      if (candidate.data_size > UINT32_MAX) {
        too_large = true;
        continue;
      }
      Array<uint8_t> block;
      if (!compress(candidate, block)) return KDZK_HOST_NO_MEMORY;
      candidate.form = KDZK_HOST_BLOCKED(form);
      candidate.data_bytes = block.size();
      candidate.size = Layout(candidate).size;
      if (candidate.size + extra < best_size) {
        best = candidate;
        best_size = candidate.size + extra;
        best_block.swap(block);
      }
    }
    if (best.form == 0) return too_large ? KDZK_HOST_NO_ROOM : KDZK_HOST_NO_FORM;
    if (best.size > room) return KDZK_HOST_NO_ROOM;

    const Layout layout(best);
    for (uint64_t gap = best.data_bytes; gap < layout.lengths_at; gap++) bytes[gap] = 0;
    for (uint64_t gap = layout.lengths_at + layout.lengths_bytes; gap < layout.present_at; gap++) bytes[gap] = 0;
    if (is_blocked(best)) {
      std::memcpy(bytes, best_block.begin(), best.data_bytes);
    } else if (!write_data(best, bytes)) {
      return KDZK_HOST_NO_MEMORY;
    }
    if (!write_lengths(best, bytes + layout.lengths_at)) return KDZK_HOST_NO_MEMORY;
    if (layout.present_bytes > 0) write_present(bytes + layout.present_at);
    best.checksum = kdzk_host_column_checksum(&best, bytes);
    column = best;
    return KDZK_HOST_DONE;
  }

 private:
  uint32_t find_codes() {
    if (!codes_.assign(values_.nrows, 0)) return KDZK_HOST_NO_MEMORY;
    const uint32_t status = kdzk_host_coder_codes(coder_, &values_, codes_.begin(), nullptr);
    has_codes_ = status == KDZK_HOST_DONE;
    return status;
  }

  template <class Row>
  void find_keys(const Row& rows) {
    uint64_t lowest = UINT64_MAX, highest = 0;
    has_keys_ = true;
    for (uint64_t row = 0; row < values_.nrows; row++) {
      if (is_null_row(values_, rows, row)) {
        null_keys_++;
        continue;
      }
      if constexpr (std::is_same_v<Row, Rows<KDZK_HOST_TEXT>>) {
        if (!has_key(rows.values[row])) {
          has_keys_ = false;
          return;
        }
      }
      lowest = std::min(lowest, rows.key(row));
      highest = std::max(highest, rows.key(row));
    }
    any_key_ = lowest <= highest;
    if (!any_key_) return;
    base_ = values_.type == KDZK_HOST_INTEGER ? lowest : 0;
    uint64_t all_bits = 0;
    for (uint64_t row = 0; row < values_.nrows; row++) {
      if (!is_null_row(values_, rows, row)) all_bits |= rows.key(row) - base_;
    }
    shift_ = all_bits == 0 ? 0 : static_cast<uint32_t>(std::countr_zero(all_bits)) / 8 * 8;
    smallest_ = (lowest - base_) >> shift_;
    largest_ = (highest - base_) >> shift_;
  }

  // Calls function(row, stored value) for every row, with 0 for NULL.
  template <class Function>
  void each_value(const Function& function) const {
    with_rows(values_, [&](const auto& rows) {
      for (uint64_t row = 0; row < values_.nrows; row++) {
        function(row, is_null_row(values_, rows, row) ? 0 : (rows.key(row) - base_) >> shift_);
      }
    });
  }

  // What the column is in this form, not blocked; false if it has no such form.
  bool describe(uint32_t form, kdzk_host_column& column) {
    column.form = form;
    column.type = static_cast<uint8_t>(values_.type);
    column.nrows = column.elements = values_.nrows;
    column.smallest = 1;  // above the largest, for no value at all
    if (is_coded(column) ? !describe_codes(column) : !describe_values(column)) return false;
    column.data_bytes = column.data_size;
    column.size = Layout(column).size;
    return true;
  }

  bool describe_codes(kdzk_host_column& column) {
    if (!has_codes_) return false;
    const kdzk_host_dictionary& dictionary = *kdzk_host_coder_dictionary(coder_);
    column.width = static_cast<uint8_t>(dictionary.width);
    column.first_code = static_cast<uint8_t>(dictionary.first_code);
    uint32_t smallest = UINT32_MAX, largest = 0, nulls = 0;
    for (const uint32_t code : codes_) {
      const bool null = code < dictionary.first_code;
      nulls += null;
      smallest = std::min(smallest, null ? UINT32_MAX : code);
      largest = std::max(largest, code);
    }
    column.nulls = nulls;
    if (nulls < column.nrows) {
      column.smallest = smallest;
      column.largest = largest;
    }
    if (column.form == KDZK_HOST_RUNS) {
      const uint32_t of_8_bits = kdzk_host_count_runs(codes_.begin(), column.nrows, KDZK_HOST_RUNS_8BIT);
      const uint32_t of_16_bits = kdzk_host_count_runs(codes_.begin(), column.nrows, KDZK_HOST_RUNS_16BIT);
      const bool narrow = uint64_t{of_8_bits} * (8 + column.width) <= uint64_t{of_16_bits} * (16 + column.width);
      column.length_bits = narrow ? KDZK_HOST_RUNS_8BIT : KDZK_HOST_RUNS_16BIT;
      column.elements = narrow ? of_8_bits : of_16_bits;
    }
    column.data_size = data_size(column);
    return true;
  }

  bool describe_values(kdzk_host_column& column) {
    if (!has_keys_) return false;
    const auto value_bytes = std::max(1u, (static_cast<uint32_t>(std::bit_width(largest_)) + 7) / 8);
    const bool fixed = column.form == KDZK_HOST_FIXED;
    column.nulls = null_keys_;
    column.base = base_;
    column.shift = static_cast<uint8_t>(shift_);
    column.value_bytes = static_cast<uint8_t>(value_bytes);
    column.width = static_cast<uint8_t>(lane_width(value_bytes, fixed));
    if (any_key_) {
      column.smallest = smallest_;
      column.largest = largest_;
    }
    column.data_size = data_size(column);
    if (fixed) return true;
    column.length_bits = column.width / 16;
    column.data_size = 0;
    each_value([&](uint64_t, uint64_t value) { column.data_size += stored_bytes(value, value_bytes); });
    return true;
  }

  // Each of these writes just its stream, of data_size or lengths_bytes; false if there is no memory.
  bool write_data(const kdzk_host_column& column, uint8_t* out) const {
    switch (plain_form(column)) {
      case KDZK_HOST_PACKED:
        kdzk_host_pack(codes_.begin(), column.nrows, column.width, out);
        return true;
      case KDZK_HOST_RUNS: {
        Array<uint32_t> run_codes;
        if (!run_codes.assign(column.elements, 0)) return false;
        kdzk_host_write_runs(codes_.begin(), column.nrows, column.length_bits, run_codes.begin(), nullptr, nullptr);
        kdzk_host_pack(run_codes.begin(), column.elements, column.width, out);
        return true;
      }
      default: {
        const uint8_t* const end = out + column.data_size;
        const bool fixed = plain_form(column) == KDZK_HOST_FIXED;
        const uint32_t value_bytes = column.value_bytes, to_top = 64 - 8 * value_bytes;
        each_value([&](uint64_t, uint64_t value) {
          const uint32_t bytes = fixed ? value_bytes : stored_bytes(value, value_bytes);
          uint8_t eight[8];
          put_be64(eight, value << to_top);
          std::memcpy(out, eight, end - out >= 8 ? 8 : bytes);  // the next row overwrites what is too much
          out += bytes;
        });
        return true;
      }
    }
  }

  bool write_lengths(const kdzk_host_column& column, uint8_t* out) const {
    if (plain_form(column) == KDZK_HOST_RUNS)
      kdzk_host_write_runs(codes_.begin(), column.nrows, column.length_bits, nullptr, out, nullptr);
    if (plain_form(column) != KDZK_HOST_DYNP) return true;
    Array<uint32_t> lengths;
    if (!lengths.assign(column.nrows, 0)) return false;
    each_value([&](uint64_t row, uint64_t value) { lengths[row] = stored_bytes(value, column.value_bytes) - 1; });
    kdzk_host_pack(lengths.begin(), column.nrows, column.length_bits, out);
    return true;
  }

  void write_present(uint8_t* out) const {
    std::memset(out, 0, 8 * words_of(values_.nrows));
    with_rows(values_, [&](const auto& rows) {
      for (uint64_t row = 0; row < values_.nrows; row++) {
        out[row / 8] |= static_cast<uint8_t>(!is_null_row(values_, rows, row) << row % 8);
      }
    });
  }

  bool compress(const kdzk_host_column& column, Array<uint8_t>& block) const {
    const auto size = static_cast<uint32_t>(column.data_size);
    const uint64_t bound = kdzk_host_sqzb_bound(size, KDZK_HOST_SQZB_ANY_WIDTH);
    Array<uint8_t> data;
    if (!data.reserve(size + uint64_t{1}) || !block.reserve(bound) || !write_data(column, data.begin())) return false;
    uint64_t block_size = 0;
    if (kdzk_host_sqzb_write(data.begin(), size, KDZK_HOST_SQZB_ANY_WIDTH, block.begin(), bound, &block_size) !=
        KDZK_HOST_DONE)
      return false;
    block.extend(block_size);
    return true;
  }

  const kdzk_host_values& values_;
  const kdzk_host_coder* const coder_;
  bool has_codes_ = false, has_keys_ = false, any_key_ = false;
  Array<uint32_t> codes_;
  uint32_t null_keys_ = 0, shift_ = 0;
  uint64_t base_ = 0, smallest_ = 0, largest_ = 0;
};

}  // namespace
}  // namespace kdzk_host

uint64_t kdzk_host_column_bound(uint32_t nrows) {
  using namespace kdzk_host;
  // Values of 8 bytes, which a block may not shrink, 16 bits of run length, a bit for NULL, and zeros between these.
  const uint64_t header_of_block = 1024;
  return 8 * uint64_t{nrows} + header_of_block + to_8(2 * uint64_t{nrows}) + 8 * words_of(nrows) + 16;
}

uint64_t kdzk_host_column_checksum(const kdzk_host_column* column, const void* bytes) {
  kdzk_host::Checksum sum;
  sum.add(bytes, column->size);
  sum.add(reinterpret_cast<const uint8_t*>(column) + sizeof column->checksum, sizeof *column - sizeof column->checksum);
  return sum.value();
}

uint32_t kdzk_host_column_build(const kdzk_host_values* values, const kdzk_host_coder* coder, uint32_t forms,
                                uint64_t dictionary_bytes, void* bytes, uint64_t room, kdzk_host_column* column) {
  kdzk_host::Builder builder(*values, coder);
  return builder.build(forms, dictionary_bytes, static_cast<uint8_t*>(bytes), room, *column);
}
