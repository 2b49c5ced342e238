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

/* ht_gather: the values of locators, as a column. A locator is a number that names a page and an entry of a row store
 * (kdzk_rowstore), such as the payload of a probe's pair. Six pairs of forms need no row store: they copy the values of
 * a column of addresses.
 *
 * in->enc_ctx->flags: of the rows' locators, the first of
 *   KDZK_FIXED_BYTES   native numbers of width / 8 bytes, row i at byte i * (width / 8) of in->data, a position that is
 *                      taken modulo 2^32 unless they are of 1, 2, 4 or 8 bytes. Of longer ones the first 8 bytes count.
 *                      A locator is read by a load of 8 bytes: the column's padding must be there.
 *   KDZK_PROBE_PAIRS   16-byte pairs; the second native uint64_t is the locator, or with KDZK_EX_PAIR_WORD0 in
 *                      exec->flags the first.
 * in->nrows: the rows. row_store->page_hi and page_lo cut a locator, row_store->flags tells the page form: the first of
 * KDZK_STORE_PAIRS, KDZK_STORE_REFS, KDZK_STORE_OFFSETS. The references of KDZK_STORE_REFS are resolved by ref_bits and
 * ref_pages of out->enc_ctx, whatever the form of output.
 *
 * out->enc_ctx->flags: the first of the flags below; later ones are not looked at, even if this one leads nowhere. A
 * call fills the output from its beginning, however many rows earlier calls have done; all that is written is native.
 *   KDZK_FIXED_BYTES   row_store->width / 8 bytes from the value's address on. The entry's length is not looked at:
 * that many bytes must be readable even of a shorter value. KDZK_LEN_ARRAY     the value's bytes, back to back; its
 * length as uint16_t in out->lengths. KDZK_LEN_PREFIXED  the length as uint16_t and behind it the bytes, back to back.
 *   KDZK_PTR_LEN       the value's address in out->data, 8 bytes; its length in out->lengths. No byte is copied.
 *   KDZK_PAIR16        length and address as a 16-byte entry, bytes 2 to 7 of which keep what they hold.
 *   KDZK_REF_WORDS     a compact word of 8 bytes, the only form that goes by row: row i's is at byte 8 * i of
 * out->data, in every call. The word is reference << 16 | length. The reference of an entry of KDZK_STORE_REFS is the
 * entry's own, cut to its low out->enc_ctx->ref_bits bits; of the other two it is (page << ref_bits) + the low ref_bits
 * bits of the value's address: a host that resolves it as (ref_pages[page] + low bits) must keep ref_pages[page]
 * aligned to 2^ref_bits bytes. out->out_size: bytes at out->data, which limits every form but the last one. It is not
 * reduced. out->lengths needs room for as many rows as can fit. A value of KDZK_STORE_OFFSETS may be longer than 65535
 * bytes: it is copied whole, and the length stored is its low 16 bits, as it is in the two forms that keep addresses
 * and in compact words.
 *
 * Copies without a row store, which may then be null: out has KDZK_LEN_ARRAY or, failing that, KDZK_LEN_PREFIXED, even
 * together with KDZK_FIXED_BYTES, and in->enc_ctx->flags has one of, in this order:
 *   KDZK_PTR_LEN       addresses in in->data, lengths in in->lengths
 *   KDZK_PAIR16        16-byte entries
 *   KDZK_REF_WORDS     compact words; with r = word >> 16, the value is at ref_pages[r >> ref_bits] plus the low
 * ref_bits bits of r, by the fields of in->enc_ctx. This is asked before anything else, so a column that has these
 * flags is never taken for one of locators then.
 *
 * exec->row: the first row to take, 0 in a first call; on return the first row not done. The record must be given, and
 * nothing else of it is written. Returns one of
 *   KDZK_DONE          row is in->nrows, also where it was beyond that on entry.
 *   KDZK_OUTPUT_FULL   the value of row `row` needs more than what is left; nothing of it was written, nor behind the
 *                      last row written. The rows of this call are those from the old `row` on. The host takes them and
 *                      calls again. A value that is longer than the whole output gives this again and again.
 *   KDZK_UNSUPPORTED   no such combination of flags; nothing was written, and `exec` was not read but for its flags.
 * Locators, entries and lengths are trusted. Those of rows behind the one at which a call stops may have been read.
 * Nothing needs an alignment, and values need no readable bytes behind them. */
