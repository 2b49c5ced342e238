/* SPDX-License-Identifier: Apache-2.0
 *
 * The library's one exported symbol, kdzk_global_specialized_ctx: identification, the dispatch table of the kernels,
 * and the service functions. Constant while the library is loaded. A host finds it with dlsym, checks `magic` and
 * `version`, and calls everything through it; there is nothing to initialise or to shut down. */
#ifndef KDZK_CONTEXT_H
#define KDZK_CONTEXT_H

#include <kdzk/kernels.h>

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

/* A service slot whose function this release doesn't have yet: null. */
typedef void (*kdzk_absent_fn)(void);

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

/* hash_rows: one hash per row of a key column, by the host's function, which is called once per row in row order.
 *
 * keys->enc_ctx->flags: the first of KDZK_FIXED_BYTES, KDZK_PACKED_DICT, KDZK_LEN_ARRAY, KDZK_LEN_PREFIXED,
 * KDZK_PTR_LEN, KDZK_PAIR16 that is set tells the form. A fixed key is width / 8 bytes, cut to a whole number, and so
 * is the distance to the next. Dictionary codes are of 1 to 32 bits; the key is the code's symbol, at `base` and
 * between the code's and the next one of `offsets`, its length modulo 2^16. All other lengths are native uint16_t.
 * keys->nrows: the rows. out->data: room for a native uint64_t per row.
 * seeds->enc_ctx->flags must have KDZK_NUMERIC. If seeds->nrows is 1, seeds->data is the seed of all rows, a native
 * uint64_t; with any other number it is an array of one per row of keys. It may be the array of `out`, which chains the
 * hashes of several columns. Without rows no seed is read.
 *
 * Returns KDZK_DONE, or KDZK_UNSUPPORTED if a flag is missing; then nothing was written. */
typedef uint64_t (*kdzk_hash_rows_fn)(const kdzk_vec* out, const kdzk_vec* keys, const kdzk_vec* seeds,
                                      kdzk_hash_fn hash);

/* ht_build: inserts the rows of a vector into a hash table of 64-byte buckets, in memory that is all the host's.
 *
 * desc->flags: the form of the buckets. Native fields at any alignment; byte 0 is the header, and the 8 bytes at 56 the
 * address of the chain's next bucket:
 *
 *     flags   tag bits   payload bits   entries   tags at byte   payloads at byte   hash bits below the bucket number
 *     1       16         64             5         2              16                 16
 *     2       16         32             9         2              20                 16
 *     4       32         64             4         4              24                 32
 *     8       32         32             6         4              32                 32
 *
 * The header has the count of entries in bits 0 to 3. KDZK_BUCKET_UNIQUE: no tag of the bucket occurs twice in it or in
 * a bucket behind it. KDZK_BUCKET_CHAINED: the bucket is full and the address valid. A tag is the hash's lowest bits;
 * with KDZK_HT_KEY_MODE added to 4 or 8 it is the row's own native 32-bit key. The bucket's number is the hash bits
 * from the one told to desc->bucket_hi. Rows of a chain stay in the order of their insertion.
 *
 * desc->tables, cursors, limits: for each entry of the directory the bucket array, which the host clears before the
 * first row, and the overflow room, from which a bucket of 64 bytes is taken at the cursor where a chain's last one is
 * full. The room needs no clearing. `partition` 0 or more: the entry of all rows. Negative: the hash tells it, as its
 * bits dir_lo to dir_hi, shifted left by low_bits, OR its low_bits lowest bits; but with dir_hi = bucket_hi and
 * low_bits = 0 it is entry 0.
 *
 * keys->enc_ctx->flags: the first of KDZK_KEYED16 (records of row id and hash; the id, or its low 32 bits, is the
 * payload), KDZK_FIXED_BYTES, KDZK_LEN_ARRAY, KDZK_LEN_PREFIXED, KDZK_PTR_LEN, KDZK_PAIR16 (hashed by `hash` with seed
 * 0, as in hash_rows), KDZK_NUMERIC (an array of uint64_t hashes). In key mode with 4: KDZK_KEYED24 (records of hash,
 * key and row id, which is the payload) or KDZK_HASH_U32 (native keys, hashed with length 4); with 8: KDZK_HASH_U32.
 * rows, where the keys don't bring the payloads: with KDZK_IMPLICIT_IDS the payload is `rowbase` plus the row number,
 * otherwise rows->data has one per row, a native integer of the payload's width.
 *
 * exec->row and key_off: zero in a first call, kept by the library between the calls of a vector; key_off is a byte
 * position in keys->data, in the forms whose values have lengths and lie end to end. A call may hash up to 1023 rows
 * that it doesn't insert and that the next call hashes again.
 *
 * Returns KDZK_DONE: all rows are in the table, and exec->row is keys->nrows. KDZK_OVERFLOW_FULL: the room of an entry
 * is used up; exec->row is the first row that isn't in the table and exec->part its directory field, if that lies
 * directly above the bucket number in the low 32 bits of the hash; give more room and call again. KDZK_UNSUPPORTED: no
 * such flags or form; nothing was written. */
