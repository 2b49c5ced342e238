/* SPDX-License-Identifier: Apache-2.0
 *
 * What hosts of 19.1-1 were compiled against: the declarations of the library's headers of that version, and of their
 * constants those that host.c takes. It never changes; a release with an interface of its own gets a file like this
 * beside it. */
#ifndef KDZK_ABI_19_1_1_H
#define KDZK_ABI_19_1_1_H

#include <stddef.h>
#include <stdint.h>

#define KDZK_PADDING 16u
#define KDZK_DONE 0u
#define KDZK_NUMERIC 0x80u
#define KDZK_RLE 0x200u
#define KDZK_FIXED_BYTES 0x800u
#define KDZK_BLOCKED 0x10000u
#define KDZK_PROBE_PAIRS 0x40000u
#define KDZK_IMPLICIT_IDS 0x80000u
#define KDZK_EX_SELECTIVE 0x02u
#define KDZK_OUT_SELECTION 0x02u
#define KDZK_STORE_PAIRS 0x20u

typedef struct kdzk_vec kdzk_vec;
typedef struct kdzk_enc_ctx kdzk_enc_ctx;
typedef struct kdzk_run_position kdzk_run_position;
typedef struct kdzk_exec kdzk_exec;
typedef struct kdzk_env kdzk_env;
typedef struct kdzk_sqzb_ctx kdzk_sqzb_ctx;
typedef struct kdzk_result_report kdzk_result_report;
typedef struct kdzk_bv_iter kdzk_bv_iter;
typedef struct kdzk_hit_range kdzk_hit_range;
typedef struct kdzk_partdesc kdzk_partdesc;
typedef struct kdzk_htdesc kdzk_htdesc;
typedef struct kdzk_rowstore kdzk_rowstore;
typedef void* (*kdzk_alloc_fn)(void* hctx, void* heap, uint32_t size, const char* comment, uint32_t unit,
                               uint32_t alignment, uint64_t tag);
typedef void* (*kdzk_tmp_alloc_fn)(void* hctx, uint64_t size, const char* comment, uint32_t unit, uint32_t zero,
                                   void** out);
typedef void (*kdzk_tmp_free_fn)(void* hctx, void* scratch, void* out);
typedef uint32_t (*kdzk_decompress_fn)(const kdzk_sqzb_ctx* ctx, const void* src, void* dst, uint32_t* written,
                                       uint32_t capacity);
typedef uint32_t (*kdzk_result_cb)(const kdzk_env* env, kdzk_vec* result, const kdzk_vec* input,
                                   const kdzk_result_report* report);
typedef uint64_t (*kdzk_hash_fn)(const void* key, uint32_t length, uint64_t seed);
void hostinternalerr(void* hctx, uint64_t word72, const char* message, uint64_t zero);

struct kdzk_vec {
  void *data, *lengths, *indicators;
  const kdzk_enc_ctx* enc_ctx;
  const uint64_t* filter;
  uint64_t* bitvec;
  uint32_t hits, nrows, decomp_size;
  void** decomp_slot;
  uint64_t alloc_tag, rowbase, out_size;
};
typedef kdzk_vec kdzk_kargs;

struct kdzk_enc_ctx {
  uint8_t kind;
  const uint8_t *base, *value_len, *offsets;
  uint32_t dict_size, dict_mode;
  uint64_t unpack_base;
  uint8_t unpack_width;
  uint32_t own_nrows;
  const uint8_t* run_offsets;
  kdzk_result_cb result_cb;
  uint64_t* own_bitvec;
  uint8_t prefix_group;
  int16_t prefix_width;
  uint32_t prefix_count;
  uint8_t bloom_paged;
  uint32_t bloom_mask, page_shift, page_mask;
  uint8_t ref_bits;
  const uint64_t* ref_pages;
  uint32_t xlate_base, flags;
  uint8_t width, width_zero[3], float_kind;
};

struct kdzk_run_position {
  uint32_t run_index, run_end;
};

struct kdzk_exec {
  const kdzk_env* env;
  const uint64_t* selection;
  uint8_t flags, flags2;
  uint32_t part, row;
  union {
    uint64_t key_off;
    kdzk_run_position run;
  };
  uint64_t payload_off;
  uint32_t* ones_vec;
  uint32_t ones_vec_size, start_row;
  uint8_t out_flags, out_flags2;
  const void* xlate_info;
  void* xlate_map;
  uint32_t group_stride;
};

struct kdzk_env {
  void *hctx, *heap;
  kdzk_alloc_fn alloc;
  kdzk_tmp_alloc_fn tmp_alloc;
  kdzk_tmp_free_fn tmp_free;
  kdzk_decompress_fn decompress;
};

struct kdzk_sqzb_ctx {
  void *hctx, *heap;
  kdzk_tmp_alloc_fn tmp_alloc;
  kdzk_tmp_free_fn tmp_free;
  void* dest;
};

struct kdzk_result_report {
  uint64_t word0;
  uint64_t* bitvec;
  uint64_t word2, hits, words4_to_15[12];
};