typedef uint64_t (*kdzk_gather_fn)(const kdzk_vec* out, const kdzk_vec* in, const kdzk_rowstore* row_store,
                                   kdzk_exec* exec);

/* fill_pairs: writes one column into a pair matrix. The matrix is the array of 16-byte (length, address) pairs at
 * matrix->pair_cursors[part], matrix->ncols pairs a row: that of row r and column c begins at byte
 * 16 * (r * ncols + c). A call writes the pairs (0, column) to (col->nrows - 1, column), whose bytes 2 to 7 keep what
 * they hold, and nothing else; the cursor stays where it is. After a call for each column the matrix names all values
 * of all rows; no byte of them has been read or copied, so they must stay where they are as long as the matrix is in
 * use.
 *
 * Of `matrix` it reads flags, which must have KDZK_STORE_PAIRS, ncols and pair_cursors[part]. To have ht_gather or
 * pack_rows read the matrix, the host puts its address in `pairs` too: those two don't look at cursors.
 * `column` is taken modulo 65536 and must be below ncols, `part` must not be negative. col->enc_ctx->flags: the first
 * of KDZK_FIXED_BYTES   values of width / 8 bytes, cut to a whole number, back to back KDZK_LEN_ARRAY     values back
 * to back, their lengths in col->lengths KDZK_LEN_PREFIXED  values back to back, each behind its length; the pair has
 * the address of the value KDZK_PTR_LEN       addresses in col->data, lengths in col->lengths KDZK_PAIR16 16-byte
 * entries Empty values get an address too, that at which a value would be. The matrix and the column must not overlap.
 *
 * Returns KDZK_DONE, or KDZK_UNSUPPORTED if a flag is missing; then nothing was written. */
typedef uint64_t (*kdzk_fill_pairs_fn)(const kdzk_rowstore* matrix, const kdzk_vec* col, uint32_t column, int32_t part);

/* pack_rows: copies the rows first_row to last_row, both included, of a pair matrix into a page of a row store, and
 * enters in the page's directory where each row or each value went.
 *
 * source: `pairs`, of which source_page is the matrix; ncols; and of `flags` KDZK_STORE_ROWS.
 * target: `flags`, and of its arrays the entries of target_page. With t for that entry:
 *   data_cursors[t]    where the next byte goes; moved on behind the bytes of the rows done
 *   data_limits[t]     the first byte behind the room for them, not below the cursor
 *   offset_cursors[t]  KDZK_STORE_OFFSETS: where the next native uint32_t of the directory goes; moved on
 *   pair_cursors[t]    KDZK_STORE_PAIRS, and not KDZK_STORE_OFFSETS: where its next 16-byte pair goes; moved on
 * Only data_limits bounds anything. The host sees to the directory's room: per row, or per value, 4 or 16 bytes, and
 * with KDZK_STORE_OFFSETS and first_row 0 another 4.
 *
 * With KDZK_STORE_ROWS in target->flags and not in source->flags, a row is one item: each of its values as uint16_t
 * length and bytes, back to back, so that it takes 2 bytes for each column more than its values. The sizes are kept in
 * 16 bits, and wrap for longer rows. In all other cases each value is an item, of its bytes alone. KDZK_STORE_OFFSETS:
 * the directory has the end of each item, counted in bytes from an entry before the first one. If first_row is 0 the
 * call begins by storing an entry of 0 and moves the cursor on; otherwise the running end is read from the entry just
 * before the cursor, which must be there. n items are n + 1 entries, and item i lies between entries i and i + 1. To
 * let ht_gather read them, bases[t] is the address of the first item's bytes. KDZK_STORE_PAIRS: the directory has a
 * pair for each item, with its address. The length of a row is the sum of its values' lengths, without the 2 bytes
 * before each; a host that wants to walk over the row adds 2 * ncols. Bytes 2 to 7 of a pair keep what they hold.
 *
 * first_row is an unsigned, last_row a signed number; no row is done if first_row is above last_row. exec->row, which
 * is not read, receives the first row not done, and the return value is
 *   KDZK_DONE         row is last_row + 1, or first_row if that is above last_row.
 *   KDZK_PAGE_FULL    row `row` didn't fit, or only some of its values did: the cursors stand at its beginning, and
 * what is in memory behind them has no meaning. The host goes on with first_row = row, either on the same page, after
 * raising data_limits[t]; if row is 0 and the directory is of offsets, it first puts offset_cursors[t] back by 4 bytes,
 * as the call will store the entry of 0 again; or on a fresh page, whose directory of offsets, unless row is 0, the
 * host begins itself: it stores an entry, of 0 if items are to be counted from the page's bytes, and puts the cursor
 * behind it. A row longer than a whole page gives this again and again. KDZK_UNSUPPORTED  `target` is null, or has
 * neither flag; nothing was written, exec->row neither. Nothing needs an alignment, and values need no readable bytes
 * behind them. Neither values nor the matrix may lie in what is written. */
