/* SPDX-License-Identifier: Apache-2.0
 *
 * Numeric columns for hosts: floats and doubles in the sortable form, whose bytes sort as the values do, and big-endian
 * integers; docs/formats/sortable.md has both. For the arithmetic kernels with a `c` operand and for
 * kdzk_specialized_ctx.decode_sortable and sum_sortable. No alignment is needed for columns, and no padding behind
 * them. In the static library kdzk_host. Functions keep nothing between calls and may run on any number of threads. */
#ifndef KDZK_HOST_SORTABLE_H
#define KDZK_HOST_SORTABLE_H

#include <kdzk/records.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Writes `count` values to a column of 4 or 8 bytes per row. Every value has a form of its own, bit by bit: -0 and +0,
 * and each NaN, those with a sign below all other values and those without above. */
void kdzk_host_write_sortable_floats(const float* values, uint64_t count, void* column);
void kdzk_host_write_sortable_doubles(const double* values, uint64_t count, void* column);

/* The values of `count` rows from `row` on. */
void kdzk_host_read_sortable_floats(const void* column, uint64_t row, uint64_t count, float* values);
void kdzk_host_read_sortable_doubles(const void* column, uint64_t row, uint64_t count, double* values);

/* Writes `count` integers of `width` bits, a multiple of 8 from 8 to 64, of which the higher bits are dropped. The
 * library sums columns of 8, 16, 32 and 64 bits (kdzk_enc_ctx.width). Other than the sortable form, this one doesn't
 * sort by its bytes: negative integers come last. */
void kdzk_host_write_integers(const int64_t* values, uint64_t count, uint32_t width, void* column);

/* The integers of `count` rows from `row` on. */
void kdzk_host_read_integers(const void* column, uint64_t row, uint64_t count, uint32_t width, int64_t* values);

#ifdef __cplusplus
}
#endif

#endif
