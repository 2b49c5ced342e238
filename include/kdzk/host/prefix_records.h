/* SPDX-License-Identifier: Apache-2.0
 *
 * Prefix record streams for hosts: records of 1 to 8 bytes, in groups of 16 without what all records of the group begin
 * with. A writer, and a check for streams from untrusted places. docs/formats/prefix_records.md has the format. The
 * decoder is the vector library's own (kdzk_specialized_ctx.decode_prefix_records).
 *
 * In the static library kdzk_host. Functions keep nothing between calls and may run on any number of threads. */
#ifndef KDZK_HOST_PREFIX_RECORDS_H
#define KDZK_HOST_PREFIX_RECORDS_H

#include <kdzk/records.h>

#ifdef __cplusplus
extern "C" {
#endif

#define KDZK_HOST_PREFIX_GROUP 16u    /* records of a group, for kdzk_enc_ctx.prefix_group */
#define KDZK_HOST_PREFIX_MAX_WIDTH 8u /* bytes of a record */
#define KDZK_HOST_PREFIX_NO_STREAM 0u /* The stream is not well formed. */

/* Groups of a stream, for kdzk_vec.nrows. */
uint32_t kdzk_host_prefix_groups(uint32_t count);

/* Bytes that suffice for a stream of any `count` records of `width` bytes. */
uint64_t kdzk_host_prefix_records_bound(uint32_t count, uint32_t width);

/* Writes `count` records of `width` bytes, 1 to KDZK_HOST_PREFIX_MAX_WIDTH, as the shortest stream that they have, and
 * returns its bytes, at most kdzk_host_prefix_records_bound. Whoever decodes the stream has to keep KDZK_PADDING
 * readable bytes behind it. A stream of no records is empty and must not be decoded. */
uint64_t kdzk_host_prefix_records_write(const void* records, uint32_t count, uint32_t width, void* stream);

/* Tells whether the `size` bytes at `stream` begin with a well-formed stream of `count` records of `width` bytes,
 * reading nothing else, and returns its bytes, or KDZK_HOST_PREFIX_NO_STREAM. On a stream that is well formed, the
 * decoder reads nothing but these bytes and KDZK_PADDING behind them, and writes count * width bytes. */
uint64_t kdzk_host_prefix_records_check(const void* stream, uint64_t size, uint32_t count, uint32_t width);

#ifdef __cplusplus
}
#endif

#endif
