/* SPDX-License-Identifier: Apache-2.0
 *
 * Streams of packed codes for hosts: row r is the `width` bits from bit r * width on, counted from the top of byte 0.
 * Whoever hands a stream to a kernel has to keep KDZK_PADDING readable bytes behind it. In the static library
 * kdzk_host. Functions keep nothing between calls and may run on any number of threads. */
#ifndef KDZK_HOST_PACKED_CODES_H
#define KDZK_HOST_PACKED_CODES_H

#include <kdzk/records.h>

#ifdef __cplusplus
extern "C" {
#endif

#define KDZK_HOST_MAX_CODE_WIDTH 32u

/* Bits of the widest code of a dictionary with `size` entries: 1 for up to 2, 3 for 5 to 8, and so on. There are
 * kernels for 1 to 20, 24 and 32 bits only. */
uint32_t kdzk_host_code_width(uint32_t size);

/* Bytes of a stream of `count` codes of `width` bits. */
uint64_t kdzk_host_packed_bytes(uint64_t count, uint32_t width);

/* Packs codes of `width` bits, 1 to KDZK_HOST_MAX_CODE_WIDTH, of which the higher bits are ignored, into exactly
 * kdzk_host_packed_bytes bytes at `stream`. Bits behind the last code are zero. */
void kdzk_host_pack(const uint32_t* codes, uint64_t count, uint32_t width, void* stream);

/* The codes of `count` rows from `row` on. Reads no byte but those that these codes are in. */
void kdzk_host_unpack(const void* stream, uint64_t row, uint64_t count, uint32_t width, uint32_t* codes);

#ifdef __cplusplus
}
#endif

#endif
