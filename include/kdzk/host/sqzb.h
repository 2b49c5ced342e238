/* SPDX-License-Identifier: Apache-2.0
 *
 * Blocks of the format SQZB for hosts: a writer, and a check for blocks from untrusted places. Both are in the static
 * library kdzk_host, which needs nothing but the C library. The decoder is the vector library's own
 * (kdzk_specialized_ctx.sqzb_decode_x86): it trusts a block beyond its header. docs/formats/sqzb.md has the format.
 *
 * Functions keep nothing between calls and may run on any number of threads. */
#ifndef KDZK_HOST_SQZB_H
#define KDZK_HOST_SQZB_H

#include <kdzk/records.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- What the functions return. ---- */

#define KDZK_HOST_DONE 0u
#define KDZK_HOST_NO_ROOM 1u   /* The block doesn't fit in the room that was given. */
#define KDZK_HOST_NO_BLOCK 2u  /* No block of the asked width holds these bytes. */
#define KDZK_HOST_NO_MEMORY 3u /* malloc gave none. */
#define KDZK_HOST_MALFORMED 4u /* The block is not well formed. */

#define KDZK_HOST_SQZB_MAX_WIDTH 10u
#define KDZK_HOST_SQZB_ANY_WIDTH 0xffu /* The width that makes the smallest block. */

/* Bytes that suffice for a block of any `size` bytes with codes of `width` bits (or KDZK_HOST_SQZB_ANY_WIDTH). */
uint64_t kdzk_host_sqzb_bound(uint32_t size, uint32_t width);

/* Writes a block that decodes to the `size` bytes at `src`, any bytes at all, and stores its size in bytes in
 * `*block_size`. The symbols are chosen from the data, so that text and other bytes that repeat shrink; bytes that
 * don't take up to kdzk_host_sqzb_bound. The same bytes and width always make the same block. `room` is the size of
 * `block` in bytes; whoever decodes the block has to keep KDZK_PADDING readable bytes behind it.
 *
 * `width` is KDZK_HOST_SQZB_ANY_WIDTH, or a code width from 0 to KDZK_HOST_SQZB_MAX_WIDTH: narrower codes decode faster
 * in relation to the block, and shrink less. Data with many distinct bytes have no block of a narrow width. Widths 1
 * and 2 hold less than 64 codes.
 *
 * Takes up to some 40 MiB from malloc and gives them back. Returns KDZK_HOST_DONE, KDZK_HOST_NO_ROOM,
 * KDZK_HOST_NO_BLOCK or KDZK_HOST_NO_MEMORY; but for DONE, `*block_size` is untouched and the bytes at `block` have no
 * meaning. */
uint32_t kdzk_host_sqzb_write(const void* src, uint32_t size, uint32_t width, void* block, uint64_t room,
                              uint64_t* block_size);

/* Of longer data, symbols are chosen from so many bytes, taken at even distances. */
#define KDZK_HOST_SQZB_SAMPLE 262144u

/* What the check found out about a block. */
typedef struct kdzk_host_sqzb_report {
  const char* reason;    /* Why the block is not well formed, a constant text; "well formed" if it is. */
  uint64_t offset;       /* The byte of the block that is the reason; block_size if it is well formed. */
  uint64_t block_size;   /* Well formed: bytes that the block takes; there may be more behind it. */
  uint32_t decoded_size; /* Well formed: bytes that it decodes to. */
  uint32_t code_count;   /* Well formed: codes in the stream. */
  uint32_t symbol_count; /* Well formed: symbols. */
  uint32_t code_width;   /* Well formed: bits of a code. */
} kdzk_host_sqzb_report;

/* Tells whether the `size` bytes at `block` begin with a well-formed block, reading nothing else, and returns
 * KDZK_HOST_DONE or KDZK_HOST_MALFORMED. `report` may be null.
 *
 * On a block that is well formed, sqzb_decode_x86 reads nothing but its block_size bytes and KDZK_PADDING behind them,
 * writes the first decoded_size bytes of the destination, and returns 0; with a destination smaller than that it writes
 * nothing and returns KDZK_MALFORMED. This asks for more than the decoder does: each code has a symbol, each symbol 1
 * to 8 bytes, the stream lies inside the block and makes decoded_size bytes, and codes of 1 or 2 bits are less than 64.
 */
uint32_t kdzk_host_sqzb_check(const void* block, uint64_t size, kdzk_host_sqzb_report* report);

#ifdef __cplusplus
}
#endif

#endif
