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

/* groupkey_dydi: a dense key for each row's combination of codes in several dictionary columns, most significant first,
 * all arithmetic modulo 2^32:
 *
 *     key = (...(code 0 * d 1 + code 1) * d 2 + code 2 ...)       with KDZK_EX_GROUP_MUL, d being the dict_size
 *     key = (...((code 0 << w 1) + code 1) << w 2) + code 2 ...    without, w being the width modulo 32
 *
 * columns: `column_count` (at least 1, its low 32 bits count) input vectors, of each its `kind`, `flags`, `width`,
 * `dict_size` and what the decode_unpack kernel of its kind reads, which does the decoding: plain, KDZK_BLOCKED and
 * KDZK_RLE columns go. Of a run-length column behind the 32nd the place in its runs isn't kept: such columns must be
 * plain. columns[0].nrows: the rows. result->data: the keys, native uint32_t at any alignment, with room for
 * result->nrows of them. temp->data: scratch of temp->nrows uint32_t, at least 1; it bounds how many rows go together,
 * and is best if it fits in the first cache. *key_count: the number of keys, one more than the highest.
 *
 * exec is only read. exec->row: the first row. exec->selection: its rows only, as decode_unpack takes them.
 * exec->ones_vec must be null. exec->env: tmp_alloc, commented "kdzk_groupkey_dydi: temp column info", and tmp_free.
 *
 * Returns KDZK_DONE, or KDZK_OUTPUT_FULL with result->nrows keys written and rows left: the next call begins with the
 * row behind the last one of this, exec->row + result->hits unless there is a selection. result->hits: the keys
 * written. Or, with nothing written, KDZK_UNSUPPORTED if a column lacks KDZK_PACKED_DICT, and KDZK_KEYS_TOO_MANY if the
 * keys don't fit in 32 bits, whichever the first such column gives. */
typedef uint64_t (*kdzk_groupkey_fn)(kdzk_vec* result, uint32_t* key_count, const kdzk_vec* columns,
                                     uint64_t column_count, const kdzk_vec* temp, const kdzk_exec* exec);

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

/* Numeric columns (docs/formats/sortable.md): enc_ctx->float_kind says what the input->nrows rows at input->data are. 1
 * and 2: floats and doubles in the sortable form, whose bytes sort as the values do. 8: big-endian two's-complement
 * integers of enc_ctx->width bits, 8, 16, 32 or 64. Nothing behind the last row is read. Sums of floats and doubles are
 * exact to the bit: additions are done in the order that is told here, in the type of the column and in the host's
 * rounding and flush modes; infinities and NaNs pass through, and only which NaN comes out is not said. Sums of
 * integers wrap. KDZK_RLE and KDZK_BLOCKED are not looked at, nor is result->hits or a bit vector written.
 *
 * decode_sortable: decodes the column to result->data, an array of native floats or doubles, bit by bit as they were,
 * NaNs included; or, with an `exec` that has KDZK_EX_SUM in flags, adds the column to the one native accumulator at
 * result->data, a float, double or, for integers, uint64_t. With L = 4 floats or 2 doubles and v a row's value:
 *   lane[0 to L - 1] = +0; for each row r of the first nrows / L * L:   lane[r % L] = lane[r % L] + v
 *   result = ((lane[0] + lane[1]) + (lane[2] + lane[3])) + result;   of doubles: (lane[0] + lane[1]) + result
 *   t = +0; for each row left:   t = t + v
 *   result = t + result
 * float_kind is tested by bits, 1 before 2 before 8: 3 means float. Integers of any other width add 0. Returns
 * KDZK_DONE, or KDZK_MALFORMED with nothing written if float_kind has none of the bits, or if the column has
 * KDZK_SUM_ONLY in enc_ctx->flags and `exec` is null or lacks KDZK_EX_SUM. Integers can't be decoded: that ends the
 * process with the failed assertion "FALSE", in every build, or returns KDZK_MALFORMED if the handler returns. */