#define KDZK_HT_KEY_MODE 0x1000u
#define KDZK_BUCKET_UNIQUE 0x40u
#define KDZK_BUCKET_CHAINED 0x80u
typedef uint64_t (*kdzk_ht_build_fn)(const kdzk_htdesc* desc, const kdzk_vec* keys, const kdzk_vec* rows,
                                     int32_t partition, kdzk_hash_fn hash, kdzk_exec* exec);

/* ht_probe: looks the rows of a vector up in a hash table that ht_build made. For each entry whose tag equals the row's
 * it writes a pair: the uint64_t id of the row, and the entry's payload in 64 bits. These are candidates, which the
 * host compares by their keys; in key mode they are matches. Pairs are in the order of the rows, then of the chain. The
 * table is only read: any number of threads may probe it.
 *
 * out->data: the pairs. out->nrows: in, how many fit, before each call; out, how many were written. keys: as in
 * ht_build, but for the records KDZK_KEYED16 and KDZK_KEYED24. rows: with KDZK_IMPLICIT_IDS the id is `rowbase` plus
 * the row number, otherwise rows->data has one per row, as wide as the table's payloads. desc: as in ht_build, without
 * `cursors` and `limits`; the hash always tells the directory's entry. exec: as in ht_build, without `part`.
 *
 * Returns KDZK_DONE: all rows are looked up, and exec->row is keys->nrows. KDZK_PAIRS_FULL: exec->row is the first row
 * whose pairs don't all fit; call again with room. Those that did fit may have been written, behind the count. A row
 * with more pairs than ever fit gets no further. KDZK_UNSUPPORTED: no such flags or form; nothing was written. */
typedef uint64_t (*kdzk_ht_probe_fn)(kdzk_vec* out, const kdzk_vec* keys, const kdzk_vec* rows, const kdzk_htdesc* desc,
                                     kdzk_hash_fn hash, kdzk_exec* exec);

/* The exported record: 67 words of 64 bits, a word per line unless said otherwise. */
typedef struct kdzk_specialized_ctx {
  uint64_t magic;                       /* 0: KDZK_MAGIC */
  const char* version;                  /* 1: KDZK_VERSION */
  uint64_t count;                       /* 2: 3 */
  const char* name;                     /* 3: "vexksse4219", names this build for SSSE3, SSE4.1, SSE4.2 and POPCNT */
  uint64_t numbers[10];                 /* 4 to 13: 8, 8, 8, 8, 8, 8, 8, 16, 0, 16 */
  const kdzk_kernel* dispatch;          /* 14: KDZK_DISPATCH_SIZE entries, indexed by kernel id; see kdzk_name_of */
  void (*noop1[2])(void*);              /* 15, 16: does nothing */
  kdzk_bv_services bv8;                 /* 17 to 33 */
  kdzk_bv_services bv64;                /* 34 to 50 */
  kdzk_absent_fn bloom_test;            /* 51 */
  kdzk_absent_fn point_in_polygon;      /* 52 */
  kdzk_absent_fn groupkey_dydi;         /* 53 */
  kdzk_absent_fn sum_sortable;          /* 54 */
  kdzk_absent_fn decode_sortable;       /* 55 */
  kdzk_prefix_fn decode_prefix_records; /* 56: see above */
  kdzk_hash_rows_fn hash_rows;          /* 57: see above */
  kdzk_ht_build_fn ht_build;            /* 58: see above */
  kdzk_ht_probe_fn ht_probe;            /* 59: see above */
  kdzk_absent_fn partition_rows;        /* 60 */
  kdzk_absent_fn ht_gather;             /* 61 */
  kdzk_absent_fn fill_pairs;            /* 62 */
  kdzk_absent_fn pack_rows;             /* 63 */
  kdzk_decompress_fn sqzb_decode_x86;   /* 64: see above */
  uint64_t (*reserved0[2])(void);       /* 65, 66: reads nothing, returns 0 */
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