typedef uint64_t (*kdzk_pack_rows_fn)(const kdzk_rowstore* target, const kdzk_rowstore* source, int32_t target_page,
                                      int32_t source_page, uint32_t first_row, int32_t last_row, kdzk_exec* exec);

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
  uint64_t magic;                          /* 0: KDZK_MAGIC */
  const char* version;                     /* 1: KDZK_VERSION */
  uint64_t count;                          /* 2: 3 */
  const char* name;                        /* 3: "vexksse4219", names this build for SSSE3, SSE4.1, SSE4.2 and POPCNT */
  uint64_t numbers[10];                    /* 4 to 13: 8, 8, 8, 8, 8, 8, 8, 16, 0, 16 */
  const kdzk_kernel* dispatch;             /* 14: KDZK_DISPATCH_SIZE entries, indexed by kernel id; see kdzk_name_of */
  void (*noop1[2])(void*);                 /* 15, 16: does nothing */
  kdzk_bv_services bv8;                    /* 17 to 33 */
  kdzk_bv_services bv64;                   /* 34 to 50 */
  kdzk_bloom_fn bloom_test;                /* 51: see above */
  kdzk_polygon_fn point_in_polygon;        /* 52: see above */
  kdzk_groupkey_fn groupkey_dydi;          /* 53: see above */
  kdzk_sum_fn sum_sortable;                /* 54: see above */
  kdzk_decode_sortable_fn decode_sortable; /* 55: see above */
  kdzk_prefix_fn decode_prefix_records;    /* 56: see above */
  kdzk_hash_rows_fn hash_rows;             /* 57: see above */
  kdzk_ht_build_fn ht_build;            /* 58: see above */
  kdzk_ht_probe_fn ht_probe;            /* 59: see above */
  kdzk_partition_fn partition_rows;        /* 60: see above */
  kdzk_gather_fn ht_gather;                /* 61: see above */
  kdzk_fill_pairs_fn fill_pairs;           /* 62: see above */
  kdzk_pack_rows_fn pack_rows;             /* 63: see above */
  kdzk_decompress_fn sqzb_decode_x86;      /* 64: see above */
  uint64_t (*reserved0[2])(void);          /* 65, 66: reads nothing, returns 0 */
  /* bloom_test: which rows of a column of hashes may be in a filter that the host built (kdzk/host/bloom.h); one bit
   * each.
   * values: enc_ctx->flags must have KDZK_NUMERIC. enc_ctx->width is 32 for elements of 4 bytes at `data`, big-endian
   * numbers; with any other value they are 8 bytes, of which the last four are read, as a big-endian number. nrows: the
   * end of the rows; exec->start_row, not above it, is the first. No padding is read.
   * filter: of enc_ctx bloom_paged, bloom_mask and, if bloom_paged isn't 0, page_shift and page_mask. v being the
   * number AND bloom_mask, a row's bit is bit v % 8 of byte v / 8 at `bitvec`. In a paged filter `bitvec` points to an
   * array of pointers to pages; with b = v AND page_mask, it is bit b % 8 of byte b / 8 of page v >> (page_shift % 32).
   * exec, not null: selection, start_row and out_flags. With a selection, whatever exec->flags says, only its rows are
   * tested, and out_flags gets KDZK_OUT_BLOOM_SELECTIVE. Of the selection the words of the rows are read.
   * result: data, a kdzk_hit_range, and hits are written. bitvec, zero for these rows: a hit sets its row's bit. In a
   * vector that isn't zero bits of earlier hits stay, but without a selection 16 rows are written together, beginning
   * at each 16th row after the first multiple of 8 from start_row on, if one of them is a hit and all are below nrows.
   * Returns KDZK_DONE, KDZK_NO_ROW if no row is a hit, or KDZK_UNSUPPORTED without KDZK_NUMERIC; then nothing was
   * written. A filter is only read, and may be shared by threads. */
  typedef uint64_t (*kdzk_bloom_fn)(kdzk_vec* result, const kdzk_vec* values, const kdzk_vec* filter, kdzk_exec* exec);
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
