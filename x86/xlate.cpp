// SPDX-License-Identifier: Apache-2.0
// Translation: every row's 32-bit code is looked up in a table, and the rows whose element isn't the one without a
// value are reported: a bit each, their number, the first and the last. `_c2d` kernels also keep the elements, row by
// row.
//
// x86/xlate.h tells how 16 rows are looked up; this file which rows. How the table is indexed, the form of its elements
// and whether they are kept are template arguments, so that each kernel is one instance of
//
//   head      single rows up to a multiple of 8, where a byte of the bit vector and one of nibbles begin
//   blocks    16 rows: look-ups, mask, bits
//   tail      single rows
//   selected  in their place, if there is a selection: its rows 256 at a time, all addresses first, then all elements
//             with a prefetch of the one 10 rows on
//
// Invariants. The bit vector isn't cleared: a block with a hit replaces its 16 bits, one without leaves them, and
// single and selected rows only set theirs. A block is stored whether it has hits or not, in the second case with the
// bits that were there; that and conditional moves leave no branch on data. Stores stay within the rows: a block is 2
// bytes of the bit vector and 16 elements, all of them real rows'. Codes are read to their last byte and no further.

#include "x86/xlate.h"

#include <algorithm>

#include "frame/services.h"

namespace kdzk {
namespace {

// What a call reports.
struct Hits {
  static constexpr uint32_t no_row = ~0u;
  uint8_t* bits;
  uint32_t count = 0, first = no_row, last = no_row;

  void row(uint32_t row, bool hit) {
    bits[row / 8] |= static_cast<uint8_t>(hit << row % 8);
    count += hit;
    found(hit, row, row);
  }

  // 16 rows from a multiple of 8 on.
  void block(uint32_t row, uint32_t mask) {
    const uint32_t before = load<uint16_t>(bits + row / 8);
    store(bits + row / 8, static_cast<uint16_t>(mask | (before & (uint32_t{mask != 0} - 1))));
    count += bits_set(mask);
    const auto lowest = static_cast<uint32_t>(__builtin_ctz(mask | 0x10000));
    const auto highest = static_cast<uint32_t>(31 - __builtin_clz(mask | 1));
    found(mask != 0, row + lowest, row + highest);
  }

  uint64_t report(kdzk_vec* result) const {
    result->hits = count;
    store(result->data, kdzk_hit_range{first, last});
    return count != 0 ? KDZK_DONE : KDZK_NO_ROW;
  }

 private:
  // Rows come in ascending order, so the lowest is the first one seen. Written out of masks, since the compiler makes
  // branches of conditions.
  void found(bool any, uint32_t lowest, uint32_t highest) {
    const uint32_t mask = -uint32_t{any};
    first = std::min(first, lowest | ~mask);
    last = (highest & mask) | (last & ~mask);
  }
};

// One call's columns, and the loops over them. `Table` says how an index comes from a code.
template <class Table, TableElement element, bool c2d>
struct Translation {
  using Form = ElementForm<element>;

  const Table table;
  const uint8_t* const codes;  // big-endian, 4 bytes a row
  uint8_t* const map;          // the array of elements, if they are kept

  uint32_t code(uint32_t row) const { return load_be32(codes + uint64_t{row} * 4); }

  void put_row(uint32_t row, uint32_t value, Hits& hits) const {
    if constexpr (c2d) Form::put(map, row, value);
    hits.row(row, value != Form::none);
  }

  void single_rows(uint32_t row, uint32_t end, Hits& hits) const {
    for (; row < end; row++) {
      const ElementPlace place = place_of<element>(table, code(row));
      put_row(row, element_at<element>(place.unit, place.index), hits);
    }
  }

  void all_rows(uint32_t row, uint32_t nrows, Hits& hits) const {
    const uint32_t head = -row % 8, rest = nrows - row;  // rows up to the next multiple of 8
    const uint32_t head_end = row + (head < rest ? head : rest);
    single_rows(row, head_end, hits);
    row = head_end;
    const uint8_t* in = codes + uint64_t{row} * 4;
    uint8_t* out = c2d ? map + uint64_t{row} * Form::bits / 8 : nullptr;
    for (uint32_t blocks = (nrows - row) / 16; blocks > 0; blocks--) {
      _mm_prefetch(reinterpret_cast<const char*>(in + bytes_ahead), _MM_HINT_NTA);
      if constexpr (c2d) _mm_prefetch(reinterpret_cast<const char*>(out + bytes_ahead), _MM_HINT_NTA);
      const Elements<element> found(SixteenPlaces<element, Table>(
          table, [in](int i) { return _mm_shuffle_epi8(load16(in + 16 * i), vector_of(turned_round)); }, in));
      if constexpr (c2d) found.put(out);
      hits.block(row, found.hits());
      in += 64;
      if constexpr (c2d) out += 2 * Form::bits;
      row += 16;
    }
    single_rows(row, nrows, hits);
  }