typedef uint64_t (*kdzk_decode_sortable_fn)(const kdzk_vec* result, const kdzk_vec* input, const kdzk_exec* exec);

/* sum_sortable: adds the column to native accumulators at result->data, of the types above. float_kind must be 1, 2 or
 * 8 exactly. With KDZK_SUM_ONLY in enc_ctx->flags, floats and doubles are native, not sortable.
 *
 * `groups` null: t = +0; t = t + v for each row in order; result[0] = t + result[0]. Otherwise groups->data is an array
 * of a native uint32_t per row, and result[group of r] = result[group of r] + v for each row r in order; groups must be
 * indexes of accumulators, nothing checks them. Integers of any other width than 8, 16, 32 and 64 change nothing.
 * `unused` is not looked at. Returns KDZK_DONE, or KDZK_MALFORMED with nothing written for any other float_kind. */
typedef uint64_t (*kdzk_sum_fn)(const kdzk_vec* result, const kdzk_vec* input, const kdzk_vec* groups,
                                const void* unused);

/* point_in_polygon: how many edges of a vertex list a ray from a point towards larger x crosses.
 *
 * xs->data, ys->data: arrays of native doubles, xs->nrows of each, the vertices. px->data, py->data: a native double
 * each, the point. result->data: a uint32_t, which receives the count. Nothing else of the records is read or written.
 *
 * Which edges there are, by vertex numbers and for n vertices:
 *   n = 1         none that is ever crossed
 *   n = 2         1 to 0 and 0 to 1: one segment, twice
 *   n = 3         2 to 0, 0 to 1, 1 to 2: the closed triangle
 *   n even, >= 4  0 to 1 and so on to n - 3 to n - 2; and n - 2 to n - 1, twice
 *   n odd, >= 5   0 to 1 and so on to n - 4 to n - 3; and n - 1 to n - 3, n - 3 to n - 2, n - 2 to n - 1
 * So from 4 vertices on nothing leads from the last vertex to the first: a host that means a closed polygon prepares
 * its list for that. An edge has its lower end and not its upper end, and horizontal edges have nothing. A point on an
 * edge is not left of it. Points within rounding distance of an edge may come out either way, edges to n - 2 (even n)
 * or n - 3 (odd n) by another formula than the last ones. A compare with a NaN doesn't hold. Returns KDZK_DONE. */
typedef uint64_t (*kdzk_polygon_fn)(const kdzk_vec* result, const kdzk_vec* xs, const kdzk_vec* ys, const kdzk_vec* px,
                                    const kdzk_vec* py);

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
  kdzk_absent_fn bloom_test;               /* 51 */
  kdzk_polygon_fn point_in_polygon;        /* 52: see above */
  kdzk_groupkey_fn groupkey_dydi;          /* 53: see above */
  kdzk_sum_fn sum_sortable;                /* 54: see above */
  kdzk_decode_sortable_fn decode_sortable; /* 55: see above */
  kdzk_prefix_fn decode_prefix_records;    /* 56: see above */
  kdzk_hash_rows_fn hash_rows;          /* 57: see above */
  kdzk_absent_fn ht_build;                 /* 58 */
  kdzk_absent_fn ht_probe;                 /* 59 */
  kdzk_partition_fn partition_rows;     /* 60: see above */
  kdzk_absent_fn ht_gather;                /* 61 */
  kdzk_absent_fn fill_pairs;               /* 62 */
  kdzk_absent_fn pack_rows;                /* 63 */
  kdzk_decompress_fn sqzb_decode_x86;      /* 64: see above */
  uint64_t (*reserved0[2])(void);          /* 65, 66: reads nothing, returns 0 */
