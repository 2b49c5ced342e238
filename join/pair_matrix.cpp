// SPDX-License-Identifier: Apache-2.0
// The pair matrix: rows of `ncols` pairs of length and address. One call writes one column of it, from a column in any
// form that has values; no byte of a value is read or copied.
//
//   pair_cursors[page]   (0, 0) (0, 1) ... (0, ncols - 1) (1, 0) ...          16 bytes each, row by row
//                               |                         the column's next is 16 * ncols bytes on
//                        [length, 2 bytes | 6 bytes that keep what they hold | address, 8 bytes]

#include "frame/services.h"
#include "join/rowstore.h"

namespace kdzk {
namespace {

// The form itself moves from row to row: where a value's length tells the next one's place, that is a load and an
// addition from row to row.
template <class Form>
void fill_column(Form column, uint32_t nrows, uint8_t* pair, uint64_t stride) {
  for (uint32_t row = 0; row < nrows; row++, pair += stride) {
    const Value value = column.value(0, 0);
    store_pair(pair, value);
    uint64_t end = 0;
    if constexpr (Form::streamed) end = Form::end(0, value);
    column = column.from(1, end);
  }
}

}  // namespace

uint64_t kdzk_fill_pairs(const kdzk_rowstore* matrix, const kdzk_vec* col, uint32_t column, int32_t part) {
  if ((matrix->flags & KDZK_STORE_PAIRS) == 0) return KDZK_UNSUPPORTED;
  return first_form<FixedBytes, LenArray, LenPrefixed, PtrLen, Pair16>(col->enc_ctx->flags, [&]<class Form>() {
    uint8_t* const first = matrix->pair_cursors[part] + uint64_t{static_cast<uint16_t>(column)} * 16;
    fill_column(Form(col), col->nrows, first, uint64_t{matrix->ncols} * 16);
    return KDZK_DONE;
  });
}

}  // namespace kdzk
