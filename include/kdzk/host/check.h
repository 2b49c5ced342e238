/* SPDX-License-Identifier: Apache-2.0
 *
 * Checks for everything that a host may read from a disk or a wire and hand to a kernel. Kernels trust what they read:
 * a code without a dictionary entry, lengths that don't add up or a broken block lead them out of their buffers. Each
 * check reads nothing but the bytes it is given, or what a kernel that it calls may read, and says in one record what
 * is wrong and where. kdzk_host_column_check (kdzk/host/column.h) does all of this for a whole column.
 *
 * In the static library kdzk_host. Functions keep nothing between calls and may run on any number of threads. */
#ifndef KDZK_HOST_CHECK_H
#define KDZK_HOST_CHECK_H

#include <kdzk/context.h>
#include <kdzk/host/sqzb.h>

#ifdef __cplusplus
extern "C" {
#endif

/* What a check found out. Checks return KDZK_HOST_DONE or KDZK_HOST_MALFORMED, and their `report` may be null. */
typedef struct kdzk_host_report {
  uint32_t ok;        /* 1: well formed */
  const char* reason; /* Why it isn't, a constant text; "well formed" if it is. */
  uint64_t offset;    /* The byte, from the start of what was checked, that is the reason; 0 if it is well formed. */
} kdzk_host_report;

/* Packed codes: `size` bytes hold at least `nrows` codes of `width` bits, one that has kernels, and each code is below
 * `limit`. With `library` this is its `ge` predicate over the stream, which must then be readable for KDZK_PADDING
 * bytes past `size`; without, a plain loop. Bits behind the last code may be any. */
uint32_t kdzk_host_check_codes(const kdzk_specialized_ctx* library, const void* stream, uint64_t size, uint64_t nrows,
                               uint32_t width, uint64_t limit, kdzk_host_report* report);

/* Run lengths for kdzk_enc_ctx.unpack_base, of 8 or 16 bits: `size` bytes hold `runs` of them, none is 0, and their sum
 * is `nrows`. */
uint32_t kdzk_host_check_runs(const void* lengths, uint64_t size, uint32_t length_bits, uint32_t runs, uint64_t nrows,
                              kdzk_host_report* report);

/* First rows for kdzk_enc_ctx.run_offsets: `size` bytes hold runs + 1 of them, which ascend from 0 to `nrows`. */
uint32_t kdzk_host_check_run_offsets(const void* offsets, uint64_t size, uint32_t runs, uint64_t nrows,
                                     kdzk_host_report* report);

/* Length codes of a `dynp` column of 16, 32 or 64 bits: `size` bytes hold `nrows` of them, each is one that a value of
 * that width may have, and the lengths add up to `data_size` bytes. */
uint32_t kdzk_host_check_lengths(const void* lengths, uint64_t size, uint64_t nrows, uint32_t width, uint64_t data_size,
                                 kdzk_host_report* report);

/* Symbol offsets for kdzk_enc_ctx.offsets: `size` bytes hold count + 1 big-endian uint32_t, which begin at 0, don't
 * descend, and end at or before `symbol_bytes`. */
uint32_t kdzk_host_check_offsets(const void* offsets, uint64_t size, uint32_t count, uint64_t symbol_bytes,
                                 kdzk_host_report* report);

/* A block that takes `size` bytes and decodes to `decoded_size`; kdzk_host_sqzb_check tells more. */
uint32_t kdzk_host_check_block(const void* block, uint64_t size, uint64_t decoded_size, kdzk_host_report* report);

/* A prefix record stream that takes `size` bytes; kdzk_host_prefix_records_check takes bytes behind it too. */
uint32_t kdzk_host_check_prefix_records(const void* stream, uint64_t size, uint32_t count, uint32_t width,
                                        kdzk_host_report* report);

#ifdef __cplusplus
}
#endif

#endif