/* hash_rows: one hash per row of a key column, by the host's function, which is called once per row in row order.
 * keys->enc_ctx->flags: the first of KDZK_FIXED_BYTES, KDZK_PACKED_DICT, KDZK_LEN_ARRAY, KDZK_LEN_PREFIXED,
 * KDZK_PTR_LEN, KDZK_PAIR16 that is set tells the form. A fixed key is width / 8 bytes, cut to a whole number, and so
 * is the distance to the next. Dictionary codes are of 1 to 32 bits; the key is the code's symbol, at `base` and
 * between the code's and the next one of `offsets`, its length modulo 2^16. All other lengths are native uint16_t.
 * keys->nrows: the rows. out->data: room for a native uint64_t per row.
 * seeds->enc_ctx->flags must have KDZK_NUMERIC. If seeds->nrows is 1, seeds->data is the seed of all rows, a native
 * uint64_t; with any other number it is an array of one per row of keys. It may be the array of `out`, which chains the
 * hashes of several columns. Without rows no seed is read.
 * Returns KDZK_DONE, or KDZK_UNSUPPORTED if a flag is missing; then nothing was written. */
typedef uint64_t (*kdzk_hash_rows_fn)(const kdzk_vec* out, const kdzk_vec* keys, const kdzk_vec* seeds,
                                      kdzk_hash_fn hash);
/* partition_rows: writes a record per row to the buffer of the row's partition: the number in bits part_lo to part_hi
 * of the row's hash. Records of a partition stay in row order. The layout of the records is the first of these whose
 * bits are all in desc->flags; fields are native, without alignment:
 *     KDZK_PART_B  24 bytes         hash (8), key (4), 4 bytes that are not written, row id (8)
 *     KDZK_PART_A  16 bytes         row id (8), hash (8)
 *     KDZK_PART_C  10 + n bytes     n + 8 (2), hash (8), payload (n, up to 65527 bytes)
 *     KDZK_PART_D  8 + n bytes      hash (8), payload (n = desc->payload_size)
 * keys: keys->nrows rows, in a form by the first flag that is set: KDZK_FIXED_BYTES, KDZK_LEN_ARRAY, KDZK_LEN_PREFIXED,
 * KDZK_PTR_LEN, KDZK_PAIR16, which `hash` hashes with seed 0; in A, KDZK_KEYED16: records A of an earlier pass, copied
 * whole; in all but B, KDZK_NUMERIC: native 64-bit hashes. In B, KDZK_HASH_U32 only: native uint32_t, hashed as 4
 * bytes. In C, KDZK_LEN_PREFIXED and KDZK_NUMERIC together come first: records C of an earlier pass, copied whole.
 * `rows` and `hash` may be null where nothing is taken from them.
 * rows: in A and B the row ids, rows->rowbase + row with KDZK_IMPLICIT_IDS, else the native uint64_t array rows->data;
 * in C the payloads, in the first of the five forms above that is set; in D the same with KDZK_FIXED_BYTES only, of
 * which payload_size bytes are copied from every width / 8. Fixed keys and payloads of a call lie within 4 GiB. The
 * values that pointers lead to need no padding.
 * exec: row, key_off and payload_off are 0 in the first call for a vector, then as the call before left them. `hash` is
 * called for up to 1024 rows at a time, before these are placed; rows behind the one that a call stops at are hashed
 * again in the next.
 * Returns KDZK_DONE: row = keys->nrows. KDZK_PARTITION_FULL: there are fewer bytes between desc->cursors[part] and
 * desc->limits[part] than the record of row `row` needs; the rows before it are placed, and the host makes room in that
 * partition, by moving both pointers or either, before it calls again. In both cases key_off and payload_off, of
 * columns in the forms KDZK_LEN_ARRAY and KDZK_LEN_PREFIXED, are the byte at which row `row` begins, prefix included.
 * KDZK_UNSUPPORTED: there is no such layout or form, or the layout is C or D, desc->flags has KDZK_PART_NO_PAYLOAD and
 * the keys aren't records C; nothing was written. */
typedef uint64_t (*kdzk_partition_fn)(const kdzk_partdesc* desc, const kdzk_vec* keys, const kdzk_vec* rows,
                                      kdzk_hash_fn hash, kdzk_exec* exec);
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