struct kdzk_bv_iter {
  const uint64_t* next;
  int32_t nrows, base;
  uint64_t pos, bits;
};

struct kdzk_hit_range {
  uint32_t first, last;
};
#define KDZK_PART_A 0x09u

struct kdzk_partdesc {
  uint32_t leading;
  uint8_t flags, part_hi, part_lo;
  uint16_t payload_size;
  uint8_t** cursors;
  uint8_t* const* limits;
};

struct kdzk_htdesc {
  uint32_t leading, flags;
  uint8_t bucket_hi, dir_hi, dir_lo;
  uint8_t* const* tables;
  uint8_t** cursors;
  uint8_t* const* limits;
  uint8_t low_bits;
};

struct kdzk_rowstore {
  uint32_t leading, flags;
  uint16_t ncols, width;
  uint8_t page_hi, page_lo;
  uint8_t* const* pairs;
  uint8_t** pair_cursors;
  uint8_t* const* refs;
  uint8_t* const* offsets;
  uint8_t** offset_cursors;
  const uint64_t* bases;
  uint8_t** data_cursors;
  uint8_t* const* data_limits;
};

#define KDZK_INLINE static inline
#define KDZK_DISPATCH_SIZE 8256u
#define KDZK_FAMILY_DICT 1u
#define KDZK_OP_LT 1u
#define KDZK_OP_DECODE 10u
#define KDZK_OP_DECODE_UNPACK 11u
#define KDZK_OP_SET 13u
#define KDZK_OP_XLATE 17u
#define KDZK_OP_ADD 19u
#define KDZK_ROW_VARIANT 32u
#define KDZK_ROW_DOUBLE 1u
#define KDZK_NO_ROW_OF_WIDTH 127u

KDZK_INLINE uint32_t kdzk_row_of_width(uint32_t width) {
  if (width >= 1 && width <= 20) return width - 1;
  return width == 24 ? 20u : width == 32 ? 21u : width == 64 ? 22u : KDZK_NO_ROW_OF_WIDTH;
}
KDZK_INLINE uint32_t kdzk_id_of(uint32_t row, uint32_t column) { return row * 128u + column; }
KDZK_INLINE uint8_t kdzk_kind_of(uint32_t row, uint32_t family) { return (uint8_t)(row * 4u + family); }
KDZK_INLINE uint32_t kdzk_id_of_kind(uint8_t kind, uint32_t operation) { return kind * 32u + operation; }
typedef uint64_t (*kdzk_compare_fn)(kdzk_vec* result, const kdzk_vec* input, const kdzk_kargs* arg, kdzk_exec* exec);
typedef uint64_t (*kdzk_between_fn)(kdzk_vec* result, const kdzk_vec* input, const kdzk_kargs* low,
                                    const kdzk_kargs* high, kdzk_exec* exec);
typedef uint64_t (*kdzk_decode_fn)(kdzk_vec* result, const kdzk_vec* input, kdzk_exec* exec);
typedef uint64_t (*kdzk_set_fn)(kdzk_vec* result, const kdzk_vec* input, const kdzk_vec* table, kdzk_exec* exec);
typedef uint64_t (*kdzk_burst_fn)(kdzk_vec* result, const kdzk_vec* src, const kdzk_result_report* report);
typedef uint64_t (*kdzk_arithmetic_fn)(kdzk_vec* result, const kdzk_vec* left, const kdzk_vec* right, kdzk_exec* exec);
typedef uint64_t (*kdzk_xlate_fn)(kdzk_vec* result, const kdzk_vec* input, const kdzk_vec* table, kdzk_exec* exec);
typedef uint64_t (*kdzk_idle_fn)(kdzk_vec* result, const kdzk_vec* input, const kdzk_vec* second, kdzk_exec* exec);

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

typedef uint64_t (*kdzk_hash_rows_fn)(const kdzk_vec* out, const kdzk_vec* keys, const kdzk_vec* seeds,
                                      kdzk_hash_fn hash);
typedef uint64_t (*kdzk_partition_fn)(const kdzk_partdesc* desc, const kdzk_vec* keys, const kdzk_vec* rows,
                                      kdzk_hash_fn hash, kdzk_exec* exec);
typedef uint64_t (*kdzk_ht_build_fn)(const kdzk_htdesc* desc, const kdzk_vec* keys, const kdzk_vec* rows,
                                     int32_t partition, kdzk_hash_fn hash, kdzk_exec* exec);
typedef uint64_t (*kdzk_ht_probe_fn)(kdzk_vec* out, const kdzk_vec* keys, const kdzk_vec* rows, const kdzk_htdesc* desc,
                                     kdzk_hash_fn hash, kdzk_exec* exec);
typedef uint64_t (*kdzk_gather_fn)(const kdzk_vec* out, const kdzk_vec* in, const kdzk_rowstore* row_store,
                                   kdzk_exec* exec);
