/* SPDX-License-Identifier: Apache-2.0
 *
 * Services of the join engine: row hashing, partitioning, hash table build and probe, value gather, pair matrix, row
 * packing, and the bloom filter test. They stand in slots 51 and 57 to 63 of the exported record (kdzk/context.h).
 * Calls that stop for lack of room go on by their kdzk_exec: zero it for the first call of a vector, and leave it alone
 * until KDZK_DONE. C11 and C++20. */
#ifndef KDZK_JOIN_H
#define KDZK_JOIN_H

#include <kdzk/records.h>

#ifdef __cplusplus
extern "C" {
#endif

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

/* partition_rows: writes a record per row to the buffer of the row's partition: the number in bits part_lo to part_hi
 * of the row's hash. Records of a partition stay in row order. The layout of the records is the first of these whose
 * bits are all in desc->flags; fields are native, without alignment:
 *
 *     KDZK_PART_B  24 bytes         hash (8), key (4), 4 bytes that are not written, row id (8)
 *     KDZK_PART_A  16 bytes         row id (8), hash (8)
 *     KDZK_PART_C  10 + n bytes     n + 8 (2), hash (8), payload (n, up to 65527 bytes)
 *     KDZK_PART_D  8 + n bytes      hash (8), payload (n = desc->payload_size)
 *
 * keys: keys->nrows rows, in a form by the first flag that is set: KDZK_FIXED_BYTES, KDZK_LEN_ARRAY, KDZK_LEN_PREFIXED,
 * KDZK_PTR_LEN, KDZK_PAIR16, which `hash` hashes with seed 0; in A, KDZK_KEYED16: records A of an earlier pass, copied
 * whole; in all but B, KDZK_NUMERIC: native 64-bit hashes. In B, KDZK_HASH_U32 only: native uint32_t, hashed as 4
 * bytes. In C, KDZK_LEN_PREFIXED and KDZK_NUMERIC together come first: records C of an earlier pass, copied whole.
 * `rows` and `hash` may be null where nothing is taken from them.
 *
 * rows: in A and B the row ids, rows->rowbase + row with KDZK_IMPLICIT_IDS, else the native uint64_t array rows->data;
 * in C the payloads, in the first of the five forms above that is set; in D the same with KDZK_FIXED_BYTES only, of
 * which payload_size bytes are copied from every width / 8. Fixed keys and payloads of a call lie within 4 GiB. The
 * values that pointers lead to need no padding.
 *
 * exec: row, key_off and payload_off are 0 in the first call for a vector, then as the call before left them. `hash` is
 * called for up to 1024 rows at a time, before these are placed; rows behind the one that a call stops at are hashed
 * again in the next.
 *
 * Returns KDZK_DONE: row = keys->nrows. KDZK_PARTITION_FULL: there are fewer bytes between desc->cursors[part] and
 * desc->limits[part] than the record of row `row` needs; the rows before it are placed, and the host makes room in that
 * partition, by moving both pointers or either, before it calls again. In both cases key_off and payload_off, of
 * columns in the forms KDZK_LEN_ARRAY and KDZK_LEN_PREFIXED, are the byte at which row `row` begins, prefix included.
 * KDZK_UNSUPPORTED: there is no such layout or form, or the layout is C or D, desc->flags has KDZK_PART_NO_PAYLOAD and
 * the keys aren't records C; nothing was written. */
typedef uint64_t (*kdzk_partition_fn)(const kdzk_partdesc* desc, const kdzk_vec* keys, const kdzk_vec* rows,
                                      kdzk_hash_fn hash, kdzk_exec* exec);

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
 *                      that many bytes must be readable even of a shorter value.
 *   KDZK_LEN_ARRAY     the value's bytes, back to back; its length as uint16_t in out->lengths.
 *   KDZK_LEN_PREFIXED  the length as uint16_t and behind it the bytes, back to back.
 *   KDZK_PTR_LEN       the value's address in out->data, 8 bytes; its length in out->lengths. No byte is copied.
 *   KDZK_PAIR16        length and address as a 16-byte entry, bytes 2 to 7 of which keep what they hold.
 *   KDZK_REF_WORDS     a compact word of 8 bytes, the only form that goes by row: row i's is at byte 8 * i of
 *                      out->data, in every call. The word is reference << 16 | length. The reference of an entry of
 *                      KDZK_STORE_REFS is the entry's own, cut to its low out->enc_ctx->ref_bits bits; of the other two
 *                      it is (page << ref_bits) + the low ref_bits bits of the value's address: a host that resolves it
 *                      as (ref_pages[page] + low bits) must keep ref_pages[page] aligned to 2^ref_bits bytes.
 * out->out_size: bytes at out->data, which limits every form but the last one. It is not reduced. out->lengths needs
 * room for as many rows as can fit. A value of KDZK_STORE_OFFSETS may be longer than 65535 bytes: it is copied whole,
 * and the length stored is its low 16 bits, as it is in the two forms that keep addresses and in compact words.
 *
 * Copies without a row store, which may then be null: out has KDZK_LEN_ARRAY or, failing that, KDZK_LEN_PREFIXED, even
 * together with KDZK_FIXED_BYTES, and in->enc_ctx->flags has one of, in this order:
 *   KDZK_PTR_LEN       addresses in in->data, lengths in in->lengths
 *   KDZK_PAIR16        16-byte entries
 *   KDZK_REF_WORDS     compact words; with r = word >> 16, the value is at ref_pages[r >> ref_bits] plus the low
 *                      ref_bits bits of r, by the fields of in->enc_ctx.
 * This is asked before anything else, so a column that has these flags is never taken for one of locators then.
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
 * of
 *   KDZK_FIXED_BYTES   values of width / 8 bytes, cut to a whole number, back to back
 *   KDZK_LEN_ARRAY     values back to back, their lengths in col->lengths
 *   KDZK_LEN_PREFIXED  values back to back, each behind its length; the pair has the address of the value
 *   KDZK_PTR_LEN       addresses in col->data, lengths in col->lengths
 *   KDZK_PAIR16        16-byte entries
 * Empty values get an address too, that at which a value would be. The matrix and the column must not overlap.
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
 * 16 bits, and wrap for longer rows. In all other cases each value is an item, of its bytes alone. The directory:
 *   KDZK_STORE_OFFSETS  the end of each item, counted in bytes from an entry before the first one. If first_row is 0
 *                       the call begins by storing an entry of 0 and moves the cursor on; otherwise the running end is
 *                       read from the entry just before the cursor, which must be there. n items are n + 1 entries,
 *                       and item i lies between entries i and i + 1. To let ht_gather read them, bases[t] is the
 *                       address of the first item's bytes.
 *   KDZK_STORE_PAIRS    a pair for each item, with its address. The length of a row is the sum of its values' lengths,
 *                       without the 2 bytes before each; a host that wants to walk over the row adds 2 * ncols. Bytes
 *                       2 to 7 of a pair keep what they hold.
 *
 * first_row is an unsigned, last_row a signed number; no row is done if first_row is above last_row. exec->row, which
 * is not read, receives the first row not done, and the return value is
 *   KDZK_DONE         row is last_row + 1, or first_row if that is above last_row.
 *   KDZK_PAGE_FULL    row `row` didn't fit, or only some of its values did: the cursors stand at its beginning, and
 *                     what is in memory behind them has no meaning. A row longer than a whole page gives this again and
 *                     again.
 *   KDZK_UNSUPPORTED  `target` is null, or has neither flag; nothing was written, exec->row neither.
 * After KDZK_PAGE_FULL the host goes on with first_row = row, on one of two roads. On the same page, after raising
 * data_limits[t]; if row is 0 and the directory is of offsets, it first puts offset_cursors[t] back by 4 bytes, as the
 * call will store the entry of 0 again. Or on a fresh page, whose directory of offsets, unless row is 0, the host
 * begins itself: it stores an entry, of 0 if items are to be counted from the page's bytes, and puts the cursor behind
 * it.
 * Nothing needs an alignment, and values need no readable bytes behind them. Neither values nor the matrix may lie in
 * what is written. */
typedef uint64_t (*kdzk_pack_rows_fn)(const kdzk_rowstore* target, const kdzk_rowstore* source, int32_t target_page,
                                      int32_t source_page, uint32_t first_row, int32_t last_row, kdzk_exec* exec);

/* bloom_test: which rows of a column of hashes may be in a filter that the host built (kdzk/host/bloom.h); one bit
 * each.
 *
 * values: enc_ctx->flags must have KDZK_NUMERIC. enc_ctx->width is 32 for elements of 4 bytes at `data`, big-endian
 * numbers; with any other value they are 8 bytes, of which the last four are read, as a big-endian number. nrows: the
 * end of the rows; exec->start_row, not above it, is the first. No padding is read.
 * filter: of enc_ctx bloom_paged, bloom_mask and, if bloom_paged isn't 0, page_shift and page_mask. v being the number
 * AND bloom_mask, a row's bit is bit v % 8 of byte v / 8 at `bitvec`. In a paged filter `bitvec` points to an array of
 * pointers to pages; with b = v AND page_mask, it is bit b % 8 of byte b / 8 of page v >> (page_shift % 32).
 * exec, not null: selection, start_row and out_flags. With a selection, whatever exec->flags says, only its rows are
 * tested, and out_flags gets KDZK_OUT_BLOOM_SELECTIVE. Of the selection the words of the rows are read.
 * result: data, a kdzk_hit_range, and hits are written. bitvec, zero for these rows: a hit sets its row's bit. In a
 * vector that isn't zero bits of earlier hits stay, but without a selection 16 rows are written together, beginning at
 * each 16th row after the first multiple of 8 from start_row on, if one of them is a hit and all are below nrows.
 *
 * Returns KDZK_DONE, KDZK_NO_ROW if no row is a hit, or KDZK_UNSUPPORTED without KDZK_NUMERIC; then nothing was
 * written. A filter is only read, and may be shared by threads. */
typedef uint64_t (*kdzk_bloom_fn)(kdzk_vec* result, const kdzk_vec* values, const kdzk_vec* filter, kdzk_exec* exec);

#ifdef __cplusplus
}
#endif

#endif
