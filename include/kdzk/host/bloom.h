/* SPDX-License-Identifier: Apache-2.0
 *
 * Bloom filters for hosts: one bit per key, in an array of bytes or in pages of equal size. What is built here is what
 * kdzk_specialized_ctx.bloom_test looks up; the record that describes a filter is the one that bloom_test takes.
 *
 *     kdzk_host_bloom_shape(&enc, kdzk_host_bloom_mask(keys, 8), 0);
 *     filter.enc_ctx = &enc;
 *     filter.bitvec = calloc(kdzk_host_bloom_bytes(&enc), 1);
 *     kdzk_host_bloom_add_hashes(&filter, hashes, keys);
 *
 * A filter with n bits per key lets about one in n + 1/2 of the other keys pass. In the static library kdzk_host.
 * Functions keep nothing between calls and may run on any number of threads, but only one may add to a filter. */
#ifndef KDZK_HOST_BLOOM_H
#define KDZK_HOST_BLOOM_H

#include <kdzk/records.h>

#ifdef __cplusplus
extern "C" {
#endif

#define KDZK_HOST_BLOOM_MIN_PAGE 8u         /* bytes of the smallest page */
#define KDZK_HOST_BLOOM_MAX_PAGE (1u << 28) /* bytes of the largest page */

/* kdzk_enc_ctx.bloom_mask of a filter for `keys` keys with at least `bits_per_key` bits each: one less than a power of
 * two from 64 to 2^32 bits, which is the most that a filter has, whatever is asked for. */
uint32_t kdzk_host_bloom_mask(uint64_t keys, uint32_t bits_per_key);

/* Writes the fields of a filter, bloom_paged, bloom_mask, page_shift and page_mask, and no other. `mask` is from
 * kdzk_host_bloom_mask, `page_bytes` 0 for a flat filter, otherwise a power of two from KDZK_HOST_BLOOM_MIN_PAGE to
 * KDZK_HOST_BLOOM_MAX_PAGE. */
void kdzk_host_bloom_shape(kdzk_enc_ctx* enc, uint32_t mask, uint32_t page_bytes);

/* Bytes to allocate for a flat filter, or for each page of a paged one, a multiple of 8, and pages to allocate, 1 for a
 * flat filter. No padding is needed. They have to be zero before the first key is added. */
uint64_t kdzk_host_bloom_bytes(const kdzk_enc_ctx* enc);
uint32_t kdzk_host_bloom_pages(const kdzk_enc_ctx* enc);

/* Adds keys to the filter at filter->bitvec, an array of bytes or, if it is paged, of kdzk_host_bloom_pages pointers to
 * pages: `count` native 64-bit hashes, for columns of 64-bit hashes, or `count` big-endian 32-bit numbers at any
 * alignment, for columns of 32 bits. */
void kdzk_host_bloom_add_hashes(const kdzk_vec* filter, const uint64_t* hashes, uint64_t count);
void kdzk_host_bloom_add_values(const kdzk_vec* filter, const void* values, uint64_t count);

#ifdef __cplusplus
}
#endif

#endif
