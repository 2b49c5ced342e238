/* SPDX-License-Identifier: Apache-2.0
 *
 * Services for numbers: sortable columns and their sums, group keys, the crossing count of a polygon. They stand in
 * slots 52 to 55 of the exported record (kdzk/context.h). C11 and C++20. */
#ifndef KDZK_NUMERIC_H
#define KDZK_NUMERIC_H

#include <kdzk/records.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Numeric columns (docs/formats/sortable.md): enc_ctx->float_kind says what the input->nrows rows at input->data are. 1
 * and 2: floats and doubles in the sortable form, whose bytes sort as the values do. 8: big-endian two's-complement
 * integers of enc_ctx->width bits, 8, 16, 32 or 64. Nothing behind the last row is read. Sums of floats and doubles are
 * exact to the bit: additions are done in the order that is told here, in the type of the column and in the host's
 * rounding and flush modes; infinities and NaNs pass through, and only which NaN comes out is not said. Sums of
 * integers wrap. KDZK_RLE and KDZK_BLOCKED are not looked at, nor is result->hits or a bit vector written.
 *
 * decode_sortable: decodes the column to result->data, an array of native floats or doubles, bit by bit as they were,
 * NaNs included; or, with an `exec` that has KDZK_EX_SUM in flags, adds the column to the one native accumulator at
 * result->data, a float, double or, for integers, uint64_t. With L = 4 floats or 2 doubles and v a row's value:
 *   lane[0 to L - 1] = +0; for each row r of the first nrows / L * L:   lane[r % L] = lane[r % L] + v
 *   result = ((lane[0] + lane[1]) + (lane[2] + lane[3])) + result;   of doubles: (lane[0] + lane[1]) + result
 *   t = +0; for each row left:   t = t + v
 *   result = t + result
 * float_kind is tested by bits, 1 before 2 before 8: 3 means float. Integers of any other width add 0. Returns
 * KDZK_DONE, or KDZK_MALFORMED with nothing written if float_kind has none of the bits, or if the column has
 * KDZK_SUM_ONLY in enc_ctx->flags and `exec` is null or lacks KDZK_EX_SUM. Integers can't be decoded: that ends the
 * process with the failed assertion "FALSE", in every build, or returns KDZK_MALFORMED if the handler returns. */
typedef uint64_t (*kdzk_decode_sortable_fn)(const kdzk_vec* result, const kdzk_vec* input, const kdzk_exec* exec);

/* sum_sortable: adds the column to native accumulators at result->data, of the types above. float_kind must be 1, 2 or
 * 8 exactly. With KDZK_SUM_ONLY in enc_ctx->flags, floats and doubles are native, not sortable.
 *
 * `groups` null: t = +0; t = t + v for each row in order; result[0] = t + result[0]. Otherwise groups->data is an array
 * of a native uint32_t per row, and result[group of r] = result[group of r] + v for each row r in order; groups must be
 * indexes of accumulators, nothing checks them. Integers of any other width than 8, 16, 32 and 64 change nothing.
 * `unused` is not looked at. Returns KDZK_DONE, or KDZK_MALFORMED with nothing written for any other float_kind. */
typedef uint64_t (*kdzk_sum_fn)(const kdzk_vec* result, const kdzk_vec* input, const kdzk_vec* groups,
                                const void* unused);

/* point_in_polygon: how many edges of a vertex list a ray from a point towards larger x crosses.
 *
 * xs->data, ys->data: arrays of native doubles, xs->nrows of each, the vertices. px->data, py->data: a native double
 * each, the point. result->data: a uint32_t, which receives the count. Nothing else of the records is read or written.
 *
 * Which edges there are, by vertex numbers and for n vertices:
 *   n = 1         none that is ever crossed
 *   n = 2         1 to 0 and 0 to 1: one segment, twice
 *   n = 3         2 to 0, 0 to 1, 1 to 2: the closed triangle
 *   n even, >= 4  0 to 1 and so on to n - 3 to n - 2; and n - 2 to n - 1, twice
 *   n odd, >= 5   0 to 1 and so on to n - 4 to n - 3; and n - 1 to n - 3, n - 3 to n - 2, n - 2 to n - 1
 * So from 4 vertices on nothing leads from the last vertex to the first: a host that means a closed polygon prepares
 * its list for that. An edge has its lower end and not its upper end, and horizontal edges have nothing. A point on an
 * edge is not left of it. Points within rounding distance of an edge may come out either way, edges to n - 2 (even n)
 * or n - 3 (odd n) by another formula than the last ones. A compare with a NaN doesn't hold. Returns KDZK_DONE. */
typedef uint64_t (*kdzk_polygon_fn)(const kdzk_vec* result, const kdzk_vec* xs, const kdzk_vec* ys, const kdzk_vec* px,
                                    const kdzk_vec* py);

/* groupkey_dydi: a dense key for each row's combination of codes in several dictionary columns, most significant first,
 * all arithmetic modulo 2^32:
 *
 *     key = (...(code 0 * d 1 + code 1) * d 2 + code 2 ...)       with KDZK_EX_GROUP_MUL, d being the dict_size
 *     key = (...((code 0 << w 1) + code 1) << w 2) + code 2 ...    without, w being the width modulo 32
 *
 * columns: `column_count` (at least 1, its low 32 bits count) input vectors, of each its `kind`, `flags`, `width`,
 * `dict_size` and what the decode_unpack kernel of its kind reads, which does the decoding: plain, KDZK_BLOCKED and
 * KDZK_RLE columns go. Of a run-length column behind the 32nd the place in its runs isn't kept: such columns must be
 * plain. columns[0].nrows: the rows. result->data: the keys, native uint32_t at any alignment, with room for
 * result->nrows of them. temp->data: scratch of temp->nrows uint32_t, at least 1; it bounds how many rows go together,
 * and is best if it fits in the first cache. *key_count: the number of keys, one more than the highest.
 *
 * exec is only read. exec->row: the first row. exec->selection: its rows only, as decode_unpack takes them.
 * exec->ones_vec must be null. exec->env: tmp_alloc, commented "kdzk_groupkey_dydi: temp column info", and tmp_free.
 *
 * Returns KDZK_DONE, or KDZK_OUTPUT_FULL with result->nrows keys written and rows left: the next call begins with the
 * row behind the last one of this, exec->row + result->hits unless there is a selection. result->hits: the keys
 * written. Or, with nothing written, KDZK_UNSUPPORTED if a column lacks KDZK_PACKED_DICT, and KDZK_KEYS_TOO_MANY if the
 * keys don't fit in 32 bits, whichever the first such column gives. */
typedef uint64_t (*kdzk_groupkey_fn)(kdzk_vec* result, uint32_t* key_count, const kdzk_vec* columns,
                                     uint64_t column_count, const kdzk_vec* temp, const kdzk_exec* exec);

#ifdef __cplusplus
}
#endif

#endif