  void selected_rows(const uint64_t* selection, uint32_t row, uint32_t nrows, Hits& hits) const {
    constexpr uint32_t batch = 256, lookahead = 10;
    kdzk_bv_iter iter;
    kdzk_bv_iter_init(&iter, selection, nrows, 0, row);
    uint32_t rows[batch];
    const uint8_t* units[batch + lookahead] = {};  // a prefetch behind the last one finds any of them, or nothing
    alignas(16) uint8_t low_bits[batch];
    uint32_t n;
    do {
      n = static_cast<uint32_t>(kdzk_bv64_next_set_batch(&iter, rows, batch));
      uint32_t i = 0;
      for (; n - i >= 16; i += 16) {
        const SixteenPlaces<element, Table> places(table, [&](int four) {
          const uint32_t* const r = rows + i + 4 * four;
          const auto code_of = [&](uint32_t listed) { return static_cast<int>(code(listed)); };
          return _mm_setr_epi32(code_of(r[0]), code_of(r[1]), code_of(r[2]), code_of(r[3]));
        });
        places.put_units(units + i);
        store16(low_bits + i, places.low_bits());
      }
      for (; i < n; i++) {
        const ElementPlace place = place_of<element>(table, code(rows[i]));
        units[i] = place.unit;
        low_bits[i] = static_cast<uint8_t>(place.index % Form::per_unit);
      }
      for (i = 0; i < n; i++) {
        _mm_prefetch(reinterpret_cast<const char*>(units[i + lookahead]), _MM_HINT_T0);
        put_row(rows[i], element_at<element>(units[i], low_bits[i]), hits);
      }
    } while (n == batch);
  }

  static constexpr int bytes_ahead = 640;
};

template <TableIndex index>
auto table_of(const kdzk_vec* table, const kdzk_exec* exec) {
  if constexpr (index == TableIndex::ind) {
    return PagedTable{table->bitvec, table->enc_ctx->page_shift, table->enc_ctx->page_mask};
  } else {
    const auto units = reinterpret_cast<uint64_t>(table->bitvec);
    if constexpr (index == TableIndex::sim) return FlatTable{units};
    if constexpr (index == TableIndex::off)
      return OffsetTable{units, static_cast<const kdzk_enc_ctx*>(exec->xlate_info)->xlate_base};
  }
}

}  // namespace

template <TableIndex index, TableElement element, bool c2d>
uint64_t xlate(kdzk_vec* result, const kdzk_vec* input, const kdzk_vec* table, kdzk_exec* exec) {
  const kdzk_enc_ctx* const enc = input->enc_ctx;
  if ((enc->flags & KDZK_NUMERIC) == 0 || enc->width != 32) return KDZK_UNSUPPORTED;
  const auto found = table_of<index>(table, exec);
  const Translation<decltype(found), element, c2d> translation = {found, static_cast<const uint8_t*>(input->data),
                                                                  static_cast<uint8_t*>(exec->xlate_map)};
  Hits hits = {reinterpret_cast<uint8_t*>(result->bitvec)};
  const uint32_t row = exec->start_row, nrows = input->nrows;
  if (exec->selection != nullptr) exec->out_flags2 |= KDZK_OUT2_XLATE_SELECTIVE;
  if (row < nrows) {  // or there is no word of the selection to begin with
    if (exec->selection != nullptr) {
      translation.selected_rows(exec->selection, row, nrows, hits);
    } else {
      translation.all_rows(row, nrows, hits);
    }
  }
  return hits.report(result);
}

#define KDZK_XLATE(index, element, c2d)                                                                               \
  template uint64_t xlate<TableIndex::index, TableElement::element, c2d>(kdzk_vec*, const kdzk_vec*, const kdzk_vec*, \
                                                                         kdzk_exec*);
#define KDZK_XLATES(index)      \
  KDZK_XLATE(index, bit, false) \
  KDZK_XLATE(index, nib, false) \
  KDZK_XLATE(index, ub1, false) \
  KDZK_XLATE(index, ub2, false) \
  KDZK_XLATE(index, ub4, false) \
  KDZK_XLATE(index, nib, true)  \
  KDZK_XLATE(index, ub1, true)  \
  KDZK_XLATE(index, ub2, true)  \
  KDZK_XLATE(index, ub4, true)

KDZK_XLATES(sim)
KDZK_XLATES(off)
KDZK_XLATES(ind)

}  // namespace kdzk
