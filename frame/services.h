// SPDX-License-Identifier: Apache-2.0
// The service functions behind the slots of the exported record. kdzk/context.h says what they do.
#ifndef FRAME_SERVICES_H
#define FRAME_SERVICES_H

#include <kdzk/records.h>

namespace kdzk {

void kdzk_noop1(void*);
uint64_t kdzk_reserved0();

void kdzk_bv8_count(uint32_t* count, const void* src, uint64_t nrows);
void kdzk_bv8_not(void* dst, uint32_t* count, const void* src, uint64_t nrows);
void kdzk_bv8_and(void* dst, uint32_t* count, const void* a, const void* b, uint64_t nrows);
void kdzk_bv8_or(void* dst, uint32_t* count, const void* a, const void* b, uint64_t nrows);
void kdzk_bv8_xor(void* dst, uint32_t* count, const void* a, const void* b, uint64_t nrows);
void kdzk_bv8_andnot(void* dst, uint32_t* count, const void* a, const void* b, uint64_t nrows);
void kdzk_bv8_and3(void* dst, uint32_t* count, const void* a, const void* b, const void* c, uint64_t nrows);
void kdzk_bv8_or3(void* dst, uint32_t* count, const void* a, const void* b, const void* c, uint64_t nrows);
void kdzk_bv8_xor3(void* dst, uint32_t* count, const void* a, const void* b, const void* c, uint64_t nrows);

void kdzk_bv64_count(uint32_t* count, const void* src, uint64_t nrows);
void kdzk_bv64_not(void* dst, uint32_t* count, const void* src, uint64_t nrows);
void kdzk_bv64_and(void* dst, uint32_t* count, const void* a, const void* b, uint64_t nrows);
void kdzk_bv64_or(void* dst, uint32_t* count, const void* a, const void* b, uint64_t nrows);
void kdzk_bv64_xor(void* dst, uint32_t* count, const void* a, const void* b, uint64_t nrows);
void kdzk_bv64_andnot(void* dst, uint32_t* count, const void* a, const void* b, uint64_t nrows);
void kdzk_bv64_and3(void* dst, uint32_t* count, const void* a, const void* b, const void* c, uint64_t nrows);
void kdzk_bv64_or3(void* dst, uint32_t* count, const void* a, const void* b, const void* c, uint64_t nrows);
void kdzk_bv64_xor3(void* dst, uint32_t* count, const void* a, const void* b, const void* c, uint64_t nrows);

void kdzk_bv_set_range(void* bits, uint64_t first, uint64_t last);
void kdzk_bv_clear_range(void* bits, uint64_t first, uint64_t last);
void kdzk_bv_iter_init(kdzk_bv_iter* iter, const uint64_t* words, uint32_t nrows, uint32_t invert, uint32_t start);

uint64_t kdzk_bv8_next_set(kdzk_bv_iter* iter);
uint64_t kdzk_bv8_next_clear(kdzk_bv_iter* iter);
uint64_t kdzk_bv8_next_set_batch(kdzk_bv_iter* iter, uint32_t* rows, uint32_t capacity);
uint64_t kdzk_bv8_no_next(kdzk_bv_iter* iter, uint64_t unused);

uint64_t kdzk_bv64_next_set(kdzk_bv_iter* iter);
uint64_t kdzk_bv64_next_clear(kdzk_bv_iter* iter);
uint64_t kdzk_bv64_next_set_batch(kdzk_bv_iter* iter, uint32_t* rows, uint32_t capacity);
uint64_t kdzk_bv64_no_next(kdzk_bv_iter* iter, uint64_t unused);

uint64_t kdzk_bv_no_batch(kdzk_bv_iter* iter, uint32_t* rows, uint32_t capacity, uint64_t unused);

uint64_t kdzk_point_in_polygon(const kdzk_vec* result, const kdzk_vec* xs, const kdzk_vec* ys, const kdzk_vec* px,
                               const kdzk_vec* py);
uint64_t kdzk_sum_sortable(const kdzk_vec* result, const kdzk_vec* input, const kdzk_vec* groups, const void* unused);
uint64_t kdzk_decode_sortable(const kdzk_vec* result, const kdzk_vec* input, const kdzk_exec* exec);
uint64_t kdzk_groupkey_dydi(kdzk_vec* result, uint32_t* key_count, const kdzk_vec* columns, uint64_t column_count,
                            const kdzk_vec* temp, const kdzk_exec* exec);
uint64_t kdzk_bloom_test(kdzk_vec* result, const kdzk_vec* values, const kdzk_vec* filter, kdzk_exec* exec);

uint64_t kdzk_decode_prefix_records(const kdzk_vec* result, const kdzk_vec* input, const kdzk_exec* exec);

uint64_t kdzk_hash_rows(const kdzk_vec* out, const kdzk_vec* keys, const kdzk_vec* seeds, kdzk_hash_fn hash);
uint64_t kdzk_partition_rows(const kdzk_partdesc* desc, const kdzk_vec* keys, const kdzk_vec* rows, kdzk_hash_fn hash,
                             kdzk_exec* exec);

uint64_t kdzk_ht_gather(const kdzk_vec* out, const kdzk_vec* in, const kdzk_rowstore* row_store, kdzk_exec* exec);
uint64_t kdzk_fill_pairs(const kdzk_rowstore* matrix, const kdzk_vec* col, uint32_t column, int32_t part);
uint64_t kdzk_pack_rows(const kdzk_rowstore* target, const kdzk_rowstore* source, int32_t target_page,
                        int32_t source_page, uint32_t first_row, int32_t last_row, kdzk_exec* exec);
uint64_t kdzk_ht_build(const kdzk_htdesc* desc, const kdzk_vec* keys, const kdzk_vec* rows, int32_t partition,
                       kdzk_hash_fn hash, kdzk_exec* exec);
uint64_t kdzk_ht_probe(kdzk_vec* out, const kdzk_vec* keys, const kdzk_vec* rows, const kdzk_htdesc* desc,
                       kdzk_hash_fn hash, kdzk_exec* exec);

uint32_t sqzb_decode_x86(const kdzk_sqzb_ctx* ctx, const void* src, void* dst, uint32_t* out_len, uint32_t capacity);

}  // namespace kdzk

#endif