typedef uint64_t (*kdzk_fill_pairs_fn)(const kdzk_rowstore* matrix, const kdzk_vec* col, uint32_t column, int32_t part);
typedef uint64_t (*kdzk_pack_rows_fn)(const kdzk_rowstore* target, const kdzk_rowstore* source, int32_t target_page,
                                      int32_t source_page, uint32_t first_row, int32_t last_row, kdzk_exec* exec);
typedef uint64_t (*kdzk_bloom_fn)(kdzk_vec* result, const kdzk_vec* values, const kdzk_vec* filter, kdzk_exec* exec);

typedef uint64_t (*kdzk_decode_sortable_fn)(const kdzk_vec* result, const kdzk_vec* input, const kdzk_exec* exec);
typedef uint64_t (*kdzk_sum_fn)(const kdzk_vec* result, const kdzk_vec* input, const kdzk_vec* groups,
                                const void* unused);
typedef uint64_t (*kdzk_polygon_fn)(const kdzk_vec* result, const kdzk_vec* xs, const kdzk_vec* ys, const kdzk_vec* px,
                                    const kdzk_vec* py);
typedef uint64_t (*kdzk_groupkey_fn)(kdzk_vec* result, uint32_t* key_count, const kdzk_vec* columns,
                                     uint64_t column_count, const kdzk_vec* temp, const kdzk_exec* exec);

#define KDZK_MAGIC UINT64_C(0xb9018218)
#define KDZK_VERSION "19.1-1"
#define KDZK_CONTEXT_SYMBOL "kdzk_global_specialized_ctx"
#define KDZK_BV64_END UINT64_C(0xffffffffffffffff)

typedef struct kdzk_bv_services {
  void (*bv_count)(uint32_t* count, const void* src, uint64_t nrows);
  void (*bv_not)(void* dst, uint32_t* count, const void* src, uint64_t nrows);
  void (*bv_and)(void* dst, uint32_t* count, const void* a, const void* b, uint64_t nrows);
  void (*bv_or)(void* dst, uint32_t* count, const void* a, const void* b, uint64_t nrows);
  void (*bv_xor)(void* dst, uint32_t* count, const void* a, const void* b, uint64_t nrows);
  void (*bv_andnot)(void* dst, uint32_t* count, const void* a, const void* b, uint64_t nrows);
  void (*bv_and3)(void* dst, uint32_t* count, const void* a, const void* b, const void* c, uint64_t nrows);
  void (*bv_or3)(void* dst, uint32_t* count, const void* a, const void* b, const void* c, uint64_t nrows);
  void (*bv_xor3)(void* dst, uint32_t* count, const void* a, const void* b, const void* c, uint64_t nrows);
  void (*set_range)(void* bits, uint64_t first, uint64_t last);
  void (*clear_range)(void* bits, uint64_t first, uint64_t last);
  void (*iter_init)(kdzk_bv_iter* iter, const uint64_t* words, uint32_t nrows, uint32_t invert, uint32_t start);
  uint64_t (*next_set)(kdzk_bv_iter* iter);
  uint64_t (*next_clear)(kdzk_bv_iter* iter);
  uint64_t (*next_set_batch)(kdzk_bv_iter* iter, uint32_t* rows, uint32_t capacity);
  uint64_t (*no_next)(kdzk_bv_iter* iter, uint64_t unused);
  uint64_t (*no_batch)(kdzk_bv_iter* iter, uint32_t* rows, uint32_t capacity, uint64_t unused);
} kdzk_bv_services;

typedef struct kdzk_prefix_record {
  const uint8_t* address;
  uint16_t width, zero[3];
} kdzk_prefix_record;
typedef uint64_t (*kdzk_prefix_fn)(const kdzk_vec* result, const kdzk_vec* input, const kdzk_exec* exec);

typedef struct kdzk_specialized_ctx {
  uint64_t magic;
  const char* version;
  uint64_t count;
  const char* name;
  uint64_t numbers[10];
  const kdzk_kernel* dispatch;
  void (*noop1[2])(void*);
  kdzk_bv_services bv8, bv64;
  kdzk_bloom_fn bloom_test;
  kdzk_polygon_fn point_in_polygon;
  kdzk_groupkey_fn groupkey_dydi;
  kdzk_sum_fn sum_sortable;
  kdzk_decode_sortable_fn decode_sortable;
  kdzk_prefix_fn decode_prefix_records;
  kdzk_hash_rows_fn hash_rows;
  kdzk_ht_build_fn ht_build;
  kdzk_ht_probe_fn ht_probe;
  kdzk_partition_fn partition_rows;
  kdzk_gather_fn ht_gather;
  kdzk_fill_pairs_fn fill_pairs;
  kdzk_pack_rows_fn pack_rows;
  kdzk_decompress_fn sqzb_decode_x86;
  uint64_t (*reserved0[2])(void);
} kdzk_specialized_ctx;

static inline const char* kdzk_name_of(const kdzk_specialized_ctx* ctx, uint32_t id) {
  return ((const char* const*)(const void*)(ctx->dispatch + KDZK_DISPATCH_SIZE))[id];
}
extern const kdzk_specialized_ctx kdzk_global_specialized_ctx;

#endif
