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

#define KDZK_ROW_VARIANT 32u      /* added to a row: the `_null`, `_tz`, `_c2d` or `_sum` twin */
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

/* decode, decode_unpack, decode_symbol: rows of `input` to arrays of `result`. `input` is changed and given back by
 * decode_unpack of a run-length column, otherwise only read. */
typedef uint64_t (*kdzk_decode_fn)(kdzk_vec* result, kdzk_vec* input, kdzk_exec* exec);

/* burst_rle: bits per run, in `report`, to bits per row, in result->bitvec. */
typedef uint64_t (*kdzk_burst_fn)(kdzk_vec* result, const kdzk_vec* src, const kdzk_result_report* report);

/* sum and distinct, of `fixed` and `dict` columns. These do nothing, read nothing and return 0: they stand in the table
 * so that every id that a host may form has a kernel. The 0 is no sum. */
typedef uint64_t (*kdzk_idle_fn)(kdzk_vec* result, const kdzk_vec* input, const kdzk_vec* second, kdzk_exec* exec);

/* One entry of the dispatch table. Which member holds follows from the operation; `any` is null if there is no kernel.
 */
typedef union kdzk_kernel {
  kdzk_compare_fn compare;
  kdzk_between_fn between;
  kdzk_decode_fn decode;
  kdzk_burst_fn burst;
  kdzk_idle_fn idle;
  void (*any)(void);
} kdzk_kernel;

#ifdef __cplusplus
}
#endif

#endif
