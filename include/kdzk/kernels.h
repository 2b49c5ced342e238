/* SPDX-License-Identifier: Apache-2.0
 *
 * Kernel ids and calling shapes. A kernel id is 13 bits, formed either from a row and a column of the kernel matrix, or
 * from a column's `kind` and an operation:
 *
 *     id = row * 128 + column = kind * 32 + operation,   kind = row * 4 + family,   column = family * 32 + operation
 *
 * For width-indexed kernels the row stands for a width in bits (kdzk_row_of_width), and KDZK_ROW_VARIANT added to it
 * for the `_null` twin of a `dict` predicate or the `_tz` twin of a `fixed` or `dynp` predicate. An id without a kernel
 * has a zero entry in the dispatch table: the host must test for it. */
#ifndef KDZK_KERNELS_H
#define KDZK_KERNELS_H

#include <kdzk/records.h>

#ifdef __cplusplus
extern "C" {
#endif

#ifdef __cplusplus
#define KDZK_INLINE constexpr
#else
#define KDZK_INLINE static inline
#endif

#define KDZK_KERNEL_IDS 8192u    /* ids 0 to 8191; also the length of the names table */
#define KDZK_DISPATCH_SIZE 8256u /* entries of the dispatch table; those behind the ids are zero */

/* Families: the upper two bits of a column. */
#define KDZK_FAMILY_FIXED 0u   /* values at full width, and kernels without a dictionary */
#define KDZK_FAMILY_DICT 1u    /* dictionary codes */
#define KDZK_FAMILY_DYNP 2u    /* values with their trailing zero bytes cut off */
#define KDZK_FAMILY_FURTHER 3u /* further forms */

/* Operations: the lower five bits of a column. */
#define KDZK_OP_EQ 0u             /* code = k */
#define KDZK_OP_LT 1u             /* code < k */
#define KDZK_OP_GT 2u             /* code > k */
#define KDZK_OP_LE 3u             /* code <= k */
#define KDZK_OP_GE 4u             /* code >= k */
#define KDZK_OP_NE 5u             /* code <> k */
#define KDZK_OP_GT_LT 6u          /* low < code and code < high */
#define KDZK_OP_GT_LE 7u          /* low < code and code <= high */
#define KDZK_OP_GE_LT 8u          /* low <= code and code < high */
#define KDZK_OP_GE_LE 9u          /* low <= code and code <= high */
#define KDZK_OP_DECODE 10u        /* codes to addresses and lengths of their symbols */
#define KDZK_OP_DECODE_UNPACK 11u /* codes to arrays of native integers */
#define KDZK_OP_DECODE_SYMBOL 12u /* native codes to symbols */
#define KDZK_OP_SET 13u           /* membership in a set of codes */
#define KDZK_OP_BURST_RLE 14u     /* bits per run to bits per row */
#define KDZK_OP_SUM 15u           /* does nothing and returns 0 */
#define KDZK_OP_DISTINCT 16u      /* does nothing and returns 0 */
#define KDZK_OP_XLATE 17u         /* translation; by family: sim, off, ind, group key */
#define KDZK_OP_ADD 19u
#define KDZK_OP_SUB 20u
#define KDZK_OP_MUL 21u

#define KDZK_ROW_VARIANT 32u /* added to a row: the `_null`, `_tz`, `_c2d` or `_sum` twin */
#define KDZK_ROW_DOUBLE 1u   /* rows of arithmetic kernels are sums of these and KDZK_ROW_VARIANT */
#define KDZK_ROW_SORTABLE_LEFT 4u
#define KDZK_ROW_SORTABLE_RIGHT 8u
#define KDZK_NO_ROW_OF_WIDTH 127u /* what kdzk_row_of_width returns for a width that has no row */

/* Row of a width in bits: 1 to 20 have rows 0 to 19, 24 has 20, 32 has 21, 64 has 22, all others have none. */
KDZK_INLINE uint32_t kdzk_row_of_width(uint32_t width) {
  if (width >= 1 && width <= 20) return width - 1;
  return width == 24 ? 20u : width == 32 ? 21u : width == 64 ? 22u : KDZK_NO_ROW_OF_WIDTH;
}

/* Kernel id of a row (0 to 63) and a column (0 to 127) of the matrix. */
KDZK_INLINE uint32_t kdzk_id_of(uint32_t row, uint32_t column) { return row * 128u + column; }

/* The `kind` that a host stores in kdzk_enc_ctx for a column of this row and family. */
KDZK_INLINE uint8_t kdzk_kind_of(uint32_t row, uint32_t family) { return (uint8_t)(row * 4u + family); }

/* Kernel id of a column's kind and an operation. */
KDZK_INLINE uint32_t kdzk_id_of_kind(uint8_t kind, uint32_t operation) { return kind * 32u + operation; }

/* ---- Calling shapes. Kernels are reentrant and keep nothing between calls; records may be shared by threads only as
 * kdzk/records.h says. The result's upper 32 bits are zero. ---- */

/* eq, lt, gt, le, ge, ne. Compares every row of `input` with the constant at `arg`, writes result->bitvec and
 * result->hits, and returns KDZK_DONE with hits, KDZK_NO_ROW without, or what result_cb returned (KDZK_RLE).
 * input->filter and exec->selection, where not null, are ANDed into the result. `exec` may be null unless the column is
 * KDZK_BLOCKED or KDZK_RLE. With KDZK_EX_SELECTIVE and a selection only the selected rows of input->nrows are looked
 * at, KDZK_RLE is ignored, and the bits of all other rows are clear; the 1-bit `dict` kernels don't look at that flag.
 */
typedef uint64_t (*kdzk_compare_fn)(kdzk_vec* result, const kdzk_vec* input, const kdzk_kargs* arg, kdzk_exec* exec);

/* gt_lt, gt_le, ge_lt, ge_le: the same with a low and a high constant. With low above high no row qualifies. */
typedef uint64_t (*kdzk_between_fn)(kdzk_vec* result, const kdzk_vec* input, const kdzk_kargs* low,
                                    const kdzk_kargs* high, kdzk_exec* exec);

/* decode, decode_unpack, decode_symbol: rows of `input` to arrays of `result`. `input` is only read.
 *
 * decode: the symbols of exec->ones_vec_size rows, in the order of exec->ones_vec; rows may repeat. Entry i of the
 * arrays of `result`, at their natural alignment and with room for as many entries, is of row ones_vec[i]: data, a
 * uint64_t, the address of its symbol; lengths, a uint16_t, the symbol's bytes; indicators, a uint16_t, 2 for a symbol
 * without bytes and otherwise 0. Of `input` it reads data, enc_ctx and, under KDZK_BLOCKED, what decompression needs;
 * of enc_ctx flags, dict_mode, base and, by dict_mode:
 *   0   value_len, the length of all symbols. If it is 0 the column isn't read and result->data not written.
 *   1   offsets. A length is taken modulo 65536: a symbol of 65536 bytes has length 0 and indicator 2.
 * Neither exec->selection nor exec->flags nor a filter is looked at. Widths that aren't 8, 16 or 32 take a row's bit
 * offset modulo 2^32: rows from 2^32 / width on give other rows' codes. Writes result->hits, the number of rows, and,
 * unless that is 0, exec->row, the last row listed, and KDZK_OUT_DECODE_ROW. `exec` must not be null.
 *
 * decode_symbol: the same for input->nrows codes at input->data, as decode_unpack writes them: native integers of 1, 2
 * or 4 bytes by the kernel's width, of 4 bytes with KDZK_EX_UNPACK_WIDE in exec->flags. result->indicators may be null
 * unless the symbols are of length 0. With dict_mode 1 and n codes, a length that doesn't fit in 16 bits becomes the
 * nearest number that does, as a signed number, in the first n / 8 * 8 rows; in the others it is taken modulo 65536.
 * With KDZK_EX_COPY_VALUES in exec->flags2, of a 32-bit kernel and with dict_mode 0, result->data gets the symbols'
 * bytes instead, back to back, and lengths and indicators aren't written; up to 16 symbols of one byte, as dict_size
 * has it, must be readable up to the next of 1, 2, 4, 8 and 16 bytes. Writes result->hits, the number of codes, and
 * nothing of `exec`, which must not be null.
 *
 * decode_unpack: the codes themselves, as native integers of 1 byte (widths up to 8), 2 (up to 16) or 4, or of 4 bytes
 * at all widths with KDZK_EX_UNPACK_WIDE. result->data: the output, with room for result->nrows of them. Rows of the
 * input->nrows that the column has are taken in one of these ways, from exec->row on:
 *   selection, with KDZK_EX_SELECTIVE   its rows, visited one by one
 *   selection, without                  its rows, looked at in blocks: up to four elements behind result->hits may be
 *                                       written too, never beyond result->nrows
 *   ones_vec                            these rows, in their order; the host sees to the room, exec->row isn't read
 *   neither                             all rows
 *
 * Of a run-length column (KDZK_RLE; unpack_base, unpack_width) the first two are one way, both lists must ascend, and
 * exec->run goes along between calls: zero it, or exec->row, to begin a scan. An empty ones_vec goes to
 * hostinternalerr. Writes result->hits, the number of elements, and exec->row, the last row dealt with: the last one
 * written if the output is full, otherwise the column's last; a host goes on with exec->row + 1. All ways but the last
 * set KDZK_OUT_UNPACK_ROW. Returns KDZK_DONE, or KDZK_NO_ROW if nothing was written.
 *
 * decode and decode_symbol return KDZK_DONE, or KDZK_MALFORMED with nothing written if dict_mode is neither 0 nor 1.
 * Codes must be below the dictionary's size; no kernel checks them. */
typedef uint64_t (*kdzk_decode_fn)(kdzk_vec* result, const kdzk_vec* input, kdzk_exec* exec);

/* set: whether each row's code is in a set of codes. The third argument is the set: its bitvec is a table of 2^width
 * bits in native words, code c at bit c % 64 of word c / 64; nothing else of that record is read. At 1 bit only the two
 * lowest bits of the table count. Of the table no page is touched but those that hold a word which some row's code asks
 * for, and from 11 bits on no other word, so that a host may map a window of a large one. `input`, `result` and `exec`
 * are as for `eq`, with these differences: input->filter isn't looked at; the selection's flag is
 * KDZK_OUT_SET_SELECTION; the 1-bit kernel has a selective path too; of the padding only the first
 * KDZK_SET_PADDING bytes are read. Bits past the last row are clear in the result, but for a 1-bit set: with code 0 in
 * it those of the last word are set before the selection is ANDed in, and the selective path copies the selection's if
 * both codes are in it. Without rows nothing is written but result->hits. */
typedef uint64_t (*kdzk_set_fn)(kdzk_vec* result, const kdzk_vec* input, const kdzk_vec* table, kdzk_exec* exec);

/* burst_rle: bits per run to bits per row. A result_cb calls it with what it was given itself.
 *
 * report->bitvec: a bit for each of the src->enc_ctx->own_nrows runs. report->hits: how many of them are set, which
 * only chooses the fastest way. result->nrows: rows, the sum of all run lengths. result->bitvec: (nrows + 63) / 64
 * words, all of which are written, and none behind them; bits past the last row are clear. result->hits: rows set.
 * Of src->enc_ctx, without `_cla`: unpack_base, the address of a run length per run, of a byte or, at that alignment, a
 * big-endian uint16_t. With `_cla`: run_offsets; the lengths are not read and may be of any size, and the two kernels
 * do the same. `result` and `src` may be the same record.
 *
 * Returns KDZK_DONE, or KDZK_NO_ROW if no row is set. Two mistakes end the process with a failed assertion, in every
 * build: a column without KDZK_RLE, and a report->bitvec that is result->bitvec. */
typedef uint64_t (*kdzk_burst_fn)(kdzk_vec* result, const kdzk_vec* src, const kdzk_result_report* report);

/* add, sub, mul: row by row, left + right, left - right or left * right, of floats or doubles, as the IEEE operation of
 * that type does it in the host's rounding and flush modes; only which NaN comes out of NaNs is not said. Their kernels
 * are named by type, the form of the left and of the right operand, and whether results are added up, and have ids of
 * kdzk_id_of(row, column): column KDZK_OP_ADD and so on, row the sum of
 *   KDZK_ROW_DOUBLE     operands and results are doubles rather than floats
 *   KDZK_ROW_SORTABLE_LEFT, KDZK_ROW_SORTABLE_RIGHT   that operand is sortable (`c`, docs/formats/sortable.md), not
 *                       native (`n`)
 *   KDZK_ROW_VARIANT    the `_sum` twin
 *
 * left->data, right->data: the operands, at any alignment; nothing behind the last row is read. With KDZK_CONST in
 * enc_ctx->flags the first value at `left` stands for every row; failing that, at `right`. If both have the flag,
 * `right` is a column like any other. Rows: the larger of left->nrows and right->nrows, whichever is a constant.
 * result->data, native: an array of results, which may be the data of a native operand; or, `_sum`, one number, which
 * the sum is added to. `exec` isn't looked at, nor are other flags, filters or hits. Returns KDZK_DONE.
 *
 * The order of additions of the `_sum` twins is fixed. With L = 4 floats or 2 doubles, and t(r) the result of row r:
 *   lane[0 to L - 1] = +0; for each row r of the first n / L * L:   lane[r % L] = lane[r % L] + t(r)
 *   s = (lane[0] + lane[1]) + (lane[2] + lane[3]);   of doubles: lane[0] + lane[1]
 *   for each row r left, in row order:   s = s + t(r)
 *   result = result + s */
typedef uint64_t (*kdzk_arithmetic_fn)(kdzk_vec* result, const kdzk_vec* left, const kdzk_vec* right, kdzk_exec* exec);
/* xlate: looks up the code of every row in a table of small elements. input->data: 32-bit big-endian codes, one per
 * row; KDZK_NUMERIC and a width of 32 are asked for, KDZK_BLOCKED isn't looked at. `exec` must not be null.
 *
 * table->bitvec, by the kernel's form:
 *   sim   the elements; the index is the code
 *   off   the elements; the index is the code minus xlate_base of the kdzk_enc_ctx at exec->xlate_info, modulo 2^32
 *   ind   native 64-bit addresses of pages of elements, 0 for a page that is missing: the page number is the code >>
 *         page_shift (below 32), the index in it the code & page_mask, both of table->enc_ctx
 * No index is compared with a table's size. An element is 1 bit (`bit`: bit i % 8 of byte i / 8), 4 bits (`nib`: byte i
 * / 2, the lower half for even i), or a native integer of 1, 2 or 4 bytes (`ub1`, `ub2`, `ub4`) at any alignment. The
 * element of all ones means no value, and so does a missing page; every other element is a hit.
 *
 * Writes result->bitvec, which the host provides cleared; result->hits, their number; and the kdzk_hit_range at
 * result->data. Rows from exec->start_row up to input->nrows are looked at. Into a bit vector that isn't cleared, rows
 * up to a multiple of 8, behind the last whole 16 from there and of a selection OR their bits; of the blocks of 16
 * between them, those with a hit replace their 16 bits and those without leave them. `_c2d` kernels also store every
 * row's element at exec->xlate_map, element r of an array of the table's form, whether it is a hit or not.
 * With exec->selection, whatever exec->flags say, only its rows are looked at and stored, and out_flags2 gets
 * KDZK_OUT2_XLATE_SELECTIVE.
 *
 * Returns KDZK_DONE with hits, KDZK_NO_ROW without, or, with nothing written, KDZK_UNSUPPORTED.
 *
 * xlate_groupkey: adds to each native uint32_t key at result->data the element at exec->xlate_map, a table of the form
 * of `sim`, of the row's code, times exec->group_stride, modulo 2^32. input->data: native uint32_t codes, input->nrows
 * of them. All ones are a number like others; nothing else is read or written; `table` may be null. Returns KDZK_DONE,
 * or KDZK_NO_ROW if there are no rows. */
typedef uint64_t (*kdzk_xlate_fn)(kdzk_vec* result, const kdzk_vec* input, const kdzk_vec* table, kdzk_exec* exec);

/* sum and distinct, of `fixed` and `dict` columns. These do nothing, read nothing and return 0: they stand in the table
 * so that every id that a host may form has a kernel. The 0 is no sum. */
typedef uint64_t (*kdzk_idle_fn)(kdzk_vec* result, const kdzk_vec* input, const kdzk_vec* second, kdzk_exec* exec);

/* One entry of the dispatch table. Which member holds follows from the operation; `any` is null if there is no kernel.
 */
typedef union kdzk_kernel {
  kdzk_compare_fn compare;
  kdzk_between_fn between;
  kdzk_decode_fn decode;
  kdzk_set_fn set;
  kdzk_burst_fn burst;
  kdzk_arithmetic_fn arithmetic;
  kdzk_xlate_fn xlate;
  kdzk_idle_fn idle;
  void (*any)(void);
} kdzk_kernel;

#ifdef __cplusplus
}
#endif

#endif
