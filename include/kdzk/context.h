/* SPDX-License-Identifier: Apache-2.0
 *
 * The library's one exported symbol, kdzk_global_specialized_ctx: identification, the dispatch table of the kernels,
 * and the service functions. Constant while the library is loaded. A host finds it with dlsym, checks `magic` and
 * `version`, and calls everything through it; there is nothing to initialise or to shut down. */
#ifndef KDZK_CONTEXT_H
#define KDZK_CONTEXT_H

#include <kdzk/join.h>
#include <kdzk/kernels.h>
#include <kdzk/numeric.h>

#ifdef __cplusplus
extern "C" {
#endif

#define KDZK_MAGIC UINT64_C(0xb9018218)
#define KDZK_VERSION "19.1-1"
#define KDZK_CONTEXT_SYMBOL "kdzk_global_specialized_ctx"

#define KDZK_BV8_END UINT64_C(0xffffffff)          /* end of a walk by the bv8 services */
#define KDZK_BV64_END UINT64_C(0xffffffffffffffff) /* end of a walk by the bv64 services */

/* Bit vector services. A bit vector has no header: row r is bit r % 64 of native word r / 64, the row count travels
 * beside it. The two groups offer the same operations. `bv64` reads and writes whole 64-bit words, (nrows + 63) / 64 of
 * them; `bv8` whole bytes, (nrows + 7) / 8. Neither touches anything behind its last unit, no alignment is needed, and
 * sources and destination may be the same vector. Bits past the last row are computed like the others and never
 * counted. `count` receives the number of set rows of the result; null means no count, except in bv_count. */
typedef struct kdzk_bv_services {
  void (*bv_count)(uint32_t* count, const void* src, uint64_t nrows);
  void (*bv_not)(void* dst, uint32_t* count, const void* src, uint64_t nrows);
  void (*bv_and)(void* dst, uint32_t* count, const void* a, const void* b, uint64_t nrows);
  void (*bv_or)(void* dst, uint32_t* count, const void* a, const void* b, uint64_t nrows);
  void (*bv_xor)(void* dst, uint32_t* count, const void* a, const void* b, uint64_t nrows);
  void (*bv_andnot)(void* dst, uint32_t* count, const void* a, const void* b, uint64_t nrows); /* (NOT a) AND b */
  void (*bv_and3)(void* dst, uint32_t* count, const void* a, const void* b, const void* c, uint64_t nrows);
  void (*bv_or3)(void* dst, uint32_t* count, const void* a, const void* b, const void* c, uint64_t nrows);
  void (*bv_xor3)(void* dst, uint32_t* count, const void* a, const void* b, const void* c, uint64_t nrows);

  /* Sets or clears the bits first to last, both included; first must not be above last. */
  void (*set_range)(void* bits, uint64_t first, uint64_t last);
  void (*clear_range)(void* bits, uint64_t first, uint64_t last);

  /* Begins a walk over `words` at row `start`, which must be below nrows or 0: always reads the word of `start`. Only
   * the low byte of `invert` counts: 1 for a walk by next_clear, 0 for next_set and next_set_batch. */
  void (*iter_init)(kdzk_bv_iter* iter, const uint64_t* words, uint32_t nrows, uint32_t invert, uint32_t start);

  /* The next set (clear) row in ascending order, or the group's end mark. */
  uint64_t (*next_set)(kdzk_bv_iter* iter);
  uint64_t (*next_clear)(kdzk_bv_iter* iter);

  /* Stores up to `capacity` next set rows at `rows` and returns how many; fewer than `capacity` at the end. */
  uint64_t (*next_set_batch)(kdzk_bv_iter* iter, uint32_t* rows, uint32_t capacity);

  /* No operation behind these: they return the group's end mark and 0. */
  uint64_t (*no_next)(kdzk_bv_iter* iter, uint64_t unused);
  uint64_t (*no_batch)(kdzk_bv_iter* iter, uint32_t* rows, uint32_t capacity, uint64_t unused);
} kdzk_bv_services;

/* sqzb_decode_x86, a decompressor for kdzk_env.decompress: decodes a block of the format SQZB (docs/formats/sqzb.md).
 * Takes two pieces of scratch from ctx->tmp_alloc, commented "sqzb_decode_x86 length_array" and "sqzb_decode_x86:
 * symbol_array", and gives both back before it returns; of the record it reads hctx, tmp_alloc and tmp_free. The block
 * must be readable for KDZK_PADDING bytes past its end. No byte of `dst` past those produced is touched.
 *
 * Returns KDZK_DONE, or KDZK_MALFORMED in two cases. The header is wrong or the block decodes to more than `capacity`
 * bytes: nothing was allocated or written. Or the stream makes another number of bytes than the header says: they are
 * in `dst`, and `*written` is their number. Beyond that the block is trusted; kdzk_host_sqzb_check is for others. */

/* decode_prefix_records: expands a stream of records of 1 to 8 bytes, stored in groups of 16 without what all records
 * of the group begin with (docs/formats/prefix_records.md), to an array of records.
 *
 * input->enc_ctx: prefix_group, which must be 16; prefix_width, the bytes of a record, 1 to 8; prefix_count, the number
 * of records. input->nrows: the number of groups, at least 1, the last of which may have less than 16 records.
 * input->data: the stream, readable for KDZK_PADDING bytes past its end. result->data: room for prefix_count *
 * prefix_width bytes, of which all are written and none behind them. exec->xlate_info: room for a table of prefix_count
 * kdzk_prefix_record, which is written; null, or a null `exec`: no table. No alignment is needed.
 *
 * Returns KDZK_DONE, or KDZK_MALFORMED if prefix_group or prefix_width is none of these; then nothing was written. The
 * stream itself is trusted; kdzk_host_prefix_records_check is for others. */
typedef struct kdzk_prefix_record {
  const uint8_t* address; /* of the record, in result->data */
  uint16_t width;         /* prefix_width */
  uint16_t zero[3];
} kdzk_prefix_record;
typedef uint64_t (*kdzk_prefix_fn)(const kdzk_vec* result, const kdzk_vec* input, const kdzk_exec* exec);

/* The exported record: 67 words of 64 bits, a word per line unless said otherwise. */
typedef struct kdzk_specialized_ctx {
  uint64_t magic;                          /* 0: KDZK_MAGIC */
  const char* version;                     /* 1: KDZK_VERSION */
  uint64_t count;                          /* 2: 3 */
  const char* name;                        /* 3: "vexksse4219", names this build for SSSE3, SSE4.1, SSE4.2 and POPCNT */
  uint64_t numbers[10];                    /* 4 to 13: 8, 8, 8, 8, 8, 8, 8, 16, 0, 16 */
  const kdzk_kernel* dispatch;             /* 14: KDZK_DISPATCH_SIZE entries, indexed by kernel id; see kdzk_name_of */
  void (*noop1[2])(void*);                 /* 15, 16: does nothing */
  kdzk_bv_services bv8;                    /* 17 to 33 */
  kdzk_bv_services bv64;                   /* 34 to 50 */
  kdzk_bloom_fn bloom_test;                /* 51: see join.h */
  kdzk_polygon_fn point_in_polygon;        /* 52: see numeric.h */
  kdzk_groupkey_fn groupkey_dydi;          /* 53: see numeric.h */
  kdzk_sum_fn sum_sortable;                /* 54: see numeric.h */
  kdzk_decode_sortable_fn decode_sortable; /* 55: see numeric.h */
  kdzk_prefix_fn decode_prefix_records;    /* 56: see above */
  kdzk_hash_rows_fn hash_rows;             /* 57: see join.h */
  kdzk_ht_build_fn ht_build;               /* 58: see join.h */
  kdzk_ht_probe_fn ht_probe;               /* 59: see join.h */
  kdzk_partition_fn partition_rows;        /* 60: see join.h */
  kdzk_gather_fn ht_gather;                /* 61: see join.h */
  kdzk_fill_pairs_fn fill_pairs;           /* 62: see join.h */
  kdzk_pack_rows_fn pack_rows;             /* 63: see join.h */
  kdzk_decompress_fn sqzb_decode_x86;      /* 64: see above */
  uint64_t (*reserved0[2])(void);          /* 65, 66: reads nothing, returns 0 */
} kdzk_specialized_ctx;

KDZK_ASSERT_SIZE(kdzk_prefix_record, 16);
KDZK_ASSERT_OFFSET(kdzk_specialized_ctx, dispatch, 14 * 8);
KDZK_ASSERT_OFFSET(kdzk_specialized_ctx, noop1, 15 * 8);
KDZK_ASSERT_OFFSET(kdzk_specialized_ctx, bv8, 17 * 8);
KDZK_ASSERT_OFFSET(kdzk_specialized_ctx, bv64, 34 * 8);
KDZK_ASSERT_OFFSET(kdzk_specialized_ctx, bloom_test, 51 * 8);
KDZK_ASSERT_OFFSET(kdzk_specialized_ctx, sqzb_decode_x86, 64 * 8);
KDZK_ASSERT_SIZE(kdzk_specialized_ctx, 67 * 8);

/* The name of the kernel with this id, such as "kdzk_eq_dict_13bit", or "kdzk_invalid_dispatch" if there is none. The
 * names table has KDZK_KERNEL_IDS entries and stands directly behind the dispatch table. */
static inline const char* kdzk_name_of(const kdzk_specialized_ctx* ctx, uint32_t id) {
  return ((const char* const*)(const void*)(ctx->dispatch + KDZK_DISPATCH_SIZE))[id];
}

/* The record itself, for programs that link the library rather than open it. */
extern const kdzk_specialized_ctx kdzk_global_specialized_ctx;

#ifdef __cplusplus
}
#endif

#endif
